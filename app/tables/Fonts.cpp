// The font table: defaults, current and stored fonts, the font text form, the weight scale, metrics,
// and the fonts' passage through the persistent store.
#include <QFontDatabase>
#include <QFontInfo>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QMap>

#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"

// clang-format off
const SYS_FONT g_aFonts[kNumFonts] = {
    {0, "FONT_APP", "Text", "Default Font used to display text"},
    {1, "FONT_APP_MONO", "Value", "Default Font used to display text"},
    {2, "FONT_ITEM_NAME", "Text", "Table text font"},
    {3, "FONT_ITEM_VALUE", "Value", "Table value text font"},
    {4, "FONT_TABLE_HEADER", "Text", "Table header font"},
    {5, "FONT_SRC_CODE", "Text", "Source code font as used by the source viewer"},
    {6, "FONT_SRC_ASM_CODE", "Assembly Code", "Font used for inline disassembly"},
    {7, "FONT_ASM_CODE", "Text", "Assembler code font as used by the disassembly and instruction trace windows"},
    {8, "FONT_CONSOLE", "Text", "Console window font"},
    {9, "FONT_LINE_NUMBERS", "Line Numbers", "Font used for line numbers"},
    {10, "FONT_EXEC_COUNTERS", "Execution Counters", "Font used for execution counters"},
};
// clang-format on

namespace {

// The font each ID derives its default from; -1: its own default (application font, monospaced
// variant, or a plain QFont).
constexpr int s_aDefaultParent[kNumFonts] = {
    -1,       -1, FONT_APP, FONT_APP_MONO, FONT_ITEM_NAME, FONT_APP_MONO, FONT_SRC_CODE, FONT_APP_MONO,
    FONT_APP, -1, -1};

// The two scales side by side. The table scale is the one the font texts and older stores speak; the
// pairs are the standard correspondence of named weights.
constexpr struct {
  int Table;
  int Qt;
} s_aWeights[] = {{0, 100},  {12, 200}, {25, 300}, {50, 400}, {57, 500},
                  {63, 600}, {75, 700}, {81, 800}, {87, 900}};

QMap<int, QFont> s_Current;
QMap<int, QFont> s_Stored;
QMap<int, QFontMetrics> s_Metrics;

const QStringList s_FontPath = {QStringLiteral("AppData"), QStringLiteral("Preferences"),
                                QStringLiteral("Fonts")};

bool _IsValidId(int ID) {
  return ID >= 0 && ID < kNumFonts;
}

QFont _ApplicationFont() {
  return qobject_cast<QGuiApplication*>(QCoreApplication::instance()) ? QGuiApplication::font() : QFont();
}

// Font 0 if its family has a fixed pitch; otherwise the family the font system picks for a typewriter
// hint, with the size, weight, slant and style name of font 0.
QFont _MonospacedFrom(const QFont& Base) {
  if (QFontInfo(Base).fixedPitch()) {
    return Base;
  }
  QFont Probe(Base);
  Probe.setFamily(QStringLiteral("unknown"));
  Probe.setStyleHint(QFont::TypeWriter);
  const QFontInfo Info(Probe);
  QString sFamily = Info.family();
  if (!Info.fixedPitch()) {
    sFamily = QFontDatabase::systemFont(QFontDatabase::FixedFont).family();
  }
  QFont Mono(sFamily);
  Mono.setStyleHint(QFont::TypeWriter);
  if (Base.pointSizeF() > 0) {
    Mono.setPointSizeF(Base.pointSizeF());
  }
  Mono.setWeight(Base.weight());
  Mono.setItalic(Base.italic());
  Mono.setStyleName(Base.styleName());
  return Mono;
}

int _PointSize(const QFont& Font) {
  if (Font.pointSize() > 0) {
    return Font.pointSize();
  }
  return QFontInfo(Font).pointSize();
}

// Equality by what was asked for, not by what the font system resolved: on Linux several requested
// families often resolve to the same installed one, and comparing resolved fonts would drop a change of
// family and make the stored text differ from what the user chose.
bool _SameFont(const QFont& A, const QFont& B) {
  return A.family() == B.family() && _PointSize(A) == _PointSize(B) && A.weight() == B.weight() &&
         A.italic() == B.italic() && A.styleName() == B.styleName();
}

QString _Unquote(const QString& sText) {
  QString s = sText.trimmed();
  s.remove('"');
  return s.trimmed();
}

}  // namespace

