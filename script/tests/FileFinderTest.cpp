// The file finder against a laid-out installation, project and moved sources: kinds of file, macros, the
// search rules with root paths, search paths, aliases and substitutes, the counts and log lines, and
// untrusted paths that must give an answer without harm.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTemporaryDir>
#include <string>
#include <vector>

#include "app/base/ConsoleCore.h"
#include "script/FileFinder.h"

namespace {

// Paths and log lines compared as plain text, so that a mismatch prints readably.
std::string Text(const QString& s) {
  return s.toStdString();
}
std::string Lines(const QStringList& List) {
  return List.join("\n").toStdString();
}
#define EXPECT_TEXT(Actual, Expected) EXPECT_EQ(Text(Actual), Text(Expected))
#define EXPECT_LINES(Actual, Expected) EXPECT_EQ(Lines(Actual), Lines(Expected))

// Files of the layout, below the temporary root. The installation sits in "app", the documentation in
// "docs" (apart from "app/Doc", so that both places are told apart), the project in "proj", the program
// in "prog", and "moved" holds sources that left the folder they were built in.
const char* const _apsLayout[] = {
    "app/Config/CPU/Cortex-M4.svd",
    "app/Config/stm32.xml",
    "app/Config/Peripherals/periph.svd",
    "app/Plugins/OS/rtos.so",
    "app/Plugins/Core/coreplugin",
    "app/Doc/manual.pdf",
    "docs/notes.txt",
    "proj/demo.zvproj",
    "proj/src/main.c",
    "proj/inc/board.h",
    "proj/out/app.hex",
    "prog/firmware.elf",
    "moved/src/main.c",
    "moved/lib/util.c",
    "moved/other.zvproj",
    "moved/data.xyz",
};

class FileFinder : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(_Dir.isValid());
    _sRoot = QFileInfo(_Dir.path()).canonicalFilePath();
    for (const char* sFile : _apsLayout) {
      QString sPath = _sRoot + "/" + sFile;
      ASSERT_TRUE(QDir().mkpath(QFileInfo(sPath).path()));
      QFile File(sPath);
      ASSERT_TRUE(File.open(QIODevice::WriteOnly));
      File.write(sFile);
    }
    FILE_FINDER_FOLDERS Folders;
    Folders.sApp = _sRoot + "/app";
    Folders.sConfig = _sRoot + "/app/Config";
    Folders.sPeripheral = _sRoot + "/app/Config/Peripherals";
    Folders.sLibrary = _sRoot + "/app/Lib";
    Folders.sDoc = _sRoot + "/docs";
    Folders.sPlugin = _sRoot + "/app/Plugins";
    _Finder.SetFolders(Folders);
    _Finder.SetProjectFile(_sRoot + "/proj/demo.zvproj");
    _Finder.SetProgramFile(_sRoot + "/prog/firmware.elf");
    ConsoleSetMirror([this](const QString& s) { _Log << s; });
  }
  void TearDown() override {
    ConsoleSetMirror({});
    ConsoleClearRing();
  }
  // "@" in a table text stands for the temporary root.
  QString At(const char* sText) const { return QString::fromUtf8(sText).replace("@", _sRoot); }

  QTemporaryDir _Dir;
  QString _sRoot;
  CFileFinder _Finder;
  QStringList _Log;
};

enum SETTING_KIND { ROOT, SEARCH, ALIAS, SUBSTITUTE };

struct SETTING {
  SETTING_KIND Kind;
  const char* sFirst;
  const char* sSecond;
};

struct RESOLVE_CASE {
  const char* sWhat;
  std::vector<SETTING> Settings;
  const char* sInput;
  const char* sExpected;  // "" when nothing is found
};

