// The settings tables: system variables and preferences (VAR_*, PREF_*), colours (COLOR_*), fonts
// (FONT_*) and the symbolic constants, with their text forms. All of it runs on the main thread, except
// plain reads of the int cells (device thread) and of colour values (windows).
#pragma once

#include <QColor>
#include <QFont>
#include <QString>
#include <QStringList>

#include "app/base/Types.h"

// ---------------------------------------------------------------------------------------------------
// Variables: 21 system variables of the project, then 26 preferences of the user. The index is the row.

enum SYS_VAR_INDEX : int {
  VAR_RESET_MODE = 0,
  VAR_CONNECT_MODE,
  VAR_SEMIHOSTING_ENABLED,
  VAR_MCT_ENABLED,
  VAR_TIF_SPEED,
  VAR_TIF_SCAN_CHAIN_POS,
  VAR_TIF_SCAN_CHAIN_LEN,
  VAR_SWO_CPU_SPEED,
  VAR_SWO_SPEED,
  VAR_ACCESS_WIDTH,
  VAR_BREAKPOINT_TYPE,
  VAR_VERIFY_DOWNLOAD,
  VAR_BREAK_AT_THIS_SYMBOL,
  VAR_HSS_SPEED,
  VAR_TRACE_SOURCE,
  VAR_TRACE_PORT_WIDTH,
  VAR_TRACE_PORT_DELAY_0,
  VAR_TRACE_PORT_DELAY_1,
  VAR_TRACE_PORT_DELAY_2,
  VAR_TRACE_PORT_DELAY_3,
  VAR_TRACE_INIT_ON_ATTACH,
  PREF_SHOW_LINE_NUMBERS,  // 21
  PREF_SHOW_EXPANSION_BAR,
  PREF_SHOW_SIDEBAR_SRC,
  PREF_SHOW_SIDEBAR_ASM,
  PREF_SHOW_SRC_CODE_PROFILE,
  PREF_SHOW_ASM_CODE_PROFILE,
  PREF_SHOW_SYMBOL_ICONS,
  PREF_INDENT_INLINE_ASSEMBLY,
  PREF_LINE_NUMBER_FREQ,
  PREF_LOCK_HEADER_BAR,
  PREF_ASM_SHOW_SOURCE,
  PREF_ASM_SHOW_LABELS,
  PREF_TAB_SPACING,
  PREF_TERMINAL_NO_CONTROL_CHARS,
  PREF_START_WITH_MOST_RECENT_PROJ,
  PREF_PREPEND_FUNC_CLASS_NAMES,
  PREF_SHOW_PROGBAR_WHILE_RUNNING,
  PREF_SHOW_CHAR_TEXT,
  PREF_SHOW_SHORT_TEXT,
  PREF_SHOW_INT_TEXT,
  PREF_SHOW_CHAR_PTR_TEXT,
  PREF_SHOW_SHORT_PTR_TEXT,
  PREF_SHOW_INT_PTR_TEXT,
  PREF_DIALOG_SHOW_DNSA,
  PREF_SHOW_HEX_BLOCKS,
  PREF_SHOW_TOOLTIPS,  // 46
};
constexpr int kNumSysVars = 47;
constexpr int kFirstPreference = PREF_SHOW_LINE_NUMBERS;
constexpr int kLastPreference = PREF_SHOW_TOOLTIPS;
constexpr int kSysVarTextSize = 100;  // cell size of the one text row, VAR_BREAK_AT_THIS_SYMBOL
constexpr int kSysVarMaxLabel = 63;   // a selection label is cut to this many characters

struct SYS_VAR;

// How a row's value reads and writes as text. ToText renders Value into acText (the text type ignores
// Value and renders its cell) and returns 0, or -1 with an explanatory text in acText. FromText parses,
// checks and writes pValue (and pStored with Store); on failure nothing is written, it returns -1 and
// SysVarError() names the bad input.
struct SYS_VAR_TYPE {
  int (*ToText)(const SYS_VAR* pVar, I32 Value, char* acText, int Size);
  int (*FromText)(SYS_VAR* pVar, bool Store, const char* sText);
  const char* (*TypeName)();
};

extern const SYS_VAR_TYPE g_SysVarTypeSelection;  // "string selection"
extern const SYS_VAR_TYPE g_SysVarTypeUnsigned;   // "unsigned int"
extern const SYS_VAR_TYPE g_SysVarTypeSigned;     // "signed int"
extern const SYS_VAR_TYPE g_SysVarTypeFrequency;  // "unsigned int", shown and read as a frequency
extern const SYS_VAR_TYPE g_SysVarTypeText;       // "string"

