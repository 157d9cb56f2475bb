// The interpreter of the project script language. There is no syntax tree: the first pass records where
// each function body starts, and a run reads the body's text statement by statement, again for each
// turn of a loop. A statement that must not take effect is still read, with the execute flag 0, which
// is how skipped branches and the last turn of a loop find their end.
#include "script/ScriptCore.h"

#include "script/ScriptTokens.h"

#include <sys/mman.h>
#include <ucontext.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <new>

using namespace ScriptInternal;

namespace {

// Everything a call or a nested run changes and must give back.
struct SCRIPT_FRAME {
  SCRIPT_POS Pos;
  U8* pHigh;
  SCRIPT_SYMBOL* pLocals;
  SCRIPT_SYMBOL* pLocalsEnd;
};

enum OPERATOR_ID {
  OP_GE,
  OP_LE,
  OP_LOGICAL_AND,
  OP_LOGICAL_OR,
  OP_EQ,
  OP_NE,
  OP_SHL,
  OP_SHR,
  OP_MUL,
  OP_DIV,
  OP_ADD,
  OP_SUB,
  OP_GT,
  OP_LT,
  OP_AND,
  OP_OR,
  OP_XOR,
  OP_ASSIGN,
};

struct OPERATOR {
  const char* sText;
  OPERATOR_ID Id;
  int Precedence;
};

// Searched in this order, so a longer operator is found before its prefix. Each operator has a
// precedence of its own: "-" binds less tightly than "+", "/" less than "*", and so on. Together with
// the strict comparison in EvalExpression this makes a - b + c mean a - (b + c); scripts rely on it.
const OPERATOR _aBinaryOperators[] = {
    {">=", OP_GE, 11}, {"<=", OP_LE, 13}, {"&&", OP_LOGICAL_AND, 5}, {"||", OP_LOGICAL_OR, 4},
    {"==", OP_EQ, 10}, {"!=", OP_NE, 9},  {"<<", OP_SHL, 16},        {">>", OP_SHR, 15},
    {"*", OP_MUL, 21}, {"/", OP_DIV, 20}, {"+", OP_ADD, 18},         {"-", OP_SUB, 17},
    {">", OP_GT, 12},  {"<", OP_LT, 14},  {"&", OP_AND, 8},          {"|", OP_OR, 6},
    {"^", OP_XOR, 7},
};

const OPERATOR _aAssignOperators[] = {
    {"+=", OP_ADD, 0}, {"-=", OP_SUB, 0}, {"*=", OP_MUL, 0},  {"/=", OP_DIV, 0},  {"&=", OP_AND, 0},
    {"|=", OP_OR, 0},  {"^=", OP_XOR, 0}, {"<<=", OP_SHL, 0}, {">>=", OP_SHR, 0}, {"=", OP_ASSIGN, 0},
};

// The interpreter's own C++ stack, one per thread, made on the first run and kept: the reader recurses
// for every call, block and expression, which a thread's ordinary stack can't take as deep as the arena
// lets a script go. Runs switch to it on the same thread, so natives still run on the thread that owns
// the application's objects.
struct SCRIPT_STACK {
  U8* pBase = nullptr;  // lowest address; its first page is a guard
  bool Active = false;  // a run is on it now
  U64 LowestFrame = 0;  // frames below this address are refused
  ~SCRIPT_STACK() {
    if (pBase != nullptr) {
      munmap(pBase, SCRIPT_STACK_SIZE);
    }
  }
};
thread_local SCRIPT_STACK t_Stack;

// Counts one level of reading recursion and refuses to go deeper than the nesting cap or the stack.
class CNestingGuard {
 public:
  explicit CNestingGuard(CTrans* p) : m_p(p) { ++m_p->Nesting; }
  ~CNestingGuard() { --m_p->Nesting; }
  bool TooDeep() const {
    if (m_p->Nesting > SCRIPT_MAX_NESTING) {
      return true;
    }
    // The frame address, unlike a local's, is on the real stack even where a sanitizer moves locals.
    U64 Here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    if (t_Stack.Active) {
      return Here < t_Stack.LowestFrame;
    }
    return m_p->StackBase > Here && m_p->StackBase - Here > SCRIPT_STACK_BUDGET;
  }

