#ifndef KJP_DBTABLE_H
#define KJP_DBTABLE_H

#include <jni.h>
#include <stdio.h>

#include "agent/KAssert.h"
#include "agent/KString.h"
#include "db/AbstractTable.h"
#include "db/IndexPool.h"
#include "db/KIntChunkMap.h"
#include "snapshot/AbstractWriter.h"

// A table of fixed-size records R over a chunk map, with a pool of row indices. A row exists
// for readers exactly when its stamp differs from the default's, which is 0 in every table.
// The template compiles getRecord down to two dependent loads; engines on hot paths call it
// inline and keep the returned pointer for as long as the row's chunk lives.
template <class R>
class DBTable : public AbstractTable {
 public:
  DBTable(const char* name, jint firstIndex, jint initialCapacity, const R& defaultValue)
      : myIndexPool(firstIndex), myRecords(initialCapacity, defaultValue), myName(name) {}

  // The only way to a row. Without 'create', null unless the row is stamped. With 'create',
  // the row's address, allocating its chunk; the stamp is left alone, so an unstamped row
  // stays invisible until somebody stamps it.
  R* getRecord(jint index, bool create) {
    KASSERT(index >= 0);
    return myRecords.getPtr(index, create);
  }

  // A fresh row from the pool, not yet stamped.
  R* createRecord() { return getRecord(myIndexPool.nextIndex(), true); }

  IndexPool& getIndexPool() override { return myIndexPool; }
  KIntChunkMap<R>& getRecords() { return myRecords; }
  const KString& getName() const { return myName; }

  jint getCapacity() const override { return myRecords.getCapacity(); }

  jint getMinIndex() const override {
    if (myRecords.getChunkCount() < 1) {
      return -1;
    }
    return myRecords.getMinIndex();
  }

  jint getRecordModificationStamp(jint index) override {
    if (index >= getCapacity()) {
      return 0;
    }
    R* record = myRecords.getPtr(index, false);
    return record == nullptr ? 0 : record->myModificationStamp;
  }

  void setRecordModificationStamp(jint index, jint stamp) override {
    KASSERT(index >= 0);
    getRecord(index, true)->myModificationStamp = stamp;
  }

  // Rows that anything pointed at stay where they were: clearing the string table leaves
  // the texts to the string pool.
  void clearTable() override {
    myIndexPool.clearIndexPool();
    myRecords.deleteAllChunks();
  }

  // Frees chunks 0 to count - 1, stopping at the end of the chunk array. Indices are not
  // given back: telemetry keeps counting upwards past the dropped rows.
  void dropLeadingChunks(jint count) {
    jint chunkCount = myRecords.getChunkCount();
    for (jint i = 0; i < count && i < chunkCount; i++) {
      myRecords.deleteChunk(i);
    }
  }

  // Calls visit(index, record) for every row whose stamp is set, deleted rows included, in
  // ascending index. The visitor may change rows but must not drop chunks.
  template <class Visitor>
  void forEachStampedRecord(Visitor visit) {
    jint chunkCount = myRecords.getChunkCount();
    for (jint c = 0; c < chunkCount; c++) {
      R* chunk = myRecords.getChunk(c);
      if (chunk == nullptr) {
        continue;
      }
      for (jint i = 0; i < KIntChunkMap<R>::CHUNK_SIZE; i++) {
        if (!myRecords.isDefault(chunk[i])) {
          visit((c << KIntChunkMap<R>::CHUNK_SHIFT) + i, &chunk[i]);
        }
      }
    }
  }

  void writeTable(AbstractWriter& writer, jint minStamp, jint progressFrom, jint progressTo,
                  jint progressHandle) override {
    jint count = 0;
    forEachStampedRecord([&](jint, R* record) {
      if (isNewerThan(record->myModificationStamp, minStamp)) {
        count++;
      }
    });
    writer.writeInt(count);
    if (count <= 0) {
      return;
    }
    jint written = 0;
    jint lastProgress = progressFrom;
    jint chunkCount = myRecords.getChunkCount();
    for (jint c = 0; c < chunkCount && written < count; c++) {
      R* chunk = myRecords.getChunk(c);
      if (chunk == nullptr) {
        continue;
      }
      for (jint i = 0; i < KIntChunkMap<R>::CHUNK_SIZE && written < count; i++) {
        const R& record = chunk[i];
        if (myRecords.isDefault(record) || !isNewerThan(record.myModificationStamp, minStamp)) {
          continue;
        }
        writer.writeInt((c << KIntChunkMap<R>::CHUNK_SHIFT) + i);
        record.writeRecord(writer);
        jint progress =
            progressFrom + static_cast<jint>(static_cast<double>(progressTo - progressFrom) * written / count);
        written++;
        if (progress > lastProgress) {
          lastProgress = progress;
          if (ourTableProgressReporter != nullptr) {
            ourTableProgressReporter(progressHandle, progress);
          }
        }
      }
    }
  }

  KString getStatistics(jlong* totalBytes) override {
    jlong bytes = static_cast<jlong>(myRecords.getChunkCount()) * 8 +
                  static_cast<jlong>(myRecords.getAllocatedChunkCount()) * KIntChunkMap<R>::CHUNK_SIZE *
                      static_cast<jlong>(sizeof(R));
    *totalBytes += bytes;
    jint used = 0;
    forEachStampedRecord([&](jint, R* record) {
      if (record->myModificationStamp > 0) {
        used++;
      }
    });
    char buffer[128];
    snprintf(buffer, sizeof(buffer), "%20s records=%7d/%7d allocated=", myName.get(), used, getCapacity());
    KString line(buffer);
    line += getMegaBytesString(bytes).get();
    line += " M";
    return line;
  }

 private:
  // A deleted row carries its deletion stamp negated; either way the magnitude says when it
  // last changed.
  static bool isNewerThan(jint stamp, jint minStamp) {
    jlong magnitude = stamp < 0 ? -static_cast<jlong>(stamp) : static_cast<jlong>(stamp);
    return magnitude > minStamp;
  }

  IndexPool myIndexPool;
  KIntChunkMap<R> myRecords;
  KString myName;
};

#endif
