// The ELF layer: reads one 32-bit ARM program file into memory and answers everything that needs no
// DWARF: headers, segments, sections, ELF symbols, ARM mapping symbols and reads of program bytes.
// Plain structures and functions; all text goes to one log callback.
#pragma once

#include "app/base/Types.h"
#include "debuginfo/DwarfState.h"

// Severities handed to the log callback; they are MSG_INFO_FLAGS values of the application's sink.
enum : U32 {
  ELF_LOG_TRACE = 17,
  ELF_LOG_MESSAGE = 25,
  ELF_LOG_LIBDWARF = 65,
};
typedef int (*ELF_LOG_CALLBACK)(const char* sText, U32 Severity);

enum ELF_DATA_ENCODING : U32 {
  ELF_ENC_LITTLE = 0,
  ELF_ENC_BIG = 1,
  ELF_ENC_ARM_BE8 = 2,
  ELF_ENC_ARM_BE32 = 3,
  ELF_ENC_INVALID = 4,
};

enum ELF_CODE_TYPE : U32 {
  ELF_CODE_NONE = 0,
  ELF_CODE_ARM = 1,
  ELF_CODE_THUMB = 2,
  ELF_CODE_UNDEFINED = 3,
  ELF_CODE_DATA = 4,
};

// Symbol and section constants the layer tests.
enum : U32 {
  ELF_STT_NOTYPE = 0,
  ELF_STT_OBJECT = 1,
  ELF_STT_FUNC = 2,
  ELF_STT_ARM_TFUNC = 13,  // processor-specific type that ARM tools give Thumb functions
  ELF_STB_LOCAL = 0,
  ELF_SHT_SYMTAB = 2,
  ELF_SHT_NOBITS = 8,
  ELF_SHT_DYNSYM = 11,
  ELF_SHF_ALLOC = 2,
  ELF_SHF_EXECINSTR = 4,
  ELF_INVALID_INDEX = 0xFFFFFFFF,
};

// The records in host byte order, laid out as in a 32-bit ELF file.
struct ELF_EHDR {
  U8 e_ident[16];
  U16 e_type;
  U16 e_machine;
  U32 e_version;
  U32 e_entry;
  U32 e_phoff;
  U32 e_shoff;
  U32 e_flags;
  U16 e_ehsize;
  U16 e_phentsize;
  U16 e_phnum;
  U16 e_shentsize;
  U16 e_shnum;
  U16 e_shstrndx;
};

struct ELF_PHDR {
  U32 p_type, p_offset, p_vaddr, p_paddr, p_filesz, p_memsz, p_flags, p_align;
};

struct ELF_SHDR {
  U32 sh_name, sh_type, sh_flags, sh_addr, sh_offset, sh_size, sh_link, sh_info, sh_addralign, sh_entsize;
};

struct ELF_SYM {
  U32 st_name;
  U32 st_value;
  U32 st_size;
  U8 st_info;
  U8 st_other;
  U16 st_shndx;
};

// A row of the segment table: [start, end) of a segment's file bytes and where they lie in the image.
struct ELF_SEGMENT_RANGE {
  U32 start;
  U32 end;
  const U8* pData;  // null when the segment has no readable bytes
};

// The code type of an address range between two mapping symbols; all zero for "no range".
struct ELF_MAPPING_RANGE {
  U32 start;
  U32 end;
  ELF_CODE_TYPE type;
};

// One row of the symbol relocation table (link address to run address). A row with a name names a
// section or a symbol and gets its range again after every ELF_Open.
struct ELF_RELOC_ROW {
  U32 lo;
  U32 hi;
  I32 offset;
  char name[64];
};

// One open program file. Owned by the layer from ELF_Open to ELF_Close.
struct ELF_FILE {
  U32 parsed;  // 0 until the parse finished; queries treat such a file as absent
  U32 symCount;
  U32 mappingSymCount;
  U32 funcSymCount;
  U32 fileSize;
  U8* data;  // the whole file image
  ELF_EHDR ehdr;
  ELF_SHDR* shdrs;
  ELF_PHDR* phdrs;
  ELF_SYM* syms;          // all symbol tables, in section order
  ELF_SYM** symsByAddr;   // symCount pointers into syms, ascending st_value
  ELF_SYM** mappingSyms;  // mapping symbols, ascending address
  ELF_SYM** funcSyms;     // function symbols, ascending address, one per address
  U32* symNameSection;    // per symbol: the string section its symbol table links to
  U32 strtabIdx;
  U32 symtabIdx;
  ELF_DWARF_STATE dwarf;  // the symbol tree built over the DWARF sections
  U32 cfaOffsetFactor;
  char sPath[512];  // for messages
};

static constexpr int ELF_MAX_FILES = 3;
static constexpr int ELF_MAX_SEGMENTS = 100;
static constexpr U32 ELF_MAX_FILL_SIZE = 10000000;

// Logging and tracing.
void ELF_SetLogCallback(ELF_LOG_CALLBACK pfLog);
ELF_LOG_CALLBACK ELF_GetLogCallback();
void ELF_SetTrace(bool On);
bool ELF_IsTraceOn();
// Formats and logs one line; dropped when no callback is installed.
void ELF_Log(U32 Severity, const char* sFormat, ...) __attribute__((format(printf, 2, 3)));
// The trace line of a traced function, suppressed when the same call site logged the last one.
void ELF_TraceHandle(const char* sFunction, int CallSite, U64 Handle);
void ELF_TraceDieOffset(const char* sFunction, int CallSite, U64 DieOffset);
#define ELF_TRACE_HANDLE(h)                     \
  do {                                          \
    if (ELF_IsTraceOn())                        \
      ELF_TraceHandle(__func__, __LINE__, (h)); \
  } while (0)