// A row of the variable table. The cells are int for every row except the text row, whose three
// pointers point at char[kSysVarTextSize]. pDefault is never written. pStored is the value that
// persists, apart from pValue so that a script can change a setting for one session only.
struct SYS_VAR {
  const char* sName;
  const char* sDescription;
  const SYS_VAR_TYPE* pType;
  void* pValue;
  const void* pDefault;
  void* pStored;
  const char* sLabel;
  const char* sValues;  // "label=value,..." for a selection, "SysVarMin=<n>,SysVarMax=<n>" for a range
};

extern SYS_VAR g_aSysVars[kNumSysVars];

// At start-up: points VAR_TIF_SPEED, VAR_TIF_SCAN_CHAIN_POS and VAR_TIF_SCAN_CHAIN_LEN at the device's
// configuration fields (null keeps a cell of the table's own), copies every default into pValue and
// pStored, and empties the set of explicitly set rows.
void InitVars(int* pDeviceSpeed = nullptr, int* pDeviceDRPre = nullptr, int* pDeviceIRPre = nullptr);

// A number 0..46 in any base-0 form gives that row; else the name, ignoring case; else null.
SYS_VAR* FindVar(const QString& sNameOrIndex);
SYS_VAR* GetVar(int Index);  // null outside 0..46
int GetVarIndex(const SYS_VAR* pVar);

// The int value of a row's current / stored cell; 0 for the text row.
I32 GetVarValue(const SYS_VAR* pVar);
I32 GetVarStoredValue(const SYS_VAR* pVar);
QString GetVarString(const SYS_VAR* pVar);  // the text row's current text; empty for other rows

// Writes pValue (and pStored with Store) and marks the row as set. Returns -1, writing nothing, for a
// text row (use SetVarFromText) or a null row.
int SetVar(SYS_VAR* pVar, I32 Value, bool Store);
// Marks the row as set and runs the type's FromText. 0 or -1.
int SetVarFromText(SYS_VAR* pVar, const QString& sText, bool Store);
bool IsVarSet(const SYS_VAR* pVar);

// The type's ToText for the current value, or for Value if it isn't all ones (-1); if ToText fails,
// the frequency text of the value.
QString GetVarText(const SYS_VAR* pVar, I32 Value = -1);
// The two limits of a range row joined by " - "; empty for other rows.
QString GetVarRangeText(const SYS_VAR* pVar);
QStringList GetVarLabels(const SYS_VAR* pVar);
QList<I32> GetVarValues(const SYS_VAR* pVar);
bool IsSelectionVar(const SYS_VAR* pVar);
bool IsBooleanVar(const SYS_VAR* pVar);
bool IsTextVar(const SYS_VAR* pVar);

// The general text-to-number rule for a row: a label, a constant or a number among a selection's values;
// a number or frequency text, not negative, for other rows; never for the text row.
I32 ConvertVarValue(const SYS_VAR* pVar, const QString& sText, bool* pOk);

// The last conversion error of the variable functions, naming the bad input.
QString SysVarError();

// The preferences (rows 21..46) through the persistent store.
void LoadPreferences();
void SavePreferences();

// ---------------------------------------------------------------------------------------------------
// Number and frequency texts.

// Base-0 conversion as the C library does it: "0x"/"0X" hexadecimal, a leading "0" octal, else decimal;
// an optional leading minus sign; blanks around the number are allowed, nothing else. False when the
// text isn't a number or the value doesn't fit 64 bits.
bool TextToInt64(const QString& sText, I64* pValue);
// The same, limited to 0..0xFFFFFFFF and without a sign.
bool TextToU32(const QString& sText, U32* pValue);

// "auto" for 0, "adaptive" for 65535, empty for a negative value; with units "<n> kHz" or "<n> MHz" for
// exact multiples (kHz below 1,000,000), else "<n> Hz"; without units the decimal number.
QString FrequencyToText(I32 Hz, bool WithUnits = true);
// "auto", "adaptive", a whole number (base-0) with an optional unit Hz, kHz, MHz, or a decimal fraction
// (point or comma, no exponent) with one of the units. Returns the frequency in Hz, or -1 for text that
// isn't a frequency or exceeds 32 bits.
I32 TextToFrequency(const QString& sText);

// The one reader of a number argument of a command, shared by the Console's echo and the handlers, so
// the echo never shows a value the handler reads differently: a whole number in base-0 form, or a
// frequency with its unit ("4 MHz" is 4000000). "0b101", "1e3" and "1.5" are no numbers.
bool TextToCommandNumber(const QString& sText, I64* pValue);
// The same, limited to 0..0xFFFFFFFF and without a sign.
bool TextToCommandU32(const QString& sText, U32* pValue);

