// The action rows as the rest of the program relies on them: numbering, names that link, prototypes
// that the script binding can register, aliases that resolve, and the echo rules.
#include <gtest/gtest.h>

#include <QKeySequence>
#include <QRegularExpression>
#include <QSet>

#include "app/tables/ActionRows.h"
#include "device/DeviceJob.h"

namespace {

// "__api__ int Name (params);" with the blank before "(" optional, as some rows are written.
const QRegularExpression kPrototype(
    QStringLiteral(R"(^__api__ int ([A-Z][A-Za-z]*\.[A-Za-z0-9]+) ?\((.*)\);$)"));

QString FunctionName(const GUI_ACTION& Row) {
  return kPrototype.match(Row.sPrototype).captured(1);
}

int PrototypeParamCount(const GUI_ACTION& Row) {
  const QString sInner = kPrototype.match(Row.sPrototype).captured(2).trimmed();
  return sInner.isEmpty() || sInner == QLatin1String("void") ? 0 : int(sInner.split(',').size());
}

const GUI_ACTION* RowByName(const QString& sName) {
  for (const GUI_ACTION& Row : g_aActions) {
    if (!Row.sPrototype.isEmpty() && FunctionName(Row).compare(sName, Qt::CaseInsensitive) == 0) {
      return &Row;
    }
  }
  return nullptr;
}

}  // namespace

TEST(ActionRows, IdsStandInOrder) {
  for (int i = 0; i < kNumActions; ++i) {
    EXPECT_EQ(g_aActions[i].ID, U32(i));
  }
}

TEST(ActionRows, ThereAre141ScriptFunctions) {
  int Count = 0;
  for (const GUI_ACTION& Row : g_aActions) {
    Count += Row.sPrototype.isEmpty() ? 0 : 1;
  }
  EXPECT_EQ(Count, 141);
}

TEST(ActionRows, ObjectNamesAreUniqueIgnoringCase) {
  // Linking compares object names without case, so two rows differing only in case would collide.
  QSet<QString> Seen;
  for (const GUI_ACTION& Row : g_aActions) {
    ASSERT_TRUE(Row.sObjectName.startsWith(QLatin1String("action"))) << Row.ID;
    EXPECT_FALSE(Seen.contains(Row.sObjectName.toLower())) << qPrintable(Row.sObjectName);
    Seen.insert(Row.sObjectName.toLower());
  }
}

TEST(ActionRows, EveryPrototypeParsesAndFunctionNamesAreUnique) {
  QSet<QString> Names;
  for (const GUI_ACTION& Row : g_aActions) {
    if (Row.sPrototype.isEmpty()) {
      EXPECT_EQ(Row.pfApi, nullptr);
      continue;
    }
    ASSERT_TRUE(kPrototype.match(Row.sPrototype).hasMatch()) << qPrintable(Row.sPrototype);
    const QString sName = FunctionName(Row).toLower();
    EXPECT_FALSE(Names.contains(sName)) << qPrintable(sName);
    Names.insert(sName);
  }
}

TEST(ActionRows, ParameterNamesMatchThePrototype) {
  // The data breakpoint rows describe their six (or five) arguments as one location in the help table.
  const QSet<U32> CompositeHelp = {127, 128, 129, 130, 131, 132, 133, 134};
  for (const GUI_ACTION& Row : g_aActions) {
    if (Row.sPrototype.isEmpty() || Row.sParams.isEmpty() || CompositeHelp.contains(Row.ID)) {
      continue;
    }
    EXPECT_EQ(PrototypeParamCount(Row), int(Row.sParams.split(',').size()))
        << qPrintable(Row.sPrototype) << " / " << qPrintable(Row.sParams);
  }
  EXPECT_EQ(PrototypeParamCount(g_aActions[142]), 7);  // Break.Edit, without help names
  EXPECT_EQ(PrototypeParamCount(g_aActions[127]), 6);
}

TEST(ActionRows, EachAliasPairNamesExactlyOneRow) {
  for (const ACTION_ALIAS& Alias : g_aActionAliases) {
    const GUI_ACTION* pByName = RowByName(QLatin1String(Alias.sName));
    const GUI_ACTION* pByAlias = RowByName(QLatin1String(Alias.sAlias));
    EXPECT_TRUE((pByName != nullptr) != (pByAlias != nullptr)) << Alias.sName << " / " << Alias.sAlias;
  }
  EXPECT_EQ(RowByName(QStringLiteral("Window.SetDisplayFormat"))->ID, 74u);
  EXPECT_EQ(RowByName(QStringLiteral("Debug.SetNextStatement"))->ID, 36u);
  EXPECT_EQ(RowByName(QStringLiteral("Break.Edit"))->ID, 142u);
}

