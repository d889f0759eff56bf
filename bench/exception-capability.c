/* The floor under exception telemetry: an agent that holds the one JVMTI capability the
 * exception events need, can_generate_exception_events, and does nothing else. HotSpot decides
 * from the capability alone, not from the events, that every compiled frame an exception passes
 * through is deoptimized; a program that throws for its control flow pays for that with any
 * agent that can count its exceptions. bench/startup.sh runs javac under it beside the real
 * agent. */
#include <jvmti.h>
#include <string.h>

JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char* options, void* reserved) {
    (void)options;
    (void)reserved;
    jvmtiEnv* jvmti = NULL;
    if ((*vm)->GetEnv(vm, (void**)&jvmti, JVMTI_VERSION_1_2) != JNI_OK) {
        return JNI_ERR;
    }
    jvmtiCapabilities capabilities;
    memset(&capabilities, 0, sizeof(capabilities));
    capabilities.can_generate_exception_events = 1;
    return (*jvmti)->AddCapabilities(jvmti, &capabilities) == JVMTI_ERROR_NONE ? JNI_OK : JNI_ERR;
}
