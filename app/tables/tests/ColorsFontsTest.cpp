// Colours and fonts as windows and the Edit.Color / Edit.Font commands use them, and their text forms.
#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QPalette>

#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"

namespace {

const QStringList kColorPath = {QStringLiteral("AppData"), QStringLiteral("Preferences"),
                                QStringLiteral("Colors")};
const QStringList kFontPath = {QStringLiteral("AppData"), QStringLiteral("Preferences"),
                               QStringLiteral("Fonts")};

class ColorsAndFonts : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Reset(); }
  static void Reset() {
    for (int i = 0; i < kNumColors; ++i) {
      ResetColor(i);
    }
    ResetFonts();
    StoreClear();
  }
};

}  // namespace

TEST_F(ColorsAndFonts, BuiltInColoursByIdAndName) {
  const struct {
    int ID;
    const char* sName;
    QRgb Value;
  } aCases[] = {
      {0, "COLOR_HIGHLIGHT_DARK", 0xFF1A246A},       {8, "COLOR_PC_ACTIVE", 0xFF77FF6D},
      {26, "COLOR_LOGGING_SCRIPT", 0xFF009900},      {27, "COLOR_LOGGING_USER", 0xFF000000},
      {28, "COLOR_LOGGING_ERROR", 0xFFB22222},       {29, "COLOR_LOGGING_TARVIK", 0xFF00008B},
      {40, "COLOR_TABLE_ITEM_INACTIVE", 0xFF777777}, {44, "COLOR_INLINE_ASM_BACKG_ALTERNATE", 0xFFE0E0E0},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(FindColor(QString::fromLatin1(c.sName)), c.ID);
    EXPECT_EQ(GetColor(c.ID).rgba(), c.Value) << c.sName;
  }
  EXPECT_EQ(COLOR_LOGGING_USER, 27);
  EXPECT_EQ(COLOR_LOGGING_ERROR, 28);
  EXPECT_EQ(FindColor(QStringLiteral("console text (error)")), 28);
  EXPECT_EQ(FindColor(QStringLiteral("Inline Assembly Code")), 43);
  EXPECT_EQ(FindColor(QStringLiteral("COLOR_NOTHING")), -1);
  EXPECT_FALSE(GetColor(45).isValid());
  EXPECT_FALSE(GetColor(-1).isValid());
}

TEST_F(ColorsAndFonts, PaletteColoursAndChangeLevels) {
  const QColor Base = QGuiApplication::palette().color(QPalette::Base);
  EXPECT_EQ(GetColor(COLOR_CHANGE_LEVEL_1_BG), Base);
  EXPECT_EQ(GetColor(COLOR_PROGRESS_BAR_REMAINING), Base);
  const struct {
    int Level;
    bool Foreground;
    QColor Expected;
  } aCases[] = {
      {1, true, QColor::fromRgba(0xFFFF0000)},
      {2, true, QColor::fromRgba(0xFFAA0000)},
      {3, true, QColor::fromRgba(0xFF770000)},
      {1, false, Base},
      {3, false, Base},
      {0, false, QColor(Qt::transparent)},
      {4, false, QColor(Qt::transparent)},
      {4, true, QGuiApplication::palette().color(QPalette::Text)},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(GetChangeLevelColor(c.Level, c.Foreground), c.Expected) << c.Level << " " << c.Foreground;
  }
  EXPECT_EQ(GetPCColor(false).rgba(), 0xFFE3FFC1u);
  EXPECT_EQ(GetCallSiteColor(true).rgba(), 0xFFFFFCD6u);
}

TEST_F(ColorsAndFonts, OnlyColoursThatDifferFromTheBuiltInOnesAreStored) {
  EXPECT_EQ(SetColor(COLOR_SYNTAX_TEXT, QColor(0x12, 0x34, 0x56), true), 0);
  EXPECT_TRUE(IsColorChanged(COLOR_SYNTAX_TEXT));
  // Picked by hand, but equal to the built-in colour.
  EXPECT_EQ(SetColor(COLOR_PC_ACTIVE, QColor::fromRgba(0xFF77FF6D), true), 0);
  EXPECT_FALSE(IsColorChanged(COLOR_PC_ACTIVE));
  // Changed for this session only.
  EXPECT_EQ(SetColor(COLOR_LOGGING_USER, QColor(Qt::blue), false), 0);
  StoreValue(kColorPath, QStringLiteral("COLOR_LOGGING_ERROR"), QStringLiteral("#010101"));  // stale
  SaveColorsAndFonts();
  EXPECT_EQ(LoadValue(kColorPath, QStringLiteral("COLOR_SYNTAX_TEXT")).toString(), QStringLiteral("#123456"));
  EXPECT_FALSE(StoreContains(kColorPath, QStringLiteral("COLOR_PC_ACTIVE")));
  EXPECT_FALSE(StoreContains(kColorPath, QStringLiteral("COLOR_LOGGING_USER")));
  EXPECT_FALSE(StoreContains(kColorPath, QStringLiteral("COLOR_LOGGING_ERROR")));
  EXPECT_EQ(SetColor(99, QColor(Qt::red), true), -1);
  EXPECT_EQ(SetColor(1, QColor(), true), -1);
}

