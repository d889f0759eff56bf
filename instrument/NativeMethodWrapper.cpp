#include "instrument/NativeMethodWrapper.h"

#include <string.h>

#include "agent/JVMTI_Agent.h"
#include "agent/KAssert.h"
#include "agent/KString.h"
#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/MethodInfo.h"
#include "instrument/ByteCodeGenerator.h"

namespace {

int returnOpcode(const char* descriptor) {
  if (strstr(descriptor, ")V") != nullptr) return 0xB1;
  if (strstr(descriptor, ")L") != nullptr || strstr(descriptor, ")[") != nullptr) return 0xB0;
  if (strstr(descriptor, ")D") != nullptr) return 0xAF;
  if (strstr(descriptor, ")J") != nullptr) return 0xAD;
  if (strstr(descriptor, ")F") != nullptr) return 0xAE;
  return 0xAC;
}

int returnSlots(int opcode) {
  if (opcode == 0xB1) return 0;
  return opcode == 0xAF || opcode == 0xAD ? 2 : 1;
}

void loadSlot(ByteCodeGenerator& code, int shortForm0, int shortForm1, int longForm, int slot) {
  if (slot > 255) {
    throw ClassFormatError("a native method has more than 255 parameter slots");
  }
  if (slot == 0 && shortForm0 >= 0) {
    code.append(shortForm0);
  } else if (slot == 1 && shortForm1 >= 0) {
    code.append(shortForm1);
  } else {
    code.append(longForm);
    code.append(slot & 0xFF);
  }
}

// Loads every parameter of 'descriptor' onto the stack, starting at local 'slot'; returns
// the slot behind the last.
int loadParameters(ByteCodeGenerator& code, const char* descriptor, int slot) {
  const char* p = descriptor;
  if (*p != '(') {
    throw ClassFormatError("the native method descriptor %s does not start with '('", descriptor);
  }
  p++;
  while (*p != ')') {
    switch (*p) {
      case 'B':
      case 'C':
      case 'I':
      case 'S':
      case 'Z':
        loadSlot(code, 0x1A, 0x1B, 0x15, slot);
        slot += 1;
        p++;
        break;
      case 'J':
        loadSlot(code, -1, -1, 0x16, slot);
        slot += 2;
        p++;
        break;
      case 'F':
        loadSlot(code, -1, -1, 0x17, slot);
        slot += 1;
        p++;
        break;
      case 'D':
        loadSlot(code, -1, -1, 0x18, slot);
        slot += 2;
        p++;
        break;
      case 'L':
      case '[': {
        loadSlot(code, 0x2A, 0x2B, 0x19, slot);
        slot += 1;
        while (*p == '[') p++;
        if (*p == 'L') {
          const char* end = strchr(p, ';');
          if (end == nullptr) {
            throw ClassFormatError("the native method descriptor %s has an unterminated class name", descriptor);
          }
          p = end + 1;
        } else if (*p != '\0' && strchr("BCDFIJSZ", *p) != nullptr) {
          p++;
        } else {
          throw ClassFormatError("the native method descriptor %s has a bad array type", descriptor);
        }
        break;
      }
      default:
        throw ClassFormatError("the native method descriptor %s is invalid at %s", descriptor, p);
    }
  }
  return slot;
}

}  // namespace

void instrumentNativeMethod(ClassFile& classFile, MethodInfo* method) {
  KASSERT(method);
  KASSERT_TEXT(method->getCodeAttribute() == nullptr, "old == __null");
  // Copies: the pool may grow below.
  KString name(method->getName());
  KString descriptor(method->getDescriptor());
  KString prefixedName(ourNativeMethodPrefix, name);
  int accessFlags = method->getAccessFlags();

  ByteCodeGenerator code;
  int slot = 0;
  if (!method->isStatic()) {
    code.aload(0);
    slot = 1;
  }
  slot = loadParameters(code, descriptor.get(), slot);

  classFile.findOrCreateMethod(prefixedName, descriptor, accessFlags);
  int reference = classFile.findOrCreateMethodRef(classFile.getSignature(), prefixedName, descriptor);
  int opcode = returnOpcode(descriptor.get());
  code.append(method->isStatic() ? 0xB8 : method->isPrivate() ? 0xB7 : 0xB6);
  code.pushShortValue(reference);
  code.append(opcode);

  method->makeNotNative();
  classFile.findOrCreateUtf8(CodeAttribute::NAME);
  CodeAttribute* codeAttribute = method->createCodeAttribute();
  // The result has to fit on the stack as well, for a wrapper that takes no probes.
  int stack = slot > returnSlots(opcode) ? slot : returnSlots(opcode);
  codeAttribute->incMaxStackCount(stack);
  codeAttribute->incMaxLocalsCount(slot);
  code.applyTo(codeAttribute);
}
