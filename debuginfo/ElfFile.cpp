// The ELF layer; see ElfFile.h.
#include "debuginfo/ElfFile.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "debuginfo/DwarfTree.h"

static ELF_LOG_CALLBACK _pfLog = nullptr;
static bool _TraceOn = false;
static int _LastTraceSite = 0;

static ELF_FILE* _apFiles[ELF_MAX_FILES];
static ELF_FILE* _pCurrentFile = nullptr;
static bool _Busy = false;
static bool _Closing = false;

static ELF_SEGMENT_RANGE _aSegments[ELF_MAX_SEGMENTS];
static U32 _NumSegments = 0;
static U8 _TargetBigEndian = 0;
static U32 _SymAddrLow = 0xFFFFFFFF;
static U32 _SymAddrHigh = 0;
static U32 _SymAddrCount = 0;

static constexpr int kMaxRelocations = 64;
static ELF_RELOC_ROW _aRelocations[kMaxRelocations];
static U32 _NumRelocations = 0;

static const U32 kElfMagic = 0x464C457F;  // 0x7F 'E' 'L' 'F' read as a little-endian word
static const U32 kEfArmBe8 = 0x800000;
static const U32 kEhdrSize = 52;
static const U32 kPhdrSize = 32;
static const U32 kShdrSize = 40;
static const U32 kSymSize = 16;

/*********************************************************************
 * Logging
 */

void ELF_SetLogCallback(ELF_LOG_CALLBACK pfLog) {
  _pfLog = pfLog;
}
ELF_LOG_CALLBACK ELF_GetLogCallback() {
  return _pfLog;
}
void ELF_SetTrace(bool On) {
  _TraceOn = On;
}
bool ELF_IsTraceOn() {
  return _TraceOn;
}

void ELF_Log(U32 Severity, const char* sFormat, ...) {
  if (!_pfLog)
    return;
  char acText[1024];
  va_list args;
  va_start(args, sFormat);
  vsnprintf(acText, sizeof(acText), sFormat, args);
  va_end(args);
  _pfLog(acText, Severity);
}

void ELF_TraceHandle(const char* sFunction, int CallSite, U64 Handle) {
  if (CallSite == _LastTraceSite)
    return;
  _LastTraceSite = CallSite;
  ELF_Log(ELF_LOG_TRACE, "%s, hSym: 0x%X", sFunction, (unsigned)(Handle & 0xFFFFFFFF));
}

void ELF_TraceDieOffset(const char* sFunction, int CallSite, U64 DieOffset) {
  if (CallSite == _LastTraceSite)
    return;
  _LastTraceSite = CallSite;
  ELF_Log(ELF_LOG_TRACE, "%s, die_off: 0x%X", sFunction, (unsigned)DieOffset);
}

/*********************************************************************
 * File table
 */

bool ELF_IsValidFile(const ELF_FILE* pFile) {
  if (!pFile || _Busy || _Closing)
    return false;
  return ELF_GetFileIndex(pFile) >= 0 && pFile->parsed;
}

int ELF_GetFileIndex(const ELF_FILE* pFile) {
  if (!pFile)
    return -1;
  for (int i = 0; i < ELF_MAX_FILES; i++) {
    if (_apFiles[i] == pFile)
      return i;
  }
  return -1;
}

ELF_FILE* ELF_GetFileByIndex(int Index) {
  if (Index < 0 || Index >= ELF_MAX_FILES)
    return nullptr;
  return _apFiles[Index];
}

ELF_FILE* ELF_GetCurrentFile() {
  return _pCurrentFile;
}

static bool _IsRegistered(const ELF_FILE* pFile) {
  return ELF_GetFileIndex(pFile) >= 0;
}

/*********************************************************************
 * Byte order
 */

static U16 _Swap16(U16 v) {
  return (U16)((v >> 8) | (v << 8));
}
static U32 _Swap32(U32 v) {
  return (v >> 24) | ((v >> 8) & 0xFF00) | ((v << 8) & 0xFF0000) | (v << 24);
}

static bool _IsBigEndianFile(const ELF_FILE* pFile) {
  ELF_DATA_ENCODING e = ELF_GetDataEncoding(const_cast<ELF_FILE*>(pFile));
  return e == ELF_ENC_ARM_BE8 || e == ELF_ENC_ARM_BE32;
}

// True when [Offset, Offset + Size) lies inside the image. Written so that no sum can wrap.
static bool _InFile(const ELF_FILE* pFile, U64 Offset, U64 Size) {
  return Offset <= pFile->fileSize && Size <= pFile->fileSize - Offset;
}

/*********************************************************************
 * Parsing
 */

