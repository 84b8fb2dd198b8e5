/* Preloaded into the daemon: the allocation with the number in FAIL_AT fails, counted from the moment at which the
 * daemon makes its FIFO; 0 fails none. Where it failed goes to standard error, and at an orderly end the number of
 * allocations. Not for production. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);

static atomic_int  armed;
static atomic_long number;
static long        fail_at;

static int is_to_fail(void) {
    if (!atomic_load(&armed)) return 0;
    if (atomic_fetch_add(&number, 1) + 1 != fail_at) return 0;
    void     *frames[24];
    const int depth = backtrace(frames, 24);
    backtrace_symbols_fd(frames, depth, STDERR_FILENO);
    errno = ENOMEM;
    return 1;
}

void *malloc(size_t size) { return is_to_fail() ? NULL : __libc_malloc(size); }

void *calloc(size_t count, size_t size) { return is_to_fail() ? NULL : __libc_calloc(count, size); }

void *realloc(void *old, size_t size) { return is_to_fail() ? NULL : __libc_realloc(old, size); }

int mkfifo(const char *path, mode_t mode) {
    int (*real)(const char *, mode_t) = (int (*)(const char *, mode_t))dlsym(RTLD_NEXT, "mkfifo");
    const char *text                  = getenv("FAIL_AT");
    fail_at                           = text ? atol(text) : 0;
    const int result                  = real(path, mode);
    void     *frame;
    (void)backtrace(&frame, 1); /* loads what it needs: that allocates */
    atomic_store(&armed, 1);
    return result;
}

__attribute__((destructor)) static void tell(void) {
    if (!atomic_exchange(&armed, 0)) return;
    fprintf(stderr, "allocations: %ld%s\n", atomic_load(&number),
            fail_at > 0 && atomic_load(&number) >= fail_at ? ", one failed" : "");
}
