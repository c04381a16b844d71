// Preloaded, makes one fault in a program, from the first call of sigprocmask() on, with which
// main() begins, in any thread: IHP_FAULT is "KIND:NUMBER", by the table of kinds below, each of
// which counts its own opportunities; 0 for no fault. Writes when it struck, and how many
// opportunities of each kind there were in the end, to the file IHP_TRACE, as strace would.
//
// Where IHP_TRACER has a command of the shell, the first copy that the program makes of itself
// stops at once and the command begins, with the copy's number as $1: it lets the copy go on.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

// Memory is refused, so often in a row. Netlink's datagrams are lost, so that the kernel tells of
// an overrun, or longer than their room; of dumps what is told has changed meanwhile, or they are
// refused, or given up, with a word or without. One octet is read or written where there are more.
static struct {
    char const* name;
    atomic_long count; // of opportunities
} kinds[] = {
    {"malloc:1", 0},        {"malloc:40", 0},      {"netlink:lost", 0},   {"netlink:cut", 0},
    {"netlink:changed", 0}, {"netlink:denied", 0}, {"netlink:spoilt", 0}, {"netlink:endless", 0},
    {"short:read", 0},      {"short:write", 0},
};
static int const kindCount = sizeof kinds / sizeof *kinds;

static atomic_bool begun;
static char* chosen;
static long chosenNumber; // 0 for no fault

static void tell(char const* name, long number, char const* what) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    char line[100];
    int const length = snprintf(line, sizeof line, "%lld.%06ld %s(%ld) %s\n", (long long)now.tv_sec,
                                now.tv_nsec / 1000, name, number, what);
    int const file = open(getenv("IHP_TRACE"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || syscall(SYS_write, file, line, length) != length) abort();
    close(file);
}

static int strikes(char const* name) {
    if (!begun) return 0;
    int kind = 0;
    while (strcmp(kinds[kind].name, name) != 0) ++kind;
    long const number = ++kinds[kind].count, inARow = atol(strchr(name, ':') + 1);
    if (chosenNumber == 0 || strcmp(chosen, name) != 0 || number < chosenNumber ||
        (number > chosenNumber && number >= chosenNumber + inARow))
        return 0;
    tell(name, number, "(INJECTED)");
    return 1;
}

int sigprocmask(int how, sigset_t const* set, sigset_t* old) {
    if (!begun) {
        chosen = strdup(getenv("IHP_FAULT"));
        char* const colon = strrchr(chosen, ':');
        if (colon) {
            *colon = '\0';
            chosenNumber = atol(colon + 1);
        }
        begun = 1;
    }
    return pthread_sigmask(how, set, old);
}
__attribute__((destructor)) static void end(void) {
    for (int kind = 0; begun && kind < kindCount; ++kind)
        tell(kinds[kind].name, kinds[kind].count, "was the last");
}

static int refuses(void) {
    int const one = strikes("malloc:1");
    if (!strikes("malloc:40") && !one) return 0;
    errno = ENOMEM;
    return 1;
}
void* malloc(size_t size) { return refuses() ? NULL : __libc_malloc(size); }
void* calloc(size_t number, size_t size) { return refuses() ? NULL : __libc_calloc(number, size); }
void* realloc(void* old, size_t size) { return refuses() ? NULL : __libc_realloc(old, size); }
void* aligned_alloc(size_t alignment, size_t size) {
    return refuses() ? NULL : __libc_memalign(alignment, size);
}

static int socketOption(int fd, int option) {
    int value = -1;
    int const before = errno;
    socklen_t length = sizeof value;
    getsockopt(fd, SOL_SOCKET, option, &value, &length);
    errno = before;
    return value;
}

// Of a dump that was refused, what the kernel goes on to tell is left out.
static struct {
    ino_t socket;
    unsigned sequence;
} denial;