static int _ParseHeader(ELF_FILE* pFile) {
  if (!pFile || !_IsRegistered(pFile)) {
    ELF_Log(ELF_LOG_MESSAGE, "Invalid ELF file handle.");
    return -1;
  }
  if (pFile->fileSize < kEhdrSize) {
    // Test the magic on what is there, so that a short non-ELF file still gets the usual text.
    U32 magic = 0;
    if (pFile->fileSize >= 4)
      memcpy(&magic, pFile->data, 4);
    if (magic != kElfMagic) {
      ELF_Log(ELF_LOG_MESSAGE, "Not a valid elf object file.");
    } else {
      ELF_Log(ELF_LOG_MESSAGE, "%s: file of %u bytes is shorter than the 52-byte ELF header.", pFile->sPath,
              pFile->fileSize);
    }
    return -1;
  }
  U32 magic;
  memcpy(&magic, pFile->data, 4);
  if (magic != kElfMagic) {
    ELF_Log(ELF_LOG_MESSAGE, "Not a valid elf object file.");
    return -1;
  }
  memcpy(&pFile->ehdr, pFile->data, kEhdrSize);
  ELF_EHDR* h = &pFile->ehdr;
  if (h->e_ident[4] == 0) {
    ELF_Log(ELF_LOG_MESSAGE, "Invalid ELF file. Invalid file class");
    return -1;
  }
  if (h->e_ident[4] != 1) {
    ELF_Log(ELF_LOG_MESSAGE,
            "%s: ELF class %u (64-bit) is not supported; only 32-bit ARM programs can be loaded.",
            pFile->sPath, h->e_ident[4]);
    return -1;
  }
  if (ELF_GetDataEncoding(pFile) == ELF_ENC_INVALID) {
    ELF_Log(ELF_LOG_MESSAGE, "Invalid ELF file. Invalid data encoding");
    return -1;
  }
  if (h->e_ident[6] != 1) {
    ELF_Log(ELF_LOG_MESSAGE, "Invalid ELF file. Invalid ELF header version number.");
    return -1;
  }
  if (_IsBigEndianFile(pFile)) {
    h->e_type = _Swap16(h->e_type);
    h->e_machine = _Swap16(h->e_machine);
    h->e_version = _Swap32(h->e_version);
    h->e_entry = _Swap32(h->e_entry);
    h->e_phoff = _Swap32(h->e_phoff);
    h->e_shoff = _Swap32(h->e_shoff);
    h->e_flags = _Swap32(h->e_flags);
    h->e_ehsize = _Swap16(h->e_ehsize);
    h->e_phentsize = _Swap16(h->e_phentsize);
    h->e_phnum = _Swap16(h->e_phnum);
    h->e_shentsize = _Swap16(h->e_shentsize);
    h->e_shnum = _Swap16(h->e_shnum);
    h->e_shstrndx = _Swap16(h->e_shstrndx);
  }
  if (h->e_version == 0) {
    ELF_Log(ELF_LOG_MESSAGE, "Invalid ELF file. Invalid file version number.");
    return -1;
  }
  return 0;
}

// Reads Count records of RecordSize bytes at Stride from Offset into a new array. Each record is
// treated as 32-bit words that are swapped on big-endian files. Returns 0, or -1 with a line naming
// the table and the offset.
static int _ReadTable(ELF_FILE* pFile, const char* sWhat, U32 Offset, U32 Count, U32 Stride, U32 RecordSize,
                      void** ppTable) {
  *ppTable = nullptr;
  if (Count == 0)
    return 0;
  if (Stride < RecordSize) {
    ELF_Log(ELF_LOG_MESSAGE, "%s: %s entry size %u is smaller than %u bytes.", pFile->sPath, sWhat, Stride,
            RecordSize);
    return -1;
  }
  if (!_InFile(pFile, Offset, (U64)(Count - 1) * Stride + RecordSize)) {
    ELF_Log(ELF_LOG_MESSAGE, "%s: %s of %u entries at offset 0x%X runs past the end of the file (%u bytes).",
            pFile->sPath, sWhat, Count, Offset, pFile->fileSize);
    return -1;
  }
  U8* pTable = (U8*)calloc(Count, RecordSize);
  if (!pTable)
    return -1;
  bool swap = _IsBigEndianFile(pFile);
  for (U32 i = 0; i < Count; i++) {
    U32* pWords = (U32*)(pTable + (size_t)i * RecordSize);
    memcpy(pWords, pFile->data + Offset + (size_t)i * Stride, RecordSize);
    if (swap) {
      for (U32 w = 0; w < RecordSize / 4; w++)
        pWords[w] = _Swap32(pWords[w]);
    }
  }
  *ppTable = pTable;
  return 0;
}

static int _ParseProgramHeaders(ELF_FILE* pFile) {
  const ELF_EHDR* h = &pFile->ehdr;
  return _ReadTable(pFile, "program header table", h->e_phoff, h->e_phnum, h->e_phentsize, kPhdrSize,
                    (void**)&pFile->phdrs);
}

static int _ParseSectionHeaders(ELF_FILE* pFile) {
  const ELF_EHDR* h = &pFile->ehdr;
  if (_ReadTable(pFile, "section header table", h->e_shoff, h->e_shnum, h->e_shentsize, kShdrSize,
                 (void**)&pFile->shdrs) < 0) {
    return -1;
  }
  pFile->strtabIdx = ELF_INVALID_INDEX;
  pFile->symtabIdx = ELF_INVALID_INDEX;
  for (U32 i = 0; i < h->e_shnum; i++) {
    const char* sName = ELF_GetSectionName(pFile, i);
    if (pFile->strtabIdx == ELF_INVALID_INDEX && strcmp(sName, ".strtab") == 0)
      pFile->strtabIdx = i;
    if (pFile->symtabIdx == ELF_INVALID_INDEX && strcmp(sName, ".symtab") == 0)
      pFile->symtabIdx = i;
  }
  return 0;
}

// Mapping names: "$a", "$t", "$d", optionally followed by "." and anything.
static ELF_CODE_TYPE _GetMappingType(const char* sName) {
  if (sName[0] != '$' || sName[1] == 0)
    return ELF_CODE_NONE;
  if (sName[2] != 0 && sName[2] != '.')
    return ELF_CODE_NONE;
  switch (sName[1]) {
    case 'a':
      return ELF_CODE_ARM;
    case 't':
      return ELF_CODE_THUMB;
    case 'd':
      return ELF_CODE_DATA;
    default:
      return ELF_CODE_NONE;
  }
}

static U32 _SymIndex(const ELF_FILE* pFile, const ELF_SYM* pSym) {
  return (U32)(pSym - pFile->syms);
}
static U32 _SymType(const ELF_SYM* pSym) {
  return pSym->st_info & 0xF;
}
static U32 _SymBind(const ELF_SYM* pSym) {
  return pSym->st_info >> 4;
}
static bool _IsFuncType(U32 Type) {
  return Type == ELF_STT_FUNC || Type == ELF_STT_ARM_TFUNC;
}

static const ELF_SHDR* _GetSymSection(const ELF_FILE* pFile, const ELF_SYM* pSym) {
  if (pSym->st_shndx == 0 || pSym->st_shndx >= pFile->ehdr.e_shnum)
    return nullptr;
  return &pFile->shdrs[pSym->st_shndx];
}

