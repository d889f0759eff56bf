#include "snapshot/SnapshotWriter.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "agent/KAssert.h"
#include "agent/KHelpers.h"
#include "agent/TextUtil.h"

SnapshotWriter::SnapshotWriter(int fd, jint bufferCapacity, bool oidsAreInts)
    : AbstractWriter(fd, bufferCapacity, oidsAreInts), myError(nullptr) {}

SnapshotWriter::~SnapshotWriter() {
  flush();
  delete[] myError;
}

void SnapshotWriter::flush() {
  if (myNumberOfBufferedChars == 0) {
    return;
  }
  // The kernel reports a full disk as a short write first, without an error; only the write
  // of the remainder fails with ENOSPC. So the remainder is written until the error shows, or
  // a buffer larger than the free space would leave a truncated file with no error at all.
  // After an error the rest of the buffer is dropped and writing goes on with the next one,
  // so the capture runs to its end and reports the first error once.
  const char* next = myBuffer;
  size_t remaining = static_cast<size_t>(myNumberOfBufferedChars);
  while (remaining > 0) {
    errno = 0;
    ssize_t written = write(myFD, next, remaining);
    if (written > 0 && errno == 0) {
      next += written;
      remaining -= static_cast<size_t>(written);
      continue;
    }
    if (errno == EINTR) {
      continue;
    }
    noteError(errno == 0 ? EIO : errno);
    errno = 0;
    break;
  }
  myNumberOfBufferedChars = 0;
}

void SnapshotWriter::noteError(int error) {
  if (myError != nullptr) {
    return;
  }
  // The user reads this text in an English UI whatever the locale of the profiled JVM.
  const char* text = getEnglishErrorMessage(error);
  if (text == nullptr) {
    text = strerror(error);
  }
  if (text == nullptr || text[0] == 0) {
    text = "Write error";
  }
  myError = k_strdup(text);
}

jlong SnapshotWriter::seek(jlong offset, int whence) {
  flush();
  return static_cast<jlong>(lseek64(myFD, static_cast<off64_t>(offset), whence));
}

jlong SnapshotWriter::position() {
  flush();
  return static_cast<jlong>(lseek64(myFD, 0, SEEK_CUR));
}

SnapshotWriter::Counter::Counter(SnapshotWriter& writer)
    : myWriter(writer), myPosition(writer.position()), myValue(0), myCommited(false) {
  myWriter.writeInt(0);
}

SnapshotWriter::Counter::~Counter() { KASSERT(myCommited); }

void SnapshotWriter::Counter::commit() {
  KASSERT(!myCommited);
  myWriter.flush();
  lseek64(myWriter.getFD(), static_cast<off64_t>(myPosition), SEEK_SET);
  myWriter.writeInt(myValue);
  myWriter.flush();
  lseek64(myWriter.getFD(), 0, SEEK_END);
  myCommited = true;
}

SnapshotWriter::LongCounter::LongCounter(SnapshotWriter& writer)
    : myWriter(writer), myPosition(writer.position()), myValue(0), myCommited(false) {
  myWriter.writeLong(0);
}

SnapshotWriter::LongCounter::~LongCounter() { KASSERT(myCommited); }

void SnapshotWriter::LongCounter::commit() {
  KASSERT(!myCommited);
  myWriter.flush();
  lseek64(myWriter.getFD(), static_cast<off64_t>(myPosition), SEEK_SET);
  myWriter.writeLong(myValue);
  myWriter.flush();
  lseek64(myWriter.getFD(), 0, SEEK_END);
  myCommited = true;
}
