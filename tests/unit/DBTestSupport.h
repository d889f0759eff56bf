#ifndef KJP_TESTS_DBTESTSUPPORT_H
#define KJP_TESTS_DBTESTSUPPORT_H

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "agent/JVMTI_Agent.h"
#include "db/DB.h"
#include "engines/DeadThreadFolder.h"
#include "engines/ThreadInfo.h"
#include "snapshot/AbstractWriter.h"

// A writer into memory with a deliberately small buffer, so that tests also cross flushes.
class MemoryWriter : public AbstractWriter {
 public:
  explicit MemoryWriter(jint bufferCapacity = 16) : AbstractWriter(-1, bufferCapacity, true), myFlushes(0) {}
  ~MemoryWriter() override { flush(); }

  void flush() override {
    if (myNumberOfBufferedChars > 0) {
      myFlushes++;
    }
    myBytes.insert(myBytes.end(), myBuffer, myBuffer + myNumberOfBufferedChars);
    myNumberOfBufferedChars = 0;
  }

  // Everything written so far, flushed or not.
  std::vector<unsigned char> bytes() {
    flush();
    return myBytes;
  }

  int myFlushes;

 private:
  std::vector<unsigned char> myBytes;
};

// Reads back what a writer produced (a MemoryWriter, a snapshot, a table stream),
// little-endian, failing the test on a read past the end.
class ByteReader {
 public:
  explicit ByteReader(std::vector<unsigned char> bytes) : myBytes(std::move(bytes)), myPosition(0) {}

  int readByte() { return next(); }

  jint readInt() {
    unsigned int value = 0;
    for (int i = 0; i < 4; i++) {
      value |= static_cast<unsigned int>(next()) << (8 * i);
    }
    return static_cast<jint>(value);
  }

  jlong readLong() {
    unsigned long long low = static_cast<unsigned int>(readInt());
    unsigned long long high = static_cast<unsigned int>(readInt());
    return static_cast<jlong>(low | (high << 32));
  }

  // "<null>" for length -1.
  std::string readString() {
    jint length = readInt();
    if (length == -1) {
      return "<null>";
    }
    std::string text;
    for (jint i = 0; i < length; i++) {
      text += static_cast<char>(next());
    }
    return text;
  }

  std::string readBytes(size_t count) {
    std::string text;
    for (size_t i = 0; i < count; i++) {
      text += static_cast<char>(next());
    }
    return text;
  }

  bool atEnd() const { return myPosition == myBytes.size(); }
  size_t position() const { return myPosition; }

 private:
  unsigned char next() {
    if (myPosition >= myBytes.size()) {
      ADD_FAILURE() << "read past the end at " << myPosition;
      return 0;
    }
    return myBytes[myPosition++];
  }

  std::vector<unsigned char> myBytes;
  size_t myPosition;
};

// The agent's global database as Agent_OnLoad makes it, with the registry's globals reset
// around each test so tests don't see each other's threads.
class AgentDBTest : public ::testing::Test {
 protected:
  void SetUp() override {
    resetRegistry();
    DB::createAndInitializeDB(3600);
  }

  void TearDown() override {
    for (jint i = 0; i < ourAllThreadInfos._capacity; i++) {
      if (ourAllThreadInfos._states[i] == KMAP_FULL) {
        delete ourAllThreadInfos._keys[i];
      }
    }
    delete ourOldestDeadThreads;
    delete ourVMStartThread;
    ourOldestDeadThreads = nullptr;
    ourVMStartThread = nullptr;
    delete ourDB;
    ourDB = nullptr;
    resetRegistry();
  }

  static void resetRegistry() {
    ThreadInfo::ourRunningNumber = 0;
    ThreadInfo::ourIndexForTFIPool.clearIndexPool();
    DeadThreadFolder::ourFirstDeadNumberToMerge = 0;
    DeadThreadFolder::ourThreadEndCount = 0;
    ourDeadThreadRunningNumbers.clear();
    ourAllThreadInfos.init();
    ourStatus = STACK_TELEMETRY;
  }

  // A live thread as threadStart registers it.
  static ThreadInfo* startThread(const char* name) {
    ThreadInfo* info = new ThreadInfo(name, "main", 4242);
    ourAllThreadInfos.add(info);
    return info;
  }

  static std::string stringAt(jint index) {
    StringRecord* record = ourDB->myStringTable->getRecord(index, false);
    return record == nullptr || record->myText == nullptr ? "<none>" : record->myText;
  }
};

#endif
