// Round-trips every class of one or more corpus files (see DumpJrtClasses.java) through the
// class-file model and checks what comes back:
//   - classes of version 51 and above: exactly the input bytes;
//   - classes of version 50 and below: the input less its stack maps, version 50 as 49,
//     as an independent stripper (StackMapStripper.h) states it;
//   - writing the same model twice gives the same bytes.
// --as50 runs every class a second time with its major version set to 50, which puts
//   the stack-map dropping through the whole corpus.
// --codec decodes every StackMapTable into frames and encodes it again: first keeping the
//   forms as read, which must give the same bytes, then letting the encoder choose every
//   form, which must decode to the same frames.
// Prints counts, bytes and the time spent in reading and writing; exits 1 on any failure.

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "classfile/CodeAttribute.h"
#include "classfile/StackMap.h"
#include "classfile/StackMapTableAttribute.h"
#include "instrument/J2EEHelper.h"
#include "tests/classfile/ClassCorpus.h"
#include "tests/classfile/StackMapStripper.h"

namespace {

double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

struct Totals {
  long classes = 0;
  long bytesIn = 0;
  long bytesOut = 0;
  double seconds = 0;
  long failures = 0;
  long byVersion[100] = {};
  long j2eeCandidates = 0;
  long stackMaps = 0;
  long frames = 0;
};

void fill(KVector<unsigned char>& v, const std::vector<uint8_t>& bytes) {
  for (uint8_t b : bytes) v.push(b);
}

std::vector<uint8_t> toStd(KVector<unsigned char>& v) { return std::vector<uint8_t>(v.getArray(), v.getArray() + v.size()); }

bool sameFrames(const StackMap& a, const StackMap& b) {
  if (a.getFrames().size() != b.getFrames().size()) return false;
  for (int i = 0; i < a.getFrames().size(); i++) {
    const StackMapFrame& x = *a.getFrames()[i];
    const StackMapFrame& y = *b.getFrames()[i];
    if (x.myOffset != y.myOffset || x.myLocals.size() != y.myLocals.size() || x.myStack.size() != y.myStack.size()) return false;
    for (int k = 0; k < x.myLocals.size(); k++) {
      if (x.myLocals[k] != y.myLocals[k]) return false;
    }
    for (int k = 0; k < x.myStack.size(); k++) {
      if (x.myStack[k] != y.myStack[k]) return false;
    }
  }
  return true;
}

// Returns an empty string when every stack map of the class survives both codec checks.
std::string checkCodec(ClassFile& classFile, Totals& totals) {
  KVector<VerificationType> initial(8);
  for (int m = 0; m < classFile.getMethods().size(); m++) {
    MethodInfo* method = classFile.getMethods()[m];
    CodeAttribute* code = method->getCodeAttribute();
    StackMapTableAttribute* table = code != nullptr ? code->getStackMapTable() : nullptr;
    if (table == nullptr) continue;
    totals.stackMaps++;
    StackMap map;
    StackMap::initialLocals(classFile, *method, initial);
    map.decode(table->getBody(), table->getBodyLength(), code->getCodeLength(), initial);
    totals.frames += map.getFrames().size();
    KVector<unsigned char> encoded(table->getBodyLength() + 1);
    DataOutput out(encoded);
    map.encode(initial, out);
    if (encoded.size() != table->getBodyLength() || memcmp(encoded.getArray(), table->getBody(), encoded.size()) != 0) {
      return "stack map of " + std::string(method->getName().get()) + " re-encodes differently";
    }
    for (int f = 0; f < map.getFrames().size(); f++) map.getFrames()[f]->myFrameType = StackMapFrame::NEW_FRAME;
    KVector<unsigned char> chosen(table->getBodyLength() + 1);
    DataOutput chosenOut(chosen);
    map.encode(initial, chosenOut);
    StackMap again;
    again.decode(chosen.getArray(), chosen.size(), code->getCodeLength(), initial);
    if (!sameFrames(map, again)) {
      return "stack map of " + std::string(method->getName().get()) + " changes when the encoder picks the forms";
    }
  }
  return "";
}

// One class through the model; returns an empty string on success, else what went wrong.
std::string roundTrip(const std::string& name, const std::vector<uint8_t>& bytes, bool codec, Totals& totals) {
  KVector<unsigned char> input(static_cast<jint>(bytes.size() + 1));
  fill(input, bytes);
  KVector<unsigned char> output(static_cast<jint>(bytes.size() + 64));
  ClassFile* classFile = nullptr;
  double start = now();
  try {
    DataInput in(input);
    classFile = new ClassFile(in);
    DataOutput out(output);
    classFile->writeClass(out);
  } catch (const ClassFormatError& error) {
    delete classFile;
    return std::string("cannot be read: ") + error.getReason();
  }
  totals.seconds += now() - start;
  totals.classes++;
  totals.bytesIn += static_cast<long>(bytes.size());
  totals.bytesOut += output.size();
  int major = bytes.size() >= 8 ? (bytes[6] << 8 | bytes[7]) : 0;
  totals.byVersion[major < 100 ? major : 99]++;
  if (J2EEHelper::canBeJ2EEClass(*classFile)) totals.j2eeCandidates++;

  std::string problem;
  std::vector<uint8_t> got = toStd(output);
  std::vector<uint8_t> expected = major >= 51 ? bytes : kjptest::StackMapStripper::strip(bytes);
  if (got != expected) {
    size_t at = 0;
    while (at < got.size() && at < expected.size() && got[at] == expected[at]) at++;
    problem = "differs from the expected bytes at offset " + std::to_string(at) + " (" + std::to_string(got.size()) +
              " bytes, expected " + std::to_string(expected.size()) + ")";
  }
  if (problem.empty()) {
    KVector<unsigned char> second(output.size() + 1);
    DataOutput out(second);
    classFile->writeClass(out);
    if (toStd(second) != got) problem = "a second write gives other bytes";
  }
  if (problem.empty() && codec) {
    try {
      problem = checkCodec(*classFile, totals);
    } catch (const ClassFormatError& error) {
      problem = std::string("stack map cannot be decoded: ") + error.getReason();
    }
  }
  delete classFile;
  (void)name;
  return problem;
}

}  // namespace

