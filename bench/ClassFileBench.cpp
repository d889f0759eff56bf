// Read-plus-write throughput of the class-file model over the classes of a JDK.
//
// The corpus is the file named by KJP_CLASS_CORPUS (written by
// tests/classfile/DumpJrtClasses.java); without it the benchmark dumps the JDK 17 classes
// into /tmp/kjp-bench-jdk17.corpus first, with that JDK's java.
//
//   kjp_bench --benchmark_filter=ClassFile
//
// bytes_per_second is the size of the input classes over the time to read each into a
// ClassFile and write it back, on one thread.

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "classfile/ClassFile.h"
#include "classfile/ClassFormatError.h"
#include "tests/classfile/ClassCorpus.h"

namespace {

const char* const DEFAULT_JDK = "/usr/lib/jvm/java-17-openjdk-amd64";
const char* const DEFAULT_CORPUS = "/tmp/kjp-bench-jdk17.corpus";

std::string sourceRoot() {
  std::string file = __FILE__;
  size_t slash = file.rfind("/bench/");
  return slash == std::string::npos ? "." : file.substr(0, slash);
}

struct Corpus {
  std::vector<KVector<unsigned char>*> classes;
  long bytes = 0;
  std::string error;
};

Corpus* loadCorpus() {
  Corpus* corpus = new Corpus();
  const char* path = getenv("KJP_CLASS_CORPUS");
  std::string file = path != nullptr ? path : DEFAULT_CORPUS;
  struct stat st;
  if (path == nullptr && stat(file.c_str(), &st) != 0) {
    std::string command = std::string(DEFAULT_JDK) + "/bin/java " + sourceRoot() +
                          "/tests/classfile/DumpJrtClasses.java " + file + " >&2";
    if (system(command.c_str()) != 0) {
      corpus->error = "cannot dump the JDK classes: " + command;
      return corpus;
    }
  }
  std::vector<kjptest::CorpusClass> classes;
  if (!kjptest::readCorpus(file, classes, corpus->error)) {
    return corpus;
  }
  for (const kjptest::CorpusClass& c : classes) {
    KVector<unsigned char>* bytes = new KVector<unsigned char>(static_cast<jint>(c.bytes.size() + 1));
    for (uint8_t b : c.bytes) {
      bytes->push(b);
    }
    corpus->classes.push_back(bytes);
    corpus->bytes += static_cast<long>(c.bytes.size());
  }
  return corpus;
}

void BM_ClassFileReadWrite(benchmark::State& state) {
  static Corpus* corpus = loadCorpus();
  if (!corpus->error.empty() || corpus->classes.empty()) {
    state.SkipWithError(corpus->error.empty() ? "empty corpus" : corpus->error.c_str());
    return;
  }
  KVector<unsigned char> output(1 << 20);
  long failures = 0;
  for (auto _ : state) {
    for (KVector<unsigned char>* input : corpus->classes) {
      output.clear();
      try {
        DataInput in(*input);
        ClassFile classFile(in);
        DataOutput out(output);
        classFile.writeClass(out);
      } catch (const ClassFormatError&) {
        failures++;
      }
      benchmark::DoNotOptimize(output.getArray());
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * corpus->bytes);
  state.counters["classes"] = static_cast<double>(corpus->classes.size());
  state.counters["failures"] = static_cast<double>(failures);
}

BENCHMARK(BM_ClassFileReadWrite)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace
