#include "engines/Monitors.h"

namespace Monitors {

volatile jlong ourMonitorRecordingStartNs = 0;
volatile jlong ourMonitorRecordingLastNs = 0;
bool ourMonitorEventHandlersInstalled = false;

}  // namespace Monitors
