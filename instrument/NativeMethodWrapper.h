#ifndef KJP_NATIVEMETHODWRAPPER_H
#define KJP_NATIVEMETHODWRAPPER_H

class ClassFile;
class MethodInfo;

// Splits a native method so that it can take probes: the native itself moves to a new
// method whose name carries ourNativeMethodPrefix (the JVM binds it to the old
// implementation through that prefix), and the method under the old name becomes ordinary
// bytecode that passes its arguments on and returns the result. Throws ClassFormatError
// for a descriptor it cannot read.
void instrumentNativeMethod(ClassFile& classFile, MethodInfo* method);

#endif
