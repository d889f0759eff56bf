#include "instrument/TracingInstrumentation.h"

#include <stdio.h>
#include <string.h>

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KString.h"
#include "agent/KVectorSafe.h"
#include "agent/Options.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/ClassRewriter.h"
#include "classfile/CodeAttribute.h"
#include "classfile/ConstantPoolInfo.h"
#include "classfile/MethodInfo.h"
#include "db/records/MethodRecord.h"
#include "instrument/ByteCodeWalker.h"
#include "instrument/InsertionPass.h"
#include "instrument/InstrumentationRules.h"
#include "instrument/IntrinsicCandidates.h"
#include "instrument/J2EEHelper.h"
#include "instrument/JumpPatcher.h"
#include "instrument/MethodIDProvider.h"
#include "instrument/NativeMethodWrapper.h"
#include "instrument/SQLProbes.h"
#include "instrument/SwitchDetector.h"
#include "instrument/TracingProbes.h"

namespace {

const char* const CALLBACK_CLASS = "com/kestrix/runtime/Callback";

// Length limits of the pass, before the entry code: tracing reserves room for the entry
// probe (14 bytes, or 16 with a switch) below 65536. Allocation-only entry code is not
// reserved for.
const int TRACING_LIMIT = 65522;
const int TRACING_LIMIT_WITH_SWITCH = 65520;
const int ALLOCATIONS_ONLY_LIMIT = 65536;

// Classes of version 51 and later keep their stack maps, and the frames that widening a
// branch would need cannot be known without a type analysis: such methods are left alone.
const int FIRST_VERSION_WITH_STACK_MAPS = 51;

// I/O calls that are timed at the call site: their natives are not wrapped.
const char* const IO_CALLS[] = {
    "java/io/RandomAccessFile|readBytes|([BII)I",
    "java/io/RandomAccessFile|read|()I",
    "java/io/RandomAccessFile|writeBytes|([BII)V",
    "java/io/RandomAccessFile|write|(I)V",
    "java/net/SocketInputStream|socketRead0|(Ljava/io/FileDescriptor;[BIII)I",
    "java/net/SocketOutputStream|socketWrite0|(Ljava/io/FileDescriptor;[BII)V",
};

// How an open 'new' is matched with its constructor call.
enum NewInstructionKind {
  NEW_WITH_DUP = 0,      // followed by dup, dup_x1 or dup_x2
  NEW_WITHOUT_DUP = 1,   // the constructor takes the only reference
  NEW_NOT_RECORDED = 2,  // as 1, but a later stack shuffle ruled out the probe
};

class TracingProbeSet : public ProbeSet {
 public:
  TracingProbeSet(const MethodIDProvider* provider, ClassFile& classFile, jint methodIndex, int methodEntryIndex,
                  int methodExitIndex, int initIndex, bool allocations, bool tracing, bool containsSwitch, int local)
      : myProvider(provider),
        myClassFile(classFile),
        myMethodIndex(methodIndex),
        myMethodEntryIndex(methodEntryIndex),
        myMethodExitIndex(methodExitIndex),
        myInitIndex(initIndex),
        myAllocations(allocations),
        myTracing(tracing),
        myContainsSwitch(containsSwitch),
        myLocal(local),
        myNewKinds(32) {}

  void visit(InsertionPass& pass, const unsigned char* code, int codeLength, int index, int length) override {
    int opcode = code[index];
    if (opcode >= 0xAC && opcode <= 0xB1) {
      if (myTracing) {
        pass.addSite(SITE_RETURN, index, length, 0, EXIT_CODE_LENGTH(myContainsSwitch));
      }
    } else if (opcode == 0xBB) {
      if (myAllocations) {
        int next = index + length < codeLength ? code[index + length] : -1;
        if (next == 0x59 || next == 0x5A || next == 0x5B) {
          myNewKinds.push(NEW_WITH_DUP);
        } else {
          myNewKinds.push(NEW_WITHOUT_DUP);
          pass.addSite(SITE_NEW_WITHOUT_DUP, index, length, 0, NEW_WITHOUT_DUP_CODE_START_LENGTH);
        }
      }
    } else if (opcode == 0x5A || opcode == 0x5B || opcode == 0x5D || opcode == 0x5E) {
      if (!myNewKinds.isEmpty() && myNewKinds.last() == NEW_WITHOUT_DUP) {
        myNewKinds.last() = NEW_NOT_RECORDED;
        int s = pass.getSiteCount() - 1;
        while (s >= 0 && pass.getSite(s).myKind != SITE_NEW_WITHOUT_DUP) {
          s--;
        }
        KASSERT_TEXT(s >= 0, "!affectedInstructionTypes.empty()");
        // The site keeps its length, as nops, so that nothing laid out behind it moves.
        pass.getSite(s).myKind = SITE_NEW_NOT_RECORDED;
      }
    } else if (opcode == 0xB7) {
      visitInvokespecial(pass, code, index, length);
    } else if (opcode == 0xBC || opcode == 0xBD || opcode == 0xC5) {
      if (myAllocations) {
        pass.addSite(SITE_NEW_ARRAY, index, length, 0, NEWARRAY_CODE_LENGTH);
      }
    }
  }

