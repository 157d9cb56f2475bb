// The one associative container of the debug layers: an open-addressing table of small buckets,
// keyed by a 64-bit DIE identifier, holding 64-bit values. No removal, no iteration order.
#pragma once

#include "app/base/Types.h"

// What ELF_HashFree does with the values: only the owner of the values frees them.
enum ELF_HASH_VALUE_KIND : I32 {
  ELF_HASH_STRINGS = 250,  // each value is a malloc'ed string
  ELF_HASH_DIES = 251,     // each value is a DIE, released through the release function
  ELF_HASH_BLOCKS = 252,   // each value is a malloc'ed block
  ELF_HASH_PLAIN = 254,    // numbers, or pointers owned elsewhere
  ELF_HASH_RECORDS = 255,  // each value is an ELF_HASH_RECORD
};

struct ELF_HASH_BUCKET {
  U64* values;
  U64* keys;
  I32 n;
};

struct ELF_HASH_TABLE {
  ELF_HASH_BUCKET* buckets;
  I32 size;
  I32 depth;
  I32 count;
  I32 valueKind;
  I32 multi;  // set by the first ELF_HashAdd: growth must keep one key per bucket then
};

// A record value of a ELF_HASH_RECORDS table: a growing list of 64-bit items (for instance the
// compile units that name one source file).
struct ELF_HASH_RECORD {
  U64* items;
  I32 n;
  I32 capacity;
};

// The next table size for about n entries: one of a few primes, or n * 4/3 for very large n.
I32 ELF_NextHashSize(I64 n);

// Returns null when memory runs out. A depth of 0 means 10.
ELF_HASH_TABLE* ELF_HashCreate(I32 size, I32 depth, I32 valueKind);
// One value per key: a second put replaces the value. Returns 0, or -1 when memory runs out (the
// table is unchanged then).
int ELF_HashPut(ELF_HASH_TABLE* pTable, U64 key, U64 value);
// Many values per key, kept in insertion order. Returns 0 or -1 as ELF_HashPut.
int ELF_HashAdd(ELF_HASH_TABLE* pTable, U64 key, U64 value);
// The first value stored under the key, or 0.
U64 ELF_HashGet(const ELF_HASH_TABLE* pTable, U64 key);
// True when the key is present (a stored value may itself be 0).
bool ELF_HashHas(const ELF_HASH_TABLE* pTable, U64 key);
// All values of a multi-value key; null and *pn = 0 when there are none. The array stays owned by
// the table and is valid until the next insert.
const U64* ELF_HashGetAll(const ELF_HASH_TABLE* pTable, U64 key, I32* pn);
I32 ELF_HashCount(const ELF_HASH_TABLE* pTable, U64 key);
// Frees the table and, by its value kind, the values. pfReleaseDie is called for each value of a
// ELF_HASH_DIES table with pContext.
void ELF_HashFree(ELF_HASH_TABLE* pTable, void (*pfReleaseDie)(void* pContext, U64 value) = nullptr,
                  void* pContext = nullptr);
// Appends to a record, creating it when *ppRecord is null. Returns 0 or -1 (out of memory).
int ELF_RecordAppend(ELF_HASH_RECORD** ppRecord, U64 item);
