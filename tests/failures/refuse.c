// Preloaded, refuses one allocation of a program: the one with the number in IHP_REFUSE among those
// of all threads, from the first call of sigprocmask() on, with which main() begins. Zero for none.
// Writes that, and how many there were in the end, to the file IHP_TRACE, as strace would.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

static atomic_long count;
static atomic_long chosen = -1; // before main()

static void tell(char const* what, long number) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    char line[80];
    int const length = snprintf(line, sizeof line, "%lld.%06ld malloc(%ld) %s\n",
                                (long long)now.tv_sec, now.tv_nsec / 1000, number, what);
    int const file = open(getenv("IHP_TRACE"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || write(file, line, length) != length) abort();
    close(file);
}

static int refuses(void) {
    if (chosen < 0) return 0;
    long const number = ++count;
    if (number != chosen) return 0;
    tell("= ENOMEM (INJECTED)", number);
    errno = ENOMEM;
    return 1;
}

int sigprocmask(int how, sigset_t const* set, sigset_t* old) {
    if (chosen < 0) chosen = atol(getenv("IHP_REFUSE"));
    return pthread_sigmask(how, set, old);
}
__attribute__((destructor)) static void end(void) {
    if (chosen >= 0) tell("was the last", count);
}

void* malloc(size_t size) { return refuses() ? NULL : __libc_malloc(size); }
void* calloc(size_t number, size_t size) {
    return refuses() ? NULL : __libc_calloc(number, size);
}
void* realloc(void* old, size_t size) { return refuses() ? NULL : __libc_realloc(old, size); }
void* aligned_alloc(size_t alignment, size_t size) {
    return refuses() ? NULL : __libc_memalign(alignment, size);
}