constexpr I32 kFrequencyAuto = 0;
constexpr I32 kFrequencyAdaptive = 65535;

// ---------------------------------------------------------------------------------------------------
// Symbolic constants: 122 rows of value, name and display text. Where two rows share a value within a
// family, the search takes the first of them.

struct SYS_CONSTANT {
  I32 Value;
  const char* sName;
  const char* sDisplay;
};

constexpr int kNumConstants = 122;
extern const SYS_CONSTANT g_aConstants[kNumConstants];

// Surrounding double quotes removed, the text is compared with each row's display text, then each
// row's name, ignoring case, in table order; lastly the alias RM_BREAK_AT_MAIN. Null if none.
const SYS_CONSTANT* FindConstant(const QString& sText);
// Like FindConstant, but the first matching row whose value is among Values: "DISABLED" names both a
// breakpoint state (3) and the false constant (0), and a yes/no setting wants the latter.
const SYS_CONSTANT* FindConstantAmong(const QString& sText, const QList<I32>& Values);
// The value of that row, otherwise the base-0 conversion of the text, otherwise -1.
I32 ConstantValue(const QString& sText);
// The display text of the row the text finds; empty if none.
QString ConstantDisplayText(const QString& sText);

// Exception number to ISR_* name: 0-6, 11, 12, 14, 15 as in the table, other numbers below 16
// "ISR_THREAD", 16 and above "ISR_EXTERNAL_IRQ".
const char* ExceptionName(U32 Number);
// Core family number to DF_* name; 2 is "DF_CORTEX_CF", unknown numbers "DF_UNKNOWN".
const char* CoreFamilyName(U32 Number);
// Text of a comparator unit error code (bit 31 set); empty when bit 31 is clear.
QString ComparatorErrorText(U32 Code);

// ---------------------------------------------------------------------------------------------------
// Colours: built-in, current and stored arrays of 45 rows.

enum SYS_COLOR_ID : int {
  COLOR_HIGHLIGHT_DARK = 0,
  COLOR_HIGHLIGHT_LIGHT,
  COLOR_CHANGE_LEVEL_1_BG,
  COLOR_CHANGE_LEVEL_2_BG,
  COLOR_CHANGE_LEVEL_3_BG,
  COLOR_CHANGE_LEVEL_1_FG,
  COLOR_CHANGE_LEVEL_2_FG,
  COLOR_CHANGE_LEVEL_3_FG,
  COLOR_PC_ACTIVE,
  COLOR_PC_INACTIVE,
  COLOR_PC_BACKTRACE,
  COLOR_CALL_SITE_ACTIVE,
  COLOR_CALL_SITE_INACTIVE,
  COLOR_TABLE_GRID_LINES,
  COLOR_SYNTAX_REGNAME,
  COLOR_SYNTAX_LABEL,
  COLOR_SYNTAX_MNEMONIC,
  COLOR_SYNTAX_IMMEDIATE,
  COLOR_SYNTAX_INTEGER,
  COLOR_SYNTAX_KEYWORD,
  COLOR_SYNTAX_DIRECTIVE,
  COLOR_SYNTAX_STRING,
  COLOR_SYNTAX_COMMENT,
  COLOR_SYNTAX_TEXT,
  COLOR_LINE_NUMBERS,
  COLOR_LINE_NUMBER_SEPARATOR,
  COLOR_LOGGING_SCRIPT,
  COLOR_LOGGING_USER,
  COLOR_LOGGING_ERROR,
  COLOR_LOGGING_TARVIK,
  COLOR_PROGRESS_BAR_PROGRESS,
  COLOR_PROGRESS_BAR_REMAINING,
  COLOR_SYMBOL_GLOBAL_VAR,
  COLOR_SYMBOL_LOCAL_VAR,
  COLOR_SYMBOL_CONSTANT,
  COLOR_SYMBOL_MEMBER,
  COLOR_SYMBOL_FUNCTION,
  COLOR_ASM_LABEL_BACKG,
  COLOR_CALL_GRAPH_NODE_ACTIVE,
  COLOR_CALL_GRAPH_NODE_INACTIVE,
  COLOR_TABLE_ITEM_INACTIVE,
  COLOR_EXEC_PROFILE_GOOD_INSTR,
  COLOR_EXEC_PROFILE_BAD_INSTR,
  COLOR_INLINE_ASM_BACKG,
  COLOR_INLINE_ASM_BACKG_ALTERNATE,
};
constexpr int kNumColors = 45;

// Values standing for a colour role of the application palette, resolved at each read.
constexpr U32 kColorPaletteBase = 0xFF000001;
constexpr U32 kColorPaletteWindow = 0xFF000002;

