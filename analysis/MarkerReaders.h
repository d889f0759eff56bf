#ifndef KJP_MARKERREADERS_H
#define KJP_MARKERREADERS_H

#include "agent/ApplicationMarkers.h"
#include "agent/KVector.h"

// The UI's side of the shared-memory markers: which ports belong to live profiled processes.

// Frees the entries of processes that are gone (no /proc/<pid>), so that a process killed
// without a chance to clean up, or a port reused since, leaves no trace; then appends, in
// ascending order, each port whose entry has a pid and a type bit of 'typeMask'.
void collectMarkedPorts(MarkerEntry* block, int typeMask, KVector<jint>* ports);

// Clears the IIS bit (4) of the port's entry and leaves its owner.
void clearIISMarker(MarkerEntry* block, int port);

#endif
