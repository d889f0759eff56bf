#include <set>
#include <string>
#include <vector>

#include "CPUTestSupport.h"
#include "agent/EngineEvents.h"
#include "agent/Options.h"
#include "db/records/MethodRecord.h"
#include "engines/J2EECalls.h"
#include "engines/J2EERecording.h"
#include "instrument/J2EEHelper.h"
#include "instrument/MethodIDProvider.h"

namespace {

// A class as the JVM describes it: its signature, direct interfaces and superclass.
struct FakeClass {
  std::string signature;
  bool isInterface;
  std::vector<FakeClass*> interfaces;
  FakeClass* superclass;
};

std::set<const void*> ourFakeClasses;
jvmtiError(JNICALL* ourMethodClassSignature)(jvmtiEnv*, jclass, char**, char**) = nullptr;
std::vector<std::pair<jobject, jlong>> ourJ2EETags;
// How many more signatures the fake answers before it acts as a JVM that has died: -1 for ever.
int ourSignaturesBeforeDeath = -1;

FakeClass* classOf(jclass klass) { return reinterpret_cast<FakeClass*>(klass); }
jclass handleOf(FakeClass* klass) { return reinterpret_cast<jclass>(klass); }

class J2EERecordingTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    ourFakeClasses.clear();
    ourJ2EETags.clear();
    ourSignaturesBeforeDeath = -1;
    // Method handles stand for their classes in the CPU fake; fake classes answer for themselves.
    ourMethodClassSignature = myJVMTITable.GetClassSignature;
    myJVMTITable.GetClassSignature = [](jvmtiEnv* env, jclass klass, char** signature, char** generic) -> jvmtiError {
      if (ourFakeClasses.count(klass) == 0) {
        return ourMethodClassSignature(env, klass, signature, generic);
      }
      EXPECT_EQ(nullptr, generic);
      if (ourSignaturesBeforeDeath == 0) {
        return JVMTI_ERROR_WRONG_PHASE;
      }
      if (ourSignaturesBeforeDeath > 0) {
        ourSignaturesBeforeDeath--;
      }
      const std::string& text = classOf(klass)->signature;
      *signature = static_cast<char*>(malloc(text.size() + 1));
      memcpy(*signature, text.c_str(), text.size() + 1);
      ourFakeCPUVM->outstandingAllocations++;
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.GetImplementedInterfaces = [](jvmtiEnv*, jclass klass, jint* count, jclass** interfaces) -> jvmtiError {
      std::vector<FakeClass*>& direct = classOf(klass)->interfaces;
      *count = static_cast<jint>(direct.size());
      *interfaces = static_cast<jclass*>(malloc(sizeof(jclass) * (direct.size() + 1)));
      ourFakeCPUVM->outstandingAllocations++;
      for (size_t i = 0; i < direct.size(); i++) {
        (*interfaces)[i] = handleOf(direct[i]);
      }
      return JVMTI_ERROR_NONE;
    };
    myJVMTITable.IsInterface = [](jvmtiEnv*, jclass klass, jboolean* isInterface) -> jvmtiError {
      *isInterface = classOf(klass)->isInterface ? JNI_TRUE : JNI_FALSE;
      return JVMTI_ERROR_NONE;
    };
    myJNITable.GetSuperclass = [](JNIEnv*, jclass klass) -> jclass { return handleOf(classOf(klass)->superclass); };

    myJ2EETable = {};
    myJ2EETable.SetTag = [](jvmtiEnv*, jobject object, jlong tag) -> jvmtiError {
      ourJ2EETags.push_back({object, tag});
      return JVMTI_ERROR_NONE;
    };
    myJ2EEEnv.functions = &myJ2EETable;
    mySavedJVMTI6 = ourJVMTI6;
    ourJVMTI6 = &myJ2EEEnv;
  }

  void TearDown() override {
    ourJVMTI6 = mySavedJVMTI6;
    for (FakeClass* klass : myClasses) {
      delete klass;
    }
    ourFakeClasses.clear();
    CPUEngineTest::TearDown();
  }

