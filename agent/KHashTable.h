#ifndef KJP_KHASHTABLE_H
#define KJP_KHASHTABLE_H

#include <jni.h>
#include <stdint.h>
#include <string.h>

#include "agent/KAssert.h"
#include "agent/KHashFunctions.h"
#include "agent/PrimeFinder.h"

// Slot states, one byte a slot, kept apart from the keys so that a probe reads a key only
// in a FULL slot.
const unsigned char KMAP_FREE = 0;
const unsigned char KMAP_FULL = 1;
const unsigned char KMAP_REMOVED = 2;

// The open-addressing table shared by KMap and KSet: double hashing stepping downwards over
// a prime number of slots, tombstones on removal, growth when the table is too full or has
// no free slot left. KSet instantiates it without a values array.
//
// The slot arrays are public: callers iterate by walking slots 0.._capacity-1 and skipping
// every slot that isn't FULL.
template <class Key, class Value, bool HAS_VALUES>
class KHashTable {
 public:
  jint _initialCapacity;
  jint _capacity;
  Key* _keys;
  Value* _values;
  unsigned char* _states;
  jint _size;
  jint _free;
  jint _maxSize;
  double _loadFactor;

  explicit KHashTable(jint initialCapacity)
      : _initialCapacity(initialCapacity), _capacity(0), _keys(nullptr), _values(nullptr), _states(nullptr),
        _size(0), _free(0), _maxSize(0), _loadFactor(0) {
    init();
  }

  ~KHashTable() { freeArrays(_keys, _values, _states); }

  KHashTable(const KHashTable&) = delete;
  KHashTable& operator=(const KHashTable&) = delete;

  // Empties the table and sizes it for the asked-for initial capacity.
  void init() {
    KASSERT(_initialCapacity > 0);
    freeArrays(_keys, _values, _states);
    _size = 0;
    // The float 0.6 widened to double, kept so because it feeds the truncated max size.
    _loadFactor = static_cast<double>(0.6f);
    jint index = PrimeFinder::binary_search(_initialCapacity);
    if (index < 0) {
      index = ~index;
    }
    _capacity = PrimeFinder::PRIME_CAPACITIES[index];
    compute_max_size(_capacity);
    allocateArrays(_capacity);
  }

  jint size() const { return _size; }
  jint capacity() const { return _capacity; }
  bool isEmpty() const { return _size == 0; }

  void compute_max_size(jint capacity) {
    KASSERT(capacity > 0);
    jint byLoad = static_cast<jint>(capacity * _loadFactor);
    _maxSize = capacity - 1 < byLoad ? capacity - 1 : byLoad;
    _free = capacity - _size;
  }

  // A slot to store the key at, or the complement of the slot that already holds it. An
  // insert reuses the first tombstone after the home slot, but only once the key is known
  // to be absent further along the probe sequence.
  jint insertion_index(Key key) const {
    uint32_t hash = static_cast<uint32_t>(kmap_hashCode(key)) & 0x7FFFFFFFu;
    jint index = static_cast<jint>(static_cast<uint64_t>(hash) % static_cast<uint64_t>(_capacity));
    unsigned char state = _states[index];
    if (state == KMAP_FREE) {
      return index;
    }
    if (state == KMAP_FULL && kmap_equal(_keys[index], key)) {
      return ~index;
    }
    jint step = probeStep(hash);
    do {
      index -= step;
      if (index < 0) {
        index += _capacity;
      }
      state = _states[index];
    } while (state == KMAP_FULL && !kmap_equal(_keys[index], key));

    if (state == KMAP_REMOVED) {
      jint firstRemoved = index;
      while (state != KMAP_FREE && (state == KMAP_REMOVED || !kmap_equal(_keys[index], key))) {
        index -= step;
        if (index < 0) {
          index += _capacity;
        }
        state = _states[index];
      }
      if (state == KMAP_FULL) {
        return ~index;
      }
      index = firstRemoved;
    } else if (state == KMAP_FULL) {
      return ~index;
    }
    KASSERT(index >=0 && index < _capacity);
    return index;
  }

