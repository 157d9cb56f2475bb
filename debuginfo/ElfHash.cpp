// Open-addressing hash table of the debug layers; see ElfHash.h.
#include "debuginfo/ElfHash.h"

#include <cstdlib>
#include <cstring>

I32 ELF_NextHashSize(I64 n) {
  if (n < 100)
    return 97;
  if (n < 1000)
    return 997;
  if (n < 10000)
    return 9967;
  if (n < 100000)
    return 99991;
  if (n < 1000000)
    return 999983;
  double d = (double)n * 1.33333;
  return d > 2000000000.0 ? 2000000000 : (I32)d;
}

ELF_HASH_TABLE* ELF_HashCreate(I32 size, I32 depth, I32 valueKind) {
  if (size < 3)
    size = 3;  // the probe step divides by size - 2
  ELF_HASH_TABLE* pTable = (ELF_HASH_TABLE*)calloc(1, sizeof(ELF_HASH_TABLE));
  if (!pTable)
    return nullptr;
  pTable->buckets = (ELF_HASH_BUCKET*)calloc((size_t)size, sizeof(ELF_HASH_BUCKET));
  if (!pTable->buckets) {
    free(pTable);
    return nullptr;
  }
  pTable->size = size;
  pTable->depth = depth > 0 ? depth : 10;
  pTable->valueKind = valueKind;
  return pTable;
}

static bool _BucketAppend(ELF_HASH_BUCKET* pBucket, U64 key, U64 value) {
  // Buckets grow one entry at a time; a bucket rarely holds more than a few.
  U64* paValues = (U64*)realloc(pBucket->values, sizeof(U64) * (size_t)(pBucket->n + 1));
  if (!paValues)
    return false;
  pBucket->values = paValues;
  U64* paKeys = (U64*)realloc(pBucket->keys, sizeof(U64) * (size_t)(pBucket->n + 1));
  if (!paKeys)
    return false;
  pBucket->keys = paKeys;
  pBucket->values[pBucket->n] = value;
  pBucket->keys[pBucket->n] = key;
  pBucket->n++;
  return true;
}

static int _Insert(ELF_HASH_TABLE* pTable, U64 key, U64 value, bool multi);

static int _Grow(ELF_HASH_TABLE* pTable) {
  I32 newSize = ELF_NextHashSize((I64)pTable->size * 2);
  if (newSize <= pTable->size)
    return -1;
  ELF_HASH_TABLE bigger = *pTable;
  bigger.buckets = (ELF_HASH_BUCKET*)calloc((size_t)newSize, sizeof(ELF_HASH_BUCKET));
  if (!bigger.buckets)
    return -1;
  bigger.size = newSize;
  bigger.count = 0;
  // Re-inserting in bucket order keeps the values of one key in their order, since a multi-value
  // key lives in one bucket.
  for (I32 i = 0; i < pTable->size; i++) {
    ELF_HASH_BUCKET* pOld = &pTable->buckets[i];
    for (I32 j = 0; j < pOld->n; j++) {
      if (_Insert(&bigger, pOld->keys[j], pOld->values[j], pTable->multi != 0) < 0) {
        for (I32 k = 0; k < bigger.size; k++) {
          free(bigger.buckets[k].values);
          free(bigger.buckets[k].keys);
        }
        free(bigger.buckets);
        return -1;
      }
    }
  }
  for (I32 i = 0; i < pTable->size; i++) {
    free(pTable->buckets[i].values);
    free(pTable->buckets[i].keys);
  }
  free(pTable->buckets);
  pTable->buckets = bigger.buckets;
  pTable->size = bigger.size;
  pTable->count = bigger.count;
  return 0;
}

// Probes the bucket sequence of a key. Put semantics: the key's entry is replaced, or the first
// bucket with room takes it. Add semantics: a bucket holds one key only, so that all values of a key
// lie together. Returns 1 stored, 0 no bucket found, -1 out of memory.
static int _TryInsert(ELF_HASH_TABLE* pTable, U64 key, U64 value, bool multi) {
  U64 size = (U64)pTable->size;
  U64 index = key % size;
  U64 step = key % (size - 2);
  for (U64 probe = 0; probe < size; probe++) {
    ELF_HASH_BUCKET* pBucket = &pTable->buckets[index];
    if (multi) {
      if (pBucket->n < pTable->depth && (pBucket->n == 0 || pBucket->keys[0] == key)) {
        if (!_BucketAppend(pBucket, key, value))
          return -1;
        pTable->count++;
        return 1;
      }
    } else {
      for (I32 j = 0; j < pBucket->n; j++) {
        if (pBucket->keys[j] == key) {
          pBucket->values[j] = value;
          return 1;
        }
      }
      if (pBucket->n < pTable->depth) {
        if (!_BucketAppend(pBucket, key, value))
          return -1;
        pTable->count++;
        return 1;
      }
    }
    index = (index + step + 1) % size;
  }
  return 0;
}

