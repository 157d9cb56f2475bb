// The message ring between code that prints to the Console (any thread) and the main thread that shows
// it. The ring never waits and never overwrites: when it is full the newest message is dropped.
#pragma once

#include <QColor>
#include <QString>
#include <functional>

#include "app/base/Types.h"

struct CONSOLE_MSG {
  U8 Used;     // 1: the slot holds a message
  U8 NewLine;  // 1: starts a new paragraph; 0: continues the last line
  U8 Mono;     // 1: monospaced variant of the console font
  char acText[1001];
  U32 Color;    // ARGB, used when ColorID is -1
  I32 ColorID;  // an ID of the colour table, resolved at display time; -1 for Color
};

constexpr int kConsoleRingSize = 1000;
constexpr int kConsoleMaxText = 1000;

// Default console colours, as ARGB, used until the colour table resolves them.
constexpr U32 kConsoleColorError = 0xFFB22222;
constexpr U32 kConsoleColorProbe = 0xFF00008B;
constexpr U32 kConsoleColorUser = 0xFF000000;

// Prints one message at the end of the output. A transparent colour stands for the view's text colour.
// Returns 0, or -1 when the text was empty or the ring was full.
int ConsolePrint(const QString& sText, const QColor& Color = Qt::transparent, bool Mono = false);
int ConsolePrintColorID(const QString& sText, int ColorID, bool Mono = false);
// Takes the oldest message off the ring (main thread only). False when the ring is empty.
bool ConsoleTakeMessage(CONSOLE_MSG* pMsg);
// Empties the ring and resets both indices.
void ConsoleClearRing();

// A mirror that sees every printed message at the moment it is printed, in order, even when the ring
// is full. Batch mode uses it to put the console on stdout. Pass an empty function to remove it.
void ConsoleSetMirror(std::function<void(const QString&)> Mirror);