  // The slot holding the key, or -1.
  jint get_index(Key key) const {
    KASSERT_TEXT(!kmap_isNull(key), "key != 0");
    uint32_t hash = static_cast<uint32_t>(kmap_hashCode(key)) & 0x7FFFFFFFu;
    jint index = static_cast<jint>(static_cast<uint64_t>(hash) % static_cast<uint64_t>(_capacity));
    unsigned char state = _states[index];
    if (state != KMAP_FREE && (state == KMAP_REMOVED || !kmap_equal(_keys[index], key))) {
      jint step = probeStep(hash);
      do {
        index -= step;
        if (index < 0) {
          index += _capacity;
        }
        state = _states[index];
      } while (state != KMAP_FREE && (state == KMAP_REMOVED || !kmap_equal(_keys[index], key)));
    }
    KASSERT(index >=0 && index < _capacity);
    return state == KMAP_FREE ? -1 : index;
  }

  // The stored key equal to the argument, or a zero key when there is none.
  Key getExisting(Key key) const {
    jint index = get_index(key);
    return index < 0 ? Key() : _keys[index];
  }

  // Leaves a tombstone; the free count stays, so enough removals end in a rebuild.
  bool remove(Key key) {
    jint index = get_index(key);
    if (index < 0) {
      return false;
    }
    _size--;
    _states[index] = KMAP_REMOVED;
    _keys[index] = Key();
    return true;
  }

  void rehash(jint newCapacity) {
    jint oldCapacity = _capacity;
    Key* oldKeys = _keys;
    Value* oldValues = _values;
    unsigned char* oldStates = _states;
    _capacity = newCapacity;
    _keys = nullptr;
    _values = nullptr;
    _states = nullptr;
    allocateArrays(newCapacity);
    for (jint i = oldCapacity - 1; i >= 0; i--) {
      if (oldStates[i] == KMAP_FULL) {
        jint index = insertion_index(oldKeys[i]);
        _keys[index] = oldKeys[i];
        if constexpr (HAS_VALUES) {
          _values[index] = oldValues[i];
        }
        _states[index] = KMAP_FULL;
      }
    }
    freeArrays(oldKeys, oldValues, oldStates);
  }

 protected:
  // Stores at a slot from insertion_index and grows when needed. Returns the slot used, which
  // is only valid until the next change when the table grew.
  void store(Key key, const Value* value) {
    jint index = insertion_index(key);
    if (index < 0) {
      index = ~index;
      _keys[index] = key;
      if constexpr (HAS_VALUES) {
        _values[index] = *value;
      }
      return;
    }
    unsigned char previous = _states[index];
    _keys[index] = key;
    _states[index] = KMAP_FULL;
    if constexpr (HAS_VALUES) {
      _values[index] = *value;
    }
    if (previous == KMAP_FREE) {
      _free--;
    }
    _size++;
    if (_size > _maxSize || _free == 0) {
      int64_t doubled = static_cast<int64_t>(_capacity) * 2;
      jint wanted = doubled > PrimeFinder::LARGEST_PRIME ? PrimeFinder::LARGEST_PRIME : static_cast<jint>(doubled);
      jint primeIndex = PrimeFinder::binary_search(wanted);
      if (primeIndex < 0) {
        primeIndex = ~primeIndex;
      }
      rehash(PrimeFinder::PRIME_CAPACITIES[primeIndex]);
      compute_max_size(_capacity);
    }
  }

 private:
  jint probeStep(uint32_t hash) const {
    return 1 + static_cast<jint>(static_cast<uint64_t>(hash) % static_cast<uint64_t>(_capacity - 2));
  }

  void allocateArrays(jint capacity) {
    _keys = new Key[capacity];
    if constexpr (HAS_VALUES) {
      _values = new Value[capacity];
    }
    _states = new unsigned char[capacity];
    memset(_states, KMAP_FREE, static_cast<size_t>(capacity));
  }

  static void freeArrays(Key* keys, Value* values, unsigned char* states) {
    delete[] keys;
    delete[] values;
    delete[] states;
  }
};

#endif