const RESOLVE_CASE _aResolveCases[] = {
    {"project macro, doubled slash cleaned", {}, "$(ProjectDir)/src/main.c", "@/proj/src/main.c"},
    {"program macro", {}, "$(AppDir)firmware.elf", "@/prog/firmware.elf"},
    {"relative source below the project folder", {}, "src/main.c", "@/proj/src/main.c"},
    {"mixed separators and dots", {}, "src\\..\\src/./main.c", "@/proj/src/main.c"},
    {"climbing out and back into the project", {}, "../proj/src/main.c", "@/proj/src/main.c"},
    {"relative path below the program's folder", {}, "firmware.elf", "@/prog/firmware.elf"},
    {"root path comes before the project folder",
     {{ROOT, "@/moved", ""}},
     "src/main.c",
     "@/moved/src/main.c"},
    {"relative root path found next to the project",
     {{ROOT, "../moved", ""}},
     "src/main.c",
     "@/moved/src/main.c"},
    {"source by file name in a search path",
     {{SEARCH, "@/moved/lib", ""}},
     "build/lib/util.c",
     "@/moved/lib/util.c"},
    {"relative search path looked up through the roots",
     {{ROOT, "@/moved", ""}, {SEARCH, "lib", ""}},
     "util.c",
     "@/moved/lib/util.c"},
    {"source that is nowhere", {{SEARCH, "@/moved/lib", ""}}, "lost.c", ""},
    {"alias matches in another case",
     {{ALIAS, "C:/Build/src/main.c", "@/moved/src/main.c"}},
     "c:/BUILD/src/main.c",
     "@/moved/src/main.c"},
    {"alias written with backslashes",
     {{ALIAS, "C:\\Build\\src\\main.c", "@/moved/src/main.c"}},
     "C:/Build/src/main.c",
     "@/moved/src/main.c"},
    {"alias to a macro",
     {{ALIAS, "/home/ci/firmware/main.c", "$(ProjectDir)/src/main.c"}},
     "/home/ci/firmware/main.c",
     "@/proj/src/main.c"},
    {"later alias for the same path wins",
     {{ALIAS, "/ci/main.c", "@/proj/src/main.c"}, {ALIAS, "/ci/main.c", "@/moved/src/main.c"}},
     "/ci/main.c",
     "@/moved/src/main.c"},
    {"substitute moves a folder",
     {{SUBSTITUTE, "C:/Build", "@/moved"}},
     "C:/Build/src/main.c",
     "@/moved/src/main.c"},
    {"substitute on a path with backslashes",
     {{SUBSTITUTE, "C:/Build", "@/moved"}},
     "C:\\Build\\lib\\util.c",
     "@/moved/lib/util.c"},
    {"substitute in another case isn't replaced",
     {{SUBSTITUTE, "C:/build", "@/moved"}},
     "C:/Build/src/main.c",
     "C:/Build/src/main.c"},
    {"substitute to a macro",
     {{SUBSTITUTE, "/opt/ci/work", "$(ProjectDir)"}},
     "/opt/ci/work/inc/board.h",
     "@/proj/inc/board.h"},
    {"later substitute for the same part wins",
     {{SUBSTITUTE, "/ci", "@/proj"}, {SUBSTITUTE, "/ci", "@/moved"}},
     "/ci/src/main.c",
     "@/moved/src/main.c"},
    {"drive letter that doesn't exist stays as it is", {}, "X:/nowhere/main.c", "X:/nowhere/main.c"},
    {"absolute path isn't searched by name",
     {{SEARCH, "@/moved/src", ""}},
     "/nonexistent-zevra/src/main.c",
     "/nonexistent-zevra/src/main.c"},
    {"CPU register description with no project settings",
     {},
     "Cortex-M4.svd",
     "@/app/Config/CPU/Cortex-M4.svd"},
    {"register description tried as xml", {}, "stm32.svd", "@/app/Config/stm32.xml"},
    {"register description tried as svd first", {}, "periph.xml", "@/app/Config/Peripherals/periph.svd"},
    {"register description from a foreign path",
     {},
     "C/tools/svd/Cortex-M4.svd",
     "@/app/Config/CPU/Cortex-M4.svd"},
    {"plug-in from the OS subfolder", {}, "rtos.so", "@/app/Plugins/OS/rtos.so"},
    {"name without suffix among the plug-ins", {}, "coreplugin", "@/app/Plugins/Core/coreplugin"},
    {"document in the documentation folder", {}, "notes.txt", "@/docs/notes.txt"},
    {"document in the application's Doc folder", {}, "manual.pdf", "@/app/Doc/manual.pdf"},
    {"data file with a drive letter isn't searched",
     {{SEARCH, "@/proj/out", ""}},
     "D:/ci/app.hex",
     "D:/ci/app.hex"},
    {"data file name in a search path", {{SEARCH, "@/proj/out", ""}}, "ci/app.hex", "@/proj/out/app.hex"},
    {"data file without search paths", {}, "app.hex", ""},
    {"project file in a search path", {{SEARCH, "@/moved", ""}}, "other.zvproj", "@/moved/other.zvproj"},
    {"other suffix searched like a source", {{SEARCH, "@/moved", ""}}, "data.xyz", "@/moved/data.xyz"},
    {"empty path", {{SEARCH, "@/moved", ""}}, "", ""},
};

