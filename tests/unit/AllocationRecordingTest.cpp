#include <map>
#include <vector>

#include "CPUTestSupport.h"
#include "agent/Options.h"
#include "engines/AllocationRecording.h"
#include "engines/AllocationEntry.h"
#include "engines/ObjectEnumerator.h"

namespace {

// A Java object as far as allocation recording sees it: a size and the tag of ourJVMTI.
struct FakeObject {
  jlong size;
  jlong tag;
  int setTagCalls;
};

jobject objectOf(FakeObject* object) { return reinterpret_cast<jobject>(object); }
FakeObject* fakeOf(jobject object) { return reinterpret_cast<FakeObject*>(object); }

class AllocationRecordingTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    myJVMTITable.GetObjectSize = [](jvmtiEnv*, jobject object, jlong* size) -> jvmtiError {
      *size = fakeOf(object)->size;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.GetTag = [](jvmtiEnv*, jobject object, jlong* tag) -> jvmtiError {
      *tag = fakeOf(object)->tag;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.SetTag = [](jvmtiEnv*, jobject object, jlong tag) -> jvmtiError {
      fakeOf(object)->tag = tag;
      fakeOf(object)->setTagCalls++;
      return JVMTI_ERROR_NONE;
    };
    mySavedEnumerator = ourObjectEnumerator;
    ourObjectEnumerator = &myEnumerator;
    mySavedSettings = ourAllocationRecordingSettings;
    ourAllocationCounter = 0;
    ourFrameStorage.ourStartupAllocationsFrame = -1;
    ourStatus = STACK_TELEMETRY | ALLOCATION_RECORDING_BIT;
    myThread = startThread("worker");
    runOn(myThread);
    myOuter = myFake.method("Lapp/Main;", "main", "([Ljava/lang/String;)V");
    myInner = myFake.method("Lapp/Factory;", "make");
    myFake.currentStack = {myInner, myOuter};
  }

  void TearDown() override {
    ourObjectEnumerator = mySavedEnumerator;
    ourAllocationRecordingSettings = mySavedSettings;
    ourAllocationCounter = 0;
    ourFrameStorage.ourStartupAllocationsFrame = -1;
    CPUEngineTest::TearDown();
  }

  static void settings(bool recordEachEnabled, jint recordEach, bool sizeLimitEnabled, jint sizeLimit) {
    ourAllocationRecordingSettings = {recordEachEnabled, recordEach, sizeLimitEnabled, sizeLimit};
  }

  jint allocate(FakeObject* object, jint allocator = -1) { return kjpInitImpl(&myEnv, objectOf(object), allocator); }

  AllocatorRecord* allocatorRow(jlong tag) {
    return ourDB->myAllocatorTable->getRecord(getAllocatorRowOfTag(tag), true);
  }

