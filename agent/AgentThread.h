#ifndef KJP_AGENTTHREAD_H
#define KJP_AGENTTHREAD_H

#include <jni.h>
#include <jvmti.h>

// A java.lang.Thread object named 'name', for JVMTI RunAgentThread. The agent's own threads
// (the CPU sampler, the OOME detector) are made this way by whichever layer owns them.
jthread createAgentThread(JNIEnv* env, const char* name);

#endif
