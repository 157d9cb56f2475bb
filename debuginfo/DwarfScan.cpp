// The bulk DIE walk; see DwarfScan.h.
#include "debuginfo/DwarfScan.h"

#include <dwarf.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unordered_map>

namespace {

// What the walk does with an attribute's value.
enum ScanAction : U8 {
  ACT_SKIP,
  ACT_DECL,
  ACT_ARTIFICIAL,
  ACT_SIZE,
  ACT_SPEC,
  ACT_ORIGIN,
  ACT_EXTENSION,
  ACT_MAIN,
};

struct AbbrevAttr {
  U16 form;
  U8 action;
  I64 implicitConst;
};

struct Abbrev {
  U16 tag = 0;
  bool hasChildren = false;
  bool valid = false;
  U32 firstAttr = 0, numAttrs = 0;
};

// One abbreviation table: entries by code (dense codes in a vector, others in a map).
struct AbbrevTable {
  std::vector<Abbrev> dense;
  std::unordered_map<U64, Abbrev> sparse;
  std::vector<AbbrevAttr> attrs;
  const Abbrev* Find(U64 Code) const {
    if (Code < dense.size())
      return dense[Code].valid ? &dense[Code] : nullptr;
    auto it = sparse.find(Code);
    return it == sparse.end() ? nullptr : &it->second;
  }
};

constexpr U64 kMaxDenseCode = 1u << 16;

struct Reader {
  const U8* p;
  const U8* end;
  bool big;
  bool ok = true;

