#include "instrument/TracingInstrumentation.h"

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "agent/KVectorSafe.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassRewriter.h"
#include "instrument/MethodIDProvider.h"

namespace {

struct ClassContext {
  const MethodIDProvider* myProvider;
  const char* myClassName;
  bool myAllocations;
  bool myTracing;
  bool myJ2EE;
};

enum StringIndex { S_CALLBACK, S_ENTRY, S_EXIT, S_SS_V, S_INIT, S_INIT_DESCRIPTOR, S_COUNT };

void instrumentClass(ClassFile& classFile, void* context) {
  ClassContext* c = static_cast<ClassContext*>(context);
  (void)c;
  KVectorSafe<KString> names(S_COUNT);
  names.push(KString("com/kestrix/runtime/Callback"));
  names.push(KString("kjpMethodEntry"));
  names.push(KString("kjpMethodExit"));
  names.push(KString("(SS)V"));
  names.push(KString("kjpInit"));
  names.push(KString("(Ljava/lang/Object;I)I"));
  int strings[S_COUNT];
  classFile.initStrings(names, strings);
  int callbackClass = classFile.findOrCreateConstantClass(strings[S_CALLBACK]);
  classFile.findOrCreateMethodRef(callbackClass, strings[S_ENTRY], strings[S_SS_V]);
  classFile.findOrCreateMethodRef(callbackClass, strings[S_EXIT], strings[S_SS_V]);
  classFile.findOrCreateMethodRef(callbackClass, strings[S_INIT], strings[S_INIT_DESCRIPTOR]);
}

}  // namespace

bool instrumentForTracingAllocationJ2EE(const MethodIDProvider* provider, const char* className,
                                        KVector<unsigned char>& input, KVector<unsigned char>& output,
                                        bool allocations, bool tracing, bool j2ee) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  ClassContext context = {provider, className, allocations, tracing, j2ee};
  return ClassRewriter::rewrite(className, input, output, instrumentClass, &context);
}
