// Every error a malformed script can cause: the fixed message and the line it names.
#include <gtest/gtest.h>

#include <string>

#include "script/tests/ScriptTestHost.h"

namespace {

enum ERROR_STAGE { AT_PARSE, AT_RUN };

struct ERROR_CASE {
  ERROR_STAGE Stage;
  const char* sText;  // at AT_RUN, "Test" is run
  const char* sMessage;
  int Line;
};

const ERROR_CASE _aErrorCases[] = {
    {AT_PARSE, "int Test(void) {\n  return 1;\n}\n/* open\n\n", "C-comment has not been closed properly", 4},
    {AT_RUN, "int Test(void) {\n  int a[x];\n  return 0;\n}\n", "Expected an integer value", 2},
    {AT_RUN, "int Test(void) {\n  Util.Log(\"abc\n\");\n  return 0;\n}\n", "Illegal character in string", 2},
    {AT_PARSE, "int Test(void) {\n  Util.Log(\"abc", "Unexpected end of file looking for '}'", 2},
    {AT_RUN, "int Test(void) {\n  Util.Log(\"a\\qb\");\n  return 0;\n}\n", "Unexpected escape character.", 2},
    {AT_RUN, "int Test(void) {\n  Util.Log(\"x\\\");\n  return 0;\n}\n", "Unexpected escape character.", 2},
    {AT_PARSE, "int Test(void) { return 0; }\ngarbage\n", "Syntax error.", 2},
    {AT_PARSE, "int Test(void) { return 0; }\n\n42 int f(void) {}\n", "Syntax error.", 3},
    {AT_PARSE, "float Test(void) {\n}\n", "Syntax error.", 1},
    {AT_PARSE, "unsigned Test(void) {\n}\n", "Syntax error.", 1},  // "unsigned" alone is no type
    {AT_PARSE, "int Test(short x) {\n}\n", "Syntax error.", 1},
    {AT_PARSE, "int Test(void)\n;\n", "Expected '{'", 1},
    {AT_PARSE, "int Test(void) {\n  if (1) {\n    return 1;\n", "Unexpected end of file looking for '}'", 4},
    {AT_PARSE, "int (void) {\n}\n", "Expected an identifier.", 1},
    {AT_PARSE, "int Test(int) {\n}\n", "Expected an identifier.", 1},
    {AT_PARSE, "int Test void {\n}\n", "Expected a '('", 1},
    {AT_PARSE, "__api__ int Test(void) {\n}\n",
     "Function \"Test\" has a body and cannot be declared \"__api__\".", 1},
    {AT_PARSE,
     "int Test(int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8,\n"
     "         int a9, int a10, int a11, int a12, int a13, int a14, int a15, int a16) {\n}\n",
     "Too many parameters, a function takes at most 15.", 2},
    {AT_RUN, "int Test(void) {\n  int;\n  return 0;\n}\n", "Expected an identifier.", 2},
    {AT_RUN, "int Test(void) {\n  int x;\n  else { x = 1; }\n  return 0;\n}\n",
     "Keyword \"else\" is not allowed without \"if\"", 3},
    {AT_RUN, "int Test(void) {\n  int i;\n  for (i = 0; i < 3; i += 1) { }\n  return 0;\n}\n",
     "Keyword \"for\" is not yet supported", 3},
    {AT_RUN, "int Test(void) {\n  int x; x = 0;\n  do { x += 1; }\n  x = 2;\n  return x;\n}\n",
     "Syntax error. missing \"while\" at line 3", 3},
    {AT_RUN, "int Test(void) {\n  int a[2];\n  a[2] = 1;\n  return 0;\n}\n", "Array index out of range.", 3},
    {AT_RUN, "int Test(void) {\n  int a[2];\n  a[0] = 1;\n  return a[-1];\n}\n", "Array index out of range.",
     4},
    {AT_RUN, "int Test(void) {\n  int a[2];\n  a[-1] = 1;\n  return 0;\n}\n", "Array index out of range.", 3},
    {AT_RUN, "int Test(void) {\n  char* p;\n  p = 1;\n  return 0;\n}\n",
     "Assignments are allowed for base types only", 3},
    {AT_RUN, "int Test(void) {\n  return;\n}\n", "Expected a value or an identifier.", 2},
    {AT_RUN, "int Test(void) {\n  return -TEST_SEVEN;\n}\n", "Expected a value or an identifier.", 2},
    {AT_RUN, "int Test(void) {\n  return Test.Sum8(1, 2);\n}\n", "Expected a value or an identifier.", 2},
    {AT_RUN, "int Test(void) {\n  return y;\n}\n", "Unknown identifier.", 2},
    {AT_RUN, "int Test(void) {\n  void v;\n  return v;\n}\n", "Unsupported base type size.", 3},
    {AT_RUN, "int Len(const char* s) {\n  return s;\n}\nint Test(void) {\n  return Len(\"abc\");\n}\n",
     "Expected a base type.", 2},
    {AT_RUN, "int Test(void) {\n  return int;\n}\n", "Syntax error. Unexpected type", 2},
    {AT_RUN, "int Test(void) {\n  int x = 5;\n  return x;\n}\n", "Expected a ';'", 2},
    {AT_RUN, "int Test(void) {\n  return 1\n}\n", "Expected a ';'", 2},
    {AT_RUN, "int Test(void) {\n  Test.Echo(1)\n  return 0;\n}\n", "Expected a ';'", 2},
    {AT_RUN, "int Test(void) {\n  if (1 {\n  }\n  return 0;\n}\n", "Expected a ')'", 2},
    {AT_RUN, "int Test(void) {\n  return Test.Echo(1;\n}\n", "Expected a ')'", 2},
    {AT_RUN, "int Test(void) {\n  if 1 { }\n}\n", "Expected a '('", 2},
    {AT_RUN, "int Test(void) {\n  int a[2];\n  return a;\n}\n", "Expected a '['", 3},
    {AT_RUN, "int Test(void) {\n  int a[2;\n}\n", "Expected a ']'", 2},
    {AT_RUN, "int Test(void) {\n  char big[2000000];\n  return 0;\n}\n", "Out of memory.", 2},
    {AT_RUN, "int Test(void) {\n  char a[600000];\n  char b[600000];\n  return 0;\n}\n", "Out of memory.", 3},
    {AT_RUN, "int Test(void) {\n  int a[0];\n  return 0;\n}\n", "Array size must be at least 1.", 2},
    {AT_RUN, "int Test(void) {\n  void v;\n  v = 1;\n  return 0;\n}\n",
     "Base type size must be at least 1 byte", 3},
    {AT_RUN, "int Test(void) {\n  break;\n}\n", "Syntax error.", 2},
    {AT_RUN, "int Test(void) {\n  continue;\n}\n", "Syntax error.", 2},
    {AT_RUN, "int Test(void) {\n  goto end;\n}\n", "Syntax error.", 2},
    {AT_RUN, "int Test(void) {\n  int x;\n  switch (x) { }\n}\n", "Syntax error.", 3},
    {AT_RUN, "int Test(void) {\n  int x;\n  x;\n  return 0;\n}\n", "Syntax error.", 3},
    {AT_RUN, "int Test(void) {\n  ;\n}\n", "Syntax error.", 2},
    {AT_RUN, "int Test(void) {\n  TEST_SEVEN = 1;\n}\n", "Syntax error.", 2},
    {AT_RUN, "int Test(void) {\n  int x;\n  x = 1;\n  x /= 0;\n  return x;\n}\n", "Division by zero.", 4},
    {AT_RUN, "int Test(void) {\n  return 1 / (2 - 2);\n}\n", "Division by zero.", 2},
    {AT_RUN, "int Test(void) {\n  return -9223372036854775808 / -1;\n}\n", "Division overflow.", 2},
    {AT_RUN, "int Test(void) {\n  return 0x;\n}\n", "Expected an integer value", 2},
};

TEST(ScriptErrors, EachMalformedScriptReportsItsMessageAndLine) {
  for (const ERROR_CASE& Case : _aErrorCases) {
    CScriptTestHost Host;
    int Parsed = Host.Load(Case.sText);
    if (Case.Stage == AT_PARSE) {
      EXPECT_EQ(Parsed, -1) << Case.sText;
    } else {
      ASSERT_EQ(Parsed, 0) << Case.sText << "\n" << Host.ErrorText;
      EXPECT_EQ(Host.Run("Test"), -1) << Case.sText;
    }
    EXPECT_EQ(Host.ErrorText, Case.sMessage) << Case.sText;
    EXPECT_EQ(Host.ErrorLine, Case.Line) << Case.sText;
    EXPECT_EQ(Host.NumErrorCallbacks, 1) << Case.sText;
    EXPECT_STREQ(Host.Context()->sError, Case.sMessage);
    EXPECT_EQ(Host.Context()->ArithmeticFault, strncmp(Case.sMessage, "Division", 8) == 0) << Case.sText;
  }
}

TEST(ScriptErrors, AnErrorStaysSetAndEveryLaterRunFails) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Bad(void) { return y; }\nint Good(void) { Util.Log(\"good\"); return 1; }"), 0);
  EXPECT_EQ(Host.Run("Good"), 0);
  EXPECT_EQ(Host.Run("Bad"), -1);
  EXPECT_EQ(Host.Run("Good"), -1);
  EXPECT_EQ(Host.Log.size(), 1u);
  EXPECT_EQ(Host.NumErrorCallbacks, 1);
}

TEST(ScriptErrors, TheLineStartPointsAtTheFailingLine) {
  CScriptTestHost Host;
  ASSERT_EQ(Host.Load("int Test(void) {\n  int x;\n  x = y + 1;\n  return x;\n}\n"), 0);
  EXPECT_EQ(Host.Run("Test"), -1);
  EXPECT_EQ(Host.Context()->Line, 3);
  EXPECT_EQ(std::string(Host.Context()->pLineStart, 12), "  x = y + 1;");
}

}  // namespace
