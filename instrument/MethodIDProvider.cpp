#include "instrument/MethodIDProvider.h"

#include <string.h>

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "db/DB.h"
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

void MethodIDProvider::addMethodFlags(jint methodIndex, jint flags) const {
  KASSERT(methodIndex > 0);
  MethodRecord* record = ourDB->myMethodTable->getRecord(methodIndex, false);
  KASSERT(record);
  record->myFlags |= flags;
  // A live client learns of the change through the stamp.
  record->myModificationStamp = ourDB->myModificationStamp;
}
