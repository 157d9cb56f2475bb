// Process-wide start-up facts.
#include "app/base/AppMode.h"

#include <QCoreApplication>
#include <QThread>
#include <atomic>

namespace {
std::atomic<bool> _BatchMode{false};
std::atomic<QThread*> _pMainThread{nullptr};
}  // namespace

void SetBatchMode(bool On) {
  _BatchMode = On;
}

bool IsBatchMode() {
  return _BatchMode;
}

void RememberMainThread() {
  _pMainThread = QThread::currentThread();
}

bool IsMainThread() {
  QThread* p = _pMainThread.load();
  if (p == nullptr && QCoreApplication::instance()) {
    p = QCoreApplication::instance()->thread();
  }
  return p != nullptr && QThread::currentThread() == p;
}
