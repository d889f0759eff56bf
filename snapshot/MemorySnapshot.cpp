#include "snapshot/MemorySnapshot.h"

#include <errno.h>
#include <fcntl.h>
#include <jvmti.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KMap.h"
#include "agent/KSet.h"
#include "agent/KVector.h"
#include "agent/Options.h"
#include "agent/TextUtil.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/Generations.h"
#include "engines/KFrameStorage.h"
#include "engines/KMethod.h"
#include "engines/ObjectEnumerator.h"
#include "engines/ThreadInfo.h"
#include "snapshot/SnapshotProgress.h"

namespace {

const char* const STARTUP_ALLOCATIONS_METHOD = "<Objects allocated during JVM startup>";
const jint MAX_STACK_FRAMES = 10000;
const jint FIELD_STATIC = 8;  // ACC_STATIC as GetFieldModifiers gives it
const jint SCRATCH_BUFFER_SIZE = 1 << 20;

struct _FieldInfo {
  // Ordinal among the instance reference fields, or among the instance primitive fields; -1
  // for statics.
  jint myRefIndex;
  // Signature letter of a primitive; 0 for a reference.
  char myPrimitiveType;
  // Offset in the primitive block of the object (instance fields) or class (statics).
  jint myOffset;
  jint myNameStrID;
  jint myModifiers;

  bool isStatic() const { return (myModifiers & FIELD_STATIC) != 0; }
};

struct _ClassInfo {
  _ClassInfo() : myInterfaces(4), myFields(8) {}
  ~_ClassInfo() {
    for (jint i = 0; i < myFields.size(); i++) {
      delete myFields[i];
    }
  }

  jint myNameStrID = 0;
  jlong myTag = 0;
  jlong mySuperclassTag = 0;
  bool myIsPrimArrayClass = false;
  bool myIsObjectArrayClass = false;
  bool myIsClassClass = false;
  jint myPrimArrayElementSize = 0;
  jlong myObjectSize = 0;
  KVector<jlong> myInterfaces;
  KVector<_FieldInfo*> myFields;
  jint myOwnFieldsStart = 0;
  jint myReferenceFieldCount = 0;
  jint myPrimitiveFieldCount = 0;
  jint myInstancePrimitivesSize = 0;
  jint myStaticPrimitivesSize = 0;
};

struct ThreadAndFrame {
  jint myThread;
  jint myFrame;
};

// A part of the dump the JVM refuses is left out, with one line saying so: the JVM runs on.
bool succeeded(jvmtiError error, const char* what) {
  if (error == JVMTI_ERROR_NONE) {
    return true;
  }
  if (!ourOptions.myQuiet) {
    fprintf(stderr, "[Kestrix Java Profiler 8.0.1] *** Warning ***: heap dump: %s failed with JVMTI error %d\n", what,
            static_cast<int>(error));
    fflush(stderr);
  }
  return false;
}

jint primitiveSize(char letter) {
  switch (letter) {
    case 'B':
    case 'Z':
      return 1;
    case 'C':
    case 'S':
      return 2;
    case 'F':
    case 'I':
      return 4;
    case 'D':
    case 'J':
      return 8;
    default:
      return 0;
  }
}

// The state of one dump, shared with the JVM's callbacks through their user data. The callbacks
// run on the capturing thread and must not call JNI, which is why everything they need about
// classes and threads is collected before the walks start.
struct DumpState {
  DumpState(JNIEnv* env, SnapshotWriter& writer)
      : myEnv(env),
        myWriter(writer),
        myClassInfos(1024),
        myMethodLocals(512),
        myThreadAndFrames(16),
        myClassTagsToAdd(256) {}

  ~DumpState() {
    for (jint i = 0; i < myClassInfos._capacity; i++) {
      if (myClassInfos._states[i] == KMAP_FULL) {
        delete myClassInfos._values[i];
      }
    }
    for (jint i = 0; i < myMethodLocals._capacity; i++) {
      if (myMethodLocals._states[i] == KMAP_FULL) {
        KVector<StackLocal*>* locals = myMethodLocals._values[i];
        for (jint l = 0; l < locals->size(); l++) {
          delete locals->get(l);
        }
        delete locals;
      }
    }
    delete[] myArrayInfo;
    delete[] myPrimitivesOffsets;
    delete[] myBlock;
  }

  // Minus the next index, as assignObjectIndex counts.
  jint nextCounter() {
    ++myObjectCount;
    if (myObjectCount >= myArrayInfoCapacity) {
      jlong capacity = myArrayInfoCapacity < 1024 ? 1024 : myArrayInfoCapacity * 2;
      myArrayInfo = grown(myArrayInfo, capacity);
      myPrimitivesOffsets = grown(myPrimitivesOffsets, capacity);
      myArrayInfoCapacity = capacity;
    }
    return -myObjectCount;
  }

  JNIEnv* myEnv;
  SnapshotWriter& myWriter;
  // Indices handed out so far; the counter of assignObjectIndex is minus this, minus one.
  jint myObjectCount = 0;
  jint myGeneration = 0;
  jlong myClassClassTag = -1;
  jint myAllocatorRecords = 0;
  bool myWithAllocators = false;

  KMap<jlong, _ClassInfo*> myClassInfos;
  KMap<jmethodID, KVector<StackLocal*>*> myMethodLocals;
  KMap<jlong, ThreadAndFrame> myThreadAndFrames;
  KVector<jlong> myClassTagsToAdd;
  // Per object index: an array's length, or the address of an instance's or a class's
  // _ClassInfo. Grows with the numbering, as does the next one.
  jlong* myArrayInfo = nullptr;
  jlong myArrayInfoCapacity = 0;
  // Per object index: one past the position of the object's primitive block within the
  // primitive data, 0 for none. The data's place in the file is known only once it is written.
  jlong* myPrimitivesOffsets = nullptr;
  // Where the primitive data goes while the JVM hands it over: a scratch file when the values
  // come in the same walk as the objects, the snapshot itself otherwise.
  SnapshotWriter* myPrimitiveWriter = nullptr;

