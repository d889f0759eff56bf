/* The floor of a traced call: two reads of the calling thread's CPU clock, as the tracing probes
 * make them (one system call each). Prints "clock_pair_ns N", in the thread's own CPU time. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static long long threadCPUTimeNs(void) {
    struct timespec ts;
    syscall(SYS_clock_gettime, CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

int main(int argc, char** argv) {
    long pairs = argc > 1 ? atol(argv[1]) : 2000000;
    long long sink = 0;
    long long start = threadCPUTimeNs();
    for (long i = 0; i < pairs; i++) {
        sink += threadCPUTimeNs();
        sink -= threadCPUTimeNs();
    }
    long long used = threadCPUTimeNs() - start;
    printf("clock_pair_ns %.1f%s\n", (double)used / pairs, sink == 1 ? " " : "");
    return 0;
}
