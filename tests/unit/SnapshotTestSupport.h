#ifndef KJP_TESTS_SNAPSHOTTESTSUPPORT_H
#define KJP_TESTS_SNAPSHOTTESTSUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "db/DB.h"
#include "tests/unit/DBTestSupport.h"

// A fresh directory under /tmp, removed with everything in it at the end of the scope.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/kjp-snap-XXXXXX";
    const char* made = mkdtemp(pattern);
    EXPECT_NE(nullptr, made);
    myPath = made == nullptr ? "/tmp" : made;
  }
  ~TempDir() {
    std::string command = "rm -rf '" + myPath + "'";
    if (system(command.c_str()) != 0) {
      ADD_FAILURE() << "cannot remove " << myPath;
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return myPath; }
  std::string file(const std::string& name) const { return myPath + "/" + name; }

 private:
  std::string myPath;
};

// A tmpfs of the given size on a directory of its own: the way to a full disk that needs no
// real disk. Mounting needs root; available() says whether it worked.
class SmallFileSystem {
 public:
  explicit SmallFileSystem(const char* size) {
    std::string options = std::string("size=") + size;
    myMounted = mount("tmpfs", myDir.path().c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~SmallFileSystem() {
    if (myMounted) {
      umount(myDir.path().c_str());
    }
  }
  bool available() const { return myMounted; }
  std::string file(const std::string& name) const { return myDir.file(name); }

 private:
  TempDir myDir;
  bool myMounted;
};

inline std::vector<unsigned char> readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Snapshots and table streams are read with the same little-endian reader.
using StreamReader = ByteReader;

// One row of a table stream: index, stamp, the other fields as longs (ints widened), and the
// text of a string row.
struct StreamRow {
  jint index;
  jint stamp;
  std::vector<jlong> fields;
  std::string text;
};

// Field widths after the stamp, in bytes, per table id; the string table is special.
inline std::vector<int> rowLayout(jint tableID) {
  switch (tableID) {
    case THREAD_TABLE_ID: return {4, 4, 4, 4, 8};
    case METHOD_TABLE_ID: return {4, 4, 4, 4};
    case THREADFRAME_TABLE_ID: return {4, 4};
    case J2EE_TABLE_ID: return {4, 4, 4, 4, 8, 8};
    case MONITOR_TABLE_ID: return {4, 4, 4, 4, 8, 8};
    case CPUPROFILING_TABLE_ID: return {8, 8};
    case INSTANCECOUNTS_TABLE_ID: return {4, 4, 8};
    case FRAME_TABLE_ID: return {4, 4, 4, 4};
    case TABLEGENERATION_TABLE_ID: return {};
    case SNAPSHOT_TABLE_ID: return {4, 8};
    case ALLOCINFO_TABLE_ID: return {8, 8};
    case GENERATION_TABLE_ID: return {4, 4, 8};
    case PROPERTIES_TABLE_ID: return {4, 4};
    case TELE_TABLE_ID: return std::vector<int>(15, 4);
    case THREADSTATE_TABLE_ID: return {4, 4, 4, 8};
    case EXCEPTION_TABLE_ID: return {4, 4, 4, 4, 8};
    default: ADD_FAILURE() << "no layout for table " << tableID; return {};
  }
}

// The count and rows of one table, after its id.
inline std::vector<StreamRow> readTableRows(StreamReader& reader, jint tableID) {
  jint count = reader.readInt();
  std::vector<StreamRow> rows;
  for (jint i = 0; i < count; i++) {
    StreamRow row;
    row.index = reader.readInt();
    row.stamp = reader.readInt();
    if (tableID == STRING_TABLE_ID) {
      row.text = reader.readString();
    } else {
      for (int width : rowLayout(tableID)) {
        row.fields.push_back(width == 4 ? reader.readInt() : reader.readLong());
      }
    }
    rows.push_back(row);
  }
  return rows;
}

#endif
