#include "instrument/InsertionPass.h"

#include <string.h>

#include "agent/KAssert.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/DataOutput.h"
#include "classfile/MethodInfo.h"
#include "classfile/StackMapTableAttribute.h"
#include "instrument/ByteCodeWalker.h"
#include "instrument/JumpPatcher.h"
#include "instrument/LocalVariablePatcher.h"
#include "instrument/OffsetTable.h"

namespace {

int slotWidth(const VerificationType& type) {
  return type.myTag == VerificationType::ITEM_LONG || type.myTag == VerificationType::ITEM_DOUBLE ? 2 : 1;
}

void replaceAll(KVector<VerificationType>& target, KVector<VerificationType>& source) {
  target.clear();
  for (int i = 0; i < source.size(); i++) {
    target.push(source[i]);
  }
}

// Puts 'type' at local 'slot' of a frame, with Top for the slots between the frame's last
// local and it.
void putLocal(KVector<VerificationType>& locals, int slot, const VerificationType& type) {
  int current = 0;
  int i = 0;
  while (i < locals.size() && current < slot) {
    current += slotWidth(locals[i]);
    i++;
  }
  if (i == locals.size()) {
    if (current > slot) {
      throw ClassFormatError("a frame already holds a long or double in local %d", slot);
    }
    for (; current < slot; current++) {
      locals.push(VerificationType::of(VerificationType::ITEM_TOP));
    }
    locals.push(type);
    return;
  }
  if (current != slot || locals[i].myTag != VerificationType::ITEM_TOP) {
    throw ClassFormatError("a frame already holds local %d", slot);
  }
  locals[i] = type;
}

}  // namespace

InsertionPass::InsertionPass(ClassFile& classFile, MethodInfo* method, ProbeSet& probes)
    : myClassFile(classFile),
      myMethod(method),
      myProbes(probes),
      mySites(16),
      myFrameLocalSlots(2),
      myFrameLocalTypes(2),
      myIndices(nullptr),
      myOldLength(0),
      myTotal(0) {
  KASSERT(method);
  KASSERT(method->getCodeAttribute());
}

InsertionPass::~InsertionPass() { delete[] myIndices; }

void InsertionPass::addFrameLocal(int slot, const VerificationType& type) {
  myFrameLocalSlots.push(slot);
  myFrameLocalTypes.push(type);
}

void InsertionPass::addSite(int kind, int index, int length, int value, int addedBytes) {
  KASSERT(myIndices);
  KASSERT(index >= 0 && index + length <= myOldLength);
  InsertionSite site;
  site.myKind = kind;
  site.myOldIndex = index;
  site.myNewIndex = index + myTotal;
  site.myLength = length;
  site.myValue = value;
  site.myAdded = addedBytes;
  mySites.push(site);
  myTotal += addedBytes;
  for (int j = index + length; j < myOldLength; j++) {
    myIndices[j] += addedBytes;
  }
}

void InsertionPass::moveFrames(StackMap& stackMap, const int* indices, int oldLength, int entryLength) {
  KVector<StackMapFrame*>& frames = stackMap.getFrames();
  KVector<VerificationType> stack(8);
  for (int f = 0; f < frames.size(); f++) {
    StackMapFrame* frame = frames[f];
    frame->myOffset = indices[frame->myOffset] + entryLength;
    // The spare reference that a site's dup behind 'new' leaves sits right above the
    // reference 'new' pushed, until the constructor call takes one of the two.
    stack.clear();
    bool duplicated = false;
    for (int k = 0; k < frame->myStack.size(); k++) {
      VerificationType type = frame->myStack[k];
      stack.push(type);
      if (type.myTag == VerificationType::ITEM_UNINITIALIZED && !duplicated) {
        for (int s = 0; s < mySites.size(); s++) {
          if (mySites[s].myOldIndex == type.myData && myProbes.leavesCopyOfNew(mySites[s])) {
            stack.push(type);
            duplicated = true;
            break;
          }
        }
      }
    }
    replaceAll(frame->myStack, stack);
    for (int pass = 0; pass < 2; pass++) {
      KVector<VerificationType>& types = pass == 0 ? frame->myLocals : frame->myStack;
      for (int k = 0; k < types.size(); k++) {
        if (types[k].myTag == VerificationType::ITEM_UNINITIALIZED) {
          int newOffset = types[k].myData;
          if (newOffset < 0 || newOffset >= oldLength) {
            throw ClassFormatError("a frame names an uninitialized object made at %d, outside the code", newOffset);
          }
          types[k].myData = indices[newOffset] + entryLength;
        }
      }
    }
    for (int l = 0; l < myFrameLocalSlots.size(); l++) {
      putLocal(frame->myLocals, myFrameLocalSlots[l], myFrameLocalTypes[l]);
    }
  }
}