TEST_F(FileFinder, ResolvesByMacrosAliasesSubstitutesAndSearchRules) {
  for (const RESOLVE_CASE& Case : _aResolveCases) {
    SCOPED_TRACE(Case.sWhat);
    _Finder.Reset();
    _Finder.SetProjectFile(_sRoot + "/proj/demo.zvproj");
    _Finder.SetProgramFile(_sRoot + "/prog/firmware.elf");
    for (const SETTING& Setting : Case.Settings) {
      switch (Setting.Kind) {
        case ROOT:
          _Finder.AddRootPath(At(Setting.sFirst));
          break;
        case SEARCH:
          _Finder.AddSearchPath(At(Setting.sFirst));
          break;
        case ALIAS:
          _Finder.AddFileAlias(At(Setting.sFirst), At(Setting.sSecond));
          break;
        case SUBSTITUTE:
          _Finder.AddPathSubstitute(At(Setting.sFirst), At(Setting.sSecond));
          break;
      }
    }
    EXPECT_TEXT(_Finder.Resolve(At(Case.sInput)), At(Case.sExpected));
  }
}

// The case of the issue: a program built elsewhere names its sources three ways, and each way has its
// remedy; the closing lines of File.Open count the outcome.
TEST_F(FileFinder, MovedSourcesAreFoundThroughRootAliasAndSubstituteAndCounted) {
  _Finder.AddRootPath("$(ProjectDir)/../moved");
  _Finder.AddFileAlias("/home/ci/board.h", "$(ProjectDir)/inc/board.h");
  _Finder.AddPathSubstitute("C:/Build", At("@/moved"));

  EXPECT_TEXT(_Finder.Resolve("src/main.c"), At("@/moved/src/main.c"));
  EXPECT_TEXT(_Finder.Resolve("/home/ci/board.h"), At("@/proj/inc/board.h"));
  EXPECT_TEXT(_Finder.Resolve("C:\\Build\\lib\\util.c"), At("@/moved/lib/util.c"));
  EXPECT_TEXT(_Finder.Resolve("/home/ci/gone.c"), "/home/ci/gone.c");
  EXPECT_TRUE(_Log.isEmpty()) << _Log.join("\n").toStdString();  // sources are counted, not logged

  _Finder.LogSourceCounts();
  EXPECT_LINES(
      _Log, QStringList({"File.Open: 3 source file paths resolved", "File.Open: 1 source files not found"}));
}

TEST_F(FileFinder, LogsOtherFilesOncePerPathAndNotWhenFoundInTheProject) {
  for (int Round = 0; Round < 2; Round++) {
    _Finder.Resolve("Cortex-M4.svd");
    _Finder.Resolve("missing.svd");
    _Finder.Resolve("demo.zvproj");               // below the project folder: silent
    _Finder.Resolve(At("@/app/Doc/manual.pdf"));  // found where it was named: silent
  }
  EXPECT_LINES(_Log, QStringList({At("File path resolved: \"Cortex-M4.svd\" was found at "
                                     "\"@/app/Config/CPU/Cortex-M4.svd\""),
                                  "File not found: missing.svd"}));
  EXPECT_EQ(_Finder.GetSourcesResolved(), 0u);
  EXPECT_EQ(_Finder.GetSourcesNotFound(), 0u);

  _Log.clear();
  _Finder.LogSourceCounts();
  EXPECT_TRUE(_Log.isEmpty());  // no counts above zero, no lines
}

TEST_F(FileFinder, ResetForgetsSettingsCountsAndLoggedPaths) {
  _Finder.AddRootPath(At("@/moved"));
  _Finder.AddFileAlias("/ci/a.c", At("@/moved/src/main.c"));
  _Finder.AddSearchPath(At("@/moved/lib"));
  _Finder.Resolve("src/main.c");
  _Finder.Resolve("lost.c");
  _Finder.Resolve("missing.svd");

  _Finder.Reset();
  EXPECT_TRUE(_Finder.GetRootPaths().isEmpty());
  EXPECT_TRUE(_Finder.GetSearchPaths().isEmpty());
  EXPECT_EQ(_Finder.GetSourcesResolved(), 0u);
  EXPECT_EQ(_Finder.GetSourcesNotFound(), 0u);
  EXPECT_TEXT(_Finder.GetProjectDir(), "");
  EXPECT_TEXT(_Finder.Resolve("/ci/a.c"), "/ci/a.c");  // the alias is gone
  EXPECT_TEXT(_Finder.Resolve("util.c"), "");          // so is the search path
  _Log.clear();
  _Finder.Resolve("missing.svd");
  EXPECT_LINES(_Log, QStringList({"File not found: missing.svd"}));  // logged anew for the next project
}

