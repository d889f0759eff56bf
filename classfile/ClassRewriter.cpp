#include "classfile/ClassRewriter.h"

#include <stdio.h>

#include <new>

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/Options.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"

bool ClassRewriter::rewrite(const char* className, KVector<unsigned char>& input, KVector<unsigned char>& output,
                            ClassEditor editor, void* context) {
  KASSERT(output.size() == 0);
  const char* reason = nullptr;
  char reasonBuffer[ClassFormatError::MAX_REASON_LENGTH];
  try {
    DataInput in(input);
    ClassFile classFile(in);
    if (editor != nullptr) {
      editor(classFile, context);
    }
    DataOutput out(output);
    classFile.writeClass(out);
    return true;
  } catch (const ClassFormatError& error) {
    snprintf(reasonBuffer, sizeof(reasonBuffer), "%s", error.getReason());
    reason = reasonBuffer;
  } catch (const std::bad_alloc&) {
    reason = "out of memory";
  }
  output.clear();
  warnCannotInstrument(className, reason);
  return false;
}

void ClassRewriter::warnCannotInstrument(const char* className, const char* reason) {
  if (ourOptions.myQuiet) {
    return;
  }
  fprintf(stderr, KJP_LOG_PREFIX "*** Warning ***: class %s cannot be instrumented: %s\n",
          className != nullptr ? className : "<NULL>", reason);
  fflush(stderr);
}
