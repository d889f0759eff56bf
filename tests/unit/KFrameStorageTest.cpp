#include <gtest/gtest.h>

#include "CPUTestSupport.h"

namespace {

using KFrameStorageTest = CPUEngineTest;

TEST_F(KFrameStorageTest, ChildrenAreFoundOrAppendedBehindTheLastSiblingAndStamped) {
  ourDB->myModificationStamp = 5;
  jint a = ourFrameStorage.getChild(0, 11);
  jint b = ourFrameStorage.getChild(0, 12);
  ourDB->myModificationStamp = 6;
  jint c = ourFrameStorage.getChild(0, 13);
  EXPECT_EQ(a, ourFrameStorage.getChild(0, 11));
  EXPECT_EQ(b, ourFrameStorage.getChild(0, 12));
  EXPECT_NE(0, a);
  EXPECT_EQ(a, ourFrameStorage.getFirstChild(0));
  EXPECT_EQ(b, ourFrameStorage.getNextSibling(a));
  EXPECT_EQ(c, ourFrameStorage.getNextSibling(b));
  EXPECT_EQ(-1, ourFrameStorage.getNextSibling(c));
  EXPECT_EQ(0, ourFrameStorage.getParent(c));
  EXPECT_EQ(13, ourFrameStorage.getMethodIndex(c));
  // The sibling that got the new link and the parent carry the stamp of the change.
  EXPECT_EQ(6, ourDB->myFrameTable->getRecord(b, false)->myModificationStamp);
  EXPECT_EQ(5, ourDB->myFrameTable->getRecord(a, false)->myModificationStamp);
  EXPECT_EQ(6, ourDB->myFrameTable->getRecord(0, false)->myModificationStamp);
  jint deep = ourFrameStorage.getChild(c, 11);
  EXPECT_NE(a, deep) << "a frame is a path, not a method";
  EXPECT_EQ(c, ourFrameStorage.getParent(deep));
}

TEST_F(KFrameStorageTest, MethodsAreNamedOnceAndTheAgentsOwnAreHidden) {
  jmethodID first = myFake.method("Lcom/acme/Shop;", "buy", "(I)V");
  jmethodID reloaded = myFake.method("Lcom/acme/Shop;", "buy", "(I)V");
  jmethodID other = myFake.method("Lcom/acme/Shop;", "buy", "(J)V");
  jmethodID probe = myFake.method("Lcom/kestrix/runtime/Callback;", "kjpMethodEntry", "(SS)V");
  jmethodID wrapped = myFake.method("Lcom/acme/Shop;", "$$KJP$$read", "()I");
  jint index = indexOf(first);
  EXPECT_NE(0, index);
  EXPECT_EQ(index, indexOf(reloaded)) << "a class loaded twice shares its method rows";
  EXPECT_NE(index, indexOf(other));
  EXPECT_EQ(index, indexOf(first));
  MethodRecord* record = ourDB->myMethodTable->getRecord(index, false);
  ASSERT_NE(nullptr, record);
  EXPECT_EQ("com.acme.Shop", stringAt(record->myClassNameStrID));
  EXPECT_EQ("buy", stringAt(record->myNameStrID));
  EXPECT_EQ("(I)V", stringAt(record->mySignatureStrID));
  EXPECT_EQ(0, flagsOf(index));
  EXPECT_EQ(MF_HIDDEN, flagsOf(indexOf(probe)));
  EXPECT_EQ(MF_HIDDEN, flagsOf(indexOf(wrapped)));
  EXPECT_EQ(index, getMethodByName("Lcom/acme/Shop;", "buy", "(I)V"));

  EXPECT_DEATH(getMethodByName(nullptr, "m", "()V"), "classSignature");
  EXPECT_DEATH(getMethodByID(&myEnv, nullptr), "methodID");
}

TEST_F(KFrameStorageTest, StackWalkSkipsHiddenAndNativeAndCollapsesFilteredRuns) {
  Filter::reloadFilters(KString("lib.*"), KString(""));
  jmethodID main = myFake.method("Lapp/Main;", "main");
  jmethodID a = myFake.method("Llib/A;", "a");
  jmethodID b = myFake.method("Llib/B;", "b");
  jmethodID c = myFake.method("Llib/C;", "c");
  jmethodID d = myFake.method("Lapp/D;", "d");
  jmethodID probe = myFake.method("Lcom/kestrix/runtime/Callback;", "kjpMethodEntry");
  jmethodID nat = myFake.method("Lapp/D;", "io", "()V", true);
  myFake.currentStack = {probe, nat, d, c, b, a, main};

  KVector<bool> bits(4);
  bits.push(true);
  jint top = ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, true, &bits);
  EXPECT_EQ((std::vector<jint>{indexOf(main), indexOf(a), indexOf(d)}), pathOf(top));
  std::vector<bool> pushed;
  for (jint i = 0; i < bits.size(); i++) {
    pushed.push_back(bits[i]);
  }
  EXPECT_EQ((std::vector<bool>{false, true, true, true, false}), pushed);

