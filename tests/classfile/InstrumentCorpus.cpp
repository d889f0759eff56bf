// Instruments every class of a corpus file (see DumpJrtClasses.java) as the class-load hook
// would with tracing, allocation and J2EE probes, numbering methods without a database, and
// writes the results as a corpus of the same format for VerifyInstrumented.java. J2EE probes
// go into every method whose name and descriptor are in the catalogue, whatever its class
// (every close() among them), as they do in the JVM.
//
//   kjp_instrument_corpus <input corpus> <output corpus>
//
// Prints the number of classes, of classes that could not be instrumented (each named, with
// the class warning) and of methods left without probes (each named, with the method
// warning). Exits 1 if any class could not be instrumented.

#include <stdio.h>

#include <string>
#include <vector>

#include "agent/JVMTI_Agent.h"
#include "agent/Options.h"
#include "db/records/MethodRecord.h"
#include "instrument/MethodIDProvider.h"
#include "instrument/TracingInstrumentation.h"
#include "tests/classfile/ClassCorpus.h"

namespace {

class CountingProvider : public MethodIDProvider {
 public:
  jint getMethodID(const char*, const char*, const char*) const override { return ++myCount; }
  void addMethodFlags(jint, jint flags) const override {
    if ((flags & MF_NOT_INSTRUMENTED) != 0) myNotInstrumented++;
    if ((flags & MF_J2EE) != 0) myJ2EE++;
  }
  mutable jint myCount = 0;
  mutable long myNotInstrumented = 0;
  mutable long myJ2EE = 0;
};

void writeU4(FILE* file, uint32_t value) {
  unsigned char b[4] = {static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
                        static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
  fwrite(b, 1, 4, file);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: kjp_instrument_corpus <input corpus> <output corpus>\n");
    return 2;
  }
  std::vector<kjptest::CorpusClass> corpus;
  std::string error;
  if (!kjptest::readCorpus(argv[1], corpus, error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 2;
  }
  FILE* out = fopen(argv[2], "wb");
  if (out == nullptr) {
    fprintf(stderr, "cannot write %s\n", argv[2]);
    return 2;
  }
  // As on a current HotSpot: natives are wrapped.
  ourIsMustang = true;
  ourIsMac = false;
  // The J2EE probes need the environment that tags statements; the instrumentation only asks
  // whether there is one.
  static _jvmtiEnv taggingEnvironment;
  ourJVMTI3 = &taggingEnvironment;
  CountingProvider provider;
  long failures = 0;
  long unchangedSize = 0;
  for (const kjptest::CorpusClass& c : corpus) {
    KVector<unsigned char> input(static_cast<jint>(c.bytes.size() + 1));
    for (uint8_t b : c.bytes) input.push(b);
    KVector<unsigned char> output(static_cast<jint>(c.bytes.size() * 2 + 64));
    std::string name = c.name;
    size_t slash = name.find('/');
    std::string className = name.substr(slash + 1, name.size() - slash - 1 - 6);
    if (!instrumentForTracingAllocationJ2EE(&provider, className.c_str(), input, output, true, true, true)) {
      failures++;
      continue;
    }
    if (output.size() == input.size()) unchangedSize++;
    writeU4(out, static_cast<uint32_t>(c.name.size()));
    fwrite(c.name.data(), 1, c.name.size(), out);
    writeU4(out, static_cast<uint32_t>(output.size()));
    fwrite(output.getArray(), 1, static_cast<size_t>(output.size()), out);
  }
  fclose(out);
  printf("classes: %zu, not instrumented classes: %ld, method indices handed out: %d, not instrumented methods: %ld, "
         "methods with J2EE probes: %ld\n", corpus.size(), failures, provider.myCount, provider.myNotInstrumented,
         provider.myJ2EE);
  return failures == 0 ? 0 : 1;
}
