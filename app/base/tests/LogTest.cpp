// The log sink: channels, prefixes, the pending text and its interval, the file size cap, and the
// command-line options that configure it.
#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include "app/base/ConsoleCore.h"
#include "app/base/Log.h"

namespace {

QByteArray ReadAll(const QString& sPath) {
  QFile File(sPath);
  if (!File.open(QIODevice::ReadOnly)) {
    return {};
  }
  return File.readAll();
}

QStringList DrainConsole() {
  QStringList Lines;
  CONSOLE_MSG Msg;
  while (ConsoleTakeMessage(&Msg)) {
    Lines << QString::fromUtf8(Msg.acText);
  }
  return Lines;
}

}  // namespace

TEST(LogOptions, CommandLineWordsAreParsedAsDocumented) {
  struct CASE {
    QStringList Args;
    QString sFileName;
    U32 Interval;
  } aCase[] = {
      {{"--logfile", "a.log"}, "a.log", 512},
      {{"--LOGFILE", "b.log"}, "b.log", 512},  // the log switches are matched lower-cased
      {{"  --logfile ", "\"quoted name.log\""}, "quoted name.log", 512},
      {{"--logfile"}, "", 512},  // keyword without argument is ignored
      {{"--loginterval", "4096"}, "", 4096},
      {{"--loginterval", "lots"}, "", 0},  // non-numeric interval writes with every message
      {{"x.zvproj", "--logfile", "c.log", "--loginterval", "7"}, "c.log", 7},
      {{"--logfile", "\"\""}, "", 512},
  };
  for (const CASE& c : aCase) {
    LOG_OPTIONS Options = ParseLogOptions(c.Args);
    EXPECT_EQ(Options.sFileName, c.sFileName) << c.Args.join(' ').toStdString();
    EXPECT_EQ(Options.Interval, c.Interval) << c.Args.join(' ').toStdString();
  }
  LOG_OPTIONS Long = ParseLogOptions({"--logfile", QString(300, 'n')});
  EXPECT_EQ(Long.sFileName.size(), 255);
}

TEST(LogOptions, DebugSwitchIsCaseSensitive) {
  char a0[] = "zevra", a1[] = "--debug", a2[] = "--d", a3[] = "--DEBUG", a4[] = "--dx";
  char* Debug[] = {a0, a1};
  char* Short[] = {a0, a2};
  char* Upper[] = {a0, a3};
  char* Other[] = {a0, a4};
  EXPECT_TRUE(ScanDebugSwitch(2, Debug));
  EXPECT_TRUE(ScanDebugSwitch(2, Short));
  EXPECT_FALSE(ScanDebugSwitch(2, Upper));
  EXPECT_FALSE(ScanDebugSwitch(2, Other));
}

TEST(LogSink, FileLinesCarryLevelAndSourcePrefixes) {
  QTemporaryDir Dir;
  QString sPath = Dir.filePath("zevra.log");
  CLogSink Sink;
  Sink.OpenFile(sPath);
  Sink.SetInterval(0);
  EXPECT_EQ(Sink.Write("plain", MSG_INFO | MSG_TO_LOGFILE), 0);
  Sink.Write("careful\r\n  \n", MSG_WARNING | MSG_TO_LOGFILE);
  Sink.Write("broken", MSG_ERROR | MSG_TO_LOGFILE);
  Sink.Write("section missing", MSG_INFO | MSG_TO_LOGFILE | MSG_FROM_ELF);
  Sink.Write("probe says hi", MSG_WARNING | MSG_TO_ALL | MSG_FROM_PROBE);
  Sink.Write("Elf", MSG_INFO | MSG_TO_LOGFILE | MSG_FROM_ELF);
  Sink.Write("Tarvik", MSG_INFO | MSG_TO_LOGFILE | MSG_FROM_PROBE);
  Sink.Write("not for the file", MSG_INFO | MSG_TO_CONSOLE);
  EXPECT_EQ(Sink.Write("", MSG_INFO | MSG_TO_LOGFILE), -1);
  EXPECT_EQ(Sink.Write(nullptr, MSG_INFO | MSG_TO_LOGFILE), -1);
  Sink.Flush();
  EXPECT_EQ(ReadAll(sPath),
            " i  plain\n"
            "[W] careful\n"
            "[E] broken\n"
            " i  ElfLib: section missing\n"
            "[W] Tarvik: probe says hi\n"
            " i  Elf\n"
            " i  Tarvik\n");
  DrainConsole();
}

