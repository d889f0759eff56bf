#ifndef KJP_CLASSFORMATERROR_H
#define KJP_CLASSFORMATERROR_H

#include <stdarg.h>
#include <stdio.h>

// Thrown by the class-file model when the bytes of a class cannot be taken as they are
// (truncated, inconsistent, an entry or attribute the model does not know how to carry) or
// when a changed class cannot be written back consistently. Class bytes come from outside
// the agent, so nothing about them may end the process: the error travels up to the one
// entry point that reads classes (rewriteClass), which hands the class back unchanged.
//
// The reason is formatted into a fixed buffer, so that throwing allocates nothing beyond
// the exception object itself and the type stays trivially copyable.
class ClassFormatError {
 public:
  static constexpr int MAX_REASON_LENGTH = 200;

  explicit ClassFormatError(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(myReason, sizeof(myReason), format, arguments);
    va_end(arguments);
  }

  const char* getReason() const { return myReason; }

 private:
  char myReason[MAX_REASON_LENGTH];
};

#endif
