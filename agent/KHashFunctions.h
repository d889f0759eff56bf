#ifndef KJP_KHASHFUNCTIONS_H
#define KJP_KHASHFUNCTIONS_H

#include <jni.h>
#include <stdint.h>
#include <string.h>

// Hash, equality and "reserved key" tests for the key types of KMap and KSet. A struct key
// type declares the same three overloads next to itself; they are found at instantiation.

const uint32_t KMAP_HASH_MULTIPLIER = 663608941u;

inline jint kmap_hashCode(jint value) {
  return static_cast<jint>(static_cast<uint32_t>(value) * KMAP_HASH_MULTIPLIER);
}
inline bool kmap_equal(jint a, jint b) { return a == b; }
inline bool kmap_isNull(jint value) { return value == 0; }

// Only the low 32 bits take part: ids and tags keep their entropy there.
inline jint kmap_hashCode(jlong value) {
  return static_cast<jint>(static_cast<uint32_t>(value) * KMAP_HASH_MULTIPLIER);
}
inline bool kmap_equal(jlong a, jlong b) { return a == b; }
inline bool kmap_isNull(jlong value) { return value == 0; }

template <class T>
inline jint kmap_hashCode(T* pointer) {
  return static_cast<jint>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer)) * KMAP_HASH_MULTIPLIER);
}
template <class T>
inline bool kmap_equal(T* a, T* b) { return a == b; }
template <class T>
inline bool kmap_isNull(T* pointer) { return pointer == nullptr; }

// Strings are keyed by content, with the same hash as java.lang.String over bytes, each
// byte sign-extended.
inline jint kmap_hashCode(const char* text) {
  uint32_t h = 0;
  if (text != nullptr) {
    for (const char* p = text; *p != 0; p++) {
      h = 31u * h + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
    }
  }
  return static_cast<jint>(h);
}
inline bool kmap_equal(const char* a, const char* b) { return strcmp(a, b) == 0; }
inline bool kmap_isNull(const char* text) { return text == nullptr; }

#endif
