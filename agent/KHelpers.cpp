#include "agent/KHelpers.h"

#include <stdlib.h>
#include <string.h>

char* k_strcpy(char* destination, const char* source) { return strcpy(destination, source); }

char* k_strdup(const char* text) {
  if (text == nullptr) {
    return nullptr;
  }
  size_t length = strlen(text);
  char* copy = new char[length + 1];
  memcpy(copy, text, length + 1);
  return copy;
}

int k_abs(int value) { return abs(value); }

void _knew(const char* site, size_t size) {
  (void)site;
  (void)size;
}

void _kprintAllocStatistics() {}

