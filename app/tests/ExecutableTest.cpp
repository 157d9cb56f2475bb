// The zevra executable as a user starts it: batch mode output and exit codes, and the log file options.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <algorithm>
#include <cstring>

#include "app/base/Types.h"

#include "app/base/tests/QtPrinters.h"

namespace {

struct RUN {
  int ExitCode = -1;
  QString sOut;
  QString sErr;
};

void StartZevra(QProcess* pProcess, const QStringList& Args) {
  pProcess->setProgram(QString(ZEVRA_BINARY_DIR) + "/app/zevra");
  pProcess->setArguments(Args);
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.remove("QT_QPA_PLATFORM");  // batch mode picks the offscreen platform itself
  Env.remove("XDG_RUNTIME_DIR");  // as under a plain root shell
  pProcess->setProcessEnvironment(Env);
  pProcess->start();
}

RUN RunZevra(const QStringList& Args, const QByteArray& Stdin = QByteArray()) {
  QProcess Process;
  StartZevra(&Process, Args);
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
  Run.sErr = QString::fromUtf8(Process.readAllStandardError());
  return Run;
}

QString WriteFile(const QTemporaryDir& Dir, const QString& sName, const QByteArray& Text) {
  QFile File(Dir.filePath(sName));
  EXPECT_TRUE(File.open(QIODevice::WriteOnly)) << sName.toStdString();
  File.write(Text);
  return Dir.filePath(sName);
}

QByteArray ReadFile(const QString& sPath) {
  QFile File(sPath);
  return File.open(QIODevice::ReadOnly) ? File.readAll() : QByteArray();
}

// The output of a tool of the cross toolchain or binutils, for the expected values of the program rows.
QString ToolOutput(const QString& sTool, const QStringList& Args) {
  QProcess Process;
  Process.start(sTool, Args);
  if (!Process.waitForFinished(30000)) {
    return QString();
  }
  return QString::fromUtf8(Process.readAllStandardOutput());
}

QString ResultLine(U32 Value) {
  return QString("= %1 (0x%2)")
      .arg(I32(Value))
      .arg(QString::number(Value, 16).toUpper().rightJustified(8, '0'));
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
  EXPECT_TRUE(Ok.sErr.isEmpty()) << Ok.sErr.toStdString();  // nothing went wrong, nothing is said
  EXPECT_EQ(RunZevra({"--batch", Dir.filePath("missing.txt")}).ExitCode, 4);
  RUN Slow = RunZevra({"--batch", "-", "--batch-timeout", "1"}, "Util.Sleep (20000)\n");
  EXPECT_EQ(Slow.ExitCode, 3);
  // File.Exit ends the batch where it stands; what failed before still counts.
  RUN Exit = RunZevra({"--batch", "-"}, "NoSuchThing\nFile.Exit\nUtil.Log (\"after the exit\")\n");
  EXPECT_EQ(Exit.ExitCode, 1);
  EXPECT_FALSE(Exit.sOut.contains("after the exit")) << Exit.sOut.toStdString();
  EXPECT_TRUE(Exit.sOut.contains("File.Exit();\n")) << Exit.sOut.toStdString();
}

TEST(Executable, WrongBatchOptionsHaveTheirOwnExitCodeAndNameTheOption) {
  const struct {
    QStringList Args;
    const char* sNamed;
  } aCase[] = {
      {{"--batch", "-", "--batch-timeout", "0"}, "\"0\""},
      {{"--batch", "-", "--batch-timeout", "abc"}, "\"abc\""},
      {{"--batch", "-", "--batch-timeout"}, "--batch-timeout"},
      {{"--batch"}, "--batch"},
      {{"--script-function", "Setup"}, "--script-function"},  // headless, not the window
  };
  for (const auto& c : aCase) {
    RUN Run = RunZevra(c.Args);
    EXPECT_EQ(Run.ExitCode, 5) << c.Args.join(' ').toStdString();
    EXPECT_TRUE(Run.sErr.contains(c.sNamed)) << Run.sErr.toStdString();
    EXPECT_TRUE(Run.sOut.isEmpty()) << Run.sOut.toStdString();
  }
}

TEST(Executable, AProjectThatNeverFinishesOpeningEndsAtTheTimeout) {
  QTemporaryDir Dir;
  const QString sLoop = WriteFile(Dir, "loop.zvproj", "void OnProjectLoad (void) {\n  while (1) {\n  }\n}\n");
  const QString sSelf = Dir.filePath("self.zvproj");
  WriteFile(Dir, "self.zvproj",
            QString("void OnProjectLoad (void) {\n  File.Open (\"%1\");\n}\n").arg(sSelf).toUtf8());
  for (const QString& sProject : {sLoop, sSelf}) {
    RUN Run = RunZevra({sProject, "--batch", "-", "--batch-timeout", "1"}, "Util.Log (\"never\")\n");
    EXPECT_EQ(Run.ExitCode, 3) << sProject.toStdString();
    EXPECT_FALSE(Run.sOut.contains("never")) << Run.sOut.toStdString();
  }
}

TEST(Executable, AProjectOpenedByABatchLineHasRunBeforeTheNextLine) {
  QTemporaryDir Dir;
  const QString sGood =
      WriteFile(Dir, "good.zvproj", "void OnProjectLoad (void) {\n  Util.Log (\"loaded\");\n}\n");
  const QString sBad = WriteFile(Dir, "bad.zvproj", "void OnProjectLoad (void) {\n  x = ;\n}\n");
  const QByteArray Layout = "OpenWindow=\"Console\", DockArea=BOTTOM, x=0, y=0, w=640, h=200\n";
  const QString sLayout = WriteFile(Dir, "bad.zvproj.user", Layout);
  RUN Run =
      RunZevra({"--batch", "-"}, QString("File.Open (\"%1\")\nUtil.Log (\"next\")\n").arg(sGood).toUtf8());
  EXPECT_EQ(Run.ExitCode, 0) << Run.sOut.toStdString();
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  EXPECT_TRUE(Lines.contains("loaded")) << Run.sOut.toStdString();
  EXPECT_LT(Lines.indexOf("loaded"), Lines.indexOf("next"));
  // As the last line, too; a project with an error is the script error of the run.
  RUN Last = RunZevra({"--batch", "-"}, QString("File.Open (\"%1\")\n").arg(sGood).toUtf8());
  EXPECT_EQ(Last.ExitCode, 0);
  EXPECT_TRUE(Last.sOut.contains("loaded\n")) << Last.sOut.toStdString();
  RUN Bad = RunZevra({"--batch", "-"}, QString("File.Open (\"%1\")\n").arg(sBad).toUtf8());
  EXPECT_EQ(Bad.ExitCode, 2) << Bad.sOut.toStdString();
  EXPECT_TRUE(Bad.sOut.contains("Error in project file: ")) << Bad.sOut.toStdString();
  // A relative name the finder can't resolve is named in the error as typed.
  RUN Missing = RunZevra({"--batch", "-"}, "File.Open (\"no/such/file.elf\")\n");
  EXPECT_EQ(Missing.ExitCode, 1);
  EXPECT_TRUE(Missing.sOut.contains("File.Open (\"no/such/file.elf\"): file not found: no/such/file.elf"))
      << Missing.sOut.toStdString();
  // The runs leave no user file beside the projects, and an earlier one as it was.
  EXPECT_FALSE(QFile::exists(Dir.filePath("good.zvproj.user")));
  EXPECT_EQ(ReadFile(sLayout), Layout);
}

TEST(Executable, APipeDrivenSessionAnswersEachLineBeforeTheNextIsSent) {
  QProcess Process;
  StartZevra(&Process, {"--batch", "-"});
  ASSERT_TRUE(Process.waitForStarted(10000));
  QByteArray Out;
  // Waits for the answer to the line sent last; the line after it is not written before.
  auto WaitFor = [&Process, &Out](const QByteArray& Answer) {
    QElapsedTimer Timer;
    Timer.start();
    while (!Out.contains(Answer) && Timer.elapsed() < 30000) {
      Process.waitForReadyRead(1000);
      Out += Process.readAllStandardOutput();
    }
    return Out.contains(Answer);
  };
  Process.write("Exec.Connect\n");
  ASSERT_TRUE(WaitFor("Exec.Connect();\n")) << Out.toStdString();
  Process.write("Target.WriteU32 (0x20000040, 0x1234)\n");
  Process.write("Target.ReadU32 (0x20000040)\n");
  ASSERT_TRUE(WaitFor("= 4660 (0x00001234)\n")) << Out.toStdString();
  Process.write("Util.Log (\"last\")\n");
  ASSERT_TRUE(WaitFor("last\n")) << Out.toStdString();
  Process.closeWriteChannel();
  ASSERT_TRUE(Process.waitForFinished(30000));
  EXPECT_EQ(Process.exitCode(), 0);
}

TEST(Executable, ANewProjectSavedUnderANameReopensOnTheSameTarget) {
  QTemporaryDir Dir;
  const QString sProject = Dir.filePath("saved.zvproj");
  const QStringList Settings = {"Project.SetDevice (\"Simulator Cortex-M3\");",
                                "Project.SetHostIF (\"USB\", \"7\");", "Project.SetTargetIF (\"JTAG\");"};
  RUN Save =
      RunZevra({"--batch", "-"},
               (Settings.join('\n') + QString("\nFile.SaveProjectAs (\"%1\")\n").arg(sProject)).toUtf8());
  EXPECT_EQ(Save.ExitCode, 0) << Save.sOut.toStdString();
  const QString sText = QString::fromUtf8(ReadFile(sProject));
  for (const QString& s : Settings) {
    EXPECT_TRUE(sText.contains("  " + s)) << s.toStdString() << "\n" << sText.toStdString();
  }
  RUN Reopen = RunZevra({sProject, "--batch", "-"}, "");
  EXPECT_EQ(Reopen.ExitCode, 0) << Reopen.sOut.toStdString();
  QStringList Lines = Reopen.sOut.split('\n', Qt::SkipEmptyParts);
  for (const QString& s : Settings) {
    EXPECT_TRUE(Lines.contains(s)) << s.toStdString() << "\n" << Reopen.sOut.toStdString();
  }
  EXPECT_FALSE(QFile::exists(Dir.filePath("saved.zvproj.user")));
}

TEST(Executable, DashWordsMakeANewProjectThatTheShutdownAsksAbout) {
  RUN Run =
      RunZevra({"-device", "Sim", "-IP", "127.0.0.1:2331", "-if", "SWD", "-speed", "4000", "--batch", "-"},
               "File.SaveAll\n");
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  const QStringList Expected = {"Project.SetDevice (\"Sim\");",
                                "Project.SetHostIF (\"IP\", \"127.0.0.1:2331\");",
                                "Project.SetTargetIF (\"SWD\");", "Project.SetTIFSpeed (\"4000\");"};
  for (const QString& s : Expected) {
    EXPECT_TRUE(Lines.contains(s)) << s.toStdString() << "\n" << Run.sOut.toStdString();
  }
  // The new project is modified: saving it may run (and has no name to save under), and the end asks.
  EXPECT_FALSE(Run.sOut.contains("Command disabled")) << Run.sOut.toStdString();
  EXPECT_TRUE(Lines.contains("File.SaveAll(): project not saved")) << Run.sOut.toStdString();
  EXPECT_EQ(Lines.last(), "Save Project Changes?: The current project was modified. Save changes? No");
  // Without changes there is nothing to save, and nothing to ask.
  RUN Plain = RunZevra({"--batch", "-"}, "File.SaveAll\n");
  EXPECT_EQ(Plain.ExitCode, 1);
  EXPECT_EQ(Plain.sOut, "File.SaveAll: Command disabled\n");
}

TEST(Executable, ProgramRowsAnswerWhatTheToolchainReadsFromTheFile) {
  const QString sElf = QString(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.elf";
  // Expected values: main from the symbol table, entry and load addresses from the headers.
  U32 Main = 0;
  for (const QString& sLine : ToolOutput("arm-none-eabi-nm", {sElf}).split('\n')) {
    const QStringList Fields = sLine.split(' ');
    if (Fields.size() == 3 && Fields[2] == "main") {
      Main = Fields[0].toUInt(nullptr, 16) & ~1u;  // bit 0 marks Thumb code, not the address
    }
  }
  ASSERT_NE(Main, 0u);
  const QString sHeaders = ToolOutput("arm-none-eabi-readelf", {"-hlW", sElf});
  const QRegularExpression EntryRe("Entry point address:\\s+0x([0-9a-f]+)");
  const U32 Entry = EntryRe.match(sHeaders).captured(1).toUInt(nullptr, 16) & ~1u;
  U32 Base = 0xFFFFFFFF;
  const QRegularExpression LoadRe("LOAD\\s+0x[0-9a-f]+\\s+0x[0-9a-f]+\\s+0x([0-9a-f]+)\\s+0x([0-9a-f]+)");
  for (auto It = LoadRe.globalMatch(sHeaders); It.hasNext();) {
    const QRegularExpressionMatch m = It.next();
    if (m.captured(2).toUInt(nullptr, 16) != 0) {  // a segment with bytes in the file
      Base = std::min(Base, m.captured(1).toUInt(nullptr, 16));
    }
  }
  const U32 BigEndian = sHeaders.contains("big endian") ? 1 : 0;
  RUN Run =
      RunZevra({"--batch", "-"}, QString("Elf.GetBaseAddr ()\nFile.Open (\"%1\")\nElf.GetEntryFuncPC ()\n"
                                         "Elf.GetEntryPointPC ()\nElf.GetBaseAddr ()\nElf.GetEndianess ()\n")
                                     .arg(sElf)
                                     .toUtf8());
  EXPECT_EQ(Run.ExitCode, 1) << Run.sOut.toStdString();  // the first line has no program yet
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  EXPECT_EQ(Lines.value(1), "Elf.GetBaseAddr(): no program file open");
  auto After = [&Lines](const QString& sLine) { return Lines.value(Lines.lastIndexOf(sLine) + 1); };
  EXPECT_EQ(After("Elf.GetEntryFuncPC();"), ResultLine(Main)) << Run.sOut.toStdString();
  EXPECT_EQ(After("Elf.GetEntryPointPC();"), ResultLine(Entry));
  EXPECT_EQ(After("Elf.GetBaseAddr();"), ResultLine(Base));
  EXPECT_EQ(After("Elf.GetEndianess();"), ResultLine(BigEndian));
}

TEST(Executable, EchoAndHandlerReadANumberAlike) {
  RUN Run = RunZevra({"--batch", "-"},
                     "Exec.Connect\n"
                     "Target.ReadU32 (1e3)\n"
                     "Target.ReadU32 (0b101)\n"
                     "Util.Sleep (1.5)\n"
                     "Util.Log\t\"tab\"\n"
                     "Project.SetDevice (\"\")\n");
  QStringList Lines = Run.sOut.split('\n', Qt::SkipEmptyParts);
  for (const char* s :
       {"Target.ReadU32 (1e3): invalid parameter: 1e3", "Target.ReadU32 (0b101): invalid parameter: 0b101",
        "Util.Sleep (1.5): invalid number: 1.5", "Util.Log (\"tab\");", "tab",
        "Project.SetDevice (\"\"): invalid parameter: \"\""}) {
    EXPECT_TRUE(Lines.contains(s)) << s << "\n" << Run.sOut.toStdString();
  }
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

TEST(Executable, ABreakSymbolIsLookedUpInTheOpenProgram) {
  const QString sElf = QString(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.elf";
  // The symbol table has main and no "no_such_function" (arm-none-eabi-nm); without a program nothing
  // can be looked up yet, so nothing is refused.
  RUN Run =
      RunZevra({"--batch", "-"}, QString("Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, \"no_such_function\")\n"
                                         "File.Open (\"%1\")\n"
                                         "Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, \"no_such_function\")\n"
                                         "Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, \"main\")\n")
                                     .arg(sElf)
                                     .toUtf8());
  EXPECT_EQ(Run.ExitCode, 1);
  QStringList Errors = Run.sOut.split('\n').filter(": unknown symbol");
  EXPECT_EQ(Errors, QStringList({"Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, no_such_function): unknown symbol: "
                                 "no_such_function"}))
      << Run.sOut.toStdString();
  EXPECT_FALSE(Run.sOut.contains("main): ")) << Run.sOut.toStdString();
}

TEST(Executable, TheMemoryChannelNeedsItsControlBlockInTheProgram) {
  // A program built without the MCT library, and one of the committed programs that links it.
  QTemporaryDir Dir;
  const QString sSource =
      WriteFile(Dir, "bare.c", "int main(void) { return 0; }\nvoid _start(void) { main(); }\n");
  const QString sBare = Dir.filePath("bare.elf");
  QProcess Gcc;
  Gcc.start("arm-none-eabi-gcc", {"-mcpu=cortex-m4", "-mthumb", "-g", "-nostdlib", "-o", sBare, sSource});
  if (!Gcc.waitForFinished(60000) || Gcc.exitCode() != 0) {
    GTEST_SKIP() << "arm-none-eabi-gcc could not build the bare program";
  }
  const QString sWithBlock = QString(ZEVRA_SOURCE_DIR) + "/target/elf/mct_echo-O0.elf";
  const QString sFailure =
      "Failed to activate Memory Channel Transfer. Please verify that the target application uses Quorin's "
      "MCT library.";
  RUN Run = RunZevra({"--batch", "-"}, QString("File.Open (\"%1\")\nProject.SetMCT (1)\n"
                                               "File.Open (\"%2\")\nProject.SetMCT (1)\n")
                                           .arg(sBare, sWithBlock)
                                           .toUtf8());
  EXPECT_EQ(Run.ExitCode, 1);
  EXPECT_EQ(Run.sOut.split('\n').filter(sFailure), QStringList({"Project.SetMCT (1): " + sFailure}))
      << Run.sOut.toStdString();
}
