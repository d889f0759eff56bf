// Dominators and retained sizes on synthetic heaps of ten million objects and thirty million
// references, each in a process of its own so that its peak resident memory is its own:
//  - tree: a random tree (each object's parent a little before it) plus two references from each
//    object to random ancestors of it, which close cycles but change no dominator, so that every
//    object's immediate dominator is its tree parent;
//  - chain: a chain of ten million objects, each also referring back to two of its ancestors.
// Each run checks its result against the structure it was built with.
// Usage: kjp_heap_bench [objects [tree|chain]]

#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "analysis/GraphWalks.h"
#include "analysis/ObjectStorage.h"

namespace {

// CPU time of this single-threaded process: on a machine shared with other work it still tells
// what the computation costs, where the wall clock would tell how busy the machine was.
double now() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Runs in the child: builds, computes, checks; exit status 0 when the result is right.
int runScenario(bool chain, jint objects) {
  std::mt19937 random(12345);
  std::vector<jint> parent(static_cast<size_t>(objects) + 1, 0);
  for (jint i = 2; i <= objects; i++) {
    jint back = chain ? 1 : 1 + static_cast<jint>(random() % 1000);
    parent[static_cast<size_t>(i)] = i - back < 1 ? 1 : i - back;
  }
  // Each object refers to its children; so each object's references are its children, plus two
  // ancestors. Children lists by counting.
  std::vector<jint> childCount(static_cast<size_t>(objects) + 2, 0);
  for (jint i = 2; i <= objects; i++) {
    childCount[static_cast<size_t>(parent[static_cast<size_t>(i)])]++;
  }
  ObjectStorage storage(nullptr, objects + 1, true);
  for (jint i = 1; i <= objects; i++) {
    storage.createClass(nullptr, i, 16 + (i % 7) * 8, 0, childCount[static_cast<size_t>(i)] + 2);
  }
  std::vector<jint> filled(static_cast<size_t>(objects) + 1, 0);
  jlong references = 0;
  for (jint i = 2; i <= objects; i++) {
    jint p = parent[static_cast<size_t>(i)];
    storage.myRefs.setRef(p, i, filled[static_cast<size_t>(p)]++);
    references++;
  }
  for (jint i = 1; i <= objects; i++) {
    for (int k = 0; k < 2; k++) {
      jint a = i;
      for (int steps = 1 + static_cast<int>(random() % 4); steps > 0 && a > 1; steps--) {
        a = parent[static_cast<size_t>(a)];
      }
      // The root has no ancestor: its two slots stay 0, no reference.
      if (a != i) {
        storage.myRefs.setRef(i, a, filled[static_cast<size_t>(i)]);
        references++;
      }
      filled[static_cast<size_t>(i)]++;
    }
  }
  std::vector<jint> all(static_cast<size_t>(storage.getBitSetLength()), -1);
  std::vector<jint> counts(static_cast<size_t>(objects) + 1, 0);
  double start = now();
  storage.myBackRefTable = buildBackReferences(nullptr, &storage, all.data(), counts.data());
  double backRefs = now();
  jint root = 1;
  computeDominatorsAndRetainedSizes(nullptr, &storage, &root, 1, all.data());
  double done = now();

  int wrong = 0;
  jlong total = 0;
  for (jint i = 1; i <= objects; i++) {
    total += storage.mySizes.get(i);
    if (storage.myDominators.get(i) != (i == 1 ? 0 : parent[static_cast<size_t>(i)])) {
      wrong++;
    }
  }
  if (storage.getRetainedSize(1) != total) {
    wrong++;
  }
  printf("%-6s %d objects, %lld references: back references %.2f s, dominators + retained sizes %.2f s (CPU)%s\n",
         chain ? "chain" : "tree", objects, static_cast<long long>(references), backRefs - start, done - backRefs,
         wrong == 0 ? "" : " WRONG");
  fflush(stdout);
  return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  jint objects = argc > 1 ? atoi(argv[1]) : 10000000;
  int status = 0;
  for (bool chain : {false, true}) {
    if (argc > 2 && (chain ? "chain" : "tree") != std::string(argv[2])) {
      continue;
    }
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
      _exit(runScenario(chain, objects));
    }
    int childStatus = 0;
    rusage usage;
    wait4(child, &childStatus, 0, &usage);
    double peak = static_cast<double>(usage.ru_maxrss) * 1024.0;
    printf("%-6s peak resident memory %.0f MB, %.1f bytes an object (graph, storage and work areas)\n",
           chain ? "chain" : "tree", peak / 1048576.0, peak / objects);
    status |= WIFEXITED(childStatus) ? WEXITSTATUS(childStatus) : 1;
  }
  return status;
}