int TableWeightToQt(int TableWeight) {
  int Best = 0;
  for (int i = 1; i < int(COUNTOF(s_aWeights)); ++i) {
    if (qAbs(s_aWeights[i].Table - TableWeight) < qAbs(s_aWeights[Best].Table - TableWeight)) {
      Best = i;
    }
  }
  return s_aWeights[Best].Qt;
}

int QtWeightToTable(int QtWeight) {
  int Best = 0;
  for (int i = 1; i < int(COUNTOF(s_aWeights)); ++i) {
    if (qAbs(s_aWeights[i].Qt - QtWeight) < qAbs(s_aWeights[Best].Qt - QtWeight)) {
      Best = i;
    }
  }
  return s_aWeights[Best].Table;
}

const SYS_FONT* GetFontRow(int ID) {
  return _IsValidId(ID) ? &g_aFonts[ID] : nullptr;
}

int FindFont(const QString& sText) {
  const QString s = _Unquote(sText);
  for (const SYS_FONT& Row : g_aFonts) {
    if (s.compare(QLatin1String(Row.sName), Qt::CaseInsensitive) == 0) {
      return int(Row.ID);
    }
  }
  for (const SYS_FONT& Row : g_aFonts) {
    if (s.compare(QLatin1String(Row.sDisplay), Qt::CaseInsensitive) == 0) {
      return int(Row.ID);
    }
  }
  return -1;
}

QFont GetDefaultFont(int ID) {
  if (!_IsValidId(ID)) {
    return QFont();
  }
  if (s_aDefaultParent[ID] >= 0) {
    return GetDefaultFont(s_aDefaultParent[ID]);
  }
  switch (ID) {
    case FONT_APP:
      return _ApplicationFont();
    case FONT_APP_MONO:
      return _MonospacedFrom(_ApplicationFont());
    default:
      return QFont();
  }
}

QFont GetFont(int ID) {
  if (!_IsValidId(ID)) {
    return QFont();
  }
  auto it = s_Current.constFind(ID);
  if (it != s_Current.constEnd()) {
    return *it;
  }
  // A derived default follows what its parent is now, so a changed application font carries over.
  QFont Font;
  if (s_aDefaultParent[ID] >= 0) {
    Font = GetFont(s_aDefaultParent[ID]);
  } else if (ID == FONT_APP_MONO) {
    Font = _MonospacedFrom(GetFont(FONT_APP));
  } else {
    Font = GetDefaultFont(ID);
  }
  s_Current.insert(ID, Font);
  return Font;
}

int SetFont(int ID, const QFont& Font, bool Store) {
  if (!_IsValidId(ID)) {
    return -1;
  }
  if (Store) {
    s_Stored.insert(ID, Font);
  }
  if (_SameFont(GetFont(ID), Font)) {
    return 0;
  }
  s_Current.insert(ID, Font);
  s_Metrics.remove(ID);
  return 0;
}

void ResetFonts() {
  s_Current.clear();
  s_Stored.clear();
  s_Metrics.clear();
}

QString FontToText(const QFont& Font) {
  QString sStyle = Font.styleName();
  if (sStyle.isEmpty()) {
    const bool Bold = QtWeightToTable(Font.weight()) >= 51;
    if (Bold) {
      sStyle = Font.italic() ? QStringLiteral("Bold Italic") : QStringLiteral("Bold");
    } else {
      sStyle = Font.italic() ? QStringLiteral("Italic") : QStringLiteral("Normal");
    }
  }
  return Font.family() + QStringLiteral(",  ") + QString::number(_PointSize(Font)) + QStringLiteral("pt,  ") +
         sStyle;
}