TEST_F(FileFinder, ExpandsEachMacroToItsFolder) {
  const struct {
    const char* sInput;
    const char* sExpected;
  } aCases[] = {
      {"no/macro/here.c", "no/macro/here.c"},
      {"$(ProjectDir)/src/main.c", "@/proj//src/main.c"},
      {"$(DocDir)a.pdf", "@/docs/a.pdf"},
      {"$(PluginDir)x", "@/app/Plugins/x"},
      {"$(InstallDir)|$(ExecutableDir)|$(AppBundleDir)", "@/app/|@/app/|@/app/"},
      {"$(AppDir)", "@/prog/"},
      {"$(ConfigDir)$(LibraryDir)", "@/app/Config/@/app/Lib/"},
      {"$(ProjectDir)$(ProjectDir)", "@/proj/@/proj/"},
      {"$(projectdir)/x", "$(projectdir)/x"},
      {"$(Unknown)/x", "$(Unknown)/x"},
      {"$(ProjectDir", "$(ProjectDir"},
      {"$", "$"},
  };
  for (const auto& Case : aCases) {
    SCOPED_TRACE(Case.sInput);
    EXPECT_TEXT(_Finder.ExpandMacros(Case.sInput), At(Case.sExpected));
  }
  // Without a project its macro becomes nothing rather than the root of the file system.
  _Finder.SetProjectFile("");
  EXPECT_TEXT(_Finder.ExpandMacros("$(ProjectDir)src/main.c"), "src/main.c");
}

TEST_F(FileFinder, RootPathsAreCleanedAndRelativeOnesLookedUp) {
  const struct {
    const char* sInput;
    QStringList Expected;
  } aCases[] = {
      {"@/moved/./src/../", {"@/moved"}},
      {"../moved", {"@/moved"}},                // next to the project
      {"$(ProjectDir)/../moved", {"@/moved"}},  // the same through the macro
      {"not-there", {"not-there"}},             // kept, though nothing is found
      {"E:\\ci\\src", {"E:/ci/src"}},           // a drive letter isn't looked up
      {"", {}},                                 // nothing to add
  };
  for (const auto& Case : aCases) {
    SCOPED_TRACE(Case.sInput);
    _Finder.Reset();
    _Finder.SetProjectFile(_sRoot + "/proj/demo.zvproj");
    _Finder.AddRootPath(At(Case.sInput));
    QStringList Expected;
    for (const QString& s : Case.Expected) {
      Expected << At(s.toUtf8().constData());
    }
    EXPECT_LINES(_Finder.GetRootPaths(), Expected);
  }
}

TEST_F(FileFinder, OriginalPathIsTheAliasOfAResolvedFile) {
  _Finder.AddFileAlias("C:/Build/src/main.c", At("@/moved/src/main.c"));
  EXPECT_TEXT(_Finder.GetOriginalPath(At("@/moved/src/main.c")), "C:/Build/src/main.c");
  EXPECT_TEXT(_Finder.GetOriginalPath(At("@/moved/src/main.c").toUpper()), "C:/Build/src/main.c");
  EXPECT_TEXT(_Finder.GetOriginalPath(At("@/proj/src/main.c")), At("@/proj/src/main.c"));
}

TEST_F(FileFinder, FolderForFileIsItsOwnFolderOrTheFolderOfItsKind) {
  const struct {
    const char* sInput;
    const char* sExpected;
  } aCases[] = {
      {"@/proj/src/main.c", "@/proj/src"},
      {"@/proj/src/../inc/board.h", "@/proj/inc"},
      {"missing.svd", "@/app/Config/Peripherals"},
      {"missing.XML", "@/app/Config/Peripherals"},
      {"guide.html", "@/docs"},
      {"rtos.dylib", "@/app/Plugins"},
      {"main.c", "@/app"},
      {"@/proj/src", "@/app"},  // a folder is no file
      {"", "@/app"},
  };
  for (const auto& Case : aCases) {
    SCOPED_TRACE(Case.sInput);
    EXPECT_TEXT(_Finder.GetFolderForFile(At(Case.sInput)), At(Case.sExpected));
  }
}