  int insertBefore(const InsertionSite& site, unsigned char* buffer, int offset) override {
    jint methodIndex = site.myKind == SITE_IO_CALL ? site.myValue : myMethodIndex;
    return insertCodeBefore(site.myKind, myMethodExitIndex, myMethodEntryIndex, methodIndex, buffer, offset,
                            myContainsSwitch);
  }

  int insertAfter(const InsertionSite& site, unsigned char* buffer, int offset) override {
    jint methodIndex = site.myKind == SITE_IO_CALL ? site.myValue : myMethodIndex;
    return insertCodeAfter(site.myKind, myInitIndex, myMethodExitIndex, buffer, offset, myLocal, methodIndex,
                           myContainsSwitch);
  }

  int getEntryCodeLength() override {
    return myTracing ? ENTRY_CODE_LENGTH(myContainsSwitch) : ALLOC_ONLY_ENTRY_CODE_LENGTH;
  }

  void insertEntryCode(unsigned char* buffer, int offset) override {
    if (myTracing) {
      ::insertEntryCode(myMethodEntryIndex, myMethodIndex, buffer, offset, myLocal, myContainsSwitch);
    } else {
      insertAllocOnlyEntryCode(buffer, offset, myLocal);
    }
  }

  bool leavesCopyOfNew(const InsertionSite& site) override { return site.myKind == SITE_NEW_WITHOUT_DUP; }

 private:
  void visitInvokespecial(InsertionPass& pass, const unsigned char* code, int index, int length) {
    const ConstantPool& pool = myClassFile.getConstantPool();
    int reference = readUnsignedInt2(reinterpret_cast<const char*>(code), index + 1);
    const ConstantPoolInfo* info = reference > 0 && reference < pool.size() ? pool[reference] : nullptr;
    if (info == nullptr) {
      throw ClassFormatError("the invokespecial at %d names the constant %d, which does not exist", index, reference);
    }
    // A call of an interface's default method through Iface.super.m(): neither a
    // constructor nor one of the I/O calls.
    if (info->getTag() == ConstantInterfaceMethodRefInfo::TAG) {
      return;
    }
    if (info->getTag() != ConstantMethodRefInfo::TAG) {
      throw ClassFormatError("the invokespecial at %d names the constant %d, which is no method", index, reference);
    }
    const ConstantRefInfo* method = static_cast<const ConstantRefInfo*>(info);
    if (myAllocations && !myNewKinds.isEmpty() && strcmp(method->getMethodName(pool), "<init>") == 0) {
      int kind = myNewKinds.pop();
      KASSERT_TEXT(kind == NEW_WITH_DUP || kind == NEW_WITHOUT_DUP || kind == NEW_NOT_RECORDED,
                   "kind == NEW_WITH_DUP || kind == NEW_WITHOUT_DUP || kind == NEW_NOT_RECORDED");
      if (kind == NEW_WITH_DUP) {
        pass.addSite(SITE_INIT_WITH_DUP, index, length, 0, TYPE_NEW_END_CODE_LENGTH);
      } else if (kind == NEW_WITHOUT_DUP) {
        pass.addSite(SITE_INIT_WITHOUT_DUP, index, length, 0, TYPE_NEW_END_CODE_LENGTH);
      }
      return;
    }
    KString uid = method->getMethodUIDString(pool);
    for (const char* call : IO_CALLS) {
      if (strcmp(uid.get(), call) == 0) {
        jint callee = myProvider->getMethodID(method->getClassSignature(pool), method->getMethodName(pool),
                                              method->getMethodSignature(pool));
        pass.addSite(SITE_IO_CALL, index, length, callee,
                     NATIVE_ENTRY_CALL_CODE_LENGTH(myContainsSwitch) + EXIT_CODE_LENGTH(myContainsSwitch));
        return;
      }
    }
  }

