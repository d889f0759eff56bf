#ifndef KJP_CLASSREWRITER_H
#define KJP_CLASSREWRITER_H

#include "agent/KVector.h"

class ClassFile;

// Changes one class in place; may throw ClassFormatError to refuse a class it cannot change
// consistently.
typedef void (*ClassEditor)(ClassFile& classFile, void* context);

// The one way in for class bytes from outside: read, change, write, or give up and leave
// the class as the JVM gave it. Nothing about a class may take the JVM down.
class ClassRewriter {
 public:
  // Reads the class in 'input', lets 'editor' (if any) change it and writes it to 'output',
  // which must be empty. Returns true when 'output' holds the new class. Returns false when
  // the class could not be read, changed or written consistently: 'output' is then empty,
  // the class is to be left as it was, and unless the quiet option is set a warning names
  // the class (or "<NULL>") and the reason on stderr.
  static bool rewrite(const char* className, KVector<unsigned char>& input, KVector<unsigned char>& output,
                      ClassEditor editor, void* context);

  // "*** Warning ***: class %s cannot be instrumented: %s", unless quiet.
  static void warnCannotInstrument(const char* className, const char* reason);
};

#endif
