// Shared inside the script interpreter: error reporting, the two-ended arena, symbol lists, and the
// reading of characters and tokens. Not for hosts; they use ScriptCore.h.
#pragma once

#include <new>

#include "script/ScriptCore.h"

// A namespace of their own keeps these short helper names from meeting other modules' at link time.
namespace ScriptInternal {

constexpr size_t kScriptAlign = 8;

// A reading position: where a loop turn or a function body starts again.
struct SCRIPT_POS {
  const char* pCursor;
  const char* pLineStart;
  I32 Line;
};

// Errors. The first error is the one reported; all return -1 so that callers can return them.
int _Error(CTrans* p, const char* sMessage);
int _ErrorFormat(CTrans* p, const char* sFormat, ...) __attribute__((format(printf, 2, 3)));
int _OutOfMemory(CTrans* p);

// The arena. Allocations are rounded to kScriptAlign and fail (null) when the ends would cross.
size_t _RoundUp(size_t n);
void* _AllocLow(CTrans* p, size_t NumBytes);
void* _AllocHigh(CTrans* p, size_t NumBytes);
void* _Alloc(CTrans* p, bool High, size_t NumBytes);
const char* _CopyName(CTrans* p, bool High, const char* s, size_t Len);

template <typename T>
T* _NewNode(CTrans* p, bool High, U32 Kind) {
  void* pMem = _Alloc(p, High, sizeof(T));
  if (!pMem) {
    return nullptr;
  }
  T* pNode = new (pMem) T{};
  pNode->sName = "";
  pNode->Kind = Kind;
  return pNode;
}

// Symbol lists and lookup by name (s, Len need no NUL).
void _AppendGlobal(CTrans* p, SCRIPT_SYMBOL* pSym);
void _AppendLocal(CTrans* p, SCRIPT_SYMBOL* pSym);
int _Attach(CTrans* p, SCRIPT_SYMBOL* pTo, SCRIPT_SYMBOL* pAttribute);
bool _HasApiAttribute(const SCRIPT_SYMBOL* pSym);
SCRIPT_SYMBOL* _FindInList(SCRIPT_SYMBOL* pList, const char* s, size_t Len);
SCRIPT_SYMBOL* _Find(CTrans* p, const char* s, size_t Len);

// Reading. Every "try" leaves the position unchanged when it fails.
SCRIPT_POS _GetPos(const CTrans* p);
void _SetPos(CTrans* p, const SCRIPT_POS& Pos);
int _SkipSpace(CTrans* p);
char _Peek(CTrans* p);
bool _TryChar(CTrans* p, char c);
int _ExpectChar(CTrans* p, char c);
bool _TryText(CTrans* p, const char* sText);
bool _ReadIdentifier(CTrans* p, const char** ppStart, size_t* pLen);
bool _IsWord(const char* s, size_t Len, const char* sWord);
bool _TryKeyword(CTrans* p, const char* sWord);
bool _AtNumber(CTrans* p);
int _ReadNumber(CTrans* p, I64* pValue);
int _ReadStringLiteral(CTrans* p, SCRIPT_SYMBOL** ppSym);
bool _IsStringLiteral(const CTrans* p, const SCRIPT_SYMBOL* pSym);
int _SkipBraces(CTrans* p, const char* sMissingOpen);

}  // namespace ScriptInternal