static int _CompareSymAddr(const void* a, const void* b) {
  U32 va = (*(const ELF_SYM* const*)a)->st_value;
  U32 vb = (*(const ELF_SYM* const*)b)->st_value;
  return va < vb ? -1 : (va > vb ? 1 : 0);
}

static void _FillDataSizes(ELF_FILE* pFile) {
  for (U32 i = 0; i < pFile->symCount; i++) {
    ELF_SYM* pSym = pFile->symsByAddr[i];
    if (pSym->st_size != 0 || _SymType(pSym) != ELF_STT_OBJECT)
      continue;
    const ELF_SHDR* pSection = _GetSymSection(pFile, pSym);
    if (!pSection)
      continue;
    U64 end = (U64)pSection->sh_addr + pSection->sh_size;
    if (i + 1 < pFile->symCount && pFile->symsByAddr[i + 1]->st_value < end) {
      end = pFile->symsByAddr[i + 1]->st_value;
    }
    U64 size = end > pSym->st_value ? end - pSym->st_value : 0;
    pSym->st_size = size > ELF_MAX_FILL_SIZE ? 0 : (U32)size;
  }
}

static void _FillCodeSizes(ELF_FILE* pFile) {
  for (U32 i = 0; i < pFile->symCount; i++) {
    ELF_SYM* pSym = pFile->symsByAddr[i];
    if (pSym->st_size != 0 || !_IsFuncType(_SymType(pSym)))
      continue;
    const ELF_SHDR* pSection = _GetSymSection(pFile, pSym);
    if (!pSection)
      continue;
    U64 start = pSym->st_value & ~1u;
    U64 sectionTop = (U64)pSection->sh_addr + pSection->sh_size;
    U64 sectionEnd = sectionTop & ~(U64)1;
    if (sectionEnd <= start)
      continue;
    U64 end = sectionEnd;
    for (U32 j = i + 1; j < pFile->symCount; j++) {
      const ELF_SYM* pNext = pFile->symsByAddr[j];
      if (_IsFuncType(_SymType(pNext)) && pNext->st_value > pSym->st_value) {
        end = (pNext->st_value < sectionTop ? pNext->st_value : sectionTop) & ~(U64)1;
        break;
      }
    }
    U64 size = end > start ? end - start : 0;
    pSym->st_size = size > ELF_MAX_FILL_SIZE ? 0 : (U32)size;
  }
}

static int _ParseSymbols(ELF_FILE* pFile) {
  U64 totalBytes = 0;
  U64 totalCount = 0;
  for (U32 i = 0; i < pFile->ehdr.e_shnum; i++) {
    const ELF_SHDR* s = &pFile->shdrs[i];
    if (s->sh_type != ELF_SHT_SYMTAB && s->sh_type != ELF_SHT_DYNSYM)
      continue;
    if (s->sh_entsize != 0 && s->sh_entsize != kSymSize) {
      ELF_Log(ELF_LOG_MESSAGE, "%s: symbol table in section %u has entry size %u, expected 16.", pFile->sPath,
              i, s->sh_entsize);
      return -1;
    }
    if (!_InFile(pFile, s->sh_offset, s->sh_size)) {
      ELF_Log(
          ELF_LOG_MESSAGE,
          "%s: symbol table in section %u (offset 0x%X, %u bytes) runs past the end of the file (%u bytes).",
          pFile->sPath, i, s->sh_offset, s->sh_size, pFile->fileSize);
      return -1;
    }
    totalBytes += s->sh_size;
    if (s->sh_entsize)
      totalCount += s->sh_size / kSymSize;
  }
  pFile->symCount = (U32)totalCount;
  if (totalCount == 0)
    return 0;
  pFile->syms = (ELF_SYM*)calloc(totalCount, sizeof(ELF_SYM));
  pFile->symNameSection = (U32*)calloc(totalCount, sizeof(U32));
  pFile->symsByAddr = (ELF_SYM**)calloc(totalCount, sizeof(ELF_SYM*));
  if (!pFile->syms || !pFile->symNameSection || !pFile->symsByAddr)
    return -1;
  (void)totalBytes;
  bool swap = _IsBigEndianFile(pFile);
  U32 n = 0;
  for (U32 i = 0; i < pFile->ehdr.e_shnum; i++) {
    const ELF_SHDR* s = &pFile->shdrs[i];
    if ((s->sh_type != ELF_SHT_SYMTAB && s->sh_type != ELF_SHT_DYNSYM) || s->sh_entsize == 0)
      continue;
    U32 count = s->sh_size / kSymSize;
    for (U32 k = 0; k < count; k++, n++) {
      ELF_SYM* pSym = &pFile->syms[n];
      memcpy(pSym, pFile->data + s->sh_offset + (size_t)k * kSymSize, kSymSize);
      if (swap) {
        pSym->st_name = _Swap32(pSym->st_name);
        pSym->st_value = _Swap32(pSym->st_value);
        pSym->st_size = _Swap32(pSym->st_size);
        pSym->st_shndx = _Swap16(pSym->st_shndx);
      }
      // Names are looked up in ".strtab" as the linker writes them; a dynamic symbol table names its
      // own string section through sh_link.
      pFile->symNameSection[n] = s->sh_type == ELF_SHT_DYNSYM ? s->sh_link : pFile->strtabIdx;
      pFile->symsByAddr[n] = pSym;
    }
  }
  qsort(pFile->symsByAddr, pFile->symCount, sizeof(ELF_SYM*), _CompareSymAddr);
  _FillDataSizes(pFile);
  _FillCodeSizes(pFile);

  pFile->mappingSyms = (ELF_SYM**)calloc(pFile->symCount, sizeof(ELF_SYM*));
  pFile->funcSyms = (ELF_SYM**)calloc(pFile->symCount, sizeof(ELF_SYM*));
  if (!pFile->mappingSyms || !pFile->funcSyms)
    return -1;
  for (U32 i = 0; i < pFile->symCount; i++) {
    ELF_SYM* pSym = pFile->symsByAddr[i];
    if (_SymType(pSym) != ELF_STT_NOTYPE || _SymBind(pSym) != ELF_STB_LOCAL)
      continue;
    const ELF_SHDR* pSection = _GetSymSection(pFile, pSym);
    if (!pSection || !(pSection->sh_flags & ELF_SHF_EXECINSTR))
      continue;
    if (_GetMappingType(ELF_GetSymName(pFile, _SymIndex(pFile, pSym))) == ELF_CODE_NONE)
      continue;
    pFile->mappingSyms[pFile->mappingSymCount++] = pSym;
  }
  for (U32 i = 0; i < pFile->symCount; i++) {
    ELF_SYM* pSym = pFile->symsByAddr[i];
    if (!_IsFuncType(_SymType(pSym)) || pSym->st_value < 2)
      continue;
    const char* sName = ELF_GetSymName(pFile, _SymIndex(pFile, pSym));
    if (sName[0] == 0 || sName[0] == '?' || sName[0] == '$')
      continue;
    if (pFile->funcSymCount == 0 || pFile->funcSyms[pFile->funcSymCount - 1]->st_value != pSym->st_value) {
      pFile->funcSyms[pFile->funcSymCount++] = pSym;
      continue;
    }
    ELF_SYM** ppLast = &pFile->funcSyms[pFile->funcSymCount - 1];
    if (pSym->st_size > (*ppLast)->st_size ||
        (pSym->st_size == (*ppLast)->st_size && _SymIndex(pFile, pSym) < _SymIndex(pFile, *ppLast))) {
      *ppLast = pSym;
    }
  }
  return 0;
}