// Whatever a project file or debug information holds, the answer is empty, an existing file, or a path
// absolute here or on a Windows machine, and nothing crashes.
TEST_F(FileFinder, UntrustedPathsGiveAnAnswerWithoutHarm) {
  _Finder.AddRootPath(At("@/moved"));
  _Finder.AddSearchPath(At("@/moved/lib"));
  _Finder.AddPathSubstitute("/ci", At("@/moved"));
  QStringList Inputs = {
      "",
      ".",
      "..",
      "../../../../../../../../..",
      "/",
      "\\\\server\\share\\x.c",
      "C:",
      "C:foo.c",
      ":",
      "$()",
      "$(ProjectDir)$(AppDir)$(DocDir)",
      "a/../../../../b.c",
      "src//\\//main.c",
      QString("a/").repeated(5000) + "x.c",
      QString("x").repeated(300) + ".svd",
      QString("x").repeated(300),
      QString("bad") + QChar(0) + "name.c",
      QString::fromUtf8("\xC3\xA4:/umlaut/main.c"),
  };
  for (const QString& sInput : Inputs) {
    SCOPED_TRACE(sInput.left(80).toStdString());
    QString sResult = _Finder.Resolve(sInput);
    EXPECT_TRUE(sResult.isEmpty() || QFileInfo(sResult).isFile() || HasDriveLetter(sResult) ||
                QDir::isAbsolutePath(sResult))
        << sResult.left(80).toStdString();
    _Finder.GetFolderForFile(sInput);
    _Finder.GetOriginalPath(sInput);
  }
}

TEST(FileKinds, SuffixDecidesTheKind) {
  constexpr unsigned SRC = 1, REG = 2, PLUG = 4, PROG = 8, DATA = 16, PROJ = 32, DOC = 64;
  const struct {
    const char* sPath;
    unsigned Kinds;
  } aCases[] = {
      {"main.c", SRC},
      {"MAIN.CPP", SRC},
      {"start.S", SRC},
      {"x.hpp", SRC},
      {"dev.svd", REG},
      {"dev.XML", REG},
      {"os.dll", PLUG},
      {"os.dylib", PLUG},
      {"a.out", PROG},
      {"a.axf", PROG},
      {"a.elf", PROG | DATA},
      {"a.srec", PROG | DATA},
      {"a.mot", PROG | DATA},
      {"demo.zvproj", PROJ},
      {"demo.zvproj.user", 0},
      {"notes.txt", DOC},
      {"index.html", DOC},
      {"archive.tar.gz", 0},
      {"C:\\src.dir\\main.c", SRC},
      {"src.dir/Makefile", 0},
      {"trailing.", 0},
      {"", 0},
  };
  for (const auto& Case : aCases) {
    SCOPED_TRACE(Case.sPath);
    unsigned Kinds = (MatchesFileFilter(Case.sPath, FILE_FILTER_SOURCE) ? SRC : 0) |
                     (MatchesFileFilter(Case.sPath, FILE_FILTER_REGISTER) ? REG : 0) |
                     (MatchesFileFilter(Case.sPath, FILE_FILTER_PLUGIN) ? PLUG : 0) |
                     (MatchesFileFilter(Case.sPath, FILE_FILTER_PROGRAM) ? PROG : 0) |
                     (MatchesFileFilter(Case.sPath, FILE_FILTER_DATA) ? DATA : 0) |
                     (MatchesFileFilter(Case.sPath, FILE_FILTER_PROJECT) ? PROJ : 0) |
                     (MatchesFileFilter(Case.sPath, FILE_FILTER_DOCUMENT) ? DOC : 0);
    EXPECT_EQ(Kinds, Case.Kinds);
  }
}

TEST(FileKinds, DriveLetterIsALetterAndAColonAtTheStart) {
  const struct {
    const char* sPath;
    bool Expected;
  } aCases[] = {
      {"C:/x", true},   {"c:", true}, {"z:\\x", true}, {"1:/x", false},
      {"/C:/x", false}, {"", false},  {"C", false},    {"\xC3\xA4:/x", false},
  };
  for (const auto& Case : aCases) {
    SCOPED_TRACE(Case.sPath);
    EXPECT_EQ(HasDriveLetter(QString::fromUtf8(Case.sPath)), Case.Expected);
  }
}

}  // namespace
