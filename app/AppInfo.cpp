// Application identity, folders and the command list of the command line.
#include "app/AppInfo.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <atomic>

#include "app/actions/ActionTable.h"

QString GetVersionText(int Major, int Minor, int Revision) {
  QString s = QString("V%1.%2").arg(Major).arg(Minor, 2, 10, QChar('0'));
  if (Revision >= 1 && Revision <= 26) {
    s += QChar('a' + Revision - 1);
  } else if (Revision > 26) {
    s += QString("z%1").arg(Revision - 26, 2, 10, QChar('0'));
  }
  return s;
}

QString GetAppTitle(bool WithSubtitle, bool WithVersion) {
  QString s = kApplicationName;
  if (WithSubtitle) {
    s += " - The Tarvik Debugger";
  }
  if (WithVersion) {
    s += " " + GetVersionText();
  }
  return s;
}

QString GetAppDateText() {
  QFileInfo Info(QCoreApplication::applicationFilePath());
  QDateTime Time = Info.birthTime();
  if (!Time.isValid()) {
    Time = Info.lastModified();  // many Linux file systems keep no creation time
  }
  return Time.toString(Qt::ISODate).left(10);
}

QString GetAppFolder() {
  static std::atomic<int> State{0};  // 0 not computed, 1 computing, 2 done
  static QString sFolder;
  int Expected = 0;
  if (State.compare_exchange_strong(Expected, 1)) {
    QString sPath = QFileInfo(QCoreApplication::applicationFilePath()).canonicalPath();
    sFolder = sPath.isEmpty() ? QString() : sPath + "/";
    State = 2;
  }
  return State.load() == 2 ? sFolder : QString();
}

QString GetConfigFolder() {
  return GetAppFolder() + "Config/";
}

QString GetPeripheralFolder() {
  return GetConfigFolder() + "Peripherals/";
}

QString GetLibFolder() {
  return GetAppFolder() + "Lib/";
}

QString GetDocFolder() {
  return GetAppFolder() + "Doc/";
}

QString GetPluginFolder() {
  return GetAppFolder() + "Plugins/";
}

static QString _StripQuotes(QString s) {
  if (s.startsWith('"')) {
    s.remove(0, 1);
  }
  if (s.endsWith('"')) {
    s.chop(1);
  }
  return s;
}

static int _RowByName(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

QStringList BuildCommandListFromArgs(const QStringList& Args) {
  QString sDevice, sHost, sHostId, sTargetIF, sSpeed, sDataFile;
  bool HaveDevice = false, HaveHost = false, HaveTargetIF = false;
  // The arguments are joined with a blank so that a word and its value given as two arguments
  // ("-device" "STM32F407") still form one piece "device STM32F407". A dash starts a word only at the
  // start of an argument or after a blank: device names ("Simulator Cortex-M3") and paths
  // ("/opt/my-fw.elf") keep theirs.
  const QString sAll = ' ' + Args.join(' ');
  static const QRegularExpression WordStart("\\s-");
  for (QString sPiece : sAll.split(WordStart)) {
    for (int Pass = 0; Pass < 2; ++Pass) {
      int Blank = sPiece.indexOf(' ');
      QString sWord = Blank < 0 ? sPiece : sPiece.left(Blank);
      QString sValue = Blank < 0 ? QString() : sPiece.mid(Blank + 1).trimmed();
      if (sWord == "select" && Pass == 0) {
        // "select USB=123" is examined again as "USB 123".
        sPiece = sValue.replace('=', ' ');
        continue;
      }
      if (sWord == "device") {
        sDevice = _StripQuotes(sValue);
        HaveDevice = true;
      } else if (sWord == "USB" || sWord == "IP") {
        sHost = sWord;
        sHostId = sValue;
        HaveHost = true;
      } else if (sWord == "if") {
        sTargetIF = _StripQuotes(sValue);
        HaveTargetIF = true;
      } else if (sWord == "speed") {
        sSpeed = _StripQuotes(sValue);
      } else if (sWord == "datafile") {
        sDataFile = _StripQuotes(sValue);
      }
      break;
    }
  }
  if (!HaveDevice || !HaveHost || !HaveTargetIF) {
    return {};
  }
  QStringList Lines;
  auto Add = [&Lines](const char* sRow, const QStringList& Values) {
    for (const QString& s : Values) {
      if (s.isEmpty()) {
        return;  // an empty value yields no line
      }
    }
    int Id = _RowByName(sRow);
    if (Id >= 0) {
      Lines << GetCommandTextFor(Id, Values);
    }
  };
  Add("Project.SetDevice", {sDevice});
  Add("Project.SetHostIF", {sHost, sHostId});
  Add("Project.SetTargetIF", {sTargetIF});
  Add("Project.SetTIFSpeed", {sSpeed});
  Add("File.Open", {sDataFile});
  Lines << QString();
  return Lines;
}

bool IsProjectFileName(const QString& sPath) {
  int Dot = sPath.lastIndexOf('.');
  return Dot >= 0 && sPath.mid(Dot + 1) == "zvproj";
}