  FakeClass* declare(const char* signature, bool isInterface, std::vector<FakeClass*> interfaces,
                     FakeClass* superclass) {
    FakeClass* klass = new FakeClass{signature, isInterface, interfaces, superclass};
    myClasses.push_back(klass);
    ourFakeClasses.insert(klass);
    return klass;
  }

  bool implementsSQL(FakeClass* klass) { return J2EEHelper::isClassImplementsSQLInterfaces(&myEnv, handleOf(klass)); }

  std::vector<FakeClass*> myClasses;
  jvmtiInterface_1_ myJ2EETable;
  _jvmtiEnv myJ2EEEnv;
  jvmtiEnv* mySavedJVMTI6 = nullptr;
};

TEST_F(J2EERecordingTest, CatalogueInterfacesAreFoundThroughInterfacesAndSuperclasses) {
  FakeClass* object = declare("Ljava/lang/Object;", false, {}, nullptr);
  FakeClass* runnable = declare("Ljava/lang/Runnable;", true, {}, nullptr);
  FakeClass* connection = declare("Ljava/sql/Connection;", true, {}, nullptr);
  FakeClass* dirContext = declare("Ljavax/naming/directory/DirContext;", true, {}, nullptr);
  FakeClass* pooled = declare("Lcom/acme/PooledConnection;", true, {runnable, connection}, nullptr);
  FakeClass* base = declare("Lcom/acme/AbstractConnection;", false, {pooled}, object);
  FakeClass* concrete = declare("Lcom/acme/MyConnection;", false, {}, base);
  FakeClass* unrelated = declare("Lcom/acme/Closer;", false, {runnable}, object);
  FakeClass* ldap = declare("Lcom/acme/Ldap;", false, {runnable, dirContext}, object);

  EXPECT_TRUE(implementsSQL(connection));
  EXPECT_TRUE(implementsSQL(pooled));
  EXPECT_TRUE(implementsSQL(base));
  EXPECT_TRUE(implementsSQL(ldap));
  EXPECT_FALSE(implementsSQL(unrelated));
  EXPECT_FALSE(implementsSQL(object));
  // The method types come from every supertype: a JNDI context is no JDBC connection, and a
  // class may be both.
  EXPECT_EQ(1 << 7, J2EEHelper::methodTypesOf(&myEnv, handleOf(ldap)));
  EXPECT_EQ(1 << 1, J2EEHelper::methodTypesOf(&myEnv, handleOf(base)));
  FakeClass* both = declare("Lcom/acme/Both;", false, {dirContext}, base);
  EXPECT_EQ((1 << 1) | (1 << 7), J2EEHelper::methodTypesOf(&myEnv, handleOf(both)));

  // Every interface handle and every superclass reached is given back to the JVM.
  myFake.deletedRefs = 0;
  EXPECT_TRUE(implementsSQL(concrete));
  // base (superclass of concrete), pooled (interface of base), runnable and connection
  // (interfaces of pooled), and base's superclass Object.
  EXPECT_EQ(5, myFake.deletedRefs);
  myFake.deletedRefs = 0;
  EXPECT_FALSE(implementsSQL(unrelated));
  EXPECT_EQ(2, myFake.deletedRefs);  // runnable and Object
}

TEST_F(J2EERecordingTest, PreparedClassesImplementingCatalogueInterfacesAreMarkedOnTheirOwnEnvironment) {
  FakeClass* object = declare("Ljava/lang/Object;", false, {}, nullptr);
  FakeClass* statement = declare("Ljava/sql/Statement;", true, {}, nullptr);
  FakeClass* prepared = declare("Ljava/sql/PreparedStatement;", true, {statement}, nullptr);
  FakeClass* impl = declare("Lcom/acme/Stmt;", false, {prepared}, object);
  FakeClass* unrelated = declare("Lcom/acme/Other;", false, {}, object);

  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(prepared));  // an interface: never marked
  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(unrelated));
  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(impl));
  ASSERT_EQ(1u, ourJ2EETags.size());
  EXPECT_EQ(reinterpret_cast<jobject>(impl), ourJ2EETags[0].first);
  EXPECT_EQ(1 << 1, ourJ2EETags[0].second) << "the tag holds the JDBC method type";

  // The ClassPrepare that the agent installs reaches the mark too, beside the allocation count.
  jvmtiEventCallbacks callbacks;
  memset(&callbacks, 0, sizeof(callbacks));
  setEngineEventHandlers(&callbacks);
  callbacks.ClassPrepare(&myJVMTI, &myEnv, nullptr, handleOf(impl));
  EXPECT_EQ(2u, ourJ2EETags.size());

  // Without the environment the class is prepared all the same, unmarked.
  ourJVMTI6 = nullptr;
  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(impl));
  EXPECT_EQ(2u, ourJ2EETags.size());
}

