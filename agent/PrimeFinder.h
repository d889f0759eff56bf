#ifndef KJP_PRIMEFINDER_H
#define KJP_PRIMEFINDER_H

#include <jni.h>

class PrimeFinder {
 public:
  static constexpr jint PRIME_CAPACITIES_COUNT = 245;
  static constexpr jint LARGEST_PRIME = 2147483647;
  static const jint PRIME_CAPACITIES[PRIME_CAPACITIES_COUNT];

  // Index of n in the table, or the bitwise complement of where it would be inserted.
  static jint binary_search(jint n);
  // The smallest table prime not below n.
  static jint next_prime(jint n);
};

#endif
