#include "agent/ApplicationMarkers.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include "agent/KAssert.h"

namespace {

// Attached on first use and kept; a failed attach leaves it null until the next try.
MarkerEntry* ourGlobalMarkers = nullptr;

}  // namespace

MarkerEntry* attachMarkerBlock(key_t key) {
  int id = shmget(key, MARKER_BLOCK_SIZE, IPC_CREAT | 0666);
  if (id == -1) {
    return nullptr;
  }
  void* address = shmat(id, nullptr, SHM_RND);
  if (address == reinterpret_cast<void*>(-1)) {
    return nullptr;
  }
  return static_cast<MarkerEntry*>(address);
}

namespace {

void markEntry(MarkerEntry* block, int port, int type) {
  KASSERT(port >= 0);
  KASSERT(port < 0x10000);
  if (block == nullptr) {
    return;
  }
  // The pid goes first: a reader that sees the new pid with the old type only misjudges the
  // kind of the entry, never its owner.
  block[port].myPid = static_cast<jint>(getpid());
  block[port].myType = type;
}

}  // namespace

MarkerEntry* getGlobalMarkerBlock() {
  if (ourGlobalMarkers == nullptr) {
    ourGlobalMarkers = attachMarkerBlock(MARKER_BLOCK_KEY);
  }
  return ourGlobalMarkers;
}

void createMarker(int port, int type) { markEntry(getGlobalMarkerBlock(), port, type); }

void createMarkerInBlock(key_t key, int port, int type) {
  MarkerEntry* block = attachMarkerBlock(key);
  markEntry(block, port, type);
  if (block != nullptr) {
    shmdt(block);
  }
}

extern "C" void createMarkerVSPlugin(int port) { createMarker(port, MARKER_TYPE_BIT_VS_PLUGIN); }
