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

// Puts the jar at 'path' and checks it can be read back; returns the path to put on the boot
// class path, or an empty string when there is none.
//
// Other JVMs on the machine may have the jar at 'path' open and mapped, and a jar truncated
// under them ends them with SIGBUS, so it is never rewritten in place: a jar with these very
// bytes is used as it is, anything else is replaced by renaming a fresh file over it. A
// symbolic link, or a file that another user owns or others may write, is never trusted with
// a place on the boot class path. Where the directory can't be written, a jar left by an
// earlier run serves when it passes those checks; where the path is another user's, the
// fresh file keeps its own name.
KString installCallbackJar(const char* path);

#endif