bool InsertionPass::run(KSet<int>* instructions, int lengthLimit, int stackIncrement) {
  CodeAttribute* codeAttribute = myMethod->getCodeAttribute();
  myOldLength = codeAttribute->getCodeLength();
  const unsigned char* oldCode = codeAttribute->getCode();
  int oldLength = myOldLength;

  // The frames are read before anything changes: a table that cannot be read leaves the
  // class as it was.
  StackMapTableAttribute* stackMapTable = codeAttribute->getStackMapTable();
  StackMap stackMap;
  KVector<VerificationType> initialLocals(8);
  if (stackMapTable != nullptr) {
    StackMap::initialLocals(myClassFile, *myMethod, initialLocals);
    stackMap.decode(stackMapTable->getBody(), stackMapTable->getBodyLength(), oldLength, initialLocals);
  }

  char* buffer = new char[oldLength];
  memcpy(buffer, oldCode, static_cast<size_t>(oldLength));
  delete[] myIndices;
  myIndices = new int[oldLength];
  for (int i = 0; i < oldLength; i++) {
    myIndices[i] = i;
  }
  mySites.clear();
  myTotal = 0;

  OffsetTable table;
  for (int i = 0; i < oldLength;) {
    int length = walkInstruction(oldCode, oldLength, i, &table);
    myProbes.visit(*this, oldCode, oldLength, i, length);
    i += length;
  }
  bool offsetsFitted = updateOffsets(instructions, table, buffer, myIndices);
  int newLength = oldLength + myTotal;
  bool committed = false;
  if (offsetsFitted && newLength < lengthLimit) {
    unsigned char* newCode = new unsigned char[newLength];
    memset(newCode, 0, static_cast<size_t>(newLength));
    for (int i = 0; i < oldLength; i++) {
      newCode[myIndices[i]] = static_cast<unsigned char>(buffer[i]);
    }
    for (int s = 0; s < mySites.size(); s++) {
      const InsertionSite& site = mySites[s];
      int before = myProbes.insertBefore(site, newCode, site.myNewIndex);
      memcpy(newCode + site.myNewIndex + before, buffer + site.myOldIndex, static_cast<size_t>(site.myLength));
      int after = myProbes.insertAfter(site, newCode, site.myNewIndex + before + site.myLength);
      KASSERT_TEXT(before + after == site.myAdded, "before + after == site.myAdded");
    }

    int entryLength = myProbes.getEntryCodeLength();
    KVector<unsigned char> stackMapBody(stackMapTable != nullptr ? stackMapTable->getBodyLength() + 64 : 1);
    if (stackMapTable != nullptr) {
      moveFrames(stackMap, myIndices, oldLength, entryLength);
      DataOutput out(stackMapBody);
      stackMap.encode(initialLocals, out);
    }

    codeAttribute->setCode(newCode, newLength);
    codeAttribute->incMaxStackCount(stackIncrement);
    codeAttribute->shiftExceptionTableAndLineNumbers(myIndices, oldLength);
    patchAllLocalVariables2(codeAttribute, myIndices, oldLength, newLength);
    delete[] newCode;

    if (entryLength > 0) {
      unsigned char* withEntry = new unsigned char[entryLength + newLength];
      myProbes.insertEntryCode(withEntry, 0);
      memcpy(withEntry + entryLength, codeAttribute->getCode(), static_cast<size_t>(newLength));
      codeAttribute->setCode(withEntry, entryLength + newLength);
      delete[] withEntry;
      patchAllLocalVariables1(codeAttribute, entryLength);
      codeAttribute->shiftExceptionTableAndLineNumbers(entryLength);
      codeAttribute->incMaxStackCount(stackIncrement);
    }
    if (stackMapTable != nullptr) {
      codeAttribute->setStackMapTable(stackMapBody.getArray(), stackMapBody.size());
    }
    committed = true;
  }
  delete[] buffer;
  return committed;
}
