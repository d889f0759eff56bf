#ifndef KJP_TRACINGINSTRUMENTATION_H
#define KJP_TRACINGINSTRUMENTATION_H

#include <jni.h>

#include "agent/KSet.h"
#include "agent/KVector.h"

class ClassFile;
class MethodIDProvider;
class MethodInfo;

// The whole treatment of one class on its way into the JVM: pool entries for the callback
// class, wrapped natives, entry, exit and allocation probes in every method that takes them,
// and, with 'j2ee', the J2EE probes in the methods of the J2EE catalogue. Returns true when 'output' holds the rewritten class; false when the class must be
// left as the JVM gave it ('output' empty, the class warning already printed). className
// may be null; messages then name it "<NULL>".
bool instrumentForTracingAllocationJ2EE(const MethodIDProvider* provider, const char* className,
                                        KVector<unsigned char>& input, KVector<unsigned char>& output,
                                        bool allocations, bool tracing, bool j2ee);

// One insertion pass of the tracing and allocation probes over one method. The three
// indices are pool indices of the method references to kjpMethodEntry, kjpMethodExit and
// kjpInit. 'instructions' collects the short branches that no longer reach (first pass) or
// is null (second pass, after widening). Returns whether the method was changed.
bool instrumentForTracingAllocationJ2EEImpl(const MethodIDProvider* provider, jint methodIndex, ClassFile& classFile,
                                            MethodInfo* method, int methodEntryIndex, int methodExitIndex,
                                            int initIndex, bool allocations, bool tracing, KSet<int>* instructions);

#endif