  bool Need(U64 n) {
    if ((U64)(end - p) < n) {
      ok = false;
      p = end;
      return false;
    }
    return true;
  }
  U64 Fixed(int n) {
    if (!Need((U64)n))
      return 0;
    U64 v = 0;
    if (big) {
      for (int i = 0; i < n; i++)
        v = (v << 8) | p[i];
    } else {
      for (int i = n; i-- > 0;)
        v = (v << 8) | p[i];
    }
    p += n;
    return v;
  }
  U64 Uleb() {
    U64 v = 0;
    if (!DWS_ReadUleb(p, end, &v))
      ok = false;
    return v;
  }
  I64 Sleb() {
    I64 v = 0;
    if (!DWS_ReadSleb(p, end, &v))
      ok = false;
    return v;
  }
  void Skip(U64 n) {
    if (Need(n))
      p += n;
  }
  void SkipString() {
    const U8* z = (const U8*)memchr(p, 0, (size_t)(end - p));
    if (!z) {
      ok = false;
      p = end;
      return;
    }
    p = z + 1;
  }
};

ScanAction _ActionOf(U64 Attr) {
  switch (Attr) {
    case DW_AT_declaration:
      return ACT_DECL;
    case DW_AT_artificial:
      return ACT_ARTIFICIAL;
    case DW_AT_byte_size:
      return ACT_SIZE;
    case DW_AT_specification:
      return ACT_SPEC;
    case DW_AT_abstract_origin:
      return ACT_ORIGIN;
    case DW_AT_extension:
      return ACT_EXTENSION;
    case DW_AT_main_subprogram:
      return ACT_MAIN;
    default:
      return ACT_SKIP;
  }
}

// Parses the table at Offset. False when it is corrupt.
bool _ParseAbbrevTable(const U8* pAbbrev, U64 Size, U64 Offset, bool Big, AbbrevTable* pTable) {
  if (Offset >= Size)
    return false;
  Reader r{pAbbrev + Offset, pAbbrev + Size, Big};
  for (;;) {
    U64 code = r.Uleb();
    if (!r.ok)
      return false;
    if (code == 0)
      return true;
    Abbrev a;
    a.tag = (U16)r.Uleb();
    if (!r.Need(1))
      return false;
    a.hasChildren = *r.p++ != 0;
    a.firstAttr = (U32)pTable->attrs.size();
    for (;;) {
      U64 attr = r.Uleb();
      U64 form = r.Uleb();
      if (!r.ok)
        return false;
      if (attr == 0 && form == 0)
        break;
      I64 implicitConst = form == DW_FORM_implicit_const ? r.Sleb() : 0;
      if (!r.ok || form > 0xFFFF)
        return false;
      pTable->attrs.push_back({(U16)form, (U8)_ActionOf(attr), implicitConst});
    }
    a.numAttrs = (U32)pTable->attrs.size() - a.firstAttr;
    a.valid = true;
    if (code < kMaxDenseCode) {
      if (pTable->dense.size() <= code)
        pTable->dense.resize(code + 1);
      pTable->dense[code] = a;
    } else {
      pTable->sparse[code] = a;
    }
  }
}

struct UnitFormat {
  int offsetSize;
  int addrSize;
  int refAddrSize;
  U64 unitStart;  // section offset of the unit header, base of unit-relative references
};

// Reads one attribute value. *pValue is the constant or the resolved section offset of a reference
// (0 when it is a form we cannot resolve); *pIsConst tells whether it was a number at all.
bool _ReadForm(Reader& r, U64 Form, const UnitFormat& f, I64 ImplicitConst, U64* pValue, bool* pIsConst,
               int Depth = 0) {
  *pValue = 0;
  *pIsConst = false;
  switch (Form) {
    case DW_FORM_addr:
      r.Skip((U64)f.addrSize);
      break;
    case DW_FORM_block1:
      r.Skip(r.Fixed(1));
      break;
    case DW_FORM_block2:
      r.Skip(r.Fixed(2));
      break;
    case DW_FORM_block4:
      r.Skip(r.Fixed(4));
      break;
    case DW_FORM_block:
    case DW_FORM_exprloc: {
      U64 n = r.Uleb();
      r.Skip(n);
      break;
    }
    case DW_FORM_data1:
    case DW_FORM_flag:
      *pValue = r.Fixed(1);
      *pIsConst = true;
      break;
    case DW_FORM_data2:
      *pValue = r.Fixed(2);
      *pIsConst = true;
      break;
    case DW_FORM_data4:
      *pValue = r.Fixed(4);
      *pIsConst = true;
      break;
    case DW_FORM_data8:
      *pValue = r.Fixed(8);
      *pIsConst = true;
      break;
    case DW_FORM_data16:
      r.Skip(16);
      break;
    case DW_FORM_sdata:
      *pValue = (U64)r.Sleb();
      *pIsConst = true;
      break;
    case DW_FORM_udata:
      *pValue = r.Uleb();
      *pIsConst = true;
      break;
    case DW_FORM_implicit_const:
      *pValue = (U64)ImplicitConst;
      *pIsConst = true;
      break;
    case DW_FORM_flag_present:
      *pValue = 1;
      *pIsConst = true;
      break;
    case DW_FORM_string:
      r.SkipString();
      break;
    case DW_FORM_strp:
    case DW_FORM_line_strp:
    case DW_FORM_sec_offset:
    case DW_FORM_strp_sup:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt:
      r.Skip((U64)f.offsetSize);
      break;
    case DW_FORM_ref_addr:
      *pValue = r.Fixed(f.refAddrSize);
      break;
    case DW_FORM_ref1:
      *pValue = f.unitStart + r.Fixed(1);
      break;
    case DW_FORM_ref2:
      *pValue = f.unitStart + r.Fixed(2);
      break;
    case DW_FORM_ref4:
      *pValue = f.unitStart + r.Fixed(4);
      break;
    case DW_FORM_ref8:
      *pValue = f.unitStart + r.Fixed(8);
      break;
    case DW_FORM_ref_udata:
      *pValue = f.unitStart + r.Uleb();
      break;
    case DW_FORM_ref_sig8:
    case DW_FORM_ref_sup8:
      r.Skip(8);
      break;
    case DW_FORM_ref_sup4:
      r.Skip(4);
      break;
    case DW_FORM_strx:
    case DW_FORM_addrx:
    case DW_FORM_loclistx:
    case DW_FORM_rnglistx:
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index:
      r.Uleb();
      break;
    case DW_FORM_strx1:
    case DW_FORM_addrx1:
      r.Skip(1);
      break;
    case DW_FORM_strx2:
    case DW_FORM_addrx2:
      r.Skip(2);
      break;
    case DW_FORM_strx3:
    case DW_FORM_addrx3:
      r.Skip(3);
      break;
    case DW_FORM_strx4:
    case DW_FORM_addrx4:
      r.Skip(4);
      break;
    case DW_FORM_indirect: {
      U64 form = r.Uleb();
      if (!r.ok || Depth > 2 || form == DW_FORM_implicit_const)
        return false;
      return _ReadForm(r, form, f, ImplicitConst, pValue, pIsConst, Depth + 1);
    }
    default:
      return false;  // a form we do not know: its size is unknown, the unit cannot be walked on
  }
  return r.ok;
}

// Walks the DIEs of one unit from its root to its end.
bool _ScanUnitDies(Reader r, const AbbrevTable& Table, const UnitFormat& f, const U8* pSectionStart,
                   std::vector<DWS_RECORD>* pRecords, std::string* pProblem) {
  std::vector<U32> stack;
  bool first = true;
  while (r.p < r.end) {
    U64 offset = (U64)(r.p - pSectionStart);
    U64 code = r.Uleb();
    if (!r.ok) {
      *pProblem = "abbreviation code cut short";
      return false;
    }
    if (code == 0) {
      if (!stack.empty())
        stack.pop_back();
      else if (first)
        break;  // an empty unit
      continue;
    }
    const Abbrev* pAbbrev = Table.Find(code);
    if (!pAbbrev) {
      char s[96];
      snprintf(s, sizeof(s), "unknown abbreviation code %llu at offset 0x%llX", (unsigned long long)code,
               (unsigned long long)offset);
      *pProblem = s;
      return false;
    }
    if (!first && stack.empty()) {
      // A second top-level DIE: what follows the root's subtree is padding, not DIEs.
      break;
    }
    first = false;
    DWS_RECORD rec = {};
    rec.offset = (U32)offset;
    rec.parent = stack.empty() ? kDwsNoParent : stack.back();
    rec.tag = pAbbrev->tag;
    if (pAbbrev->hasChildren)
      rec.flags |= DWS_CHILDREN;
    for (U32 i = 0; i < pAbbrev->numAttrs; i++) {
      const AbbrevAttr& a = Table.attrs[pAbbrev->firstAttr + i];
      U64 value = 0;
      bool isConst = false;
      if (!_ReadForm(r, a.form, f, a.implicitConst, &value, &isConst)) {
        char s[96];
        snprintf(s, sizeof(s), "attribute form 0x%X of the DIE at offset 0x%llX cannot be read", a.form,
                 (unsigned long long)offset);
        *pProblem = s;
        return false;
      }
      if (a.action == ACT_SKIP)
        continue;
      U32 ref = value <= 0xFFFFFFFFull && !isConst ? (U32)value : 0;
      switch (a.action) {
        case ACT_DECL:
          rec.flags |= DWS_DECL | (isConst && value ? DWS_DECL_SET : 0);
          break;
        case ACT_ARTIFICIAL:
          rec.flags |= DWS_ARTIFICIAL | (isConst && value ? DWS_ARTIFICIAL_SET : 0);
          break;
        case ACT_SIZE:
          rec.flags |= DWS_SIZE | (isConst && value ? DWS_SIZE_SET : 0);
          break;
        case ACT_SPEC:
          rec.flags |= DWS_COMPLETES;
          rec.completes = ref;
          break;
        case ACT_ORIGIN:
          rec.flags |= DWS_ORIGIN;
          rec.origin = ref;
          break;
        case ACT_EXTENSION:
          if (ref) {
            rec.flags |= DWS_EXTENSION;
            rec.completes = ref;
          }
          break;
        case ACT_MAIN:
          if (isConst && value)
            rec.flags |= DWS_MAIN;
          break;
        default:
          break;
      }
    }
    U32 index = (U32)pRecords->size();
    pRecords->push_back(rec);
    if (pAbbrev->hasChildren)
      stack.push_back(index);
  }
  return true;
}

}  // namespace

