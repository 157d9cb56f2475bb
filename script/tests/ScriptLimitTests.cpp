// Limits, re-entrancy, registration of natives and the context's fixed contents.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "script/tests/ScriptTestHost.h"

namespace {

const char* _sDeepText =
    "int Deep(int n) {\n"
    "  if (n == 0) { return 0; }\n"
    "  return 1 + Deep(n - 1);\n"
    "}\n"
    "int Deepest(void) { return Deep(5000); }\n"
    "int TooDeep(void) { return Deep(1000000); }\n";

TEST(ScriptLimits, RecursionGoesAsDeepAsTheArenaAllows) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load(_sDeepText), 0);
  I64 Value = 0;
  ASSERT_EQ(Host.Run("Deepest", &Value), 0) << Host.ErrorText;
  EXPECT_EQ(Value, 5000);
  // A million calls don't fit in the arena's million bytes.
  EXPECT_EQ(Host.Run("TooDeep"), -1);
  EXPECT_EQ(Host.ErrorText, "Out of memory.");
  EXPECT_EQ(Host.ErrorLine, 3);
}

TEST(ScriptLimits, ANativeThatRunsItsOwnCallerEndsAtTheNestingCap) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Test(void) {\n  return Test.Run(\"Test\");\n}\n"), 0);
  EXPECT_EQ(Host.Run("Test"), -1);
  EXPECT_EQ(Host.ErrorText, "Out of memory.");
  EXPECT_EQ(Host.ErrorLine, 2);
}

TEST(ScriptLimits, LocalsThatExhaustTheArenaReportOutOfMemory) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Deep(int n) {\n"
                      "  char pad[10000];\n"
                      "  if (n == 0) { return 0; }\n"
                      "  return Deep(n - 1);\n"
                      "}\n"
                      "int Test(void) { return Deep(150); }\n"),
            0);
  EXPECT_EQ(Host.Run("Test"), -1);
  EXPECT_EQ(Host.ErrorText, "Out of memory.");
  EXPECT_EQ(Host.ErrorLine, 2);
}

TEST(ScriptLimits, AReturningCallGivesItsLocalsBack) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Big(void) { char pad[600000]; pad[599999] = 1; return pad[599999]; }\n"
                      "int Test(void) { int i; int s; i = 0; s = 0; while (i < 5) { s += Big(); i += 1; }"
                      " return s; }\n"),
            0);
  U8* pHigh = Host.Context()->pHigh;
  I64 Value = 0;
  ASSERT_EQ(Host.Run("Test", &Value), 0) << Host.ErrorText;
  EXPECT_EQ(Value, 5);
  EXPECT_EQ(Host.Context()->pHigh, pHigh);
  EXPECT_EQ(Host.Context()->CallDepth, 0);
  EXPECT_EQ(Host.Context()->Nesting, 0);
}

TEST(ScriptLimits, DeepNestingInOneFunctionIsRefusedWithoutACrash) {
  const std::string aTexts[] = {
      "int Test(void) {\n  return " + std::string(150000, '(') + "1" + std::string(150000, ')') + ";\n}\n",
      "int Test(void) {\n  " + std::string(150000, '{') + std::string(150000, '}') + "\n}\n",
      "int Test(void) {\n  " +
          [] {
            std::string s;
            for (int i = 0; i < 150000; ++i) {
              s += "if (1) ";
            }
            return s + "return 1;";
          }() +
          "\n}\n",
  };
  for (const std::string& Text : aTexts) {
    CScriptTestHost Host;
    ASSERT_EQ(Host.Load(Text), 0);
    EXPECT_EQ(Host.Run("Test"), -1);
    EXPECT_EQ(Host.ErrorText, "Maximum call depth reached.");
    EXPECT_EQ(Host.ErrorLine, 2);
  }
}

TEST(ScriptLimits, TheStepLimitEndsAnEndlessLoop) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Test(void) {\n  while (1) {\n  }\n}\n"), 0);
  ScriptSetStepLimit(Host.Context(), 10000);
  EXPECT_EQ(Host.Run("Test"), -1);
  EXPECT_EQ(Host.ErrorText, "Step limit reached.");
}

TEST(ScriptLimits, AStopRequestEndsTheRunAndEveryLaterOne) {
  CScriptTestHost Host;
  ASSERT_EQ(
      Host.Load("int Test(void) { int i; i = 0; while (1) { i += 1; if (i == 100) { Test.Stop(); } } }\n"
                "int Other(void) { return 1; }\n"),
      0);
  EXPECT_EQ(Host.Run("Test"), -1);
  EXPECT_EQ(Host.Context()->Error, 0);
  EXPECT_EQ(Host.NumErrorCallbacks, 0);
  EXPECT_EQ(Host.Run("Other"), -1);
}

