#ifndef KJP_TESTS_CLASSCORPUS_H
#define KJP_TESTS_CLASSCORPUS_H

// Reads a corpus file written by DumpJrtClasses.java: records of a big-endian u4 name
// length, the name, a u4 data length and the class bytes.

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace kjptest {

struct CorpusClass {
  std::string name;
  std::vector<uint8_t> bytes;
};

inline bool readCorpus(const std::string& path, std::vector<CorpusClass>& out, std::string& error) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    error = "cannot open " + path;
    return false;
  }
  auto readU4 = [file](uint32_t& value) {
    unsigned char b[4];
    if (fread(b, 1, 4, file) != 4) return false;
    value = (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | uint32_t(b[3]);
    return true;
  };
  uint32_t nameLength;
  while (readU4(nameLength)) {
    CorpusClass c;
    c.name.resize(nameLength);
    uint32_t dataLength;
    if (fread(&c.name[0], 1, nameLength, file) != nameLength || !readU4(dataLength)) {
      error = "truncated corpus " + path;
      fclose(file);
      return false;
    }
    c.bytes.resize(dataLength);
    if (dataLength > 0 && fread(c.bytes.data(), 1, dataLength, file) != dataLength) {
      error = "truncated corpus " + path;
      fclose(file);
      return false;
    }
    out.push_back(std::move(c));
  }
  fclose(file);
  return true;
}

}  // namespace kjptest

#endif