static void _BuildSegmentTable(ELF_FILE* pFile) {
  _NumSegments = pFile->ehdr.e_phnum < ELF_MAX_SEGMENTS ? pFile->ehdr.e_phnum : ELF_MAX_SEGMENTS;
  for (U32 i = 0; i < _NumSegments; i++) {
    const ELF_PHDR* p = &pFile->phdrs[i];
    _aSegments[i].start = p->p_vaddr;
    U64 end = (U64)p->p_vaddr + p->p_filesz;
    _aSegments[i].end = end > 0xFFFFFFFF ? 0xFFFFFFFF : (U32)end;
    _aSegments[i].pData = ELF_GetSegmentData(pFile, i);
  }
}

static void _ComputeSymAddrLimits(ELF_FILE* pFile) {
  _SymAddrLow = 0xFFFFFFFF;
  _SymAddrHigh = 0;
  _SymAddrCount = pFile->symCount;
  for (U32 i = 0; i < pFile->symCount; i++) {
    const ELF_SYM* pSym = &pFile->syms[i];
    U32 lo = ELF_ApplyRelocation(pSym->st_value & ~1u, false);
    U64 hi = (U64)ELF_ApplyRelocation(pSym->st_value & ~1u, false) + pSym->st_size;
    if (lo < _SymAddrLow)
      _SymAddrLow = lo;
    if (hi > _SymAddrHigh)
      _SymAddrHigh = hi > 0xFFFFFFFF ? 0xFFFFFFFF : (U32)hi;
  }
}

static void _ResolveNamedRelocations(ELF_FILE* pFile) {
  for (U32 r = 0; r < _NumRelocations; r++) {
    ELF_RELOC_ROW* pRow = &_aRelocations[r];
    if (pRow->name[0] == 0)
      continue;
    int s = ELF_GetSectionIdx(pFile, pRow->name);
    if (s >= 0) {
      pRow->lo = pFile->shdrs[s].sh_addr;
      pRow->hi = pFile->shdrs[s].sh_addr + pFile->shdrs[s].sh_size;
      continue;
    }
    for (U32 i = 0; i < pFile->symCount; i++) {
      if (strcmp(ELF_GetSymName(pFile, i), pRow->name) != 0)
        continue;
      const ELF_SYM* pSym = &pFile->syms[i];
      U32 mask = _IsFuncType(_SymType(pSym)) ? ~1u : ~0u;
      pRow->lo = pSym->st_value & mask;
      pRow->hi = (pSym->st_value & mask) + pSym->st_size;
      break;
    }
  }
}

/*********************************************************************
 * Open and close
 */

static void _FreeFile(ELF_FILE* pFile) {
  if (!pFile)
    return;
  ELF_FreeDebugInfo(pFile);
  free(pFile->shdrs);
  free(pFile->phdrs);
  free(pFile->syms);
  free(pFile->symNameSection);
  free(pFile->symsByAddr);
  free(pFile->mappingSyms);
  free(pFile->funcSyms);
  free(pFile->data);
  free(pFile);
}

static void _Unregister(ELF_FILE* pFile) {
  for (int i = 0; i < ELF_MAX_FILES; i++) {
    if (_apFiles[i] == pFile)
      _apFiles[i] = nullptr;
  }
  if (_pCurrentFile == pFile)
    _pCurrentFile = nullptr;
}

static ELF_FILE* _FailOpen(const char* sText, FILE* pDisk, ELF_FILE* pFile) {
  ELF_Log(ELF_LOG_MESSAGE, "%s", sText);
  if (pDisk)
    fclose(pDisk);
  if (pFile) {
    _Unregister(pFile);
    _FreeFile(pFile);
  }
  _NumSegments = 0;
  _Busy = false;
  return nullptr;
}

