// The program index: the one gateway through which the rest of the system asks about the loaded
// program. It reads the ELF layer and the DWARF symbol tree once per program into hash maps, sorted
// lists and an interval tree, and answers address to line, line to addresses, address to function,
// the list of source files and symbol look-ups by name. One recursive mutex guards it all.
#pragma once

#include <QString>
#include <mutex>
#include <vector>

#include "app/base/SymLoc.h"
#include "app/base/Types.h"
#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"

// A source location. Equality and the hash look at file and line only, so every column of a line
// is one key; the order is line, column, file, so sorted lists still keep columns apart. The
// all-zero value and any value with file 0xFFFFFFFF are "no location".
struct CSrcLoc {
  U32 file = 0;
  U32 line = 0;
  U32 col = 0;

  bool IsValid() const { return file != 0xFFFFFFFF && (file | line | col) != 0; }
  bool operator==(const CSrcLoc& o) const { return file == o.file && line == o.line; }
  bool operator!=(const CSrcLoc& o) const { return !(*this == o); }
  bool operator<(const CSrcLoc& o) const {
    if (line != o.line)
      return line < o.line;
    if (col != o.col)
      return col < o.col;
    return file < o.file;
  }
};
inline U32 qHash(const CSrcLoc& Loc) {
  return (Loc.file + 713u) * 31u + Loc.line;
}
struct CSrcLocHash {
  size_t operator()(const CSrcLoc& Loc) const { return qHash(Loc); }
};

// A start address and a size in bytes; size 0 is empty.
struct CAddrRange {
  U32 start = 0;
  U32 size = 0;
  bool IsEmpty() const { return size == 0; }
  U64 End() const { return (U64)start + size; }
};

typedef std::vector<CSrcLoc> CSrcLocs;
typedef std::vector<U32> ELF_ADDR_LIST;
typedef std::vector<ELF_SYM_HANDLE> ELF_SYM_LIST;

// A file that the resolver cannot find keeps the name it has in DWARF. The resolver returns the
// full path, or an empty text when it does not know the file. Installed by the layer that owns
// the file finder; without one, every DWARF name stands as it is.
typedef QString (*ELF_FILE_RESOLVER)(const QString& sDwarfName);
void ELF_SetFileResolver(ELF_FILE_RESOLVER pfResolve);

// The one lock of all debug information. Every query below takes it; a caller that copies shared
// buffers of the lower layers holds it across the call and the copy.
std::recursive_mutex& ELF_GetIndexMutex();

// Load and unload. ELF_Init always unloads first; 0 on success, -1 if the file does not open (the
// index is then empty). The counts are for the "completed" line of File.Open.
int ELF_Init(const char* sPath);
void ELF_Deinit();
// Writes the index cache of the loaded program (see IndexCache.h: ELF_SetIndexCacheDir chooses the
// folder); called at shutdown. 0 written or already current, -1 nothing loaded, no folder or a
// write failure.
int ELF_SaveIndexCache();
bool ELF_IsLoaded();
ELF_FILE* ELF_GetIndexedFile();
struct ELF_INDEX_COUNTS {
  U32 files;
  U32 lineAddrs;
  U32 functions;
  U32 globals;
  U32 types;
  U32 droppedLines;
  U32 droppedFunctions;  // DWARF functions without code (the linker dropped them)
  U32 loadMs;
};
ELF_INDEX_COUNTS ELF_GetIndexCounts();

// Address to line. Addresses are run addresses (relocation applied); -1 (0xFFFFFFFF) is "none".
CSrcLocs ELF_GetSrcLocs(U32 Addr);
CSrcLoc ELF_GetFirstSrcLoc(U32 Addr);
CSrcLoc ELF_GetLastSrcLoc(U32 Addr);
CSrcLoc ELF_GetExactSrcLoc(U32 Addr);
bool ELF_HasSrcLoc(U32 Addr);
bool ELF_RangeHasSrcLoc(CAddrRange Range);
// Neighbours in the sorted list of line addresses: the largest below Addr (-1 at or below the
// first), the smallest above Addr (-1 at or above the last).
U32 ELF_GetPrevAddr(U32 Addr);
U32 ELF_GetNextAddr(U32 Addr);
U32 ELF_GetNextLineAddr(U32 Addr);
bool ELF_IsFirstAddrOfStatement(U32 Addr);

