#ifndef KJP_KMAP_H
#define KJP_KMAP_H

#include "agent/KHashTable.h"

// Open-addressing hash map. The key 0 (or a null pointer) is reserved and can't be looked
// up; put() doesn't check it, so owners never store one.
template <class Key, class Value>
class KMap : public KHashTable<Key, Value, true> {
 public:
  explicit KMap(jint initialCapacity) : KHashTable<Key, Value, true>(initialCapacity) {}

  void put(Key key, Value value) { this->store(key, &value); }

  bool containsKey(Key key) const {
    KASSERT_TEXT(!kmap_isNull(key), "key != 0");
    return this->get_index(key) >= 0;
  }

  // Copies the value of the key to *out; false when the key is absent.
  bool get(Key key, Value* out) const {
    jint index = this->get_index(key);
    if (index < 0) {
      return false;
    }
    *out = this->_values[index];
    return true;
  }
};

#endif