TEST(ScriptReentrancy, ANestedRunLeavesTheOuterRunsPositionAndLocalsIntact) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Inner(void) { int a; int x; a = 5; x = 77; Util.Log(\"inner\"); return a * 2; }\n"
                      "int Test(void) {\n"
                      "  int x;\n"
                      "  x = 1;\n"
                      "  while (x < 3) {\n"
                      "    x += Test.Run(\"Inner\") - 9;\n"
                      "    Util.Log(\"outer\");\n"
                      "  }\n"
                      "  return x;\n"
                      "}\n"),
            0);
  I64 Value = 0;
  ASSERT_EQ(Host.Run("Test", &Value), 0) << Host.ErrorText;
  EXPECT_EQ(Value, 3);
  EXPECT_EQ(Host.Log, (std::vector<std::string>{"inner", "outer", "inner", "outer"}));
  EXPECT_FALSE(ScriptIsRunning(Host.Context()));
}

TEST(ScriptReentrancy, TheContextCountsAsRunningWhileANativeWaits) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Inner(void) { return Test.IsRunning(); }\n"
                      "int Test(void) { return Test.IsRunning() * 10 + Test.Run(\"Inner\"); }\n"),
            0);
  EXPECT_FALSE(ScriptIsRunning(Host.Context()));
  I64 Value = 0;
  ASSERT_EQ(Host.Run("Test", &Value), 0) << Host.ErrorText;
  EXPECT_EQ(Value, 11);
  EXPECT_FALSE(ScriptIsRunning(Host.Context()));
  EXPECT_EQ(Host.Run("Inner", &Value), 0);
  EXPECT_EQ(Value, 1);
  EXPECT_FALSE(ScriptIsRunning(Host.Context()));
}

TEST(ScriptReentrancy, AnErrorInANestedRunStopsTheOuterRunAndNamesTheInnerLine) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Broken(void) {\n"
                      "  return y;\n"
                      "}\n"
                      "int Test(void) {\n"
                      "  Test.Run(\"Broken\");\n"
                      "  Util.Log(\"not reached\");\n"
                      "  return 0;\n"
                      "}\n"),
            0);
  EXPECT_EQ(Host.Run("Test"), -1);
  EXPECT_EQ(Host.ErrorText, "Unknown identifier.");
  EXPECT_EQ(Host.ErrorLine, 2);
  EXPECT_TRUE(Host.Log.empty());
}

struct PROTOTYPE_CASE {
  const char* sPrototype;
  const char* sName;
  int NumParams;  // -1: refused
  const char* sError;
};

const PROTOTYPE_CASE _aPrototypeCases[] = {
    {"__api__ int File.Open (const char* sFileName);", "File.Open", 1, nullptr},
    {"__api__ int Target.ReadU32 (unsigned int Address);", "Target.ReadU32", 1, nullptr},
    {"__api__ int File.NewProject (void);", "File.NewProject", 0, nullptr},
    {"__api__ int Break.SetOnSymbol (unsigned char* sSymbolName, unsigned char AccessType, unsigned char "
     "AccessSize, unsigned int MatchValue, unsigned int ValueMask);",
     "Break.SetOnSymbol", 5, nullptr},
    {"__api__ int Break.Edit (unsigned char* sLocation, const char* sCondition, int DoTriggerOnChange, int "
     "SkipCount, const char* sTask, const char* sMsg, const char* sMsgBox);",
     "Break.Edit", 7, nullptr},
    {"__api__ void Util.Beep ();", "Util.Beep", 0, nullptr},
    {"__api__ const __int64 Util.Big (int a int b);", "Util.Big", 2, nullptr},
    {"__api__ int File.Close (const char* sFileName)", "File.Close", -1, "Expected a ';'"},
    {"int File.Save (const char* sFileName);", "File.Save", -1,
     "Expected \"__api__\" in front of a native function."},
    {"__api__ int File.Read (float f);", "File.Read", -1, "Syntax error."},
    {"__api__ unsigned File.Write (void);", "File.Write", -1, "Syntax error."},
    {"__api__ int (void);", "", -1, "Expected an identifier."},
    {"__api__ int File.Many (int a, int b, int c, int d, int e, int f, int g, int h, int i, int j, int k, "
     "int l, "
     "int m, int n, int o, int p);",
     "File.Many", -1, "Too many parameters, a function takes at most 15."},
};

I32 _ReturnSeven(const SCRIPT_API_CALL*) {
  return 7;
}