bool DWS_ReadUleb(const U8*& p, const U8* pEnd, U64* pValue) {
  U64 v = 0;
  for (int shift = 0; p < pEnd; shift += 7) {
    U8 b = *p++;
    if (shift < 64)
      v |= (U64)(b & 0x7F) << shift;
    if (!(b & 0x80)) {
      *pValue = v;
      return true;
    }
  }
  return false;
}

bool DWS_ReadSleb(const U8*& p, const U8* pEnd, I64* pValue) {
  I64 v = 0;
  for (int shift = 0; p < pEnd; shift += 7) {
    U8 b = *p++;
    if (shift < 64)
      v |= (I64)((U64)(b & 0x7F) << shift);
    if (!(b & 0x80)) {
      if (shift + 7 < 64 && (b & 0x40))
        v |= -((I64)1 << (shift + 7));
      *pValue = v;
      return true;
    }
  }
  return false;
}

int DWS_ScanSection(const U8* pData, U64 Size, const U8* pAbbrev, U64 AbbrevSize, bool BigEndian,
                    bool IsTypesSection, DWS_SECTION_SCAN* pOut, std::vector<std::string>* pProblems) {
  pOut->records.clear();
  pOut->units.clear();
  if (!pData || Size == 0)
    return 0;
  if (Size > 0xFFFFFFF0ull || !pAbbrev) {
    pProblems->push_back(!pAbbrev ? "no abbreviation table section" : "section larger than 4 GB");
    return -1;
  }
  std::unordered_map<U64, AbbrevTable> tables;
  U64 at = 0;
  while (at < Size) {
    DWS_UNIT unit = {};
    unit.headerOffset = at;
    Reader r{pData + at, pData + Size, BigEndian};
    U64 length = r.Fixed(4);
    int offsetSize = 4;
    if (length == 0xFFFFFFFFull) {
      length = r.Fixed(8);
      offsetSize = 8;
    }
    char sProblem[128];
    if (!r.ok || length > (U64)(r.end - r.p) || length < 2) {
      snprintf(sProblem, sizeof(sProblem), "unit at offset 0x%llX: length outside the section",
               (unsigned long long)at);
      pProblems->push_back(sProblem);
      break;  // nothing behind it can be found
    }
    const U8* pUnitEnd = r.p + length;
    unit.nextHeaderOffset = (U64)(pUnitEnd - pData);
    r.end = pUnitEnd;
    unit.version = (U16)r.Fixed(2);
    U64 abbrevOffset = 0;
    U8 unitType = DW_UT_compile;
    if (unit.version >= 5) {
      unitType = (U8)r.Fixed(1);
      unit.addrSize = (U8)r.Fixed(1);
      abbrevOffset = r.Fixed(offsetSize);
      if (unitType == DW_UT_type || unitType == DW_UT_split_type) {
        unit.isTypeUnit = true;
        unit.signature = r.Fixed(8);
        unit.typeOffset = at + r.Fixed(offsetSize);
      } else if (unitType == DW_UT_skeleton || unitType == DW_UT_split_compile) {
        r.Fixed(8);
      }
    } else {
      abbrevOffset = r.Fixed(offsetSize);
      unit.addrSize = (U8)r.Fixed(1);
      if (IsTypesSection) {
        unit.isTypeUnit = true;
        unit.signature = r.Fixed(8);
        unit.typeOffset = at + r.Fixed(offsetSize);
      }
    }
    unit.rootOffset = (U64)(r.p - pData);
    unit.firstRecord = (U32)pOut->records.size();
    const char* sBad = nullptr;
    if (!r.ok)
      sBad = "header cut short";
    else if (unit.version < 2 || unit.version > 5)
      sBad = "unsupported version";
    else if (unit.addrSize != 2 && unit.addrSize != 4 && unit.addrSize != 8)
      sBad = "address size is not 2, 4 or 8";
    else if (unit.version >= 5 && (unitType < DW_UT_compile || unitType > DW_UT_split_type))
      sBad = "unknown unit type";
    AbbrevTable* pTable = nullptr;
    if (!sBad) {
      auto it = tables.find(abbrevOffset);
      if (it == tables.end()) {
        AbbrevTable table;
        if (_ParseAbbrevTable(pAbbrev, AbbrevSize, abbrevOffset, BigEndian, &table))
          it = tables.emplace(abbrevOffset, std::move(table)).first;
      }
      if (it == tables.end())
        sBad = "abbreviation table corrupt or outside its section";
      else
        pTable = &it->second;
    }
    if (!sBad) {
      UnitFormat f{offsetSize, unit.addrSize, unit.version == 2 ? unit.addrSize : offsetSize, at};
      std::string problem;
      if (!_ScanUnitDies(r, *pTable, f, pData, &pOut->records, &problem)) {
        unit.broken = true;
        snprintf(sProblem, sizeof(sProblem), "unit at offset 0x%llX: %s", (unsigned long long)at,
                 problem.c_str());
        pProblems->push_back(sProblem);
      }
    } else {
      unit.broken = true;
      snprintf(sProblem, sizeof(sProblem), "unit at offset 0x%llX: %s", (unsigned long long)at, sBad);
      pProblems->push_back(sProblem);
    }
    unit.recordCount = (U32)pOut->records.size() - unit.firstRecord;
    pOut->units.push_back(unit);
    at = unit.nextHeaderOffset;
  }
  return 0;
}

I64 DWS_FindRecord(const DWS_SECTION_SCAN& Scan, U64 Offset) {
  if (Offset > 0xFFFFFFFFull)
    return -1;
  auto it = std::lower_bound(Scan.records.begin(), Scan.records.end(), (U32)Offset,
                             [](const DWS_RECORD& r, U32 o) { return r.offset < o; });
  if (it == Scan.records.end() || it->offset != (U32)Offset)
    return -1;
  return it - Scan.records.begin();
}
