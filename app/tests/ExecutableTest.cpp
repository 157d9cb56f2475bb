// The zevra executable as a user starts it: batch mode output and exit codes, and the log file options.
#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "app/base/tests/QtPrinters.h"

namespace {

struct RUN {
  int ExitCode = -1;
  QString sOut;
};

RUN RunZevra(const QStringList& Args, const QByteArray& Stdin = QByteArray()) {
  QProcess Process;
  Process.setProgram(QString(ZEVRA_BINARY_DIR) + "/app/zevra");
  Process.setArguments(Args);
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.remove("QT_QPA_PLATFORM");  // batch mode picks the offscreen platform itself
  Process.setProcessEnvironment(Env);
  Process.start();
  RUN Run;
  if (!Process.waitForStarted(10000)) {
    return Run;
  }
  Process.write(Stdin);
  Process.closeWriteChannel();
  if (!Process.waitForFinished(60000)) {
    Process.kill();
    Process.waitForFinished();
    return Run;
  }
  Run.ExitCode = Process.exitStatus() == QProcess::NormalExit ? Process.exitCode() : -2;
  Run.sOut = QString::fromUtf8(Process.readAllStandardOutput());
  return Run;
}

}  // namespace

TEST(Executable, UnknownCommandFromStandardInputFailsWithTheFixedText) {
  RUN Run = RunZevra({"--batch", "-"}, "NoSuchThing(1)\n");
  EXPECT_EQ(Run.ExitCode, 1);
  EXPECT_EQ(Run.sOut, "NoSuchThing(1): unknown command. Type ? or help for a list of available commands.\n");
}

TEST(Executable, BatchExitCodesTellWhatHappened) {
  QTemporaryDir Dir;
  QString sFile = Dir.filePath("ok.txt");
  QFile File(sFile);
  ASSERT_TRUE(File.open(QIODevice::WriteOnly));
  File.write("# comment\nUtil.Log (\"from a file\")\n");
  File.close();
  RUN Ok = RunZevra({"--batch", sFile});
  EXPECT_EQ(Ok.ExitCode, 0);
  EXPECT_EQ(Ok.sOut, "Util.Log (\"from a file\");\nfrom a file\n");
  EXPECT_EQ(RunZevra({"--batch", Dir.filePath("missing.txt")}).ExitCode, 4);
  EXPECT_EQ(RunZevra({"--batch"}).ExitCode, 4);
  RUN Slow = RunZevra({"--batch", "-", "--batch-timeout", "1"}, "Util.Sleep (20000)\n");
  EXPECT_EQ(Slow.ExitCode, 3);
}

TEST(Executable, LogFileTakesLevelPrefixesAndDebugAddsStdout) {
  QTemporaryDir Dir;
  QString sLog = Dir.filePath("session.log");
  RUN Run = RunZevra({"--LogFile", "\"" + sLog + "\"", "--loginterval", "0", "--batch", "-"}, "Util.Log x\n");
  EXPECT_EQ(Run.ExitCode, 0);
  QFile Log(sLog);
  ASSERT_TRUE(Log.open(QIODevice::ReadOnly));
  QByteArray Text = Log.readAll();
  EXPECT_TRUE(Text.startsWith(" i  Probe layer version")) << Text.toStdString();
  RUN Debug = RunZevra({"--debug", "--batch", "-"}, "Util.Log x\n");
  EXPECT_TRUE(Debug.sOut.contains(" i  Probe layer version")) << Debug.sOut.toStdString();
  EXPECT_TRUE(Debug.sOut.contains("Util.Log (\"x\");\n"));
}
