#include <gtest/gtest.h>

#include <set>

#include "agent/KMap.h"
#include "agent/KSet.h"
#include "agent/PrimeFinder.h"

namespace {

TEST(PrimeFinderTest, TableIsAscendingPrimesEndingAtLargest) {
  ASSERT_EQ(245, PrimeFinder::PRIME_CAPACITIES_COUNT);
  EXPECT_EQ(3, PrimeFinder::PRIME_CAPACITIES[0]);
  EXPECT_EQ(PrimeFinder::LARGEST_PRIME, PrimeFinder::PRIME_CAPACITIES[244]);
  for (int i = 1; i < PrimeFinder::PRIME_CAPACITIES_COUNT; i++) {
    ASSERT_LT(PrimeFinder::PRIME_CAPACITIES[i - 1], PrimeFinder::PRIME_CAPACITIES[i]);
  }
  // Spot-check primality of the small ones; the large ones are checked by trial division up
  // to the square root, which is quick enough for a table this size.
  for (int i = 0; i < PrimeFinder::PRIME_CAPACITIES_COUNT; i++) {
    long p = PrimeFinder::PRIME_CAPACITIES[i];
    for (long d = 2; d * d <= p; d++) {
      ASSERT_NE(0, p % d) << p << " is not prime";
    }
  }
}

TEST(PrimeFinderTest, BinarySearchGivesIndexOrComplementOfInsertionPoint) {
  EXPECT_EQ(0, PrimeFinder::binary_search(3));
  EXPECT_EQ(~0, PrimeFinder::binary_search(1));
  EXPECT_EQ(14, PrimeFinder::binary_search(137));
  EXPECT_EQ(~14, PrimeFinder::binary_search(100));
  EXPECT_EQ(244, PrimeFinder::binary_search(2147483647));
  EXPECT_EQ(137, PrimeFinder::next_prime(101));
  EXPECT_EQ(277, PrimeFinder::next_prime(256));
  EXPECT_EQ(3, PrimeFinder::next_prime(-5));
}

TEST(KHashFunctionsTest, HashFamilies) {
  EXPECT_EQ(663608941, kmap_hashCode(1));
  EXPECT_EQ(static_cast<jint>(2u * 663608941u), kmap_hashCode(2));
  // Only the low 32 bits of a long count.
  EXPECT_EQ(kmap_hashCode(5), kmap_hashCode(static_cast<jlong>(5) | (static_cast<jlong>(7) << 32)));
  EXPECT_FALSE(kmap_equal(static_cast<jlong>(5), static_cast<jlong>(5) | (static_cast<jlong>(7) << 32)));
  // Strings hash like java.lang.String over sign-extended bytes.
  EXPECT_EQ(0, kmap_hashCode(static_cast<const char*>(nullptr)));
  EXPECT_EQ(0, kmap_hashCode(""));
  EXPECT_EQ(96354, kmap_hashCode("abc"));
  EXPECT_EQ(-62, kmap_hashCode("\xc2"));
  char a[] = "text";
  char b[] = "text";
  EXPECT_TRUE(kmap_equal(static_cast<const char*>(a), static_cast<const char*>(b)));
  int x = 0;
  EXPECT_EQ(static_cast<jint>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&x)) * 663608941u),
            kmap_hashCode(&x));
}

TEST(KMapTest, CapacityComesFromThePrimeTable) {
  KMap<int, int> map(100);
  EXPECT_EQ(137, map._capacity);
  EXPECT_EQ(82, map._maxSize);
  EXPECT_EQ(137, map._free);
  EXPECT_DOUBLE_EQ(0.6000000238418579, map._loadFactor);
  KSet<int> set(256);
  EXPECT_EQ(277, set._capacity);
  EXPECT_EQ(166, set._maxSize);
  KSet<int> tiny(1);
  EXPECT_EQ(3, tiny._capacity);
  EXPECT_EQ(1, tiny._maxSize);
}

TEST(KMapTest, PutGetAndReplace) {
  KMap<int, int> map(10);
  map.put(5, 50);
  map.put(6, 60);
  int sizeBefore = map.size();
  int freeBefore = map._free;
  map.put(5, 55);
  EXPECT_EQ(sizeBefore, map.size());
  EXPECT_EQ(freeBefore, map._free);
  int value = 0;
  ASSERT_TRUE(map.get(5, &value));
  EXPECT_EQ(55, value);
  EXPECT_FALSE(map.get(7, &value));
  EXPECT_TRUE(map.containsKey(6));
  EXPECT_EQ(-1, map.get_index(99));
}

TEST(KMapTest, GrowsPastMaxSizeToTheNextPrimeOfDoubleCapacity) {
  KMap<int, int> map(3);  // 3 slots, max size 1
  map.put(1, 1);
  EXPECT_EQ(3, map._capacity);
  map.put(2, 2);  // size 2 > max size 1: grow to the prime at or above 6
  EXPECT_EQ(7, map._capacity);
  EXPECT_EQ(4, map._maxSize);
  EXPECT_EQ(5, map._free);
  for (int i = 3; i <= 1000; i++) {
    map.put(i, i * 2);
  }
  EXPECT_EQ(1000, map.size());
  for (int i = 1; i <= 1000; i++) {
    int value = 0;
    ASSERT_TRUE(map.get(i, &value)) << i;
    ASSERT_EQ(i == 1 ? 1 : i == 2 ? 2 : i * 2, value);
  }
  EXPECT_LE(map.size(), map._maxSize);
}