  // The primitive block being filled, field by field, for the object of myBlockIndex; written
  // in one piece once the JVM moves on to another object.
  char* myBlock = nullptr;
  jint myBlockCapacity = 0;
  jint myBlockSize = 0;
  jint myBlockIndex = 0;
  jlong myDataLength = 0;
  jint myImproperReports = 0;

  jlong* grown(jlong* old, jlong capacity) const {
    jlong* bigger = new jlong[capacity];
    memset(bigger, 0, sizeof(jlong) * static_cast<size_t>(capacity));
    if (old != nullptr) {
      memcpy(bigger, old, sizeof(jlong) * static_cast<size_t>(myArrayInfoCapacity));
      delete[] old;
    }
    return bigger;
  }

  jint getObjectIndex(jlong tag) const {
    jint low = getAllocatorRowOfTag(tag);
    if (low <= 0) {
      return -low;
    }
    AllocatorRecord* record = ourDB->myAllocatorTable->getRecord(low, false);
    KASSERT_TEXT(record != nullptr, "record");
    return record->myObjectIndex;
  }

  // Numbers one object: a recorded object keeps its tag and its row learns the index; any other
  // gets minus the index in the low half. Either way an object without generation gets the
  // current one.
  jlong assignObjectIndex(jlong tag) {
    jint counter = nextCounter();
    jint low = getAllocatorRowOfTag(tag);
    jint generation = getGenerationOfTag(tag);
    if (low > 0 && ourDB->myAllocatorTable->getRecord(low, false) != nullptr) {
      ourDB->myAllocatorTable->getRecord(low, false)->myObjectIndex = -counter;
    } else {
      low = counter;
    }
    return makeAllocationTag(low, generation == 0 ? myGeneration : generation);
  }

  _ClassInfo* classInfoOfTag(jlong classTag) const {
    if (classTag == 0) {
      return nullptr;
    }
    jint index = getObjectIndex(classTag);
    if (index <= 0 || index > myObjectCount) {
      return nullptr;
    }
    return reinterpret_cast<_ClassInfo*>(myArrayInfo[index]);
  }

  void writeAllocator(jlong tag, jint objectIndex) {
    if (!myWithAllocators) {
      return;
    }
    jint row = getAllocatorRowOfTag(tag);
    if (row <= 0) {
      return;
    }
    AllocatorRecord* record = ourDB->myAllocatorTable->getRecord(row, false);
    if (record == nullptr || record->myModificationStamp <= 0) {
      return;
    }
    myWriter.writeByte(HEAP_TAG_ALLOCATOR);
    myWriter.writeOID(objectIndex);
    myWriter.writeInt(record->myThread);
    myWriter.writeInt(record->myFrame);
    myAllocatorRecords++;
  }

