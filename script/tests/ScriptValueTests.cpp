// Values, operators and statements of the script language, run through the interpreter's interface.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "script/tests/ScriptTestHost.h"

namespace {

struct VALUE_CASE {
  const char* sExpression;
  I64 Expected;
};

// Every expected value follows from the language's rules: 64-bit values, each operator with a
// precedence of its own, and the strict comparison that makes repeated operators group to the right.
const VALUE_CASE _aValueCases[] = {
    {"2 * 3 + 4", 10},
    {"2 + 3 * 4", 14},
    {"10 - 3 - 2", 9},   // 10 - (3 - 2)
    {"10 - 3 + 2", 5},   // "-" binds less tightly than "+": 10 - (3 + 2)
    {"10 + 3 - 2", 11},  // (10 + 3) - 2
    {"(10 - 3) - 2", 5},
    {"2 * 2 - 5 + 3", -4},  // 4 - (5 + 3)
    {"5 - 2 * 2", 1},
    {"1 + 2 == 3", 1},
    {"1 - 1 == 0", 1},
    {"100 / 10 / 5", 50},  // 100 / (10 / 5)
    {"2 * 3 / 2", 3},      // (2 * 3) / 2
    {"8 / 2 * 2", 2},      // "/" binds less tightly than "*": 8 / (2 * 2)
    {"-7 / 2", -3},
    {"7 / -2", -3},
    {"3 > 2 > 1", 1},  // 3 > (2 > 1)
    {"3 >= 3", 1},
    {"2 >= 3", 0},
    {"2 <= 2", 1},
    {"3 <= 2", 0},
    {"1 < 2", 1},
    {"2 < 1", 0},
    {"-1 < 0", 1},  // comparisons are signed
    {"5 == 5", 1},
    {"5 != 5", 0},
    {"5 != 6", 1},
    {"6 & 3", 2},
    {"6 | 3", 7},
    {"6 ^ 3", 5},
    {"1 | 2 ^ 3 & 1", 3},
    {"1 && 2", 1},
    {"2 && 0", 0},
    {"0 || 0", 0},
    {"0 || 5", 1},
    {"1 || 0 && 0", 1},
    {"1 << 4", 16},
    {"1 << 64", 1},  // the count is taken modulo 64
    {"1 << 65", 2},
    {"1 << 63", INT64_MIN},
    {"-16 >> 2", -4},  // arithmetic shift
    {"-1 >> 63", -1},
    {"256 >> 68", 16},
    {"0x10 + 0xfF", 271},
    {"-0x10", -16},
    {"0xFFFFFFFFFFFFFFFF", -1},
    {"18446744073709551615", -1},  // digits accumulate in 64 bits without a test
    {"9223372036854775807 + 1", INT64_MIN},
    {"4294967296 * 4294967296", 0},
    {"TEST_SEVEN * 2", 14},
    {"TEST_MINUS_ONE", -1},
    {"Test.Echo(0x123456789ABCDEF0FF)", -1126240001},  // low 64 bits to the native, low 32 bits back
    {"Test.Echo(-1)", -1},                             // a native's 32-bit result is widened with its sign
    {"Test.Echo(0x7FFFFFFF) + 1", 0x80000000LL},
    {"Target.ReadU32(0x20000000) + 4", 0x104},
    {"Test.Sum8(1, 2, 3, 4, 5, 6, 7, 8)", 36},
    {"Test.Sum8(1 2 3 4 5 6 7 8)", 36},           // the commas between arguments are optional
    {"Test.Sum9(1, 2, 3, 4, 5, 6, 7, 8, 9)", 0},  // more than eight: no call, the value is 0
    {"/* a */ 3 // b\n + 4", 7},
};

TEST(ScriptValues, OperatorsComputeWithTheLanguagesPrecedenceAndGrouping) {
  for (const VALUE_CASE& Case : _aValueCases) {
    CScriptTestHost Host;
    Host.Memory[0x20000000] = 0x100;
    std::string Text = std::string("int Test(void) {\n  return ") + Case.sExpression + ";\n}\n";
    ASSERT_EQ(Host.Load(Text), 0) << Case.sExpression << ": " << Host.ErrorText;
    I64 Value = 0;
    ASSERT_EQ(Host.Run("Test", &Value), 0) << Case.sExpression << ": " << Host.ErrorText;
    EXPECT_EQ(Value, Case.Expected) << Case.sExpression;
    EXPECT_EQ(Host.NumSum9Calls, 0);
  }
}

struct PROGRAM_CASE {
  const char* sWhat;
  const char* sText;  // runs "Test"
  I64 Expected;
  std::vector<std::string> Log;
};

const PROGRAM_CASE _aProgramCases[] = {
    {"a variable reads zero-extended, so -1 stored in an int isn't -1",
     "int Test(void) { int x; x = -1; if (x == -1) { return 1; } return 0; }",
     0,
     {}},
    {"an int holding -1 reads as 0xFFFFFFFF",
     "int Test(void) { int x; x = -1; return x; }",
     0xFFFFFFFFLL,
     {}},
    {"unsigned int behaves as int", "int Test(void) { unsigned int x; x = -1; return x; }", 0xFFFFFFFFLL, {}},
    {"a char keeps the low byte", "int Test(void) { char c; c = 300; return c; }", 44, {}},
    {"an __int64 keeps all bits", "int Test(void) { __int64 v; v = -5; return v; }", -5, {}},
    {"qualifiers are accepted and change nothing",
     "int Test(void) { const volatile signed int x; x = 3; x += 1; return x; }",
     4,
     {}},
    {"compound assignments apply in turn",
     "int Test(void) { int x; x = 7; x += 3; x -= 1; x *= 4; x /= 3; x &= 0xE; x |= 1; x ^= 0x10;"
     " x <<= 2; x >>= 1; return x; }",
     58,
     {}},
    {"while sums 1 to 10",
     "int Test(void) { int i; int s; i = 1; s = 0; while (i <= 10) { s += i; i += 1; } return s; }",
     55,
     {}},
    {"do runs its body before the test",
     "int Test(void) { int i; i = 0; do { i += 1; } while (i < 5); return i; }",
     5,
     {}},
    {"do with a false condition runs once",
     "int Test(void) { int i; i = 7; do i += 1; while (0); return i; }",
     8,
     {}},
    {"a while that never turns reads its body without effect",
     "int Test(void) { int i; i = 5; while (i < 3) { i = 100; } return i; }",
     5,
     {}},
    {"array elements are stored and read",
     "int Test(void) { int a[4]; int i; i = 0; while (i < 4) { a[i] = i * i; i += 1; } return a[3] + a[2]; }",
     13,
     {}},
    {"an array index is evaluated once in a compound assignment",
     "int Test(void) { char b[3]; b[1] = 250; b[Test.Count(\"i\")] += 10; return b[1]; }",
     4,
     {}},
    {"recursion works",
     "int Fact(int n) { if (n <= 1) { return 1; } return n * Fact(n - 1); }\n"
     "int Test(void) { return Fact(10); }",
     3628800,
     {}},
    {"a char parameter reads the low byte of its argument",
     "int Add(int a, char b) { return a + b; } int Test(void) { return Add(1, 257); }",
     2,
     {}},
    {"blocks don't open a scope", "int Test(void) { if (1) { int y; y = 3; } return y; }", 3, {}},
    {"a declaration in skipped code takes effect",
     "int Test(void) { if (0) { int z; } z = 4; return z; }",
     4,
     {}},
    {"a local hides a global of the same name",
     "int Test(void) { int TEST_SEVEN; TEST_SEVEN = 3; return TEST_SEVEN; }",
     3,
     {}},
    {"else runs when the condition is false",
     "int Test(void) { if (0) { return 1; } else { return 2; } }",
     2,
     {}},
    {"if without braces", "int Test(void) { if (1) return 1; else return 2; }", 1, {}},
    {"a return in a skipped else doesn't end the function",
     "int Test(void) { int x; if (1) { x = 1; } else { return 5; } return x + 10; }",
     11,
     {}},
    {"nested if",
     "int Test(void) { if (1) { if (0) { return 1; } else { if (1) return 2; } } return 3; }",
     2,
     {}},
    {"a skipped return ends its block's reading, then the block's closing brace is taken",
     "int Test(void) { if (0) { return 5; } return 7; }",
     7,
     {}},
    {"statements behind a skipped return are read by the enclosing block with its flag",
     "int Test(void) {\n if (0) { return 5; Util.Log(\"behind\"); }\n Util.Log(\"after\");\n return 3;\n}",
     -1,
     {"behind"}},
    {"a function without a return has the value -1", "int Test(void) { Util.Log(\"x\"); }", -1, {"x"}},
    {"a return in the last, skipped turn of a loop doesn't end the function",
     "int Test(void) { int i; i = 0; while (i < 3) { i += 1; if (i == 10) { return 99; } } return i; }",
     3,
     {}},
    {"the text behind a return in a skipped loop body is skipped",
     "int Test(void) { int i; i = 5; while (i < 3) { return 1; Util.Log(\"x\"); } Util.Log(\"after\"); "
     "return 2; }",
     2,
     {"after"}},
    {"a skipped return that is no block leaves the enclosing closing brace alone",
     "int Test(void) { int i; i = 0; while (i < 2) { i += 1; if (i == 5) return 9; } return i; }",
     2,
     {}},
    {"a skipped do body is skipped as a whole, also behind a return",
     "int Test(void) { if (0) { do { return 1; Util.Log(\"x\"); } while (1); } return 6; }",
     6,
     {}},
    {"a return inside a loop ends the function",
     "int Test(void) { int i; i = 0; while (1) { i += 1; if (i == 4) { return i * 10; } } }",
     40,
     {}},
    {"both sides of && are evaluated",
     "int Test(void) { if (0 && Util.Log(\"right\")) { return 1; } return 0; }",
     0,
     {"right"}},
    {"both sides of || are evaluated", "int Test(void) { return 1 || Util.Log(\"right\"); }", 1, {"right"}},
    {"skipped calls don't run",
     "int Test(void) { if (0) { Util.Log(\"no\"); } else Util.Log(\"yes\"); return 0; }",
     0,
     {"yes"}},
    {"a division by zero in skipped code is no error",
     "int Test(void) { if (0) { return 1 / 0; } return 3; }",
     3,
     {}},
    {"string literals with escapes reach a native",
     "int Test(void) { Util.Log(\"a\\tb\\\\n\\r\\n\\b\"); Util.Log(\"ab\\0cd\"); return 0; }",
     0,
     {"a\tb\\n\r\n\b", "ab"}},
    {"a string may hold what the first pass takes for a comment",
     "int Test(void) {\n Util.Log(\"a//b\");\n return 0;\n}",
     0,
     {"a//b"}},
    {"a string can be passed on to a script function",
     "int Take(const char* s, int n) { return n; } int Test(void) { return Take(\"abc\", 4); }",
     4,
     {}},
    {"a statement may call a native and ignore its value",
     "int Test(void) { Target.WriteU32(0x100, 0xCAFE); return Target.ReadU32(0x100); }",
     0xCAFE,
     {}},
    {"the first of two functions with one name runs",
     "int Test(void) { return 1; }\nint Test(void) { return 2; }",
     1,
     {}},
    {"a declaration at the end of a loop turn is read in every turn",
     "int Test(void) { int i; i = 0; while (i < 3) { int t; t = i; i += 1; } return t; }",
     2,
     {}},
};

TEST(ScriptPrograms, StatementsFollowTheLanguageRules) {
  for (const PROGRAM_CASE& Case : _aProgramCases) {
    CScriptTestHost Host;
    ASSERT_EQ(Host.Load(Case.sText), 0) << Case.sWhat << ": " << Host.ErrorText;
    I64 Value = 0;
    ASSERT_EQ(Host.Run("Test", &Value), 0)
        << Case.sWhat << ": " << Host.ErrorText << " at line " << Host.ErrorLine;
    EXPECT_EQ(Value, Case.Expected) << Case.sWhat;
    EXPECT_EQ(Host.Log, Case.Log) << Case.sWhat;
  }
}

TEST(ScriptPrograms, AStringLiteralReadAgainInALoopUsesNoNewMemory) {
  CScriptTestHost Host;
  const char* sText =
      "int Test(void) { int i; i = 0; while (i < 200000) { Test.Count(\"a literal that is read again\");"
      " i += 1; } return i; }";
  ASSERT_EQ(Host.Load(sText), 0);
  I64 Value = 0;
  ASSERT_EQ(Host.Run("Test", &Value), 0) << Host.ErrorText;
  EXPECT_EQ(Value, 200000);
  EXPECT_EQ(Host.NumCounted, 200000);
}

TEST(ScriptPrograms, RunReportsAMissingFunctionAndKeepsTheContextUsable) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("void OnProjectLoad(void) { Util.Log(\"loaded\"); }"), 0);
  EXPECT_EQ(Host.Run("TargetReset"), -2);
  EXPECT_EQ(Host.Run("TEST_SEVEN"), -2);  // a name, but no function
  EXPECT_EQ(Host.Run("OnProjectLoad"), 0);
  EXPECT_EQ(Host.Run("OnProjectLoad"), 0);
  EXPECT_EQ(Host.Log, (std::vector<std::string>{"loaded", "loaded"}));
  EXPECT_EQ(Host.NumErrorCallbacks, 0);
}

TEST(ScriptPrograms, ACommentOnlyTextParses) {
  CScriptTestHost Host;
  EXPECT_EQ(Host.Load("// nothing but a comment\n/* and another */\n"), 0);
  EXPECT_EQ(Host.Run("OnProjectLoad"), -2);
}

}  // namespace
