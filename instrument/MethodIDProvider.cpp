#include "instrument/MethodIDProvider.h"

#include <string.h>

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "db/DB.h"
#include "db/records/MethodRecord.h"
#include "engines/Filter.h"
#include "engines/J2EERecording.h"
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
  if ((flags & MF_J2EE) != 0) {
    // A method filter never folds a method with J2EE probes into its caller: the J2EE events
    // name it in their paths.
    Filter::applyFilters(record);
  }
  // A live client learns of the change through the stamp.
  record->myModificationStamp = ourDB->myModificationStamp;
}

void MethodIDProvider::addJ2EEMethod(const char* className, jint methodIndex) const {
  addMethodFlags(methodIndex, MF_J2EE);
  noteJ2EEProbedMethod(className, methodIndex);
}
