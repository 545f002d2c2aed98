// Preloaded by a test: sends vsctl (but not its children) a signal before its nth change of a file: a write
// to a database, or the making or removal of a file's name. The signal is SIGKILL unless the test names
// another.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static void Step(void)
{
    static int steps;
    const char *last = getenv("VSCTL_TEST_KILL_AT"), *number = getenv("VSCTL_TEST_SIGNAL");
    if (!last || strcmp(program_invocation_short_name, "vsctl") != 0) return;
    steps++;
    if (steps == atoi(last)) raise(number ? atoi(number) : SIGKILL);
}

// Seconds of processor time that vsctl has used.
static double Used(void)
{
    struct timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return (double)used.tv_sec + (double)used.tv_nsec / 1e9;
}

// The time limit: when it was started, and the longest time between two starts.
static double startedAt, longest;
static int isLimited;

int setitimer(enum __itimer_which which, const struct itimerval *value, struct itimerval *old)
{
    int (*next)(enum __itimer_which, const struct itimerval *, struct itimerval *) =
        dlsym(RTLD_NEXT, "setitimer");
    const double now = Used();
    if (isLimited && now - startedAt > longest) longest = now - startedAt;
    isLimited = value->it_value.tv_sec || value->it_value.tv_usec;
    startedAt = now;
    return next(which, value, old);
}

// Writes to the file VSCTL_TEST_LIMIT the longest time between two starts of the limit, and the time of all.
__attribute__((destructor)) static void WriteLongest(void)
{
    const char *path = getenv("VSCTL_TEST_LIMIT");
    FILE *file = path && strcmp(program_invocation_short_name, "vsctl") == 0 ? fopen(path, "w") : NULL;
    if (!file) return;
    fprintf(file, "%f %f\n", longest, Used());
    fclose(file);
}

// With VSCTL_TEST_CLOCK, the wall clock is so many seconds ahead.
static time_t Ahead(void) { return getenv("VSCTL_TEST_CLOCK") ? atol(getenv("VSCTL_TEST_CLOCK")) : 0; }

time_t time(time_t *out)
{
    time_t (*next)(time_t *) = dlsym(RTLD_NEXT, "time");
    const time_t now = next(NULL) + Ahead();
    if (out) *out = now;
    return now;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    int (*next)(clockid_t, struct timespec *) = dlsym(RTLD_NEXT, "clock_gettime");
    const int result = next(clock, now);
    if (clock == CLOCK_REALTIME) now->tv_sec += Ahead();
    return result;
}

ssize_t pwrite64(int file, const void *bytes, size_t length, off64_t offset)
{
    Step();
    ssize_t (*next)(int, const void *, size_t, off64_t) = dlsym(RTLD_NEXT, "pwrite64");
    return next(file, bytes, length, offset);
}

int rename(const char *from, const char *to)
{
    Step();
    int (*next)(const char *, const char *) = dlsym(RTLD_NEXT, "rename");
    return next(from, to);
}

int unlink(const char *path)
{
    Step();
    int (*next)(const char *) = dlsym(RTLD_NEXT, "unlink");
    return next(path);
}