TEST(ActionRows, EchoRules) {
  for (const GUI_ACTION& Row : g_aActions) {
    const bool HasPrototype = !Row.sPrototype.isEmpty();
    U8 Echo = HasPrototype ? 1 : 0;
    if (Row.ID == 119 || Row.ID == 121) {
      Echo = 0;  // Watch.Add, Trace.Add
    }
    if (!HasPrototype && ((Row.ID >= 52 && Row.ID <= 71) || (Row.ID >= 82 && Row.ID <= 85))) {
      Echo = 1;
    }
    EXPECT_EQ(Row.Echo, Echo) << Row.ID;
    EXPECT_EQ(Row.EchoAfter, Row.ID == 4 ? 1 : 0) << Row.ID;  // File.Close
    EXPECT_EQ(Row.pAction, nullptr);
  }
}

TEST(ActionRows, OnlyDebugHaltHasASecondHotkey) {
  for (const GUI_ACTION& Row : g_aActions) {
    EXPECT_EQ(Row.sHotkey2, Row.ID == 30 ? QStringLiteral("F6") : QString()) << Row.ID;
  }
  EXPECT_EQ(g_aActions[30].sHotkey, QStringLiteral("Ctrl+F5"));
}

TEST(ActionRows, HotkeysAreValidKeySequences) {
  for (const GUI_ACTION& Row : g_aActions) {
    if (Row.sHotkey.isEmpty()) {
      continue;
    }
    const QKeySequence Key(Row.sHotkey, QKeySequence::PortableText);
    EXPECT_EQ(Key.count(), 1) << Row.ID << " " << qPrintable(Row.sHotkey);
    EXPECT_NE(Key[0].key(), Qt::Key_unknown) << Row.ID << " " << qPrintable(Row.sHotkey);
  }
}

TEST(ActionRows, WaitsForNamesRealJobTypes) {
  for (const GUI_ACTION& Row : g_aActions) {
    for (U32 Type : Row.aWaitsFor) {
      // The query values "any step" and "any" are not types a job can have.
      EXPECT_TRUE(Type == JT_NONE || (Type < JT_LAST && Type != JT_ANY_STEP && Type != JT_ANY)) << Row.ID;
    }
    if (Row.sPrototype.isEmpty()) {
      EXPECT_EQ(Row.aWaitsFor[0], 0u) << Row.ID;
    }
    EXPECT_TRUE(Row.aWaitsFor[0] != 0 || Row.aWaitsFor[1] == 0) << Row.ID;
  }
}

TEST(ActionRows, EveryRowDescribesItselfForTheMenuAndTheHelpTable) {
  // The status tip is the description of the help table and the tool tip the menu's text: both are
  // sentences' beginnings without a closing period, and a row with parameters names them for the help.
  for (const GUI_ACTION& Row : g_aActions) {
    ASSERT_FALSE(Row.sStatusTip.isEmpty()) << Row.ID;
    ASSERT_FALSE(Row.sToolTip.isEmpty()) << Row.ID;
    EXPECT_TRUE(Row.sStatusTip[0].isUpper()) << Row.ID;
    EXPECT_TRUE(Row.sToolTip[0].isUpper()) << Row.ID;
    EXPECT_FALSE(Row.sStatusTip.endsWith('.')) << Row.ID;
    EXPECT_FALSE(Row.sToolTip.endsWith('.')) << Row.ID;
    if (!Row.sPrototype.isEmpty()) {
      const bool HelpDescribesThem = !Row.sParams.isEmpty() || (Row.ID >= 142 && Row.ID <= 144);  // edit rows
      EXPECT_EQ(PrototypeParamCount(Row) > 0, HelpDescribesThem) << Row.ID;
    }
  }
}

TEST(ActionRows, RowsWithoutPrototypeKeepTheirObjectNameAndHotkey) {
  const struct {
    U32 ID;
    const char* sObjectName;
    const char* sHotkey;
  } aExpected[] = {
      {41, "actionDebugDownloadReset", ""},
      {52, "actionWindowShowRegisters", "Shift+Alt+R"},
      {120, "actionWatchDialog", "Ctrl+Alt+W"},
      {172, "actionExpandAll", "Shift++"},
      {174, "actionDisplayAsHex", "1"},
      {240, "actionDataGraphZoomIn", "+"},
      {269, "actionConsoleHelp", ""},
      {273, "actionBpClearAll", "Alt+Del"},
      {304, "actionWinSetDisplayFormatHex", "Alt+2"},
  };
  for (const auto& e : aExpected) {
    EXPECT_EQ(g_aActions[e.ID].sObjectName, QLatin1String(e.sObjectName)) << e.ID;
    EXPECT_EQ(g_aActions[e.ID].sHotkey, QLatin1String(e.sHotkey)) << e.ID;
    EXPECT_TRUE(g_aActions[e.ID].sPrototype.isEmpty()) << e.ID;
    EXPECT_FALSE(g_aActions[e.ID].sStatusTip.isEmpty()) << e.ID;
    EXPECT_FALSE(g_aActions[e.ID].sToolTip.isEmpty()) << e.ID;
  }
  for (U32 ID : {159u, 160u, 161u}) {
    EXPECT_EQ(g_aActions[ID].sParams, QStringLiteral("OnOff"));
  }
}
