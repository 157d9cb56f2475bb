// Internal to the DWARF symbol tree and its cache file: the per-DIE records of a program and the
// tables derived from them at load. All of it is plain arrays, so that the index cache can write
// and read it as it stands.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "debuginfo/DwarfScan.h"

struct DWA_DIE_OPAQUE;

// A multi-map from a scope's DIE identifier to DIE identifiers, values in the order they were added.
struct ELF_SCOPE_MAP {
  std::vector<U64> keys;    // ascending
  std::vector<U32> starts;  // keys.size() + 1 entries: values of keys[i] are [starts[i], starts[i+1])
  std::vector<U64> values;

  // Pairs of (key, value); their order decides the order of the values of one key.
  void Build(std::vector<std::pair<U64, U64>>* pPairs);
  const U64* Get(U64 Key, U32* pn) const;
  void Clear() {
    keys.clear();
    starts.clear();
    values.clear();
  }
};

struct ELF_DIE_INDEX {
  DWS_SECTION_SCAN info, types;            // records of .debug_info and .debug_types
  std::unordered_map<U64, U64> defs;       // DIE identifier of a declaration -> offset of its definition
  std::unordered_map<U64, U64> typeUnits;  // type signature -> identifier of the unit's type DIE
  ELF_SCOPE_MAP localVars, members, inheritance;
  std::unordered_map<U32, std::vector<U64>> srcFileUnits;  // djb2 of a file name -> unit identifiers
  bool fromCache = false;                                  // the load read these tables from the index cache

  // Not kept in the cache: what queries fetch and build as they go, and the load's own helper.
  std::unordered_map<U64, DWA_DIE_OPAQUE*> dieById;   // libdwarf DIEs fetched by queries (null: none there)
  std::unordered_map<U64, std::string> dieTypeNames;  // type texts by DIE identifier
  std::unordered_map<U64, std::string> dieNames;      // normalised base type names by DIE identifier
  std::unordered_map<U32, U32> lineFileIdx;           // djb2 of a line table's file name -> its index
};
