/* Preloaded into the daemon by some tests: makes its waits shorter by the factor in the environment variable FASTER.
 *
 * What the daemon measures out (poll, pauses, timers) shrinks alike, so the order of things stays; what the kernel and
 * the peer need does not shrink. Not for production use. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/timerfd.h>
#include <time.h>

static double factor(void) {
    const char  *text  = getenv("FASTER");
    const double value = text ? atof(text) : 1;
    return value >= 1 ? value : 1;
}

/* Never down to zero: that would disarm a timer. */
static struct timespec shorten(struct timespec t) {
    const double seconds = ((double)t.tv_sec + (double)t.tv_nsec / 1e9) / factor();
    if (t.tv_sec <= 0 && t.tv_nsec <= 0) return t;
    t.tv_sec  = (time_t)seconds;
    t.tv_nsec = (long)((seconds - (double)t.tv_sec) * 1e9);
    if (t.tv_sec == 0 && t.tv_nsec == 0) t.tv_nsec = 1;
    return t;
}

int nanosleep(const struct timespec *wanted, struct timespec *rest) {
    const struct timespec shorter = shorten(*wanted);
    return clock_nanosleep(CLOCK_REALTIME, 0, &shorter, rest) == 0 ? 0 : -1;
}

unsigned sleep(unsigned seconds) {
    const struct timespec wanted = {(time_t)seconds, 0};
    return nanosleep(&wanted, NULL) == 0 ? 0 : seconds;
}

int timerfd_settime(int fd, int flags, const struct itimerspec *wanted, struct itimerspec *old) {
    static int (*real)(int, int, const struct itimerspec *, struct itimerspec *);
    if (!real)
        real = (int (*)(int, int, const struct itimerspec *, struct itimerspec *))dlsym(RTLD_NEXT, "timerfd_settime");
    struct itimerspec shorter = *wanted;
    shorter.it_value          = shorten(wanted->it_value);
    shorter.it_interval       = shorten(wanted->it_interval);
    return real(fd, flags, &shorter, old);
}
