#include <string.h>

#include <string>
#include <vector>

#include "CPUTestSupport.h"
#include "engines/Generations.h"
#include "engines/InstanceCounting.h"
#include "engines/ObjectEnumerator.h"

namespace {

// A heap reduced to what instance counting and generation marks see: classes with a tag on each
// of the two environments, objects with a class, a size and an allocation tag.
struct FakeClass {
  std::string signature;
  jlong mainTag;
  jlong countingTag;
};

struct FakeObject {
  FakeClass* klass;
  jlong size;
  jlong tag;
};

struct FakeHeap {
  std::vector<FakeClass*> classes;
  std::vector<FakeObject> objects;
  int walks = 0;
  // The JVM has died: JVMTI refuses everything, or (dying under the pass) the walk only.
  bool dead = false;
  bool walkRefused = false;
};

FakeHeap* ourHeap = nullptr;
jvmtiEnv* ourCountingEnv = nullptr;

FakeClass* classOf(jobject object) { return reinterpret_cast<FakeClass*>(object); }

class HeapCensusTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourHeap = &myHeap;
    myJVMTITable.GetLoadedClasses = [](jvmtiEnv*, jint* count, jclass** classes) -> jvmtiError {
      if (ourHeap->dead) {
        return JVMTI_ERROR_WRONG_PHASE;
      }
      *count = static_cast<jint>(ourHeap->classes.size());
      ourFakeCPUVM->outstandingAllocations++;
      *classes = static_cast<jclass*>(malloc(sizeof(jclass) * (ourHeap->classes.size() + 1)));
      for (size_t i = 0; i < ourHeap->classes.size(); i++) {
        (*classes)[i] = reinterpret_cast<jclass>(ourHeap->classes[i]);
      }
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.GetTag = [](jvmtiEnv* env, jobject object, jlong* tag) -> jvmtiError {
      *tag = env == ourCountingEnv ? classOf(object)->countingTag : classOf(object)->mainTag;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.SetTag = [](jvmtiEnv* env, jobject object, jlong tag) -> jvmtiError {
      (env == ourCountingEnv ? classOf(object)->countingTag : classOf(object)->mainTag) = tag;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.GetClassSignature = [](jvmtiEnv*, jclass klass, char** signature, char** generic) -> jvmtiError {
      const std::string& text = classOf(klass)->signature;
      ourFakeCPUVM->outstandingAllocations++;
      *signature = static_cast<char*>(malloc(text.size() + 1));
      memcpy(*signature, text.c_str(), text.size() + 1);
      if (generic != nullptr) {
        *generic = nullptr;
      }
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.IterateThroughHeap = [](jvmtiEnv* env, jint filter, jclass, const jvmtiHeapCallbacks* callbacks,
                                         const void* data) -> jvmtiError {
      if (ourHeap->dead || ourHeap->walkRefused) {
        return JVMTI_ERROR_WRONG_PHASE;
      }
      ourHeap->walks++;
      for (FakeObject& object : ourHeap->objects) {
        if (env == ourCountingEnv) {
          jlong classTag = object.klass->countingTag;
          if ((filter & JVMTI_HEAP_FILTER_CLASS_UNTAGGED) != 0 && classTag == 0) {
            continue;
          }
          jlong untagged = 0;
          callbacks->heap_iteration_callback(classTag, object.size, &untagged, -1, const_cast<void*>(data));
          EXPECT_EQ(0, untagged) << "counting tags no object";
        } else {
          callbacks->heap_iteration_callback(object.klass->mainTag, object.size, &object.tag, -1,
                                             const_cast<void*>(data));
        }
      }
      return JVMTI_ERROR_NONE;
    };
    myCountingJVMTI.functions = &myJVMTITable;
    mySavedCountingEnv = ourJVMTI4;
    ourJVMTI4 = &myCountingJVMTI;
    ourCountingEnv = &myCountingJVMTI;
  }

  void TearDown() override {
    for (FakeClass* klass : myHeap.classes) {
      delete klass;
    }
    ourJVMTI4 = mySavedCountingEnv;
    ourCountingEnv = nullptr;
    ourHeap = nullptr;
    CPUEngineTest::TearDown();
  }

  FakeClass* addClass(const char* signature) {
    myHeap.classes.push_back(new FakeClass{signature, 0, 0});
    return myHeap.classes.back();
  }

  void addObjects(FakeClass* klass, int count, jlong size) {
    for (int i = 0; i < count; i++) {
      myHeap.objects.push_back(FakeObject{klass, size, 0});
    }
  }

  // Counts and writes the rows as a table update would.
  void count(jint tables = 1 << INSTANCECOUNTS_TABLE_ID) {
    InstanceCounting counting(&myEnv, ourDB, tables);
    counting.gatherClassInstanceStatistics(&myEnv);
    LockHolder holder(&ourLock, "HeapCensusTest(112)");
    counting.updateDatabase();
  }

  InstanceCountsRecord* rowOf(FakeClass* klass) {
    return ourDB->myInstanceCountsTable->getRecord(static_cast<jint>(klass->countingTag), false);
  }

  FakeHeap myHeap;
  _jvmtiEnv myCountingJVMTI;
  jvmtiEnv* mySavedCountingEnv = nullptr;
};

TEST_F(HeapCensusTest, InstanceCountsNameEachClassOnceAndStampOnlyWhatChanged) {
  FakeClass* strings = addClass("Ljava/lang/String;");
  FakeClass* ints = addClass("[I");
  FakeClass* idle = addClass("Lapp/Idle;");
  addObjects(strings, 3, 24);
  addObjects(ints, 2, 40);
  ourDB->myModificationStamp = 5;
  count();

  ASSERT_NE(nullptr, rowOf(strings));
  EXPECT_EQ("java.lang.String", stringAt(rowOf(strings)->myClassNameStrID));
  EXPECT_EQ(3, rowOf(strings)->myCount);
  EXPECT_EQ(72, rowOf(strings)->mySize);
  EXPECT_EQ("int[]", stringAt(rowOf(ints)->myClassNameStrID));
  EXPECT_EQ(80, rowOf(ints)->mySize);
  // A class without instances is named, with nothing counted.
  ASSERT_NE(nullptr, rowOf(idle));
  EXPECT_EQ(0, rowOf(idle)->myCount);
  EXPECT_EQ(5, rowOf(idle)->myModificationStamp);
  jlong stringsTag = strings->countingTag;

  // Unchanged classes keep their stamps; a class whose instances went shows 0, stamped anew.
  ourDB->myModificationStamp = 9;
  myHeap.objects.erase(myHeap.objects.begin() + 3, myHeap.objects.end());
  count();
  EXPECT_EQ(stringsTag, strings->countingTag);
  EXPECT_EQ(5, rowOf(strings)->myModificationStamp);
  EXPECT_EQ(3, rowOf(strings)->myCount);
  EXPECT_EQ(0, rowOf(ints)->myCount);
  EXPECT_EQ(0, rowOf(ints)->mySize);
  EXPECT_EQ(9, rowOf(ints)->myModificationStamp);
  EXPECT_EQ(5, rowOf(idle)->myModificationStamp);
  // Rows belong to classes one to one.
  EXPECT_EQ(3, ourDB->myInstanceCountsTable->getIndexPool().nextIndex() - 1);

  // A pass that the dying JVM refuses, from the start or at its walk, changes no count and
  // ends nothing.
  ourDB->myModificationStamp = 12;
  ourVMDeathCalled = true;
  for (bool refusedFromStart : {true, false}) {
    myHeap.dead = refusedFromStart;
    myHeap.walkRefused = !refusedFromStart;
    count();
    EXPECT_EQ(3, rowOf(strings)->myCount);
    EXPECT_EQ(5, rowOf(strings)->myModificationStamp);
  }
}

TEST_F(HeapCensusTest, CountingRunsOnlyForTheInstanceCountsTableOfTheAgentsDatabase) {
  FakeClass* strings = addClass("Ljava/lang/String;");
  addObjects(strings, 2, 24);
  count(1 << THREAD_TABLE_ID);
  EXPECT_EQ(0, myHeap.walks);
  EXPECT_EQ(0, strings->countingTag);

  DB other(-1);
  InstanceCounting foreign(&myEnv, &other, 1 << INSTANCECOUNTS_TABLE_ID);
  foreign.gatherClassInstanceStatistics(&myEnv);
  EXPECT_FALSE(foreign.hasGathered());
  EXPECT_EQ(0, myHeap.walks);
}

TEST_F(HeapCensusTest, AMarkGivesItsGenerationOnlyToObjectsWithoutOneAndKeepsAllocationRows) {
  FakeClass* strings = addClass("Ljava/lang/String;");
  addObjects(strings, 2, 24);
  myHeap.objects[1].tag = makeAllocationTag(7, 0);
  ourDB->myModificationStamp = 3;
  Generations::markMemory(&myEnv, 2, KString("first"));
  jint first = Generations::getCurrentGenerationID();
  EXPECT_EQ(makeAllocationTag(0, first), myHeap.objects[0].tag);
  EXPECT_EQ(makeAllocationTag(7, first), myHeap.objects[1].tag);

  addObjects(strings, 1, 24);
  Generations::markMemory(&myEnv, 1, KString("second"));
  jint second = Generations::getCurrentGenerationID();
  EXPECT_EQ(first + 1, second);
  EXPECT_EQ(first, getGenerationOfTag(myHeap.objects[0].tag));
  EXPECT_EQ(first, getGenerationOfTag(myHeap.objects[1].tag));
  EXPECT_EQ(second, getGenerationOfTag(myHeap.objects[2].tag));

  GenerationRecord* row = ourDB->myGenerationTable->getRecord(second, false);
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(1, row->myType);
  EXPECT_EQ("second", stringAt(row->myDescriptionStrID));
  EXPECT_EQ(3, row->myModificationStamp);
}

}  // namespace
