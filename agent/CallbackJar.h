#ifndef KJP_CALLBACKJAR_H
#define KJP_CALLBACKJAR_H

#include <stddef.h>

#include "agent/KString.h"

// The jar that puts com/kestrix/runtime/Callback on the boot class path, embedded in the
// library at build time.
extern const unsigned char ourCallbackJarBytes[];
extern const size_t ourCallbackJarBytes_length;

// Where the jar goes: the tmpdir option, else /tmp, and a fixed file name.
KString getCallbackJarPath(const char* tmpDir);

// Writes the jar to 'path' and checks it can be read back. A jar that can't be written is
// tolerated, since one left by an earlier run serves as well; false only when the file can't
// be read at all.
bool writeCallbackJar(const char* path);

#endif