  void flushBlock() {
    if (myBlockIndex != 0) {
      myPrimitiveWriter->writeBytes(myBlock, myBlockSize);
      myBlockIndex = 0;
    }
  }
};

// ---- numbering ----

// The instances of java.lang.Class, all classes and the mirrors of primitive types among them,
// are numbered first (java.lang.Class itself before them), so that the walk over all other
// objects can number each and write its record at once, knowing its class.
jint JNICALL numberClassObjects(jlong, jlong, jlong* tagPtr, jint, void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  if (*tagPtr != state->myClassClassTag) {
    *tagPtr = state->assignObjectIndex(*tagPtr);
  }
  state->myClassTagsToAdd.push(*tagPtr);
  return JVMTI_VISIT_OBJECTS;
}

// ---- classes ----

// What the JVM tells of a class may fail for a class on its way out (at VM death, say): such a
// class gets what could be learned, and the dump goes on.
bool isPrepared(jclass klass) {
  jint status = 0;
  if (ourJVMTI->GetClassStatus(klass, &status) != JVMTI_ERROR_NONE) {
    return false;
  }
  return (status & JVMTI_CLASS_STATUS_PREPARED) != 0;
}

bool isInterfaceFieldsBeforeOther() { return ourIsIBM || ourIsJRockit_R27_1; }

jlong tagOf(jobject object) {
  jlong tag = 0;
  if (object != nullptr && ourJVMTI->GetTag(object, &tag) != JVMTI_ERROR_NONE) {
    tag = 0;
  }
  return tag;
}

void addClassFields(JNIEnv* env, _ClassInfo* info, jclass klass, KSet<jlong>* processed) {
  jboolean isArray = JNI_FALSE;
  if (ourJVMTI->IsArrayClass(klass, &isArray) != JVMTI_ERROR_NONE || isArray ||
      (!isPrepared(klass) && !ourIsJRockit)) {
    return;
  }
  jlong tag = tagOf(klass);
  if (tag == 0 || processed->contains(tag)) {
    return;
  }
  jboolean isInterface = JNI_FALSE;
  if (ourJVMTI->IsInterface(klass, &isInterface) != JVMTI_ERROR_NONE) {
    return;
  }
  jclass superclass = isInterface ? nullptr : env->GetSuperclass(klass);
  if (isInterfaceFieldsBeforeOther() && superclass != nullptr) {
    addClassFields(env, info, superclass, processed);
  }
  jint interfaceCount = 0;
  jclass* interfaces = nullptr;
  if (ourJVMTI->GetImplementedInterfaces(klass, &interfaceCount, &interfaces) != JVMTI_ERROR_NONE) {
    interfaceCount = 0;
    interfaces = nullptr;
  }
  for (jint i = 0; i < interfaceCount; i++) {
    addClassFields(env, info, interfaces[i], processed);
    env->DeleteLocalRef(interfaces[i]);
  }
  deallocate(interfaces);
  if (!isInterfaceFieldsBeforeOther() && superclass != nullptr) {
    addClassFields(env, info, superclass, processed);
  }
  if (superclass != nullptr) {
    env->DeleteLocalRef(superclass);
  }
  processed->add(tag);

  jint fieldCount = 0;
  jfieldID* fields = nullptr;
  if (ourJVMTI->GetClassFields(klass, &fieldCount, &fields) != JVMTI_ERROR_NONE) {
    return;
  }
  info->myOwnFieldsStart = info->myFields.size();
  info->myStaticPrimitivesSize = 0;
  for (jint i = 0; i < fieldCount; i++) {
    char* name = nullptr;
    char* signature = nullptr;
    jint modifiers = 0;
    if (ourJVMTI->GetFieldName(klass, fields[i], &name, &signature, nullptr) != JVMTI_ERROR_NONE) {
      name = nullptr;
      signature = nullptr;
    }
    if (ourJVMTI->GetFieldModifiers(klass, fields[i], &modifiers) != JVMTI_ERROR_NONE) {
      modifiers = 0;
    }
    _FieldInfo* field = new _FieldInfo();
    field->myRefIndex = -1;
    field->myModifiers = modifiers;
    field->myNameStrID = name == nullptr ? 0 : ourDB->myStrPool->getDBIndex(name, true);
    char letter = signature == nullptr ? 'L' : signature[0];
    field->myPrimitiveType = letter == '[' || letter == 'L' ? 0 : letter;
    jint size = primitiveSize(field->myPrimitiveType);
    if (field->isStatic()) {
      field->myOffset = info->myStaticPrimitivesSize;
      info->myStaticPrimitivesSize += size;
    } else {
      field->myOffset = info->myInstancePrimitivesSize;
      info->myInstancePrimitivesSize += size;
    }
    info->myFields.push(field);
    deallocate(name);
    deallocate(signature);
  }
  deallocate(fields);
}

_ClassInfo* makeClassInfo(JNIEnv* env, jclass klass, jlong tag) {
  _ClassInfo* info = new _ClassInfo();
  info->myTag = tag;
  char* signature = nullptr;
  if (ourJVMTI->GetClassSignature(klass, &signature, nullptr) != JVMTI_ERROR_NONE || signature == nullptr) {
    info->myNameStrID = ourDB->myStrPool->getDBIndex("<unknown class>", true);
    return info;
  }
  if (signature[0] == '[') {
    jint size = primitiveSize(signature[1]);
    if (signature[1] == 'L' || signature[1] == '[' || size == 0) {
      info->myIsObjectArrayClass = true;
    } else {
      info->myIsPrimArrayClass = true;
      info->myPrimArrayElementSize = size;
    }
  }
  info->myIsClassClass = strcmp(signature, "Ljava/lang/Class;") == 0;
  char* name = classSignature2fqName(signature);
  info->myNameStrID = ourDB->myStrPool->getDBIndex(name, true);
  delete[] name;
  deallocate(signature);
  jclass superclass = env->GetSuperclass(klass);
  info->mySuperclassTag = tagOf(superclass);
  if (superclass != nullptr) {
    env->DeleteLocalRef(superclass);
  }

  KSet<jlong> processed(20);
  addClassFields(env, info, klass, &processed);

  if (isPrepared(klass)) {
    jint count = 0;
    jclass* interfaces = nullptr;
    if (ourJVMTI->GetImplementedInterfaces(klass, &count, &interfaces) != JVMTI_ERROR_NONE) {
      count = 0;
      interfaces = nullptr;
    }
    for (jint i = 0; i < count; i++) {
      jlong interfaceTag = tagOf(interfaces[i]);
      if (interfaceTag != 0) {
        info->myInterfaces.push(interfaceTag);
      }
      env->DeleteLocalRef(interfaces[i]);
    }
    deallocate(interfaces);
  }
  if (ourJVMTI->GetObjectSize(klass, &info->myObjectSize) != JVMTI_ERROR_NONE) {
    info->myObjectSize = 0;
  }

  jint references = 0;
  jint primitives = 0;
  for (jint i = 0; i < info->myFields.size(); i++) {
    _FieldInfo* field = info->myFields[i];
    if (field->isStatic()) {
      continue;
    }
    field->myRefIndex = field->myPrimitiveType == 0 ? references++ : primitives++;
  }
  info->myReferenceFieldCount = references;
  info->myPrimitiveFieldCount = primitives;
  return info;
}

void addClassInfo(DumpState* state, jclass klass, jlong tag) {
  KASSERT(tag);
  KASSERT((jint(tag)));
  _ClassInfo* info = makeClassInfo(state->myEnv, klass, tag);
  state->myClassInfos.put(tag, info);
  jint index = state->getObjectIndex(tag);
  if (index > 0 && index <= state->myObjectCount) {
    state->myArrayInfo[index] = reinterpret_cast<jlong>(info);
  }
}

// ---- objects ----

// Numbers every object but the classes and writes its record. An object of a class that no
// class object stands for is none of the program's: the JVM's fillers of unused heap, which the
// next safepoint may move, are such.
jint JNICALL numberAndWriteObject(jlong classTag, jlong size, jlong* tagPtr, jint length, void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  if (classTag == 0 || classTag == state->myClassClassTag) {
    return JVMTI_VISIT_OBJECTS;
  }
  _ClassInfo* info = state->classInfoOfTag(classTag);
  if (info == nullptr) {
    return JVMTI_VISIT_OBJECTS;
  }
  *tagPtr = state->assignObjectIndex(*tagPtr);
  jint index = state->getObjectIndex(*tagPtr);
  SnapshotWriter& writer = state->myWriter;
  jint classIndex = state->getObjectIndex(classTag);
  if (length >= 0 && (info->myIsObjectArrayClass || info->myIsPrimArrayClass)) {
    state->myArrayInfo[index] = length;
    writer.writeByte(info->myIsObjectArrayClass ? HEAP_TAG_OBJECT_ARRAY : HEAP_TAG_PRIMITIVE_ARRAY);
    writer.writeOID(index);
    writer.writeOID(classIndex);
    writer.writeLong(size);
    writer.writeInt(getGenerationOfTag(*tagPtr));
    writer.writeInt(length);
  } else {
    state->myArrayInfo[index] = reinterpret_cast<jlong>(info);
    writer.writeByte(HEAP_TAG_INSTANCE);
    writer.writeOID(index);
    writer.writeOID(classIndex);
    writer.writeLong(size);
    writer.writeInt(getGenerationOfTag(*tagPtr));
    writer.writeInt(info->myReferenceFieldCount);
  }
  state->writeAllocator(*tagPtr, index);
  return JVMTI_VISIT_OBJECTS;
}

void writeClassRecord(DumpState* state, _ClassInfo* info) {
  SnapshotWriter& writer = state->myWriter;
  writer.writeByte(HEAP_TAG_CLASS);
  writer.writeInt(info->myNameStrID);
  jint index = state->getObjectIndex(info->myTag);
  writer.writeOID(index);
  writer.writeOID(info->mySuperclassTag == 0 ? 0 : state->getObjectIndex(info->mySuperclassTag));
  writer.writeLong(info->myObjectSize);
  writer.writeInt(getGenerationOfTag(info->myTag));
  writer.writeLong(0);
  writer.writeInt(info->myInterfaces.size());
  for (jint i = 0; i < info->myInterfaces.size(); i++) {
    writer.writeOID(state->getObjectIndex(info->myInterfaces[i]));
  }
  // The four lists: own static references, all instance references, own static primitives,
  // all instance primitives. Their lengths are known here, so no placeholder is needed.
  for (int list = 0; list < 4; list++) {
    bool statics = list == 0 || list == 2;
    bool primitives = list >= 2;
    jint from = statics ? info->myOwnFieldsStart : 0;
    jint count = 0;
    for (jint i = from; i < info->myFields.size(); i++) {
      _FieldInfo* field = info->myFields[i];
      if (field->isStatic() == statics && (field->myPrimitiveType != 0) == primitives) {
        count++;
      }
    }
    writer.writeInt(count);
    for (jint i = from; i < info->myFields.size(); i++) {
      _FieldInfo* field = info->myFields[i];
      if (field->isStatic() != statics || (field->myPrimitiveType != 0) != primitives) {
        continue;
      }
      writer.writeInt(field->myNameStrID);
      if (primitives) {
        writer.writeByte(field->myPrimitiveType);
      } else {
        writer.writeInt(field->myModifiers);
      }
    }
  }
  state->writeAllocator(info->myTag, index);
}

// ---- references and roots ----

void writeRoot(DumpState* state, jint objectIndex, jint kind, jint thread, jint holder, jint frame, jint name) {
  SnapshotWriter& writer = state->myWriter;
  writer.writeByte(HEAP_TAG_GC_ROOT);
  writer.writeOID(objectIndex);
  writer.writeInt(kind);
  writer.writeInt(thread);
  writer.writeOID(holder);
  writer.writeInt(frame);
  writer.writeInt(name);
}

// The frame 'depth' calls above the thread's top frame, with the thread's running number; both
// 0 when the thread isn't known or the walk leaves the tree.
void findStackFrame(DumpState* state, jlong threadTag, jint depth, jint* thread, jint* frame) {
  *thread = 0;
  *frame = 0;
  ThreadAndFrame known;
  if (ourOptions.myWithDebugger || threadTag == 0 || !state->myThreadAndFrames.get(threadTag, &known)) {
    return;
  }
  jint current = known.myFrame;
  for (jint i = 0; i < depth; i++) {
    current = current <= 0 ? -1 : ourFrameStorage.getParent(current);
    if (current == -1 || current == -2) {
      return;
    }
  }
  *thread = known.myThread;
  *frame = current;
}

jint localName(DumpState* state, jmethodID method, jint slot) {
  KVector<StackLocal*>* locals = nullptr;
  if (method == nullptr || !state->myMethodLocals.get(method, &locals) || locals == nullptr) {
    return 0;
  }
  for (jint i = 0; i < locals->size(); i++) {
    if (locals->get(i)->mySlot == slot) {
      return locals->get(i)->myNameStrID;
    }
  }
  return 0;
}

void writeFieldReference(DumpState* state, jint from, jint to, jint fieldIndex) {
  _ClassInfo* info = reinterpret_cast<_ClassInfo*>(state->myArrayInfo[from]);
  if (info == nullptr || info->myIsClassClass || info->myIsPrimArrayClass || info->myIsObjectArrayClass) {
    return;
  }
  if (fieldIndex < 0 || fieldIndex >= info->myFields.size()) {
    return;
  }
  jint refIndex = info->myFields[fieldIndex]->myRefIndex;
  if (refIndex == -1) {
    return;
  }
  if (refIndex >= info->myReferenceFieldCount) {
    KASSERT_TEXT(ourIsJRockit, "refIndex < refCount");
    return;
  }
  SnapshotWriter& writer = state->myWriter;
  writer.writeByte(HEAP_TAG_FIELD_REFERENCE);
  writer.writeOID(from);
  writer.writeOID(to);
  writer.writeInt(refIndex);
}

// A static field's ordinal among the class's own static reference fields; -1 for an inherited one.
jint staticOrdinal(_ClassInfo* info, jint fieldIndex) {
  jint full = fieldIndex;
  KASSERT_TEXT(full >= 0, "full_index >= 0");
  KASSERT_TEXT(full < info->myFields.size(), "full_index < allFields->size()");
  if (full < info->myOwnFieldsStart) {
    return -1;
  }
  jint count = 0;
  for (jint i = info->myOwnFieldsStart; i <= full; i++) {
    _FieldInfo* field = info->myFields[i];
    if (field->isStatic() && field->myPrimitiveType == 0) {
      count++;
    }
  }
  return count - 1;
}

// The index of an object of this dump, or 0 for an object the numbering didn't reach.
jint indexOfTag(const DumpState* state, jlong tag) {
  if (tag == 0) {
    return 0;
  }
  jint index = state->getObjectIndex(tag);
  return index <= 0 || index > state->myObjectCount ? 0 : index;
}

// The walk over the reachable heap goes through the JVM's older interface: it remembers the
// referrer's tag from one reference to the next, where the newer one looks the referrer and
// both classes up in its tag map for every reference. With every object tagged that map is as
// big as the heap, and those lookups are most of the walk's time.
jvmtiIterationControl JNICALL writeHeapRoot(jvmtiHeapRootKind kind, jlong, jlong, jlong* tagPtr, void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  jint to = indexOfTag(state, *tagPtr);
  if (to == 0) {
    return JVMTI_ITERATION_CONTINUE;
  }
  switch (kind) {
    case JVMTI_HEAP_ROOT_JNI_GLOBAL:
      writeRoot(state, to, ROOT_JNI_GLOBAL, 0, 0, 0, 0);
      break;
    case JVMTI_HEAP_ROOT_SYSTEM_CLASS:
      break;  // classes are roots by their own record
    case JVMTI_HEAP_ROOT_MONITOR:
      writeRoot(state, to, ROOT_MONITOR, 0, 0, 0, 0);
      break;
    case JVMTI_HEAP_ROOT_THREAD: {
      ThreadAndFrame known = {0, 0};
      state->myThreadAndFrames.get(*tagPtr, &known);
      // The holder slot carries the low half of the thread object's own tag as it stands.
      writeRoot(state, to, ROOT_THREAD, known.myThread, getAllocatorRowOfTag(*tagPtr), 0, 0);
      break;
    }
    default:
      writeRoot(state, to, ROOT_OTHER, 0, 0, 0, 0);
      break;
  }
  return JVMTI_ITERATION_CONTINUE;
}

jvmtiIterationControl JNICALL writeStackRoot(jvmtiHeapRootKind kind, jlong, jlong, jlong* tagPtr, jlong threadTag,
                                             jint depth, jmethodID method, jint slot, void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  jint to = indexOfTag(state, *tagPtr);
  if (to == 0) {
    return JVMTI_ITERATION_CONTINUE;
  }
  if (kind != JVMTI_HEAP_ROOT_STACK_LOCAL && kind != JVMTI_HEAP_ROOT_JNI_LOCAL) {
    if (state->myImproperReports++ < 10) {
      fprintf(stderr, "Kestrix Java Profiler 8.0.1: stack_reference_callback: JVM passed improper root kind: %d\n",
              static_cast<int>(kind));
      fflush(stderr);
    }
    return JVMTI_ITERATION_CONTINUE;
  }
  jint thread = 0;
  jint frame = 0;
  findStackFrame(state, threadTag, depth, &thread, &frame);
  if (kind == JVMTI_HEAP_ROOT_STACK_LOCAL) {
    writeRoot(state, to, ROOT_STACK_LOCAL, thread, 0, frame, localName(state, method, slot));
  } else {
    writeRoot(state, to, ROOT_JNI_LOCAL, thread, 0, frame, 0);
  }
  return JVMTI_ITERATION_CONTINUE;
}

jvmtiIterationControl JNICALL writeReference(jvmtiObjectReferenceKind kind, jlong, jlong, jlong* tagPtr,
                                             jlong referrerTag, jint referrerIndex, void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  jint to = indexOfTag(state, *tagPtr);
  jint from = indexOfTag(state, referrerTag);
  if (to == 0 || from == 0) {
    return JVMTI_ITERATION_CONTINUE;
  }
  SnapshotWriter& writer = state->myWriter;
  switch (kind) {
    case JVMTI_REFERENCE_FIELD:
      writeFieldReference(state, from, to, referrerIndex);
      break;
    case JVMTI_REFERENCE_ARRAY_ELEMENT:
      writer.writeByte(HEAP_TAG_ARRAY_ELEMENT_REFERENCE);
      writer.writeOID(from);
      writer.writeOID(to);
      writer.writeInt(referrerIndex);
      break;
    case JVMTI_REFERENCE_CLASS_LOADER:
    case JVMTI_REFERENCE_SIGNERS:
    case JVMTI_REFERENCE_PROTECTION_DOMAIN:
      writer.writeByte(kind == JVMTI_REFERENCE_CLASS_LOADER ? HEAP_TAG_CLASS_LOADER_REFERENCE
                       : kind == JVMTI_REFERENCE_SIGNERS  ? HEAP_TAG_SIGNERS_REFERENCE
                                                          : HEAP_TAG_PROTECTION_DOMAIN_REFERENCE);
      writer.writeOID(from);
      writer.writeOID(to);
      break;
    case JVMTI_REFERENCE_STATIC_FIELD: {
      _ClassInfo* info = state->classInfoOfTag(referrerTag);
      if (info == nullptr || referrerIndex >= info->myFields.size()) {
        break;
      }
      writer.writeByte(HEAP_TAG_STATIC_FIELD_REFERENCE);
      writer.writeOID(from);
      writer.writeOID(to);
      writer.writeInt(staticOrdinal(info, referrerIndex));
      break;
    }
    case JVMTI_REFERENCE_CONSTANT_POOL:
      writer.writeByte(HEAP_TAG_CONSTANT_POOL_REFERENCE);
      writer.writeOID(from);
      writer.writeOID(to);
      writer.writeInt(referrerIndex);
      break;
    case JVMTI_REFERENCE_CLASS:
    case JVMTI_REFERENCE_INTERFACE:
      break;  // told by the class and object records
    default:
      if (state->myImproperReports++ < 10) {
        fprintf(stderr, "Kestrix Java Profiler 8.0.1: object_reference_callback: JVM passed improper reference kind: %d\n",
                static_cast<int>(kind));
        fflush(stderr);
      }
  }
  return JVMTI_ITERATION_CONTINUE;
}

// ---- primitive values ----

void startBlock(DumpState* state, jint index, jint size) {
  state->flushBlock();
  if (size > state->myBlockCapacity) {
    delete[] state->myBlock;
    state->myBlockCapacity = size * 2;
    state->myBlock = new char[state->myBlockCapacity];
  }
  memset(state->myBlock, 0, static_cast<size_t>(size));
  state->myBlockSize = size;
  state->myBlockIndex = index;
  state->myPrimitivesOffsets[index] = state->myDataLength + 1;
  state->myDataLength += size;
}

void putValue(char* at, jvalue value, jvmtiPrimitiveType type) {
  switch (type) {
    case JVMTI_PRIMITIVE_TYPE_BOOLEAN:
      *at = value.z ? 1 : 0;
      break;
    case JVMTI_PRIMITIVE_TYPE_BYTE:
      *at = static_cast<char>(value.b);
      break;
    case JVMTI_PRIMITIVE_TYPE_CHAR:
      memcpy(at, &value.c, 2);
      break;
    case JVMTI_PRIMITIVE_TYPE_SHORT:
      memcpy(at, &value.s, 2);
      break;
    case JVMTI_PRIMITIVE_TYPE_INT:
      memcpy(at, &value.i, 4);
      break;
    case JVMTI_PRIMITIVE_TYPE_FLOAT:
      memcpy(at, &value.f, 4);
      break;
    case JVMTI_PRIMITIVE_TYPE_LONG:
      memcpy(at, &value.j, 8);
      break;
    case JVMTI_PRIMITIVE_TYPE_DOUBLE:
      memcpy(at, &value.d, 8);
      break;
  }
}

jint JNICALL writePrimitiveField(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo* referenceInfo,
                                 jlong classTag, jlong* tagPtr, jvalue value, jvmtiPrimitiveType type,
                                 void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  bool isStatic = kind == JVMTI_HEAP_REFERENCE_STATIC_FIELD;
  if ((kind != JVMTI_HEAP_REFERENCE_FIELD && !isStatic) || *tagPtr == 0) {
    return 0;
  }
  jint index = state->getObjectIndex(*tagPtr);
  if (index <= 0 || index > state->myObjectCount) {
    return 0;
  }
  _ClassInfo* info = isStatic ? state->classInfoOfTag(*tagPtr) : state->classInfoOfTag(classTag);
  if (info == nullptr || info->myIsPrimArrayClass || info->myIsObjectArrayClass) {
    return 0;
  }
  jint fieldIndex = referenceInfo->field.index;
  if (fieldIndex < 0 || fieldIndex >= info->myFields.size()) {
    return 0;
  }
  _FieldInfo* field = info->myFields[fieldIndex];
  if (field->myPrimitiveType == 0 || field->isStatic() != isStatic || (isStatic && fieldIndex < info->myOwnFieldsStart)) {
    return 0;
  }
  if (state->myBlockIndex != index) {
    if (state->myPrimitivesOffsets[index] != 0) {
      return 0;  // the JVM came back to an object it had left: its block is out already
    }
    startBlock(state, index, isStatic ? info->myStaticPrimitivesSize : info->myInstancePrimitivesSize);
  }
  if (field->myOffset + primitiveSize(field->myPrimitiveType) <= state->myBlockSize) {
    putValue(state->myBlock + field->myOffset, value, type);
  }
  return 0;
}

jint elementSize(jvmtiPrimitiveType type) {
  switch (type) {
    case JVMTI_PRIMITIVE_TYPE_BOOLEAN:
    case JVMTI_PRIMITIVE_TYPE_BYTE:
      return 1;
    case JVMTI_PRIMITIVE_TYPE_CHAR:
    case JVMTI_PRIMITIVE_TYPE_SHORT:
      return 2;
    case JVMTI_PRIMITIVE_TYPE_INT:
    case JVMTI_PRIMITIVE_TYPE_FLOAT:
      return 4;
    case JVMTI_PRIMITIVE_TYPE_LONG:
    case JVMTI_PRIMITIVE_TYPE_DOUBLE:
      return 8;
  }
  return 0;
}

jint JNICALL writePrimitiveArray(jlong, jlong, jlong* tagPtr, jint length, jvmtiPrimitiveType type,
                                 const void* elements, void* userData) {
  DumpState* state = static_cast<DumpState*>(userData);
  if (length <= 0 || *tagPtr == 0) {
    return 0;
  }
  jint index = state->getObjectIndex(*tagPtr);
  if (index <= 0 || index > state->myObjectCount) {
    return 0;
  }
  jint size = elementSize(type);
  if (size == 0) {
    fprintf(stderr, "Kestrix Java Profiler 8.0.1: JVM passed improper primitive type: %d\n", static_cast<int>(type));
    fflush(stderr);
    return 0;
  }
  state->flushBlock();
  KASSERT(state->myPrimitivesOffsets[index] == 0);
  state->myPrimitivesOffsets[index] = state->myDataLength + 1;
  jlong bytes = static_cast<jlong>(length) * size;
  state->myDataLength += bytes;
  // The JVM hands the elements over in the machine's order, which is little-endian here, as
  // the file wants; booleans are 0 or 1 already.
  state->myPrimitiveWriter->writeBytes(elements, bytes);
  return 0;
}

class Progress {
 public:
  explicit Progress(jint handle) : myHandle(handle) {}
  void at(jint percent) {
    if (percent > getLastReportedProgress()) {
      updateProgress(myHandle, percent);
    }
  }