// Line to addresses.
ELF_ADDR_LIST ELF_GetAddrs(CSrcLoc Loc);
U32 ELF_GetFirstAddr(CSrcLoc Loc);
CSrcLoc ELF_GetNextCodeLine(CSrcLoc Loc);
CSrcLoc ELF_GetPrevCodeLine(CSrcLoc Loc);
bool ELF_IsUniqueCodeLine(CSrcLoc Loc);
// The code blocks of a line that the compiler scattered: per block its instruction addresses,
// ascending. A block starts at an address of the line that is 5 bytes or more behind the line's
// previous address, runs on while the next instruction still belongs to the line (256 bytes at
// most), and loses a tail of data. Instruction sizes come from the size function (2 or 4 bytes;
// anything else ends a block); by default they are read from the program's bytes.
typedef int (*ELF_INSTRUCTION_SIZE)(U32 Addr);
void ELF_SetInstructionSizeFunc(ELF_INSTRUCTION_SIZE pfSize);
std::vector<ELF_ADDR_LIST> ELF_GetLineAddrBlocks(CSrcLoc Loc);

// Functions.
ELF_SYM_HANDLE ELF_GetFuncAt(U32 Addr, bool Outermost);
CAddrRange ELF_GetFuncRange(ELF_SYM_HANDLE h);
bool ELF_IsFunction(ELF_SYM_HANDLE h);
// Every function with code: DWARF functions, then ELF function symbols at addresses no DWARF
// function starts at.
ELF_SYM_LIST ELF_GetAllFunctions();

// Files. The identifier is a stable hash of the lower-cased resolved path; -1 for none.
U32 ELF_GetFileId(const QString& sPath);
QString ELF_GetFilePath(U32 FileId);
std::vector<U32> ELF_GetFileIds();  // every file the line tables or units name, in name order
bool ELF_FileExists(U32 Addr);
// Functions and inline copies whose first address lies in the file's code, ascending by address.
ELF_SYM_LIST ELF_GetFileFunctions(U32 FileId);
U32 ELF_GetFileAt(U32 Addr);
CAddrRange ELF_GetProgramRange();

// Call frame descriptions: the range of the one that covers Addr (empty if none), and the largest
// CFA offset its instructions set up, the function's stack use in bytes (0 if none covers Addr,
// -1 if its instructions cannot be read).
CAddrRange ELF_GetCfiRange(U32 Addr);
int ELF_GetFuncStackSize(U32 Addr);

// Location texts. The normal form is "<file name>:<line>", with ":<column>" behind it for a
// non-zero column, where the file name is the path's last component as the index knows it. A text
// reads as a location when it is "<file>:<line>" or "<file>:<line>:<column>" with a file the index
// knows (by full path or by file name, any case) and a line above 0; blanks around the parts are
// allowed. ELF_NormaliseSrcLocText gives the normal form, or an empty text for anything else.
QString ELF_GetSrcLocText(CSrcLoc Loc);
bool ELF_ParseSrcLoc(const QString& sText, CSrcLoc* pLoc);
QString ELF_NormaliseSrcLocText(const QString& sText);

// What the bytes at an address are, from the ARM mapping symbols ($a, $t, $d) and data objects:
// ELF_CODE_ARM, ELF_CODE_THUMB, ELF_CODE_DATA, or ELF_CODE_NONE where no mapping symbol says.
ELF_CODE_TYPE ELF_GetMemBlockType(U32 Addr);
ELF_CODE_TYPE ELF_GetCodeType(U32 Addr);

// Symbols by name. A name "scope::rest" keeps only hits whose parent type or namespace is called
// scope. Results: inline instances first (the last found first), then other DWARF symbols, then
// ELF symbols.
ELF_SYM_LIST ELF_FindDebugSymsByName(const QString& sName);
ELF_SYM_LIST ELF_FindTypesByName(const QString& sName);
ELF_SYM_LIST ELF_FindNamespacesByName(const QString& sName);
ELF_SYM_LIST ELF_FindSyms(const QString& sName, bool DebugSyms, bool Types, bool Namespaces);
ELF_SYM_HANDLE ELF_FindSym(const QString& sName, bool DebugSyms, bool Types, bool Namespaces);
// A copy: the list of a program that is unloaded meanwhile must not dangle in the caller.
ELF_SYM_LIST ELF_GetGlobals();

