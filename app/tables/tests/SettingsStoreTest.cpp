// The persistent store and its passage through the settings file, in a private folder per test.
#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"

namespace {

class SettingsStore : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_Dir.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_Dir.path());
    StoreClear();
  }
  void TearDown() override {
    StoreClear();
    InitVars();
    ResetFonts();
    for (int i = 0; i < kNumColors; ++i) {
      ResetColor(i);
    }
  }
  QString FileName() const { return m_Dir.path() + QStringLiteral("/Quorin/Zevra.conf"); }

  QTemporaryDir m_Dir;
};

}  // namespace

TEST_F(SettingsStore, KeysJoinThePathAndTheKey) {
  EXPECT_EQ(StoreKey({QStringLiteral("AppData"), QStringLiteral("Preferences")}, QStringLiteral("Colors")),
            QStringLiteral("AppData/Preferences/Colors"));
  EXPECT_EQ(StoreKey({}, QStringLiteral("Top")), QStringLiteral("Top"));
  StoreValue({QStringLiteral("AppData")}, QStringLiteral("RecentPageID"), 9);
  EXPECT_TRUE(StoreContains({}, QStringLiteral("AppData/RecentPageID")));
  EXPECT_EQ(LoadValue({QStringLiteral("AppData")}, QStringLiteral("RecentPageID"), 8).toInt(), 9);
  EXPECT_EQ(LoadValue({QStringLiteral("AppData")}, QStringLiteral("Missing"), 8).toInt(), 8);
  StoreRemove({QStringLiteral("AppData")}, QStringLiteral("RecentPageID"));
  EXPECT_FALSE(StoreContains({QStringLiteral("AppData")}, QStringLiteral("RecentPageID")));
}

TEST_F(SettingsStore, ValuesRoundTripThroughTheSettingsFile) {
  const QStringList Path = {QStringLiteral("AppData"), QStringLiteral("Test")};
  const QStringList Recent = {QStringLiteral("/a/b.zvproj"), QStringLiteral("/c, d/e.zvproj")};
  const QByteArray Bytes("\x00\x01\xFFgeometry", 11);
  StoreValue(Path, QStringLiteral("Int"), 42);
  StoreValue(Path, QStringLiteral("Font"), QStringLiteral("Arial,  9pt,  Bold"));
  StoreValue(Path, QStringLiteral("Color"), QStringLiteral("#123456"));
  StoreValue(Path, QStringLiteral("List"), Recent);
  StoreValue(Path, QStringLiteral("Bool"), true);
  StoreValue(Path, QStringLiteral("Bytes"), Bytes);
  ASSERT_EQ(SaveStore(), 0);
  EXPECT_TRUE(QFile::exists(FileName()));

  StoreClear();
  ASSERT_EQ(LoadStore(), 0);
  EXPECT_EQ(LoadValue(Path, QStringLiteral("Int")).toInt(), 42);
  EXPECT_EQ(LoadValue(Path, QStringLiteral("Font")).toString(), QStringLiteral("Arial,  9pt,  Bold"));
  EXPECT_EQ(LoadValue(Path, QStringLiteral("Color")).toString(), QStringLiteral("#123456"));
  EXPECT_EQ(LoadValue(Path, QStringLiteral("List")).toStringList(), Recent);
  EXPECT_TRUE(LoadValue(Path, QStringLiteral("Bool")).toBool());
  EXPECT_EQ(LoadValue(Path, QStringLiteral("Bytes")).toByteArray(), Bytes);
}

TEST_F(SettingsStore, RemovedKeysDoNotSurviveAWriteBack) {
  StoreValue({QStringLiteral("AppData")}, QStringLiteral("Keep"), 1);
  StoreValue({QStringLiteral("AppData")}, QStringLiteral("Drop"), 2);
  ASSERT_EQ(SaveStore(), 0);
  {
    // A key that only the file has, as left by an older run.
    QSettings Settings(QString::fromLatin1(kStoreOrganisation), QString::fromLatin1(kStoreApplication));
    Settings.setValue(QStringLiteral("Other/Stale"), 3);
  }
  StoreRemove({QStringLiteral("AppData")}, QStringLiteral("Drop"));
  ASSERT_EQ(SaveStore(), 0);
  StoreClear();
  ASSERT_EQ(LoadStore(), 0);
  EXPECT_EQ(StoreKeys(), QStringList({QStringLiteral("AppData/Keep")}));
}

TEST_F(SettingsStore, LoadReplacesTheWholeMap) {
  StoreValue({}, QStringLiteral("InMemoryOnly"), 1);
  ASSERT_EQ(LoadStore(), 0);  // the file doesn't exist yet
  EXPECT_TRUE(StoreKeys().isEmpty());
}

TEST_F(SettingsStore, SettingsMadeInTheDialogSurviveARestart) {
  // The preferences dialog's path: stored values, then the exit sequence, then a new start.
  InitVars();
  ASSERT_EQ(SetVarFromText(GetVar(PREF_LINE_NUMBER_FREQ), QStringLiteral("Every 10 Lines"), true), 0);
  ASSERT_EQ(SetVar(GetVar(PREF_SHOW_SIDEBAR_ASM), 0, true), 0);
  ASSERT_EQ(SetColor(COLOR_SYNTAX_KEYWORD, QColor(0xAA, 0xBB, 0xCC), true), 0);
  bool Ok = false;
  ASSERT_EQ(SetFont(FONT_EXEC_COUNTERS, TextToFont(QStringLiteral("Zevra Counter,  7pt,  Bold"), &Ok), true),
            0);
  StoreValue({QStringLiteral("AppData")}, QStringLiteral("RecentPageID"), 10u);
  SaveColorsAndFonts();
  SavePreferences();
  ASSERT_EQ(SaveStore(), 0);

  StoreClear();
  InitVars();
  ResetFonts();
  ResetColor(COLOR_SYNTAX_KEYWORD);
  ASSERT_EQ(LoadStore(), 0);
  LoadPreferences();
  LoadColorsAndFonts();
  EXPECT_EQ(GetVarText(GetVar(PREF_LINE_NUMBER_FREQ)), QStringLiteral("Every 10 Lines"));
  EXPECT_EQ(GetVarValue(GetVar(PREF_SHOW_SIDEBAR_ASM)), 0);
  EXPECT_EQ(GetColor(COLOR_SYNTAX_KEYWORD).rgba(), 0xFFAABBCCu);
  EXPECT_EQ(FontToText(FONT_EXEC_COUNTERS), QStringLiteral("Zevra Counter,  7pt,  Bold"));
  EXPECT_EQ(GetFont(FONT_EXEC_COUNTERS).weight(), 700);
  EXPECT_EQ(LoadValue({QStringLiteral("AppData")}, QStringLiteral("RecentPageID")).toUInt(), 10u);
}
