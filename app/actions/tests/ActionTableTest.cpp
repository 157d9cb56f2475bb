// The action table as callers use it: console lines to rows, canonical command texts, dispatch with its
// permission rules, arguments, errors, echo and the command table.
#include <gtest/gtest.h>

#include <QAction>
#include <QWidget>

#include "app/actions/ActionTable.h"
#include "app/actions/CommandConsole.h"
#include "app/base/ConsoleCore.h"
#include "app/base/tests/QtPrinters.h"

namespace {

int RowOf(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

QStringList DrainConsole() {
  QStringList Lines;
  CONSOLE_MSG Msg;
  while (ConsoleTakeMessage(&Msg)) {
    Lines << QString::fromUtf8(Msg.acText);
  }
  return Lines;
}

// A window with one QAction per row of the table, wired as the main window wires them: the console
// echo around a handler that runs the test's code.
class CRowHost : public QWidget {
 public:
  std::function<void(int)> Handler;
  QList<int> Ran;

  CRowHost() {
    UnlinkAllActions();
    for (int Id = 0; Id < kNumActions; ++Id) {
      if (g_aActions[Id].sObjectName.isEmpty()) {
        continue;
      }
      QAction* pAction = new QAction(this);
      pAction->setObjectName(g_aActions[Id].sObjectName);
    }
    LinkActions(this);
    CCommandConsole* pConsole = CCommandConsole::Instance();
    for (QAction* pAction : findChildren<QAction*>()) {
      SetCommandPermitted(GetActionID(pAction), true);
      QObject::connect(pAction, &QAction::triggered, pConsole,
                       [pAction, pConsole] { pConsole->OnActionTriggered(pAction); });
      QObject::connect(pAction, &QAction::triggered, this, [this, pAction] {
        int Id = GetActionID(pAction);
        Ran << Id;
        if (Handler) {
          Handler(Id);
        }
      });
      QObject::connect(pAction, &QAction::triggered, pConsole,
                       [pAction, pConsole] { pConsole->OnActionPerformed(pAction); });
    }
    DrainConsole();
  }
  ~CRowHost() override { UnlinkAllActions(); }
};

}  // namespace

TEST(ConsoleLine, IsTakenApartIntoNameAndArguments) {
  struct CASE {
    const char* sLine;
    const char* sName;
    QStringList Args;
  } aCase[] = {
      {"Target.ReadU32 (0x20000000)", "Target.ReadU32", {"0x20000000"}},
      {"   Target.ReadU32(0x20000000)  ", "Target.ReadU32", {"0x20000000"}},
      {"Target.WriteU32 0x20000000 17", "Target.WriteU32", {"0x20000000", "17"}},
      {"Util.Log (\"a, b\")", "Util.Log", {"a, b"}},          // comma inside quotes stays one argument
      {"Util.Log \"two words\"", "Util.Log", {"two words"}},  // blank inside quotes too
      {"Util.Log (\"say \\\"x\\\")\")", "Util.Log", {"say \\\"x\\\")"}},
      {"Debug.Halt (void)", "Debug.Halt", {}},
      {"Debug.Halt (VOID)", "Debug.Halt", {}},
      {"Debug.Halt ()", "Debug.Halt", {}},
      {"Debug.Halt (  )", "Debug.Halt", {}},
      {"Util.Log (missing close", "Util.Log", {}},
      {"Edit.Preference ( 3 ,  1 )", "Edit.Preference", {"3", "1"}},
      {"Util.Log(a,,b)", "Util.Log", {"a", "", "b"}},
      {"junk words Util.Log (x)", "Util.Log", {"x"}},
      {"Debug.Start", "Debug.Start", {}},
  };
  for (const CASE& c : aCase) {
    CONSOLE_LINE Line = ParseConsoleLine(c.sLine);
    EXPECT_EQ(Line.sName, c.sName) << c.sLine;
    EXPECT_EQ(Line.Args, c.Args) << c.sLine;
  }
}

TEST(ActionTable, FindsRowsByNameOrAliasAndByParameterCount) {
  int DisplayFormat = RowOf("Window.SetDisplayFormat");
  ASSERT_GE(DisplayFormat, 0);
  EXPECT_EQ(FindRowForCommand("Window.SetNumberBase", 2), DisplayFormat);
  EXPECT_EQ(FindRowForCommand("window.setdisplayformat", 2), DisplayFormat);
  EXPECT_EQ(FindRowForCommand("Window.SetDisplayFormat", 5), DisplayFormat);  // its handler reports the count
  EXPECT_EQ(GetAliasName(DisplayFormat), "Window.SetNumberBase");
  EXPECT_EQ(GetAliasPrototype(DisplayFormat),
            "__api__ int Window.SetNumberBase (const char* sWindow, int Base);");
  EXPECT_EQ(FindRowForCommand("Debug.SetNextStmnt", 1), RowOf("Debug.SetNextStatement"));
  EXPECT_GE(RowOf("Debug.SetNextStatement"), 0);
  EXPECT_EQ(FindRowForCommand("NoSuchThing", 1), -1);
  EXPECT_EQ(FindRowForCommand("", 0), -1);
  int Load = RowOf("File.Load");
  EXPECT_EQ(GetParamCount(Load), 2);
  EXPECT_TRUE(IsStringParam(Load, 0));
  EXPECT_FALSE(IsStringParam(Load, 1));
  EXPECT_FALSE(IsStringParam(Load, 2));
  int SetOnSymbol = RowOf("Break.SetOnSymbol");
  EXPECT_TRUE(IsStringParam(SetOnSymbol, 0));   // unsigned char* names a text
  EXPECT_FALSE(IsStringParam(SetOnSymbol, 1));  // unsigned char is a number
  EXPECT_EQ(GetParamCount(RowOf("Debug.Halt")), 0);
  EXPECT_EQ(GetRow(-1).ID, 305u);
  EXPECT_EQ(GetRow(305).ID, 305u);
  EXPECT_EQ(GetRowByHotkey2("F6").ID, U32(RowOf("Debug.Halt")));
  EXPECT_EQ(GetRowByHotkey2("F7").ID, 305u);
}

TEST(ActionTable, CommandTextIsCanonical) {
  struct CASE {
    const char* sRow;
    QStringList Args;
    const char* sText;
  } aCase[] = {
      {"Debug.Halt", {}, "Debug.Halt();"},
      {"Util.Log", {"hello"}, "Util.Log (\"hello\");"},
      {"Util.Log", {"say \"hi\""}, "Util.Log (\"say hi\");"},
      {"Util.Log", {""}, "Util.Log (\"\");"},
      {"Target.ReadU32", {"0x20000000"}, "Target.ReadU32 (0x20000000);"},  // numbers stay as given
      {"Util.Sleep", {"010"}, "Util.Sleep (010);"},
      {"Debug.SetResetMode", {"Reset & Run"}, "Debug.SetResetMode (RM_RESET_AND_RUN);"},
      {"Debug.SetResetMode", {"RM_RESET_HALT"}, "Debug.SetResetMode (RM_RESET_HALT);"},
      {"Edit.RefreshRate", {"counter", "10 kHz"}, "Edit.RefreshRate (\"counter\", FREQ_10_KHZ);"},
      {"Edit.RefreshRate", {"counter", "12 kHz"}, "Edit.RefreshRate (\"counter\", 12000);"},
      {"Edit.RefreshRate", {"counter", "1.5 MHz"}, "Edit.RefreshRate (\"counter\", 1500000);"},
      {"File.Load", {"fw.bin", "0x08000000"}, "File.Load (\"fw.bin\", 0x08000000);"},
      {"Util.Log", {"a", "b"}, "Util.Log (\"a\", b);"},  // too many: shown as typed, for the error line
  };
  for (const CASE& c : aCase) {
    int Id = RowOf(c.sRow);
    ASSERT_GE(Id, 0) << c.sRow;
    EXPECT_EQ(GetCommandTextFor(Id, c.Args), c.sText) << c.sRow;
  }
  EXPECT_EQ(GetCommandTextFor(CCommandConsole::kHelpRowId, {}), "");  // no prototype, no text
}

TEST(ActionDispatch, ConsoleLineRunsTheRowWithEchoAndErrors) {
  CRowHost Host;
  int Log = RowOf("Util.Log");
  int Halt = RowOf("Debug.Halt");
  Host.Handler = [&](int Id) {
    if (Id == Log && CheckParamCount(Id, -1)) {
      ConsolePrint("log: " + GetArguments(Id).value(0));
    }
    if (Id == Halt) {
      SetError(Id, "not connected");
    }
  };
  CCommandConsole* pConsole = CCommandConsole::Instance();
  EXPECT_EQ(pConsole->RunLine("util.log (\"a, b\")"), CONSOLE_LINE_RAN);
  EXPECT_EQ(pConsole->RunLine("Util.Log"), CONSOLE_LINE_RAN);
  EXPECT_EQ(pConsole->RunLine("Debug.Halt"), CONSOLE_LINE_RAN);
  EXPECT_EQ(pConsole->RunLine("NoSuchThing(1)"), CONSOLE_LINE_UNKNOWN);
  EXPECT_EQ(pConsole->RunLine(""), CONSOLE_LINE_EMPTY);
  EXPECT_EQ(DrainConsole(),
            QStringList({"Util.Log (\"a, b\");", "log: a, b", "Util.Log();",
                         "Util.Log(): wrong parameter count", "Debug.Halt();", "Debug.Halt(): not connected",
                         "NoSuchThing(1): unknown command. Type ? or help for a list of "
                         "available commands.",
                         " "}));
  EXPECT_TRUE(GetArguments(Log).isEmpty());  // cleared after every run
  EXPECT_TRUE(GetError(Halt).isEmpty());
}

TEST(ActionDispatch, EchoFlagsDecideWhatIsPrinted) {
  CRowHost Host;
  int Close = RowOf("File.Close");
  int Watch = RowOf("Watch.Add");
  Host.Handler = [&](int Id) {
    if (Id == Close) {
      SetArguments(Close, "resolved.c");  // the echo names what the handler resolved
      ConsolePrint("closing");
    }
    if (Id == Watch && GetArguments(Id).value(0) == "bad") {
      SetError(Id, "unknown symbol", "bad");
    }
  };
  CCommandConsole* pConsole = CCommandConsole::Instance();
  pConsole->RunLine("File.Close (main)");
  pConsole->RunLine("Watch.Add (counter)");
  pConsole->RunLine("Watch (bad)");
  EXPECT_EQ(DrainConsole(), QStringList({"closing", "File.Close (\"resolved.c\");",
                                         "Watch.Add (\"bad\"): unknown symbol: bad"}));
}

TEST(ActionDispatch, PermissionAndMenuStateAreSeparate) {
  CRowHost Host;
  int Halt = RowOf("Debug.Halt");
  QAction* pAction = GetAction(Halt);
  ASSERT_NE(pAction, nullptr);
  pAction->setEnabled(false);  // grey in the menu
  EXPECT_EQ(TriggerAction(Halt), 0);
  EXPECT_EQ(Host.Ran, QList<int>({Halt}));  // still runs from a command
  EXPECT_EQ(DrainConsole(), QStringList({"Debug.Halt();"}));
  SetCommandPermitted(Halt, false);
  EXPECT_EQ(TriggerAction(Halt), -1);
  EXPECT_EQ(Host.Ran.size(), 1);
  EXPECT_EQ(DrainConsole(), QStringList({"Debug.Halt: Command disabled"}));
  EXPECT_EQ(TriggerAction(305), -1);
  EXPECT_EQ(TriggerAction(-1), -1);
  UnlinkAllActions();
  EXPECT_EQ(TriggerAction(Halt), -1);  // no action bound: refused without a report
  EXPECT_TRUE(DrainConsole().isEmpty());
}

TEST(ActionDispatch, ArgumentsResultsAndCancellation) {
  CRowHost Host;
  int Sleep = RowOf("Util.Sleep");
  Host.Handler = [&](int Id) {
    if (Id == Sleep && CheckParamCount(Id, 0)) {
      SetResult(Id, GetArguments(Id).isEmpty() ? 7 : GetArguments(Id)[0].toInt() * 2);
    }
  };
  EXPECT_EQ(PerformAction(Sleep, 21), 42);
  EXPECT_EQ(PerformAction(Sleep, QVariant(), 5), 10);  // an invalid variant is skipped, not an empty argument
  ClearArguments(Sleep);
  EXPECT_EQ(PerformAction(Sleep), 7);  // a click: no list, the handler allows that with a minimum of 0
  SetArguments(Sleep, "\"12\"", QString("3") + QChar(0x2008));
  EXPECT_EQ(GetArguments(Sleep), QStringList({"12", "3"}));
  MarkCancelled(Sleep);
  EXPECT_TRUE(IsCancelled(Sleep));
  EXPECT_TRUE(GetArguments(Sleep).isEmpty());
  DrainConsole();
  Host.Handler = [&](int Id) {
    if (Id == Sleep) {
      MarkCancelled(Id);  // the dialog was cancelled: nothing is echoed
    }
  };
  TriggerAction(Sleep);
  // The echo before the handler has been printed; after a cancelled dialog nothing more is.
  EXPECT_EQ(DrainConsole(), QStringList({"Util.Sleep();"}));
  ClearArguments(Sleep);
  EXPECT_EQ(GetFirstArgument(Sleep), "");
  SetArgumentList(Sleep, {"1", "2"});
  EXPECT_EQ(GetFirstArgument(Sleep), "");
  EXPECT_EQ(GetError(Sleep), "wrong parameter count");
}

TEST(ActionLinking, UnknownObjectNamesAreReportedOnce) {
  QWidget Owner;
  QAction* pKnown = new QAction(&Owner);
  pKnown->setObjectName("ACTIONDEBUGHALT");  // names match ignoring case
  QAction* pUnknown = new QAction(&Owner);
  pUnknown->setObjectName("actionNoSuchRow");
  QAction* pTwice = new QAction(&Owner);
  pTwice->setObjectName("actionNoSuchRow");
  UnlinkAllActions();
  LinkActions(&Owner);
  int Halt = RowOf("Debug.Halt");
  EXPECT_EQ(GetAction(Halt), pKnown);
  EXPECT_EQ(GetActionID(pKnown), Halt);
  EXPECT_EQ(pKnown->shortcut(), QKeySequence("Ctrl+F5"));
  EXPECT_EQ(pKnown->toolTip(), "Halt program execution (Ctrl+F5)");
  EXPECT_EQ(GetUnlinkedActionNames(), QStringList({"actionNoSuchRow"}));
  DrainConsole();
  ReportUnlinkedActions();
  EXPECT_EQ(DrainConsole(), QStringList({"Unknown GUI action could not be linked: actionNoSuchRow"}));
  delete pKnown;
  EXPECT_EQ(GetAction(Halt), nullptr);  // a destroyed action unbinds itself
}

TEST(CommandTable, ColumnsStartAt29And52And68AndRowsAreSorted) {
  CRowHost Host;
  QStringList Table = CCommandConsole::BuildCommandTable();
  ASSERT_GT(Table.size(), 100);
  EXPECT_EQ(Table[0], QString("Command") + QString(22, ' ') + "Arguments" + QString(14, ' ') + "Hotkey" +
                          QString(10, ' ') + "Description");
  QString sHalt;
  for (const QString& s : Table) {
    if (s.startsWith("Debug.Halt ")) {
      sHalt = s;
    }
  }
  EXPECT_EQ(sHalt, QString("Debug.Halt") + QString(19, ' ') + QString(23, ' ') + "Ctrl+F5" + QString(9, ' ') +
                       "Halts program execution");
  QStringList Names;
  for (int i = 1; i < Table.size(); ++i) {
    Names << Table[i].section(' ', 0, 0);
  }
  QStringList Sorted = Names;
  std::sort(Sorted.begin(), Sorted.end());
  EXPECT_EQ(Names, Sorted);
  EXPECT_FALSE(Names.contains("Watch.Add"));  // rows that don't echo are not listed, nor their aliases
  EXPECT_FALSE(Names.contains("Watch"));
  EXPECT_TRUE(Names.contains("Window.SetNumberBase"));  // aliases are listed under their own name
  EXPECT_TRUE(Names.contains("Window.SetDisplayFormat"));
  EXPECT_EQ(Names.removeDuplicates(), 0);
  // 141 rows have a prototype; two of them don't echo; five of those left have an alias.
  EXPECT_EQ(Names.size(), 139 + 5);
}