TEST_F(J2EERecordingTest, MethodsWithJ2EEProbesKeepTheirFlagOnlyInJ2EEClassesOnceThoseArePrepared) {
  FakeClass* object = declare("Ljava/lang/Object;", false, {}, nullptr);
  FakeClass* statement = declare("Ljava/sql/Statement;", true, {}, nullptr);
  FakeClass* impl = declare("Lcom/acme/Stmt;", false, {statement}, object);
  FakeClass* stream = declare("Lcom/acme/Stream;", false, {}, object);
  MethodIDProvider provider;
  jint implClose = provider.getMethodID("com/acme/Stmt", "close", "()V");
  jint streamClose = provider.getMethodID("com/acme/Stream", "close", "()V");
  jint streamExecute = provider.getMethodID("com/acme/Stream", "execute", "(Ljava/lang/String;)Z");
  provider.addJ2EEMethod("com/acme/Stmt", implClose);
  provider.addJ2EEMethod("com/acme/Stream", streamClose);
  provider.addJ2EEMethod("com/acme/Stream", streamExecute);
  for (jint method : {implClose, streamClose, streamExecute}) {
    EXPECT_EQ(MF_J2EE, flagsOf(method) & MF_J2EE);
  }
  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(impl));
  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(stream));
  EXPECT_EQ(MF_J2EE, flagsOf(implClose) & MF_J2EE);
  EXPECT_EQ(0, flagsOf(streamClose) & MF_J2EE);
  EXPECT_EQ(0, flagsOf(streamExecute) & MF_J2EE);
  // Settled once: a class of the same name prepared again (another loader) changes nothing.
  provider.addMethodFlags(streamClose, MF_J2EE);
  markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(stream));
  EXPECT_EQ(MF_J2EE, flagsOf(streamClose) & MF_J2EE);
}

TEST_F(J2EERecordingTest, AClassTheDyingJvmNoLongerAnswersForIsNoJ2EEClass) {
  FakeClass* object = declare("Ljava/lang/Object;", false, {}, nullptr);
  FakeClass* runnable = declare("Ljava/lang/Runnable;", true, {}, nullptr);
  FakeClass* connection = declare("Ljava/sql/Connection;", true, {}, nullptr);
  FakeClass* klass = declare("Lcom/acme/Task;", false, {runnable, connection}, object);
  // Dead before the first question, and between the class's own name and its interfaces'
  // (the memory the fake handed out is checked as given back).
  for (int answered : {0, 1, 2}) {
    ourSignaturesBeforeDeath = answered;
    EXPECT_FALSE(implementsSQL(klass)) << answered;
    markJ2EEClass(&myJVMTI, &myEnv, nullptr, handleOf(klass));
    EXPECT_TRUE(ourJ2EETags.empty()) << answered;
  }
  ourSignaturesBeforeDeath = -1;
  EXPECT_TRUE(implementsSQL(klass));
}

class J2EECatchTest : public CPUEngineTest {
 protected:
  void SetUp() override {
    CPUEngineTest::SetUp();
    myThread = startThread("worker");
    runOn(myThread);
    myRun = myFake.method("Lapp/Main;", "run");
    myServe = myFake.method("Lapp/Servlet;", "service");
    myQuery = myFake.method("Lapp/Dao;", "query");
    myExecute = myFake.method("Ljdbc/Stmt;", "execute");
    ourStatus = STACK_TELEMETRY | CPU_TIMES_BIT | CPU_J2EE_BIT;
  }

