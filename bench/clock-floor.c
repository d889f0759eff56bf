/* The floor of a traced call: two reads of the calling thread's CPU clock, as the tracing probes
 * make them (one system call each). A JNI library for com.kestrix.bench.ClockFloor, so that the
 * floor is measured in the thread that makes the traced calls, between blocks of them: the cost of
 * a system call drifts by several per cent from one second to the next on a shared machine, which
 * is as much as the whole overhead being measured. */
#define _GNU_SOURCE
#include <jni.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static long long threadCPUTimeNs(void) {
    struct timespec ts;
    syscall(SYS_clock_gettime, CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

static volatile long long ourSink;

/* Makes the given number of pairs of reads; the caller times them. */
JNIEXPORT void JNICALL Java_com_kestrix_bench_ClockFloor_readPairs(JNIEnv* env, jclass klass, jlong pairs) {
    (void)env;
    (void)klass;
    long long sink = 0;
    for (jlong i = 0; i < pairs; i++) {
        sink += threadCPUTimeNs();
        sink -= threadCPUTimeNs();
    }
    ourSink += sink;
}

/* The cheapest probe there could be: a JNI native with the probes' signature that reads the clock
 * and keeps nothing. Two of them around a call are the bare cost of timing it from Java. */
JNIEXPORT void JNICALL Java_com_kestrix_bench_ClockFloor_probe(JNIEnv* env, jclass klass, jshort low, jshort high) {
    (void)env;
    (void)klass;
    ourSink += threadCPUTimeNs() + low + high;
}
