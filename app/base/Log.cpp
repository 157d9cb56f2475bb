// The log sink and the command-line options that configure it.
#include "app/base/Log.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <cstdio>
#include <cstring>

#include "app/base/ConsoleCore.h"

LOG_OPTIONS ParseLogOptions(const QStringList& Args) {
  LOG_OPTIONS Options;
  for (int i = 0; i < Args.size(); ++i) {
    QString sWord = Args[i].trimmed().toLower();
    bool HasNext = i + 1 < Args.size();
    if (sWord == "--logfile" && HasNext) {
      QString sName = Args[i + 1];
      sName.remove('"');
      sName = sName.trimmed();
      QByteArray Bytes = sName.toLocal8Bit();
      if (Bytes.size() > 255) {
        sName = QString::fromLocal8Bit(Bytes.left(255));
      }
      Options.sFileName = sName;
      ++i;
    } else if (sWord == "--loginterval" && HasNext) {
      bool Ok = false;
      uint Value = Args[i + 1].trimmed().toUInt(&Ok, 10);
      Options.Interval = Ok ? Value : 0;
      ++i;
    }
  }
  return Options;
}

bool ScanDebugSwitch(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (argv[i] && (strcmp(argv[i], "--debug") == 0 || strcmp(argv[i], "--d") == 0)) {
      return true;
    }
  }
  return false;
}

CLogSink::~CLogSink() {
  Flush();
}

void CLogSink::OpenFile(const QString& sFileName) {
  QMutexLocker Lock(&_Mutex);
  if (_File.isOpen()) {
    _File.close();
  }
  _FileOpen = false;
  _sFileName = sFileName;
  if (sFileName.isEmpty()) {
    return;
  }
  _File.setFileName(sFileName);
  // Failure is not reported: the sink then writes into nothing.
  _FileOpen = _File.open(QIODevice::ReadWrite | QIODevice::Truncate | QIODevice::Text);
}

void CLogSink::SetInterval(U32 Interval) {
  QMutexLocker Lock(&_Mutex);
  _Interval = Interval;
}

void CLogSink::SetDebugMode(bool On) {
  QMutexLocker Lock(&_Mutex);
  _DebugMode = On;
}

bool CLogSink::IsDebugMode() const {
  QMutexLocker Lock(&_Mutex);
  return _DebugMode;
}

bool CLogSink::HasLogFile() const {
  QMutexLocker Lock(&_Mutex);
  return !_sFileName.isEmpty();
}

QString CLogSink::GetFileName() const {
  QMutexLocker Lock(&_Mutex);
  return _sFileName;
}

U32 CLogSink::GetInterval() const {
  QMutexLocker Lock(&_Mutex);
  return _Interval;
}

bool CLogSink::WouldReach(MSG_INFO_FLAGS Flags) const {
  QMutexLocker Lock(&_Mutex);
  bool All = (Flags & MSG_TO_ALL) != 0;
  if ((All || (Flags & MSG_TO_LOGFILE)) && !_sFileName.isEmpty()) {
    return true;
  }
  if ((All || (Flags & MSG_TO_STDOUT)) && _DebugMode) {
    return true;
  }
  return All || (Flags & MSG_TO_CONSOLE);
}

static const char* _LevelPrefix(MSG_INFO_FLAGS Flags) {
  if (Flags & MSG_ERROR) {
    return "[E] ";
  }
  if (Flags & MSG_WARNING) {
    return "[W] ";
  }
  return " i  ";
}

