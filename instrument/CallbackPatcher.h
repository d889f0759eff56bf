#ifndef KJP_CALLBACKPATCHER_H
#define KJP_CALLBACKPATCHER_H

#include <jni.h>

#include "agent/KVector.h"

// The bodies of com/kestrix/runtime/Callback. Every probe in every class calls one of its
// static methods, so switching a measurement on or off only means giving these few methods
// other bodies; no application class is ever transformed a second time.
//
// Each patch reads the class in 'input' (not empty) and writes the patched class to 'output'
// (empty). It returns true when 'output' holds the class; false when the class could not be
// read or written, with 'output' empty and the class warning printed.

// Prepares the class as the hook first sees it. Without flags the bodies stay empty. With
// flags (JVMs on which the class is never redefined) each probe method reads its flag field
// and calls its native only while the flag is set.
bool patchCallback(KVector<unsigned char>& input, KVector<unsigned char>& output, bool useFlags);

// kjpMethodEntry and kjpMethodExit call their natives.
bool patchCallbackToEnableInvocationCounting(KVector<unsigned char>& input, KVector<unsigned char>& output);

// kjpMethodEntry and kjpMethodExit write to the thread's call log, for counts without times.
bool patchCallbackToEnableLoggedInvocationCounting(KVector<unsigned char>& input, KVector<unsigned char>& output);

// kjpInit calls its native.
bool patchCallbackToEnableAllocations(KVector<unsigned char>& input, KVector<unsigned char>& output);

// kjpParkEntry and kjpParkExit call their natives. On JVMs that use flags they stay empty:
// parks on java.util.concurrent locks are not recorded there.
bool patchCallbackToEnableParkProbes(KVector<unsigned char>& input, KVector<unsigned char>& output);

// Makes the loaded callback class match ourStatus: sets the two flag fields where flags are
// used, otherwise redefines the class with the bodies built afresh from ourCallbackBytes.
// Takes ourLock; the hook that RedefineClasses triggers runs on the same thread and goes on.
void redefineCallback(JNIEnv* env);

#endif
