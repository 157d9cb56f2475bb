// Whole-file saves: the new contents arrive complete, a failed save names the file, and a process killed
// in the middle of a large save leaves the old file as it was.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <cstdio>
#include <cstdlib>

#include "script/AtomicFile.h"

namespace {

// The child side of the kill test is a test of this binary that does something only when this
// variable names the file to save.
constexpr const char* kChildPathVariable = "ZEVRA_ATOMIC_WRITE_CHILD_PATH";
constexpr const char* kChildMarker = "ATOMIC-WRITE-HALFWAY";
constexpr qint64 kLargeSize = 32 * ATOMIC_WRITE_CHUNK_SIZE;

QByteArray ReadAll(const QString& sPath) {
  QFile File(sPath);
  return File.open(QIODevice::ReadOnly) ? File.readAll() : QByteArray("<missing>");
}

// Compares a file with what it should hold; a mismatch is told by size and first bytes, not byte by byte.
testing::AssertionResult FileHolds(const QString& sPath, const QByteArray& Expected) {
  QByteArray Actual = ReadAll(sPath);
  if (Actual == Expected) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "the file holds " << Actual.size() << " bytes starting \""
                                     << Actual.left(40).toStdString() << "\"";
}

void WriteOld(const QString& sPath, const QByteArray& Bytes) {
  QFile File(sPath);
  ASSERT_TRUE(File.open(QIODevice::WriteOnly | QIODevice::Truncate));
  ASSERT_EQ(File.write(Bytes), Bytes.size());
}

TEST(AtomicFile, SaveReplacesTheWholeFile) {
  const struct {
    const char* sWhat;
    const char* sOld;  // null: no file before
    QByteArray New;
  } aCases[] = {
      {"new file", nullptr, "void OnProjectLoad (void) {\n}\n"},
      {"longer file becomes shorter", "0123456789abcdefghijklmnopqrstuvwxyz", "short"},
      {"empty contents", "something", QByteArray()},
      {"several chunks", "old", QByteArray(int(3 * ATOMIC_WRITE_CHUNK_SIZE + 17), 'x')},
  };
  QTemporaryDir Dir;
  ASSERT_TRUE(Dir.isValid());
  for (const auto& Case : aCases) {
    SCOPED_TRACE(Case.sWhat);
    QString sPath = Dir.filePath("file.zvproj.user");
    QFile::remove(sPath);
    if (Case.sOld != nullptr) {
      WriteOld(sPath, Case.sOld);
    }
    QString sError = "untouched";
    EXPECT_EQ(WriteFileAtomically(sPath, Case.New, &sError), 0);
    EXPECT_EQ(sError, "untouched");
    EXPECT_TRUE(FileHolds(sPath, Case.New));
    EXPECT_EQ(QDir(Dir.path()).entryList(QDir::Files), QStringList({"file.zvproj.user"}));  // no leftovers
  }
}

TEST(AtomicFile, FailedSaveNamesTheFileAndKeepsWhatWasThere) {
  QTemporaryDir Dir;
  ASSERT_TRUE(Dir.isValid());
  ASSERT_TRUE(QDir(Dir.path()).mkdir("folder"));
  const QString aPaths[] = {
      Dir.filePath("no/such/folder/demo.zvproj"),
      Dir.filePath("folder"),
      QString(),
  };
  for (const QString& sPath : aPaths) {
    SCOPED_TRACE(sPath.toStdString());
    QString sError;
    EXPECT_EQ(WriteFileAtomically(sPath, "new", &sError), -1);
    EXPECT_TRUE(sError.startsWith(QString("Could not write \"%1\"").arg(sPath))) << sError.toStdString();
    EXPECT_EQ(WriteFileAtomically(sPath, "new", nullptr), -1);  // no error text wanted: no crash
  }
  EXPECT_TRUE(QFileInfo(Dir.filePath("folder")).isDir());
}

// The parent starts this binary again to run only the child test below, waits until the child reports
// that half of a large save is written, kills it, and looks at the file.
TEST(AtomicFile, KillDuringALargeSaveKeepsTheOldFile) {
  QTemporaryDir Dir;
  ASSERT_TRUE(Dir.isValid());
  const QString sPath = Dir.filePath("demo.zvproj");
  const QByteArray Old = "void OnProjectLoad (void) {\n  File.Open (\"old.elf\");\n}\n";
  WriteOld(sPath, Old);

  QProcess Child;
  QProcessEnvironment Environment = QProcessEnvironment::systemEnvironment();
  Environment.insert(kChildPathVariable, sPath);
  Child.setProcessEnvironment(Environment);
  Child.setProcessChannelMode(QProcess::SeparateChannels);
  Child.start(QCoreApplication::applicationFilePath(),
              {"--gtest_filter=AtomicFileKilledWriter.SavesUntilKilled"});
  ASSERT_TRUE(Child.waitForStarted(30000)) << Child.errorString().toStdString();

  QByteArray Output;
  QDeadlineTimer Deadline(120000);
  while (!Output.contains(kChildMarker) && !Deadline.hasExpired()) {
    if (!Child.waitForReadyRead(int(qMax<qint64>(1, Deadline.remainingTime())))) {
      break;  // the child ended or the time is up
    }
    Output += Child.readAllStandardOutput();
  }
  ASSERT_TRUE(Output.contains(kChildMarker))
      << Output.toStdString() << Child.readAllStandardError().toStdString();
  EXPECT_TRUE(FileHolds(sPath, Old));  // halfway: the new bytes are elsewhere

  Child.kill();
  ASSERT_TRUE(Child.waitForFinished(30000));
  EXPECT_EQ(Child.exitStatus(), QProcess::CrashExit);
  EXPECT_TRUE(FileHolds(sPath, Old));

  // What a killed save may leave behind doesn't stand in the way of the next save.
  ASSERT_EQ(WriteFileAtomically(sPath, "saved again", nullptr), 0);
  EXPECT_TRUE(FileHolds(sPath, "saved again"));
}

TEST(AtomicFileKilledWriter, SavesUntilKilled) {
  const QString sPath = qEnvironmentVariable(kChildPathVariable);
  if (sPath.isEmpty()) {
    GTEST_SKIP() << "runs only as the child of AtomicFile.KillDuringALargeSaveKeepsTheOldFile";
  }
  const QByteArray New(int(kLargeSize), 'N');
  WriteFileAtomically(sPath, New, nullptr, [](qint64 Written, qint64 Total) {
    if (Written * 2 >= Total) {
      std::printf("%s\n", kChildMarker);
      std::fflush(stdout);
      // The parent kills us while we wait for input that never comes. Should the parent go away
      // instead, its end of the pipe closes and we end without finishing the save.
      (void)std::getchar();
      std::_Exit(3);
    }
  });
  std::_Exit(4);  // the save must not finish in this test
}

}  // namespace
