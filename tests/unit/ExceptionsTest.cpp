#include <gtest/gtest.h>

#include <vector>

#include "CPUTestSupport.h"
#include "engines/Exceptions.h"

namespace {

// Exception telemetry against the fake JVM: the throwing and catching paths of counted rows.
class ExceptionsTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    Exceptions::cleanupExceptionUsage();
    myThread = startThread("main");
    runOn(myThread);
  }
  void TearDown() override {
    Exceptions::cleanupExceptionUsage();
    CPUEngineTest::TearDown();
  }

  // Throws on the stack 'throwStack' (top first) and catches in its frame 'catchDepth' from the
  // top, on the stack the JVM shows then; 'catchWalk' is what a walk of that stack answers.
  void throwAndCatch(const std::vector<jmethodID>& throwStack, size_t catchDepth,
                     jvmtiError catchWalk = JVMTI_ERROR_NONE) {
    myFake.currentStack = throwStack;
    Exceptions::handleException(&myEnv, myThread, nullptr, true);
    myFake.currentStack.assign(throwStack.begin() + catchDepth, throwStack.end());
    myFake.stackError = catchWalk;
    Exceptions::handleExceptionCatch(&myEnv, myThread, nullptr, throwStack[catchDepth]);
    myFake.stackError = JVMTI_ERROR_NONE;
  }

  // The path of a stack as a walk makes it, without the walk (the fake's stack is untouched).
  jint pathOfStack(const std::vector<jmethodID>& stack) {
    std::vector<jint> methods;
    for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
      methods.push_back(indexOf(*it));
    }
    return pathFrame(methods);
  }

  // The rows counted so far, as (throw frame, catch frame, count).
  std::vector<std::vector<jint>> rows() {
    std::vector<std::vector<jint>> found;
    for (jint i = 0; i < 64; i++) {
      ExceptionRecord* row = ourDB->myExceptionTable->getRecord(i, false);
      if (row != nullptr && row->myCount != 0) {
        found.push_back({row->myThrowFrame, row->myCatchFrame, static_cast<jint>(row->myCount)});
      }
    }
    return found;
  }

  ThreadInfo* myThread = nullptr;
};

TEST_F(ExceptionsTest, ACatchingMethodThatTheThrowPathHoldsOnceIsFoundThereWithoutAWalk) {
  jmethodID main = myFake.method("Lapp/M;", "main");
  jmethodID parse = myFake.method("Lapp/M;", "parse");
  jmethodID step = myFake.method("Lapp/M;", "step");
  jmethodID fail = myFake.method("Lapp/M;", "fail");
  std::vector<jmethodID> stack = {fail, step, parse, main};
  throwAndCatch(stack, 0);  // caught where thrown
  jint throwFrame = pathOfStack(stack);
  ASSERT_NE(-1, throwFrame);

  // A walk at the catch would be refused and book the catch at the root: only the throw path
  // can name the catching frame now.
  throwAndCatch(stack, 2, JVMTI_ERROR_WRONG_PHASE);

  EXPECT_EQ((std::vector<std::vector<jint>>{{throwFrame, throwFrame, 1},
                                            {throwFrame, pathOfStack({parse, main}), 1}}),
            rows());
}

TEST_F(ExceptionsTest, RecursionOrADeepThrowMakesTheCatchWalkTheStack) {
  jmethodID main = myFake.method("Lapp/M;", "main");
  jmethodID relay = myFake.method("Lapp/M;", "relay");
  jmethodID fail = myFake.method("Lapp/M;", "fail");
  // relay twice on the path, and the outer one catches (the inner's handler doesn't cover the
  // call): only the stack at the catch tells which.
  std::vector<jmethodID> recursive = {fail, relay, relay, main};
  throwAndCatch(recursive, 2);
  ASSERT_EQ(1u, rows().size());
  EXPECT_EQ(pathOfStack({relay, main}), rows()[0][1]);
  Exceptions::cleanupExceptionUsage();

  // A throw deeper than a walk holds: its path lacks outermost frames, so the catching method
  // found on it once still sits on another path than the one the catch has.
  jmethodID loop = myFake.method("Lapp/M;", "loop");
  std::vector<jmethodID> deep(KFrameStorage::MAX_STACK_DEPTH + 5, loop);
  deep[0] = fail;
  deep[1] = relay;
  deep.back() = main;
  throwAndCatch(deep, 1);
  ASSERT_EQ(1u, rows().size());
  myFake.currentStack.assign(deep.begin() + 1, deep.end());
  EXPECT_EQ(ourFrameStorage.fillCurrentFrameJVMTI(&myEnv, false, nullptr), rows()[0][1]);
}

}  // namespace