 private:
  jint myHandle;
};

jvmtiHeapCallbacks callbacksOf(jvmtiHeapIterationCallback iteration) {
  jvmtiHeapCallbacks callbacks;
  memset(&callbacks, 0, sizeof(callbacks));
  callbacks.heap_iteration_callback = iteration;
  return callbacks;
}

void collectThreads(DumpState* state, Progress& progress) {
  JNIEnv* env = state->myEnv;
  jint count = 0;
  jvmtiStackInfo* stacks = nullptr;
  if (!succeeded(ourJVMTI->GetAllStackTraces(MAX_STACK_FRAMES, &stacks, &count), "GetAllStackTraces")) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    jthread thread = stacks[i].thread;
    ThreadInfo* info = getThreadInfoJVMTI(thread);
    if (info != nullptr) {
      ThreadAndFrame entry;
      entry.myThread = info->myRunningNumber;
      entry.myFrame = ourFrameStorage.fillCurrentFrameJVMTIFromStackInfo(env, stacks[i], &state->myMethodLocals);
      jlong tag = tagOf(thread);
      if (tag != 0) {
        state->myThreadAndFrames.put(tag, entry);
      }
    }
    progress.at(20 + 5 * (i + 1) / count);
  }
  for (jint i = 0; i < count; i++) {
    env->DeleteLocalRef(stacks[i].thread);
  }
  deallocate(stacks);
}

