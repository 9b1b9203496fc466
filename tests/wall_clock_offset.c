/* The wall clock of one process set back or forward by QUILLVANE_TEST_WALL_OFFSET
 * seconds, every other clock (boot time, monotonic) left true: loaded with
 * LD_PRELOAD. It asks the kernel itself rather than the C library, so that it
 * answers even before the process is ready (AddressSanitizer asks the time while
 * it starts, where libfaketime hangs). */
#define _GNU_SOURCE
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

int clock_gettime(clockid_t clock, struct timespec *now)
{
    const long result = syscall(SYS_clock_gettime, clock, now);
    const char *offset = getenv("QUILLVANE_TEST_WALL_OFFSET");
    if (result == 0 && offset && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += atol(offset);
    return (int)result;
}

int gettimeofday(struct timeval *now, void *zone)
{
    struct timespec precise;
    (void)zone;
    if (clock_gettime(CLOCK_REALTIME, &precise) != 0)
        return -1;
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t *now)
{
    struct timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now)
        *now = precise.tv_sec;
    return precise.tv_sec;
}
