// The console message ring. Writers claim a slot under a small lock (several threads print); the reader
// is the main thread alone and takes a slot only after its Used flag was set, which is set last.
#include "app/base/ConsoleCore.h"

#include <QMutex>
#include <atomic>
#include <cstring>

namespace {

CONSOLE_MSG _aRing[kConsoleRingSize];
std::atomic<U8> _aUsed[kConsoleRingSize];
int _WriteIdx = 0;
int _ReadIdx = 0;
QMutex _WriteMutex;
QMutex _MirrorMutex;
std::function<void(const QString&)> _Mirror;

int _Print(const QString& sText, U32 Color, int ColorID, bool Mono) {
  if (sText.isEmpty()) {
    return -1;
  }
  {
    QMutexLocker Lock(&_MirrorMutex);
    if (_Mirror) {
      _Mirror(sText);
    }
  }
  CONSOLE_MSG Image;
  memset(&Image, 0, sizeof(Image));
  Image.NewLine = 1;
  Image.Mono = Mono ? 1 : 0;
  QByteArray Utf8 = sText.left(kConsoleMaxText).toUtf8();
  size_t n = std::min<size_t>(Utf8.size(), kConsoleMaxText);
  memcpy(Image.acText, Utf8.constData(), n);
  Image.acText[n] = 0;
  Image.Color = Color;
  Image.ColorID = ColorID;
  Image.Used = 1;
  QMutexLocker Lock(&_WriteMutex);
  int Idx = _WriteIdx;
  if (_aUsed[Idx].load(std::memory_order_acquire)) {
    return -1;  // full: drop the newest message
  }
  _WriteIdx = (_WriteIdx + 1) % kConsoleRingSize;
  _aRing[Idx] = Image;
  _aUsed[Idx].store(1, std::memory_order_release);
  return 0;
}

}  // namespace

int ConsolePrint(const QString& sText, const QColor& Color, bool Mono) {
  return _Print(sText, Color.rgba(), -1, Mono);
}

int ConsolePrintColorID(const QString& sText, int ColorID, bool Mono) {
  return _Print(sText, 0, ColorID, Mono);
}

bool ConsoleTakeMessage(CONSOLE_MSG* pMsg) {
  int Idx = _ReadIdx;
  if (!_aUsed[Idx].load(std::memory_order_acquire)) {
    return false;
  }
  *pMsg = _aRing[Idx];
  memset(&_aRing[Idx], 0, sizeof(CONSOLE_MSG));
  _aUsed[Idx].store(0, std::memory_order_release);
  _ReadIdx = (Idx + 1) % kConsoleRingSize;
  return true;
}

void ConsoleClearRing() {
  QMutexLocker Lock(&_WriteMutex);
  for (int i = 0; i < kConsoleRingSize; ++i) {
    memset(&_aRing[i], 0, sizeof(CONSOLE_MSG));
    _aUsed[i].store(0);
  }
  _WriteIdx = 0;
  _ReadIdx = 0;
}

void ConsoleSetMirror(std::function<void(const QString&)> Mirror) {
  QMutexLocker Lock(&_MirrorMutex);
  _Mirror = std::move(Mirror);
}
