#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "classfile/MethodInfo.h"
#include "classfile/StackMap.h"
#include "classfile/StackMapTableAttribute.h"
#include "instrument/J2EEHelper.h"
#include "instrument/SQLProbes.h"
#include "tests/unit/InstrumentTestSupport.h"

using namespace kjptest;

namespace {

const char* const NATIVES[] = {"kjpSQLEntry1", "kjpSQLExit1",    "kjpSQLEntry2",   "kjpSQLExit2",   "kjpSQLEntry3",
                               "kjpSQLExit3",  "kjpServletEntry", "kjpServletExit", "kjpIsJ2EEClass"};
const int IS_J2EE = 8;

// One instance method put through instrumentForSQLTracing, with the pool indices of the natives.
struct SQLInstrumented {
  bool ok = false;
  ParsedClass parsed;
  CodeAttribute* code = nullptr;
  std::map<int, std::string> natives;  // pool index -> name
  std::vector<uint8_t> bytes() const {
    return std::vector<uint8_t>(code->getCode(), code->getCode() + code->getCodeLength());
  }
};

SQLInstrumented instrumentSQL(const Bytes& code, const std::string& name, const std::string& descriptor, int maxStack,
                              int maxLocals, int instrumentationType, int methodType, int major = 49,
                              const std::vector<Bytes>& attributes = {}) {
  ClassBytesBuilder b;
  b.major = major;
  int codeName = b.utf8("Code");
  std::vector<Bytes> extra = attributes;
  if (!extra.empty()) {
    // The caller's attributes name themselves by a pool entry it cannot know: StackMapTable.
    extra[0] = ClassBytesBuilder::attribute(b.utf8("StackMapTable"), extra[0]);
  }
  b.method(0x0001, name, descriptor,
           {ClassBytesBuilder::attribute(codeName, ClassBytesBuilder::codeBody(maxStack, maxLocals, code, {}, extra))});
  SQLInstrumented r;
  r.parsed = parse(b.build());
  ClassFile& cf = *r.parsed.model;
  int refs[9];
  for (int i = 0; i < 9; i++) {
    const char* descriptorOf = i == 1 ? "(Ljava/lang/Object;Ljava/lang/Object;S)V"
                               : i == IS_J2EE ? "(Ljava/lang/Object;)Z"
                                              : "(Ljava/lang/Object;S)V";
    refs[i] = cf.findOrCreateMethodRef(KString("com/kestrix/runtime/Callback"), KString(NATIVES[i]),
                                       KString(descriptorOf));
    r.natives[refs[i]] = NATIVES[i];
  }
  MethodInfo* method = cf.findMethod(KString(name.c_str()), KString(descriptor.c_str()));
  r.ok = instrumentForSQLTracing(cf, method, refs[0], refs[1], refs[2], refs[3], refs[4], refs[5], refs[6], refs[7],
                                 instrumentationType, refs[IS_J2EE], methodType);
  r.code = method->getCodeAttribute();
  return r;
}

// What a probe does, told by running its bytes on symbolic values: the calls it makes with
// their arguments, the locals it writes, and the stack it leaves.
struct ProbeRun {
  std::vector<std::string> calls;
  std::map<int, std::string> stores;
  std::vector<std::string> stack;
  size_t maxDepth = 0;
  int length = 0;
};

ProbeRun runProbe(const SQLInstrumented& r, int from, int length, std::vector<std::string> stack) {
  ProbeRun run;
  const unsigned char* c = r.code->getCode() + from;
  auto pop = [&stack]() {
    EXPECT_FALSE(stack.empty());
    std::string v = stack.empty() ? "?" : stack.back();
    if (!stack.empty()) stack.pop_back();
    return v;
  };
  int i = 0;
  while (i < length) {
    run.maxDepth = std::max(run.maxDepth, stack.size());
    int op = c[i];
    if (op == 0x00) {
      i += 1;
    } else if (op >= 0x2A && op <= 0x2D) {  // aload_n
      stack.push_back("local" + std::to_string(op - 0x2A));
      i += 1;
    } else if (op == 0x01) {
      stack.push_back("null");
      i += 1;
    } else if (op == 0x59) {
      std::string v = pop();
      stack.push_back(v);
      stack.push_back(v);
      i += 1;
    } else if (op == 0x11) {
      stack.push_back(std::to_string(static_cast<int16_t>(c[i + 1] << 8 | c[i + 2])));
      i += 3;
    } else if (op == 0x68) {
      std::string b = pop();
      std::string a = pop();
      stack.push_back(a + "*" + b);
      i += 1;
    } else if (op == 0xC4 && (c[i + 1] == 0x19 || c[i + 1] == 0x3A)) {  // wide aload / astore
      int local = c[i + 2] << 8 | c[i + 3];
      if (c[i + 1] == 0x19) {
        stack.push_back("local" + std::to_string(local));
      } else {
        run.stores[local] = pop();
      }
      i += 4;
    } else if (op == 0xB8) {
      auto it = r.natives.find(c[i + 1] << 8 | c[i + 2]);
      if (it == r.natives.end()) {
        ADD_FAILURE() << "invokestatic of an unknown method at " << from + i;
        return run;
      }
      int arity = it->second == "kjpSQLExit1" ? 3 : it->second == "kjpIsJ2EEClass" ? 1 : 2;
      std::vector<std::string> args(static_cast<size_t>(arity));
      for (int a = arity - 1; a >= 0; a--) args[static_cast<size_t>(a)] = pop();
      std::string call = it->second + "(";
      for (int a = 0; a < arity; a++) call += (a > 0 ? ", " : "") + args[static_cast<size_t>(a)];
      call += ")";
      run.calls.push_back(call);
      if (it->second == "kjpIsJ2EEClass") stack.push_back("isJ2EE(" + args[0] + ")");
      i += 3;
    } else {
      ADD_FAILURE() << "a probe has the opcode " << op << " at " << from + i;
      return run;
    }
  }
  run.length = i;
  run.maxDepth = std::max(run.maxDepth, stack.size());
  run.stack = stack;
  return run;
}

struct TypeCase {
  int type;
  const char* name;
  const char* descriptor;
  Bytes body;  // ends in its one return
  const char* entry;
  const char* exit;
  std::string reported;  // what entry and exit pass as the object: "P" is the saved parameter
  bool returnsObject;
};

TEST(SQLProbes, EachTypeReportsItsObjectAndMethodTypeOnlyForAJ2EEReceiverAndKeepsTheStack) {
  // Type 1's body overwrites its parameter: the exit still reports the text the call came with.
  std::vector<TypeCase> cases = {
      {1, "prepareStatement", "(Ljava/lang/String;)Ljava/sql/PreparedStatement;", {0x01, 0x4C, 0x01, 0xB0},
       "kjpSQLEntry1", "kjpSQLExit1", "P", true},
      {2, "executeQuery", "()Ljava/sql/ResultSet;", {0x01, 0xB0}, "kjpSQLEntry2", "kjpSQLExit2", "local0", true},
      {3, "execute", "(Ljava/lang/String;)Z", {0x03, 0xAC}, "kjpSQLEntry3", "kjpSQLExit3", "P", false},
      {4, "close", "()V", {0xB1}, "kjpSQLEntry2", "kjpSQLExit2", "null", false},
      {5, "service", "(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V", {0xB1},
       "kjpServletEntry", "kjpServletExit", "P", false},
  };
  for (const TypeCase& t : cases) {
    SCOPED_TRACE(t.type);
    const int maxLocals = 3;
    const int methodType = 6;
    SQLInstrumented r = instrumentSQL(t.body, t.name, t.descriptor, 1, maxLocals, t.type, methodType);
    ASSERT_TRUE(r.ok);
    int bodyLength = static_cast<int>(t.body.size());
    ASSERT_EQ(SQL_ENTRY_CODE_LENGTH + bodyLength - 1 + SQL_RETURN_2_CODE_LENGTH + 1, r.code->getCodeLength());
    Bytes out = r.bytes();
    EXPECT_EQ(Bytes(t.body.begin(), t.body.end() - 1),
              Bytes(out.begin() + SQL_ENTRY_CODE_LENGTH, out.begin() + SQL_ENTRY_CODE_LENGTH + bodyLength - 1));
    EXPECT_EQ(t.body.back(), out.back());

    ProbeRun entry = runProbe(r, 0, SQL_ENTRY_CODE_LENGTH, {});
    bool saves = t.reported == "P";
    // The saved parameter lives in a local of its own, past the method's.
    int local = entry.stores.empty() ? -1 : entry.stores.begin()->first;
    if (saves) {
      EXPECT_GE(local, maxLocals);
      EXPECT_LT(local, r.code->getMaxLocals());
    }
    std::string reported = saves ? "local" + std::to_string(local) : t.reported;
    std::string tested = "isJ2EE(local0)*" + std::to_string(methodType);

    EXPECT_EQ(SQL_ENTRY_CODE_LENGTH, entry.length);
    EXPECT_TRUE(entry.stack.empty());
    std::vector<std::string> expectedCalls = {"kjpIsJ2EEClass(local0)",
                                              std::string(t.entry) + "(" + (saves ? "local1" : reported) + ", " +
                                                  tested + ")"};
    EXPECT_EQ(expectedCalls, entry.calls);
    std::map<int, std::string> expectedStores;
    if (saves) expectedStores[local] = "local1";
    EXPECT_EQ(expectedStores, entry.stores);

    std::vector<std::string> below = t.returnsObject ? std::vector<std::string>{"result"}
                                     : t.type == 3     ? std::vector<std::string>{"int"}
                                                       : std::vector<std::string>{};
    int exitAt = r.code->getCodeLength() - 1 - SQL_RETURN_2_CODE_LENGTH;
    ProbeRun exit = runProbe(r, exitAt, SQL_RETURN_2_CODE_LENGTH, below);
    EXPECT_EQ(SQL_RETURN_2_CODE_LENGTH, exit.length);
    EXPECT_EQ(below, exit.stack);
    std::string exitArgs = t.type == 1 ? "result, " + reported : reported;
    expectedCalls = {"kjpIsJ2EEClass(local0)", std::string(t.exit) + "(" + exitArgs + ", " + tested + ")"};
    EXPECT_EQ(expectedCalls, exit.calls);
    EXPECT_TRUE(exit.stores.empty());
    EXPECT_GE(r.code->getMaxStack(), static_cast<int>(std::max(entry.maxDepth, exit.maxDepth)));
  }
}

TEST(SQLProbes, BranchesToAReturnLandOnItsExitProbeAndStackMapFramesFollowWithTheSavedParameter) {
  // service(req, resp): 0 aload_1; 1 ifnull 5; 4 return; 5 return (frame: same)
  Bytes code = {0x2B, 0xC6, 0x00, 0x04, 0xB1, 0xB1};
  Bytes frames = {0, 1, 5};
  SQLInstrumented r = instrumentSQL(
      code, "service", "(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V", 1, 3,
      J2EEHelper::J2EE_INSTRUMENTATION_TYPE_5, 4, 52, {frames});
  ASSERT_TRUE(r.ok);
  // 0 entry; 20 aload_1; 21 ifnull 45; 24 exit probe; 44 return; 45 exit probe; 65 return
  ASSERT_EQ(66, r.code->getCodeLength());
  Bytes out = r.bytes();
  EXPECT_EQ(Bytes({0x2B, 0xC6, 0x00, 0x18}), Bytes(out.begin() + 20, out.begin() + 24));
  EXPECT_EQ(0xB1, out[44]);
  EXPECT_EQ(2u, runProbe(r, 45, SQL_RETURN_2_CODE_LENGTH, {}).calls.size());

  ClassFile& cf = *r.parsed.model;
  MethodInfo* m = cf.findMethod(KString("service"),
                                KString("(Ljavax/servlet/http/HttpServletRequest;Ljavax/servlet/http/HttpServletResponse;)V"));
  StackMapTableAttribute* table = r.code->getStackMapTable();
  ASSERT_NE(nullptr, table);
  KVector<VerificationType> initial(4);
  StackMap::initialLocals(cf, *m, initial);
  StackMap map;
  map.decode(table->getBody(), table->getBodyLength(), r.code->getCodeLength(), initial);
  ASSERT_EQ(1, map.getFrames().size());
  StackMapFrame* frame = map.getFrames()[0];
  EXPECT_EQ(45, frame->myOffset);
  int local = runProbe(r, 0, SQL_ENTRY_CODE_LENGTH, {}).stores.begin()->first;
  ASSERT_EQ(local + 1, frame->myLocals.size());
  typedef VerificationType VT;
  VT object = VT::of(VT::ITEM_OBJECT, cf.findOrCreateConstantClass(KString("java/lang/Object")));
  EXPECT_TRUE(frame->myLocals[local] == object);
  EXPECT_EQ(0, frame->myStack.size());
}

TEST(SQLProbes, CodeThatWritesLocal0IsLeftAlone) {
  // Each stores into local 0 in its own way, then returns.
  std::vector<Bytes> bodies = {
      {0x01, 0x4B, 0xB1},                    // astore_0
      {0x01, 0x3A, 0x00, 0xB1},              // astore 0
      {0x01, 0xC4, 0x3A, 0x00, 0x00, 0xB1},  // wide astore 0
      {0x03, 0x3B, 0xB1},                    // istore_0
      {0x84, 0x00, 0x01, 0xB1},              // iinc 0 1
  };
  for (const Bytes& body : bodies) {
    SCOPED_TRACE(body.size());
    SQLInstrumented r = instrumentSQL(body, "close", "()V", 1, 1, J2EEHelper::J2EE_INSTRUMENTATION_TYPE_4, 1);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(body, r.bytes());
  }
  // A store into another local is none into local 0.
  SQLInstrumented r = instrumentSQL({0x01, 0x3A, 0x01, 0xB1}, "close", "()V", 1, 2,
                                    J2EEHelper::J2EE_INSTRUMENTATION_TYPE_4, 1);
  EXPECT_TRUE(r.ok);
}

TEST(SQLProbes, AShortBranchThatNoLongerReachesFailsThePassAndLeavesTheCode) {
  // 0 goto T; nops; return; T: return. The exit probe of the first return goes between the
  // goto and its target, the one of the second in front of the target, where the goto lands.
  for (int span : {32747, 32748}) {
    SCOPED_TRACE(span);
    Bytes code = {0xA7};
    put2(code, static_cast<uint32_t>(span));
    code.resize(static_cast<size_t>(span - 1), 0x00);
    put1(code, 0xB1);
    put1(code, 0xB1);
    SQLInstrumented r = instrumentSQL(code, "close", "()V", 0, 1, J2EEHelper::J2EE_INSTRUMENTATION_TYPE_4, 1);
    if (span + SQL_RETURN_2_CODE_LENGTH <= 32767) {
      ASSERT_TRUE(r.ok);
      Bytes out = r.bytes();
      EXPECT_EQ(span + SQL_RETURN_2_CODE_LENGTH,
                static_cast<int16_t>(out[SQL_ENTRY_CODE_LENGTH + 1] << 8 | out[SQL_ENTRY_CODE_LENGTH + 2]));
    } else {
      EXPECT_FALSE(r.ok);
      EXPECT_EQ(code, r.bytes());
    }
  }
}

}  // namespace
