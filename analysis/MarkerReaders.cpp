#include "analysis/MarkerReaders.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace {

const int MARKER_TYPE_BIT_IIS = 4;
const int MARKER_PORTS = 0x10000;

bool processExists(jint pid) {
  char path[32];
  snprintf(path, sizeof(path), "/proc/%d", pid);
  int fd = open(path, O_RDONLY | O_DIRECTORY);
  if (fd == -1) {
    return false;
  }
  close(fd);
  return true;
}

}  // namespace

void collectMarkedPorts(MarkerEntry* block, int typeMask, KVector<jint>* ports) {
  for (int port = 0; port < MARKER_PORTS; port++) {
    if (block[port].myPid != 0 && !processExists(block[port].myPid)) {
      block[port].myPid = 0;
    }
  }
  for (int port = 0; port < MARKER_PORTS; port++) {
    if (block[port].myPid != 0 && (block[port].myType & typeMask) != 0) {
      ports->push(port);
    }
  }
}

void clearIISMarker(MarkerEntry* block, int port) {
  if (block != nullptr && port >= 0 && port < MARKER_PORTS) {
    block[port].myType &= ~MARKER_TYPE_BIT_IIS;
  }
}

extern "C" {

JNIEXPORT void JNICALL Java_com_kestrix_Natives_clearIIS(JNIEnv*, jclass, jint port) {
  clearIISMarker(getGlobalMarkerBlock(), port);
}

JNIEXPORT jintArray JNICALL Java_com_kestrix_Natives_fillPorts(JNIEnv* env, jclass, jint typeMask) {
  MarkerEntry* block = getGlobalMarkerBlock();
  if (block == nullptr) {
    return nullptr;
  }
  KVector<jint> ports(16);
  collectMarkedPorts(block, typeMask, &ports);
  jintArray result = env->NewIntArray(ports.size());
  if (result != nullptr && ports.size() > 0) {
    env->SetIntArrayRegion(result, 0, ports.size(), ports.getArray());
  }
  return result;
}

}  // extern "C"