  ObjectEnumerator myEnumerator;
  ObjectEnumerator* mySavedEnumerator = nullptr;
  AllocationRecordingSettings mySavedSettings;
  ThreadInfo* myThread = nullptr;
  jmethodID myOuter = nullptr;
  jmethodID myInner = nullptr;
};

TEST_F(AllocationRecordingTest, TagsAreRowsOfTheAllocatorTableInTheLowHalfAndGenerationsInTheHighHalf) {
  jlong tag = makeAllocationTag(7, 3);
  EXPECT_EQ(0x0000000300000007LL, tag);
  EXPECT_EQ(7, getAllocatorRowOfTag(tag));
  EXPECT_EQ(3, getGenerationOfTag(tag));
  // A heap dump's temporary negative index stays negative in the low half.
  EXPECT_EQ(-5, getAllocatorRowOfTag(makeAllocationTag(-5, 2)));
  EXPECT_EQ(2, getGenerationOfTag(makeAllocationTag(-5, 2)));
}

TEST_F(AllocationRecordingTest, EnumeratorHandsOutStampedRowsFromOneAndReusesReturnedOnesFirst) {
  ourDB->myModificationStamp = 4;
  ThreadInfo* other = startThread("other");
  EXPECT_EQ(1, myEnumerator.store_allocation_info(myThread, 11));
  EXPECT_EQ(2, myEnumerator.store_allocation_info(other, 12));
  EXPECT_EQ(3, myEnumerator.store_allocation_info(myThread, 13));
  AllocatorRecord* second = myEnumerator.getAllocator(2);
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(4, second->myModificationStamp);
  EXPECT_EQ(other->myRunningNumber, second->myThread);
  EXPECT_EQ(12, second->myFrame);

  myEnumerator.setObjectIndex(2, 99);
  EXPECT_EQ(99, myEnumerator.getAllocator(2)->myObjectIndex);

  ourDB->myModificationStamp = 6;
  myEnumerator.return_tag_to_pool(2);
  EXPECT_EQ(-6, second->myModificationStamp);
  EXPECT_EQ(0, second->myThread);
  EXPECT_EQ(0, second->myFrame);
  EXPECT_EQ(0, second->myObjectIndex);
  // The freed row is the next one given out, fresh.
  EXPECT_EQ(2, myEnumerator.store_allocation_info(myThread, 14));
  EXPECT_EQ(6, second->myModificationStamp);
  EXPECT_EQ(14, second->myFrame);
  EXPECT_EQ(0, second->myObjectIndex);
  EXPECT_EQ(4, myEnumerator.store_allocation_info(myThread, 15));

  EXPECT_EQ(nullptr, myEnumerator.getAllocator(ourDB->myAllocatorTable->getCapacity()));
}

TEST_F(AllocationRecordingTest, ClearingAllocatorsKeepsEveryRowItsIndexAndStamp) {
  ourDB->myModificationStamp = 2;
  myEnumerator.store_allocation_info(myThread, 21);
  myEnumerator.store_allocation_info(myThread, 22);
  myEnumerator.store_allocation_info(myThread, 23);
  myEnumerator.setObjectIndex(1, 5);
  ourDB->myModificationStamp = 3;
  myEnumerator.return_tag_to_pool(3);
  ourDB->myModificationStamp = 9;

  myEnumerator.clearAllocators();
  for (jint row = 1; row <= 2; row++) {
    AllocatorRecord* record = myEnumerator.getAllocator(row);
    EXPECT_EQ(2, record->myModificationStamp) << row;
    EXPECT_EQ(0, record->myThread) << row;
    EXPECT_EQ(0, record->myFrame) << row;
  }
  EXPECT_EQ(5, myEnumerator.getAllocator(1)->myObjectIndex);
  EXPECT_EQ(-3, myEnumerator.getAllocator(3)->myModificationStamp);
  // Live objects still hold tags 1 and 2, so those indices are not given out again.
  EXPECT_EQ(3, myEnumerator.store_allocation_info(myThread, 24));
  EXPECT_EQ(4, myEnumerator.store_allocation_info(myThread, 25));
}

TEST_F(AllocationRecordingTest, EnumeratorRefusesTagsBelowOneAndAMissingThread) {
  EXPECT_DEATH(myEnumerator.return_tag_to_pool(0), "pureTag > 0");
  EXPECT_DEATH(myEnumerator.setObjectIndex(-1, 3), "pureTag > 0");
  EXPECT_DEATH(myEnumerator.getAllocator(0), "pureTag > 0");
  EXPECT_DEATH(myEnumerator.store_allocation_info(nullptr, 3), "thread");
}

TEST_F(AllocationRecordingTest, ObjectFreeReturnsOnlyPositiveLowHalves) {
  ourDB->myModificationStamp = 5;
  myEnumerator.store_allocation_info(myThread, 31);
  myEnumerator.store_allocation_info(myThread, 32);
  objectFree(&myJVMTI, 0);
  objectFree(&myJVMTI, makeAllocationTag(0, 4));   // marked with a generation, never recorded
  objectFree(&myJVMTI, makeAllocationTag(-2, 0));  // numbered by a heap dump
  EXPECT_EQ(5, myEnumerator.getAllocator(1)->myModificationStamp);
  EXPECT_EQ(5, myEnumerator.getAllocator(2)->myModificationStamp);

  ourDB->myModificationStamp = 7;
  objectFree(&myJVMTI, makeAllocationTag(2, 4));
  EXPECT_EQ(-7, myEnumerator.getAllocator(2)->myModificationStamp);
  EXPECT_EQ(5, myEnumerator.getAllocator(1)->myModificationStamp);
  EXPECT_EQ(2, myEnumerator.store_allocation_info(myThread, 33));
}

TEST_F(AllocationRecordingTest, EveryNthAllocationOfAllThreadsIsRecordedAtItsStackFrame) {
  settings(true, 3, false, 0);
  ourDB->myModificationStamp = 8;
  ThreadInfo* other = startThread("other");
  std::vector<FakeObject> objects(7, FakeObject{24, 0, 0});
  std::vector<jint> results;
  for (int i = 0; i < 7; i++) {
    // The counter is shared: the fifth allocation comes from another thread.
    runOn(i == 4 ? other : myThread);
    results.push_back(allocate(&objects[i]));
  }
  EXPECT_EQ(7, ourAllocationCounter);
  jint frame = pathFrame({indexOf(myOuter), indexOf(myInner)});
  ASSERT_NE(-1, frame);
  EXPECT_EQ((std::vector<jint>{-1, -1, frame, -1, -1, frame, -1}), results);
  for (int i = 0; i < 7; i++) {
    EXPECT_EQ(i == 2 || i == 5 ? 1 : 0, objects[i].setTagCalls) << i;
  }
  EXPECT_EQ(makeAllocationTag(1, 0), objects[2].tag);
  EXPECT_EQ(makeAllocationTag(2, 0), objects[5].tag);
  AllocatorRecord* row = allocatorRow(objects[5].tag);
  EXPECT_EQ(myThread->myRunningNumber, row->myThread);
  EXPECT_EQ(frame, row->myFrame);
  EXPECT_EQ(8, row->myModificationStamp);

  AllocInfoRecord* figures = myThread->getAllocInfo(frame);
  EXPECT_EQ(2, figures->myCount);
  EXPECT_EQ(48, figures->mySize);
  EXPECT_EQ(8, figures->myModificationStamp);
  EXPECT_EQ(0, other->getAllocInfo(frame)->myCount);
}

TEST_F(AllocationRecordingTest, LargeObjectsAreRecordedWheneverTheSizeLimitIsOnAndCountedOnce) {
  settings(true, 10, true, 1048576);
  std::vector<FakeObject> objects(12, FakeObject{16, 0, 0});
  objects[3].size = 1048576;       // at the limit: recorded off the 10-step
  objects[9].size = 2 * 1048576;   // on the 10-step and above the limit: once
  objects[6].size = 1048575;       // just below: not recorded
  for (FakeObject& object : objects) {
    allocate(&object);
  }
  for (int i = 0; i < 12; i++) {
    EXPECT_EQ(i == 3 || i == 9 ? 1 : 0, objects[i].setTagCalls) << i;
  }
  jint frame = pathFrame({indexOf(myOuter), indexOf(myInner)});
  EXPECT_EQ(2, myThread->getAllocInfo(frame)->myCount);
  EXPECT_EQ(3 * 1048576, myThread->getAllocInfo(frame)->mySize);

  // With only the size rule, small objects are never picked, whatever the counter says.
  settings(false, 1, true, 100);
  FakeObject small{99, 0, 0};
  FakeObject big{100, 0, 0};
  allocate(&small);
  allocate(&big);
  EXPECT_EQ(0, small.setTagCalls);
  EXPECT_EQ(1, big.setTagCalls);
  EXPECT_EQ(14, ourAllocationCounter);
}

TEST_F(AllocationRecordingTest, AKnownAllocatorFrameSparesTheStackWalk) {
  settings(true, 1, false, 0);
  jint known = ourFrameStorage.getChild(0, indexOf(myOuter));
  myFake.currentStack = {myInner, myOuter};
  FakeObject first{8, 0, 0};
  EXPECT_EQ(known, allocate(&first, known));
  EXPECT_EQ(known, allocatorRow(first.tag)->myFrame);
  // Had the stack been walked, the deeper frame would exist now.
  EXPECT_EQ(-1, pathFrame({indexOf(myOuter), indexOf(myInner)}));

  // Frame 0 is taken as given: nothing is walked, recorded or tagged.
  FakeObject second{8, 0, 0};
  EXPECT_EQ(0, allocate(&second, 0));
  EXPECT_EQ(0, second.setTagCalls);
  EXPECT_EQ(-1, pathFrame({indexOf(myOuter), indexOf(myInner)}));

  // An empty stack gives frame 0 as well.
  myFake.currentStack.clear();
  FakeObject third{8, 0, 0};
  EXPECT_EQ(0, allocate(&third));
  EXPECT_EQ(0, third.setTagCalls);
  EXPECT_EQ(2, ourDB->myAllocatorTable->getIndexPool().getNextNewIndex());
}

TEST_F(AllocationRecordingTest, StartPhaseAllocationsGoToOneStartupNodeOfTheVMStartThread) {
  settings(true, 1, false, 0);
  myFake.phase = JVMTI_PHASE_START;
  myFake.currentStack.clear();
  FakeObject first{40, 0, 0};
  FakeObject second{60, 0, 0};
  jint frame = allocate(&first);
  // A frame handed in during the start phase is not trusted.
  EXPECT_EQ(frame, allocate(&second, 12345));
  ASSERT_GT(frame, 0);
  EXPECT_EQ(0, ourFrameStorage.getParent(frame));
  EXPECT_EQ(frame, ourFrameStorage.ourStartupAllocationsFrame);
  MethodRecord* method = ourDB->myMethodTable->getRecord(ourFrameStorage.getMethodIndex(frame), true);
  EXPECT_EQ("<Objects allocated during JVM startup>", stringAt(method->myNameStrID));
  EXPECT_EQ("()V", stringAt(method->mySignatureStrID));

  AllocatorRecord* row = allocatorRow(second.tag);
  EXPECT_EQ(ourVMStartThread->myRunningNumber, row->myThread);
  EXPECT_EQ(frame, row->myFrame);
  EXPECT_EQ(2, ourVMStartThread->getAllocInfo(frame)->myCount);
  EXPECT_EQ(100, ourVMStartThread->getAllocInfo(frame)->mySize);
  EXPECT_EQ(0, myThread->getAllocInfo(frame)->myCount);
}

TEST_F(AllocationRecordingTest, OptionsThatRecordFromStartUpCoverTheStartPhaseBeforeRecordingRuns) {
  bool savedAtStart = ourOptions.myAllocAtStart;
  bool savedEachEnabled = ourOptions.myRecordEachEnabled;
  jint savedEach = ourOptions.myRecordEach;
  bool savedLimitEnabled = ourOptions.mySizeLimitEnabled;
  ourOptions.myAllocAtStart = true;
  ourOptions.myRecordEachEnabled = true;
  ourOptions.myRecordEach = 2;
  ourOptions.mySizeLimitEnabled = false;
  ourStatus = STACK_TELEMETRY;
  myFake.phase = JVMTI_PHASE_START;
  FakeObject objects[4] = {{8, 0, 0}, {8, 0, 0}, {8, 0, 0}, {8, 0, 0}};
  for (FakeObject& object : objects) {
    allocate(&object);
  }
  EXPECT_EQ(4, ourAllocationCounter);
  ASSERT_GT(ourFrameStorage.ourStartupAllocationsFrame, 0);
  EXPECT_EQ(2, ourVMStartThread->getAllocInfo(ourFrameStorage.ourStartupAllocationsFrame)->myCount);

  // Once live, only running recording counts.
  myFake.phase = JVMTI_PHASE_LIVE;
  FakeObject later{8, 0, 0};
  EXPECT_EQ(-1, allocate(&later));
  EXPECT_EQ(4, ourAllocationCounter);
  ourOptions.myAllocAtStart = savedAtStart;
  ourOptions.myRecordEachEnabled = savedEachEnabled;
  ourOptions.myRecordEach = savedEach;
  ourOptions.mySizeLimitEnabled = savedLimitEnabled;
}

TEST_F(AllocationRecordingTest, NothingIsCountedWhileNotRecordingOnAgentThreadsOutsideTheLivePhasesOrAtDeath) {
  settings(true, 1, false, 0);
  FakeObject object{8, 0, 0};

  ourStatus = STACK_TELEMETRY | CPU_TIMES_BIT;
  EXPECT_EQ(17, allocate(&object, 17));
  ourStatus = STACK_TELEMETRY | ALLOCATION_RECORDING_BIT;

  runOn(nullptr);
  EXPECT_EQ(-1, allocate(&object));
  runOn(startThread("KJPAgent-CPUSampler"));
  EXPECT_EQ(-1, allocate(&object));
  runOn(myThread);

  myFake.phase = JVMTI_PHASE_PRIMORDIAL;
  EXPECT_EQ(-1, allocate(&object));
  myFake.phase = JVMTI_PHASE_LIVE;

  ourVMDeathCalled = true;
  EXPECT_EQ(-1, allocate(&object));
  ourVMDeathCalled = false;
  EXPECT_EQ(0, ourAllocationCounter);
  EXPECT_EQ(0, object.setTagCalls);

  // Every handler ends in the same routine with an unknown frame.
  class_alloc_handler(&myJVMTI, &myEnv, nullptr, reinterpret_cast<jclass>(objectOf(&object)));
  vm_object_alloc_handler(&myJVMTI, &myEnv, nullptr, objectOf(&object), nullptr, 8);
  jni_object_alloc_handler(&myEnv, objectOf(&object));
  EXPECT_EQ(3, object.setTagCalls);
  EXPECT_EQ(3, ourAllocationCounter);
  jint frame = pathFrame({indexOf(myOuter), indexOf(myInner)});
  EXPECT_EQ(3, myThread->getAllocInfo(frame)->myCount);
}

TEST_F(AllocationRecordingTest, AClassReportedAtLoadAndAgainAtPreparationIsOneAllocation) {
  settings(true, 1, false, 0);
  FakeObject klass{120, 0, 0};
  class_alloc_handler(&myJVMTI, &myEnv, nullptr, reinterpret_cast<jclass>(objectOf(&klass)));
  jlong firstTag = klass.tag;
  class_alloc_handler(&myJVMTI, &myEnv, nullptr, reinterpret_cast<jclass>(objectOf(&klass)));
  EXPECT_EQ(1, klass.setTagCalls);
  EXPECT_EQ(firstTag, klass.tag);
  EXPECT_EQ(1, ourAllocationCounter);

  // A class that only carries a generation is still new to recording.
  FakeObject marked{120, makeAllocationTag(0, 4), 0};
  class_alloc_handler(&myJVMTI, &myEnv, nullptr, reinterpret_cast<jclass>(objectOf(&marked)));
  EXPECT_EQ(1, marked.setTagCalls);
}

TEST_F(AllocationRecordingTest, AnAllocationWithoutObjectOrEnvironmentIsRefused) {
  settings(true, 1, false, 0);
  EXPECT_DEATH(kjpInitImpl(&myEnv, nullptr, -1), "obj");
  FakeObject object{8, 0, 0};
  EXPECT_DEATH(kjpInitImpl(nullptr, objectOf(&object), -1), "jni");
}

}  // namespace
