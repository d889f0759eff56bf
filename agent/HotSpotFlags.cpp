#include "agent/HotSpotFlags.h"

#include <dlfcn.h>
#include <stdint.h>
#include <string.h>

namespace {

// A table's layout variable, or -1 when the JVM doesn't export it.
int64_t layoutValue(const char* symbol) {
  const uint64_t* value = static_cast<const uint64_t*>(dlsym(RTLD_DEFAULT, symbol));
  return value == nullptr ? -1 : static_cast<int64_t>(*value);
}

const char* stringAt(const char* entry, int64_t offset) { return *reinterpret_cast<const char* const*>(entry + offset); }

struct FlagLayout {
  const char* myFlags;  // the first flag
  uint64_t myCount;
  uint64_t mySize;      // of one flag
  uint64_t myNameOffset;
  uint64_t myAddressOffset;
};

bool findFlagLayout(FlagLayout* layout) {
  const char* const* structs = static_cast<const char* const*>(dlsym(RTLD_DEFAULT, "gHotSpotVMStructs"));
  const char* const* types = static_cast<const char* const*>(dlsym(RTLD_DEFAULT, "gHotSpotVMTypes"));
  int64_t stride = layoutValue("gHotSpotVMStructEntryArrayStride");
  int64_t typeNameAt = layoutValue("gHotSpotVMStructEntryTypeNameOffset");
  int64_t fieldNameAt = layoutValue("gHotSpotVMStructEntryFieldNameOffset");
  int64_t offsetAt = layoutValue("gHotSpotVMStructEntryOffsetOffset");
  int64_t addressAt = layoutValue("gHotSpotVMStructEntryAddressOffset");
  int64_t typeStride = layoutValue("gHotSpotVMTypeEntryArrayStride");
  int64_t typeTypeNameAt = layoutValue("gHotSpotVMTypeEntryTypeNameOffset");
  int64_t typeSizeAt = layoutValue("gHotSpotVMTypeEntrySizeOffset");
  if (structs == nullptr || *structs == nullptr || types == nullptr || *types == nullptr || stride <= 0 ||
      typeNameAt < 0 || fieldNameAt < 0 || offsetAt < 0 || addressAt < 0 || typeStride <= 0 ||
      typeTypeNameAt < 0 || typeSizeAt < 0) {
    return false;
  }
  // JDK 9 named the class JVMFlag after 'Flag'.
  const char* const flagTypes[] = {"JVMFlag", "Flag"};
  for (const char* flagType : flagTypes) {
    const char* flagsStatic = nullptr;
    const char* countStatic = nullptr;
    int64_t nameOffset = -1;
    int64_t addressOffset = -1;
    for (const char* entry = *structs; stringAt(entry, typeNameAt) != nullptr; entry += stride) {
      if (strcmp(stringAt(entry, typeNameAt), flagType) != 0) {
        continue;
      }
      const char* field = stringAt(entry, fieldNameAt);
      if (field == nullptr) {
        continue;
      }
      if (strcmp(field, "flags") == 0) {
        flagsStatic = *reinterpret_cast<const char* const*>(entry + addressAt);
      } else if (strcmp(field, "numFlags") == 0) {
        countStatic = *reinterpret_cast<const char* const*>(entry + addressAt);
      } else if (strcmp(field, "_name") == 0) {
        nameOffset = static_cast<int64_t>(*reinterpret_cast<const uint64_t*>(entry + offsetAt));
      } else if (strcmp(field, "_addr") == 0) {
        addressOffset = static_cast<int64_t>(*reinterpret_cast<const uint64_t*>(entry + offsetAt));
      }
    }
    uint64_t size = 0;
    for (const char* entry = *types; stringAt(entry, typeTypeNameAt) != nullptr; entry += typeStride) {
      if (strcmp(stringAt(entry, typeTypeNameAt), flagType) == 0) {
        size = *reinterpret_cast<const uint64_t*>(entry + typeSizeAt);
        break;
      }
    }
    if (flagsStatic != nullptr && countStatic != nullptr && nameOffset >= 0 && addressOffset >= 0 && size > 0) {
      layout->myFlags = *reinterpret_cast<const char* const*>(flagsStatic);
      layout->myCount = *reinterpret_cast<const size_t*>(countStatic);
      layout->mySize = size;
      layout->myNameOffset = static_cast<uint64_t>(nameOffset);
      layout->myAddressOffset = static_cast<uint64_t>(addressOffset);
      return layout->myFlags != nullptr;
    }
  }
  return false;
}

}  // namespace

void* findHotSpotFlag(const char* name) {
  FlagLayout layout;
  if (!findFlagLayout(&layout)) {
    return nullptr;
  }
  for (uint64_t i = 0; i < layout.myCount; i++) {
    const char* flag = layout.myFlags + i * layout.mySize;
    const char* flagName = stringAt(flag, static_cast<int64_t>(layout.myNameOffset));
    if (flagName != nullptr && strcmp(flagName, name) == 0) {
      return *reinterpret_cast<void* const*>(flag + layout.myAddressOffset);
    }
  }
  return nullptr;
}

bool enableHotSpotBoolFlag(const char* name) {
  bool* value = static_cast<bool*>(findHotSpotFlag(name));
  if (value == nullptr) {
    return false;
  }
  if (!*value) {
    *value = true;
  }
  return true;
}
