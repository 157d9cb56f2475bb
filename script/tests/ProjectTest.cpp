// Project files: the generated text, saving and reopening, trace lines rewritten in place, the user
// file, the recent list, and the deferred open.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include "app/base/tests/QtPrinters.h"
#include "app/tables/SettingsStore.h"
#include "script/Project.h"
#include "script/ZvScript.h"

namespace {

QString ReadText(const QString& sPath) {
  QFile File(sPath);
  return File.open(QIODevice::ReadOnly) ? QString::fromUtf8(File.readAll()) : QString();
}

void WriteText(const QString& sPath, const QString& sText) {
  QFile File(sPath);
  ASSERT_TRUE(File.open(QIODevice::WriteOnly));
  File.write(sText.toUtf8());
}

}  // namespace

TEST(ProjectText, GeneratedProjectHasEveryEventSectionWithSettingsAndUserCommandsApart) {
  QString sText = CProject::GenerateText({"Project.SetDevice (\"Simulator Cortex-M4\");",
                                          "File.Open (\"fw.elf\");", "Project.SetTargetIF (\"SWD\");"});
  QStringList Lines = sText.split('\n');
  // The first section, line by line as a generated file has it; every line padded to 70 characters.
  QStringList Expected = {"/*" + QString(68, '*'),
                          "*",
                          "*       OnProjectLoad",
                          "*",
                          "* Function description",
                          "*   Project load routine. Required.",
                          "*",
                          QString(70, '*'),
                          "*/",
                          "void OnProjectLoad (void) {",
                          "  //",
                          "  // Dialog-generated settings",
                          "  //",
                          "  Project.SetDevice (\"Simulator Cortex-M4\");",
                          "  Project.SetTargetIF (\"SWD\");",
                          "  //",
                          "  // User settings",
                          "  //",
                          "  File.Open (\"fw.elf\");",
                          "}"};
  ASSERT_GE(Lines.size(), Expected.size());
  for (int i = 0; i < Expected.size(); ++i) {
    EXPECT_EQ(Lines[i], Expected[i].leftJustified(70, ' ')) << i;
  }
  // Fourteen sections in event order; the one after the last event isn't part of a generated file.
  const char* aOrder[] = {"OnProjectLoad",         "TargetReset",         "BeforeTargetReset",
                          "AfterTargetReset",      "DebugStart",          "TargetConnect",
                          "BeforeTargetConnect",   "AfterTargetConnect",  "TargetDownload",
                          "BeforeTargetDownload",  "AfterTargetDownload", "BeforeTargetDisconnect",
                          "AfterTargetDisconnect", "AfterTargetHalt"};
  int From = 0;
  for (const char* sName : aOrder) {
    int At = int(sText.indexOf(QString("*       ") + sName, From));
    if (At < 0) {
      At = int(sText.indexOf(QString("*      ") + sName, From));  // the two long names
    }
    EXPECT_GT(At, From - 1) << sName;
    From = At + 1;
  }
  EXPECT_FALSE(sText.contains("BeforeTargetResume"));
  EXPECT_TRUE(sText.contains("//void BeforeTargetConnect (void) {"));
  EXPECT_TRUE(sText.contains("//    Util.Log(\"Resetting Program.\");"));
  EXPECT_TRUE(sText.contains("//    Util.Log(\"Initializing PC and SP.\");"));
  // It is a script that loads and defines only OnProjectLoad.
  EXPECT_EQ(ScriptLoadText(sText), 0) << ScriptGetError().toStdString();
  EXPECT_TRUE(ScriptExists(SF_PROJECT_LOAD));
  EXPECT_FALSE(ScriptExists(SF_TARGET_RESET));
  ScriptClose();
}

TEST(ProjectFiles, SaveThenReopenKeepsTheTextAndClosingNamesTheProject) {
  QTemporaryDir Dir;
  CProject* pProject = CProject::Instance();
  QStringList Closed;
  QMetaObject::Connection c =
      QObject::connect(pProject, &CProject::Closed, [&Closed](const QString& s) { Closed << s; });
  ASSERT_EQ(pProject->NewFromCommands({"Project.SetDevice (\"Simulator Cortex-M3\");"}), 0);
  EXPECT_TRUE(pProject->IsModified());
  EXPECT_TRUE(pProject->GetFilePath().isEmpty());
  const QString sPath = Dir.filePath("saved.zvproj");
  QString sError;
  ASSERT_EQ(pProject->Save(sPath, &sError), 0) << sError.toStdString();
  EXPECT_FALSE(pProject->IsModified());
  QString sSaved = ReadText(sPath);
  EXPECT_TRUE(sSaved.contains("  Project.SetDevice (\"Simulator Cortex-M3\");"));
  ASSERT_EQ(pProject->Open(sPath), 0);
  EXPECT_TRUE(pProject->IsOpen());
  EXPECT_EQ(ReadText(sPath), sSaved);  // opening never writes the project
  EXPECT_EQ(CProject::GetUserFilePath(sPath), Dir.filePath("saved.zvproj.user"));
  EXPECT_EQ(CProject::GetUserFilePath("/no/suffix"), "");
  EXPECT_EQ(pProject->Save(Dir.filePath("missing-dir/x.zvproj"), &sError), -1);
  EXPECT_TRUE(sError.contains("missing-dir/x.zvproj")) << sError.toStdString();
  Closed.clear();
  pProject->Close();
  EXPECT_EQ(Closed, QStringList({sPath}));  // whoever keeps the user file hears which project closed
  EXPECT_FALSE(QFile::exists(CProject::GetUserFilePath(sPath)));  // the project itself writes none
  EXPECT_TRUE(pProject->IsOpen());  // a new, unnamed project stands after closing
  EXPECT_TRUE(pProject->GetFilePath().isEmpty());
  QObject::disconnect(c);
}