// Steps 8 to 14 of an open: register the file and parse its image.
static ELF_FILE* _ParseImage(ELF_FILE* pFile) {
  if (pFile->fileSize >= 4 && memcmp(pFile->data,
                                     "\x7F"
                                     "ELF",
                                     4) != 0)
    ELF_Log(ELF_LOG_MESSAGE, "not an elf file.");
  for (int i = 0; i < ELF_MAX_FILES; i++) {
    if (!_apFiles[i])
      _apFiles[i] = pFile;
  }
  _pCurrentFile = pFile;
  pFile->parsed = 0;

  if (_ParseHeader(pFile) < 0)
    return _FailOpen("could not parse file header.", nullptr, pFile);
  if (_ParseProgramHeaders(pFile) < 0)
    return _FailOpen("could not parse segment headers.", nullptr, pFile);
  if (_ParseSectionHeaders(pFile) < 0)
    return _FailOpen("could not section headers.", nullptr, pFile);
  if (_ParseSymbols(pFile) < 0)
    return _FailOpen("could not parse symbols.", nullptr, pFile);
  if (ELF_ParseDebugInfo(pFile) < 0)
    ELF_Log(ELF_LOG_MESSAGE, "debug info could not be parsed.");

  pFile->parsed = 1;
  _Busy = false;
  _ResolveNamedRelocations(pFile);
  _TargetBigEndian = ELF_GetDataEncoding(pFile) == ELF_ENC_ARM_BE32 ? 1 : 0;
  _BuildSegmentTable(pFile);
  _ComputeSymAddrLimits(pFile);
  return pFile;
}

// A new file record with its image buffer, or null after logging the failing step.
static ELF_FILE* _CreateFile(const char* sName, U32 Size, FILE* pDisk) {
  ELF_FILE* pFile = (ELF_FILE*)calloc(1, sizeof(ELF_FILE));
  if (!pFile)
    return _FailOpen("could not allocate file structure.", pDisk, nullptr);
  snprintf(pFile->sPath, sizeof(pFile->sPath), "%s", sName);
  pFile->fileSize = Size;
  pFile->strtabIdx = ELF_INVALID_INDEX;
  pFile->symtabIdx = ELF_INVALID_INDEX;
  pFile->cfaOffsetFactor = 1;
  pFile->data = (U8*)calloc(1, Size);
  if (!pFile->data)
    return _FailOpen("could not allocate file data buffer.", pDisk, pFile);
  return pFile;
}

ELF_FILE* ELF_Open(const char* sPath) {
  _Busy = true;
  if (_apFiles[ELF_MAX_FILES - 1])
    return _FailOpen("maximum number of files already open.", nullptr, nullptr);
  FILE* pDisk = sPath ? fopen(sPath, "rb") : nullptr;
  if (!pDisk) {
    ELF_Log(ELF_LOG_MESSAGE, "%s: cannot open.", sPath ? sPath : "(no file name)");
    return _FailOpen("failed to open file.", nullptr, nullptr);
  }
  long size = -1;
  if (fseek(pDisk, 0, SEEK_END) == 0)
    size = ftell(pDisk);
  if (size < 1 || (unsigned long)size > 0xFFFFFFFFul) {
    ELF_Log(ELF_LOG_MESSAGE, "%s: size %ld.", sPath, size);
    return _FailOpen("invalid file size detected. Could not parse file.", pDisk, nullptr);
  }
  fseek(pDisk, 0, SEEK_SET);
  ELF_FILE* pFile = _CreateFile(sPath, (U32)size, pDisk);
  if (!pFile)
    return nullptr;
  if (fread(pFile->data, 1, (size_t)size, pDisk) != (size_t)size) {
    return _FailOpen("could not read file data.", pDisk, pFile);
  }
  fclose(pDisk);
  return _ParseImage(pFile);
}

ELF_FILE* ELF_OpenImage(const void* pData, U32 Size, const char* sName) {
  _Busy = true;
  if (_apFiles[ELF_MAX_FILES - 1])
    return _FailOpen("maximum number of files already open.", nullptr, nullptr);
  if (Size < 1 || !pData)
    return _FailOpen("invalid file size detected. Could not parse file.", nullptr, nullptr);
  ELF_FILE* pFile = _CreateFile(sName ? sName : "(memory)", Size, nullptr);
  if (!pFile)
    return nullptr;
  memcpy(pFile->data, pData, Size);
  return _ParseImage(pFile);
}

void ELF_Close(ELF_FILE* pFile) {
  if (!_IsRegistered(pFile) || _Closing)
    return;
  ELF_ClearRelocations();
  _Closing = true;
  _pCurrentFile = nullptr;
  pFile->parsed = 0;
  _Unregister(pFile);
  _FreeFile(pFile);
  _NumSegments = 0;
  _SymAddrLow = 0xFFFFFFFF;
  _SymAddrHigh = 0;
  _SymAddrCount = 0;
  _Closing = false;
}

/*********************************************************************
 * Header and section accessors
 */

static ELF_FILE* _Checked(ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) ? pFile : nullptr;
}

static const ELF_PHDR* _Phdr(ELF_FILE* pFile, U32 i) {
  pFile = _Checked(pFile);
  return pFile && i < pFile->ehdr.e_phnum ? &pFile->phdrs[i] : nullptr;
}

static const ELF_SHDR* _Shdr(ELF_FILE* pFile, U32 i) {
  pFile = _Checked(pFile);
  return pFile && i < pFile->ehdr.e_shnum ? &pFile->shdrs[i] : nullptr;
}

U32 ELF_GetProgramHeaderCount(ELF_FILE* pFile) {
  return _Checked(pFile) ? pFile->ehdr.e_phnum : 0;
}
U32 ELF_GetSegmentType(ELF_FILE* pFile, U32 i) {
  return _Phdr(pFile, i) ? _Phdr(pFile, i)->p_type : 0;
}
U32 ELF_GetSegmentVirtAddr(ELF_FILE* pFile, U32 i) {
  return _Phdr(pFile, i) ? _Phdr(pFile, i)->p_vaddr : 0;
}
U32 ELF_GetSegmentPhysAddr(ELF_FILE* pFile, U32 i) {
  return _Phdr(pFile, i) ? _Phdr(pFile, i)->p_paddr : 0;
}
U32 ELF_GetSegmentFileSize(ELF_FILE* pFile, U32 i) {
  return _Phdr(pFile, i) ? _Phdr(pFile, i)->p_filesz : 0;
}
U32 ELF_GetSegmentMemSize(ELF_FILE* pFile, U32 i) {
  return _Phdr(pFile, i) ? _Phdr(pFile, i)->p_memsz : 0;
}
U32 ELF_GetSegmentFlags(ELF_FILE* pFile, U32 i) {
  return _Phdr(pFile, i) ? _Phdr(pFile, i)->p_flags : 0;
}