  const MethodIDProvider* myProvider;
  ClassFile& myClassFile;
  jint myMethodIndex;
  int myMethodEntryIndex;
  int myMethodExitIndex;
  int myInitIndex;
  bool myAllocations;
  bool myTracing;
  bool myContainsSwitch;
  int myLocal;
  KVector<int> myNewKinds;
};

bool isReturn(int opcode) { return opcode >= 0xAC && opcode <= 0xB1; }

// Getters and setters, recognised from bytes at fixed places: not worth a probe.
bool isTrivial(const unsigned char* code, int length) {
  switch (length) {
    case 4:
      return code[0] == 0xB2 && isReturn(code[3]);
    case 5:
      if (code[0] == 0x2A && code[1] == 0xB4 && isReturn(code[4])) {
        return true;
      }
      return (code[0] == 0x1A || code[0] == 0x1E || code[0] == 0x22 || code[0] == 0x26 || code[0] == 0x2A) &&
             code[1] == 0xB3 && code[4] == 0xB1;
    case 6:
      // The third byte is deliberately not tested for putfield.
      return code[0] == 0x2A &&
             (code[1] == 0x1B || code[1] == 0x1F || code[1] == 0x23 || code[1] == 0x27 || code[1] == 0x2B) &&
             code[5] == 0xB1;
    default:
      return false;
  }
}

struct ClassContext {
  const MethodIDProvider* myProvider;
  bool myAllocations;
  bool myTracing;
  bool myJ2EE;
};

enum StringIndex {
  S_CALLBACK,
  S_ENTRY,
  S_EXIT,
  S_SS_V,
  S_INIT,
  S_INIT_DESCRIPTOR,
  S_BASE_COUNT,
  // Only in a class that may take J2EE probes.
  S_SQL_ENTRY_1 = S_BASE_COUNT,
  S_OBJECT_S_V,
  S_SQL_EXIT_1,
  S_OBJECT_OBJECT_S_V,
  S_SQL_ENTRY_2,
  S_OBJECT_S_V_AGAIN,
  S_SQL_EXIT_2,
  S_SQL_ENTRY_3,
  S_SQL_EXIT_3,
  S_SERVLET_ENTRY,
  S_SERVLET_EXIT,
  S_IS_J2EE_CLASS,
  S_OBJECT_Z,
  S_COUNT
};

// Pool indices of the references to the J2EE natives of the callback class; all -1 in a class
// that can take no J2EE probes.
struct J2EEReferences {
  int mySQLEntry1;
  int mySQLExit1;
  int mySQLEntry2;
  int mySQLExit2;
  int mySQLEntry3;
  int mySQLExit3;
  int myServletEntry;
  int myServletExit;
  int myIsJ2EEClass;

