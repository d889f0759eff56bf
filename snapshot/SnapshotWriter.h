#ifndef KJP_SNAPSHOTWRITER_H
#define KJP_SNAPSHOTWRITER_H

#include <jni.h>

#include "snapshot/AbstractWriter.h"

// The writer of snapshot files. A write error does not stop the writer: the first error's text
// is kept and everything after it is still attempted, so a full disk ends in a truncated file
// and one message for the caller, never in a half-finished capture that holds the agent lock.
//
// Counts that are only known at the end (objects of a heap dump, say) go into placeholders,
// which Counter and LongCounter patch back once the count is known.
class SnapshotWriter : public AbstractWriter {
 public:
  // A placeholder int at the current end of the file. The caller adds to myValue while
  // writing on, then commits; a placeholder destroyed uncommitted is a programming error.
  class Counter {
   public:
    explicit Counter(SnapshotWriter& writer);
    ~Counter();
    Counter(const Counter&) = delete;
    Counter& operator=(const Counter&) = delete;

    // Writes myValue over the placeholder and leaves the file position at the end again.
    void commit();

    SnapshotWriter& myWriter;
    jlong myPosition;
    jint myValue;
    bool myCommited;
  };

  // The same with an 8-byte placeholder.
  class LongCounter {
   public:
    explicit LongCounter(SnapshotWriter& writer);
    ~LongCounter();
    LongCounter(const LongCounter&) = delete;
    LongCounter& operator=(const LongCounter&) = delete;

    void commit();

    SnapshotWriter& myWriter;
    jlong myPosition;
    jlong myValue;
    bool myCommited;
  };

  // The descriptor stays the caller's, to close after this writer is gone.
  SnapshotWriter(int fd, jint bufferCapacity, bool oidsAreInts);
  ~SnapshotWriter() override;

  void flush() override;

  // Both flush first, so they cost a system call each: keep them off hot paths.
  jlong seek(jlong offset, int whence);
  jlong position();

  // The text of the first write error, or null while all is well.
  const char* getError() const { return myError; }

 private:
  // Keeps the text of the first error only.
  void noteError(int error);

  char* myError;
};

#endif
