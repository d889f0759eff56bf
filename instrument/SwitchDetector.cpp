#include "instrument/SwitchDetector.h"

#include "agent/KAssert.h"
#include "instrument/ByteCodeWalker.h"

bool SwitchDetector::containsSwitch(const char* code, int length) {
  KASSERT(code);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(code);
  for (int i = 0; i < length; i += walkInstruction(bytes, length, i, nullptr)) {
    if (bytes[i] == 0xAA || bytes[i] == 0xAB) {
      return true;
    }
  }
  return false;
}
