#ifndef KJP_MONITORS_H
#define KJP_MONITORS_H

#include <jni.h>

// Monitor profiling: how long threads block on Java monitors and wait in Object.wait.
namespace Monitors {

// getTimeNs() when recording last began or its data was last cleared; 0 if it never began.
// Together with ourMonitorRecordingLastNs it gives the recording's duration, which the
// client needs to put the blocked times in proportion.
extern volatile jlong ourMonitorRecordingStartNs;
// getTimeNs() when recording last ended.
extern volatile jlong ourMonitorRecordingLastNs;

// Whether the four monitor events (contended enter and entered, wait and waited) have their
// handlers in the agent's event callbacks. Set by whoever installs them, before VM Init; while
// it is false, starting and stopping monitor profiling only changes the status bit and the
// times, since an event without a handler must not be switched on.
extern bool ourMonitorEventHandlersInstalled;

}  // namespace Monitors

#endif