int CLogSink::Write(const char* sText, MSG_INFO_FLAGS Flags) {
  if (sText == nullptr || *sText == 0) {
    return -1;
  }
  QMutexLocker Lock(&_Mutex);
  // The source prefix goes in front; the bare source names themselves get none.
  const char* sPrefix = "";
  if ((Flags & MSG_FROM_ELF) && strcmp(sText, "Elf") != 0) {
    sPrefix = "ElfLib: ";
  } else if ((Flags & MSG_FROM_PROBE) && strcmp(sText, "Tarvik") != 0) {
    sPrefix = "Tarvik: ";
  }
  size_t PrefixLen = strlen(sPrefix);
  size_t TextLen = strnlen(sText, kWorkBufferSize);
  memcpy(_acWork, sPrefix, PrefixLen);
  memcpy(_acWork + PrefixLen, sText, TextLen);
  size_t Len = PrefixLen + TextLen;
  while (Len > 0 && (_acWork[Len - 1] == '\n' || _acWork[Len - 1] == '\r' || _acWork[Len - 1] == ' ')) {
    --Len;
  }
  _acWork[Len] = 0;
  bool All = (Flags & MSG_TO_ALL) != 0;
  if (All || (Flags & MSG_TO_CONSOLE)) {
    QString sLine = QString::fromUtf8(_acWork, int(Len));
    if (Flags & MSG_ERROR) {
      ConsolePrint(sLine, QColor(0xB2, 0x22, 0x22));
    } else if (Flags & MSG_FROM_PROBE) {
      ConsolePrint(sLine, QColor(0x00, 0x00, 0x8B));
    } else {
      ConsolePrint(sLine);
    }
  }
  if ((All || (Flags & MSG_TO_STDOUT)) && _DebugMode) {
    fprintf(stdout, "%s%s\n", _LevelPrefix(Flags), _acWork);
    fflush(stdout);
  }
  if ((All || (Flags & MSG_TO_LOGFILE)) && !_sFileName.isEmpty()) {
    if (U32(_PendingText.size()) >= _Interval) {
      _WriteOut();
    }
    _PendingText.append(_LevelPrefix(Flags));
    _PendingText.append(_acWork, qsizetype(Len));
    _PendingText.append('\n');
  }
  return 0;
}

void CLogSink::_WriteOut() {
  if (_FileOpen) {
    if (_File.size() > kMaxFileSize) {
      _File.resize(kKeptFileSize);
    }
    _File.seek(_File.size());
    _File.write(_PendingText);
    _File.flush();
  }
  _PendingText.clear();
}

void CLogSink::Flush() {
  QMutexLocker Lock(&_Mutex);
  if (!_PendingText.isEmpty()) {
    _WriteOut();
  }
}

CLogSink& GetLogSink() {
  static CLogSink Sink;
  return Sink;
}

int LogMessage(const char* sText, MSG_INFO_FLAGS Flags) {
  return GetLogSink().Write(sText, Flags);
}

int LogMessage(const QString& sText, MSG_INFO_FLAGS Flags) {
  return GetLogSink().Write(sText.toUtf8().constData(), Flags);
}

int LogQtMessage(QtMsgType Type, const char* sText) {
  MSG_INFO_FLAGS Flags;
  switch (Type) {
    case QtWarningMsg:
      Flags = 0x1A;
      break;
    case QtCriticalMsg:
    case QtFatalMsg:
      Flags = 0x3C;
      break;
    default:
      Flags = 0x19;
      break;
  }
  CLogSink& Sink = GetLogSink();
  if (!(Flags & MSG_TO_CONSOLE) && !Sink.HasLogFile() && !Sink.IsDebugMode()) {
    return -1;
  }
  return Sink.Write(sText, Flags | MSG_FROM_QT);
}

int LogElfMessage(const char* sText, MSG_INFO_FLAGS Flags) {
  Flags |= MSG_FROM_ELF;
  if (!GetLogSink().WouldReach(Flags)) {
    return -1;
  }
  return GetLogSink().Write(sText, Flags);
}

static void _QtHandler(QtMsgType Type, const QMessageLogContext&, const QString& sText) {
  LogQtMessage(Type, sText.toUtf8().constData());
}

void InstallQtLogHandler() {
  qInstallMessageHandler(_QtHandler);
}

namespace {
struct CCommandLineLog {
  QByteArray sFileName;
  LOG_OPTIONS Options;
  CCommandLineLog() {
    QStringList Args = QCoreApplication::arguments();
    if (!Args.isEmpty()) {
      Args.removeFirst();
    }
    Options = ParseLogOptions(Args);
    sFileName = Options.sFileName.toLocal8Bit();
  }
};
CCommandLineLog& _CommandLineLog() {
  static CCommandLineLog Parsed;
  return Parsed;
}
}  // namespace

const char* GetLogFileName() {
  const QByteArray& Name = _CommandLineLog().sFileName;
  return Name.isEmpty() ? nullptr : Name.constData();
}

U32 GetLogInterval() {
  return _CommandLineLog().Options.Interval;
}
