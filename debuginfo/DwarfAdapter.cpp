// libdwarf behind our own types; see DwarfAdapter.h. Facts about the libdwarf this is built for
// (Debian's 20210528):
// - dwarf_object_init_b is the in-memory path; it fails after dwarf_init_b ran in the same process,
//   so the file path is never used.
// - dwarf_formudata refuses DW_FORM_implicit_const and DW_FORM_sec_offset; those are read here with
//   dwarf_formsdata and dwarf_global_formref.
// - dwarf_loclist_n does not read DWARF 5 location lists and dwarf_get_ranges does not see
//   .debug_rnglists; the newer dwarf_get_loclist_c and dwarf_rnglists_get_rle_head serve both.
// - Error records carry no function name, so each call site names its call.
#include "debuginfo/DwarfAdapter.h"

#include <dwarf.h>
#include <libdwarf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

struct DWA_CONTEXT {
  Dwarf_Debug Dbg;
  Dwarf_Obj_Access_Interface Interface;
  const DWA_SECTION* paSections;
  U32 NumSections;
  bool BigEndian;
  DWA_ERROR_SINK pfSink;
  void* pUser;
  Dwarf_Cie* paCies;
  Dwarf_Signed NumCies;
  Dwarf_Fde* paFdes;
  Dwarf_Signed NumFdes;
  bool FramesLoaded;
};

static inline Dwarf_Die _D(DWA_DIE Die) {
  return (Dwarf_Die)Die;
}

// Formats one error record and hands it to the sink; the record is released.
static void _Report(DWA_CONTEXT* pContext, Dwarf_Error Err, const char* sCall, const char* sDetail = nullptr,
                    U64 DetailValue = 0) {
  char acText[600];
  const char* sMessage = Err ? dwarf_errmsg(Err) : "unknown error";
  if (sDetail) {
    snprintf(acText, sizeof(acText), "libdwarf: %s in func %s (%s, 0x%X)", sMessage, sCall, sDetail,
             (unsigned)DetailValue);
  } else {
    snprintf(acText, sizeof(acText), "libdwarf: %s in func %s", sMessage, sCall);
  }
  if (Err)
    dwarf_dealloc_error(pContext ? pContext->Dbg : nullptr, Err);
  if (pContext && pContext->pfSink)
    pContext->pfSink(pContext->pUser, acText);
}

// Our own finding about a list, in the same form as libdwarf's errors.
static void _ReportText(DWA_CONTEXT* pContext, const char* sWhat, const char* sCall, U64 Offset) {
  char acText[200];
  snprintf(acText, sizeof(acText),
           "libdwarf: %s runs outside its section or does not end in func %s (offset, 0x%X)", sWhat, sCall,
           (unsigned)Offset);
  if (pContext->pfSink)
    pContext->pfSink(pContext->pUser, acText);
}

/*********************************************************************
 * Object access over the sections in memory
 */

static int _GetSectionInfo(void* pObj, Dwarf_Half Index, Dwarf_Obj_Access_Section* pOut, int* pErr) {
  DWA_CONTEXT* pContext = (DWA_CONTEXT*)pObj;
  if (Index >= pContext->NumSections)
    return DW_DLV_NO_ENTRY;
  const DWA_SECTION* s = &pContext->paSections[Index];
  pOut->addr = s->Addr;
  pOut->type = s->Type;
  pOut->size = s->pData ? s->Size : 0;
  pOut->name = s->sName ? s->sName : "";
  pOut->link = s->Link;
  pOut->info = s->Info;
  pOut->entrysize = s->EntSize;
  return DW_DLV_OK;
}

static Dwarf_Endianness _GetByteOrder(void* pObj) {
  return ((DWA_CONTEXT*)pObj)->BigEndian ? DW_OBJECT_MSB : DW_OBJECT_LSB;
}

static Dwarf_Small _GetLengthSize(void*) {
  return 4;
}
static Dwarf_Small _GetPointerSize(void*) {
  return 4;
}
static Dwarf_Unsigned _GetSectionCount(void* pObj) {
  return ((DWA_CONTEXT*)pObj)->NumSections;
}

static int _LoadSection(void* pObj, Dwarf_Half Index, Dwarf_Small** ppData, int* pErr) {
  DWA_CONTEXT* pContext = (DWA_CONTEXT*)pObj;
  if (Index >= pContext->NumSections || !pContext->paSections[Index].pData)
    return DW_DLV_NO_ENTRY;
  *ppData = pContext->paSections[Index].pData;
  return DW_DLV_OK;
}

static const Dwarf_Obj_Access_Methods _Methods = {
    _GetSectionInfo, _GetByteOrder, _GetLengthSize, _GetPointerSize, _GetSectionCount, _LoadSection, nullptr,
};

int DWA_Init(const DWA_SECTION* paSections, U32 NumSections, bool BigEndian, DWA_ERROR_SINK pfSink,
             void* pUser, DWA_CONTEXT** ppContext) {
  *ppContext = nullptr;
  if (NumSections > 0xFFFF)
    NumSections = 0xFFFF;  // libdwarf numbers sections with 16 bits
  DWA_CONTEXT* pContext = (DWA_CONTEXT*)calloc(1, sizeof(DWA_CONTEXT));
  if (!pContext)
    return -1;
  pContext->paSections = paSections;
  pContext->NumSections = NumSections;
  pContext->BigEndian = BigEndian;
  pContext->pfSink = pfSink;
  pContext->pUser = pUser;
  pContext->Interface.object = pContext;
  pContext->Interface.methods = &_Methods;
  Dwarf_Error Err = nullptr;
  // libdwarf keeps a record of its allocations and frees what is left at dwarf_finish: some of its
  // error paths on corrupt data (location lists, for one) drop objects without freeing them. Since
  // the bulk of a load no longer goes through libdwarf, the record costs a few percent.
  dwarf_set_de_alloc_flag(1);
  int r =
      dwarf_object_init_b(&pContext->Interface, nullptr, nullptr, DW_GROUPNUMBER_ANY, &pContext->Dbg, &Err);
  if (r == DW_DLV_NO_ENTRY) {
    free(pContext);
    return 1;
  }
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_object_init_b");
    free(pContext);
    return -1;
  }
  // Cortex-M frames use registers 0 to 15; a small table keeps the frame queries cheap, and the
  // initial rule "undefined" is what ARM's ABI prescribes for registers a CIE does not mention.
  dwarf_set_frame_rule_table_size(pContext->Dbg, DWA_NUM_FRAME_REGS);
  dwarf_set_frame_rule_initial_value(pContext->Dbg, DW_FRAME_UNDEFINED_VAL);
  *ppContext = pContext;
  return 0;
}