  bool present() const { return myIsJ2EEClass >= 0; }
};

J2EEReferences makeJ2EEReferences(ClassFile& classFile, int callbackClass, KVectorSafe<KString>& names) {
  names.push(KString("kjpSQLEntry1"));
  names.push(KString("(Ljava/lang/Object;S)V"));
  names.push(KString("kjpSQLExit1"));
  names.push(KString("(Ljava/lang/Object;Ljava/lang/Object;S)V"));
  names.push(KString("kjpSQLEntry2"));
  names.push(KString("(Ljava/lang/Object;S)V"));
  names.push(KString("kjpSQLExit2"));
  names.push(KString("kjpSQLEntry3"));
  names.push(KString("kjpSQLExit3"));
  names.push(KString("kjpServletEntry"));
  names.push(KString("kjpServletExit"));
  names.push(KString("kjpIsJ2EEClass"));
  names.push(KString("(Ljava/lang/Object;)Z"));
  int strings[S_COUNT];
  classFile.initStrings(names, strings);
  int objectShort = strings[S_OBJECT_S_V];
  J2EEReferences refs;
  refs.mySQLEntry1 = classFile.findOrCreateMethodRef(callbackClass, strings[S_SQL_ENTRY_1], objectShort);
  refs.mySQLExit1 = classFile.findOrCreateMethodRef(callbackClass, strings[S_SQL_EXIT_1], strings[S_OBJECT_OBJECT_S_V]);
  refs.mySQLEntry2 = classFile.findOrCreateMethodRef(callbackClass, strings[S_SQL_ENTRY_2], objectShort);
  refs.mySQLExit2 = classFile.findOrCreateMethodRef(callbackClass, strings[S_SQL_EXIT_2], objectShort);
  refs.mySQLEntry3 = classFile.findOrCreateMethodRef(callbackClass, strings[S_SQL_ENTRY_3], objectShort);
  refs.mySQLExit3 = classFile.findOrCreateMethodRef(callbackClass, strings[S_SQL_EXIT_3], objectShort);
  refs.myServletEntry = classFile.findOrCreateMethodRef(callbackClass, strings[S_SERVLET_ENTRY], objectShort);
  refs.myServletExit = classFile.findOrCreateMethodRef(callbackClass, strings[S_SERVLET_EXIT], objectShort);
  refs.myIsJ2EEClass = classFile.findOrCreateMethodRef(callbackClass, strings[S_IS_J2EE_CLASS], strings[S_OBJECT_Z]);
  return refs;
}

void reportNotInstrumented(const MethodIDProvider* provider, const ClassFile& classFile, const MethodInfo* method,
                           jint methodIndex) {
  if (!ourOptions.myQuiet) {
    fprintf(stderr,
            KJP_LOG_PREFIX
            "*** Warning ***: method %s.%s%s cannot be instrumented: the resulting bytecode is too long. This means "
            "that the method will not be included into profiling results.\n",
            classFile.getSignature().get(), method->getName().get(), method->getDescriptor().get());
    fflush(stderr);
  }
  provider->addMethodFlags(methodIndex, MF_NOT_INSTRUMENTED);
}

// The J2EE probes of a catalogue method, behind the tracing probes it may have got already.
void addJ2EEProbes(const MethodIDProvider* provider, ClassFile& classFile, MethodInfo* method, jint methodIndex,
                   const J2EEReferences& refs) {
  const J2EEMethod* j2ee = J2EEHelper::find(method);
  if (j2ee == nullptr || j2ee->getJ2EEInstrumentationType() == 0 || method->isStatic()) {
    return;
  }
  bool done = instrumentForSQLTracing(classFile, method, refs.mySQLEntry1, refs.mySQLExit1, refs.mySQLEntry2,
                                      refs.mySQLExit2, refs.mySQLEntry3, refs.mySQLExit3, refs.myServletEntry,
                                      refs.myServletExit, j2ee->getJ2EEInstrumentationType(), refs.myIsJ2EEClass,
                                      j2ee->getJ2EEMethodType());
  if (done) {
    provider->addJ2EEMethod(classFile.getSignature().get(), methodIndex);
  } else {
    reportNotInstrumented(provider, classFile, method, methodIndex);
  }
}

void instrumentClass(ClassFile& classFile, void* context) {
  const ClassContext* c = static_cast<const ClassContext*>(context);
  KVectorSafe<KString> names(S_COUNT);
  names.push(KString(CALLBACK_CLASS));
  names.push(KString("kjpMethodEntry"));
  names.push(KString("kjpMethodExit"));
  names.push(KString("(SS)V"));
  names.push(KString("kjpInit"));
  names.push(KString("(Ljava/lang/Object;I)I"));
  int strings[S_BASE_COUNT];
  classFile.initStrings(names, strings);
  int callbackClass = classFile.findOrCreateConstantClass(strings[S_CALLBACK]);
  int methodEntryIndex = classFile.findOrCreateMethodRef(callbackClass, strings[S_ENTRY], strings[S_SS_V]);
  int methodExitIndex = classFile.findOrCreateMethodRef(callbackClass, strings[S_EXIT], strings[S_SS_V]);
  int initIndex = classFile.findOrCreateMethodRef(callbackClass, strings[S_INIT], strings[S_INIT_DESCRIPTOR]);
  // The J2EE probes keep the receiver's class test and the SQL texts in tags, which need their
  // environment.
  J2EEReferences j2ee = {-1, -1, -1, -1, -1, -1, -1, -1, -1};
  if (c->myJ2EE && ourJVMTI3 != nullptr && J2EEHelper::canBeJ2EEClass(classFile)) {
    j2ee = makeJ2EEReferences(classFile, callbackClass, names);
  }

  KString className(classFile.getSignature());
  bool isCallback = className == CALLBACK_CLASS;
  bool isPlumbing = isProbePlumbing(className.get());
  bool isObject = className == "java/lang/Object";

  if (c->myTracing && canInstrumentNativeMethods() && canWrapNativesOfClass(className.get())) {
    // Over the methods as they were: the prefixed natives added here are not wrapped again.
    int count = classFile.getMethods().size();
    for (int i = 0; i < count; i++) {
      MethodInfo* method = classFile.getMethods()[i];
      if (method->isNative() && method->getCodeAttribute() == nullptr &&
          !IntrinsicCandidates::isIntrinsicCandidate(classFile, *method)) {
        instrumentNativeMethod(classFile, method);
      }
    }
  }

  bool wideningAllowed = classFile.getMajorVersion() < FIRST_VERSION_WITH_STACK_MAPS;
  for (int i = 0; i < classFile.getMethods().size(); i++) {
    MethodInfo* method = classFile.getMethods()[i];
    CodeAttribute* code = method->getCodeAttribute();
    if (code == nullptr) {
      continue;
    }
    const KString& name = method->getName();
    if (isObject && (name == "<clinit>" || name == "finalize")) {
      continue;
    }
    if (isCallback) {
      continue;
    }
    if (isPlumbing) {
      // Named as not instrumented, so that a walk of the real stack steps over it as the
      // probes do.
      jint plumbing = c->myProvider->getMethodID(className.get(), name.get(), method->getDescriptor().get());
      c->myProvider->addMethodFlags(plumbing, MF_NOT_INSTRUMENTED);
      continue;
    }
    bool allocations = c->myAllocations && !name.startsWith("template$dot$");
    // Every method with code gets its row, also one that takes no probes.
    jint methodIndex = c->myProvider->getMethodID(className.get(), name.get(), method->getDescriptor().get());
    if (allocations || c->myTracing) {
      if (code->getCodeLength() < 3 || isTrivial(code->getCode(), code->getCodeLength())) {
        continue;
      }
      KSet<int> instructions(16);
      bool done = instrumentForTracingAllocationJ2EEImpl(c->myProvider, methodIndex, classFile, method,
                                                         methodEntryIndex, methodExitIndex, initIndex, allocations,
                                                         c->myTracing, &instructions);
      if (!done && instructions.size() > 0 && wideningAllowed) {
        modifyJumps(classFile, method, &instructions);
        done = instrumentForTracingAllocationJ2EEImpl(c->myProvider, methodIndex, classFile, method,
                                                      methodEntryIndex, methodExitIndex, initIndex, allocations,
                                                      c->myTracing, nullptr);
      }
      if (!done) {
        reportNotInstrumented(c->myProvider, classFile, method, methodIndex);
        continue;
      }
    }
    if (j2ee.present()) {
      addJ2EEProbes(c->myProvider, classFile, method, methodIndex, j2ee);
    }
  }
}

}  // namespace