TEST_F(ColorsAndFonts, LoadedColoursGoToBothArraysAndBadTextsAreIgnored) {
  StoreValue(kColorPath, QStringLiteral("COLOR_SYNTAX_COMMENT"), QStringLiteral("#00ff00"));
  StoreValue(kColorPath, QStringLiteral("COLOR_SYNTAX_STRING"), QStringLiteral("#zzzzzz"));
  StoreValue(kColorPath, QStringLiteral("COLOR_SYNTAX_KEYWORD"), 12345);
  LoadColorsAndFonts();
  EXPECT_EQ(GetColor(COLOR_SYNTAX_COMMENT).rgba(), 0xFF00FF00u);
  EXPECT_EQ(GetStoredColor(COLOR_SYNTAX_COMMENT).rgba(), 0xFF00FF00u);
  EXPECT_EQ(GetColor(COLOR_SYNTAX_STRING).rgba(), 0xFFB22222u);
  EXPECT_EQ(GetColor(COLOR_SYNTAX_KEYWORD).rgba(), 0xFF0000FAu);
}

TEST_F(ColorsAndFonts, FontTextsThatParse) {
  const struct {
    const char* sText;
    const char* sFamily;
    int Points;
    int QtWeight;
    bool Italic;
  } aCases[] = {
      {"Arial,  9pt,  Bold", "Arial", 9, 700, false},
      {"Arial, 9, Normal", "Arial", 9, 400, false},
      {"\"DejaVu Sans\", 10pt, Bold Italic", "DejaVu Sans", 10, 700, true},
      {"Courier New,  12pt,  Light", "Courier New", 12, 300, false},
      {"Courier New, 12pt, Medium", "Courier New", 12, 600, false},
      {"Mono, 1pt, Black", "Mono", 1, 700, false},
      {"Mono, 59pt, Oblique", "Mono", 59, 400, true},
      {"Mono, 11PT, Dark", "Mono", 11, 700, false},
  };
  for (const auto& c : aCases) {
    bool Ok = false;
    const QFont Font = TextToFont(QString::fromLatin1(c.sText), &Ok);
    ASSERT_TRUE(Ok) << c.sText;
    EXPECT_EQ(Font.family(), QLatin1String(c.sFamily)) << c.sText;
    EXPECT_EQ(Font.pointSize(), c.Points) << c.sText;
    EXPECT_EQ(Font.weight(), c.QtWeight) << c.sText;
    EXPECT_EQ(Font.italic(), c.Italic) << c.sText;
  }
}

TEST_F(ColorsAndFonts, FontTextsThatFail) {
  for (const char* sText :
       {"Arial, 9", "Arial,  60pt,  Bold", "Arial, 0pt, Bold", "Arial, -3pt, Bold", "Arial, 9.5pt, Bold",
        "Arial, x pt, Bold", ", 9pt, Bold", "Arial, 9pt, Bold, Extra", "", "Arial, 100000000000pt, Bold"}) {
    bool Ok = true;
    TextToFont(QString::fromLatin1(sText), &Ok);
    EXPECT_FALSE(Ok) << sText;
  }
}

TEST_F(ColorsAndFonts, FontToTextWithAndWithoutStyleName) {
  QFont Bold(QStringLiteral("Arial"), 9, QFont::Bold);
  EXPECT_EQ(FontToText(Bold), QStringLiteral("Arial,  9pt,  Bold"));
  QFont Italic(QStringLiteral("Arial"), 10);
  Italic.setItalic(true);
  EXPECT_EQ(FontToText(Italic), QStringLiteral("Arial,  10pt,  Italic"));
  EXPECT_EQ(FontToText(QFont(QStringLiteral("Arial"), 10)), QStringLiteral("Arial,  10pt,  Normal"));
  Bold.setItalic(true);
  EXPECT_EQ(FontToText(Bold), QStringLiteral("Arial,  9pt,  Bold Italic"));
  QFont Styled(QStringLiteral("Arial"), 8, QFont::Light);
  Styled.setStyleName(QStringLiteral("Light Condensed"));
  EXPECT_EQ(FontToText(Styled), QStringLiteral("Arial,  8pt,  Light Condensed"));
}

