#ifndef KJP_KSET_H
#define KJP_KSET_H

#include "agent/KHashTable.h"

// Open-addressing hash set; the same table as KMap without the values.
template <class Key>
class KSet : public KHashTable<Key, char, false> {
 public:
  explicit KSet(jint initialCapacity) : KHashTable<Key, char, false>(initialCapacity) {}

  void add(Key key) { this->store(key, nullptr); }

  bool contains(Key key) const {
    KASSERT_TEXT(!kmap_isNull(key), "key != 0");
    return this->get_index(key) >= 0;
  }
};

#endif