// Keys with the same home slot and the same probe step, so they walk one probe sequence;
// found by search so that the test does not depend on hand-computed arithmetic.
static void collidingKeys(jint capacity, int count, int* out) {
  int found = 0;
  jint home = -1;
  jint step = -1;
  for (int key = 1; found < count; key++) {
    uint32_t h = static_cast<uint32_t>(kmap_hashCode(key)) & 0x7FFFFFFFu;
    jint slot = static_cast<jint>(h % static_cast<uint32_t>(capacity));
    jint keyStep = 1 + static_cast<jint>(h % static_cast<uint32_t>(capacity - 2));
    if (home == -1) {
      home = slot;
      step = keyStep;
    }
    if (slot == home && keyStep == step) {
      out[found++] = key;
    }
  }
}

TEST(KSetTest, RemovedSlotIsReusedOnlyAfterTheKeyIsKnownAbsent) {
  KSet<int> set(100);
  int keys[4];
  collidingKeys(set._capacity, 4, keys);
  set.add(keys[0]);  // home slot
  set.add(keys[1]);  // first probe position
  set.add(keys[2]);  // second probe position
  jint secondSlot = set.get_index(keys[1]);
  ASSERT_TRUE(set.remove(keys[1]));
  EXPECT_EQ(KMAP_REMOVED, set._states[secondSlot]);
  EXPECT_EQ(2, set.size());
  jint freeAfterRemove = set._free;
  // keys[2] lies behind the tombstone and must still be found; adding it again finds it
  // instead of putting a duplicate into the tombstone.
  EXPECT_TRUE(set.contains(keys[2]));
  set.add(keys[2]);
  EXPECT_EQ(2, set.size());
  EXPECT_EQ(KMAP_REMOVED, set._states[secondSlot]);
  // A new key whose probe path crosses the tombstone takes it, and free stays the same.
  set.add(keys[3]);
  EXPECT_EQ(KMAP_FULL, set._states[secondSlot]);
  EXPECT_EQ(keys[3], set._keys[secondSlot]);
  EXPECT_EQ(freeAfterRemove, set._free);
  EXPECT_EQ(3, set.size());
}

TEST(KSetTest, RemovedHomeSlotIsSkippedLikeAFullOne) {
  KSet<int> set(100);
  int keys[2];
  collidingKeys(set._capacity, 2, keys);
  set.add(keys[0]);
  jint home = set.get_index(keys[0]);
  set.remove(keys[0]);
  set.add(keys[1]);
  EXPECT_EQ(KMAP_REMOVED, set._states[home]);
  EXPECT_NE(home, set.get_index(keys[1]));
}

TEST(KSetTest, TombstonesForceARebuildWhenFreeRunsOut) {
  KSet<int> set(10);  // 11 slots, max size 6
  jint initialCapacity = set._capacity;
  // Size never exceeds 1, yet each new key may use up a free slot.
  for (int key = 1;; key++) {
    ASSERT_LT(key, 1000) << "the table never grew";
    set.add(key);
    if (set._capacity != initialCapacity) {
      break;
    }
    ASSERT_TRUE(set.remove(key));
  }
  EXPECT_EQ(1, set.size());
  EXPECT_EQ(23, set._capacity);
  for (int i = 0; i < set._capacity; i++) {
    EXPECT_NE(KMAP_REMOVED, set._states[i]) << "rehash must clear tombstones";
  }
  EXPECT_EQ(22, set._free);
}

TEST(KSetTest, RandomOperationsAgreeWithAReferenceSet) {
  KSet<jlong> set(7);
  std::set<jlong> reference;
  uint64_t seed = 12345;
  for (int step = 0; step < 200000; step++) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    jlong key = static_cast<jlong>((seed >> 33) % 5000) + 1;
    if ((seed >> 20) & 1) {
      set.add(key);
      reference.insert(key);
    } else {
      EXPECT_EQ(reference.erase(key) == 1, set.remove(key));
    }
    ASSERT_EQ(static_cast<jint>(reference.size()), set.size());
  }
  for (jlong key = 1; key <= 5000; key++) {
    ASSERT_EQ(reference.count(key) == 1, set.contains(key)) << key;
  }
  int full = 0;
  for (int i = 0; i < set._capacity; i++) {
    full += set._states[i] == KMAP_FULL;
  }
  EXPECT_EQ(set.size(), full);
}

TEST(KMapTest, StringKeysCompareByContent) {
  KMap<const char*, int> map(16);
  map.put("alpha", 1);
  char probe[] = "alpha";
  EXPECT_TRUE(map.containsKey(probe));
  EXPECT_STREQ("alpha", map.getExisting(probe));
  EXPECT_EQ(nullptr, map.getExisting("beta"));
}

TEST(KMapDeathTest, ZeroKeyCannotBeLookedUp) {
  EXPECT_DEATH(
      {
        KSet<int> set(10);
        set.contains(0);
      },
      "key != 0");
  EXPECT_DEATH(
      {
        KSet<int> set(10);
        set.get_index(0);
      },
      "key != 0");
  EXPECT_DEATH(
      {
        KSet<const char*> map(10);
        map.contains(nullptr);
      },
      "key != 0");
}

}  // namespace
