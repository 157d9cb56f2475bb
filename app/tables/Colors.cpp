// The colour table: built-in values, the current and the stored arrays, and their passage through the
// persistent store.
#include <QGuiApplication>
#include <QPalette>

#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"

// clang-format off
const SYS_COLOR g_aBuiltinColors[kNumColors] = {
    {0, 0xFF1A246A, "COLOR_HIGHLIGHT_DARK", "Selection Highlight Dark", "Dark selection highlight"},
    {1, 0xFFDDDDDD, "COLOR_HIGHLIGHT_LIGHT", "Selection Highlight Light", "Light selection highlight"},
    {2, kColorPaletteBase, "COLOR_CHANGE_LEVEL_1_BG", "Change Level 1 Fill Color", "Change Level 1 background color"},
    {3, kColorPaletteBase, "COLOR_CHANGE_LEVEL_2_BG", "Change Level 2 Fill Color", "Change Level 2 background color"},
    {4, kColorPaletteBase, "COLOR_CHANGE_LEVEL_3_BG", "Change Level 3 Fill Color", "Change Level 3 background color"},
    {5, 0xFFFF0000, "COLOR_CHANGE_LEVEL_1_FG", "Change Level 1 Text Color", "Change Level 1 foreground color"},
    {6, 0xFFAA0000, "COLOR_CHANGE_LEVEL_2_FG", "Change Level 2 Text Color", "Change Level 2 foreground color"},
    {7, 0xFF770000, "COLOR_CHANGE_LEVEL_3_FG", "Change Level 3 Text Color", "Change Level 3 foreground color"},
    {8, 0xFF77FF6D, "COLOR_PC_ACTIVE", "PC Row Active", "Program counter highlight"},
    {9, 0xFFE3FFC1, "COLOR_PC_INACTIVE", "PC Row Inactive", "Program counter highlight inactive window"},
    {10, 0xFFFFFF00, "COLOR_PC_BACKTRACE", "PC Backtrace Highlight", "PC backtrace highlight"},
    {11, 0xFFFFFCD6, "COLOR_CALL_SITE_ACTIVE", "Callsite Row Active", "Callsite highlight"},
    {12, 0xFFFFFCD6, "COLOR_CALL_SITE_INACTIVE", "Callsite Row Inactive", "Callsite highlight, inactive window"},
    {13, 0xFFD0D0D0, "COLOR_TABLE_GRID_LINES", "Table Grid Lines", "Table grid line color"},
    {14, 0xFF00008B, "COLOR_SYNTAX_REGNAME", "Syntax Regname", "Syntax color of register names in the disassembly window"},
    {15, 0xFF00008B, "COLOR_SYNTAX_LABEL", "Syntax Label", "Syntax color of labels in the disassembly window"},
    {16, 0xFF8B008B, "COLOR_SYNTAX_MNEMONIC", "Syntax Mnemonic", "Syntax color of mnemonics in the disassembly window"},
    {17, 0xFF8B0000, "COLOR_SYNTAX_IMMEDIATE", "Syntax Immediate", "Syntax color of immediate values in the disassembly window"},
    {18, 0xFF8B0000, "COLOR_SYNTAX_INTEGER", "Syntax Integer", "Syntax color of integer values in the disassembly window"},
    {19, 0xFF0000FA, "COLOR_SYNTAX_KEYWORD", "Syntax Keyword", "Syntax color of C keywords"},
    {20, 0xFF0000FA, "COLOR_SYNTAX_DIRECTIVE", "Syntax Directive", "Syntax color of C directives"},
    {21, 0xFFB22222, "COLOR_SYNTAX_STRING", "Syntax String", "Syntax color of source code strings"},
    {22, 0xFF008000, "COLOR_SYNTAX_COMMENT", "Syntax Comment", "Syntax color of C comments"},
    {23, 0xFF000000, "COLOR_SYNTAX_TEXT", "Syntax Text", "Source code text color"},
    {24, 0xFF6E6E6E, "COLOR_LINE_NUMBERS", "Line Number Text", "Color of line numbers"},
    {25, 0xFFE6E6E6, "COLOR_LINE_NUMBER_SEPARATOR", "Line Number Separator", "Color of the line number separator bar"},
    {26, 0xFF009900, "COLOR_LOGGING_SCRIPT", "Console Text (Script)", "Color used for script event logging"},
    {27, 0xFF000000, "COLOR_LOGGING_USER", "Console Text (User)", "Color used for user event logging"},
    {28, 0xFFB22222, "COLOR_LOGGING_ERROR", "Console Text (Error)", "Color used for error logging"},
    {29, 0xFF00008B, "COLOR_LOGGING_TARVIK", "Console Text (Tarvik)", "Color used for Tarvik logging"},
    {30, 0xFFF7FFE4, "COLOR_PROGRESS_BAR_PROGRESS", "Progress Bar Progress", "Color used for rendering the progress slice of a p-bar"},
    {31, kColorPaletteBase, "COLOR_PROGRESS_BAR_REMAINING", "Progress Bar Remaining", "Color used for rendering the remaining slice of a p-bar"},
    {32, 0xFF64005C, "COLOR_SYMBOL_GLOBAL_VAR", "Symbol Icon Global Variable", "Color used for rendering icons of global variables"},
    {33, 0xFF64005C, "COLOR_SYMBOL_LOCAL_VAR", "Symbol Icon Local Variable", "Color used for rendering icons of local variables"},
    {34, 0xFF000000, "COLOR_SYMBOL_CONSTANT", "Symbol Icon Constant", "Color used for rendering icons of constants"},
    {35, 0xFF000000, "COLOR_SYMBOL_MEMBER", "Symbol Icon Member", "Color used for rendering icons of symbol members"},
    {36, 0xFF000000, "COLOR_SYMBOL_FUNCTION", "Symbol Icon Function", "Color used for rendering icons of functions"},
    {37, 0xFFE5F1FF, "COLOR_ASM_LABEL_BACKG", "Label Background", "Color used for highlighting disassembly labels"},
    {38, 0xFFF0F8FF, "COLOR_CALL_GRAPH_NODE_ACTIVE", "Active Call Graph Node", "Color used for rendering active call graph nodes"},
    {39, 0xFFFFFFFF, "COLOR_CALL_GRAPH_NODE_INACTIVE", "Inactive Call Graph Node", "Color used for rendering inactive call graph nodes"},
    {40, 0xFF777777, "COLOR_TABLE_ITEM_INACTIVE", "Inactive table Item", "Text color of inactive table items"},
    {41, 0xFFE3FFC1, "COLOR_EXEC_PROFILE_GOOD_INSTR", "Execution Profile - good instruction", "Execution Profile - good instruction"},
    {42, 0xFFFFD700, "COLOR_EXEC_PROFILE_BAD_INSTR", "Execution Profile - bad instruction", "Execution Profile - bad instruction"},
    {43, 0xFFF0F0F0, "COLOR_INLINE_ASM_BACKG", "Inline Assembly Code", "Inline Assembly Code"},
    {44, 0xFFE0E0E0, "COLOR_INLINE_ASM_BACKG_ALTERNATE", "Inline Assembly Code (alternate)", "Inline Assembly Code (alternate)"},
};
// clang-format on

