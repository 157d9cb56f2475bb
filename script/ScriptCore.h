// The interpreter of the project script language: a small C-like language run straight from its text.
// It depends on nothing else in Zevra; the host adds constants and native ("__api__") functions.
#pragma once

#include <cstddef>

#include "app/base/Types.h"

// All memory of one script: the context at the start, then an arena used from both ends. The host
// allocates the block (zeroed or not, aligned as any heap block is) and keeps it alive while the
// context is in use, and never frees it while a run is under way.
constexpr U32 SCRIPT_HEAP_SIZE = 1000000;
// Entries of the argument array of one call; a header with more parameters is refused.
constexpr int SCRIPT_MAX_ARGS = 15;
// A native function declared with more parameters than this is not called and yields 0.
constexpr int SCRIPT_MAX_NATIVE_ARGS = 8;
// Script-to-script calls (recursion included) nest as deep as the arena allows: each running call
// keeps its return record there, so running out of arena ends a recursion with "Out of memory.".
// Calls, blocks, statements and expressions together nest at most this deep; deeper reports
// "Maximum call depth reached.". The arena ends a plain recursion long before this.
constexpr int SCRIPT_MAX_NESTING = 100000;
// A run takes place on a C++ stack of this size that the interpreter sets up for its thread, so the
// nesting above fits; what a run leaves below its lowest frame is kept for the natives it calls. Where
// no such stack can be had, the run uses the caller's stack and stops at the fallback budget.
constexpr U64 SCRIPT_STACK_SIZE = 512ull * 1024 * 1024;
constexpr U64 SCRIPT_STACK_RESERVE = 2ull * 1024 * 1024;
constexpr U64 SCRIPT_STACK_BUDGET = 4 * 1024 * 1024;

// The node kinds; the numbers are part of the language's description and stay fixed.
enum SCRIPT_KIND : U32 {
  SCRIPT_KIND_BASE_TYPE = 0,
  SCRIPT_KIND_CONSTANT = 4,
  SCRIPT_KIND_POINTER_TYPE = 6,
  SCRIPT_KIND_FUNCTION = 7,
  SCRIPT_KIND_QUALIFIER = 8,
  SCRIPT_KIND_FUNCTION_ATTRIBUTE = 9,
  SCRIPT_KIND_RETURN_TYPE = 10,
  SCRIPT_KIND_VARIABLE = 11,
  SCRIPT_KIND_ARRAY_TYPE = 12,
};

struct SCRIPT_SYMBOL;
struct CTrans;

// Links an attribute or qualifier symbol to the node that bears it.
struct SCRIPT_LINK {
  SCRIPT_LINK* pNext;
  SCRIPT_SYMBOL* pSymbol;
};

// One name of the language. Kind decides which member of each union is meaningful:
//   base type: Size (bytes, 0 for "void"); constant: Value; qualifier and attribute: Size (ordinal);
//   pointer, return type, variable: pType; array type: pType (element) and Count;
//   variable: pData (its storage); function: pType (return type node) and pParams.
struct SCRIPT_SYMBOL {
  SCRIPT_SYMBOL* pNext;
  SCRIPT_LINK* pAttributes;
  const char* sName;  // never null; empty for unnamed type nodes
  U32 Kind;
  union {
    I32 Size;
    I32 Value;
    SCRIPT_SYMBOL* pType;
  };
  union {
    U8* pData;
    SCRIPT_SYMBOL* pParams;
    U64 Count;
  };
};

// What a native function is handed. Each argument is a 64-bit value; for a string literal it is the
// address of the text inside the script's block, which ScriptGetString() checks and returns.
struct SCRIPT_API_CALL {
  CTrans* pContext;
  void* pUser;        // as given to ScriptAddApiFunction()
  const char* sName;  // the called name, such as "Target.ReadU32"
  int NumArgs;
  const I64* paArg;
};
// A native function returns a 32-bit result, which the script sees sign-extended to 64 bits.
typedef I32 (*SCRIPT_API_FUNCTION)(const SCRIPT_API_CALL* pCall);

struct SCRIPT_FUNCTION : SCRIPT_SYMBOL {
  const char* pBody;  // text position right behind the header; null for a native function
  const char* pBodyLineStart;
  I32 BodyLine;
  I32 NumParams;
  SCRIPT_API_FUNCTION pfApi;  // native functions only
  void* pApiUser;
};

typedef void (*SCRIPT_ERROR_CALLBACK)(CTrans* pContext);

