#include "agent/StartReport.h"

#include <stdio.h>

#include "agent/JVMTI_Agent.h"
#include "agent/Options.h"

void reportStartResult(int code, const char* okText, const char* failText) {
  if (ourOptions.myQuiet) {
    return;
  }
  if (code == 0) {
    fprintf(stderr, KJP_LOG_PREFIX "%s\n", okText);
  } else {
    fprintf(stderr, KJP_LOG_PREFIX "%s: error code = %d\n", failText, code);
  }
  fflush(stderr);
}