TEST(ProjectFiles, ANewProjectIsSavedWithTheSettingsTheSessionRunsWith) {
  QTemporaryDir Dir;
  CProject* pProject = CProject::Instance();
  pProject->Close();
  pProject->SetSettingsCommandSource([] {
    return QStringList({"Project.SetDevice (\"Simulator Cortex-M0\");", "Project.SetTargetIF (\"SWD\");"});
  });
  const QString sPath = Dir.filePath("new.zvproj");
  QString sError;
  ASSERT_EQ(pProject->Save(sPath, &sError), 0) << sError.toStdString();
  pProject->SetSettingsCommandSource({});
  const QString sText = ReadText(sPath);
  const qsizetype Body = sText.indexOf("void OnProjectLoad (void) {");
  ASSERT_GE(Body, 0);
  const qsizetype Device = sText.indexOf("  Project.SetDevice (\"Simulator Cortex-M0\");");
  const qsizetype TargetIF = sText.indexOf("  Project.SetTargetIF (\"SWD\");");
  const qsizetype User = sText.indexOf("  // User settings");
  EXPECT_LT(Body, Device);  // inside OnProjectLoad, with the dialog's settings
  EXPECT_LT(Device, TargetIF);
  EXPECT_LT(TargetIF, User);
  pProject->Close();
}

TEST(ProjectFiles, AProjectWithASyntaxErrorOpensWithItsErrorAndStaysUntouched) {
  QTemporaryDir Dir;
  CProject* pProject = CProject::Instance();
  // An error in the file's structure is found when it loads...
  const QString sUnclosed = Dir.filePath("unclosed.zvproj");
  const QString sUnclosedText = "void OnProjectLoad (void) {\n  Util.Log(\"x\");\n";
  WriteText(sUnclosed, sUnclosedText);
  ASSERT_EQ(pProject->Open(sUnclosed), 0);
  EXPECT_TRUE(pProject->IsOpen());
  EXPECT_TRUE(ScriptHasError());
  EXPECT_EQ(RunEvent(SF_PROJECT_LOAD), -1);  // nothing of it runs
  EXPECT_EQ(ReadText(sUnclosed), sUnclosedText);
  // ... one inside a function when the function runs, with its line.
  const QString sBroken = Dir.filePath("broken.zvproj");
  const QString sText = "void OnProjectLoad (void) {\n  int x;\n  x = 1 +;\n}\n";
  WriteText(sBroken, sText);
  ASSERT_EQ(pProject->Open(sBroken), 0);
  EXPECT_FALSE(ScriptHasError());
  EXPECT_EQ(RunEvent(SF_PROJECT_LOAD), -1);
  EXPECT_TRUE(ScriptHasError());
  EXPECT_TRUE(ScriptGetError().contains("at line 3")) << ScriptGetError().toStdString();
  EXPECT_EQ(ReadText(sBroken), sText);
  pProject->Close();
  EXPECT_EQ(pProject->Open(Dir.filePath("nothere.zvproj")), -1);
  EXPECT_FALSE(pProject->IsOpen());
}