// A string literal as met in the text. The text at one position always yields the same literal, so
// the node is made once and found again when a loop re-reads it instead of filling the arena.
struct SCRIPT_LITERAL {
  SCRIPT_LITERAL* pNext;
  const char* pSourceStart;  // the opening quote
  const char* pSourceEnd;    // behind the closing quote
  SCRIPT_SYMBOL Variable;    // kind variable, type ArrayType, pData the text
  SCRIPT_SYMBOL ArrayType;   // array of "__const_char", length plus one
};

// The context of one script; it lives at the start of the block. Error and Stop only ever go from 0
// to 1: after an error every later run fails at once, and the host loads the text anew.
struct CTrans {
  U8* pLow;   // next free byte at the low end (globals, type nodes, links, literal texts)
  U8* pHigh;  // first used byte at the high end (locals, their names and storage, parameters)
  const char* pSource;
  const char* pCursor;
  const char* pLineStart;  // first character of the line that holds pCursor
  I32 Line;                // line of pCursor, the first line is 1
  I32 Error;
  I32 Stop;  // set by the host to close the script; ends loops and statements
  const char* sError;
  SCRIPT_ERROR_CALLBACK pfOnError;  // called once, at the first error
  SCRIPT_SYMBOL* pGlobals;
  SCRIPT_SYMBOL* pGlobalsEnd;
  SCRIPT_SYMBOL* pLocals;
  SCRIPT_SYMBOL* pLocalsEnd;
  SCRIPT_SYMBOL* pStringType;  // "__const_char"
  SCRIPT_SYMBOL* pConst;       // "const"
  // Beyond the fields every host knows:
  void* pHostData;      // free for the host, such as the object that owns the context
  I32 ArithmeticFault;  // the error is a division by zero or an overflowing division
  I32 CallDepth;        // script calls running now
  I32 Nesting;          // blocks, statements and expressions being read now
  U64 StepsLeft;        // statements left before "Step limit reached."; 0 for no limit
  U64 StackBase;        // stack address where the outermost run began, 0 when none runs
  U8* pBlockEnd;        // end of the block
  SCRIPT_LITERAL* pLiterals;
  char acErrorText[200];  // formatted messages are built here
};

// Prepares the context at the start of pHeap (SCRIPT_HEAP_SIZE bytes): zeroes the block, sets the
// ends, the cursor at the start of sText (NUL terminated, kept by the host), line 1 and pfOnError,
// and adds the predefined symbols. Returns the context, or null if pHeap or sText is null.
CTrans* ScriptInit(void* pHeap, const char* sText, SCRIPT_ERROR_CALLBACK pfOnError = nullptr);

// Adds a named constant. Returns 0, or -1 when the arena is full or the context unusable.
int ScriptAddConstant(CTrans* pContext, const char* sName, I32 Value);

// Parses a prototype such as "__api__ int File.Open (const char* sFileName);" and adds the function,
// bound to pfFunction with pUser. It must bear "__api__" and end with ";". The reading position is
// kept. Returns 0, or -1 with the reason in sError; a refused prototype leaves no trace and doesn't
// set Error, so the remaining registrations and the script still work.
int ScriptAddApiFunction(CTrans* pContext, const char* sPrototype, SCRIPT_API_FUNCTION pfFunction,
                         void* pUser);

// The first pass: records where each function's body starts. Returns 0, or -1 on an error.
int ScriptParse(CTrans* pContext);

// Runs a global function without arguments (parameters read as 0). May be called from inside a native
// function, while another function of the same context runs: the reading position is saved and
// restored around it. Returns 0 with the function's value in *pResult (-1 when no "return" ran), -1
// if an error occurred, closing was requested or the context is unusable, -2 if no function has
// this name.
int ScriptRun(CTrans* pContext, const char* sName, I64* pResult = nullptr);

// Finds a symbol by its exact name: the locals of the running function first, then the globals.
// The first match wins, so a second definition of a name never takes effect. Null if none.
SCRIPT_SYMBOL* ScriptFind(CTrans* pContext, const char* sName);

// Asks the running script to stop at its next statement; the context then refuses further runs.
void ScriptRequestStop(CTrans* pContext);

// Limits the statements that all later runs together may execute; 0 removes the limit. When the
// limit is reached, the run fails with "Step limit reached.".
void ScriptSetStepLimit(CTrans* pContext, U64 NumStatements);

// True while a run of this context is under way, also while a native it called waits. The host must
// not free or reload the block then, but defer that until the outermost run has returned.
bool ScriptIsRunning(const CTrans* pContext);

// True if p lies within the context's block.
bool ScriptIsInHeap(const CTrans* pContext, const void* p);

// The text an argument points at, if it is an address within the block with a NUL before the block
// ends; null otherwise.
const char* ScriptGetString(const CTrans* pContext, I64 Arg);