  // Open J2EE calls at these frames, outermost first, each with its time.
  void open(std::vector<jint> frames) {
    myRecords.resize(frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
      myRecords[i] = J2EERecord{};
      myRecords[i].myFrame = frames[i];
    }
    for (size_t i = 0; i < frames.size(); i++) {
      myThread->myJ2EERecordsStack.push(&myRecords[i]);
      myThread->myJ2EETimesStack.push(static_cast<jlong>(100 + i));
    }
  }

  jint frameOf(std::vector<jmethodID> outermostFirst) {
    jint frame = 0;
    for (jmethodID method : outermostFirst) {
      frame = ourFrameStorage.getChild(frame, indexOf(method));
    }
    return frame;
  }

  void caught() { exception_catch(&myJVMTI, &myEnv, nullptr, myRun, 0, nullptr); }

  ThreadInfo* myThread = nullptr;
  jmethodID myRun = nullptr;
  jmethodID myServe = nullptr;
  jmethodID myQuery = nullptr;
  jmethodID myExecute = nullptr;
  std::vector<J2EERecord> myRecords;
};

TEST_F(J2EECatchTest, CallsWhoseFramesWereUnwoundAreDroppedWithTheirTimesUpToTheFirstOneStillOnTheStack) {
  jint serve = frameOf({myRun, myServe});
  jint query = frameOf({myRun, myServe, myQuery});
  jint execute = frameOf({myRun, myServe, myQuery, myExecute});
  jint elsewhere = frameOf({myRun, myExecute});
  // The exception unwound execute and query; service caught it.
  open({serve, elsewhere, query, execute});
  myFake.currentStack = {myServe, myRun};
  caught();
  ASSERT_EQ(1, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(&myRecords[0], myThread->myJ2EERecordsStack.get(0));
  ASSERT_EQ(1, myThread->myJ2EETimesStack.size());
  EXPECT_EQ(100, myThread->myJ2EETimesStack.get(0));

  // The innermost open call is still on the stack: nothing moves, even below it.
  myThread->myJ2EERecordsStack.clear();
  myThread->myJ2EETimesStack.clear();
  open({elsewhere, query});
  myFake.currentStack = {myExecute, myQuery, myServe, myRun};
  caught();
  EXPECT_EQ(2, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(2, myThread->myJ2EETimesStack.size());

  // Everything unwound: both stacks end empty.
  myFake.currentStack = {myRun};
  caught();
  EXPECT_EQ(0, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(0, myThread->myJ2EETimesStack.size());
}

TEST_F(J2EECatchTest, OnlyJ2EEProfilingTrimsAndTracingGetsItsFilterBitsRefilled) {
  jint query = frameOf({myRun, myServe, myQuery});
  open({query});
  myFake.currentStack = {myRun};
  ourStatus = STACK_TELEMETRY | CPU_TIMES_BIT;
  caught();
  EXPECT_EQ(1, myThread->myJ2EERecordsStack.size());

  ourStatus = STACK_TELEMETRY | CPU_PROFILING;
  myFake.currentStack = {myServe, myRun};
  myThread->myFilteredCallsStack.push(false);
  caught();
  EXPECT_EQ(0, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(2, myThread->myFilteredCallsStack.size());

  // A thread without state is left alone.
  runOn(nullptr);
  caught();
}

TEST_F(J2EECatchTest, WithoutExceptionEventsEntriesAndExitsDropTheCallsAnExceptionUnwound) {
  bool savedDisable = ourOptions.myDisableExceptions;
  ourOptions.myDisableExceptions = true;
  jint serve = frameOf({myRun, myServe});
  jint execute = frameOf({myRun, myServe, myQuery, myExecute});
  jint query = frameOf({myRun, myServe, myQuery});
  jint direct = frameOf({myRun, myServe, myExecute});
  // Inside service, execute threw and service caught it: no catch event trimmed the stacks.
  open({serve, execute});
  myThread->getCPUProfilingRecord(serve, true)->time = 500;
  myThread->getCPUProfilingRecord(execute, true)->time = 900;
  // service runs a statement of its own: execute's record is dropped at its entry.
  myFake.currentStack = {myExecute, myServe, myRun};
  kjpJ2EEEntryImpl(&myEnv, 0, 1);
  ASSERT_EQ(2, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(&myRecords[0], myThread->myJ2EERecordsStack.get(0));
  EXPECT_EQ(direct, myThread->myJ2EERecordsStack.get(1)->myFrame);
  kjpJ2EEExitImpl(&myEnv);
  ASSERT_EQ(1, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(0, myRecords[1].myTimeNs);

  // execute throws again and service's own exit comes next: the exit drops it, closes
  // service's call with service's time, and leaves execute without time.
  myThread->myJ2EERecordsStack.clear();
  myThread->myJ2EETimesStack.clear();
  open({serve, execute});
  myFake.currentStack = {myServe, myRun};
  kjpJ2EEExitImpl(&myEnv);
  EXPECT_EQ(0, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(0, myThread->myJ2EETimesStack.size());
  EXPECT_EQ(400, myRecords[0].myTimeNs);
  EXPECT_EQ(0, myRecords[1].myTimeNs);

  // With exception events the catch does it, and exits trust the stack.
  ourOptions.myDisableExceptions = false;
  myThread->myJ2EERecordsStack.clear();
  myThread->myJ2EETimesStack.clear();
  open({serve, query});
  myFake.currentStack = {myServe, myRun};
  kjpJ2EEExitImpl(&myEnv);
  EXPECT_EQ(1, myThread->myJ2EERecordsStack.size());
  ourOptions.myDisableExceptions = savedDisable;
}

TEST_F(J2EECatchTest, AnEntryNativeBooksItsCallAtThePathOfTheStackItTookBeforeTheLock) {
  myFake.currentStack = {myExecute, myQuery, myServe, myRun};
  // The probe asked about its receiver first: a JNDI context's method of a JDBC name and
  // descriptor books nothing, a statement's does.
  myThread->myJ2EEReceiverTypes = 1 << 7;
  Java_com_kestrix_runtime_Callback_kjpSQLEntry2(&myEnv, nullptr, nullptr, 1);
  EXPECT_EQ(0, myThread->myJ2EERecordsStack.size());
  myThread->myJ2EEReceiverTypes = 1 << 1;
  Java_com_kestrix_runtime_Callback_kjpSQLEntry2(&myEnv, nullptr, nullptr, 1);
  ASSERT_EQ(1, myThread->myJ2EERecordsStack.size());
  J2EERecord* record = myThread->myJ2EERecordsStack.get(0);
  EXPECT_EQ(frameOf({myRun, myServe, myQuery, myExecute}), record->myFrame);
  EXPECT_EQ(1, record->myCount);
  EXPECT_EQ(1, record->myKind);
  // A receiver of no J2EE class passes type 0, and a stopped recording takes nothing either.
  Java_com_kestrix_runtime_Callback_kjpSQLEntry2(&myEnv, nullptr, nullptr, 0);
  // Neither does a call whose stack the dying JVM refuses.
  myFake.stackError = JVMTI_ERROR_WRONG_PHASE;
  Java_com_kestrix_runtime_Callback_kjpSQLEntry2(&myEnv, nullptr, nullptr, 1);
  myFake.stackError = JVMTI_ERROR_NONE;
  ourStatus &= ~CPU_J2EE_BIT;
  Java_com_kestrix_runtime_Callback_kjpSQLEntry2(&myEnv, nullptr, nullptr, 1);
  EXPECT_EQ(1, myThread->myJ2EERecordsStack.size());
  EXPECT_EQ(1, record->myCount);
}

TEST_F(J2EECatchTest, RecordAndTimeStacksOfDifferentSizesAreRefused) {
  open({frameOf({myRun})});
  myThread->myJ2EETimesStack.push(7);
  myFake.currentStack = {myRun};
  EXPECT_DEATH(caught(), "recordsStack->size\\(\\) == timesStack->size\\(\\)");
  myThread->myJ2EERecordsStack.clear();
  EXPECT_DEATH(caught(), "recordsStack->size\\(\\) == timesStack->size\\(\\)");
}

}  // namespace