void collectClasses(DumpState* state) {
  JNIEnv* env = state->myEnv;
  KASSERT(state->myClassInfos.size() == 0);
  jint count = 0;
  jclass* classes = nullptr;
  if (!succeeded(ourJVMTI->GetLoadedClasses(&count, &classes), "GetLoadedClasses")) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    jlong tag = tagOf(classes[i]);
    if (tag == 0 || ourIsOldIBM) {
      tag = state->assignObjectIndex(tag);
      if (ourJVMTI->SetTag(classes[i], tag) != JVMTI_ERROR_NONE) {
        continue;
      }
    }
  }
  for (jint i = 0; i < count; i++) {
    jlong tag = tagOf(classes[i]);
    if (!state->myClassInfos.containsKey(tag)) {
      addClassInfo(state, classes[i], tag);
    }
    env->DeleteLocalRef(classes[i]);
  }
  deallocate(classes);
}

// Class objects GetLoadedClasses leaves out, met as instances of java.lang.Class in the
// numbering: the mirrors of primitive types, and the mirrors that the JVM's class data archive
// brings along for classes not loaded yet, near a thousand on a plain JVM. Only a search of the
// whole tag map finds them, which after the first dump holds every object of the heap; so once
// found they are kept for the dumps to come.
KVector<jweak>* ourUnlistedClasses = nullptr;