TEST(LogSink, PendingTextIsWrittenOncePerInterval) {
  QTemporaryDir Dir;
  QString sPath = Dir.filePath("interval.log");
  CLogSink Sink;
  Sink.OpenFile(sPath);
  Sink.SetInterval(40);
  Sink.Write("0123456789", MSG_INFO | MSG_TO_LOGFILE);  // 15 bytes pending
  Sink.Write("0123456789", MSG_INFO | MSG_TO_LOGFILE);  // 30
  Sink.Write("0123456789", MSG_INFO | MSG_TO_LOGFILE);  // 45: at least the interval now
  EXPECT_EQ(ReadAll(sPath).size(), 0);
  Sink.Write("x", MSG_INFO | MSG_TO_LOGFILE);  // the next message writes the 45 pending bytes out
  EXPECT_EQ(ReadAll(sPath).size(), 45);
  Sink.Flush();
  EXPECT_EQ(ReadAll(sPath).size(), 51);
}

TEST(LogSink, FileBeyondSixteenMillionBytesIsCutToItsStart) {
  QTemporaryDir Dir;
  QString sPath = Dir.filePath("big.log");
  CLogSink Sink;
  Sink.OpenFile(sPath);
  Sink.SetInterval(0);
  std::string Line(1995, 'a');  // 2,000 bytes a line with prefix and line feed
  for (int i = 0; i < 8001; ++i) {
    Line[0] = char('A' + i % 26);
    Sink.Write(Line.c_str(), MSG_INFO | MSG_TO_LOGFILE);
  }
  Sink.Flush();
  QByteArray Before = ReadAll(sPath);
  ASSERT_GT(Before.size(), 16000000);
  Sink.Write("after the cut", MSG_INFO | MSG_TO_LOGFILE);
  Sink.Flush();
  QByteArray After = ReadAll(sPath);
  EXPECT_EQ(After.left(16000), Before.left(16000));
  EXPECT_EQ(After.mid(16000), QByteArray(" i  after the cut\n"));
}

TEST(LogSink, ConsoleChannelColoursErrorsAndProbeMessages) {
  DrainConsole();
  CLogSink Sink;
  Sink.Write("err", MSG_ERROR | MSG_TO_CONSOLE);
  Sink.Write("probe", MSG_INFO | MSG_TO_ALL | MSG_FROM_PROBE);
  Sink.Write("plain", MSG_INFO | MSG_TO_CONSOLE);
  Sink.Write("file only", MSG_INFO | MSG_TO_LOGFILE);
  CONSOLE_MSG Msg;
  ASSERT_TRUE(ConsoleTakeMessage(&Msg));
  EXPECT_STREQ(Msg.acText, "err");  // no level prefix on the console
  EXPECT_EQ(Msg.Color, 0xFFB22222u);
  ASSERT_TRUE(ConsoleTakeMessage(&Msg));
  EXPECT_STREQ(Msg.acText, "Tarvik: probe");
  EXPECT_EQ(Msg.Color, 0xFF00008Bu);
  ASSERT_TRUE(ConsoleTakeMessage(&Msg));
  EXPECT_STREQ(Msg.acText, "plain");
  EXPECT_EQ(QColor::fromRgba(Msg.Color).alpha(), 0);  // the view's default text colour
  EXPECT_FALSE(ConsoleTakeMessage(&Msg));
}

TEST(LogSink, QtMessagesWithoutSwitchesReachOnlyTheConsole) {
  DrainConsole();
  ASSERT_FALSE(GetLogSink().HasLogFile());
  ASSERT_FALSE(GetLogSink().IsDebugMode());
  EXPECT_EQ(LogQtMessage(QtDebugMsg, "quiet"), -1);
  EXPECT_EQ(LogQtMessage(QtWarningMsg, "quiet too"), -1);
  EXPECT_EQ(LogQtMessage(QtCriticalMsg, "loud"), 0);
  EXPECT_EQ(DrainConsole(), QStringList{"loud"});
}