// The context of local look-ups: the PC of the selected frame. A new function at the PC changes the
// local variables (parameters and variables of all its blocks); the same function keeps them.
void ELF_SetContextPC(U32 Pc);
U32 ELF_GetContextPC();
ELF_SYM_HANDLE ELF_GetContextFunc();
// The locals of the context function; with All false only those that have a location at the PC.
ELF_SYM_LIST ELF_GetLocalVars(bool All);
// Locals by name; "this" is the object pointer of the context function.
ELF_SYM_LIST ELF_FindLocalsByName(const QString& sName);
// 1 if the function the symbol belongs to holds Pc (-1: the context PC), 0 if not, 255 when there
// is no verdict (a global, or a function without code).
U8 ELF_IsInScope(ELF_SYM_HANDLE h, U32 Pc);
// Locals first (those in scope at the context PC in front), then debug symbols, types, namespaces.
ELF_SYM_HANDLE ELF_FindSymInContext(const QString& sName);

// Facts about one symbol, cached by handle. Addresses are run addresses; -1 for none.
QString ELF_GetSymName(ELF_SYM_HANDLE h);
// The handle of the symbol's type (DW_AT_type), 0 if none; the type text in the tree's notation.
ELF_SYM_HANDLE ELF_GetSymDataType(ELF_SYM_HANDLE h);
QString ELF_GetSymDataTypeName(ELF_SYM_HANDLE h);
ELF_SYM_LOC ELF_GetSymLoc(ELF_SYM_HANDLE h, U32 Pc);
U32 ELF_GetSymAddr(ELF_SYM_HANDLE h);
U32 ELF_GetSymSize(ELF_SYM_HANDLE h);
// Where the symbol is declared: DW_AT_decl_file and DW_AT_decl_line (through its declaration or
// abstract origin); without a line, the line before the one at its address. Invalid if unknown.
CSrcLoc ELF_GetSymDeclLoc(ELF_SYM_HANDLE h);
// Where an inline copy was called from: DW_AT_call_file and DW_AT_call_line. Without a call line,
// the last line of the caller's file among the lines at the copy's start. Invalid if unknown.
CSrcLoc ELF_GetSymCallLoc(ELF_SYM_HANDLE h);
// Every symbol at exactly this address: the locals of the context function located there, then
// debug symbols (globals, functions starting there), then symbol table entries, ordered as
// ELF_FindSyms orders its hits.
ELF_SYM_LIST ELF_GetSymsAtAddr(U32 Addr);
// Access of a member: 1 public, 2 protected, 3 private, 0 for a symbol that is no member.
U32 ELF_GetSymAccessibility(ELF_SYM_HANDLE h);
// True for a symbol or type whose values are signed: a base type with a signed encoding at the
// end of its type chain (through typedefs, qualifiers and an enumeration's underlying type).
// Pointers and everything else are unsigned.
bool ELF_GetSymSign(ELF_SYM_HANDLE h);
// DW_AT_const_value of an enumerator or constant as a number; false if it has none or it is a block.
bool ELF_GetSymConstValue(ELF_SYM_HANDLE h, I64* pValue);
// The enclosing function, type or namespace of a DWARF symbol; 0 if none.
ELF_SYM_HANDLE ELF_GetSymParentFunc(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetSymParentType(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetSymParentNamespace(ELF_SYM_HANDLE h);

// Facts of the loaded program file, under the lock.
U32 ELF_GetEntryPointPC();
// The lowest load address of the program's data blocks (the segments that carry file data), relocated;
// -1 without a program or without such a block.
U32 ELF_GetBaseAddr();
// The first address of the program's entry function (main, or the function DWARF marks as the main
// subprogram); -1 without a program or without that function.
U32 ELF_GetEntryFuncPC();
bool ELF_GetBigEndian();
ELF_SRC_LANG ELF_GetSrcLanguage();
QString ELF_GetFileName();

// "N/A", "const", "[8000100]", "R3", "[BP - 4]", ... for logs and the call stack's debug view.
QString ELF_GetSymLocText(const ELF_SYM_LOC& Loc);
