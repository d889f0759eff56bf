// libFuzzer target for the class-file model: mutated class files go through reading and
// writing. Beyond "no crash, no sanitizer report, no hang" it checks two properties on
// every input the model accepts, and aborts when one fails:
//   - what the model writes, it reads again, and writing that gives the same bytes;
//   - every StackMapTable it decodes encodes back to exactly the bytes it came from.
// Inputs the model refuses must be refused with a ClassFormatError, nothing else.
//
// Built and run by scripts/fuzz-classfile.sh.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/StackMap.h"
#include "classfile/StackMapTableAttribute.h"

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    fprintf(stderr, "class-file fuzzer: %s\n", what);
    abort();
  }
}

void write(const ClassFile& classFile, KVector<unsigned char>& out) {
  DataOutput dataOut(out);
  classFile.writeClass(dataOut);
}

void checkStackMaps(ClassFile& classFile) {
  KVector<VerificationType> initial(8);
  for (int m = 0; m < classFile.getMethods().size(); m++) {
    MethodInfo* method = classFile.getMethods()[m];
    CodeAttribute* code = method->getCodeAttribute();
    StackMapTableAttribute* table = code != nullptr ? code->getStackMapTable() : nullptr;
    if (table == nullptr) {
      continue;
    }
    StackMap map;
    try {
      StackMap::initialLocals(classFile, *method, initial);
      map.decode(table->getBody(), table->getBodyLength(), code->getCodeLength(), initial);
    } catch (const ClassFormatError&) {
      continue;  // a table the codec refuses is fine; the class still round-trips raw
    }
    KVector<unsigned char> encoded(table->getBodyLength() + 1);
    DataOutput out(encoded);
    map.encode(initial, out);
    check(encoded.size() == table->getBodyLength() &&
              memcmp(encoded.getArray(), table->getBody(), static_cast<size_t>(encoded.size())) == 0,
          "a decoded stack map does not encode back to its bytes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) {
    return 0;
  }
  KVector<unsigned char> input(static_cast<jint>(size) + 1);
  for (size_t i = 0; i < size; i++) {
    input.push(data[i]);
  }
  KVector<unsigned char> first(static_cast<jint>(size) + 64);
  ClassFile* classFile = nullptr;
  try {
    DataInput in(input);
    classFile = new ClassFile(in);
    write(*classFile, first);
  } catch (const ClassFormatError&) {
    delete classFile;
    return 0;
  }

  KVector<unsigned char> second(first.size() + 64);
  try {
    DataInput in(first);
    ClassFile reread(in);
    write(reread, second);
  } catch (const ClassFormatError& error) {
    fprintf(stderr, "class-file fuzzer: written class cannot be read again: %s\n", error.getReason());
    abort();
  }
  check(first.size() == second.size() && memcmp(first.getArray(), second.getArray(), static_cast<size_t>(first.size())) == 0,
        "a written class changes when read and written again");

  checkStackMaps(*classFile);
  delete classFile;
  return 0;
}
