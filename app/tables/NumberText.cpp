// Number and frequency texts shared by the variable table, the constants and the command layer.
#include <QRegularExpression>
#include <QtGlobal>
#include <cmath>
#include <limits>

#include "app/tables/SettingsTables.h"

namespace {

int _DigitValue(QChar c) {
  const char16_t u = c.unicode();
  if (u >= '0' && u <= '9') {
    return u - '0';
  }
  if (u >= 'a' && u <= 'f') {
    return u - 'a' + 10;
  }
  if (u >= 'A' && u <= 'F') {
    return u - 'A' + 10;
  }
  return 99;
}

}  // namespace

bool TextToInt64(const QString& sText, I64* pValue) {
  const QString s = sText.trimmed();
  qsizetype i = 0;
  bool Negative = false;
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) {
    Negative = s[i] == '-';
    ++i;
  }
  int Base = 10;
  if (i + 1 < s.size() && s[i] == '0' && (s[i + 1] == 'x' || s[i + 1] == 'X')) {
    Base = 16;
    i += 2;
  } else if (i + 1 < s.size() && s[i] == '0') {
    Base = 8;
    ++i;
  }
  if (i >= s.size()) {
    return false;
  }
  // The magnitude is collected unsigned so that -0x8000000000000000 still fits.
  const U64 Limit = Negative ? U64(1) << 63 : U64(std::numeric_limits<I64>::max());
  U64 Magnitude = 0;
  for (; i < s.size(); ++i) {
    const int Digit = _DigitValue(s[i]);
    if (Digit >= Base) {
      return false;
    }
    if (Magnitude > (Limit - U64(Digit)) / U64(Base)) {
      return false;
    }
    Magnitude = Magnitude * U64(Base) + U64(Digit);
  }
  if (pValue) {
    *pValue = Negative ? I64(0 - Magnitude) : I64(Magnitude);
  }
  return true;
}

bool TextToU32(const QString& sText, U32* pValue) {
  const QString s = sText.trimmed();
  if (s.startsWith('-') || s.startsWith('+')) {
    return false;
  }
  I64 Value = 0;
  if (!TextToInt64(s, &Value) || Value < 0 || Value > I64(0xFFFFFFFFu)) {
    return false;
  }
  if (pValue) {
    *pValue = U32(Value);
  }
  return true;
}

QString FrequencyToText(I32 Hz, bool WithUnits) {
  if (Hz < 0) {
    return QString();
  }
  if (Hz == kFrequencyAuto) {
    return QStringLiteral("auto");
  }
  if (Hz == kFrequencyAdaptive) {
    return QStringLiteral("adaptive");
  }
  if (!WithUnits) {
    return QString::number(Hz);
  }
  if (Hz >= 1000 && Hz <= 999999 && Hz % 1000 == 0) {
    return QString::number(Hz / 1000) + QStringLiteral(" kHz");
  }
  if (Hz >= 1000000 && Hz % 1000000 == 0) {
    return QString::number(Hz / 1000000) + QStringLiteral(" MHz");
  }
  return QString::number(Hz) + QStringLiteral(" Hz");
}

I32 TextToFrequency(const QString& sText) {
  QString s = sText.simplified();
  if (s.size() >= 2 && s.startsWith('"') && s.endsWith('"')) {
    s = s.mid(1, s.size() - 2).simplified();
  }
  if (s.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0) {
    return kFrequencyAuto;
  }
  if (s.compare(QLatin1String("adaptive"), Qt::CaseInsensitive) == 0) {
    return kFrequencyAdaptive;
  }
  const QString sLower = s.toLower();
  I64 Multiplier = 1;
  if (sLower.contains(QLatin1String("khz"))) {
    Multiplier = 1000;
  } else if (sLower.contains(QLatin1String("mhz"))) {
    Multiplier = 1000000;
  }
  s.remove(QLatin1String("kHz"), Qt::CaseInsensitive);
  s.remove(QLatin1String("MHz"), Qt::CaseInsensitive);
  s.remove(QLatin1String("Hz"), Qt::CaseInsensitive);
  s = s.trimmed();
  if (s.isEmpty()) {
    return -1;
  }
  constexpr I64 kMax = std::numeric_limits<I32>::max();
  U32 Whole = 0;
  if (TextToU32(s, &Whole)) {
    const I64 Hz = I64(Whole) * Multiplier;
    return Hz <= kMax ? I32(Hz) : -1;
  }
  // A fraction needs its unit ("1.5 MHz"); a bare "1.5" or an exponent form is no frequency.
  if (!sLower.contains(QLatin1String("hz"))) {
    return -1;
  }
  s.replace(',', '.');
  static const QRegularExpression Decimal(QStringLiteral("^[0-9]+(\\.[0-9]+)?$"));
  bool Ok = Decimal.match(s).hasMatch();
  const double Number = Ok ? s.toDouble(&Ok) : 0.0;
  if (!Ok || !std::isfinite(Number) || Number < 0) {
    return -1;
  }
  const double Hz = std::trunc(Number * double(Multiplier));
  return Hz <= double(kMax) ? I32(Hz) : -1;
}

bool TextToCommandNumber(const QString& sText, I64* pValue) {
  if (TextToInt64(sText, pValue)) {
    return true;
  }
  if (!sText.contains(QLatin1String("hz"), Qt::CaseInsensitive)) {
    return false;
  }
  const I32 Hz = TextToFrequency(sText);
  if (Hz < 0) {
    return false;
  }
  if (pValue) {
    *pValue = Hz;
  }
  return true;
}

bool TextToCommandU32(const QString& sText, U32* pValue) {
  const QString s = sText.trimmed();
  I64 Value = 0;
  if (s.startsWith('-') || s.startsWith('+') || !TextToCommandNumber(s, &Value) || Value < 0 ||
      Value > I64(0xFFFFFFFFu)) {
    return false;
  }
  if (pValue) {
    *pValue = U32(Value);
  }
  return true;
}
