#include "engines/KFrameStorage.h"

#include "agent/JNIUtil.h"
#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "db/StringPool.h"
#include "engines/KMethod.h"

KFrameStorage ourFrameStorage;

namespace {

// Shared by all walks; callers hold ourLock, so a walk never allocates a buffer.
jvmtiFrameInfo _frames[KFrameStorage::MAX_STACK_DEPTH];

jint methodFlags(jint methodIndex) { return ourDB->myMethodTable->getRecord(methodIndex, true)->myFlags; }

}  // namespace

StackLocal::StackLocal(int slot, const char* name) : mySlot(slot), myNameStrID(ourDB->myStrPool->getDBIndex(name, true)) {}

jint KFrameStorage::addChildFrame(jint parent, jint methodIndex) {
  DBTable<FrameRecord>* table = ourDB->myFrameTable;
  jint index = table->getIndexPool().nextIndex();
  FrameRecord* child = table->getRecord(index, true);
  child->myParent = parent;
  child->myCallee = methodIndex;
  child->myModificationStamp = ourDB->myModificationStamp;
  record(parent)->myModificationStamp = ourDB->myModificationStamp;
  return index;
}

jint KFrameStorage::getChild(jint parent, jint methodIndex) {
  FrameRecord* parentRecord = record(parent);
  jint child = parentRecord->myFirstChild;
  if (child == -1) {
    child = addChildFrame(parent, methodIndex);
    // addChildFrame may have grown the table by a chunk, but chunks never move.
    parentRecord->myFirstChild = child;
    return child;
  }
  for (;;) {
    FrameRecord* sibling = record(child);
    if (sibling->myCallee == methodIndex) {
      return child;
    }
    if (sibling->myNextSibling == -1) {
      jint created = addChildFrame(parent, methodIndex);
      sibling->myNextSibling = created;
      sibling->myModificationStamp = ourDB->myModificationStamp;
      return created;
    }
    child = sibling->myNextSibling;
  }
}

jint KFrameStorage::fillCurrentFrameJVMTI(JNIEnv* env, bool skipNative, KVector<bool>* filteredCalls) {
  jint count = 0;
  // Once the JVM is dying, application threads still run into probes and the walk is refused:
  // their calls then count at the root rather than ending the process.
  if (ourJVMTI->GetStackTrace(nullptr, 0, MAX_STACK_DEPTH, _frames, &count) != JVMTI_ERROR_NONE) {
    count = 0;
  }
  myLastWalkWasWhole = count < MAX_STACK_DEPTH;
  return fillFrameFromStack(env, _frames, count, skipNative, filteredCalls);
}

jint KFrameStorage::onlyAncestorOf(jint frame, jint methodIndex) {
  jint found = 0;
  for (; frame != 0 && frame != -1; frame = getParent(frame)) {
    if (getMethodIndex(frame) == methodIndex) {
      if (found != 0) {
        return 0;
      }
      found = frame;
    }
  }
  return found;
}

jint KFrameStorage::fillFrameFromStack(JNIEnv* env, const jvmtiFrameInfo* frames, jint count, bool skipNative,
                                       KVector<bool>* filteredCalls) {
  if (filteredCalls != nullptr) {
    filteredCalls->clear();
  }
  jint frame = 0;
  bool previousFiltered = false;
  for (jint i = count - 1; i >= 0; i--) {
    jmethodID method = frames[i].method;
    if (skipNative) {
      // A method refused here is named as unloaded below.
      jboolean isNative = JNI_FALSE;
      if (ourJVMTI->IsMethodNative(method, &isNative) == JVMTI_ERROR_NONE && isNative) {
        continue;
      }
    }
    jint methodIndex = getMethodByID(env, method);
    KASSERT_TEXT(methodIndex != 0, "methodIndex != 0");
    jint flags = methodFlags(methodIndex);
    if ((flags & (MF_HIDDEN | MF_NOT_INSTRUMENTED)) != 0) {
      continue;
    }
    // The traced path steps over a hidden class's frame, which got no probes; a sampled path,
    // and those of the engines that take the sampler's view, keep it.
    if (filteredCalls != nullptr && (flags & MF_HIDDEN_CLASS) != 0) {
      continue;
    }
    if (filteredCalls != nullptr) {
      bool filtered = (flags & MF_FILTERED) != 0;
      filteredCalls->push(filtered);
      if (filtered) {
        if (previousFiltered) {
          continue;
        }
        previousFiltered = true;
      } else {
        previousFiltered = false;
      }
    }
    frame = getChild(frame, methodIndex);
  }
  return frame;
}

jint KFrameStorage::fillCurrentFrameJVMTIFromStackInfo(JNIEnv* env, const jvmtiStackInfo& stackInfo,
                                                       KMap<jmethodID, KVector<StackLocal*>*>* locals) {
  jint frame = 0;
  for (jint i = stackInfo.frame_count - 1; i >= 0; i--) {
    jmethodID method = stackInfo.frame_buffer[i].method;
    jint methodIndex = getMethodByID(env, method);
    KASSERT_TEXT(methodIndex != 0, "methodIndex != 0");
    frame = getChild(frame, methodIndex);
    if (locals == nullptr) {
      continue;
    }
    jint entryCount = 0;
    jvmtiLocalVariableEntry* table = nullptr;
    if (ourJVMTI->GetLocalVariableTable(method, &entryCount, &table) != JVMTI_ERROR_NONE || table == nullptr) {
      continue;
    }
    if (entryCount > 0) {
      KVector<StackLocal*>* named = new KVector<StackLocal*>(entryCount);
      for (jint e = 0; e < entryCount; e++) {
        jvmtiLocalVariableEntry& entry = table[e];
        if (entry.name != nullptr) {
          named->push(new StackLocal(entry.slot, entry.name));
        }
        deallocate(entry.name);
        deallocate(entry.signature);
        deallocate(entry.generic_signature);
      }
      // A method seen again (recursion, or a second thread) replaces its earlier list; the
      // old one is freed here since nobody else refers to it.
      KVector<StackLocal*>* previous = nullptr;
      if (locals->get(method, &previous) && previous != nullptr) {
        for (jint p = 0; p < previous->size(); p++) {
          delete previous->get(p);
        }
        delete previous;
      }
      locals->put(method, named);
    }
    deallocate(table);
  }
  return frame;
}