namespace {

struct COLOR_ARRAYS {
  U32 aCurrent[kNumColors];
  U32 aStored[kNumColors];
  COLOR_ARRAYS() {
    for (int i = 0; i < kNumColors; ++i) {
      aCurrent[i] = aStored[i] = g_aBuiltinColors[i].Value;
    }
  }
};

COLOR_ARRAYS& _Arrays() {
  static COLOR_ARRAYS Arrays;
  return Arrays;
}

const QStringList s_ColorPath = {QStringLiteral("AppData"), QStringLiteral("Preferences"),
                                 QStringLiteral("Colors")};

bool _IsValidId(int ID) {
  return ID >= 0 && ID < kNumColors;
}

// A palette role is read at its first use and then kept. Without an application there is no palette
// yet, so nothing is kept and the plain default stands in.
QColor _PaletteColor(QPalette::ColorRole Role) {
  static QColor s_Base, s_Window, s_Text;
  QColor* pKept = Role == QPalette::Base ? &s_Base : Role == QPalette::Window ? &s_Window : &s_Text;
  if (!pKept->isValid()) {
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
      return Role == QPalette::Text ? QColor(Qt::black) : QColor(Qt::white);
    }
    *pKept = QGuiApplication::palette().color(Role);
  }
  return *pKept;
}