const U8* ELF_GetSegmentData(ELF_FILE* pFile, U32 i) {
  // Called from the open sequence before `parsed` is set, so the test is on the table only.
  if (!_IsRegistered(pFile) || i >= pFile->ehdr.e_phnum)
    return nullptr;
  const ELF_PHDR* p = &pFile->phdrs[i];
  if ((I32)p->p_offset < 0)
    return nullptr;
  // A range that reaches the very end of the file counts as outside.
  if ((U64)p->p_offset + p->p_filesz >= pFile->fileSize)
    return nullptr;
  return pFile->data + p->p_offset;
}

U32 ELF_GetSegmentFirstSectionOff(ELF_FILE* pFile, U32 i) {
  const ELF_PHDR* p = _Phdr(pFile, i);
  if (!p || p->p_filesz == 0)
    return 0;
  U64 segEnd = (U64)p->p_vaddr + p->p_filesz;
  U64 lowest = segEnd;
  bool found = false;
  for (U32 s = 0; s < pFile->ehdr.e_shnum; s++) {
    const ELF_SHDR* sh = &pFile->shdrs[s];
    if (!(sh->sh_flags & ELF_SHF_ALLOC) || sh->sh_size == 0)
      continue;
    if (sh->sh_addr < p->p_vaddr || (U64)sh->sh_addr + sh->sh_size > segEnd)
      continue;
    if (sh->sh_addr < lowest)
      lowest = sh->sh_addr;
    found = true;
  }
  return found ? (U32)(lowest - p->p_vaddr) : p->p_filesz;
}

U32 ELF_GetSectionCount(ELF_FILE* pFile) {
  return _Checked(pFile) ? pFile->ehdr.e_shnum : 0;
}
U32 ELF_GetSectionAddr(ELF_FILE* pFile, U32 i) {
  return _Shdr(pFile, i) ? _Shdr(pFile, i)->sh_addr : 0;
}
U32 ELF_GetSectionSize(ELF_FILE* pFile, U32 i) {
  return _Shdr(pFile, i) ? _Shdr(pFile, i)->sh_size : 0;
}
U32 ELF_GetSectionFlags(ELF_FILE* pFile, U32 i) {
  return _Shdr(pFile, i) ? _Shdr(pFile, i)->sh_flags : 0;
}
U32 ELF_GetSectionType(ELF_FILE* pFile, U32 i) {
  return _Shdr(pFile, i) ? _Shdr(pFile, i)->sh_type : 0;
}
U32 ELF_GetSectionEntSize(ELF_FILE* pFile, U32 i) {
  return _Shdr(pFile, i) ? _Shdr(pFile, i)->sh_entsize : 0;
}
U32 ELF_GetSectionOffset(ELF_FILE* pFile, U32 i) {
  return _Shdr(pFile, i) ? _Shdr(pFile, i)->sh_offset : 0;
}

// Section bytes for the layer itself, usable during the open sequence.
const U8* ELF_GetSectionBytes(ELF_FILE* pFile, U32 i) {
  if (!_IsRegistered(pFile) || !pFile->shdrs || i >= pFile->ehdr.e_shnum)
    return nullptr;
  const ELF_SHDR* sh = &pFile->shdrs[i];
  if (sh->sh_type == ELF_SHT_NOBITS || sh->sh_size == 0)
    return nullptr;
  if (!_InFile(pFile, sh->sh_offset, sh->sh_size))
    return nullptr;
  return pFile->data + sh->sh_offset;
}

const U8* ELF_GetSectionData(ELF_FILE* pFile, U32 i) {
  return _Checked(pFile) ? ELF_GetSectionBytes(pFile, i) : nullptr;
}

// A NUL-terminated string at Offset inside section Section, or "" when it does not lie wholly inside.
static const char* _GetString(ELF_FILE* pFile, U32 Section, U32 Offset) {
  const U8* pBytes = ELF_GetSectionBytes(pFile, Section);
  if (!pBytes)
    return "";
  U32 size = pFile->shdrs[Section].sh_size;
  if (Offset >= size)
    return "";
  if (!memchr(pBytes + Offset, 0, size - Offset))
    return "";
  return (const char*)pBytes + Offset;
}

const char* ELF_GetSectionName(ELF_FILE* pFile, U32 i) {
  if (!_IsRegistered(pFile) || !pFile->shdrs || i >= pFile->ehdr.e_shnum)
    return "";
  return _GetString(pFile, pFile->ehdr.e_shstrndx, pFile->shdrs[i].sh_name);
}

int ELF_GetSectionIdx(ELF_FILE* pFile, const char* sName) {
  if (!_IsRegistered(pFile) || !pFile->shdrs || !sName || !sName[0])
    return -1;
  for (U32 i = 0; i < pFile->ehdr.e_shnum; i++) {
    if (strcmp(ELF_GetSectionName(pFile, i), sName) == 0)
      return (int)i;
  }
  return -1;
}

ELF_DATA_ENCODING ELF_GetDataEncoding(ELF_FILE* pFile) {
  if (!_IsRegistered(pFile) || pFile->fileSize < 16)
    return ELF_ENC_INVALID;
  U8 data = pFile->data[5];
  if (data == 1)
    return ELF_ENC_LITTLE;
  if (data != 2)
    return ELF_ENC_INVALID;
  // e_flags is read straight from the image: this runs before the header copy is swapped.
  if (pFile->fileSize < kEhdrSize)
    return ELF_ENC_ARM_BE32;
  U32 flags = _Swap32(*(const U32*)(pFile->data + 36));
  return (flags & kEfArmBe8) ? ELF_ENC_ARM_BE8 : ELF_ENC_ARM_BE32;
}

