#include "db/AbstractTable.h"

#include <stdio.h>

TableProgressReporter ourTableProgressReporter = nullptr;

KString getMegaBytesString(jlong bytes) {
  char buffer[64];
  // The factor is exactly 2 to the power of -20.
  snprintf(buffer, sizeof(buffer), "%6.1f", static_cast<double>(bytes) * 9.5367431640625e-7);
  return KString(buffer);
}
