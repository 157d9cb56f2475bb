// The zevra executable as a user starts it: batch mode output and exit codes, and the log file options.
#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <cstring>

#include "app/base/Types.h"

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

TEST(Executable, MemoryAndRegistersOfTheSimulatedTargetFromABatch) {
  QTemporaryDir Dir;
  const QString sImage = QString(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.bin";
  QFile Image(sImage);
  ASSERT_TRUE(Image.open(QIODevice::ReadOnly));
  QByteArray Bytes = Image.readAll();
  U32 ResetVector = 0;
  memcpy(&ResetVector, Bytes.constData() + 4, 4);
  const QString sSave = Dir.filePath("ram.bin");
  QString sBatch = QString(
                       "Exec.Connect\n"
                       "Target.LoadMemory (\"%1\", 0)\n"
                       "Exec.Reset\n"
                       "Target.GetReg (PC)\n"
                       "Target.WriteU32 (0x20000100, 0xCAFEF00D)\n"
                       "Target.ReadU32 (0x20000100)\n"
                       "Target.ReadU16 (0x20000102)\n"
                       "Target.ReadU8 (0x20000101)\n"
                       "Target.FillMemory (0x20000200, 8, 0x5A)\n"
                       "Target.SaveMemory (\"%2\", 0x200001FC, 12)\n")
                       .arg(sImage, sSave);
  RUN Run = RunZevra({"--batch", "-"}, sBatch.toUtf8());
  EXPECT_EQ(Run.ExitCode, 0) << Run.sOut.toStdString();
  QStringList Expected = {
      "Exec.Connect();",
      QString("Target.LoadMemory (\"%1\", 0);").arg(sImage),
      QString("= %1 (0x%2)")
          .arg(Bytes.size())
          .arg(QString::number(Bytes.size(), 16).toUpper().rightJustified(8, '0')),
      "Exec.Reset();",
      "Target.GetReg (\"PC\");",
      QString("= %1 (0x%2)")
          .arg(ResetVector & ~1u)
          .arg(QString::number(ResetVector & ~1u, 16).toUpper().rightJustified(8, '0')),
      "Target.WriteU32 (0x20000100, 0xCAFEF00D);",
      "Target.ReadU32 (0x20000100);",
      "= -889262067 (0xCAFEF00D)",
      "Target.ReadU16 (0x20000102);",
      "= 51966 (0x0000CAFE)",
      "Target.ReadU8 (0x20000101);",
      "= 240 (0x000000F0)",
      "Target.FillMemory (0x20000200, 8, 0x5A);",
      QString("Target.SaveMemory (\"%1\", 0x200001FC, 12);").arg(sSave),
      "= 12 (0x0000000C)",
  };
  EXPECT_EQ(Run.sOut.split('\n', Qt::SkipEmptyParts), Expected);
  QFile Saved(sSave);
  ASSERT_TRUE(Saved.open(QIODevice::ReadOnly));
  QByteArray Ram = Saved.readAll();
  ASSERT_EQ(Ram.size(), 12);
  EXPECT_EQ(Ram.mid(4), QByteArray(8, 0x5A));
}

TEST(Executable, FloatingPointRegistersByNameFromABatch) {
  const QString sImage = QString(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.bin";
  QString sBatch = QString(
                       "Exec.Connect\n"
                       "Target.LoadMemory (\"%1\", 0)\n"
                       "Exec.Reset\n"
                       "Target.SetReg (S5, 0x3FC00000)\n"
                       "Target.GetReg (S5)\n"
                       "Target.SetReg (s31, 0x40490FDB)\n"
                       "Target.GetReg (S31)\n"
                       "Target.SetReg (FPSCR, 0x00400000)\n"
                       "Target.GetReg (fpscr)\n"
                       "Target.GetReg (S32)\n"
                       "Target.GetReg (S05)\n")
                       .arg(sImage);
  RUN Run = RunZevra({"--batch", "-"}, sBatch.toUtf8());
  EXPECT_EQ(Run.ExitCode, 1) << Run.sOut.toStdString();  // the two unknown names
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  const QStringList Expected = {
      "Target.GetReg (\"S5\");",
      "= 1069547520 (0x3FC00000)",  // 1.5f
      "Target.GetReg (\"S31\");",
      "= 1078530011 (0x40490FDB)",  // pi as a float
      "Target.GetReg (\"fpscr\");",
      "= 4194304 (0x00400000)",
      "Target.GetReg (\"S32\"): unknown register: S32",
      "Target.GetReg (\"S05\"): unknown register: S05",
  };
  for (const QString& s : Expected) {
    EXPECT_TRUE(Lines.contains(s)) << s.toStdString() << "\n" << Run.sOut.toStdString();
  }
}

TEST(Executable, UnreadableMemoryAndALostProbeAreReportedNotHidden) {
  RUN Run = RunZevra({"--batch", "-"},
                     "Exec.Connect\n"
                     "Target.ReadU32 (0x10000000)\n"
                     "Target.SaveMemory (\"/nonexistent-dir/x.bin\", 0x20000000, 4)\n"
                     "Exec.Command (\"SimFault=ConnLost\")\n"
                     "Target.ReadU32 (0x20000000)\n"
                     "Target.ReadU32 (0x20000000)\n");
  EXPECT_EQ(Run.ExitCode, 1);
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  EXPECT_TRUE(Lines.contains("Target.ReadU32 (0x10000000): could not read memory: 0x10000000"))
      << Run.sOut.toStdString();
  EXPECT_FALSE(Run.sOut.contains("= 0 (0x00000000)"));  // a failed read is no zero
  EXPECT_TRUE(
      Lines.filter("Target.SaveMemory (\"/nonexistent-dir/x.bin\", 0x20000000, 4): could not write file")
          .size() == 1)
      << Run.sOut.toStdString();
  EXPECT_TRUE(Lines.contains("Tarvik: connection to target device lost."));
  EXPECT_TRUE(
      Lines.contains("Target Connection Lost: Failed to read target status. Abort Debug Session? Yes"));
  EXPECT_EQ(Lines.last(), "Target.ReadU32 (0x20000000): not connected");
}

TEST(Executable, OpeningAProgramLogsHowLongItsDebugInformationTook) {
  QTemporaryDir Dir;
  const QString sLog = Dir.filePath("open.log");
  const QString sElf = QString(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.elf";
  // A program cut short: the reader refuses it with a message, and the command fails.
  QFile Whole(sElf);
  ASSERT_TRUE(Whole.open(QIODevice::ReadOnly));
  const QString sCut = Dir.filePath("cut.elf");
  QFile Cut(sCut);
  ASSERT_TRUE(Cut.open(QIODevice::WriteOnly));
  Cut.write(Whole.read(40));
  Cut.close();
  RUN Run = RunZevra({"--logfile", sLog, "--batch", "-"},
                     QString("File.Open (\"%1\")\nFile.Open (\"%2\")\n").arg(sElf, sCut).toUtf8());
  EXPECT_EQ(Run.ExitCode, 1);
  EXPECT_TRUE(Run.sOut.contains(QString("File.Open (\"%1\"): invalid program file: %1").arg(sCut)))
      << Run.sOut.toStdString();
  EXPECT_TRUE(Run.sOut.contains("File.Open: completed in ")) << Run.sOut.toStdString();
  EXPECT_TRUE(Run.sOut.contains("source file paths resolved")) << Run.sOut.toStdString();
  QFile Log(sLog);
  ASSERT_TRUE(Log.open(QIODevice::ReadOnly));
  QString sText = QString::fromUtf8(Log.readAll());
  for (const char* sLine :
       {" i  ElfLib: parsed debug info tree in ms:", " i  ElfLib: parsed source line info in ms:",
        " i  ElfLib: total init time:", " i  ElfLib: Dwarf Version: 5"}) {
    EXPECT_TRUE(sText.contains(sLine)) << sLine << "\n" << sText.toStdString();
  }
  EXPECT_TRUE(sText.contains("ElfLib: " + sCut)) << sText.toStdString();  // the reason names the file
}

TEST(Executable, ScriptFileRunsHeadlessAndAScriptErrorExitsWithTwo) {
  QTemporaryDir Dir;
  auto Write = [&Dir](const char* sName, const char* sText) {
    QFile File(Dir.filePath(sName));
    EXPECT_TRUE(File.open(QIODevice::WriteOnly));
    File.write(sText);
    return Dir.filePath(sName);
  };
  const QString sGood = Write("good.zvs",
                              "int main (void) {\n"
                              "  int i;\n"
                              "  int Sum;\n"
                              "  Sum = 0;\n"
                              "  i = 1;\n"
                              "  while (i <= 10) {\n"
                              "    Sum = Sum + i;\n"
                              "    i = i + 1;\n"
                              "  }\n"
                              "  Exec.Connect();\n"
                              "  Target.WriteU32(0x20000010, Sum);\n"
                              "  if (Target.ReadU32(0x20000010) != 55) {\n"
                              "    return -1;\n"
                              "  }\n"
                              "  Util.Log(\"read back 55\");\n"
                              "  return 0;\n"
                              "}\n");
  RUN Good = RunZevra({"--script", sGood});
  EXPECT_EQ(Good.ExitCode, 0) << Good.sOut.toStdString();
  EXPECT_EQ(
      Good.sOut,
      "Exec.Connect();\nTarget.WriteU32 (0x20000010, 55);\nUtil.Log (\"read back 55\");\nread back 55\n");
  const QString sBad = Write("bad.zvs", "int main (void) {\n  int x;\n  x = 1 +;\n  return 0;\n}\n");
  RUN Bad = RunZevra({"--script", sBad});
  EXPECT_EQ(Bad.ExitCode, 2);
  EXPECT_TRUE(Bad.sOut.contains("at line 3")) << Bad.sOut.toStdString();
}

TEST(Executable, DemoProjectConfiguresTheSessionBeforeTheFirstBatchLine) {
  const QString sProject = QString(ZEVRA_SOURCE_DIR) + "/examples/demo/demo.zvproj";
  RUN Run = RunZevra({sProject, "--batch", "-"}, "Exec.Connect\n");
  EXPECT_EQ(Run.ExitCode, 0) << Run.sOut.toStdString();
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  QStringList Expected = {"Project.SetDevice (\"Simulator Cortex-M4\");", "Project.SetTargetIF (\"SWD\");",
                          "Exec.Connect();"};
  for (const QString& s : Expected) {
    EXPECT_TRUE(Lines.contains(s)) << s.toStdString() << "\n" << Run.sOut.toStdString();
  }
  EXPECT_LT(Lines.indexOf("Project.SetDevice (\"Simulator Cortex-M4\");"), Lines.indexOf("Exec.Connect();"));
  EXPECT_EQ(Lines.filter("File path resolved").size(), 1);  // the program file through $(ProjectDir)
  QFile::remove(QString(ZEVRA_SOURCE_DIR) + "/examples/demo/demo.zvproj.user");
}

TEST(Executable, ProjectWithAnErrorIsReportedWithItsLineAndExitsWithTwo) {
  QTemporaryDir Dir;
  const QString sProject = Dir.filePath("broken.zvproj");
  const QByteArray Text = "void OnProjectLoad (void) {\n  Util.Log(\"first\");\n  x = ;\n}\n";
  QFile File(sProject);
  ASSERT_TRUE(File.open(QIODevice::WriteOnly));
  File.write(Text);
  File.close();
  RUN Run = RunZevra({sProject, "--batch", "-"}, "Util.Log (\"the rest of the application works\")\n");
  EXPECT_EQ(Run.ExitCode, 2) << Run.sOut.toStdString();
  EXPECT_TRUE(Run.sOut.contains("Error in project file: ")) << Run.sOut.toStdString();
  EXPECT_TRUE(Run.sOut.contains("at line 3")) << Run.sOut.toStdString();
  EXPECT_TRUE(Run.sOut.contains("the rest of the application works\n"));
  QFile Again(sProject);
  ASSERT_TRUE(Again.open(QIODevice::ReadOnly));
  EXPECT_EQ(Again.readAll(), Text);
}
