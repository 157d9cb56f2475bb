// Characters, tokens, string literals, the arena and error reporting of the script interpreter.
#include "script/ScriptTokens.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace ScriptInternal {

/*********************************************************************
 *
 *       Errors
 */

int _Error(CTrans* p, const char* sMessage) {
  if (p->Error) {
    return -1;  // the first error is the one reported
  }
  p->sError = sMessage;
  p->Error = 1;
  if (p->pfOnError) {
    p->pfOnError(p);
  }
  return -1;
}

int _ErrorFormat(CTrans* p, const char* sFormat, ...) {
  if (p->Error) {
    return -1;
  }
  va_list Args;
  va_start(Args, sFormat);
  vsnprintf(p->acErrorText, sizeof(p->acErrorText), sFormat, Args);
  va_end(Args);
  return _Error(p, p->acErrorText);
}

int _OutOfMemory(CTrans* p) {
  return _Error(p, "Out of memory.");
}

/*********************************************************************
 *
 *       Arena
 */

size_t _RoundUp(size_t n) {
  return (n + kScriptAlign - 1) & ~(kScriptAlign - 1);
}

void* _AllocLow(CTrans* p, size_t NumBytes) {
  NumBytes = _RoundUp(NumBytes);
  if (static_cast<size_t>(p->pHigh - p->pLow) < NumBytes) {
    return nullptr;
  }
  void* pMem = p->pLow;
  p->pLow += NumBytes;
  return pMem;
}

// Memory at the high end isn't cleared: a local holds what an earlier call left there.
void* _AllocHigh(CTrans* p, size_t NumBytes) {
  NumBytes = _RoundUp(NumBytes);
  if (static_cast<size_t>(p->pHigh - p->pLow) < NumBytes) {
    return nullptr;
  }
  p->pHigh -= NumBytes;
  return p->pHigh;
}

void* _Alloc(CTrans* p, bool High, size_t NumBytes) {
  return High ? _AllocHigh(p, NumBytes) : _AllocLow(p, NumBytes);
}

const char* _CopyName(CTrans* p, bool High, const char* s, size_t Len) {
  char* pCopy = static_cast<char*>(_Alloc(p, High, Len + 1));
  if (pCopy) {
    memcpy(pCopy, s, Len);
    pCopy[Len] = 0;
  }
  return pCopy;
}

void _AppendGlobal(CTrans* p, SCRIPT_SYMBOL* pSym) {
  if (p->pGlobalsEnd) {
    p->pGlobalsEnd->pNext = pSym;
  } else {
    p->pGlobals = pSym;
  }
  p->pGlobalsEnd = pSym;
}

void _AppendLocal(CTrans* p, SCRIPT_SYMBOL* pSym) {
  if (p->pLocalsEnd) {
    p->pLocalsEnd->pNext = pSym;
  } else {
    p->pLocals = pSym;
  }
  p->pLocalsEnd = pSym;
}

int _Attach(CTrans* p, SCRIPT_SYMBOL* pTo, SCRIPT_SYMBOL* pAttribute) {
  SCRIPT_LINK* pLink = static_cast<SCRIPT_LINK*>(_AllocLow(p, sizeof(SCRIPT_LINK)));
  if (!pLink) {
    return _OutOfMemory(p);
  }
  pLink->pSymbol = pAttribute;
  pLink->pNext = nullptr;
  SCRIPT_LINK** ppTail = &pTo->pAttributes;
  while (*ppTail) {
    ppTail = &(*ppTail)->pNext;
  }
  *ppTail = pLink;
  return 0;
}

bool _HasApiAttribute(const SCRIPT_SYMBOL* pSym) {
  for (const SCRIPT_LINK* pLink = pSym->pAttributes; pLink; pLink = pLink->pNext) {
    if (pLink->pSymbol->Kind == SCRIPT_KIND_FUNCTION_ATTRIBUTE && pLink->pSymbol->Size == 0) {
      return true;
    }
  }
  return false;
}

SCRIPT_SYMBOL* _FindInList(SCRIPT_SYMBOL* pList, const char* s, size_t Len) {
  for (SCRIPT_SYMBOL* pSym = pList; pSym; pSym = pSym->pNext) {
    if (pSym->sName[0] == s[0] && strncmp(pSym->sName, s, Len) == 0 && pSym->sName[Len] == 0) {
      return pSym;
    }
  }
  return nullptr;
}

SCRIPT_SYMBOL* _Find(CTrans* p, const char* s, size_t Len) {
  SCRIPT_SYMBOL* pSym = _FindInList(p->pLocals, s, Len);
  return pSym ? pSym : _FindInList(p->pGlobals, s, Len);
}

/*********************************************************************
 *
 *       Characters and tokens
 */

