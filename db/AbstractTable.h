#ifndef KJP_ABSTRACTTABLE_H
#define KJP_ABSTRACTTABLE_H

#include <jni.h>

#include "agent/KString.h"
#include "db/IndexPool.h"

class AbstractWriter;

// The operations every table of the database offers whatever its record type, so that
// streaming, statistics and the UI's natives can address a table by its id alone.
class AbstractTable {
 public:
  virtual ~AbstractTable() {}

  // Streams every row whose stamp is set and whose absolute value exceeds minStamp: the
  // count, then index and record for each, in ascending index. Reports progress between
  // progressFrom and progressTo to the installed reporter.
  virtual void writeTable(AbstractWriter& writer, jint minStamp, jint progressFrom, jint progressTo,
                          jint progressHandle) = 0;
  // Rows addressable without growing; not rows in use.
  virtual jint getCapacity() const = 0;
  // First index of the first allocated chunk, or -1.
  virtual jint getMinIndex() const = 0;
  // 0 for a row beyond the capacity or not stamped.
  virtual jint getRecordModificationStamp(jint index) = 0;
  virtual void setRecordModificationStamp(jint index, jint stamp) = 0;
  // Frees every chunk and resets the index pool; the chunk array keeps its length.
  virtual void clearTable() = 0;
  // One line of the database statistics; adds the table's memory to *totalBytes.
  virtual KString getStatistics(jlong* totalBytes) = 0;
  virtual IndexPool& getIndexPool() = 0;
};

// Megabytes with one decimal, right-aligned in six places, as the statistics print them.
KString getMegaBytesString(jlong bytes);

// Receives the progress of a table being written, as percent values for a progress handle.
// Capture code installs its reporter here; the database itself knows no socket or UI.
typedef void (*TableProgressReporter)(jint progressHandle, jint percent);
extern TableProgressReporter ourTableProgressReporter;

#endif
