#include "instrument/MethodIDProvider.h"

#include <string.h>

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "engines/KMethod.h"

jint MethodIDProvider::getMethodID(const char* className, const char* methodName, const char* descriptor) const {
  KASSERT(className);
  int length = static_cast<int>(strlen(className));
  bool isSignature = length >= 2 && className[0] == 'L' && className[length - 1] == ';';
  KString classSignature = isSignature ? KString(className) : KString("L", KString(className) + ";");
  jint methodIndex = getMethodByName(classSignature.get(), methodName, descriptor);
  KASSERT(methodIndex);
  return methodIndex;
}
