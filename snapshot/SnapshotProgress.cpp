#include "snapshot/SnapshotProgress.h"

#include <stdio.h>

#include "agent/Clock.h"
#include "agent/KAssert.h"
#include "agent/Options.h"
#include "db/AbstractTable.h"
#include "snapshot/SocketWriter.h"

namespace {

// Captures run under ourLock, so one value serves every writer.
jint ourLastReportedProgress = 0;

void putBigEndianInt(unsigned char* bytes, jint value) {
  unsigned int bits = static_cast<unsigned int>(value);
  bytes[0] = static_cast<unsigned char>(bits >> 24);
  bytes[1] = static_cast<unsigned char>(bits >> 16);
  bytes[2] = static_cast<unsigned char>(bits >> 8);
  bytes[3] = static_cast<unsigned char>(bits);
}

}  // namespace

void encodeProgressPacket(jint percent, unsigned char* packet) {
  unsigned long long magic = static_cast<unsigned long long>(PACKET_MAGIC);
  putBigEndianInt(packet, static_cast<jint>(magic >> 32));
  putBigEndianInt(packet + 4, static_cast<jint>(magic & 0xFFFFFFFFu));
  putBigEndianInt(packet + 8, PACKET_PROGRESS);
  putBigEndianInt(packet + 12, percent);
}

void updateProgress(jint progressHandle, jint percent) {
  if (ourOptions.myPrintPercents) {
    fprintf(stderr, "snapshot progress: %d uptime %d\n", percent,
            static_cast<int>(ourUptimeProvider.getUptimeMs() / 1000));
    fflush(stderr);
  }
  KASSERT(percent > 0);
  KASSERT(percent < 100);
  if (percent > ourLastReportedProgress) {
    ourLastReportedProgress = percent;
  }
  if (progressHandle == 0) {
    return;
  }
  unsigned char packet[PROGRESS_PACKET_SIZE];
  encodeProgressPacket(percent, packet);
  // A UI that stopped listening costs it the progress, never the capture.
  sendFully(progressHandle, reinterpret_cast<const char*>(packet), PROGRESS_PACKET_SIZE);
}

jint getLastReportedProgress() { return ourLastReportedProgress; }

void resetReportedProgress() { ourLastReportedProgress = 0; }

void installTableProgressReporter() { ourTableProgressReporter = updateProgress; }