struct SYS_COLOR {
  U32 ID;
  U32 Value;  // ARGB, or one of the palette values
  const char* sName;
  const char* sDisplay;
  const char* sDescription;
};

extern const SYS_COLOR g_aBuiltinColors[kNumColors];

const SYS_COLOR* GetColorRow(int ID);  // the built-in row; null outside 0..44
// The current colour with the palette values resolved; an invalid QColor outside 0..44.
QColor GetColor(int ID);
QColor GetStoredColor(int ID);
// By name or display text, ignoring case; -1 if none.
int FindColor(const QString& sText);
// Writes the current array, and the stored array with Store. 0, or -1 for a bad ID or invalid colour.
int SetColor(int ID, const QColor& Color, bool Store);
bool IsColorChanged(int ID);  // the current colour differs from the built-in one
void ResetColor(int ID);      // current and stored back to built-in
// Levels 1..3: fill IDs 2..4, text IDs 5..7; other levels a transparent fill and the palette's text.
QColor GetChangeLevelColor(int Level, bool Foreground);
QColor GetPCColor(bool Active);
QColor GetCallSiteColor(bool Active);

// ---------------------------------------------------------------------------------------------------
// Fonts: 11 rows; current and stored fonts in maps from ID to QFont, built from the defaults on first use.

enum SYS_FONT_ID : int {
  FONT_APP = 0,
  FONT_APP_MONO,
  FONT_ITEM_NAME,
  FONT_ITEM_VALUE,
  FONT_TABLE_HEADER,
  FONT_SRC_CODE,
  FONT_SRC_ASM_CODE,
  FONT_ASM_CODE,
  FONT_CONSOLE,
  FONT_LINE_NUMBERS,
  FONT_EXEC_COUNTERS,
};
constexpr int kNumFonts = 11;

struct SYS_FONT {
  U32 ID;
  const char* sName;
  const char* sDisplay;
  const char* sDescription;
};

extern const SYS_FONT g_aFonts[kNumFonts];

// The font tables weigh fonts on the 0..99 scale (Light 25, Normal 50, Medium 63, Bold 75, Black 87);
// Qt 6 uses 100..900. These two are the one place where the scales meet.
int TableWeightToQt(int TableWeight);
int QtWeightToTable(int QtWeight);

const SYS_FONT* GetFontRow(int ID);  // null outside 0..10
// By name, then display text, ignoring case; -1 if none.
int FindFont(const QString& sText);
// The current font; a default QFont outside 0..10.
QFont GetFont(int ID);
// The built-in default of an ID, independent of what has been set.
QFont GetDefaultFont(int ID);
// Replaces the current font (and the stored one with Store) unless it is equal by family, size, weight,
// italic and style name. 0, or -1 for a bad ID.
int SetFont(int ID, const QFont& Font, bool Store);
// Forgets every current and stored font, so that all are rebuilt from the defaults.
void ResetFonts();

// "<family>,  <points>pt,  <style>". FontToText(ID) is that of the current font.
QString FontToText(const QFont& Font);
QString FontToText(int ID);
// Three comma-separated parts; the size 1..59 points; the weight from the style words. *pOk false and
// a default QFont for anything else.
QFont TextToFont(const QString& sText, bool* pOk);

// Text metrics of a font ID, cached until the font changes.
int GetFontHeight(int ID);
int GetTextWidth(int ID, const QString& sText);

// Colours and fonts through the persistent store, at start-up and exit. A stored colour or font text
// that doesn't parse is ignored and the default stands. LoadFonts / SaveFonts are the font halves.
void LoadColorsAndFonts();
void SaveColorsAndFonts();
void LoadFonts();
void SaveFonts();

// ---------------------------------------------------------------------------------------------------
// Texts of the standard questions; the dialogs themselves belong to the windows.

struct STANDARD_QUESTION {
  const char* sTitle;
  const char* sText;
  const char* sIcon;  // empty for none
  int DontShowAgainHours;
};
extern const STANDARD_QUESTION g_QuestionResetCodeProfile;
extern const STANDARD_QUESTION g_QuestionReloadProgramFile;
extern const STANDARD_QUESTION g_QuestionStopDebugging;
extern const STANDARD_QUESTION g_QuestionTargetConnectionLost;
extern const STANDARD_QUESTION g_QuestionSaveProjectChanges;
extern const STANDARD_QUESTION g_QuestionTraceSettingsModified;
extern const STANDARD_QUESTION g_QuestionBackgroundMemoryAccess;
extern const STANDARD_QUESTION g_QuestionClear;  // text "Clear? ", followed by the kind of item
