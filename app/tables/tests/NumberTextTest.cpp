// Number and frequency texts: what a user types into the Console or a project, and what is shown back.
#include <gtest/gtest.h>

#include "app/tables/SettingsTables.h"

TEST(NumberText, BaseZeroNumbersReadAsInC) {
  const struct {
    const char* sText;
    bool Ok;
    I64 Value;
  } aCases[] = {
      {"10", true, 10},
      {"0x1F", true, 31},
      {"0X1f", true, 31},
      {"010", true, 8},  // a leading zero means octal
      {"-5", true, -5},
      {" \t7\n", true, 7},
      {"0", true, 0},
      {"9223372036854775807", true, INT64_MAX},
      {"-9223372036854775808", true, INT64_MIN},
      {"9223372036854775808", false, 0},
      {"0x", false, 0},
      {"08", false, 0},
      {"1a", false, 0},
      {"12 34", false, 0},
      {"", false, 0},
      {"-", false, 0},
  };
  for (const auto& c : aCases) {
    I64 Value = 0;
    EXPECT_EQ(TextToInt64(QString::fromLatin1(c.sText), &Value), c.Ok) << c.sText;
    if (c.Ok) {
      EXPECT_EQ(Value, c.Value) << c.sText;
    }
  }
}

TEST(NumberText, UnsignedThirtyTwoBitNumbersRefuseSignsAndOverflow) {
  const struct {
    const char* sText;
    bool Ok;
    U32 Value;
  } aCases[] = {
      {"0xFFFFFFFF", true, 0xFFFFFFFFu},
      {"4294967295", true, 0xFFFFFFFFu},
      {"0x100000000", false, 0},
      {"-1", false, 0},
      {"+1", false, 0},
      {"0x20000000", true, 0x20000000u},
  };
  for (const auto& c : aCases) {
    U32 Value = 0;
    EXPECT_EQ(TextToU32(QString::fromLatin1(c.sText), &Value), c.Ok) << c.sText;
    if (c.Ok) {
      EXPECT_EQ(Value, c.Value) << c.sText;
    }
  }
}

TEST(FrequencyText, NumbersToText) {
  const struct {
    I32 Hz;
    const char* sWithUnits;
  } aCases[] = {
      {0, "auto"},
      {65535, "adaptive"},
      {-1, ""},
      {1, "1 Hz"},
      {999, "999 Hz"},
      {1000, "1 kHz"},
      {1500, "1500 Hz"},
      {999000, "999 kHz"},
      {999999, "999999 Hz"},
      {1000000, "1 MHz"},
      {1500000, "1500000 Hz"},
      {12000000, "12 MHz"},
      {2000000000, "2000 MHz"},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(FrequencyToText(c.Hz), QLatin1String(c.sWithUnits)) << c.Hz;
  }
  EXPECT_EQ(FrequencyToText(4000000, false), QStringLiteral("4000000"));
  EXPECT_EQ(FrequencyToText(0, false), QStringLiteral("auto"));
}

TEST(FrequencyText, TextToNumbers) {
  const struct {
    const char* sText;
    I32 Hz;
  } aCases[] = {
      {"auto", 0},
      {"AUTO", 0},
      {"Adaptive", 65535},
      {"1.5 MHz", 1500000},
      {"1,5 MHz", 1500000},
      {"4 MHz", 4000000},
      {"4MHz", 4000000},
      {"  8   mhz ", 8000000},
      {"\"2 MHz\"", 2000000},
      {"100 kHz", 100000},
      {"0x10 kHz", 16000},
      {"12", 12},
      {"1 Hz", 1},
      {"2147 MHz", 2147000000},
      {"2148 MHz", -1},  // beyond 32 bits
      {"5000000000", -1},
      {"-5", -1},
      {"-1.5 kHz", -1},
      {"MHz", -1},
      {"", -1},
      {"fast", -1},
      {"3 GHz", -1},
      {"1e3", -1},  // no exponents
      {"1e3 kHz", -1},
      {"1.5", -1},  // a fraction needs its unit
      {"2.5 kHz", 2500},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(TextToFrequency(QString::fromLatin1(c.sText)), c.Hz) << c.sText;
  }
}

TEST(FrequencyText, EveryUnitTextReadsBackToItsNumber) {
  for (I32 Hz : {1, 50, 1000, 20000, 500000, 1000000, 50000000, 65535, 0, 123456789}) {
    EXPECT_EQ(TextToFrequency(FrequencyToText(Hz)), Hz) << Hz;
  }
}

TEST(CommandNumber, WholeNumbersAndFrequenciesWithUnitsAreNumbersNothingElse) {
  const struct {
    const char* sText;
    bool IsNumber;
    I64 Value;
  } aCases[] = {
      {"1000", true, 1000},     {"0x3E8", true, 1000},   {"01750", true, 1000}, {"-4", true, -4},
      {"4 MHz", true, 4000000}, {"1.5 kHz", true, 1500}, {"1e3", false, 0},     {"0b101", false, 0},
      {"1.5", false, 0},        {"auto", false, 0},      {"", false, 0},        {"12abc", false, 0},
  };
  for (const auto& c : aCases) {
    I64 Value = 0;
    EXPECT_EQ(TextToCommandNumber(QString::fromLatin1(c.sText), &Value), c.IsNumber) << c.sText;
    if (c.IsNumber) {
      EXPECT_EQ(Value, c.Value) << c.sText;
    }
  }
  U32 u = 0;
  EXPECT_FALSE(TextToCommandU32("-4", &u));
  EXPECT_FALSE(TextToCommandU32("0x100000000", &u));
  EXPECT_TRUE(TextToCommandU32("0xFFFFFFFF", &u));
  EXPECT_EQ(u, 0xFFFFFFFFu);
}
