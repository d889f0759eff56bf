#ifndef KJP_TESTS_CLASSFILETESTSUPPORT_H
#define KJP_TESTS_CLASSFILETESTSUPPORT_H

#include <stdio.h>

#include <memory>
#include <string>
#include <vector>

#include "agent/KVector.h"
#include "classfile/ClassFile.h"

namespace kjptest {

// A class file committed under tests/data/classfile/classes (see make-classes.sh there).
inline std::vector<uint8_t> readTestClass(const std::string& relativePath) {
  std::string path = std::string(KJP_TEST_DATA_DIR) + "/classfile/classes/" + relativePath;
  std::vector<uint8_t> bytes;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return bytes;
  int c;
  while ((c = fgetc(file)) != EOF) bytes.push_back(static_cast<uint8_t>(c));
  fclose(file);
  return bytes;
}

inline std::unique_ptr<KVector<unsigned char>> toKVector(const std::vector<uint8_t>& bytes) {
  std::unique_ptr<KVector<unsigned char>> v(new KVector<unsigned char>(static_cast<jint>(bytes.size() + 1)));
  for (uint8_t b : bytes) v->push(b);
  return v;
}

inline std::vector<uint8_t> toBytes(KVector<unsigned char>& v) {
  return std::vector<uint8_t>(v.getArray(), v.getArray() + v.size());
}

// Owns the bytes a ClassFile was read from, with the model.
struct ParsedClass {
  std::unique_ptr<KVector<unsigned char>> bytes;
  std::unique_ptr<ClassFile> model;
};

inline ParsedClass parse(const std::vector<uint8_t>& bytes) {
  ParsedClass parsed;
  parsed.bytes = toKVector(bytes);
  DataInput in(*parsed.bytes);
  parsed.model.reset(new ClassFile(in));
  return parsed;
}

inline std::vector<uint8_t> write(const ClassFile& classFile) {
  KVector<unsigned char> out(1024);
  DataOutput dataOut(out);
  classFile.writeClass(dataOut);
  return toBytes(out);
}

inline int majorVersionOf(const std::vector<uint8_t>& bytes) { return bytes[6] << 8 | bytes[7]; }

}  // namespace kjptest

#endif