QString FontToText(int ID) {
  return _IsValidId(ID) ? FontToText(GetFont(ID)) : QString();
}

QFont TextToFont(const QString& sText, bool* pOk) {
  bool Dummy = false;
  bool& Ok = pOk ? *pOk : Dummy;
  Ok = false;
  const QStringList Parts = sText.split(',');
  if (Parts.size() != 3) {
    return QFont();
  }
  const QString sFamily = _Unquote(Parts[0]);
  QString sSize = _Unquote(Parts[1]);
  const QString sStyle = _Unquote(Parts[2]);
  sSize.remove(QLatin1String("pt"), Qt::CaseInsensitive);
  sSize = sSize.trimmed();
  if (sFamily.isEmpty() || sSize.isEmpty() || sSize.size() > 2) {
    return QFont();
  }
  for (QChar c : sSize) {
    if (c < '0' || c > '9') {
      return QFont();
    }
  }
  const int Points = sSize.toInt();
  if (Points < 1 || Points > 59) {
    return QFont();
  }
  int Weight = 50;
  if (sStyle.contains(QLatin1String("Bold"), Qt::CaseInsensitive) ||
      sStyle.contains(QLatin1String("Black"), Qt::CaseInsensitive) ||
      sStyle.contains(QLatin1String("Dark"), Qt::CaseInsensitive)) {
    Weight = 75;
  } else if (sStyle.contains(QLatin1String("Medium"), Qt::CaseInsensitive)) {
    Weight = 63;
  } else if (sStyle.contains(QLatin1String("Light"), Qt::CaseInsensitive)) {
    Weight = 25;
  }
  QFont Font(sFamily, Points, TableWeightToQt(Weight));
  Font.setItalic(sStyle.contains(QLatin1String("Italic"), Qt::CaseInsensitive) ||
                 sStyle.contains(QLatin1String("Oblique"), Qt::CaseInsensitive));
  Font.setStyleName(sStyle);
  Ok = true;
  return Font;
}

int GetFontHeight(int ID) {
  if (!_IsValidId(ID)) {
    return 0;
  }
  auto it = s_Metrics.find(ID);
  if (it == s_Metrics.end()) {
    it = s_Metrics.insert(ID, QFontMetrics(GetFont(ID)));
  }
  return qMax(it->height(), it->lineSpacing());
}

int GetTextWidth(int ID, const QString& sText) {
  if (!_IsValidId(ID)) {
    return 0;
  }
  auto it = s_Metrics.find(ID);
  if (it == s_Metrics.end()) {
    it = s_Metrics.insert(ID, QFontMetrics(GetFont(ID)));
  }
  return it->horizontalAdvance(sText);
}

void SaveFonts() {
  for (const SYS_FONT& Row : g_aFonts) {
    const int ID = int(Row.ID);
    auto it = s_Stored.constFind(ID);
    if (it != s_Stored.constEnd() && !_SameFont(*it, GetDefaultFont(ID))) {
      StoreValue(s_FontPath, QLatin1String(Row.sName), FontToText(*it));
    } else {
      StoreRemove(s_FontPath, QLatin1String(Row.sName));
    }
  }
}

void LoadFonts() {
  for (const SYS_FONT& Row : g_aFonts) {
    const int ID = int(Row.ID);
    // The table value font and the console font always start from their defaults.
    if (ID == FONT_ITEM_VALUE || ID == FONT_CONSOLE || !StoreContains(s_FontPath, QLatin1String(Row.sName))) {
      continue;
    }
    bool Ok = false;
    const QFont Font = TextToFont(LoadValue(s_FontPath, QLatin1String(Row.sName)).toString(), &Ok);
    if (Ok) {
      SetFont(ID, Font, true);
    }
  }
}
