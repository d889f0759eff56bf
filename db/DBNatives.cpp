// The natives through which the profiler UI holds a database of its own: it creates one per
// opened snapshot, fills it row by row and field by field as it reads the file or a live
// update, and reads it back. They take no lock: the UI calls them for its own database from
// its own thread, and the agent's ourDB is never passed here. The database pointer travels as
// a Java long and is trusted.

#include <jni.h>
#include <stdint.h>

#include "agent/FileUtil.h"
#include "agent/JNIUtil.h"
#include "agent/KAssert.h"
#include "agent/KString.h"
#include "analysis/IndexSection.h"
#include "analysis/ObjectStorage.h"
#include "db/DB.h"
#include "db/StringPool.h"
#include "engines/J2EEIndex.h"
#include "engines/ThreadFrameIndex.h"
#include "snapshot/SnapshotFile.h"
#include "snapshot/SnapshotWriter.h"

namespace {

inline DB* toDB(jlong db) { return reinterpret_cast<DB*>(static_cast<intptr_t>(db)); }

inline jint checkedTeleValueIndex(jint valueIndex) {
  KASSERT(valueIndex >= 0);
  KASSERT(valueIndex < TELE_FIELD_COUNT);
  return valueIndex;
}

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_dbNcreateNativeDatabaseImpl(JNIEnv*, jclass, jint telemetryLimit) {
  // The plain constructor: a UI-side database has neither pseudo-threads nor the telemetry
  // constant rows; those arrive with the snapshot's own tables.
  return static_cast<jlong>(reinterpret_cast<intptr_t>(new DB(telemetryLimit)));
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNdeleteNativeDatabaseImpl(JNIEnv*, jclass, jlong db) {
  delete toDB(db);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetStrIDImpl(JNIEnv* env, jclass, jlong db, jstring text,
                                                                 jboolean create) {
  if (text == nullptr) {
    return 0;
  }
  KString utf = createUTFKStringFromJString(env, text);
  return toDB(db)->myStrPool->getDBIndex(utf.get(), create == JNI_TRUE);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetStringImpl(JNIEnv* env, jclass, jlong db, jint index,
                                                                  jstring text) {
  if (text == nullptr) {
    return;
  }
  KString utf = createUTFKStringFromJString(env, text);
  toDB(db)->myStrPool->setDBIndex(utf.get(), index);
}

JNIEXPORT jstring JNICALL Java_com_kestrix_Natives_dbNgetStringImpl(JNIEnv* env, jclass, jlong db, jint index) {
  return newStringUTF(env, toDB(db)->myStringTable->getRecord(index, true)->myText);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNclearTableImpl(JNIEnv*, jclass, jlong db, jint tableID) {
  toDB(db)->getTable(tableID)->clearTable();
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetRecordModificationStampImpl(JNIEnv*, jclass, jlong db,
                                                                                   jint tableID, jint index,
                                                                                   jint stamp) {
  toDB(db)->getTable(tableID)->setRecordModificationStamp(index, stamp);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetRecordModificationStampImpl(JNIEnv*, jclass, jlong db,
                                                                                   jint tableID, jint index) {
  return toDB(db)->getTable(tableID)->getRecordModificationStamp(index);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetTableMinIndexImpl(JNIEnv*, jclass, jlong db, jint tableID) {
  return toDB(db)->getTable(tableID)->getMinIndex();
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetTableCapacityImpl(JNIEnv*, jclass, jlong db, jint tableID) {
  return toDB(db)->getTable(tableID)->getCapacity();
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetNextIndexFromPoolImpl(JNIEnv*, jclass, jlong db, jint tableID) {
  return toDB(db)->getTable(tableID)->getIndexPool().nextIndex();
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetIntFieldImpl(JNIEnv*, jclass, jlong db, jint fieldID, jint index,
                                                                    jint value) {
  toDB(db)->setIntField(fieldID, index, value);
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetIntFieldImpl(JNIEnv*, jclass, jlong db, jint fieldID,
                                                                    jint index) {
  return toDB(db)->getIntField(fieldID, index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetLongFieldImpl(JNIEnv*, jclass, jlong db, jint fieldID,
                                                                     jint index, jlong value) {
  toDB(db)->setLongField(fieldID, index, value);
}

JNIEXPORT jlong JNICALL Java_com_kestrix_Natives_dbNgetLongFieldImpl(JNIEnv*, jclass, jlong db, jint fieldID,
                                                                      jint index) {
  return toDB(db)->getLongField(fieldID, index);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNfillJ2EEIndexImpl(JNIEnv*, jclass, jlong db) {
  toDB(db)->myJ2EEIndex->fillIndexFromTable();
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNfillThreadFrameIndexImpl(JNIEnv*, jclass, jlong db) {
  toDB(db)->myThreadFrameIndex->fillIndexFromTable();
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetTFIImpl(JNIEnv*, jclass, jlong db, jint threadIndexForTFI,
                                                               jint frame, jboolean create) {
  return toDB(db)->myThreadFrameIndex->getTFI(threadIndexForTFI, frame, create == JNI_TRUE);
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetTFIFrameIDImpl(JNIEnv*, jclass, jlong db, jint index,
                                                                      jint frame) {
  toDB(db)->myThreadFrameTable->getRecord(index, true)->myFrameID = frame;
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetTFIFrameIDImpl(JNIEnv*, jclass, jlong db, jint index) {
  return toDB(db)->myThreadFrameTable->getRecord(index, true)->myFrameID;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetTFIThreadIndexForTFIImpl(JNIEnv*, jclass, jlong db, jint index,
                                                                                jint value) {
  toDB(db)->myThreadFrameTable->getRecord(index, true)->myThreadIndexForTFI = value;
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetTFIThreadIndexForTFIImpl(JNIEnv*, jclass, jlong db,
                                                                                jint index) {
  return toDB(db)->myThreadFrameTable->getRecord(index, true)->myThreadIndexForTFI;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetPropertyNameImpl(JNIEnv*, jclass, jlong db, jint index,
                                                                        jint nameStrID) {
  toDB(db)->myPropertyTable->getRecord(index, true)->myNameStrID = nameStrID;
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetPropertyNameImpl(JNIEnv*, jclass, jlong db, jint index) {
  return toDB(db)->myPropertyTable->getRecord(index, true)->myNameStrID;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetPropertyValueImpl(JNIEnv*, jclass, jlong db, jint index,
                                                                         jint value) {
  toDB(db)->myPropertyTable->getRecord(index, true)->myValue = value;
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetPropertyValueImpl(JNIEnv*, jclass, jlong db, jint index) {
  return toDB(db)->myPropertyTable->getRecord(index, true)->myValue;
}

JNIEXPORT void JNICALL Java_com_kestrix_Natives_dbNsetTeleValueImpl(JNIEnv*, jclass, jlong db, jint index,
                                                                     jint valueIndex, jint value) {
  DB* database = toDB(db);
  checkedTeleValueIndex(valueIndex);
  // The UI rebuilds the table in row order, value 0 first: trimming here replays exactly
  // what the agent dropped. The row is not stamped; the UI stamps it when it is complete.
  if (valueIndex == 0) {
    database->dropOldTelemetry(index);
  }
  database->myTelemetryTable->getRecord(index, true)->myValues[valueIndex] = value;
}

JNIEXPORT jint JNICALL Java_com_kestrix_Natives_dbNgetTeleValueImpl(JNIEnv*, jclass, jlong db, jint index,
                                                                     jint valueIndex) {
  TelemetryRecord* record = toDB(db)->myTelemetryTable->getRecord(index, false);
  return record == nullptr ? 0 : record->myValues[checkedTeleValueIndex(valueIndex)];
}

JNIEXPORT jstring JNICALL Java_com_kestrix_Natives_dbNgetDatabaseStatisticsImpl(JNIEnv* env, jclass, jlong db) {
  return newStringUTF(env, toDB(db)->getStatistics());
}

// Re-saves an opened snapshot: header and tables, and with an object storage its counts and
// the index section, so that the next open needs no recomputing. Null means success, otherwise
// the text of the failure.
JNIEXPORT jstring JNICALL Java_com_kestrix_Natives_dbNwriteSnapshotImpl(JNIEnv* env, jclass, jlong db,
                                                                          jlong objectStorage, jstring file,
                                                                          jlong flags, jlong startTime,
                                                                          jstring sessionName) {
  int fd = openFileForWrite(env, file);
  if (fd == -1) {
    return newStringUTF(env, "Cannot open file to write snapshot");
  }
  DB* database = toDB(db);
  database->myStartTime = startTime;
  database->mySessionName = createUTFKStringFromJString(env, sessionName);
  jstring result = nullptr;
  {
    SnapshotWriter writer(fd, SNAPSHOT_BUFFER_SIZE, true);
    if (objectStorage != 0) {
      writeCachedStorageSnapshot(env, database, reinterpret_cast<ObjectStorage*>(objectStorage), writer, flags);
    } else {
      writeSnapshot(env, database, writer, 0, flags);
    }
    writer.flush();
    if (writer.getError() != nullptr) {
      result = newStringUTF(env, writer.getError());
    }
  }
  closeFile(fd);
  return result;
}

}  // extern "C"
