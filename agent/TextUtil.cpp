#include "agent/TextUtil.h"

#include <string.h>

#include "agent/KAssert.h"
#include "agent/KHelpers.h"

namespace {

// Value of a hex digit in either case, or -1.
int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

const char* primitiveName(char descriptor) {
  switch (descriptor) {
    case 'B': return "byte";
    case 'C': return "char";
    case 'D': return "double";
    case 'F': return "float";
    case 'I': return "int";
    case 'J': return "long";
    case 'S': return "short";
    case 'Z': return "boolean";
    default: return nullptr;
  }
}

}  // namespace

char* unquote(const char* value) {
  if (value == nullptr) {
    return nullptr;
  }
  size_t prefixLength = sizeof(KJP_QUOTED_PREFIX) - 1;
  if (strncmp(value, KJP_QUOTED_PREFIX, prefixLength) != 0) {
    return k_strdup(value);
  }
  const char* hex = value + prefixLength;
  size_t hexLength = strlen(hex);
  if (hexLength % 2 != 0) {
    return k_strdup(value);
  }
  char* result = new char[hexLength / 2 + 1];
  for (size_t i = 0; i < hexLength; i += 2) {
    int high = hexDigitValue(hex[i]);
    int low = hexDigitValue(hex[i + 1]);
    if (high < 0 || low < 0) {
      delete[] result;
      return k_strdup(value);
    }
    result[i / 2] = static_cast<char>((high << 4) | low);
  }
  result[hexLength / 2] = 0;
  return result;
}

bool wildcardMatch(const char* pattern, const char* text) {
  if (pattern == nullptr) {
    return true;
  }
  KASSERT(text);
  // Greedy matching with one backtrack point: when a later literal part fails, only the
  // most recent "*" needs to take one more character, because anything an earlier star
  // could absorb the latest one can absorb as well. This gives the result of trying every
  // split recursively, in time proportional to pattern times text instead of exponential.
  const char* p = pattern;
  const char* t = text;
  const char* starPattern = nullptr;  // pattern just behind the latest run of stars
  const char* starText = nullptr;     // where the text behind that star resumes on a retry
  while (*t != 0) {
    if (*p == '*') {
      while (*p == '*') {
        p++;
      }
      if (*p == 0) {
        return true;
      }
      starPattern = p;
      starText = t;
    } else if (*p == *t) {
      p++;
      t++;
    } else if (starPattern != nullptr) {
      p = starPattern;
      t = ++starText;
    } else {
      return false;
    }
  }
  while (*p == '*') {
    p++;
  }
  return *p == 0;
}

char* classSignature2fqName(const char* signature) {
  KASSERT(signature);
  int dimensions = 0;
  while (signature[dimensions] == '[') {
    dimensions++;
  }
  const char* element = signature + dimensions;
  int elementLength = static_cast<int>(strlen(element));
  const char* name = primitiveName(element[0]);
  int nameLength;
  if (name != nullptr && elementLength == 1) {
    nameLength = static_cast<int>(strlen(name));
  } else if (element[0] == 'L') {
    // "Lpkg/Name;": drop the 'L' and the ';'.
    name = element + 1;
    nameLength = elementLength >= 2 ? elementLength - 2 : 0;
  } else {
    name = element;
    nameLength = elementLength;
  }
  char* result = new char[nameLength + 2 * dimensions + 1];
  for (int i = 0; i < nameLength; i++) {
    result[i] = name[i] == '/' ? '.' : name[i];
  }
  char* end = result + nameLength;
  for (int i = 0; i < dimensions; i++) {
    *end++ = '[';
    *end++ = ']';
  }
  *end = 0;
  return result;
}

const char* getEnglishErrorMessage(int errnum) {
  switch (errnum) {
    case 1: return "Operation not permitted";
    case 2: return "No such file or directory";
    case 3: return "No such process";
    case 4: return "Interrupted function";
    case 5: return "I/O error";
    case 6: return "No such device or address";
    case 7: return "Argument list too long";
    case 8: return "Exec format error";
    case 9: return "Bad file number";
    case 10: return "No spawned processes";
    case 11: return "No more processes or not enough memory or maximum nesting level reached";
    case 12: return "Not enough memory";
    case 13: return "Permission denied";
    case 14: return "Bad address";
    case 16: return "Device or resource busy";
    case 17: return "File exists";
    case 18: return "Cross-device link";
    case 19: return "No such device";
    case 20: return "Not a directory";
    case 21: return "Is a directory";
    case 22: return "Invalid argument";
    case 23: return "Too many files open in system";
    case 24: return "Too many open files";
    case 25: return "Inappropriate I/O control operation";
    case 27: return "File too large";
    case 28: return "No space left on device";
    case 29: return "Invalid seek";
    case 30: return "Read-only file system";
    case 31: return "Too many links";
    case 32: return "Broken pipe";
    case 33: return "Math argument";
    case 34: return "Result too large";
    case 35: return "Resource deadlock would occur";
    case 36: return "Filename too long";
    case 37: return "No locks available";
    case 38: return "Function not supported";
    case 39: return "Directory not empty";
    default: return nullptr;
  }
}
