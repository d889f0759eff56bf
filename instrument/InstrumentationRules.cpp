#include "instrument/InstrumentationRules.h"

#include <string.h>


namespace {

struct Exclusion {
  const char* myName;
  bool myIsPrefix;
  const char* myReason;  // documentation only: why the natives stay as they are
};

const Exclusion EXCLUSIONS[] = {
    {"com/kestrix/runtime/Callback", false, "the probes' own target; wrapping would recurse"},
    {"com/kestrix/runtime/Core", false, "the agent's runtime; its natives must not be timed"},
    {"java/lang/Object", false, "hashCode, getClass, notify and wait are intrinsics or need their own frame"},
    {"java/net/SocketInputStream", false, "its socketRead0 is reported at the call site instead"},
    {"java/net/SocketOutputStream", false, "its socketWrite0 is reported at the call site instead"},
    {"java/io/RandomAccessFile", false, "its reads and writes are reported at the call site instead"},
    {"java/util/ResourceBundle", false, "getClassContext inspects the caller's frames"},
    {"java/lang/ClassLoader", true, "natives look at their caller's class loader through the stack"},
    {"java/lang/Throwable", true, "fillInStackTrace skips frames by count; a wrapper would show up"},
    {"sun/reflect/", true, "getCallerClass counts frames; a wrapper shifts them"},
    {"jdk/internal/reflect/", true, "the same caller-sensitive natives as sun/reflect/ on newer JVMs"},
    {"java/lang/invoke/", true, "signature-polymorphic natives and intrinsics that the JVM links itself"},
    {"jdk/internal/", true, "intrinsics (Unsafe, misc, vm) whose calls the JIT replaces by name"},
    {"java/lang/ref/", true, "reference handling natives that the collector treats specially"},
    {"java/lang/Thread", false, "currentThread and others are intrinsics; registration depends on their names"},
    {"java/lang/Class", false, "caller-sensitive and intrinsic natives (forName0, getModifiers, isInstance)"},
    {"java/lang/System", false, "arraycopy, currentTimeMillis and nanoTime are intrinsics; registerNatives"},
    {"java/lang/StrictMath", false, "math intrinsics are bound by name"},
};

// What a probe runs besides the JVM's intrinsics (Thread.currentThread, System.identityHashCode).
const char* const PROBE_PLUMBING[] = {"com/kestrix/runtime/Callback", "com/kestrix/runtime/CallLog"};

bool matchesExactlyOrNested(const char* className, const char* name) {
  size_t length = strlen(name);
  return strncmp(className, name, length) == 0 && (className[length] == '\0' || className[length] == '$');
}

}  // namespace

bool isProbePlumbing(const char* className) {
  if (className == nullptr) {
    return false;
  }
  for (const char* name : PROBE_PLUMBING) {
    if (matchesExactlyOrNested(className, name)) {
      return true;
    }
  }
  return false;
}

bool canWrapNativesOfClass(const char* className) {
  if (className == nullptr) {
    return true;
  }
  for (const Exclusion& exclusion : EXCLUSIONS) {
    size_t length = strlen(exclusion.myName);
    if (exclusion.myIsPrefix ? strncmp(className, exclusion.myName, length) == 0
                             : strcmp(className, exclusion.myName) == 0) {
      return false;
    }
  }
  return true;
}
