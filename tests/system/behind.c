/* Preloaded by one test into programs whose clock is to be behind by the seconds in the environment variable BEHIND.
 * The monotonic clock goes on as it does. Not for production use. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

static time_t behind(void) {
    const char *text = getenv("BEHIND");
    return text ? (time_t)atoll(text) : 0;
}

int clock_gettime(clockid_t clock, struct timespec *now) {
    static int (*real)(clockid_t, struct timespec *);
    if (!real) real = (int (*)(clockid_t, struct timespec *))dlsym(RTLD_NEXT, "clock_gettime");
    const int result = real(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec -= behind();
    return result;
}

time_t time(time_t *now) {
    struct timespec at;
    clock_gettime(CLOCK_REALTIME, &at);
    if (now) *now = at.tv_sec;
    return at.tv_sec;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone) {
    struct timespec at;
    (void)zone;
    clock_gettime(CLOCK_REALTIME, &at);
    now->tv_sec  = at.tv_sec;
    now->tv_usec = at.tv_nsec / 1000;
    return 0;
}