static bool _IsLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
static bool _IsDigit(char c) {
  return c >= '0' && c <= '9';
}
static bool _IsIdentifierStart(char c) {
  return _IsLetter(c) || c == '_';
}
static bool _IsIdentifierChar(char c) {
  return _IsLetter(c) || _IsDigit(c) || c == '_' || c == '.';
}

static int _HexDigit(char c) {
  if (_IsDigit(c)) {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

SCRIPT_POS _GetPos(const CTrans* p) {
  return {p->pCursor, p->pLineStart, p->Line};
}

void _SetPos(CTrans* p, const SCRIPT_POS& Pos) {
  p->pCursor = Pos.pCursor;
  p->pLineStart = Pos.pLineStart;
  p->Line = Pos.Line;
}

static void _PassLineFeed(CTrans* p) {
  ++p->pCursor;
  p->pLineStart = p->pCursor;
  ++p->Line;
}

// Skips white space and comments. Returns 0, or -1 on a comment that isn't closed.
int _SkipSpace(CTrans* p) {
  for (;;) {
    char c = *p->pCursor;
    if (c == ' ' || c == '\t' || c == '\r') {
      ++p->pCursor;
    } else if (c == '\n') {
      _PassLineFeed(p);
    } else if (c == '/' && p->pCursor[1] == '/') {
      while (*p->pCursor && *p->pCursor != '\n') {
        ++p->pCursor;
      }
    } else if (c == '/' && p->pCursor[1] == '*') {
      SCRIPT_POS Start = _GetPos(p);
      p->pCursor += 2;
      for (;;) {
        char d = *p->pCursor;
        if (d == 0) {
          _SetPos(p, Start);  // the line where the comment opens is the one to fix
          return _Error(p, "C-comment has not been closed properly");
        }
        if (d == '*' && p->pCursor[1] == '/') {
          p->pCursor += 2;
          break;
        }
        if (d == '\n') {
          _PassLineFeed(p);
        } else {
          ++p->pCursor;
        }
      }
    } else {
      return 0;
    }
  }
}

// The next character after white space and comments, without taking it; 0 at the end or on an error.
char _Peek(CTrans* p) {
  if (_SkipSpace(p) < 0) {
    return 0;
  }
  return *p->pCursor;
}

// Takes the character c if it comes next. Otherwise the position stays where it was, so that an
// error reported next names the line the missing character belongs to.
bool _TryChar(CTrans* p, char c) {
  SCRIPT_POS Pos = _GetPos(p);
  if (_Peek(p) == c && c != 0) {
    ++p->pCursor;
    return true;
  }
  _SetPos(p, Pos);
  return false;
}

int _ExpectChar(CTrans* p, char c) {
  if (_TryChar(p, c)) {
    return 0;
  }
  return _ErrorFormat(p, "Expected a '%c'", c);
}

bool _TryText(CTrans* p, const char* sText) {
  SCRIPT_POS Pos = _GetPos(p);
  size_t Len = strlen(sText);
  if (_Peek(p) && strncmp(p->pCursor, sText, Len) == 0) {
    p->pCursor += Len;
    return true;
  }
  _SetPos(p, Pos);
  return false;
}

// Reads an identifier. False, with the position unchanged, if none stands next.
bool _ReadIdentifier(CTrans* p, const char** ppStart, size_t* pLen) {
  SCRIPT_POS Pos = _GetPos(p);
  if (!_IsIdentifierStart(_Peek(p))) {
    _SetPos(p, Pos);
    return false;
  }
  const char* pStart = p->pCursor;
  while (_IsIdentifierChar(*p->pCursor)) {
    ++p->pCursor;
  }
  *ppStart = pStart;
  *pLen = static_cast<size_t>(p->pCursor - pStart);
  return true;
}

bool _IsWord(const char* s, size_t Len, const char* sWord) {
  return strlen(sWord) == Len && strncmp(s, sWord, Len) == 0;
}

// Takes a keyword if it stands next as a whole word.
bool _TryKeyword(CTrans* p, const char* sWord) {
  SCRIPT_POS Pos = _GetPos(p);
  const char* s;
  size_t Len;
  if (_ReadIdentifier(p, &s, &Len) && _IsWord(s, Len, sWord)) {
    return true;
  }
  _SetPos(p, Pos);
  return false;
}

bool _AtNumber(CTrans* p) {
  char c = _Peek(p);
  return _IsDigit(c) || (c == '-' && _IsDigit(p->pCursor[1]));
}

// Reads a decimal or "0x" hexadecimal number; a "-" directly in front belongs to it. Digits
// accumulate in 64 bits and wrap without a complaint, as the language defines.
int _ReadNumber(CTrans* p, I64* pValue) {
  if (!_AtNumber(p)) {
    return p->Error ? -1 : _Error(p, "Expected an integer value");
  }
  bool Negative = false;
  if (*p->pCursor == '-') {
    Negative = true;
    ++p->pCursor;
  }
  U64 Value = 0;
  if (p->pCursor[0] == '0' && (p->pCursor[1] == 'x' || p->pCursor[1] == 'X')) {
    p->pCursor += 2;
    if (_HexDigit(*p->pCursor) < 0) {
      return _Error(p, "Expected an integer value");
    }
    for (int d; (d = _HexDigit(*p->pCursor)) >= 0; ++p->pCursor) {
      Value = (Value << 4) | static_cast<U64>(d);
    }
  } else {
    for (; _IsDigit(*p->pCursor); ++p->pCursor) {
      Value = Value * 10 + static_cast<U64>(*p->pCursor - '0');
    }
  }
  *pValue = static_cast<I64>(Negative ? 0 - Value : Value);
  return 0;
}

// Reads a string literal whose opening quote is at the cursor. The closing quote is the next double
// quote, whatever stands before it; the literal must end on its line.
int _ReadStringLiteral(CTrans* p, SCRIPT_SYMBOL** ppSym) {
  const char* pStart = p->pCursor;
  for (SCRIPT_LITERAL* pLit = p->pLiterals; pLit; pLit = pLit->pNext) {
    if (pLit->pSourceStart == pStart) {
      p->pCursor = pLit->pSourceEnd;
      *ppSym = &pLit->Variable;
      return 0;
    }
  }
  const char* pEnd = pStart + 1;
  while (*pEnd != '"') {
    if (*pEnd == '\n' || *pEnd == 0) {
      p->pCursor = pEnd;
      return _Error(p, "Illegal character in string");
    }
    ++pEnd;
  }
  size_t MaxLen = static_cast<size_t>(pEnd - pStart - 1);
  SCRIPT_LITERAL* pLit = static_cast<SCRIPT_LITERAL*>(_AllocLow(p, sizeof(SCRIPT_LITERAL)));
  char* pText = pLit ? static_cast<char*>(_AllocLow(p, MaxLen + 1)) : nullptr;
  if (!pText) {
    return _OutOfMemory(p);
  }
  size_t Len = 0;
  for (const char* s = pStart + 1; s < pEnd; ++s) {
    if (*s != '\\') {
      pText[Len++] = *s;
      continue;
    }
    ++s;
    char c = s < pEnd ? *s : 0;
    switch (c) {
      case '0':
        pText[Len++] = 0;
        break;
      case '\\':
        pText[Len++] = '\\';
        break;
      case 'b':
        pText[Len++] = '\b';
        break;
      case 'n':
        pText[Len++] = '\n';
        break;
      case 'r':
        pText[Len++] = '\r';
        break;
      case 't':
        pText[Len++] = '\t';
        break;
      default:
        p->pCursor = s < pEnd ? s : pEnd;
        return _Error(p, "Unexpected escape character.");
    }
  }
  pText[Len] = 0;
  new (pLit) SCRIPT_LITERAL{};
  pLit->pSourceStart = pStart;
  pLit->pSourceEnd = pEnd + 1;
  pLit->ArrayType.sName = "";
  pLit->ArrayType.Kind = SCRIPT_KIND_ARRAY_TYPE;
  pLit->ArrayType.pType = p->pStringType;
  pLit->ArrayType.Count = Len + 1;
  pLit->Variable.sName = "";
  pLit->Variable.Kind = SCRIPT_KIND_VARIABLE;
  pLit->Variable.pType = &pLit->ArrayType;
  pLit->Variable.pData = reinterpret_cast<U8*>(pText);
  pLit->pNext = p->pLiterals;
  p->pLiterals = pLit;
  p->pCursor = pEnd + 1;
  *ppSym = &pLit->Variable;
  return 0;
}

bool _IsStringLiteral(const CTrans* p, const SCRIPT_SYMBOL* pSym) {
  return pSym && pSym->Kind == SCRIPT_KIND_VARIABLE && pSym->pType->Kind == SCRIPT_KIND_ARRAY_TYPE &&
         pSym->pType->pType == p->pStringType;
}

// Skips a brace-delimited body by counting braces, with white space and comments skipped between
// characters. Quotes aren't looked at, so a brace inside a string literal counts.
int _SkipBraces(CTrans* p, const char* sMissingOpen) {
  if (!_TryChar(p, '{')) {
    return p->Error ? -1 : _Error(p, sMissingOpen);
  }
  int Depth = 1;
  while (Depth > 0) {
    if (_SkipSpace(p) < 0) {
      return -1;
    }
    char c = *p->pCursor;
    if (c == 0) {
      return _Error(p, "Unexpected end of file looking for '}'");
    }
    if (c == '{') {
      ++Depth;
    } else if (c == '}') {
      --Depth;
    }
    ++p->pCursor;
  }
  return 0;
}

}  // namespace ScriptInternal