int main(int argc, char** argv) {
  bool as50 = false;
  bool codec = false;
  std::vector<std::string> corpora;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--as50") == 0) {
      as50 = true;
    } else if (strcmp(argv[i], "--codec") == 0) {
      codec = true;
    } else {
      corpora.push_back(argv[i]);
    }
  }
  if (corpora.empty()) {
    fprintf(stderr, "usage: %s [--as50] [--codec] corpus...\n", argv[0]);
    return 2;
  }
  bool ok = true;
  for (const std::string& path : corpora) {
    std::vector<kjptest::CorpusClass> classes;
    std::string error;
    if (!kjptest::readCorpus(path, classes, error)) {
      fprintf(stderr, "%s\n", error.c_str());
      return 2;
    }
    if (classes.empty()) {
      fprintf(stderr, "%s holds no classes\n", path.c_str());
      return 2;
    }
    Totals totals;
    Totals totals50;
    for (const kjptest::CorpusClass& c : classes) {
      std::string problem = roundTrip(c.name, c.bytes, codec, totals);
      if (!problem.empty()) {
        totals.failures++;
        if (totals.failures <= 20) fprintf(stderr, "FAIL %s: %s\n", c.name.c_str(), problem.c_str());
      }
      if (as50 && c.bytes.size() >= 8) {
        std::vector<uint8_t> patched = c.bytes;
        patched[6] = 0;
        patched[7] = 50;
        std::string problem50 = roundTrip(c.name, patched, false, totals50);
        if (!problem50.empty()) {
          totals50.failures++;
          if (totals50.failures <= 20) fprintf(stderr, "FAIL %s as version 50: %s\n", c.name.c_str(), problem50.c_str());
        }
      }
    }
    printf("%s: %ld classes, %ld bytes in, %ld bytes out, read+write %.3f s (%.1f MB/s), %ld failures\n", path.c_str(),
           totals.classes, totals.bytesIn, totals.bytesOut, totals.seconds,
           totals.seconds > 0 ? static_cast<double>(totals.bytesIn) / 1e6 / totals.seconds : 0.0, totals.failures);
    printf("  versions:");
    for (int v = 0; v < 100; v++) {
      if (totals.byVersion[v] > 0) printf(" %d:%ld", v, totals.byVersion[v]);
    }
    printf("\n  J2EE candidates: %ld\n", totals.j2eeCandidates);
    if (codec) printf("  stack maps decoded and re-encoded: %ld tables, %ld frames\n", totals.stackMaps, totals.frames);
    if (as50) {
      printf("  as version 50: %ld classes, %ld bytes in, %ld bytes out (stack maps dropped), %ld failures\n",
             totals50.classes, totals50.bytesIn, totals50.bytesOut, totals50.failures);
    }
    fflush(stdout);
    if (totals.failures > 0 || totals50.failures > 0) ok = false;
  }
  return ok ? 0 : 1;
}