QColor _Resolve(U32 Value) {
  if (Value == kColorPaletteBase) {
    return _PaletteColor(QPalette::Base);
  }
  if (Value == kColorPaletteWindow) {
    return _PaletteColor(QPalette::Window);
  }
  return QColor::fromRgba(Value);
}

}  // namespace

const SYS_COLOR* GetColorRow(int ID) {
  return _IsValidId(ID) ? &g_aBuiltinColors[ID] : nullptr;
}

QColor GetColor(int ID) {
  return _IsValidId(ID) ? _Resolve(_Arrays().aCurrent[ID]) : QColor();
}

QColor GetStoredColor(int ID) {
  return _IsValidId(ID) ? _Resolve(_Arrays().aStored[ID]) : QColor();
}

int FindColor(const QString& sText) {
  const QString s = sText.trimmed();
  for (const SYS_COLOR& Row : g_aBuiltinColors) {
    if (s.compare(QLatin1String(Row.sName), Qt::CaseInsensitive) == 0 ||
        s.compare(QLatin1String(Row.sDisplay), Qt::CaseInsensitive) == 0) {
      return int(Row.ID);
    }
  }
  return -1;
}

int SetColor(int ID, const QColor& Color, bool Store) {
  if (!_IsValidId(ID) || !Color.isValid()) {
    return -1;
  }
  _Arrays().aCurrent[ID] = Color.rgba();
  if (Store) {
    _Arrays().aStored[ID] = Color.rgba();
  }
  return 0;
}

bool IsColorChanged(int ID) {
  return _IsValidId(ID) && GetColor(ID) != _Resolve(g_aBuiltinColors[ID].Value);
}

void ResetColor(int ID) {
  if (_IsValidId(ID)) {
    _Arrays().aCurrent[ID] = _Arrays().aStored[ID] = g_aBuiltinColors[ID].Value;
  }
}

QColor GetChangeLevelColor(int Level, bool Foreground) {
  if (Level >= 1 && Level <= 3) {
    return GetColor(Foreground ? COLOR_CHANGE_LEVEL_1_FG + Level - 1 : COLOR_CHANGE_LEVEL_1_BG + Level - 1);
  }
  return Foreground ? _PaletteColor(QPalette::Text) : QColor(Qt::transparent);
}

QColor GetPCColor(bool Active) {
  return GetColor(Active ? COLOR_PC_ACTIVE : COLOR_PC_INACTIVE);
}

QColor GetCallSiteColor(bool Active) {
  return GetColor(Active ? COLOR_CALL_SITE_ACTIVE : COLOR_CALL_SITE_INACTIVE);
}

// Colours live in the store as "#rrggbb" and only while they differ from the built-in one, so that a
// later change of a built-in colour reaches every user who never changed it.
void SaveColorsAndFonts() {
  for (const SYS_COLOR& Row : g_aBuiltinColors) {
    const QColor Stored = GetStoredColor(int(Row.ID));
    if (Stored != _Resolve(Row.Value)) {
      StoreValue(s_ColorPath, QLatin1String(Row.sName), Stored.name());
    } else {
      StoreRemove(s_ColorPath, QLatin1String(Row.sName));
    }
  }
  SaveFonts();
}

void LoadColorsAndFonts() {
  for (const SYS_COLOR& Row : g_aBuiltinColors) {
    const QString sKey = QLatin1String(Row.sName);
    if (!StoreContains(s_ColorPath, sKey)) {
      continue;  // the palette colours stay tied to the palette
    }
    const QColor Color = QColor::fromString(LoadValue(s_ColorPath, sKey).toString().trimmed());
    if (Color.isValid()) {
      SetColor(int(Row.ID), Color, true);
    }
  }
  LoadFonts();
}