bool instrumentForTracingAllocationJ2EEImpl(const MethodIDProvider* provider, jint methodIndex, ClassFile& classFile,
                                            MethodInfo* method, int methodEntryIndex, int methodExitIndex,
                                            int initIndex, bool allocations, bool tracing, KSet<int>* instructions) {
  KASSERT(method);
  CodeAttribute* code = method->getCodeAttribute();
  KASSERT(code);
  bool containsSwitch =
      SwitchDetector::containsSwitch(reinterpret_cast<const char*>(code->getCode()), code->getCodeLength());
  int local = code->addLocalVariableToTable(classFile, 0, code->getCodeLength(), KString("kjpIdx"), KString("I"));
  TracingProbeSet probes(provider, classFile, methodIndex, methodEntryIndex, methodExitIndex, initIndex, allocations,
                         tracing, containsSwitch, local);
  InsertionPass pass(classFile, method, probes);
  pass.addFrameLocal(local, VerificationType::of(VerificationType::ITEM_INTEGER));
  int limit = !tracing ? ALLOCATIONS_ONLY_LIMIT : containsSwitch ? TRACING_LIMIT_WITH_SWITCH : TRACING_LIMIT;
  return pass.run(instructions, limit, 2);
}

bool instrumentForTracingAllocationJ2EE(const MethodIDProvider* provider, const char* className,
                                        KVector<unsigned char>& input, KVector<unsigned char>& output,
                                        bool allocations, bool tracing, bool j2ee) {
  KASSERT(input.size() > 0);
  KASSERT(output.size() == 0);
  KASSERT(provider);
  ClassContext context = {provider, allocations, tracing, j2ee};
  return ClassRewriter::rewrite(className, input, output, instrumentClass, &context);
}
