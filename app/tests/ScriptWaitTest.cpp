// A script call that waits for the device leaves the processor alone: the zevra process, start-up
// included, sleeps while a gdbserver takes its time over the connect.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "device/tests/SlowGdbServer.h"

namespace {

double ChildrenCpuSeconds() {
  rusage Usage{};
  getrusage(RUSAGE_CHILDREN, &Usage);
  auto Seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; };
  return Seconds(Usage.ru_utime) + Seconds(Usage.ru_stime);
}

}  // namespace

TEST(ScriptWait, ZevraSleepsWhileAScriptWaitsForASlowGdbserver) {
  SLOW_SERVER Slow;
  Slow.SlowPacket = 'g';  // the register read that ends the connect
  CFakeGdbServer Server([&Slow](const std::string& s) { return Slow.Handle(s); });
  QTemporaryDir Dir;
  const QString sScript = Dir.filePath("connect.zvs");
  QFile File(sScript);
  ASSERT_TRUE(File.open(QIODevice::WriteOnly));
  File.write(QString("int main (void) {\n"
                     "  Project.SetHostIF(\"IP\", \"%1\");\n"
                     "  Exec.Connect();\n"
                     "  return 0;\n"
                     "}\n")
                 .arg(QString::fromStdString(Server.GetAddress()))
                 .toUtf8());
  File.close();

  QProcess Process;
  Process.setProgram(QString(ZEVRA_BINARY_DIR) + "/app/zevra");
  Process.setArguments({"--script", sScript});
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.remove("QT_QPA_PLATFORM");  // headless runs pick the offscreen platform themselves
  Process.setProcessEnvironment(Env);
  const double CpuBefore = ChildrenCpuSeconds();
  QElapsedTimer Wall;
  Wall.start();
  Process.start();
  ASSERT_TRUE(Process.waitForFinished(60000));
  const double WallSeconds = double(Wall.elapsed()) / 1000.0;
  const double CpuSeconds = ChildrenCpuSeconds() - CpuBefore;
  const QString sOut = QString::fromUtf8(Process.readAllStandardOutput());
  EXPECT_EQ(Process.exitCode(), 0) << sOut.toStdString();
  EXPECT_GE(Server.CountReceived("g"), 1);
  EXPECT_GE(WallSeconds, kServerDelayMS / 1000.0);  // the server's delay was part of the run
  EXPECT_LE(CpuSeconds / WallSeconds, kMaxCpuShare) << CpuSeconds << " s of " << WallSeconds << " s";
}