void addMissingClasses(DumpState* state) {
  JNIEnv* env = state->myEnv;
  if (ourUnlistedClasses == nullptr) {
    ourUnlistedClasses = new KVector<jweak>(1024);
  }
  for (jint i = 0; i < ourUnlistedClasses->size(); i++) {
    jobject klass = env->NewLocalRef(ourUnlistedClasses->get(i));
    if (klass == nullptr) {  // unloaded
      env->DeleteWeakGlobalRef(ourUnlistedClasses->get(i));
      ourUnlistedClasses->set(i, ourUnlistedClasses->last());
      ourUnlistedClasses->removeRange(ourUnlistedClasses->size() - 1, ourUnlistedClasses->size());
      i--;
      continue;
    }
    jlong tag = tagOf(klass);
    if (tag != 0 && !state->myClassInfos.containsKey(tag)) {
      addClassInfo(state, static_cast<jclass>(klass), tag);
    }
    env->DeleteLocalRef(klass);
  }

  KVector<jlong> missing(16);
  for (jint i = 0; i < state->myClassTagsToAdd.size(); i++) {
    jlong tag = state->myClassTagsToAdd[i];
    KASSERT_TEXT(tag != 0, "key != 0");
    if (!state->myClassInfos.containsKey(tag)) {
      missing.push(tag);
    }
  }
  if (missing.isEmpty()) {
    return;
  }
  // One call for all of them: each call walks the JVM's whole tag map.
  jint count = 0;
  jobject* objects = nullptr;
  jlong* tags = nullptr;
  if (!succeeded(ourJVMTI->GetObjectsWithTags(missing.size(), missing.getArray(), &count, &objects, &tags),
                 "GetObjectsWithTags")) {
    return;
  }
  for (jint i = 0; i < count; i++) {
    if (!state->myClassInfos.containsKey(tags[i])) {
      addClassInfo(state, static_cast<jclass>(objects[i]), tags[i]);
      jweak kept = env->NewWeakGlobalRef(objects[i]);
      if (kept != nullptr) {
        ourUnlistedClasses->push(kept);
      }
    }
    env->DeleteLocalRef(objects[i]);
  }
  deallocate(objects);
  deallocate(tags);
}

