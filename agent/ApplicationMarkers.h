#ifndef KJP_APPLICATIONMARKERS_H
#define KJP_APPLICATIONMARKERS_H

#include <jni.h>
#include <sys/types.h>

// A profiler UI on the same machine finds the profiled applications through a System V shared
// memory block that every agent marks the port it listens on in: 65536 entries of 8 bytes,
// indexed by TCP port, each holding the owner's pid and its marker type bits (1 Java, 2 CLR,
// 4 IIS, 8 VS plugin), in native byte order. Whoever comes first creates the block; readers
// clear the entries of processes that have gone, so an agent never removes its own.

const key_t MARKER_BLOCK_KEY = 0x4234148E;
const int MARKER_BLOCK_SIZE = 524288;
const int MARKER_TYPE_BIT_JAVA = 1;
const int MARKER_TYPE_BIT_VS_PLUGIN = 8;

// One entry of the block.
struct MarkerEntry {
  jint myPid;   // 0 for a free entry
  jint myType;  // marker type bits
};

// Marks 'port' as this process's, with the given type bits, overwriting whatever entry the
// port had. A machine without shared memory simply has no markers: nothing is reported, and
// the next call tries to attach again. The port must be 0 to 65535.
void createMarker(int port, int type);

// The same on a block with another key, so that the marking can be checked without touching
// the machine's real block.
void createMarkerInBlock(key_t key, int port, int type);

// The machine's block, attached on first use; null while shared memory is not available.
MarkerEntry* getGlobalMarkerBlock();

// Attaches the block with 'key', creating it if it does not exist; null on failure.
MarkerEntry* attachMarkerBlock(key_t key);

// The marker of a Visual Studio plugin: type 8.
extern "C" void createMarkerVSPlugin(int port);

#endif