void DWA_Finish(DWA_CONTEXT* pContext) {
  if (!pContext)
    return;
  if (pContext->FramesLoaded) {
    dwarf_fde_cie_list_dealloc(pContext->Dbg, pContext->paCies, pContext->NumCies, pContext->paFdes,
                               pContext->NumFdes);
  }
  Dwarf_Error Err = nullptr;
  if (dwarf_object_finish(pContext->Dbg, &Err) == DW_DLV_ERROR && Err)
    dwarf_dealloc_error(nullptr, Err);
  free(pContext);
}

/*********************************************************************
 * Units and DIEs
 */

int DWA_NextUnit(DWA_CONTEXT* pContext, bool IsInfo, DWA_UNIT* pUnit) {
  memset(pUnit, 0, sizeof(*pUnit));
  Dwarf_Unsigned headerLength = 0, typeOffset = 0, nextOffset = 0;
  Dwarf_Half version = 0, addressSize = 0, lengthSize = 0, extensionSize = 0, unitType = 0;
  Dwarf_Off abbrevOffset = 0;
  Dwarf_Sig8 signature;
  memset(&signature, 0, sizeof(signature));
  Dwarf_Error Err = nullptr;
  int r = dwarf_next_cu_header_d(pContext->Dbg, IsInfo, &headerLength, &version, &abbrevOffset, &addressSize,
                                 &lengthSize, &extensionSize, &signature, &typeOffset, &nextOffset, &unitType,
                                 &Err);
  if (r == DW_DLV_NO_ENTRY)
    return 0;
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_next_cu_header_d");
    return -1;
  }
  // The root DIE of the unit just selected, which gives the header offset as well.
  Dwarf_Die root = nullptr;
  Err = nullptr;
  r = dwarf_siblingof_b(pContext->Dbg, nullptr, IsInfo, &root, &Err);
  if (r != DW_DLV_OK) {
    if (r == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_siblingof_b");
    return -1;
  }
  Dwarf_Off rootOffset = 0, headerOffset = 0, unitLength = 0;
  Err = nullptr;
  if (dwarf_dieoffset(root, &rootOffset, &Err) != DW_DLV_OK)
    _Report(pContext, Err, "dwarf_dieoffset");
  Err = nullptr;
  if (dwarf_die_CU_offset_range(root, &headerOffset, &unitLength, &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_die_CU_offset_range");
  }
  dwarf_dealloc_die(root);
  pUnit->HeaderOffset = headerOffset;
  pUnit->NextHeaderOffset = nextOffset;
  pUnit->RootOffset = rootOffset;
  pUnit->Version = version;
  pUnit->AddressSize = addressSize;
  pUnit->IsInfo = IsInfo;
  pUnit->UnitType = unitType ? unitType : (IsInfo ? DW_UT_compile : DW_UT_type);
  pUnit->IsTypeUnit = pUnit->UnitType == DW_UT_type || pUnit->UnitType == DW_UT_split_type || !IsInfo;
  if (pUnit->IsTypeUnit) {
    memcpy(&pUnit->Signature, signature.signature, 8);
    pUnit->TypeOffset = headerOffset + typeOffset;
  }
  return 1;
}

DWA_DIE DWA_GetDieAtOffset(DWA_CONTEXT* pContext, U64 Offset, bool IsInfo) {
  Dwarf_Die die = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_offdie_b(pContext->Dbg, Offset, IsInfo, &die, &Err);
  if (r == DW_DLV_ERROR)
    _Report(pContext, Err, "dwarf_offdie_b", "offset", Offset);
  return r == DW_DLV_OK ? (DWA_DIE)die : nullptr;
}

DWA_DIE DWA_GetChild(DWA_CONTEXT* pContext, DWA_DIE Die) {
  Dwarf_Die child = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_child(_D(Die), &child, &Err);
  if (r == DW_DLV_ERROR)
    _Report(pContext, Err, "dwarf_child", "offset", DWA_GetOffset(pContext, Die));
  return r == DW_DLV_OK ? (DWA_DIE)child : nullptr;
}

DWA_DIE DWA_GetSibling(DWA_CONTEXT* pContext, DWA_DIE Die) {
  Dwarf_Die sibling = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_siblingof_b(pContext->Dbg, _D(Die), DWA_IsInfo(Die), &sibling, &Err);
  if (r == DW_DLV_ERROR)
    _Report(pContext, Err, "dwarf_siblingof_b", "offset", DWA_GetOffset(pContext, Die));
  return r == DW_DLV_OK ? (DWA_DIE)sibling : nullptr;
}

void DWA_ReleaseDie(DWA_CONTEXT*, DWA_DIE Die) {
  if (Die)
    dwarf_dealloc_die(_D(Die));
}

U64 DWA_GetOffset(DWA_CONTEXT* pContext, DWA_DIE Die) {
  Dwarf_Off offset = 0;
  Dwarf_Error Err = nullptr;
  if (dwarf_dieoffset(_D(Die), &offset, &Err) != DW_DLV_OK)
    _Report(pContext, Err, "dwarf_dieoffset");
  return offset;
}

bool DWA_IsInfo(DWA_DIE Die) {
  return dwarf_get_die_infotypes_flag(_D(Die)) != 0;
}

U16 DWA_GetTag(DWA_CONTEXT* pContext, DWA_DIE Die) {
  Dwarf_Half tag = 0;
  Dwarf_Error Err = nullptr;
  if (dwarf_tag(_D(Die), &tag, &Err) != DW_DLV_OK)
    _Report(pContext, Err, "dwarf_tag");
  return tag;
}

bool DWA_HasChildren(DWA_CONTEXT*, DWA_DIE Die) {
  Dwarf_Half flag = 0;
  return dwarf_die_abbrev_children_flag(_D(Die), &flag) == DW_DLV_OK && flag != 0;
}

int DWA_GetUnitRange(DWA_CONTEXT* pContext, DWA_DIE Die, U64* pHeaderOffset, U64* pLength) {
  Dwarf_Off headerOffset = 0, length = 0;
  Dwarf_Error Err = nullptr;
  if (dwarf_die_CU_offset_range(_D(Die), &headerOffset, &length, &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_die_CU_offset_range");
    return -1;
  }
  *pHeaderOffset = headerOffset;
  *pLength = length;
  return 0;
}

U16 DWA_GetUnitVersion(DWA_CONTEXT*, DWA_DIE Die) {
  Dwarf_Half version = 0, offsetSize = 0;
  if (dwarf_get_version_of_die(_D(Die), &version, &offsetSize) != DW_DLV_OK)
    return 0;
  return version;
}

const char* DWA_GetName(DWA_CONTEXT* pContext, DWA_DIE Die) {
  char* sName = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_diename(_D(Die), &sName, &Err);
  if (r == DW_DLV_ERROR)
    _Report(pContext, Err, "dwarf_diename", "offset", DWA_GetOffset(pContext, Die));
  return r == DW_DLV_OK ? sName : nullptr;
}

/*********************************************************************
 * Attributes
 */

// Reads an attribute's value by its form class. Returns 1 or -1 (reported).
static int _ReadAttr(DWA_CONTEXT* pContext, DWA_DIE Die, Dwarf_Attribute Attr, U16 AttrCode,
                     DWA_VALUE* pValue) {
  Dwarf_Half form = 0;
  Dwarf_Error Err = nullptr;
  if (dwarf_whatform(Attr, &form, &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_whatform", "attribute", AttrCode);
    return -1;
  }
  pValue->Attr = AttrCode;
  pValue->Form = form;
  const char* sCall = "dwarf_formudata";
  int r = DW_DLV_ERROR;
  Err = nullptr;
  switch (form) {
    case DW_FORM_addr:
    case DW_FORM_addrx:
    case DW_FORM_addrx1:
    case DW_FORM_addrx2:
    case DW_FORM_addrx3:
    case DW_FORM_addrx4:
    case DW_FORM_GNU_addr_index: {
      Dwarf_Addr addr = 0;
      sCall = "dwarf_formaddr";
      r = dwarf_formaddr(Attr, &addr, &Err);
      pValue->Kind = DWA_VALUE_ADDRESS;
      pValue->u = addr;
      pValue->s = (I64)addr;
      break;
    }
    case DW_FORM_data1:
    case DW_FORM_data2:
    case DW_FORM_data4:
    case DW_FORM_data8:
    case DW_FORM_udata: {
      Dwarf_Unsigned u = 0;
      r = dwarf_formudata(Attr, &u, &Err);
      pValue->Kind = DWA_VALUE_UNSIGNED;
      pValue->u = u;
      pValue->s = (I64)u;
      break;
    }
    case DW_FORM_sdata:
    case DW_FORM_implicit_const: {
      Dwarf_Signed s = 0;
      sCall = "dwarf_formsdata";
      r = dwarf_formsdata(Attr, &s, &Err);
      pValue->Kind = form == DW_FORM_sdata ? DWA_VALUE_SIGNED : DWA_VALUE_UNSIGNED;
      pValue->u = (U64)s;
      pValue->s = s;
      break;
    }
    case DW_FORM_sec_offset:
    case DW_FORM_loclistx:
    case DW_FORM_rnglistx: {
      Dwarf_Off off = 0;
      sCall = "dwarf_global_formref";
      if (form == DW_FORM_sec_offset) {
        r = dwarf_global_formref(Attr, &off, &Err);
      } else {
        Dwarf_Unsigned u = 0;
        sCall = "dwarf_formudata";
        r = dwarf_formudata(Attr, &u, &Err);
        off = u;
      }
      pValue->Kind = DWA_VALUE_UNSIGNED;
      pValue->u = off;
      pValue->s = (I64)off;
      break;
    }
    case DW_FORM_flag:
    case DW_FORM_flag_present: {
      Dwarf_Bool flag = 0;
      sCall = "dwarf_formflag";
      r = dwarf_formflag(Attr, &flag, &Err);
      pValue->Kind = DWA_VALUE_FLAG;
      pValue->u = flag ? 1 : 0;
      pValue->s = (I64)pValue->u;
      break;
    }
    case DW_FORM_ref_addr:
    case DW_FORM_ref1:
    case DW_FORM_ref2:
    case DW_FORM_ref4:
    case DW_FORM_ref8:
    case DW_FORM_ref_udata:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_ref_sup4:
    case DW_FORM_ref_sup8: {
      Dwarf_Off off = 0;
      sCall = "dwarf_global_formref";
      r = dwarf_global_formref(Attr, &off, &Err);
      pValue->Kind = DWA_VALUE_REFERENCE;
      pValue->RefIsInfo = DWA_IsInfo(Die);
      pValue->u = off;
      pValue->s = (I64)off;
      break;
    }
    case DW_FORM_ref_sig8: {
      Dwarf_Sig8 sig;
      sCall = "dwarf_formsig8";
      r = dwarf_formsig8(Attr, &sig, &Err);
      pValue->Kind = DWA_VALUE_SIGNATURE;
      memcpy(&pValue->u, sig.signature, 8);
      break;
    }
    case DW_FORM_string:
    case DW_FORM_strp:
    case DW_FORM_line_strp:
    case DW_FORM_strx:
    case DW_FORM_strx1:
    case DW_FORM_strx2:
    case DW_FORM_strx3:
    case DW_FORM_strx4:
    case DW_FORM_GNU_str_index:
    case DW_FORM_GNU_strp_alt:
    case DW_FORM_strp_sup: {
      char* sText = nullptr;
      sCall = "dwarf_formstring";
      r = dwarf_formstring(Attr, &sText, &Err);
      pValue->Kind = DWA_VALUE_STRING;
      pValue->sText = sText;
      break;
    }
    case DW_FORM_exprloc: {
      Dwarf_Unsigned length = 0;
      Dwarf_Ptr pBlock = nullptr;
      sCall = "dwarf_formexprloc";
      r = dwarf_formexprloc(Attr, &length, &pBlock, &Err);
      pValue->Kind = DWA_VALUE_BLOCK;
      pValue->pBlock = (const U8*)pBlock;
      pValue->BlockLength = length;
      break;
    }
    case DW_FORM_block:
    case DW_FORM_block1:
    case DW_FORM_block2:
    case DW_FORM_block4: {
      Dwarf_Block* pBlock = nullptr;
      sCall = "dwarf_formblock";
      r = dwarf_formblock(Attr, &pBlock, &Err);
      if (r == DW_DLV_OK) {
        pValue->Kind = DWA_VALUE_BLOCK;
        pValue->pBlock = (const U8*)pBlock->bl_data;  // points into the section
        pValue->BlockLength = pBlock->bl_len;
        dwarf_dealloc(pContext->Dbg, pBlock, DW_DLA_BLOCK);
      }
      break;
    }
    default:
      pValue->Kind = DWA_VALUE_NONE;
      return 1;
  }
  if (r != DW_DLV_OK) {
    if (r == DW_DLV_ERROR)
      _Report(pContext, Err, sCall, "at_form", form);
    pValue->Kind = DWA_VALUE_NONE;
    return -1;
  }
  return 1;
}

int DWA_GetAttr(DWA_CONTEXT* pContext, DWA_DIE Die, U16 AttrCode, DWA_VALUE* pValue) {
  memset(pValue, 0, sizeof(*pValue));
  Dwarf_Attribute attr = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_attr(_D(Die), AttrCode, &attr, &Err);
  if (r == DW_DLV_NO_ENTRY)
    return 0;
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_attr", "attribute", AttrCode);
    return -1;
  }
  int result = _ReadAttr(pContext, Die, attr, AttrCode, pValue);
  dwarf_dealloc_attribute(attr);
  return result;
}

bool DWA_HasAttr(DWA_CONTEXT* pContext, DWA_DIE Die, U16 AttrCode) {
  Dwarf_Bool has = 0;
  Dwarf_Error Err = nullptr;
  if (dwarf_hasattr(_D(Die), AttrCode, &has, &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_hasattr", "attribute", AttrCode);
    return false;
  }
  return has != 0;
}

int DWA_GetAttrList(DWA_CONTEXT* pContext, DWA_DIE Die, U16* paAttrs, int Max) {
  Dwarf_Attribute* paList = nullptr;
  Dwarf_Signed n = 0;
  Dwarf_Error Err = nullptr;
  int r = dwarf_attrlist(_D(Die), &paList, &n, &Err);
  if (r == DW_DLV_ERROR)
    _Report(pContext, Err, "dwarf_attrlist", "offset", DWA_GetOffset(pContext, Die));
  if (r != DW_DLV_OK)
    return 0;
  int count = 0;
  for (Dwarf_Signed i = 0; i < n; i++) {
    Dwarf_Half code = 0;
    Err = nullptr;
    if (count < Max && dwarf_whatattr(paList[i], &code, &Err) == DW_DLV_OK) {
      paAttrs[count++] = code;
    } else if (Err) {
      dwarf_dealloc_error(pContext->Dbg, Err);
    }
    dwarf_dealloc_attribute(paList[i]);
  }
  dwarf_dealloc(pContext->Dbg, paList, DW_DLA_LIST);
  return count;
}

/*********************************************************************
 * Line tables and source files
 */

static char* _CopyString(const char* s) {
  size_t n = strlen(s ? s : "");
  char* p = (char*)malloc(n + 1);
  if (p)
    memcpy(p, s ? s : "", n + 1);
  return p;
}

int DWA_GetLines(DWA_CONTEXT* pContext, DWA_DIE CuDie, DWA_LINE** ppaLines, U32* pNumLines,
                 U16* pLineVersion) {
  *ppaLines = nullptr;
  *pNumLines = 0;
  *pLineVersion = 0;
  Dwarf_Unsigned version = 0;
  Dwarf_Small tableCount = 0;
  Dwarf_Line_Context lineContext = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_srclines_b(_D(CuDie), &version, &tableCount, &lineContext, &Err);
  if (r == DW_DLV_NO_ENTRY)
    return 1;
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_srclines_b", "offset", DWA_GetOffset(pContext, CuDie));
    return -1;
  }
  *pLineVersion = (U16)version;
  Dwarf_Line* paLines = nullptr;
  Dwarf_Signed n = 0;
  Err = nullptr;
  r = dwarf_srclines_from_linecontext(lineContext, &paLines, &n, &Err);
  if (r == DW_DLV_ERROR)
    _Report(pContext, Err, "dwarf_srclines_from_linecontext");
  if (r != DW_DLV_OK || n <= 0) {
    dwarf_srclines_dealloc_b(lineContext);
    return r == DW_DLV_ERROR ? -1 : 0;
  }
  DWA_LINE* paOut = (DWA_LINE*)calloc((size_t)n, sizeof(DWA_LINE));
  if (!paOut) {
    dwarf_srclines_dealloc_b(lineContext);
    return -1;
  }
  U32 count = 0;
  for (Dwarf_Signed i = 0; i < n; i++) {
    DWA_LINE* pOut = &paOut[count];
    Dwarf_Addr addr = 0;
    Dwarf_Unsigned line = 0, column = 0, fileNumber = 0;
    Dwarf_Bool endSequence = 0, isStmt = 0;
    char* sFile = nullptr;
    Err = nullptr;
    if (dwarf_lineaddr(paLines[i], &addr, &Err) != DW_DLV_OK) {
      _Report(pContext, Err, "dwarf_lineaddr");
      continue;
    }
    Err = nullptr;
    if (dwarf_lineno(paLines[i], &line, &Err) == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_lineno");
    Err = nullptr;
    if (dwarf_lineoff_b(paLines[i], &column, &Err) == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_lineoff_b");
    Err = nullptr;
    if (dwarf_line_srcfileno(paLines[i], &fileNumber, &Err) == DW_DLV_ERROR) {
      _Report(pContext, Err, "dwarf_line_srcfileno");
    }
    Err = nullptr;
    if (dwarf_lineendsequence(paLines[i], &endSequence, &Err) == DW_DLV_ERROR) {
      _Report(pContext, Err, "dwarf_lineendsequence");
    }
    Err = nullptr;
    if (dwarf_linebeginstatement(paLines[i], &isStmt, &Err) == DW_DLV_ERROR) {
      _Report(pContext, Err, "dwarf_linebeginstatement");
    }
    Err = nullptr;
    int rs = dwarf_linesrc(paLines[i], &sFile, &Err);
    if (rs == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_linesrc");
    pOut->Addr = addr;
    pOut->Line = (U32)line;
    pOut->Column = (U32)column;
    pOut->FileNumber = (U32)fileNumber;
    pOut->EndSequence = endSequence != 0;
    pOut->IsStmt = isStmt != 0;
    pOut->sFile = _CopyString(rs == DW_DLV_OK ? sFile : "");
    if (rs == DW_DLV_OK)
      dwarf_dealloc(pContext->Dbg, sFile, DW_DLA_STRING);
    count++;
  }
  dwarf_srclines_dealloc_b(lineContext);
  *ppaLines = paOut;
  *pNumLines = count;
  return 0;
}

void DWA_FreeLines(DWA_LINE* paLines, U32 NumLines) {
  if (!paLines)
    return;
  for (U32 i = 0; i < NumLines; i++)
    free(paLines[i].sFile);
  free(paLines);
}

int DWA_GetSrcFiles(DWA_CONTEXT* pContext, DWA_DIE CuDie, char*** ppaNames, U32* pNumNames) {
  *ppaNames = nullptr;
  *pNumNames = 0;
  char** paFiles = nullptr;
  Dwarf_Signed n = 0;
  Dwarf_Error Err = nullptr;
  int r = dwarf_srcfiles(_D(CuDie), &paFiles, &n, &Err);
  if (r == DW_DLV_NO_ENTRY)
    return 1;
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_srcfiles", "offset", DWA_GetOffset(pContext, CuDie));
    return -1;
  }
  char** paOut = n > 0 ? (char**)calloc((size_t)n, sizeof(char*)) : nullptr;
  for (Dwarf_Signed i = 0; i < n; i++) {
    if (paOut)
      paOut[i] = _CopyString(paFiles[i]);
    dwarf_dealloc(pContext->Dbg, paFiles[i], DW_DLA_STRING);
  }
  dwarf_dealloc(pContext->Dbg, paFiles, DW_DLA_LIST);
  *ppaNames = paOut;
  *pNumNames = paOut ? (U32)n : 0;
  return 0;
}

void DWA_FreeStrings(char** paStrings, U32 Num) {
  if (!paStrings)
    return;
  for (U32 i = 0; i < Num; i++)
    free(paStrings[i]);
  free(paStrings);
}

/*********************************************************************
 * List checks. libdwarf 20210528 reads location and range lists without bounds checks: an
 * offset outside its section or an entry that runs past the end crashes it. So each list is walked
 * here first, within the section's bytes, and one that does not end cleanly is not handed over.
 */

// The bytes of a section by name, or null.
static const U8* _FindSection(DWA_CONTEXT* pContext, const char* sName, U64* pSize) {
  for (U32 i = 0; i < pContext->NumSections; i++) {
    const DWA_SECTION* s = &pContext->paSections[i];
    if (s->pData && s->sName && strcmp(s->sName, sName) == 0) {
      *pSize = s->Size;
      return s->pData;
    }
  }
  return nullptr;
}

// A cursor over one section that never reads past its end.
struct LIST_CURSOR {
  const U8* p;
  U64 size;
  U64 at;
  bool bad;
  bool BigEndian;

  U8 Byte() {
    if (at >= size) {
      bad = true;
      return 0;
    }
    return p[at++];
  }
  U64 Uleb() {
    U64 v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      U8 b = Byte();
      if (bad)
        return 0;
      v |= (U64)(b & 0x7F) << shift;
      if (!(b & 0x80))
        return v;
    }
    bad = true;
    return 0;
  }
  U64 Fixed(int n) {
    U64 v = 0;
    for (int i = 0; i < n; i++) {
      U8 b = Byte();
      v = BigEndian ? (v << 8) | b : v | ((U64)b << (8 * i));
    }
    return v;
  }
  void Skip(U64 n) {
    if (n > size - at) {
      bad = true;
      return;
    }
    at += n;
  }
};

static constexpr int kMaxListEntries = 100000;

// Walks a DWARF 5 location list (IsLocation) or range list at Offset. True when it ends cleanly.
static bool _IsDwarf5ListSound(DWA_CONTEXT* pContext, bool IsLocation, U64 Offset) {
  U64 size = 0;
  const U8* p = _FindSection(pContext, IsLocation ? ".debug_loclists" : ".debug_rnglists", &size);
  if (!p || Offset >= size)
    return false;
  LIST_CURSOR c = {p, size, Offset, false, pContext->BigEndian};
  for (int n = 0; n < kMaxListEntries && !c.bad; n++) {
    U8 kind = c.Byte();
    if (kind == 0)
      return !c.bad;  // end of list, the same code in both kinds of list
    if (IsLocation) {
      switch (kind) {
        case DW_LLE_base_addressx:
          c.Uleb();
          continue;
        case DW_LLE_startx_endx:
        case DW_LLE_startx_length:
        case DW_LLE_offset_pair:
          c.Uleb();
          c.Uleb();
          break;
        case DW_LLE_default_location:
          break;
        case DW_LLE_base_address:
          c.Fixed(4);
          continue;
        case DW_LLE_start_end:
          c.Fixed(4);
          c.Fixed(4);
          break;
        case DW_LLE_start_length:
          c.Fixed(4);
          c.Uleb();
          break;
        default:
          return false;
      }
      U64 length = c.Uleb();
      // An entry without an expression is where libdwarf can fail; such a list is refused too.
      if (length == 0)
        return false;
      c.Skip(length);
    } else {
      switch (kind) {
        case DW_RLE_base_addressx:
          c.Uleb();
          break;
        case DW_RLE_startx_endx:
        case DW_RLE_startx_length:
        case DW_RLE_offset_pair:
          c.Uleb();
          c.Uleb();
          break;
        case DW_RLE_base_address:
          c.Fixed(4);
          break;
        case DW_RLE_start_end:
          c.Fixed(4);
          c.Fixed(4);
          break;
        case DW_RLE_start_length:
          c.Fixed(4);
          c.Uleb();
          break;
        default:
          return false;
      }
    }
  }
  return false;
}

// Walks a DWARF 2 to 4 location list in .debug_loc (IsLocation) or range list in .debug_ranges.
static bool _IsDwarf4ListSound(DWA_CONTEXT* pContext, bool IsLocation, U64 Offset) {
  U64 size = 0;
  const U8* p = _FindSection(pContext, IsLocation ? ".debug_loc" : ".debug_ranges", &size);
  if (!p || Offset >= size)
    return false;
  LIST_CURSOR c = {p, size, Offset, false, pContext->BigEndian};
  for (int n = 0; n < kMaxListEntries && !c.bad; n++) {
    U64 lo = c.Fixed(4), hi = c.Fixed(4);
    if (c.bad)
      return false;
    if (lo == 0 && hi == 0)
      return true;
    if (lo == 0xFFFFFFFF || !IsLocation)
      continue;  // base address selection, or a range pair
    U64 length = c.Fixed(2);
    if (length == 0)
      return false;
    c.Skip(length);
  }
  return false;
}

// True when a list attribute's value may go to libdwarf: a section offset to a list that ends
// cleanly. Indexed forms (split DWARF) are not read.
static bool _IsListSound(DWA_CONTEXT* pContext, DWA_DIE Die, Dwarf_Half Form, U64 Offset, bool IsLocation) {
  if (Form != DW_FORM_sec_offset && Form != DW_FORM_data4 && Form != DW_FORM_data8)
    return false;
  return DWA_GetUnitVersion(pContext, Die) >= 5 ? _IsDwarf5ListSound(pContext, IsLocation, Offset)
                                                : _IsDwarf4ListSound(pContext, IsLocation, Offset);
}

/*********************************************************************
 * Ranges
 */

static int _AppendRange(DWA_RANGE** ppaRanges, U32* pNum, U64 Lo, U64 Hi) {
  DWA_RANGE* p = (DWA_RANGE*)realloc(*ppaRanges, sizeof(DWA_RANGE) * (*pNum + 1));
  if (!p)
    return -1;
  *ppaRanges = p;
  p[*pNum].Lo = Lo;
  p[*pNum].Hi = Hi;
  (*pNum)++;
  return 0;
}

// The unit's base address for DWARF 4 range lists: DW_AT_low_pc of the unit's root DIE.
static U64 _GetUnitBase(DWA_CONTEXT* pContext, DWA_DIE Die) {
  U64 base = 0;
  Dwarf_Error Err = nullptr;
  Dwarf_Off cuDieOffset = 0;
  if (dwarf_CU_dieoffset_given_die(_D(Die), &cuDieOffset, &Err) != DW_DLV_OK) {
    if (Err)
      dwarf_dealloc_error(pContext->Dbg, Err);
    return 0;
  }
  DWA_DIE root = DWA_GetDieAtOffset(pContext, cuDieOffset, DWA_IsInfo(Die));
  if (!root)
    return 0;
  DWA_VALUE v;
  if (DWA_GetAttr(pContext, root, DW_AT_low_pc, &v) == 1)
    base = v.u;
  DWA_ReleaseDie(pContext, root);
  return base;
}

int DWA_GetRanges(DWA_CONTEXT* pContext, DWA_DIE Die, DWA_RANGE** ppaRanges, U32* pNumRanges) {
  *ppaRanges = nullptr;
  *pNumRanges = 0;
  DWA_VALUE lowPc, highPc;
  int rl = DWA_GetAttr(pContext, Die, DW_AT_low_pc, &lowPc);
  int rh = DWA_GetAttr(pContext, Die, DW_AT_high_pc, &highPc);
  if (rl == 1 && rh == 1) {
    U64 hi = highPc.Kind == DWA_VALUE_ADDRESS ? highPc.u : lowPc.u + highPc.u;
    return _AppendRange(ppaRanges, pNumRanges, lowPc.u, hi) < 0 ? -1 : 0;
  }
  Dwarf_Attribute attr = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_attr(_D(Die), DW_AT_ranges, &attr, &Err);
  if (r == DW_DLV_NO_ENTRY) {
    if (rl == 1)
      return _AppendRange(ppaRanges, pNumRanges, lowPc.u, lowPc.u + 1) < 0 ? -1 : 0;
    return 1;
  }
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_attr", "attribute", DW_AT_ranges);
    return -1;
  }
  Dwarf_Half form = 0;
  Err = nullptr;
  dwarf_whatform(attr, &form, &Err);
  if (Err)
    dwarf_dealloc_error(pContext->Dbg, Err);
  Dwarf_Unsigned value = 0;
  Err = nullptr;
  if (form == DW_FORM_rnglistx) {
    r = dwarf_formudata(attr, &value, &Err);
  } else {
    Dwarf_Off off = 0;
    r = dwarf_global_formref(attr, &off, &Err);
    value = off;
  }
  if (r != DW_DLV_OK) {
    if (r == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_global_formref", "at_form", form);
    dwarf_dealloc_attribute(attr);
    return -1;
  }
  if (!_IsListSound(pContext, Die, form, value, false)) {
    _ReportText(pContext, "range list", "dwarf_rnglists_get_rle_head", value);
    dwarf_dealloc_attribute(attr);
    return -1;
  }
  int result = 0;
  if (DWA_GetUnitVersion(pContext, Die) >= 5) {
    Dwarf_Rnglists_Head head = nullptr;
    Dwarf_Unsigned count = 0, globalOffset = 0;
    Err = nullptr;
    r = dwarf_rnglists_get_rle_head(attr, form, value, &head, &count, &globalOffset, &Err);
    if (r != DW_DLV_OK) {
      if (r == DW_DLV_ERROR)
        _Report(pContext, Err, "dwarf_rnglists_get_rle_head", "offset", value);
      dwarf_dealloc_attribute(attr);
      return -1;
    }
    for (Dwarf_Unsigned i = 0; i < count; i++) {
      unsigned entryLength = 0, code = 0;
      Dwarf_Unsigned raw1 = 0, raw2 = 0, cooked1 = 0, cooked2 = 0;
      Dwarf_Bool unavailable = 0;
      Err = nullptr;
      r = dwarf_get_rnglists_entry_fields_a(head, i, &entryLength, &code, &raw1, &raw2, &unavailable,
                                            &cooked1, &cooked2, &Err);
      if (r != DW_DLV_OK) {
        if (r == DW_DLV_ERROR)
          _Report(pContext, Err, "dwarf_get_rnglists_entry_fields_a");
        result = -1;
        break;
      }
      if (code == DW_RLE_end_of_list)
        break;
      if (code == DW_RLE_base_address || code == DW_RLE_base_addressx || unavailable)
        continue;
      if (cooked2 > cooked1 && _AppendRange(ppaRanges, pNumRanges, cooked1, cooked2) < 0)
        result = -1;
    }
    dwarf_dealloc_rnglists_head(head);
  } else {
    Dwarf_Ranges* paRanges = nullptr;
    Dwarf_Signed count = 0;
    Dwarf_Unsigned bytes = 0;
    Dwarf_Off realOffset = 0;
    Err = nullptr;
    r = dwarf_get_ranges_b(pContext->Dbg, value, _D(Die), &realOffset, &paRanges, &count, &bytes, &Err);
    if (r != DW_DLV_OK) {
      if (r == DW_DLV_ERROR)
        _Report(pContext, Err, "dwarf_get_ranges_b", "offset", value);
      dwarf_dealloc_attribute(attr);
      return -1;
    }
    U64 base = _GetUnitBase(pContext, Die);
    for (Dwarf_Signed i = 0; i < count; i++) {
      if (paRanges[i].dwr_type == DW_RANGES_END)
        break;
      if (paRanges[i].dwr_type == DW_RANGES_ADDRESS_SELECTION) {
        base = paRanges[i].dwr_addr2;
        continue;
      }
      U64 lo = base + paRanges[i].dwr_addr1, hi = base + paRanges[i].dwr_addr2;
      if (hi > lo && _AppendRange(ppaRanges, pNumRanges, lo, hi) < 0)
        result = -1;
    }
    dwarf_ranges_dealloc(pContext->Dbg, paRanges, count);
  }
  dwarf_dealloc_attribute(attr);
  return result;
}

/*********************************************************************
 * Locations
 */

int DWA_GetLocations(DWA_CONTEXT* pContext, DWA_DIE Die, U16 AttrCode, DWA_LOC_ENTRY** ppaEntries,
                     U32* pNumEntries) {
  *ppaEntries = nullptr;
  *pNumEntries = 0;
  Dwarf_Attribute attr = nullptr;
  Dwarf_Error Err = nullptr;
  int r = dwarf_attr(_D(Die), AttrCode, &attr, &Err);
  if (r == DW_DLV_NO_ENTRY)
    return 1;
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_attr", "attribute", AttrCode);
    return -1;
  }
  Dwarf_Half form = 0;
  Err = nullptr;
  if (dwarf_whatform(attr, &form, &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_whatform", "attribute", AttrCode);
    dwarf_dealloc_attribute(attr);
    return -1;
  }
  if (form != DW_FORM_exprloc && form != DW_FORM_block && form != DW_FORM_block1 && form != DW_FORM_block2 &&
      form != DW_FORM_block4) {
    Dwarf_Off offset = 0;
    Err = nullptr;
    bool read = false;
    if (form == DW_FORM_sec_offset) {
      read = dwarf_global_formref(attr, &offset, &Err) == DW_DLV_OK;
    } else {
      Dwarf_Unsigned u = 0;
      read = dwarf_formudata(attr, &u, &Err) == DW_DLV_OK;
      offset = u;
    }
    if (!read && Err)
      dwarf_dealloc_error(pContext->Dbg, Err);
    if (!read || !_IsListSound(pContext, Die, form, offset, true)) {
      _ReportText(pContext, "location list", "dwarf_get_loclist_c", offset);
      dwarf_dealloc_attribute(attr);
      return -1;
    }
  }
  Dwarf_Loc_Head_c head = nullptr;
  Dwarf_Unsigned count = 0;
  Err = nullptr;
  r = dwarf_get_loclist_c(attr, &head, &count, &Err);
  if (r != DW_DLV_OK) {
    if (r == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_get_loclist_c", "attribute", AttrCode);
    dwarf_dealloc_attribute(attr);
    return r == DW_DLV_NO_ENTRY ? 1 : -1;
  }
  unsigned kind = 0;
  Err = nullptr;
  if (dwarf_get_loclist_head_kind(head, &kind, &Err) != DW_DLV_OK && Err)
    dwarf_dealloc_error(pContext->Dbg, Err);
  DWA_LOC_ENTRY* paOut = count ? (DWA_LOC_ENTRY*)calloc((size_t)count, sizeof(DWA_LOC_ENTRY)) : nullptr;
  U32 n = 0;
  int result = 0;
  for (Dwarf_Unsigned i = 0; paOut && i < count; i++) {
    Dwarf_Small lleValue = 0, source = 0;
    Dwarf_Unsigned rawLo = 0, rawHi = 0, opCount = 0, exprOffset = 0, descOffset = 0;
    Dwarf_Bool unavailable = 0;
    Dwarf_Addr lo = 0, hi = 0;
    Dwarf_Locdesc_c desc = nullptr;
    Err = nullptr;
    r = dwarf_get_locdesc_entry_d(head, i, &lleValue, &rawLo, &rawHi, &unavailable, &lo, &hi, &opCount, &desc,
                                  &source, &exprOffset, &descOffset, &Err);
    if (r != DW_DLV_OK) {
      if (r == DW_DLV_ERROR)
        _Report(pContext, Err, "dwarf_get_locdesc_entry_d");
      result = -1;
      break;
    }
    // Entries that only set a base address, end the list or carry no expression hold no location;
    // libdwarf can fail on an empty entry, so its operations are not asked for.
    if (lleValue == DW_LLE_end_of_list || lleValue == DW_LLE_base_address ||
        lleValue == DW_LLE_base_addressx || unavailable || !desc) {
      continue;
    }
    DWA_LOC_ENTRY* pEntry = &paOut[n];
    pEntry->AllAddresses = kind == DW_LKIND_expression;
    pEntry->Lo = lo;
    pEntry->Hi = hi;
    if (opCount > 0 && opCount < 0x10000) {
      pEntry->paOps = (DWA_LOC_OP*)calloc((size_t)opCount, sizeof(DWA_LOC_OP));
      for (Dwarf_Unsigned k = 0; pEntry->paOps && k < opCount; k++) {
        Dwarf_Small atom = 0;
        Dwarf_Unsigned op1 = 0, op2 = 0, op3 = 0, raw1 = 0, raw2 = 0, raw3 = 0, branchOffset = 0;
        Err = nullptr;
        r = dwarf_get_location_op_value_d(desc, k, &atom, &op1, &op2, &op3, &raw1, &raw2, &raw3,
                                          &branchOffset, &Err);
        if (r != DW_DLV_OK) {
          if (r == DW_DLV_ERROR)
            _Report(pContext, Err, "dwarf_get_location_op_value_d");
          break;
        }
        DWA_LOC_OP* pOp = &pEntry->paOps[pEntry->NumOps++];
        pOp->Op = atom;
        pOp->Operand1 = op1;
        pOp->Operand2 = op2;
        pOp->Operand3 = op3;
        pOp->Offset = branchOffset;
        // For these operations libdwarf hands the length and a pointer to the bytes: keep the bytes.
        if (atom == DW_OP_implicit_value || atom == DW_OP_entry_value || atom == DW_OP_GNU_entry_value) {
          pOp->Operand2 = 0;
          if (op2 && op1 <= sizeof(pOp->Block)) {
            memcpy(pOp->Block, (const void*)(uintptr_t)op2, (size_t)op1);
            pOp->BlockSize = (U8)op1;
          }
        }
      }
    }
    n++;
  }
  dwarf_loc_head_c_dealloc(head);
  dwarf_dealloc_attribute(attr);
  if (!paOut && count)
    return -1;
  *ppaEntries = paOut;
  *pNumEntries = n;
  return result;
}

void DWA_FreeLocations(DWA_LOC_ENTRY* paEntries, U32 NumEntries) {
  if (!paEntries)
    return;
  for (U32 i = 0; i < NumEntries; i++)
    free(paEntries[i].paOps);
  free(paEntries);
}

/*********************************************************************
 * Call frame information
 */

int DWA_LoadFrames(DWA_CONTEXT* pContext, DWA_FRAME_INFO* pInfo) {
  memset(pInfo, 0, sizeof(*pInfo));
  if (!pContext->FramesLoaded) {
    Dwarf_Error Err = nullptr;
    int r = dwarf_get_fde_list(pContext->Dbg, &pContext->paCies, &pContext->NumCies, &pContext->paFdes,
                               &pContext->NumFdes, &Err);
    if (r == DW_DLV_NO_ENTRY)
      return 1;
    if (r != DW_DLV_OK) {
      _Report(pContext, Err, "dwarf_get_fde_list");
      return -1;
    }
    pContext->FramesLoaded = true;
  }
  pInfo->CieCount = (U32)pContext->NumCies;
  pInfo->FdeCount = (U32)pContext->NumFdes;
  if (pContext->NumCies > 0) {
    Dwarf_Unsigned bytes = 0, codeAlign = 0, initialLength = 0;
    Dwarf_Small version = 0;
    char* sAugmenter = nullptr;
    Dwarf_Signed dataAlign = 0;
    Dwarf_Half returnReg = 0, offsetSize = 0;
    Dwarf_Ptr pInitial = nullptr;
    Dwarf_Error Err = nullptr;
    if (dwarf_get_cie_info_b(pContext->paCies[0], &bytes, &version, &sAugmenter, &codeAlign, &dataAlign,
                             &returnReg, &pInitial, &initialLength, &offsetSize, &Err) == DW_DLV_OK) {
      pInfo->ReturnAddrReg = returnReg;
    } else {
      _Report(pContext, Err, "dwarf_get_cie_info_b");
    }
  }
  return 0;
}

static void _ConvertRule(const Dwarf_Regtable_Entry3& In, DWA_REG_RULE* pOut) {
  pOut->Reg = In.dw_regnum;
  pOut->Offset = (I64)In.dw_offset_or_block_len;
  if (In.dw_regnum == DW_FRAME_UNDEFINED_VAL) {
    pOut->Kind = DWA_RULE_UNDEFINED;
  } else if (In.dw_regnum == DW_FRAME_SAME_VAL) {
    pOut->Kind = DWA_RULE_SAME_VALUE;
  } else if (In.dw_value_type == DW_EXPR_OFFSET) {
    pOut->Kind = In.dw_offset_relevant ? DWA_RULE_OFFSET : DWA_RULE_REGISTER;
  } else if (In.dw_value_type == DW_EXPR_VAL_OFFSET) {
    pOut->Kind = DWA_RULE_VAL_OFFSET;
  } else {
    pOut->Kind = DWA_RULE_EXPRESSION;
  }
}

int DWA_GetFrameRules(DWA_CONTEXT* pContext, U64 Pc, DWA_REG_RULE* paRules, DWA_REG_RULE* pCfa, U64* pRowPc) {
  DWA_FRAME_INFO info;
  int r = DWA_LoadFrames(pContext, &info);
  if (r != 0)
    return r;
  Dwarf_Fde fde = nullptr;
  Dwarf_Addr lo = 0, hi = 0;
  Dwarf_Error Err = nullptr;
  r = dwarf_get_fde_at_pc(pContext->paFdes, Pc, &fde, &lo, &hi, &Err);
  if (r == DW_DLV_NO_ENTRY)
    return 1;
  if (r != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_get_fde_at_pc", "offset", Pc);
    return -1;
  }
  Dwarf_Regtable_Entry3 aEntries[DWA_NUM_FRAME_REGS];
  memset(aEntries, 0, sizeof(aEntries));
  Dwarf_Regtable3 table;
  memset(&table, 0, sizeof(table));
  table.rt3_reg_table_size = DWA_NUM_FRAME_REGS;
  table.rt3_rules = aEntries;
  Dwarf_Addr rowPc = 0;
  Err = nullptr;
  r = dwarf_get_fde_info_for_all_regs3(fde, Pc, &table, &rowPc, &Err);
  if (r != DW_DLV_OK) {
    if (r == DW_DLV_ERROR)
      _Report(pContext, Err, "dwarf_get_fde_info_for_all_regs3", "offset", Pc);
    return -1;
  }
  for (int i = 0; i < DWA_NUM_FRAME_REGS; i++)
    _ConvertRule(aEntries[i], &paRules[i]);
  _ConvertRule(table.rt3_cfa_rule, pCfa);
  if (pCfa->Kind == DWA_RULE_OFFSET || pCfa->Kind == DWA_RULE_REGISTER)
    pCfa->Kind = DWA_RULE_CFA;
  if (pRowPc)
    *pRowPc = rowPc;
  return 0;
}

int DWA_GetFde(DWA_CONTEXT* pContext, U32 Index, DWA_FDE* pFde) {
  memset(pFde, 0, sizeof(*pFde));
  DWA_FRAME_INFO info;
  if (DWA_LoadFrames(pContext, &info) != 0 || Index >= info.FdeCount)
    return -1;
  Dwarf_Fde fde = pContext->paFdes[Index];
  Dwarf_Error Err = nullptr;
  Dwarf_Addr lo = 0;
  Dwarf_Unsigned length = 0, fdeLength = 0;
  Dwarf_Ptr pFdeBytes = nullptr;
  Dwarf_Off cieOffset = 0, fdeOffset = 0;
  Dwarf_Signed cieIndex = 0;
  if (dwarf_get_fde_range(fde, &lo, &length, &pFdeBytes, &fdeLength, &cieOffset, &cieIndex, &fdeOffset,
                          &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_get_fde_range", "index", Index);
    return -1;
  }
  Dwarf_Ptr pInstr = nullptr;
  Dwarf_Unsigned instrLength = 0;
  if (dwarf_get_fde_instr_bytes(fde, &pInstr, &instrLength, &Err) != DW_DLV_OK) {
    _Report(pContext, Err, "dwarf_get_fde_instr_bytes", "index", Index);
    return -1;
  }
  Dwarf_Cie cie = nullptr;
  Dwarf_Signed dataAlign = 1;
  if (dwarf_get_cie_of_fde(fde, &cie, &Err) == DW_DLV_OK) {
    Dwarf_Unsigned bytes = 0, codeAlign = 0, initialLength = 0;
    Dwarf_Small version = 0;
    char* sAugmenter = nullptr;
    Dwarf_Half returnReg = 0, offsetSize = 0;
    Dwarf_Ptr pInitial = nullptr;
    if (dwarf_get_cie_info_b(cie, &bytes, &version, &sAugmenter, &codeAlign, &dataAlign, &returnReg,
                             &pInitial, &initialLength, &offsetSize, &Err) != DW_DLV_OK) {
      _Report(pContext, Err, "dwarf_get_cie_info_b", "index", Index);
      dataAlign = 1;
    }
  } else if (Err) {
    _Report(pContext, Err, "dwarf_get_cie_of_fde", "index", Index);
  }
  pFde->Lo = lo;
  pFde->Hi = lo + length;
  pFde->pInstr = (const U8*)pInstr;
  pFde->InstrLength = instrLength;
  pFde->DataAlign = dataAlign;
  return 0;
}
