// The analysis side of heap snapshots: paged arrays, the object storage's graph, dominators
// against an independent data-flow computation, retained sizes, walks, OID ranks and markers.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "agent/ApplicationMarkers.h"
#include "agent/FileUtil.h"
#include "analysis/BigIntArray32.h"
#include "analysis/BigIntArray64.h"
#include "analysis/GraphWalks.h"
#include "analysis/MarkerReaders.h"
#include "analysis/OIDProcessor.h"
#include "analysis/ObjectStorage.h"
#include "snapshot/SnapshotWriter.h"

namespace {

typedef std::vector<std::vector<int>> Graph;  // node 1..n-1 -> targets; node 0 unused

// A storage holding 'graph' with every object's shallow size, its back references built over
// all objects, dominators and retained sizes computed from 'roots'.
struct Analysed {
  ObjectStorage storage;
  // 'leftOut' have their bits clear in the marks of the computation, not in those of the back
  // references, so that they still stand in the table as referrers.
  Analysed(const Graph& graph, const std::vector<int>& sizes, std::vector<int> roots,
           const std::vector<int>& leftOut = {})
      : storage(nullptr, static_cast<jint>(graph.size()), true) {
    jint n = storage.myObjectCount;
    for (jint i = 1; i < n; i++) {
      storage.createClass(nullptr, i, sizes[i], 0, static_cast<jint>(graph[i].size()));
      for (size_t p = 0; p < graph[i].size(); p++) {
        storage.myRefs.setRef(i, graph[i][p], static_cast<jint>(p));
      }
    }
    std::vector<jint> all(static_cast<size_t>(storage.getBitSetLength()), -1);
    std::vector<jint> counts(static_cast<size_t>(n), 0);
    storage.myBackRefTable = buildBackReferences(nullptr, &storage, all.data(), counts.data());
    for (jint c : counts) {
      EXPECT_EQ(0, c);
    }
    for (int o : leftOut) {
      clearMark(all.data(), o);
    }
    computeDominatorsAndRetainedSizes(nullptr, &storage, roots.data(), static_cast<jint>(roots.size()), all.data());
  }
  jint dom(jint i) { return storage.myDominators.get(i); }
};

// Dominator sets by the textbook data-flow equations, iterated to a fixed point: Dom(root) =
// {0, root}, Dom(n) = {n} + the intersection over n's reached predecessors. Node 0 is the
// virtual root in front of every GC root. Returns the immediate dominators, -1 if unreached.
std::vector<int> dataFlowDominators(const Graph& graph, const std::vector<int>& roots) {
  size_t n = graph.size();
  Graph preds(n);
  for (size_t v = 1; v < n; v++) {
    for (int t : graph[v]) {
      if (t != 0) {
        preds[static_cast<size_t>(t)].push_back(static_cast<int>(v));
      }
    }
  }
  std::vector<bool> isRoot(n, false);
  for (int r : roots) {
    isRoot[static_cast<size_t>(r)] = true;
  }
  // Reached nodes, by a plain search.
  std::vector<bool> reached(n, false);
  std::vector<int> work(roots.begin(), roots.end());
  for (int r : roots) {
    reached[static_cast<size_t>(r)] = true;
  }
  while (!work.empty()) {
    int v = work.back();
    work.pop_back();
    for (int t : graph[static_cast<size_t>(v)]) {
      if (t != 0 && !reached[static_cast<size_t>(t)]) {
        reached[static_cast<size_t>(t)] = true;
        work.push_back(t);
      }
    }
  }
  std::vector<std::vector<bool>> dom(n, std::vector<bool>(n, true));
  dom[0].assign(n, false);
  dom[0][0] = true;
  for (bool changed = true; changed;) {
    changed = false;
    for (size_t v = 1; v < n; v++) {
      if (!reached[v]) {
        continue;
      }
      std::vector<bool> next(n, true);
      auto meet = [&](size_t p) {
        for (size_t k = 0; k < n; k++) {
          next[k] = next[k] && dom[p][k];
        }
      };
      if (isRoot[v]) {
        meet(0);  // the virtual root is a root's only predecessor that counts
      } else {
        for (int p : preds[v]) {
          if (reached[static_cast<size_t>(p)]) {
            meet(static_cast<size_t>(p));
          }
        }
      }
      next[v] = true;
      if (next != dom[v]) {
        dom[v] = next;
        changed = true;
      }
    }
  }
  // The immediate dominator is the strict dominator that every other strict dominator dominates.
  std::vector<int> idom(n, -1);
  for (size_t v = 1; v < n; v++) {
    if (!reached[v]) {
      continue;
    }
    for (size_t d = 0; d < n; d++) {
      if (d == v || !dom[v][d]) {
        continue;
      }
      bool immediate = true;
      for (size_t o = 0; o < n && immediate; o++) {
        if (o != v && o != d && dom[v][o] && !dom[d][o]) {
          immediate = false;
        }
      }
      if (immediate) {
        idom[v] = static_cast<int>(d);
      }
    }
  }
  return idom;
}

TEST(HeapAnalysisTest, PagedArrayAllocatesOnlyTouchedPagesAndWritesThemSparsely) {
  BigIntArray64 array(nullptr, "t", -1);
  EXPECT_EQ(-1, array.get(123456789));
  EXPECT_EQ(0, array.getAllocatedPageCount());
  EXPECT_EQ(-1 + 3, array.add(7, 3));  // an untouched element starts from the default
  array.set(1048576, 5);
  EXPECT_TRUE(array.isPageAllocated(0));
  EXPECT_TRUE(array.isPageAllocated(1));
  EXPECT_EQ(2, array.getAllocatedPageCount());
  EXPECT_EQ(-1, array.get(1048577));

  char path[] = "/tmp/kjp-bigarray-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_NE(-1, fd);
  {
    SnapshotWriter writer(fd, 4096, true);
    BigIntArray64 fresh(nullptr, "f", 0);
    fresh.writeArray(writer);
    BigIntArray64 one(nullptr, "o", 0);
    one.set(1048576 + 9, 42);
    one.writeArray(writer);
    writer.flush();
  }
  FILE* in = fdopen(fd, "rb");
  fseek(in, 0, SEEK_SET);
  std::vector<jint> words(8 + 4 + 1048576);
  size_t read = fread(words.data(), 4, words.size(), in);
  fclose(in);
  unlink(path);
  ASSERT_EQ(2u + 2u + 1048576u + 2u, read);
  EXPECT_EQ(-1, words[0]);
  EXPECT_EQ(-1, words[1]);
  EXPECT_EQ(1048576, words[2]);
  EXPECT_EQ(2097152, words[3]);
  EXPECT_EQ(42, words[4 + 9]);
  EXPECT_EQ(0, words[4 + 10]);
  EXPECT_EQ(-1, words[4 + 1048576]);
  EXPECT_EQ(-1, words[5 + 1048576]);

  BigIntArray64 filled(nullptr, "fill", 7);
  jint values[] = {7, 7, 8};
  fillArray(&filled, values, 3 * 1048576 - 1, 2);
  EXPECT_EQ(0, filled.getAllocatedPageCount());  // default values allocate nothing
  fillArray(&filled, values, 3 * 1048576 - 2, 3);
  EXPECT_EQ(1, filled.getAllocatedPageCount());
  EXPECT_EQ(8, filled.get(3 * 1048576));
}

TEST(HeapAnalysisTest, MappedArrayEvictsItsOldestPageAndKeepsTheValues) {
  BigIntArray32 array(2);
  const jint ints = BigIntArray32::PAGE_SIZE_BYTES / 4;
  for (jint page = 0; page < 5; page++) {
    array.set(static_cast<jlong>(page) * ints + 17, 1000 + page);
    EXPECT_LE(array.getMappedCount(), 2);
  }
  jlong missesBefore = BigIntArray32::ourPageMisses;
  for (jint page = 0; page < 5; page++) {
    EXPECT_EQ(1000 + page, array.get(static_cast<jlong>(page) * ints + 17));
  }
  EXPECT_GE(BigIntArray32::ourPageMisses - missesBefore, 3);  // pages 0..2 were evicted
  EXPECT_EQ(0, array.get(100L * ints));                        // beyond the file: nothing mapped

  int delta = 0;
  long mapped = 0;
  void* address = MemAllocator::map(array.getHandle(), 4096 + 100, 1000, &delta, &mapped, true);
  ASSERT_NE(nullptr, address);
  EXPECT_EQ(100, delta);
  EXPECT_EQ(1100, mapped);
  MemAllocator::unmap(address, mapped);

  // A file that may not grow further, as on a full disk: the array says so by an exception
  // rather than by a SIGBUS at the first write into a page that has no block behind it.
  rlimit oldLimit;
  getrlimit(RLIMIT_FSIZE, &oldLimit);
  rlimit small = oldLimit;
  small.rlim_cur = 1 << 20;
  sighandler_t oldHandler = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THROW(array.set(10L * ints, 1), LowDiskSpaceException);
  setrlimit(RLIMIT_FSIZE, &oldLimit);
  signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(1004, array.get(4L * ints + 17));

  KString saved = ourAlternateTempDirForBigIntArraysUtf8;
  ourAlternateTempDirForBigIntArraysUtf8 = "/nonexistent/kjp";
  EXPECT_THROW(BigIntArray32 unusable(1), LowDiskSpaceException);
  ourAlternateTempDirForBigIntArraysUtf8 = saved;
}

TEST(HeapAnalysisTest, DominatorsAgreeWithDataFlowOnRandomGraphs) {
  std::mt19937 random(20261125);
  for (int round = 0; round < 40; round++) {
    int n = 2 + static_cast<int>(random() % 120);
    int edgesPerNode = 1 + static_cast<int>(random() % 4);
    Graph graph(static_cast<size_t>(n));
    std::vector<int> sizes(static_cast<size_t>(n));
    for (int v = 1; v < n; v++) {
      sizes[static_cast<size_t>(v)] = 8 + static_cast<int>(random() % 100);
      int edges = static_cast<int>(random() % static_cast<unsigned>(2 * edgesPerNode + 1));
      for (int e = 0; e < edges; e++) {
        // Some nulls, some self references, mostly forward edges that make long paths.
        int t = random() % 10 == 0 ? 0 : 1 + static_cast<int>(random() % static_cast<unsigned>(n - 1));
        graph[static_cast<size_t>(v)].push_back(t);
      }
    }
    std::vector<int> roots;
    for (int r = 1 + static_cast<int>(random() % 3); r > 0; r--) {
      roots.push_back(1 + static_cast<int>(random() % static_cast<unsigned>(n - 1)));
    }
    std::vector<int> expected = dataFlowDominators(graph, roots);
    Analysed analysed(graph, sizes, roots);
    for (int v = 1; v < n; v++) {
      int want = expected[static_cast<size_t>(v)] == -1 ? 0 : expected[static_cast<size_t>(v)];
      ASSERT_EQ(want, analysed.dom(v)) << "round " << round << " node " << v;
      // Retained size: the node and every reached node it dominates.
      jlong retained = sizes[static_cast<size_t>(v)];
      if (expected[static_cast<size_t>(v)] != -1) {
        for (int x = 1; x < n; x++) {
          for (int d = expected[static_cast<size_t>(x)]; x != v && d > 0; d = expected[static_cast<size_t>(d)]) {
            if (d == v) {
              retained += sizes[static_cast<size_t>(x)];
              break;
            }
          }
        }
      }
      ASSERT_EQ(retained, analysed.storage.getRetainedSize(v)) << "round " << round << " node " << v;
    }
    // The sums from the dominators alone, bottom-up over the tree, are the same.
    std::vector<jlong> inOrder;
    for (int v = 1; v < n; v++) {
      inOrder.push_back(analysed.storage.getRetainedSize(v));
    }
    analysed.storage.myRetainedSizes.reset(0);
    analysed.storage.calculateRetainedSizes(nullptr);
    for (int v = 1; v < n; v++) {
      ASSERT_EQ(inOrder[static_cast<size_t>(v - 1)], analysed.storage.getRetainedSize(v)) << "node " << v;
    }
  }
}

TEST(HeapAnalysisTest, RootsUnreachableObjectsAndSharedObjects) {
  // 1 and 2 are roots; 1 -> 3 -> 4, 2 -> 4; 5 is a root referred to by 3; 6 -> 3 is garbage;
  // 7 is garbage alone.
  Graph graph = {{}, {3}, {4}, {4, 5}, {}, {}, {3}, {}};
  std::vector<int> sizes = {0, 10, 20, 30, 40, 50, 60, 70};
  Analysed a(graph, sizes, {1, 2, 5});
  EXPECT_EQ(0, a.dom(1));  // a root with no referrers
  EXPECT_EQ(0, a.dom(5));  // a root that an object refers to is still the virtual root's alone
  EXPECT_EQ(1, a.dom(3));  // garbage 6 refers to 3 and changes nothing
  EXPECT_EQ(0, a.dom(4));  // reached from two roots
  EXPECT_EQ(0, a.dom(6));
  EXPECT_EQ(0, a.dom(7));
  EXPECT_EQ(40, a.storage.getRetainedSize(1));  // 1 and 3; 4 is shared, 5 a root
  EXPECT_EQ(30, a.storage.getRetainedSize(3));
  EXPECT_EQ(40, a.storage.getRetainedSize(4));  // a leaf keeps its shallow size
  EXPECT_EQ(70, a.storage.getRetainedSize(7));

  // Root 2 left out by the marks: neither a node nor a referrer of 4, which only 3 holds now.
  Analysed without2(graph, sizes, {1, 2, 5}, {2});
  EXPECT_EQ(0, without2.dom(2));
  EXPECT_EQ(3, without2.dom(4));
  EXPECT_EQ(10 + 30 + 40, without2.storage.getRetainedSize(1));
  EXPECT_EQ(20, without2.storage.getRetainedSize(2));

  std::vector<jint> bits(static_cast<size_t>(a.storage.getBitSetLength()), 0);
  EXPECT_EQ(0, sumShallowSizes(&a.storage, bits.data()));
  markReachable(nullptr, &a.storage, 6, bits.data());
  EXPECT_EQ(60 + 30 + 40 + 50, sumShallowSizes(&a.storage, bits.data()));
  EXPECT_FALSE(isMarked(bits.data(), 1));
}

TEST(HeapAnalysisTest, RetainedSizesAbove4GBKeepTheirHighHalf) {
  Graph graph = {{}, {2, 3, 4}, {}, {}, {}};
  std::vector<int> sizes = {0, 16, 0x7FFFFFF0, 0x7FFFFFF0, 0x7FFFFFF0};
  Analysed a(graph, sizes, {1});
  EXPECT_EQ(16 + 3 * static_cast<jlong>(0x7FFFFFF0), a.storage.getRetainedSize(1));
}

TEST(HeapAnalysisTest, TenMillionChainNeedsNoDeepStack) {
  // Any recursion per object, in the search or in the path compression, would overflow the
  // thread's stack ten million levels deep.
  const jint n = 10000000;
  ObjectStorage storage(nullptr, n + 1, true);
  for (jint i = 1; i <= n; i++) {
    storage.createClass(nullptr, i, 16, 0, i < n ? 1 : 0);
    if (i < n) {
      storage.myRefs.setRef(i, i + 1, 0);
    }
  }
  std::vector<jint> all(static_cast<size_t>(storage.getBitSetLength()), -1);
  std::vector<jint> counts(static_cast<size_t>(n) + 1, 0);
  storage.myBackRefTable = buildBackReferences(nullptr, &storage, all.data(), counts.data());
  jint root = 1;
  computeDominatorsAndRetainedSizes(nullptr, &storage, &root, 1, all.data());
  EXPECT_EQ(0, storage.myDominators.get(1));
  EXPECT_EQ(n - 1, storage.myDominators.get(n));
  EXPECT_EQ(16L * n, storage.getRetainedSize(1));
  EXPECT_EQ(16L * (n / 2 + 1), storage.getRetainedSize(n / 2));
}

TEST(HeapAnalysisTest, OIDRanks) {
  OIDProcessor wide(true, 4);
  jlong ids[] = {900, 5, 1LL << 40, 77};
  for (jlong id : ids) {
    wide.processOID(id);
  }
  wide.convertOIDsToIndices();
  EXPECT_EQ(1, wide.getIndex(5));
  EXPECT_EQ(2, wide.getIndex(77));
  EXPECT_EQ(4, wide.getIndex(1LL << 40));
  EXPECT_EQ(0, wide.getIndex(6));

  OIDProcessor narrow(false, 3);
  narrow.processOID((1LL << 33) + 12);  // the same id as 12 once cut to 32 bits
  narrow.processOID(12);
  narrow.processOID(-3);
  narrow.convertOIDsToIndices();
  EXPECT_EQ(1, narrow.getIndex(-3));
  jint twelve = narrow.getIndex(12);
  EXPECT_TRUE(twelve == 2 || twelve == 3);
  EXPECT_EQ(twelve, narrow.getIndex((1LL << 35) + 12));
}

TEST(HeapAnalysisTest, MarkerReadersDropGoneProcessesAndFilterByType) {
  key_t key = 0x4B4A0000 + (getpid() & 0xFFFF);
  MarkerEntry* block = attachMarkerBlock(key);
  if (block == nullptr) {
    GTEST_SKIP() << "no System V shared memory here";
  }
  memset(block, 0, MARKER_BLOCK_SIZE);
  pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  waitpid(child, nullptr, 0);  // gone: its entry must be cleared by the reader
  createMarkerInBlock(key, 0, 1);
  createMarkerInBlock(key, 10001, 5);
  createMarkerInBlock(key, 65535, 8);
  block[10002].myPid = static_cast<jint>(child);
  block[10002].myType = 1;

  KVector<jint> java(4);
  collectMarkedPorts(block, 1, &java);
  ASSERT_EQ(2, java.size());
  EXPECT_EQ(0, java[0]);
  EXPECT_EQ(10001, java[1]);
  EXPECT_EQ(0, block[10002].myPid);
  EXPECT_EQ(1, block[10002].myType);  // the type stays as it was

  KVector<jint> withPlugin(4);
  collectMarkedPorts(block, 9, &withPlugin);
  EXPECT_EQ(3, withPlugin.size());

  clearIISMarker(block, 10001);
  EXPECT_EQ(1, block[10001].myType);
  KVector<jint> iis(4);
  collectMarkedPorts(block, 4, &iis);
  EXPECT_EQ(0, iis.size());

  int id = shmget(key, MARKER_BLOCK_SIZE, 0666);
  shmdt(block);
  shmctl(id, IPC_RMID, nullptr);
}

}  // namespace