#define ELF_TRACE_DIE(off)                           \
  do {                                               \
    if (ELF_IsTraceOn())                             \
      ELF_TraceDieOffset(__func__, __LINE__, (off)); \
  } while (0)

// Lifetime. ELF_Open returns null on failure, with the reason in the log.
ELF_FILE* ELF_Open(const char* sPath);
// The same over a copy of bytes already in memory (a program read elsewhere, the fuzzer); sName
// stands for the file name in messages.
ELF_FILE* ELF_OpenImage(const void* pData, U32 Size, const char* sName);
void ELF_Close(ELF_FILE* pFile);
// The last file opened, or null.
ELF_FILE* ELF_GetCurrentFile();
// True for a parsed file that is in the file table and no open or close is running.
bool ELF_IsValidFile(const ELF_FILE* pFile);
// Index of the file in the file table, -1 if it is not there.
int ELF_GetFileIndex(const ELF_FILE* pFile);
// The file of a table index, null if the entry is empty or out of range.
ELF_FILE* ELF_GetFileByIndex(int Index);

// Header and section accessors; a bad index gives 0 (null for pointers).
U32 ELF_GetProgramHeaderCount(ELF_FILE* pFile);
U32 ELF_GetSegmentType(ELF_FILE* pFile, U32 i);
U32 ELF_GetSegmentVirtAddr(ELF_FILE* pFile, U32 i);
U32 ELF_GetSegmentPhysAddr(ELF_FILE* pFile, U32 i);
U32 ELF_GetSegmentFileSize(ELF_FILE* pFile, U32 i);
U32 ELF_GetSegmentMemSize(ELF_FILE* pFile, U32 i);
U32 ELF_GetSegmentFlags(ELF_FILE* pFile, U32 i);
const U8* ELF_GetSegmentData(ELF_FILE* pFile, U32 i);
U32 ELF_GetSegmentFirstSectionOff(ELF_FILE* pFile, U32 i);
U32 ELF_GetSectionCount(ELF_FILE* pFile);
U32 ELF_GetSectionAddr(ELF_FILE* pFile, U32 i);
U32 ELF_GetSectionSize(ELF_FILE* pFile, U32 i);
U32 ELF_GetSectionFlags(ELF_FILE* pFile, U32 i);
U32 ELF_GetSectionType(ELF_FILE* pFile, U32 i);
U32 ELF_GetSectionEntSize(ELF_FILE* pFile, U32 i);
U32 ELF_GetSectionOffset(ELF_FILE* pFile, U32 i);
// The section's bytes in the image; null for SHT_NOBITS, an empty section or one past the file's end.
const U8* ELF_GetSectionData(ELF_FILE* pFile, U32 i);
// Never null: "" for a bad index or a name outside the section name table.
const char* ELF_GetSectionName(ELF_FILE* pFile, U32 i);
int ELF_GetSectionIdx(ELF_FILE* pFile, const char* sName);
ELF_DATA_ENCODING ELF_GetDataEncoding(ELF_FILE* pFile);
const char* ELF_GetDataEncodingText(ELF_DATA_ENCODING Encoding);
U32 ELF_GetEntryPoint(ELF_FILE* pFile);
const ELF_EHDR* ELF_GetHeader(ELF_FILE* pFile);

// Symbols.
U32 ELF_GetSymCount(ELF_FILE* pFile);
const ELF_SYM* ELF_GetSym(ELF_FILE* pFile, U32 Index);
// Never null: "" for a bad index, a file without ".strtab" or a name outside the string table.
const char* ELF_GetSymName(ELF_FILE* pFile, U32 Index);
// The name a list shows: "$ARM", "$Thumb", "$Data" for mapping names, else the symbol's name.
const char* ELF_GetSymDisplayName(ELF_FILE* pFile, U32 Index);
U64 ELF_GetSymHandle(ELF_FILE* pFile, U32 Index);
U32 ELF_GetFuncSymCount(ELF_FILE* pFile);
int ELF_GetFuncSymIdx(ELF_FILE* pFile, U32 n);
U32 ELF_GetMappingSymCount(ELF_FILE* pFile);
int ELF_GetSymIdxByName(const char* sName);
int ELF_GetSectionIdxByName(const char* sName);
int ELF_FindFuncSymbol(ELF_FILE* pFile, U32 Addr);
ELF_MAPPING_RANGE ELF_FindMappingRange(ELF_FILE* pFile, U32 Addr);
const char* ELF_GetCodeTypeText(U32 Type);
// Lowest and one-past-highest symbol address of the current file, and the number of symbols.
void ELF_GetSymAddrLimits(U32* pLow, U32* pHigh, U32* pCount);

// Program bytes of the current file.
I64 ELF_ReadTargetMem(U32 Addr, U32 Size);
const U8* ELF_GetTargetMemPtr(U32 Lo, U32 Hi);
U32 ELF_GetSegmentTableCount();

// The relocation table. Rows last until ELF_Close. Returns 0, or -1 when the table is full.
int ELF_AddRelocation(const ELF_RELOC_ROW& Row);
void ELF_ClearRelocations();
// A row from the text of Project.RelocateSymbols: "*" (every address), "LO-HI" (two numbers in C
// notation, not both 0), or the name of a section or symbol, whose range is taken now when a
// program is open and again after every ELF_Open. Returns 0, or -1 with *psError set to what is
// wrong; the table is then unchanged.
int ELF_AddRelocationText(const char* sSymbols, I32 Offset, const char** psError);
U32 ELF_GetRelocationCount();
// Link address to run address (IsEnd: the address is an end address) and back.
U32 ELF_ApplyRelocation(U32 Addr, bool IsEnd);
U32 ELF_UndoRelocation(U32 Addr, bool IsEnd);
