#ifndef KJP_SNAPSHOTPROGRESS_H
#define KJP_SNAPSHOTPROGRESS_H

#include <jni.h>

// Magic and type of the progress packet that a capture sends to the UI that asked for it.
const jlong PACKET_MAGIC = 123456789;
const jint PACKET_PROGRESS = 100600;
const jint PROGRESS_PACKET_SIZE = 16;

// Reports that a capture has reached 'percent', strictly between 0 and 100. With the
// printPercents option it is printed; with a progress handle, which is the socket of the UI
// that asked for the capture, one progress packet goes there. Handle 0 means nobody listens.
void updateProgress(jint progressHandle, jint percent);

// The highest percent reported since the last reset; 0 after a reset.
jint getLastReportedProgress();
void resetReportedProgress();

// The 16 bytes of a progress packet, big-endian like every packet frame.
void encodeProgressPacket(jint percent, unsigned char* packet);

// Routes the progress of table writing to updateProgress.
void installTableProgressReporter();

#endif