static int _Insert(ELF_HASH_TABLE* pTable, U64 key, U64 value, bool multi) {
  if (!pTable)
    return -1;
  for (int attempt = 0; attempt < 64; attempt++) {
    if ((I64)pTable->size * pTable->depth <= pTable->count && _Grow(pTable) < 0)
      return -1;
    int r = _TryInsert(pTable, key, value, multi);
    if (r != 0)
      return r > 0 ? 0 : -1;
    if (_Grow(pTable) < 0)
      return -1;
  }
  return -1;
}

int ELF_HashPut(ELF_HASH_TABLE* pTable, U64 key, U64 value) {
  return _Insert(pTable, key, value, false);
}

int ELF_HashAdd(ELF_HASH_TABLE* pTable, U64 key, U64 value) {
  if (pTable)
    pTable->multi = 1;
  return _Insert(pTable, key, value, true);
}

// The bucket that holds the key (its first key for multi-value tables), or null.
static const ELF_HASH_BUCKET* _Find(const ELF_HASH_TABLE* pTable, U64 key, I32* pEntry, bool firstKeyOnly) {
  if (!pTable)
    return nullptr;
  U64 size = (U64)pTable->size;
  U64 index = key % size;
  U64 step = key % (size - 2);
  for (U64 probe = 0; probe < size; probe++) {
    const ELF_HASH_BUCKET* pBucket = &pTable->buckets[index];
    if (pBucket->n == 0)
      return nullptr;
    I32 nTest = firstKeyOnly ? 1 : pBucket->n;
    for (I32 j = 0; j < nTest; j++) {
      if (pBucket->keys[j] == key) {
        *pEntry = j;
        return pBucket;
      }
    }
    index = (index + step + 1) % size;
  }
  return nullptr;
}

U64 ELF_HashGet(const ELF_HASH_TABLE* pTable, U64 key) {
  I32 entry = 0;
  const ELF_HASH_BUCKET* pBucket = _Find(pTable, key, &entry, false);
  return pBucket ? pBucket->values[entry] : 0;
}

bool ELF_HashHas(const ELF_HASH_TABLE* pTable, U64 key) {
  I32 entry = 0;
  return _Find(pTable, key, &entry, false) != nullptr;
}

const U64* ELF_HashGetAll(const ELF_HASH_TABLE* pTable, U64 key, I32* pn) {
  I32 entry = 0;
  const ELF_HASH_BUCKET* pBucket = _Find(pTable, key, &entry, true);
  *pn = pBucket ? pBucket->n : 0;
  return pBucket ? pBucket->values : nullptr;
}

I32 ELF_HashCount(const ELF_HASH_TABLE* pTable, U64 key) {
  I32 n = 0;
  ELF_HashGetAll(pTable, key, &n);
  return n;
}

void ELF_HashFree(ELF_HASH_TABLE* pTable, void (*pfReleaseDie)(void* pContext, U64 value), void* pContext) {
  if (!pTable)
    return;
  for (I32 i = 0; i < pTable->size; i++) {
    ELF_HASH_BUCKET* pBucket = &pTable->buckets[i];
    for (I32 j = 0; j < pBucket->n; j++) {
      U64 value = pBucket->values[j];
      switch (pTable->valueKind) {
        case ELF_HASH_STRINGS:
        case ELF_HASH_BLOCKS:
          free((void*)(uintptr_t)value);
          break;
        case ELF_HASH_DIES:
          if (pfReleaseDie && value)
            pfReleaseDie(pContext, value);
          break;
        case ELF_HASH_RECORDS:
          if (value) {
            free(((ELF_HASH_RECORD*)(uintptr_t)value)->items);
            free((void*)(uintptr_t)value);
          }
          break;
        default:
          break;
      }
    }
    free(pBucket->values);
    free(pBucket->keys);
  }
  free(pTable->buckets);
  free(pTable);
}

int ELF_RecordAppend(ELF_HASH_RECORD** ppRecord, U64 item) {
  if (!*ppRecord) {
    *ppRecord = (ELF_HASH_RECORD*)calloc(1, sizeof(ELF_HASH_RECORD));
    if (!*ppRecord)
      return -1;
  }
  ELF_HASH_RECORD* pRecord = *ppRecord;
  if (pRecord->n == pRecord->capacity) {
    I32 newCapacity = pRecord->capacity ? pRecord->capacity * 2 : 4;
    U64* paItems = (U64*)realloc(pRecord->items, sizeof(U64) * (size_t)newCapacity);
    if (!paItems)
      return -1;
    pRecord->items = paItems;
    pRecord->capacity = newCapacity;
  }
  pRecord->items[pRecord->n++] = item;
  return 0;
}