const char* ELF_GetDataEncodingText(ELF_DATA_ENCODING Encoding) {
  switch (Encoding) {
    case ELF_ENC_LITTLE:
      return "Little Endian";
    case ELF_ENC_BIG:
      return "Big Endian";
    case ELF_ENC_ARM_BE8:
      return "ARM BE8 (Big Endian byte invariant)";
    case ELF_ENC_ARM_BE32:
      return "ARM BE32 (Big Endian word invariant)";
    default:
      return "Unknown data encoding";
  }
}

U32 ELF_GetEntryPoint(ELF_FILE* pFile) {
  return _Checked(pFile) ? ELF_ApplyRelocation(pFile->ehdr.e_entry & ~1u, false) : 0;
}

const ELF_EHDR* ELF_GetHeader(ELF_FILE* pFile) {
  return _Checked(pFile) ? &pFile->ehdr : nullptr;
}

/*********************************************************************
 * Symbols
 */

U32 ELF_GetSymCount(ELF_FILE* pFile) {
  return _Checked(pFile) ? pFile->symCount : 0;
}

const ELF_SYM* ELF_GetSym(ELF_FILE* pFile, U32 Index) {
  return _Checked(pFile) && Index < pFile->symCount ? &pFile->syms[Index] : nullptr;
}

const char* ELF_GetSymName(ELF_FILE* pFile, U32 Index) {
  if (!_IsRegistered(pFile) || Index >= pFile->symCount)
    return "";
  U32 section = pFile->symNameSection[Index];
  if (section == ELF_INVALID_INDEX)
    return "";
  return _GetString(pFile, section, pFile->syms[Index].st_name);
}

const char* ELF_GetSymDisplayName(ELF_FILE* pFile, U32 Index) {
  const char* sName = ELF_GetSymName(pFile, Index);
  if (sName[0] == '$' && sName[1] != 0) {
    if (sName[1] == 'a')
      return "$ARM";
    if (sName[1] == 't')
      return "$Thumb";
    if (sName[1] == 'd')
      return "$Data";
  }
  return sName;
}

U64 ELF_GetSymHandle(ELF_FILE* pFile, U32 Index) {
  if (!_Checked(pFile) || Index >= pFile->symCount)
    return 0;
  return ELF_MakeElfHandle(ELF_GetFileIndex(pFile), Index);
}

U32 ELF_GetFuncSymCount(ELF_FILE* pFile) {
  return _Checked(pFile) ? pFile->funcSymCount : 0;
}
U32 ELF_GetMappingSymCount(ELF_FILE* pFile) {
  return _Checked(pFile) ? pFile->mappingSymCount : 0;
}

int ELF_GetFuncSymIdx(ELF_FILE* pFile, U32 n) {
  if (!_Checked(pFile) || n >= pFile->funcSymCount)
    return -1;
  return (int)_SymIndex(pFile, pFile->funcSyms[n]);
}

int ELF_GetSymIdxByName(const char* sName) {
  ELF_FILE* pFile = _Checked(_pCurrentFile);
  if (!pFile || !sName)
    return -1;
  for (U32 i = 0; i < pFile->symCount; i++) {
    if (strcmp(ELF_GetSymName(pFile, i), sName) == 0)
      return (int)i;
  }
  return -1;
}

int ELF_GetSectionIdxByName(const char* sName) {
  ELF_FILE* pFile = _Checked(_pCurrentFile);
  return pFile ? ELF_GetSectionIdx(pFile, sName) : -1;
}