TEST_F(ColorsAndFonts, WeightScalesMeetInOnePlace) {
  const struct {
    int Table;
    int Qt;
  } aCases[] = {{0, 100}, {25, 300}, {50, 400}, {63, 600}, {75, 700}, {87, 900}};
  for (const auto& c : aCases) {
    EXPECT_EQ(TableWeightToQt(c.Table), c.Qt) << c.Table;
    EXPECT_EQ(QtWeightToTable(c.Qt), c.Table) << c.Qt;
  }
  for (int Qt = 100; Qt <= 900; Qt += 100) {
    EXPECT_EQ(TableWeightToQt(QtWeightToTable(Qt)), Qt);
  }
  EXPECT_EQ(TableWeightToQt(99), 900);
}

TEST_F(ColorsAndFonts, FontTextsRoundTripBySizeWeightAndFamily) {
  // Families that don't exist all resolve to the same fallback; the text must still keep what was chosen.
  for (const char* sText :
       {"Zevra Test Alpha,  11pt,  Bold", "Zevra Test Beta,  11pt,  Bold", "Zevra Test Beta,  13pt,  Bold",
        "Zevra Test Beta,  13pt,  Light", "Zevra Test Beta,  13pt,  Light Italic"}) {
    bool Ok = false;
    const QFont Font = TextToFont(QString::fromLatin1(sText), &Ok);
    ASSERT_TRUE(Ok) << sText;
    EXPECT_EQ(SetFont(FONT_SRC_CODE, Font, true), 0);
    EXPECT_EQ(FontToText(FONT_SRC_CODE), QLatin1String(sText));
  }
}

TEST_F(ColorsAndFonts, FontsSurviveTheStoreExceptTheTwoThatAlwaysStartFromDefaults) {
  bool Ok = false;
  const QFont Console = TextToFont(QStringLiteral("Zevra Console,  14pt,  Bold"), &Ok);
  const QFont Source = TextToFont(QStringLiteral("Zevra Source,  15pt,  Light"), &Ok);
  SetFont(FONT_CONSOLE, Console, true);
  SetFont(FONT_SRC_CODE, Source, true);
  SetFont(FONT_LINE_NUMBERS, GetDefaultFont(FONT_LINE_NUMBERS), true);  // equal to its default
  SaveColorsAndFonts();
  EXPECT_EQ(LoadValue(kFontPath, QStringLiteral("FONT_SRC_CODE")).toString(),
            QStringLiteral("Zevra Source,  15pt,  Light"));
  EXPECT_TRUE(StoreContains(kFontPath, QStringLiteral("FONT_CONSOLE")));
  EXPECT_FALSE(StoreContains(kFontPath, QStringLiteral("FONT_LINE_NUMBERS")));
  EXPECT_FALSE(StoreContains(kFontPath, QStringLiteral("FONT_APP")));

  StoreValue(kFontPath, QStringLiteral("FONT_ASM_CODE"), QStringLiteral("Broken, 99pt, Bold"));
  ResetFonts();
  LoadColorsAndFonts();
  EXPECT_EQ(FontToText(FONT_SRC_CODE), QStringLiteral("Zevra Source,  15pt,  Light"));
  EXPECT_EQ(GetFont(FONT_SRC_CODE).weight(), 300);
  EXPECT_EQ(FontToText(FONT_CONSOLE), FontToText(FONT_APP));
  EXPECT_EQ(FontToText(FONT_ASM_CODE), FontToText(FONT_APP_MONO));
}

TEST_F(ColorsAndFonts, DerivedFontsFollowTheirParents) {
  EXPECT_EQ(FontToText(FONT_ITEM_NAME), FontToText(FONT_APP));
  EXPECT_EQ(FontToText(FONT_SRC_ASM_CODE), FontToText(FONT_SRC_CODE));
  EXPECT_EQ(FontToText(FONT_SRC_CODE), FontToText(FONT_APP_MONO));
  EXPECT_GT(GetFontHeight(FONT_APP), 0);
  EXPECT_GT(GetTextWidth(FONT_APP, QStringLiteral("main")), 0);
  EXPECT_EQ(FindFont(QStringLiteral("font_console")), FONT_CONSOLE);
  EXPECT_EQ(FindFont(QStringLiteral("Line Numbers")), FONT_LINE_NUMBERS);
  EXPECT_EQ(FindFont(QStringLiteral("Text")), FONT_APP);
  EXPECT_EQ(FindFont(QStringLiteral("Nothing")), -1);
  EXPECT_EQ(SetFont(11, QFont(), true), -1);
}