 private:
  CTrans* m_p;
};

int _TooDeep(CTrans* p) {
  return _Error(p, "Maximum call depth reached.");
}

// What a run on the interpreter's stack is handed and hands back.
struct STACK_RUN {
  std::function<int()> pfRun;
  int Result = -1;
  std::exception_ptr pException;
  ucontext_t Caller;
  ucontext_t Callee;
};

void _StackEntry(unsigned Low, unsigned High) {
  auto* pRun = reinterpret_cast<STACK_RUN*>((static_cast<uintptr_t>(High) << 32) | Low);
  try {
    pRun->Result = pRun->pfRun();
  } catch (...) {
    pRun->pException = std::current_exception();  // unwinding must not leave this stack
  }
}  // returns through uc_link to the caller's context

// Runs pfRun on the interpreter's stack, or directly when a run is on it already or it can't be made.
int _RunOnScriptStack(const std::function<int()>& pfRun) {
  if (t_Stack.Active) {
    return pfRun();
  }
  if (t_Stack.pBase == nullptr) {
    void* p = mmap(nullptr, SCRIPT_STACK_SIZE, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (p == MAP_FAILED) {
      return pfRun();
    }
    mprotect(p, 4096, PROT_NONE);
    t_Stack.pBase = static_cast<U8*>(p);
  }
  STACK_RUN Run;
  Run.pfRun = pfRun;
  getcontext(&Run.Callee);
  Run.Callee.uc_stack.ss_sp = t_Stack.pBase;
  Run.Callee.uc_stack.ss_size = SCRIPT_STACK_SIZE;
  Run.Callee.uc_link = &Run.Caller;
  const auto Address = reinterpret_cast<uintptr_t>(&Run);
  makecontext(&Run.Callee, reinterpret_cast<void (*)()>(&_StackEntry), 2, unsigned(Address & 0xFFFFFFFFu),
              unsigned(Address >> 32));
  t_Stack.Active = true;
  t_Stack.LowestFrame = reinterpret_cast<uintptr_t>(t_Stack.pBase) + 4096 + SCRIPT_STACK_RESERVE;
  swapcontext(&Run.Caller, &Run.Callee);
  t_Stack.Active = false;
  if (Run.pException) {
    std::rethrow_exception(Run.pException);
  }
  return Run.Result;
}

/*********************************************************************
 *
 *       Values
 */

I64 _ReadValue(const U8* pData, I32 Size) {
  U64 Value = 0;
  memcpy(&Value, pData, static_cast<size_t>(Size));  // little-endian, zero-extended
  return static_cast<I64>(Value);
}

void _WriteValue(U8* pData, I32 Size, I64 Value) {
  U64 Bits = static_cast<U64>(Value);
  memcpy(pData, &Bits, static_cast<size_t>(Size));
}

// Applies a binary operator in two's complement without undefined behaviour in C++: sums,
// differences and products wrap, shifts take the count modulo 64.
int _Apply(CTrans* p, OPERATOR_ID Id, I64 a, I64 b, bool Execute, I64* pResult) {
  U64 ua = static_cast<U64>(a);
  U64 ub = static_cast<U64>(b);
  I64 r = 0;
  switch (Id) {
    case OP_GE:
      r = a >= b;
      break;
    case OP_LE:
      r = a <= b;
      break;
    case OP_GT:
      r = a > b;
      break;
    case OP_LT:
      r = a < b;
      break;
    case OP_EQ:
      r = a == b;
      break;
    case OP_NE:
      r = a != b;
      break;
    case OP_LOGICAL_AND:
      r = a != 0 && b != 0;
      break;
    case OP_LOGICAL_OR:
      r = a != 0 || b != 0;
      break;
    case OP_SHL:
      r = static_cast<I64>(ua << (ub & 63));
      break;
    case OP_SHR: {
      unsigned Shift = static_cast<unsigned>(ub & 63);
      r = a < 0 ? static_cast<I64>(~(~ua >> Shift)) : static_cast<I64>(ua >> Shift);
      break;
    }
    case OP_MUL:
      r = static_cast<I64>(ua * ub);
      break;
    case OP_DIV:
      // Checked before dividing: the processor traps on both, and in skipped code they are no error.
      if (b == 0) {
        if (Execute) {
          p->ArithmeticFault = 1;
          return _Error(p, "Division by zero.");
        }
        r = 0;
      } else if (b == -1) {
        if (a == INT64_MIN && Execute) {
          p->ArithmeticFault = 1;
          return _Error(p, "Division overflow.");
        }
        r = static_cast<I64>(0 - ua);
      } else {
        r = a / b;
      }
      break;
    case OP_ADD:
      r = static_cast<I64>(ua + ub);
      break;
    case OP_SUB:
      r = static_cast<I64>(ua - ub);
      break;
    case OP_AND:
      r = a & b;
      break;
    case OP_OR:
      r = a | b;
      break;
    case OP_XOR:
      r = a ^ b;
      break;
    case OP_ASSIGN:
      r = b;
      break;
  }
  *pResult = r;
  return 0;
}

/*********************************************************************
 *
 *       Function headers
 */

// Reads qualifiers and then a base type. Returns the type, or null with the error reported.
SCRIPT_SYMBOL* _ReadQualifiedType(CTrans* p, SCRIPT_SYMBOL* pAttachTo) {
  for (;;) {
    const char* s;
    size_t Len;
    if (!_ReadIdentifier(p, &s, &Len)) {
      _Error(p, "Syntax error.");
      return nullptr;
    }
    SCRIPT_SYMBOL* pSym = _Find(p, s, Len);
    if (pSym && pSym->Kind == SCRIPT_KIND_QUALIFIER) {
      if (pAttachTo && _Attach(p, pAttachTo, pSym) < 0) {
        return nullptr;
      }
      continue;
    }
    if (!pSym || pSym->Kind != SCRIPT_KIND_BASE_TYPE) {
      _Error(p, "Syntax error.");
      return nullptr;
    }
    return pSym;
  }
}

int _ReadParameter(CTrans* p, SCRIPT_FUNCTION* pFunction, SCRIPT_SYMBOL** ppTail) {
  SCRIPT_SYMBOL* pParam = _NewNode<SCRIPT_SYMBOL>(p, false, SCRIPT_KIND_VARIABLE);
  if (!pParam) {
    return _OutOfMemory(p);
  }
  SCRIPT_SYMBOL* pType = _ReadQualifiedType(p, pParam);
  if (!pType) {
    return -1;
  }
  if (_TryChar(p, '*')) {
    SCRIPT_SYMBOL* pPointer = _NewNode<SCRIPT_SYMBOL>(p, false, SCRIPT_KIND_POINTER_TYPE);
    if (!pPointer) {
      return _OutOfMemory(p);
    }
    pPointer->pType = pType;
    pType = pPointer;
  }
  const char* s;
  size_t Len;
  if (!_ReadIdentifier(p, &s, &Len)) {
    return _Error(p, "Expected an identifier.");
  }
  if (pFunction->NumParams >= SCRIPT_MAX_ARGS) {
    return _ErrorFormat(p, "Too many parameters, a function takes at most %d.", SCRIPT_MAX_ARGS);
  }
  pParam->sName = _CopyName(p, false, s, Len);
  if (!pParam->sName) {
    return _OutOfMemory(p);
  }
  pParam->pType = pType;
  if (*ppTail) {
    (*ppTail)->pNext = pParam;
  } else {
    pFunction->pParams = pParam;
  }
  *ppTail = pParam;
  ++pFunction->NumParams;
  return 0;
}

// Reads "attributes qualifiers type name ( parameters )" and appends the function to the globals.
SCRIPT_FUNCTION* _ReadFunctionHeader(CTrans* p) {
  SCRIPT_FUNCTION* pFunction = _NewNode<SCRIPT_FUNCTION>(p, false, SCRIPT_KIND_FUNCTION);
  SCRIPT_SYMBOL* pReturn = _NewNode<SCRIPT_SYMBOL>(p, false, SCRIPT_KIND_RETURN_TYPE);
  if (!pFunction || !pReturn) {
    _OutOfMemory(p);
    return nullptr;
  }
  _AppendGlobal(p, pFunction);
  for (;;) {
    SCRIPT_POS Pos = _GetPos(p);
    const char* s;
    size_t Len;
    SCRIPT_SYMBOL* pSym = _ReadIdentifier(p, &s, &Len) ? _Find(p, s, Len) : nullptr;
    if (!pSym || pSym->Kind != SCRIPT_KIND_FUNCTION_ATTRIBUTE) {
      _SetPos(p, Pos);
      break;
    }
    if (_Attach(p, pFunction, pSym) < 0) {
      return nullptr;
    }
  }
  pReturn->pType = _ReadQualifiedType(p, pReturn);
  if (!pReturn->pType) {
    return nullptr;
  }
  pFunction->pType = pReturn;
  const char* s;
  size_t Len;
  if (!_ReadIdentifier(p, &s, &Len)) {
    _Error(p, "Expected an identifier.");
    return nullptr;
  }
  pFunction->sName = _CopyName(p, false, s, Len);
  if (!pFunction->sName) {
    _OutOfMemory(p);
    return nullptr;
  }
  if (_ExpectChar(p, '(') < 0) {
    return nullptr;
  }
  SCRIPT_POS Pos = _GetPos(p);
  if (_TryKeyword(p, "void") && _TryChar(p, ')')) {
    return pFunction;
  }
  _SetPos(p, Pos);
  SCRIPT_SYMBOL* pTail = nullptr;
  while (!_TryChar(p, ')')) {
    if (p->Error || _ReadParameter(p, pFunction, &pTail) < 0) {
      return nullptr;
    }
    _TryChar(p, ',');
  }
  return p->Error ? nullptr : pFunction;
}

/*********************************************************************
 *
 *       Statements and expressions
 */

int ExecStatement(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pResult, bool Execute);
int EvalExpression(CTrans* p, bool Execute, SCRIPT_SYMBOL** ppSym, I64* pValue, int MinPrecedence);

SCRIPT_FRAME _SaveFrame(const CTrans* p) {
  return {_GetPos(p), p->pHigh, p->pLocals, p->pLocalsEnd};
}

// After an error the position stays where the error was, for the host to show.
void _RestoreFrame(CTrans* p, const SCRIPT_FRAME& Frame) {
  if (!p->Error) {
    _SetPos(p, Frame.Pos);
  }
  p->pHigh = Frame.pHigh;
  p->pLocals = Frame.pLocals;
  p->pLocalsEnd = Frame.pLocalsEnd;
}

// Runs a script function's body: statements until "}", or until one of them returns.
int _RunBody(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pValue) {
  _SetPos(p, {pFunction->pBody, pFunction->pBodyLineStart, pFunction->BodyLine});
  I64 Result = -1;
  if (_ExpectChar(p, '{') < 0) {
    return -1;
  }
  while (!_TryChar(p, '}')) {
    if (p->Error) {
      return -1;
    }
    int r = ExecStatement(p, pFunction, &Result, true);
    if (r < 0) {
      return -1;
    }
    if (r == 1) {
      break;
    }
  }
  if (p->Error || p->Stop) {
    return -1;
  }
  *pValue = Result;
  return 0;
}

// Calls a function with its argument entries, natively or by running its body in a fresh frame.
int _Invoke(CTrans* p, SCRIPT_FUNCTION* pFunction, const I64* paArg, I64* pValue) {
  if (pFunction->pfApi) {
    *pValue = 0;
    if (pFunction->NumParams > SCRIPT_MAX_NATIVE_ARGS) {
      return 0;
    }
    SCRIPT_API_CALL Call{p, pFunction->pApiUser, pFunction->sName, pFunction->NumParams, paArg};
    *pValue = pFunction->pfApi(&Call);
    return (p->Error || p->Stop) ? -1 : 0;
  }
  if (!pFunction->pBody) {
    return _Error(p, "Syntax error.");
  }
  SCRIPT_FRAME Frame = _SaveFrame(p);
  // The call's return record is kept in the arena: that is what bounds a recursion.
  void* pRecord = _AllocHigh(p, sizeof(SCRIPT_FRAME));
  if (!pRecord) {
    return _OutOfMemory(p);
  }
  new (pRecord) SCRIPT_FRAME(Frame);
  p->pLocals = nullptr;
  p->pLocalsEnd = nullptr;
  int r = 0;
  size_t NumParams = static_cast<size_t>(pFunction->NumParams);
  U8* pArgs = static_cast<U8*>(_AllocHigh(p, NumParams * sizeof(I64)));
  if (!pArgs) {
    r = _OutOfMemory(p);
  } else {
    memcpy(pArgs, paArg, NumParams * sizeof(I64));
    U8* pEntry = pArgs;
    for (SCRIPT_SYMBOL* pParam = pFunction->pParams; pParam; pParam = pParam->pNext) {
      SCRIPT_SYMBOL* pLocal = _NewNode<SCRIPT_SYMBOL>(p, true, SCRIPT_KIND_VARIABLE);
      if (!pLocal) {
        r = _OutOfMemory(p);
        break;
      }
      pLocal->sName = pParam->sName;
      pLocal->pType = pParam->pType;
      pLocal->pData = pEntry;
      pEntry += sizeof(I64);
      _AppendLocal(p, pLocal);
    }
  }
  if (r == 0) {
    ++p->CallDepth;
    r = _RunBody(p, pFunction, pValue);
    --p->CallDepth;
  }
  _RestoreFrame(p, Frame);
  return r;
}

// Reads "( arguments )" of a call and, with a true flag, calls. One argument is read per declared
// parameter, each optionally followed by ",". Without a call the value is 0.
int _CallFunction(CTrans* p, SCRIPT_FUNCTION* pFunction, bool Execute, I64* pValue) {
  *pValue = 0;
  if (_ExpectChar(p, '(') < 0) {
    return -1;
  }
  I64 aArg[SCRIPT_MAX_ARGS] = {};
  for (int i = 0; i < pFunction->NumParams; ++i) {
    SCRIPT_SYMBOL* pSym = nullptr;
    I64 Value = 0;
    if (EvalExpression(p, Execute, &pSym, &Value, 0) < 0) {
      return -1;
    }
    aArg[i] = _IsStringLiteral(p, pSym) ? static_cast<I64>(reinterpret_cast<uintptr_t>(pSym->pData)) : Value;
    _TryChar(p, ',');
  }
  if (_ExpectChar(p, ')') < 0) {
    return -1;
  }
  if (!Execute) {
    return 0;
  }
  return _Invoke(p, pFunction, aArg, pValue);
}

// Reads "[ index ]" of an array variable. With a true flag the index must lie within the array;
// in skipped code an index outside gives false and no error.
int _ReadIndex(CTrans* p, const SCRIPT_SYMBOL* pArrayType, bool Execute, bool* pInRange, U64* pIndex) {
  SCRIPT_SYMBOL* pSym = nullptr;
  I64 Index = 0;
  if (_ExpectChar(p, '[') < 0 || EvalExpression(p, Execute, &pSym, &Index, 0) < 0 ||
      _ExpectChar(p, ']') < 0) {
    return -1;
  }
  *pInRange = Index >= 0 && static_cast<U64>(Index) < pArrayType->Count;
  if (!*pInRange && Execute) {
    return _Error(p, "Array index out of range.");
  }
  *pIndex = static_cast<U64>(Index);
  return 0;
}

int _ReadVariable(CTrans* p, SCRIPT_SYMBOL* pVar, bool Execute, I64* pValue) {
  const SCRIPT_SYMBOL* pType = pVar->pType;
  if (pType->Kind == SCRIPT_KIND_BASE_TYPE) {
    if (pType->Size < 1 || pType->Size > 8) {
      return _Error(p, "Unsupported base type size.");
    }
    *pValue = _ReadValue(pVar->pData, pType->Size);
    return 0;
  }
  if (pType->Kind != SCRIPT_KIND_ARRAY_TYPE) {
    return _Error(p, "Expected a base type.");
  }
  bool InRange = false;
  U64 Index = 0;
  if (_ReadIndex(p, pType, Execute, &InRange, &Index) < 0) {
    return -1;
  }
  const SCRIPT_SYMBOL* pElement = pType->pType;
  if (pElement->Kind != SCRIPT_KIND_BASE_TYPE) {
    return _Error(p, "Expected a base type.");
  }
  if (pElement->Size < 1 || pElement->Size > 8) {
    return _Error(p, "Unsupported base type size.");
  }
  *pValue = InRange ? _ReadValue(pVar->pData + Index * static_cast<U64>(pElement->Size), pElement->Size) : 0;
  return 0;
}

// Reads a primary: "( expression )", a string literal, a number or a name.
int _EvalPrimary(CTrans* p, bool Execute, SCRIPT_SYMBOL** ppSym, I64* pValue) {
  if (_TryChar(p, '(')) {
    if (EvalExpression(p, Execute, ppSym, pValue, 0) < 0) {
      return -1;
    }
    return _ExpectChar(p, ')');
  }
  char c = _Peek(p);
  if (p->Error) {
    return -1;
  }
  if (c == '"') {
    return _ReadStringLiteral(p, ppSym);
  }
  if (_AtNumber(p)) {
    return _ReadNumber(p, pValue);
  }
  const char* s;
  size_t Len;
  if (!_ReadIdentifier(p, &s, &Len)) {
    return _Error(p, "Expected a value or an identifier.");
  }
  SCRIPT_SYMBOL* pSym = _Find(p, s, Len);
  if (!pSym) {
    return _Error(p, "Unknown identifier.");
  }
  switch (pSym->Kind) {
    case SCRIPT_KIND_CONSTANT:
      *pValue = pSym->Value;
      return 0;
    case SCRIPT_KIND_VARIABLE:
      return _ReadVariable(p, pSym, Execute, pValue);
    case SCRIPT_KIND_FUNCTION:
      return _CallFunction(p, static_cast<SCRIPT_FUNCTION*>(pSym), Execute, pValue);
    default:
      return _Error(p, "Syntax error. Unexpected type");
  }
}

const OPERATOR* _TryBinaryOperator(CTrans* p) {
  for (const OPERATOR& Op : _aBinaryOperators) {
    if (_TryText(p, Op.sText)) {
      return &Op;
    }
  }
  return nullptr;
}

// Reads a primary and then operators of at least MinPrecedence. A string literal ends the expression
// at once: it cannot be an operand, only an argument, and *ppSym tells the caller it was one.
int EvalExpression(CTrans* p, bool Execute, SCRIPT_SYMBOL** ppSym, I64* pValue, int MinPrecedence) {
  CNestingGuard Guard(p);
  if (Guard.TooDeep()) {
    return _TooDeep(p);
  }
  *ppSym = nullptr;
  I64 Value = 0;
  if (_EvalPrimary(p, Execute, ppSym, &Value) < 0) {
    return -1;
  }
  if (_IsStringLiteral(p, *ppSym)) {
    *pValue = 0;
    return 0;
  }
  *ppSym = nullptr;
  for (;;) {
    SCRIPT_POS Pos = _GetPos(p);
    const OPERATOR* pOp = _TryBinaryOperator(p);
    if (p->Error) {
      return -1;
    }
    if (!pOp) {
      break;
    }
    if (MinPrecedence > pOp->Precedence) {
      _SetPos(p, Pos);
      break;
    }
    SCRIPT_SYMBOL* pRightSym = nullptr;
    I64 Right = 0;
    if (EvalExpression(p, Execute, &pRightSym, &Right, pOp->Precedence) < 0 ||
        _Apply(p, pOp->Id, Value, Right, Execute, &Value) < 0) {
      return -1;
    }
  }
  *pValue = Value;
  return 0;
}

// "variable [index] op= expression ;". Without an assignment operator the statement ends where it
// is, and the leftover text is a syntax error at the next statement.
int _ExecAssignment(CTrans* p, SCRIPT_SYMBOL* pVar, bool Execute) {
  const SCRIPT_SYMBOL* pType = pVar->pType;
  U64 Index = 0;
  bool InRange = true;
  if (pType->Kind == SCRIPT_KIND_ARRAY_TYPE) {
    if (_ReadIndex(p, pType, Execute, &InRange, &Index) < 0) {
      return -1;
    }
    pType = pType->pType;
  }
  const OPERATOR* pOp = nullptr;
  for (const OPERATOR& Op : _aAssignOperators) {
    if (_TryText(p, Op.sText)) {
      pOp = &Op;
      break;
    }
  }
  if (!pOp) {
    return p->Error ? -1 : 0;
  }
  SCRIPT_SYMBOL* pSym = nullptr;
  I64 Right = 0;
  if (EvalExpression(p, Execute, &pSym, &Right, 0) < 0 || _ExpectChar(p, ';') < 0) {
    return -1;
  }
  if (!Execute) {
    return 0;
  }
  if (pType->Kind != SCRIPT_KIND_BASE_TYPE) {
    return _Error(p, "Assignments are allowed for base types only");
  }
  if (pType->Size < 1) {
    return _Error(p, "Base type size must be at least 1 byte");
  }
  if (pType->Size > 8) {
    return _Error(p, "Unsupported base type size.");
  }
  U8* pData = pVar->pData + Index * static_cast<U64>(pType->Size);
  I64 Old = pOp->Id == OP_ASSIGN ? 0 : _ReadValue(pData, pType->Size);
  I64 New = 0;
  if (_Apply(p, pOp->Id, Old, Right, true, &New) < 0) {
    return -1;
  }
  _WriteValue(pData, pType->Size, New);
  return 0;
}

// "qualifiers type [*] name [[count]] ;". It takes effect when read, also in skipped code, and lasts
// until the function returns. A name declared again keeps its first node, which is the one any
// lookup finds, so the repeat (as in every turn of a loop) costs no memory.
int _ExecDeclaration(CTrans* p) {
  SCRIPT_SYMBOL* pBase = _ReadQualifiedType(p, nullptr);
  if (!pBase) {
    return -1;
  }
  bool Pointer = _TryChar(p, '*');
  const char* s;
  size_t Len;
  if (!_ReadIdentifier(p, &s, &Len)) {
    return p->Error ? -1 : _Error(p, "Expected an identifier.");
  }
  bool Array = false;
  I64 Count = 1;
  if (_TryChar(p, '[')) {
    Array = true;
    if (_ReadNumber(p, &Count) < 0) {
      return -1;
    }
    if (Count < 1) {
      return _Error(p, "Array size must be at least 1.");
    }
    if (_ExpectChar(p, ']') < 0) {
      return -1;
    }
  }
  if (_ExpectChar(p, ';') < 0) {
    return -1;
  }
  if (_FindInList(p->pLocals, s, Len)) {
    return 0;
  }
  SCRIPT_SYMBOL* pType = pBase;
  if (Pointer) {
    SCRIPT_SYMBOL* pPointer = _NewNode<SCRIPT_SYMBOL>(p, true, SCRIPT_KIND_POINTER_TYPE);
    if (!pPointer) {
      return _OutOfMemory(p);
    }
    pPointer->pType = pType;
    pType = pPointer;
  }
  if (Array) {
    SCRIPT_SYMBOL* pArray = _NewNode<SCRIPT_SYMBOL>(p, true, SCRIPT_KIND_ARRAY_TYPE);
    if (!pArray) {
      return _OutOfMemory(p);
    }
    pArray->pType = pType;
    pArray->Count = static_cast<U64>(Count);
    pType = pArray;
  }
  // The storage is the base type's size times the count, also for a "*" declaration.
  U64 NumBytes = static_cast<U64>(Count) * static_cast<U64>(pBase->Size);
  if (static_cast<U64>(Count) > SCRIPT_HEAP_SIZE || NumBytes > SCRIPT_HEAP_SIZE) {
    return _OutOfMemory(p);
  }
  U8* pStorage = static_cast<U8*>(_AllocHigh(p, static_cast<size_t>(NumBytes)));
  SCRIPT_SYMBOL* pVar = pStorage ? _NewNode<SCRIPT_SYMBOL>(p, true, SCRIPT_KIND_VARIABLE) : nullptr;
  const char* sName = pVar ? _CopyName(p, true, s, Len) : nullptr;
  if (!sName) {
    return _OutOfMemory(p);
  }
  pVar->sName = sName;
  pVar->pType = pType;
  pVar->pData = pStorage;
  _AppendLocal(p, pVar);
  return 0;
}

// A statement that returned 1 in skipped code has not been read to its end. If it was a block that
// stopped after a "return", its closing brace is taken here; more statements behind the "return"
// are then read by the enclosing block, with that block's flag.
void _AfterSkippedReturn(CTrans* p, bool WasBlock) {
  if (WasBlock) {
    _TryChar(p, '}');
  }
}

int _ExecIf(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pResult, bool Execute) {
  SCRIPT_SYMBOL* pSym = nullptr;
  I64 Condition = 0;
  if (_ExpectChar(p, '(') < 0 || EvalExpression(p, Execute, &pSym, &Condition, 0) < 0 ||
      _ExpectChar(p, ')') < 0) {
    return -1;
  }
  bool Taken = Execute && Condition != 0;
  bool IsBlock = _Peek(p) == '{';
  int r = ExecStatement(p, pFunction, pResult, Taken);
  if (r < 0) {
    return -1;
  }
  if (r == 1) {
    if (Taken) {
      return 1;
    }
    _AfterSkippedReturn(p, IsBlock);
  }
  if (!_TryKeyword(p, "else")) {
    return p->Error ? -1 : 0;
  }
  Taken = Execute && Condition == 0;
  IsBlock = _Peek(p) == '{';
  r = ExecStatement(p, pFunction, pResult, Taken);
  if (r < 0) {
    return -1;
  }
  if (r == 1) {
    if (Taken) {
      return 1;
    }
    _AfterSkippedReturn(p, IsBlock);
  }
  return 0;
}

// Reads a loop body. A "return" met in a skipped body doesn't end the function; the body's text
// behind it is skipped by counting braces from the body's start.
int _ExecLoopBody(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pResult, bool Execute) {
  SCRIPT_POS Start = _GetPos(p);
  bool IsBlock = _Peek(p) == '{';
  int r = ExecStatement(p, pFunction, pResult, Execute);
  if (r != 1 || Execute) {
    return r;
  }
  if (IsBlock) {
    _SetPos(p, Start);
    return _SkipBraces(p, "Expected '{'");
  }
  return 0;
}

int _ExecWhile(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pResult, bool Execute) {
  SCRIPT_POS Start = _GetPos(p);
  for (;;) {
    _SetPos(p, Start);
    SCRIPT_SYMBOL* pSym = nullptr;
    I64 Condition = 0;
    if (_ExpectChar(p, '(') < 0 || EvalExpression(p, Execute, &pSym, &Condition, 0) < 0 ||
        _ExpectChar(p, ')') < 0) {
      return -1;
    }
    bool Turn = Execute && Condition != 0;
    int r = _ExecLoopBody(p, pFunction, pResult, Turn);
    if (r != 0) {
      return r;
    }
    if (!Turn) {
      return 0;
    }
    if (p->Stop) {
      return -1;
    }
  }
}

int _ExecDo(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pResult, bool Execute) {
  SCRIPT_POS Start = _GetPos(p);
  for (;;) {
    _SetPos(p, Start);
    int r = _ExecLoopBody(p, pFunction, pResult, Execute);
    if (r != 0) {
      return r;
    }
    if (!_TryKeyword(p, "while")) {
      return p->Error ? -1 : _ErrorFormat(p, "Syntax error. missing \"while\" at line %d", p->Line);
    }
    SCRIPT_SYMBOL* pSym = nullptr;
    I64 Condition = 0;
    if (_ExpectChar(p, '(') < 0 || EvalExpression(p, Execute, &pSym, &Condition, 0) < 0 ||
        _ExpectChar(p, ')') < 0 || _ExpectChar(p, ';') < 0) {
      return -1;
    }
    if (!Execute || Condition == 0) {
      return 0;
    }
    if (p->Stop) {
      return -1;
    }
  }
}

// Reads one statement. Returns 1 if a "return" was met (also in skipped code), 0 otherwise, -1 on an
// error or when closing was requested.
int ExecStatement(CTrans* p, SCRIPT_FUNCTION* pFunction, I64* pResult, bool Execute) {
  if (p->Error || p->Stop) {
    return -1;
  }
  CNestingGuard Guard(p);
  if (Guard.TooDeep()) {
    return _TooDeep(p);
  }
  if (p->StepsLeft != 0 && --p->StepsLeft == 0) {
    return _Error(p, "Step limit reached.");
  }
  char c = _Peek(p);
  if (p->Error) {
    return -1;
  }
  if (c == 0) {
    return _Error(p, "Unexpected end of file looking for '}'");
  }
  if (c == '{') {
    ++p->pCursor;
    while (!_TryChar(p, '}')) {
      if (p->Error) {
        return -1;
      }
      int r = ExecStatement(p, pFunction, pResult, Execute);
      if (r != 0) {
        return r;
      }
    }
    return 0;
  }
  SCRIPT_POS Pos = _GetPos(p);
  const char* s;
  size_t Len;
  if (!_ReadIdentifier(p, &s, &Len)) {
    return _Error(p, "Syntax error.");
  }
  if (_IsWord(s, Len, "return")) {
    SCRIPT_SYMBOL* pSym = nullptr;
    I64 Value = 0;
    if (EvalExpression(p, Execute, &pSym, &Value, 0) < 0 || _ExpectChar(p, ';') < 0) {
      return -1;
    }
    if (Execute) {
      *pResult = Value;
    }
    return 1;
  }
  if (_IsWord(s, Len, "if")) {
    return _ExecIf(p, pFunction, pResult, Execute);
  }
  if (_IsWord(s, Len, "else")) {
    return _Error(p, "Keyword \"else\" is not allowed without \"if\"");
  }
  if (_IsWord(s, Len, "for")) {
    return _Error(p, "Keyword \"for\" is not yet supported");
  }
  if (_IsWord(s, Len, "while")) {
    return _ExecWhile(p, pFunction, pResult, Execute);
  }
  if (_IsWord(s, Len, "do")) {
    return _ExecDo(p, pFunction, pResult, Execute);
  }
  SCRIPT_SYMBOL* pSym = _Find(p, s, Len);
  if (!pSym) {
    return _Error(p, "Syntax error.");
  }
  switch (pSym->Kind) {
    case SCRIPT_KIND_VARIABLE:
      return _ExecAssignment(p, pSym, Execute);
    case SCRIPT_KIND_FUNCTION: {
      I64 Value = 0;
      if (_CallFunction(p, static_cast<SCRIPT_FUNCTION*>(pSym), Execute, &Value) < 0) {
        return -1;
      }
      return _ExpectChar(p, ';');
    }
    case SCRIPT_KIND_BASE_TYPE:
    case SCRIPT_KIND_QUALIFIER:
      _SetPos(p, Pos);
      return _ExecDeclaration(p);
    default:
      return _Error(p, "Syntax error.");
  }
}

/*********************************************************************
 *
 *       Interface
 */

SCRIPT_SYMBOL* _AddPredefined(CTrans* p, const char* sName, U32 Kind, I32 Size) {
  SCRIPT_SYMBOL* pSym = _NewNode<SCRIPT_SYMBOL>(p, false, Kind);
  pSym->sName = sName;  // string literals of the program outlive every context
  pSym->Size = Size;
  _AppendGlobal(p, pSym);
  return pSym;
}

}  // namespace

CTrans* ScriptInit(void* pHeap, const char* sText, SCRIPT_ERROR_CALLBACK pfOnError) {
  if (!pHeap || !sText) {
    return nullptr;
  }
  memset(pHeap, 0, SCRIPT_HEAP_SIZE);
  CTrans* p = new (pHeap) CTrans{};
  U8* pBlock = static_cast<U8*>(pHeap);
  p->pLow = pBlock + _RoundUp(sizeof(CTrans));
  p->pHigh = pBlock + (SCRIPT_HEAP_SIZE & ~(kScriptAlign - 1));
  p->pBlockEnd = pBlock + SCRIPT_HEAP_SIZE;
  p->pSource = sText;
  p->pCursor = sText;
  p->pLineStart = sText;
  p->Line = 1;
  p->pfOnError = pfOnError;
  _AddPredefined(p, "volatile", SCRIPT_KIND_QUALIFIER, 1);
  p->pConst = _AddPredefined(p, "const", SCRIPT_KIND_QUALIFIER, 2);
  _AddPredefined(p, "signed", SCRIPT_KIND_QUALIFIER, 3);
  _AddPredefined(p, "unsigned", SCRIPT_KIND_QUALIFIER, 4);
  _AddPredefined(p, "__api__", SCRIPT_KIND_FUNCTION_ATTRIBUTE, 0);
  _AddPredefined(p, "char", SCRIPT_KIND_BASE_TYPE, 1);
  _AddPredefined(p, "int", SCRIPT_KIND_BASE_TYPE, 4);
  _AddPredefined(p, "__int64", SCRIPT_KIND_BASE_TYPE, 8);
  _AddPredefined(p, "void", SCRIPT_KIND_BASE_TYPE, 0);
  p->pStringType = _AddPredefined(p, "__const_char", SCRIPT_KIND_BASE_TYPE, 1);
  _Attach(p, p->pStringType, p->pConst);
  return p;
}

int ScriptAddConstant(CTrans* p, const char* sName, I32 Value) {
  if (!p || !sName || p->Error) {
    return -1;
  }
  SCRIPT_SYMBOL* pSym = _NewNode<SCRIPT_SYMBOL>(p, false, SCRIPT_KIND_CONSTANT);
  const char* sCopy = pSym ? _CopyName(p, false, sName, strlen(sName)) : nullptr;
  if (!sCopy) {
    return _OutOfMemory(p);
  }
  pSym->sName = sCopy;
  pSym->Value = Value;
  _AppendGlobal(p, pSym);
  return 0;
}

int ScriptAddApiFunction(CTrans* p, const char* sPrototype, SCRIPT_API_FUNCTION pfFunction, void* pUser) {
  if (!p || !sPrototype || !pfFunction || p->Error) {
    return -1;
  }
  SCRIPT_POS Pos = _GetPos(p);
  U8* pLow = p->pLow;
  SCRIPT_SYMBOL* pGlobalsEnd = p->pGlobalsEnd;
  SCRIPT_ERROR_CALLBACK pfOnError = p->pfOnError;
  p->pfOnError = nullptr;  // a refused prototype is the host's problem, not the script's
  _SetPos(p, {sPrototype, sPrototype, 1});
  SCRIPT_FUNCTION* pFunction = _ReadFunctionHeader(p);
  if (pFunction && _ExpectChar(p, ';') == 0 && !_HasApiAttribute(pFunction)) {
    _Error(p, "Expected \"__api__\" in front of a native function.");
  }
  int r = 0;
  if (p->Error) {
    p->pLow = pLow;
    p->pGlobalsEnd = pGlobalsEnd;
    if (pGlobalsEnd) {
      pGlobalsEnd->pNext = nullptr;
    } else {
      p->pGlobals = nullptr;
    }
    p->Error = 0;
    r = -1;
  } else {
    pFunction->pfApi = pfFunction;
    pFunction->pApiUser = pUser;
  }
  p->pfOnError = pfOnError;
  _SetPos(p, Pos);
  return r;
}

int ScriptParse(CTrans* p) {
  if (!p || p->Error || p->Stop) {
    return -1;
  }
  for (;;) {
    if (_SkipSpace(p) < 0) {
      return -1;
    }
    if (*p->pCursor == 0) {
      return 0;
    }
    SCRIPT_POS Pos = _GetPos(p);
    const char* s;
    size_t Len;
    if (!_ReadIdentifier(p, &s, &Len) || !_Find(p, s, Len)) {
      return _Error(p, "Syntax error.");
    }
    _SetPos(p, Pos);
    SCRIPT_FUNCTION* pFunction = _ReadFunctionHeader(p);
    if (!pFunction) {
      return -1;
    }
    // A body in the text has no native function to call, so "__api__" can't be honoured here.
    if (_HasApiAttribute(pFunction)) {
      return _ErrorFormat(p, "Function \"%.100s\" has a body and cannot be declared \"__api__\".",
                          pFunction->sName);
    }
    pFunction->pBody = p->pCursor;
    pFunction->pBodyLineStart = p->pLineStart;
    pFunction->BodyLine = p->Line;
    if (_SkipBraces(p, "Expected '{'") < 0) {
      return -1;
    }
    if (p->Stop) {
      return -1;
    }
  }
}

int ScriptRun(CTrans* p, const char* sName, I64* pResult) {
  if (!p || !sName || p->Error || p->Stop) {
    return -1;
  }
  SCRIPT_SYMBOL* pSym = _FindInList(p->pGlobals, sName, strlen(sName));
  if (!pSym || pSym->Kind != SCRIPT_KIND_FUNCTION) {
    return -2;
  }
  // A nested run starts in the middle of whatever the outer run was reading; give it all back.
  SCRIPT_FRAME Frame = _SaveFrame(p);
  bool Outermost = p->StackBase == 0;
  if (Outermost) {
    p->StackBase = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  }
  I64 aArg[SCRIPT_MAX_ARGS] = {};
  I64 Value = -1;
  int r = _RunOnScriptStack([&] { return _Invoke(p, static_cast<SCRIPT_FUNCTION*>(pSym), aArg, &Value); });
  if (Outermost) {
    p->StackBase = 0;
  }
  _RestoreFrame(p, Frame);
  if (r < 0 || p->Error || p->Stop) {
    return -1;
  }
  if (pResult) {
    *pResult = Value;
  }
  return 0;
}

SCRIPT_SYMBOL* ScriptFind(CTrans* p, const char* sName) {
  if (!p || !sName || !sName[0]) {
    return nullptr;
  }
  return _Find(p, sName, strlen(sName));
}

void ScriptRequestStop(CTrans* p) {
  if (p) {
    p->Stop = 1;
  }
}

void ScriptSetStepLimit(CTrans* p, U64 NumStatements) {
  if (p) {
    p->StepsLeft = NumStatements;
  }
}

bool ScriptIsRunning(const CTrans* p) {
  return p && p->StackBase != 0;
}

bool ScriptIsInHeap(const CTrans* p, const void* pAddress) {
  if (!p || !pAddress) {
    return false;
  }
  auto Address = reinterpret_cast<uintptr_t>(pAddress);
  return Address >= reinterpret_cast<uintptr_t>(p) && Address < reinterpret_cast<uintptr_t>(p->pBlockEnd);
}

const char* ScriptGetString(const CTrans* p, I64 Arg) {
  const char* s = reinterpret_cast<const char*>(static_cast<uintptr_t>(Arg));
  if (!ScriptIsInHeap(p, s)) {
    return nullptr;
  }
  size_t MaxLen = static_cast<size_t>(reinterpret_cast<const char*>(p->pBlockEnd) - s);
  return memchr(s, 0, MaxLen) ? s : nullptr;
}