// An unnamed file beside the snapshot, gone when closed. A snapshot's directory has room for
// about as much again, and the values of a big heap would not fit in the JVM's memory.
struct ScratchFile {
  explicit ScratchFile(int snapshotFD) {
    char link[64];
    char path[PATH_MAX];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", snapshotFD);
    ssize_t length = readlink(link, path, sizeof(path) - 1);
    if (length <= 0) {
      return;
    }
    path[length] = 0;
    char* slash = strrchr(path, '/');
    if (slash == nullptr) {
      return;
    }
    *(slash == path ? slash + 1 : slash) = 0;
    myFD = open(path, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (myFD < 0) {
      return;
    }
    myWriter = new SnapshotWriter(myFD, SCRATCH_BUFFER_SIZE, true);
  }

  ~ScratchFile() {
    delete myWriter;
    if (myFD >= 0) {
      close(myFD);
    }
  }

  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  // Appends the first 'length' bytes to 'to'. Bytes that can't be read back are written as
  // zeros, so that the file keeps its shape; the warning says the values are wrong.
  void copyTo(SnapshotWriter& to, jlong length) {
    myWriter->flush();
    const char* failure = myWriter->getError();
    char* buffer = new char[SCRATCH_BUFFER_SIZE];
    jlong done = 0;
    while (done < length) {
      size_t chunk = static_cast<size_t>(length - done < SCRATCH_BUFFER_SIZE ? length - done : SCRATCH_BUFFER_SIZE);
      ssize_t got = failure == nullptr ? pread(myFD, buffer, chunk, static_cast<off_t>(done)) : -1;
      if (got < 0 && errno == EINTR) {
        continue;
      }
      if (got <= 0) {
        failure = failure != nullptr ? failure : got < 0 ? strerror(errno) : "the file ended early";
        memset(buffer, 0, chunk);
        got = static_cast<ssize_t>(chunk);
      }
      to.writeBytes(buffer, got);
      done += got;
    }
    delete[] buffer;
    if (failure != nullptr && !ourOptions.myQuiet) {
      fprintf(stderr, "[Kestrix Java Profiler 8.0.1] *** Warning ***: heap dump: primitive values lost: %s\n", failure);
      fflush(stderr);
    }
  }

  int myFD = -1;
  SnapshotWriter* myWriter = nullptr;
};

}  // namespace

