// The one sink of all diagnostics: three channels (debug console = stdout, log file, Console window),
// three levels, and source prefixes for the ELF layer and the probe library. Callable from any thread.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include "app/base/Types.h"

enum : U32 {
  MSG_INFO = 0x001,
  MSG_WARNING = 0x002,
  MSG_ERROR = 0x004,
  MSG_TO_STDOUT = 0x008,
  MSG_TO_LOGFILE = 0x010,
  MSG_TO_CONSOLE = 0x020,
  MSG_TO_ALL = 0x040,
  MSG_FROM_QT = 0x080,
  MSG_FROM_ELF = 0x100,
  MSG_FROM_PROBE = 0x200,
};
typedef U32 MSG_INFO_FLAGS;

// Log file options taken from the command line (the arguments behind the program name).
struct LOG_OPTIONS {
  QString sFileName;   // empty: no log file
  U32 Interval = 512;  // bytes of pending text that trigger a write, not a time
};

// "--logfile NAME" and "--loginterval N", matched lower-cased and trimmed. A keyword without a following
// argument is ignored; a non-numeric interval gives 0.
LOG_OPTIONS ParseLogOptions(const QStringList& Args);
// "--debug" or "--d", matched exactly in the raw argument vector.
bool ScanDebugSwitch(int argc, char** argv);

// The state of one log sink. The process has one (GetLogSink()); tests make their own.
class CLogSink {
 public:
  static constexpr int kWorkBufferSize = 2048;
  static constexpr qint64 kMaxFileSize = 16000000;  // beyond this the file is cut back ...
  static constexpr qint64 kKeptFileSize = 16000;    // ... to its first this many bytes

  CLogSink() = default;
  ~CLogSink();

  // Opens (read-write, truncated) the log file; an empty name or a failure leaves logging to file off.
  void OpenFile(const QString& sFileName);
  void SetInterval(U32 Interval);
  void SetDebugMode(bool On);
  bool IsDebugMode() const;
  bool HasLogFile() const;
  QString GetFileName() const;
  U32 GetInterval() const;

  // The sink. Returns 0, or -1 for a null or empty text.
  int Write(const char* sText, MSG_INFO_FLAGS Flags);
  // True when at least one of the channels named by Flags would take a message.
  bool WouldReach(MSG_INFO_FLAGS Flags) const;
  // Writes pending text to the file now (at normal program end, so logs are complete).
  void Flush();

 private:
  void _WriteOut();

  mutable QMutex _Mutex;
  char _acWork[kWorkBufferSize + 16] = {};
  QByteArray _PendingText;
  QFile _File;
  QString _sFileName;
  bool _FileOpen = false;
  U32 _Interval = 512;
  bool _DebugMode = false;
};

CLogSink& GetLogSink();

int LogMessage(const char* sText, MSG_INFO_FLAGS Flags);
int LogMessage(const QString& sText, MSG_INFO_FLAGS Flags);
// Maps a Qt message type to flags (debug 0x19, warning 0x1A, critical and fatal 0x3C) and logs it.
int LogQtMessage(QtMsgType Type, const char* sText);
// The callback handed to the ELF layer; drops the message early when no channel would take it.
int LogElfMessage(const char* sText, MSG_INFO_FLAGS Flags);
// Installs LogQtMessage as the Qt message handler.
void InstallQtLogHandler();

// The command-line options, parsed once from QCoreApplication::arguments() on first use.
const char* GetLogFileName();
U32 GetLogInterval();