  // Without the bit stack every visible method is a node, filtered or not; natives count
  // unless asked to skip them.
  jint full = ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, nullptr);
  EXPECT_EQ((std::vector<jint>{indexOf(main), indexOf(a), indexOf(b), indexOf(c), indexOf(d), indexOf(nat)}),
            pathOf(full));

  myFake.currentStack.clear();
  EXPECT_EQ(0, ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, &bits));
  EXPECT_EQ(0, bits.size());

  // A walk the dying JVM refuses is the root, not the end of the process.
  myFake.currentStack = {d, c, b, a, main};
  myFake.stackError = JVMTI_ERROR_WRONG_PHASE;
  EXPECT_EQ(0, ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, &bits));
  EXPECT_EQ(0, bits.size());
  myFake.stackError = JVMTI_ERROR_NONE;

  // A method that the JVM no longer names (its class unloaded since the stack was taken) is a
  // frame of its own, named as such, in the skipping walk too.
  jmethodID gone = myFake.method("Lapp/Gone;", "run");
  myFake.methods.back().unloaded = true;
  myFake.currentStack = {d, gone, main};
  jint unloaded = getMethodByName(UNLOADED_METHOD_CLASS, UNLOADED_METHOD_NAME, "()V");
  EXPECT_EQ((std::vector<jint>{indexOf(main), unloaded, indexOf(d)}),
            pathOf(ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, true, nullptr)));
}

TEST_F(KFrameStorageTest, TheTracedWalkStepsOverMethodsOfHiddenClasses) {
  // A servlet container calls the servlet through a lambda: tracing never enters the lambda's
  // method, so the walk that gives a J2EE call its traced path must leave it out as well;
  // samples see the lambda, and so does the walk without the bit stack.
  jmethodID main = myFake.method("Lapp/Main;", "main");
  jmethodID lambda = myFake.method("Lapp/Main$$Lambda$14.0x0000000800c02460;", "run");
  myFake.methods.back().hidden = true;
  jmethodID service = myFake.method("Lapp/Servlet;", "service");
  myFake.currentStack = {service, lambda, main};
  KVector<bool> bits(4);
  jint traced = ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, &bits);
  EXPECT_EQ((std::vector<jint>{indexOf(main), indexOf(service)}), pathOf(traced));
  EXPECT_EQ(MF_HIDDEN_CLASS, flagsOf(indexOf(lambda)));
  EXPECT_EQ(0, flagsOf(indexOf(service)));
  EXPECT_EQ((std::vector<jint>{indexOf(main), indexOf(lambda), indexOf(service)}),
            pathOf(ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, nullptr)));
  // A captured stack keeps every frame, the lambda's too.
  jvmtiFrameInfo frames[3] = {{service, 0}, {lambda, 0}, {main, 0}};
  jvmtiStackInfo info = {};
  info.frame_buffer = frames;
  info.frame_count = 3;
  EXPECT_EQ((std::vector<jint>{indexOf(main), indexOf(lambda), indexOf(service)}),
            pathOf(ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(&myEnv, info, nullptr)));
}

TEST_F(KFrameStorageTest, DeepStacksKeepTheTopmostFramesOnly) {
  jmethodID recursive = myFake.method("Lapp/R;", "down");
  jmethodID top = myFake.method("Lapp/R;", "top");
  myFake.currentStack.assign(1025, recursive);
  myFake.currentStack[0] = top;
  jint frame = ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, nullptr);
  std::vector<jint> path = pathOf(frame);
  EXPECT_EQ(1024u, path.size());
  EXPECT_EQ(indexOf(top), path.back());
}

TEST_F(KFrameStorageTest, CapturedStacksKeepHiddenFramesAndCollectNamedLocals) {
  jmethodID run = myFake.method("Lapp/W;", "run");
  jmethodID probe = myFake.method("Lcom/kestrix/runtime/Callback;", "kjpMethodExit");
  myFake.methods.front().locals = {"this", "count"};
  jvmtiFrameInfo frames[2] = {{probe, 0}, {run, 0}};
  jvmtiStackInfo info = {};
  info.frame_buffer = frames;
  info.frame_count = 2;
  KMap<jmethodID, KVector<StackLocal*>*> locals(10);
  jint frame = ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(&myEnv, info, &locals);
  EXPECT_EQ((std::vector<jint>{indexOf(run), indexOf(probe)}), pathOf(frame));
  // Seen twice: the second list replaces the first.
  ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(&myEnv, info, &locals);
  KVector<StackLocal*>* named = nullptr;
  ASSERT_TRUE(locals.get(run, &named));
  ASSERT_EQ(2, named->size());
  EXPECT_EQ(1, named->get(0)->mySlot);
  EXPECT_EQ("this", stringAt(named->get(0)->myNameStrID));
  EXPECT_EQ("count", stringAt(named->get(1)->myNameStrID));
  EXPECT_FALSE(locals.containsKey(probe));
  for (jint i = 0; i < named->size(); i++) {
    delete named->get(i);
  }
  delete named;
}

}  // namespace