HeapDump::HeapDump(JNIEnv* env, SnapshotWriter& writer, jint progressHandle)
    : myEnv(env),
      myWriter(writer),
      myProgressHandle(progressHandle),
      myObjectCount(nullptr),
      myStringCount(nullptr),
      myAllocatorCount(nullptr) {}

HeapDump::~HeapDump() {
  delete myObjectCount;
  delete myStringCount;
  delete myAllocatorCount;
}

void HeapDump::commitCounts() {
  myObjectCount->commit();
  myStringCount->commit();
  myAllocatorCount->commit();
}

void HeapDump::write(const KString& snapshotName) {
  JNIEnv* env = myEnv;
  Progress progress(myProgressHandle);
  if (ourFrameStorage.ourStartupAllocationsFrame == -1) {
    jint method = KMethod::getByName(STARTUP_ALLOCATIONS_METHOD, "()V", "");
    ourFrameStorage.ourStartupAllocationsFrame = ourFrameStorage.getChild(0, method);
  }
  myWriter.writeByte(HEAP_TAG_COUNTS);
  myObjectCount = new SnapshotWriter::Counter(myWriter);
  myStringCount = new SnapshotWriter::Counter(myWriter);
  myAllocatorCount = new SnapshotWriter::Counter(myWriter);
  progress.at(7);

  DumpState state(env, myWriter);
  state.myWithAllocators = (ourStatus & ALLOCATION_RECORDING_BIT) != 0;
  // The numbering below gives every object without a generation the current one, so the mark
  // needs no heap walk of its own.
  state.myGeneration = Generations::startGeneration(1, KString("Captured snapshot ", snapshotName.get()));

  // java.lang.Class first, so that its instances can be told by their class tag, then the
  // other classes, then everything else.
  jclass classClass = env->FindClass("java/lang/Class");
  if (classClass == nullptr) {
    env->ExceptionClear();
  }
  KASSERT(classClass != nullptr);
  state.myClassClassTag = state.assignObjectIndex(tagOf(classClass));
  succeeded(ourJVMTI->SetTag(classClass, state.myClassClassTag), "SetTag");
  jvmtiHeapCallbacks classObjects = callbacksOf(numberClassObjects);
  succeeded(ourJVMTI->IterateThroughHeap(0, classClass, &classObjects, &state), "IterateThroughHeap");
  env->DeleteLocalRef(classClass);
  progress.at(10);
  collectClasses(&state);
  addMissingClasses(&state);
  progress.at(15);

  // Objects and their primitive values in one walk: each walk of the JVM looks every object
  // and its class up in a tag map as big as the heap, which costs more than the walk itself.
  // The values come long before their place in the file, so they wait in a scratch file.
  ScratchFile scratch(myWriter.getFD());
  jvmtiHeapCallbacks objects = callbacksOf(numberAndWriteObject);
  if (scratch.myWriter != nullptr) {
    state.myPrimitiveWriter = scratch.myWriter;
    objects.primitive_field_callback = writePrimitiveField;
    objects.array_primitive_value_callback = writePrimitiveArray;
  }
  succeeded(ourJVMTI->IterateThroughHeap(0, nullptr, &objects, &state), "IterateThroughHeap");
  state.flushBlock();
  progress.at(20);
  collectThreads(&state, progress);
  progress.at(25);

  jint written = 0;
  jint classCount = state.myClassInfos.size();
  for (jint i = 0; i < state.myClassInfos._capacity; i++) {
    if (state.myClassInfos._states[i] == KMAP_FULL) {
      writeClassRecord(&state, state.myClassInfos._values[i]);
      progress.at(25 + 5 * ++written / (classCount > 0 ? classCount : 1));
    }
  }
  progress.at(30);

  // Roots, class references, fields and array elements in one walk of the reachable heap.
  succeeded(ourJVMTI->IterateOverReachableObjects(writeHeapRoot, writeStackRoot, writeReference, &state),
            "IterateOverReachableObjects");
  progress.at(45);

  // Primitive values: the fields of each object and the elements of the arrays as one stretch
  // of data, followed by each object's position in it.
  myWriter.writeByte(HEAP_TAG_PRIMITIVE_DATA);
  jlong dataStart = 0;
  if (scratch.myWriter != nullptr) {
    myWriter.writeLong(state.myDataLength);
    dataStart = myWriter.position();
    scratch.copyTo(myWriter, state.myDataLength);
  } else {
    // Without a scratch file the values take a walk of their own, straight into the snapshot.
    SnapshotWriter::LongCounter dataLength(myWriter);
    dataStart = myWriter.position();
    state.myPrimitiveWriter = &myWriter;
    jvmtiHeapCallbacks primitives;
    memset(&primitives, 0, sizeof(primitives));
    primitives.primitive_field_callback = writePrimitiveField;
    primitives.array_primitive_value_callback = writePrimitiveArray;
    succeeded(ourJVMTI->IterateThroughHeap(0, nullptr, &primitives, &state), "IterateThroughHeap");
    state.flushBlock();
    dataLength.myValue = state.myDataLength;
    dataLength.commit();
  }
  progress.at(55);
  jlong objectCount = state.myObjectCount;
  myWriter.writeInt(static_cast<jint>(objectCount + 1));
  jlong position = myWriter.position();
  while (position % 8 != 0) {
    myWriter.writeByte(0);
    position++;
  }
  for (jlong i = 0; i <= objectCount; i++) {
    jlong offset = state.myPrimitivesOffsets[i];
    myWriter.writeLong(offset == 0 ? 0 : dataStart + offset - 1);
    if (i % 10000 == 0) {
      progress.at(55 + static_cast<jint>(10 * i / (objectCount + 1)));
    }
  }
  myObjectCount->myValue += state.myObjectCount;
  myAllocatorCount->myValue += state.myAllocatorRecords;
  progress.at(65);
}