// Index of the entry with the key, else of the greatest entry below it; -1 when all are above.
static int _SearchByAddr(ELF_SYM* const* paSyms, U32 n, U32 Key) {
  int lo = 0, hi = (int)n - 1, found = -1;
  while (lo <= hi) {
    int mid = lo + (hi - lo) / 2;
    U32 v = paSyms[mid]->st_value;
    if (v == Key)
      return mid;
    if (v < Key) {
      found = mid;
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  return found;
}

int ELF_FindFuncSymbol(ELF_FILE* pFile, U32 Addr) {
  if (!_Checked(pFile))
    return -1;
  U32 key = ELF_UndoRelocation(Addr, false) | 1;
  int i = _SearchByAddr(pFile->funcSyms, pFile->funcSymCount, key);
  if (i < 0)
    return -1;
  const ELF_SYM* pSym = pFile->funcSyms[i];
  if (pSym->st_value <= key && (U64)key < (U64)pSym->st_value + pSym->st_size)
    return (int)_SymIndex(pFile, pSym);
  return -1;
}

ELF_MAPPING_RANGE ELF_FindMappingRange(ELF_FILE* pFile, U32 Addr) {
  ELF_MAPPING_RANGE range = {0, 0, ELF_CODE_NONE};
  if (!_Checked(pFile))
    return range;
  U32 key = ELF_UndoRelocation(Addr, false) | 1;
  int i = _SearchByAddr(pFile->mappingSyms, pFile->mappingSymCount, key);
  if (i < 0)
    return range;
  const ELF_SYM* pSym = pFile->mappingSyms[i];
  range.start = pSym->st_value;
  range.end = (U32)i + 1 < pFile->mappingSymCount ? pFile->mappingSyms[i + 1]->st_value : 0xFFFFFFFF;
  range.type = _GetMappingType(ELF_GetSymName(pFile, _SymIndex(pFile, pSym)));
  return range;
}

const char* ELF_GetCodeTypeText(U32 Type) {
  switch (Type) {
    case ELF_CODE_ARM:
      return "ARM";
    case ELF_CODE_THUMB:
      return "THUMB";
    case ELF_CODE_UNDEFINED:
      return "CODE (Undefined type)";
    case ELF_CODE_DATA:
      return "DATA";
    default:
      return "Unknown";
  }
}

void ELF_GetSymAddrLimits(U32* pLow, U32* pHigh, U32* pCount) {
  if (pLow)
    *pLow = _SymAddrLow;
  if (pHigh)
    *pHigh = _SymAddrHigh;
  if (pCount)
    *pCount = _SymAddrCount;
}

/*********************************************************************
 * Program bytes
 */

U32 ELF_GetSegmentTableCount() {
  return _NumSegments;
}

I64 ELF_ReadTargetMem(U32 Addr, U32 Size) {
  if (_Busy || _Closing || !_pCurrentFile || Size == 0 || Size > 8)
    return -1;
  Addr = ELF_UndoRelocation(Addr, false);
  U64 end = (U64)Addr + Size;
  if (end > 0xFFFFFFFF)
    return -1;
  for (U32 i = 0; i < _NumSegments; i++) {
    const ELF_SEGMENT_RANGE* pRow = &_aSegments[i];
    if (pRow->start > Addr || end > pRow->end)
      continue;
    if (!pRow->pData)
      return -1;
    U64 value = 0;
    memcpy(&value, pRow->pData + (Addr - pRow->start), Size);
    if (_TargetBigEndian) {
      if (Size == 2) {
        value = _Swap16((U16)value);
      } else {
        value = (value & 0xFFFFFFFF00000000ull) | _Swap32((U32)value);
      }
    }
    return (I64)value;
  }
  return -1;
}

const U8* ELF_GetTargetMemPtr(U32 Lo, U32 Hi) {
  if (_Busy || _Closing || !_pCurrentFile)
    return nullptr;
  Lo = ELF_UndoRelocation(Lo, false);
  Hi = ELF_UndoRelocation(Hi, true);
  if (Hi < Lo)
    return nullptr;
  for (U32 i = 0; i < _NumSegments; i++) {
    const ELF_SEGMENT_RANGE* pRow = &_aSegments[i];
    if (pRow->pData && pRow->start <= Lo && Hi <= pRow->end)
      return pRow->pData + (Lo - pRow->start);
  }
  return nullptr;
}

/*********************************************************************
 * Relocation
 */

int ELF_AddRelocation(const ELF_RELOC_ROW& Row) {
  if (_NumRelocations >= (U32)kMaxRelocations)
    return -1;
  _aRelocations[_NumRelocations] = Row;
  _aRelocations[_NumRelocations].name[sizeof(Row.name) - 1] = 0;
  _NumRelocations++;
  return 0;
}

// One number of an address range: all of the text, in C notation, within 32 bits.
static bool _ParseRangeEnd(const char* sBegin, const char* sEnd, U32* pValue) {
  while (sBegin < sEnd && isspace((unsigned char)*sBegin))
    sBegin++;
  while (sEnd > sBegin && isspace((unsigned char)sEnd[-1]))
    sEnd--;
  if (sBegin == sEnd || sEnd - sBegin > 20)
    return false;
  char ac[24];
  memcpy(ac, sBegin, (size_t)(sEnd - sBegin));
  ac[sEnd - sBegin] = 0;
  char* sStop = nullptr;
  errno = 0;
  long long v = strtoll(ac, &sStop, 0);
  if (errno || *sStop || v < 0 || v > 0xFFFFFFFFll)
    return false;
  *pValue = (U32)v;
  return true;
}

int ELF_AddRelocationText(const char* sSymbols, I32 Offset, const char** psError) {
  ELF_RELOC_ROW row = {};
  row.offset = Offset;
  const char* sDash = sSymbols ? strchr(sSymbols, '-') : nullptr;
  *psError = nullptr;
  if (!sSymbols || !*sSymbols) {
    *psError = "no symbols given";
  } else if (strcmp(sSymbols, "*") == 0) {
    row.hi = 0xFFFFFFFE;
  } else if (sDash) {
    if (!_ParseRangeEnd(sSymbols, sDash, &row.lo) ||
        !_ParseRangeEnd(sDash + 1, sDash + strlen(sDash), &row.hi))
      *psError = "an address range is two numbers, such as 0x8000-0x9000";
    else if (row.lo == 0 && row.hi == 0)
      *psError = "both ends of the address range are 0";
  } else if (strlen(sSymbols) >= sizeof(row.name)) {
    *psError = "the name is longer than 63 characters";
  } else {
    snprintf(row.name, sizeof(row.name), "%s", sSymbols);
    ELF_FILE* pFile = _pCurrentFile;
    if (pFile && _NumRelocations < (U32)kMaxRelocations) {
      // Resolved in the table's next slot, and kept only if it is added below.
      _aRelocations[_NumRelocations++] = row;
      _ResolveNamedRelocations(pFile);
      row = _aRelocations[--_NumRelocations];
      if (row.lo == 0 && row.hi == 0)
        *psError = "the program has no section or symbol of that name";
    }
  }
  if (!*psError && ELF_AddRelocation(row) < 0)
    *psError = "the relocation table is full";
  return *psError ? -1 : 0;
}

void ELF_ClearRelocations() {
  _NumRelocations = 0;
}
U32 ELF_GetRelocationCount() {
  return _NumRelocations;
}

U32 ELF_ApplyRelocation(U32 Addr, bool IsEnd) {
  I64 a = IsEnd ? 0 : 1, b = IsEnd ? 1 : 0;
  for (U32 r = 0; r < _NumRelocations; r++) {
    const ELF_RELOC_ROW* pRow = &_aRelocations[r];
    if (!((I64)pRow->lo < (I64)Addr + a && (I64)Addr < (I64)pRow->hi + b))
      continue;
    I64 moved = (I64)Addr + pRow->offset;
    if (moved < 0 || moved > 0xFFFFFFFF)
      continue;
    return (U32)moved;
  }
  return Addr;
}

U32 ELF_UndoRelocation(U32 Addr, bool IsEnd) {
  I64 a = IsEnd ? 0 : 1, b = IsEnd ? 1 : 0;
  for (U32 r = 0; r < _NumRelocations; r++) {
    const ELF_RELOC_ROW* pRow = &_aRelocations[r];
    if (!((I64)pRow->lo + pRow->offset < (I64)Addr + a && (I64)Addr < (I64)pRow->hi + pRow->offset + b))
      continue;
    I64 moved = (I64)Addr - pRow->offset;
    if (moved < 0 || moved > 0xFFFFFFFF)
      continue;
    return (U32)moved;
  }
  return Addr;
}