// The length that is left of a datagram; 0 for none.
static ssize_t disturbed(int fd, struct msghdr* header, ssize_t length) {
    struct nlmsghdr* const first = header->msg_iov->iov_base;
    struct nlmsghdr* done = NULL;
    int left = (int)length;
    for (struct nlmsghdr* each = first; NLMSG_OK(each, left); each = NLMSG_NEXT(each, left))
        if (each->nlmsg_type == NLMSG_DONE) done = each;
    struct sockaddr_nl own = {0};
    socklen_t size = sizeof own;
    struct stat status;
    if (getsockname(fd, (struct sockaddr*)&own, &size) != 0 || fstat(fd, &status) != 0) abort();
    int const answer = first->nlmsg_pid == own.nl_pid;
    int const dump = answer && (first->nlmsg_flags & NLM_F_MULTI);
    if (dump && denial.socket == status.st_ino && denial.sequence == first->nlmsg_seq) {
        if (done) denial.socket = 0;
        return 0;
    }
    if (strikes("netlink:lost")) {
        errno = ENOBUFS;
        return -1;
    }
    if (strikes("netlink:cut")) {
        header->msg_flags |= MSG_TRUNC;
        return length / 2;
    }
    if (dump && strikes("netlink:changed"))
        for (struct nlmsghdr* each = (left = (int)length, first); NLMSG_OK(each, left);
             each = NLMSG_NEXT(each, left))
            each->nlmsg_flags |= NLM_F_DUMP_INTR;
    if (answer && strikes("netlink:denied")) {
        if (dump && !done) {
            denial.socket = status.st_ino;
            denial.sequence = first->nlmsg_seq;
        }
        struct nlmsgerr const error = {-ENOMEM, *first};
        first->nlmsg_type = NLMSG_ERROR;
        first->nlmsg_flags = 0;
        first->nlmsg_len = NLMSG_LENGTH(sizeof error);
        memcpy(NLMSG_DATA(first), &error, sizeof error);
        return first->nlmsg_len;
    }
    if (done && strikes("netlink:spoilt")) *(int*)NLMSG_DATA(done) = -ENOMEM;
    if (done && strikes("netlink:endless")) return (char*)done - (char*)first;
    return length;
}

ssize_t recvmsg(int fd, struct msghdr* header, int flags) {
    for (;;) {
        ssize_t length = syscall(SYS_recvmsg, fd, header, flags);
        if (length <= 0 || !begun || socketOption(fd, SO_DOMAIN) != AF_NETLINK) return length;
        length = disturbed(fd, header, length);
        if (length != 0) return length;
    }
}

// A log takes its lines as a whole or not at all, as a pipe does.
static size_t shortened(char const* kind, int fd, size_t length) {
    struct stat status;
    if (!begun || fd <= STDERR_FILENO || length < 2 || fstat(fd, &status) != 0) return length;
    int const stream = S_ISREG(status.st_mode) ||
                       (S_ISSOCK(status.st_mode) && socketOption(fd, SO_TYPE) == SOCK_STREAM);
    return stream && strikes(kind) ? 1 : length;
}
ssize_t read(int fd, void* octets, size_t length) {
    return syscall(SYS_read, fd, octets, shortened("short:read", fd, length));
}
ssize_t recv(int fd, void* octets, size_t length, int flags) {
    return syscall(SYS_recvfrom, fd, octets, shortened("short:read", fd, length), flags, 0, 0);
}
ssize_t write(int fd, void const* octets, size_t length) {
    return syscall(SYS_write, fd, octets, shortened("short:write", fd, length));
}
ssize_t send(int fd, void const* octets, size_t length, int flags) {
    return syscall(SYS_sendto, fd, octets, shortened("short:write", fd, length), flags, 0, 0);
}

pid_t fork(void) {
    static int copies = 0;
    char const* const tracer = getenv("IHP_TRACER");
    pid_t const copy = ((pid_t(*)(void))dlsym(RTLD_NEXT, "fork"))();
    if (++copies > 1 || copy != 0 || !tracer) return copy;
    char number[12];
    snprintf(number, sizeof number, "%d", getpid());
    if (_Fork() == 0) {
        unsetenv("LD_PRELOAD");
        execl("/bin/sh", "sh", "-c", tracer, "sh", number, NULL);
        abort();
    }
    raise(SIGSTOP); // goes on when the tracer is there
    return copy;
}