TEST(ScriptNatives, PrototypesOfTheActionTableRegisterAndBadOnesLeaveNoTrace) {
  for (const PROTOTYPE_CASE& Case : _aPrototypeCases) {
    CScriptTestHost Host;
    ASSERT_EQ(Host.Load("int Test(void) { return Test.Echo(5); }"), 0);
    int r = ScriptAddApiFunction(Host.Context(), Case.sPrototype, _ReturnSeven, nullptr);
    SCRIPT_SYMBOL* pSym = Case.sName[0] ? ScriptFind(Host.Context(), Case.sName) : nullptr;
    if (Case.NumParams >= 0) {
      EXPECT_EQ(r, 0) << Case.sPrototype << ": " << Host.Context()->sError;
      ASSERT_NE(pSym, nullptr) << Case.sPrototype;
      EXPECT_EQ(pSym->Kind, SCRIPT_KIND_FUNCTION);
      EXPECT_EQ(static_cast<SCRIPT_FUNCTION*>(pSym)->NumParams, Case.NumParams) << Case.sPrototype;
    } else {
      EXPECT_EQ(r, -1) << Case.sPrototype;
      EXPECT_EQ(pSym, nullptr) << Case.sPrototype;
      EXPECT_STREQ(Host.Context()->sError, Case.sError) << Case.sPrototype;
      EXPECT_EQ(Host.Context()->Error, 0);
      EXPECT_EQ(Host.NumErrorCallbacks, 0);
    }
    I64 Value = 0;
    EXPECT_EQ(Host.Run("Test", &Value), 0) << Case.sPrototype;
    EXPECT_EQ(Value, 5);
  }
}

TEST(ScriptNatives, ANativeIsCalledWithItsArgumentsAndSeesStringsInTheBlock) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Test(void) { return Util.Log(\"text\") * 10 + Util.Log(12345); }"), 0);
  I64 Value = 0;
  ASSERT_EQ(Host.Run("Test", &Value), 0);
  EXPECT_EQ(Value, -1);  // the second call was given a number where a string belongs
  EXPECT_EQ(Host.Log, (std::vector<std::string>{"text", "<invalid>"}));
  CTrans* p = Host.Context();
  EXPECT_TRUE(ScriptIsInHeap(p, p));
  EXPECT_TRUE(ScriptIsInHeap(p, p->pBlockEnd - 1));
  EXPECT_FALSE(ScriptIsInHeap(p, p->pBlockEnd));
  EXPECT_FALSE(ScriptIsInHeap(p, nullptr));
  EXPECT_EQ(ScriptGetString(p, 0), nullptr);
}

TEST(ScriptContext, ThePredefinedSymbolsHeadTheGlobalList) {
  struct {
    const char* sName;
    U32 Kind;
    I32 Size;
  } const aExpected[] = {
      {"volatile", SCRIPT_KIND_QUALIFIER, 1},
      {"const", SCRIPT_KIND_QUALIFIER, 2},
      {"signed", SCRIPT_KIND_QUALIFIER, 3},
      {"unsigned", SCRIPT_KIND_QUALIFIER, 4},
      {"__api__", SCRIPT_KIND_FUNCTION_ATTRIBUTE, 0},
      {"char", SCRIPT_KIND_BASE_TYPE, 1},
      {"int", SCRIPT_KIND_BASE_TYPE, 4},
      {"__int64", SCRIPT_KIND_BASE_TYPE, 8},
      {"void", SCRIPT_KIND_BASE_TYPE, 0},
      {"__const_char", SCRIPT_KIND_BASE_TYPE, 1},
  };
  std::vector<U8> Heap(SCRIPT_HEAP_SIZE, 0xA5);
  CTrans* p = ScriptInit(Heap.data(), "");
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->Line, 1);
  EXPECT_EQ(p->pHigh, Heap.data() + SCRIPT_HEAP_SIZE);
  const SCRIPT_SYMBOL* pSym = p->pGlobals;
  for (const auto& Expected : aExpected) {
    ASSERT_NE(pSym, nullptr);
    EXPECT_STREQ(pSym->sName, Expected.sName);
    EXPECT_EQ(pSym->Kind, Expected.Kind) << Expected.sName;
    EXPECT_EQ(pSym->Size, Expected.Size) << Expected.sName;
    pSym = pSym->pNext;
  }
  EXPECT_EQ(pSym, nullptr);
  ASSERT_NE(p->pStringType->pAttributes, nullptr);
  EXPECT_EQ(p->pStringType->pAttributes->pSymbol, p->pConst);
  EXPECT_EQ(ScriptParse(p), 0);
  EXPECT_EQ(ScriptInit(nullptr, ""), nullptr);
  EXPECT_EQ(ScriptInit(Heap.data(), nullptr), nullptr);
}

}  // namespace