TEST(ProjectFiles, TraceLinesAreReplacedInsideOnProjectLoad) {
  QTemporaryDir Dir;
  const QString sPath = Dir.filePath("trace.zvproj");
  WriteText(sPath,
            "void OnProjectLoad (void) {\n"
            "  Project.SetDevice (\"x\");\n"
            "  Project.SetTracePortWidth (4);\n"
            "  Project.SetTIFSpeed (\"4 MHz\");\n"
            "  if (1) {\n"
            "    Project.SetTraceSource (\"Trace Buffer\");\n"
            "  }\n"
            "}\n"
            "void AfterTargetHalt (void) {\n"
            "  Project.SetTracePortWidth (1);\n"
            "}\n");
  QString sError;
  ASSERT_EQ(
      CProject::UpdateProjectFile(
          sPath, {"Project.SetTraceSource (\"Trace Pins\");", "Project.SetTracePortWidth (2);"}, &sError),
      0)
      << sError.toStdString();
  EXPECT_EQ(ReadText(sPath),
            "void OnProjectLoad (void) {\n"
            "  Project.SetDevice (\"x\");\n"
            "  Project.SetTIFSpeed (\"4 MHz\");\n"
            "  Project.SetTraceSource (\"Trace Pins\");\n"
            "  Project.SetTracePortWidth (2);\n"
            "  if (1) {\n"
            "  }\n"
            "}\n"
            "void AfterTargetHalt (void) {\n"
            "  Project.SetTracePortWidth (1);\n"
            "}\n");
  WriteText(sPath, "void Other (void) {\n}\n");
  EXPECT_EQ(CProject::UpdateProjectFile(sPath, {"x"}, &sError), -1);
  EXPECT_EQ(sError, "Could not determine text position of function body start");
  WriteText(sPath, "void OnProjectLoad (void) {\n  Util.Log(\"x\");\n");
  EXPECT_EQ(CProject::UpdateProjectFile(sPath, {"x"}, &sError), -1);
  EXPECT_EQ(sError, "Could not determine text position of function body end");
}

TEST(ProjectFiles, UserFileKeepsShownWindowsAndSkipsWhatItCannotRead) {
  QTemporaryDir Dir;
  const QString sPath = Dir.filePath("p.zvproj.user");
  QString sError;
  ASSERT_EQ(CProject::WriteUserFile(sPath, {{"dockWidgetConsole", "BOTTOM", 0, 1, 800, 200}}, &sError), 0);
  EXPECT_EQ(ReadText(sPath), "OpenWindow=\"dockWidgetConsole\", DockArea=BOTTOM, x=0, y=1, w=800, h=200\n");
  WriteText(
      sPath,
      "OpenWindow=\"dockWidgetMemory1\", DockArea=FLOATING, x=10, y=20, w=300, h=400, Colour=red // note\n"
      "# a comment line\n"
      "DockArea=LEFT, OpenWindow=\"misplaced\"\n"
      "OpenWindow=\"dockWidgetRegister\", x=abc, w=50\n");
  QList<CProject::USER_WINDOW> Windows = CProject::ReadUserFile(sPath);
  ASSERT_EQ(Windows.size(), 2);
  EXPECT_EQ(Windows[0].sName, "dockWidgetMemory1");
  EXPECT_EQ(Windows[0].sArea, "FLOATING");
  EXPECT_EQ(Windows[0].h, 400);
  EXPECT_EQ(Windows[1].sName, "dockWidgetRegister");
  EXPECT_EQ(Windows[1].x, 0);  // a bad number is ignored
  EXPECT_EQ(Windows[1].w, 50);
  EXPECT_EQ(CProject::WriteUserFile(QString(), {}, &sError), 0);  // a new project writes none
}

TEST(ProjectFiles, RecentListHoldsFourMostRecentFirst) {
  StoreClear();
  for (const char* s : {"/a.zvproj", "/b.zvproj", "/c.zvproj", "/d.zvproj", "/e.zvproj", "/c.zvproj"}) {
    CProject::AddRecentProject(s);
  }
  EXPECT_EQ(CProject::GetRecentProjects(), QStringList({"/c.zvproj", "/e.zvproj", "/d.zvproj", "/b.zvproj"}));
  CProject::ReplaceRecentProject("/e.zvproj", "/f.zvproj");
  EXPECT_EQ(CProject::GetRecentProjects(), QStringList({"/c.zvproj", "/f.zvproj", "/d.zvproj", "/b.zvproj"}));
  StoreClear();
}

TEST(ProjectFiles, ADeferredOpenTakesPlaceOnceEventsAreProcessed) {
  QTemporaryDir Dir;
  const QString sPath = Dir.filePath("later.zvproj");
  WriteText(sPath, "void OnProjectLoad (void) {\n}\n");
  CProject* pProject = CProject::Instance();
  QStringList Opened;
  QMetaObject::Connection c =
      QObject::connect(pProject, &CProject::Opened, [&Opened](const QString& s) { Opened << s; });
  pProject->OpenDeferred(sPath);
  EXPECT_TRUE(pProject->IsPending());
  EXPECT_TRUE(Opened.isEmpty());
  QElapsedTimer Waited;
  Waited.start();
  while (pProject->IsPending() && Waited.elapsed() < 5000) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  EXPECT_FALSE(pProject->IsPending());
  EXPECT_EQ(Opened, QStringList({sPath}));
  QObject::disconnect(c);
  pProject->Close();
}
