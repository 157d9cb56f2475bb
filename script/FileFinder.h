// The file finder: turns a path that was right on the machine that built a program or wrote a project
// into an existing file of this machine, through macros, file aliases, path substitutes, root paths and
// search paths that the project sets, and a search by kind of file.
#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

#include "app/base/Types.h"

// File kinds, decided by the lower-cased suffix behind the last "." of the file name. The lists are
// also the filters of the file dialogs.
constexpr const char* FILE_FILTER_SOURCE = "*.h *.c *.hpp *.cpp *.s";
constexpr const char* FILE_FILTER_REGISTER = "*.svd *.xml";
constexpr const char* FILE_FILTER_PLUGIN = "*.dll *.so *.dylib";
constexpr const char* FILE_FILTER_PROGRAM = "*.bin *.mot *.srec *.hex *.elf *.out *.axf";  // the finder's
constexpr const char* FILE_FILTER_DATA = "*.bin *.mot *.srec *.hex *.elf";                 // open dialog's
constexpr const char* FILE_FILTER_PROJECT = "*.zvproj";
constexpr const char* FILE_FILTER_DOCUMENT = "*.txt *.pdf *.html";

// What stands behind the last "." of the file name (not of a folder name), lower-cased; empty when the
// name has no ".".
QString GetFileSuffix(const QString& sPath);
// True when the suffix of sPath is one of the "*.x" entries of sFilter (a FILE_FILTER_* list).
bool MatchesFileFilter(const QString& sPath, const char* sFilter);
// True for "X:" at the start of the path, with X an ASCII letter: a path of a Windows machine, absolute
// there even though it is relative here.
bool HasDriveLetter(const QString& sPath);

// The folders of the installation. The application knows where they are and sets them at start-up;
// until then they are derived from the folder of the running program. Each is stored without a
// trailing slash; an empty one is skipped by every search.
struct FILE_FINDER_FOLDERS {
  QString sApp;         // $(ExecutableDir), $(InstallDir), $(AppBundleDir)
  QString sConfig;      // $(ConfigDir); register descriptions below it
  QString sPeripheral;  // where the register description dialog starts
  QString sLibrary;     // $(LibraryDir)
  QString sDoc;         // $(DocDir)
  QString sPlugin;      // $(PluginDir)
};

// The layout of an installation below sAppFolder: Config, Config/Peripherals, Lib, Doc and Plugins.
FILE_FINDER_FOLDERS MakeDefaultFinderFolders(const QString& sAppFolder);

// One finder serves the process (GetFileFinder()); the project fills it from the Project.* commands
// of OnProjectLoad and resets it when it closes. Settings take effect from the moment they are added:
// a path resolved before isn't resolved again. Used on the main thread only.
//
// Nothing here fails: a file that can't be found is an empty string (or, for an absolute path, the
// path itself), and the caller says "file not found". Paths come from untrusted files; any text,
// however odd, gives a result and never touches anything but the file system's lookup.
class CFileFinder {
 public:
  CFileFinder();

  void SetFolders(const FILE_FINDER_FOLDERS& Folders);
  const FILE_FINDER_FOLDERS& GetFolders() const { return _Folders; }
  // The open project's file, behind $(ProjectDir) and the project folder of the search, and the program
  // file, behind $(AppDir). Both may be empty. Reset() forgets them, since they belong to the project.
  void SetProjectFile(const QString& sPath);
  void SetProgramFile(const QString& sPath);
  // Canonical folders of the two files, without a trailing slash; empty when there is no such file.
  QString GetProjectDir();
  QString GetProgramDir();

  // Empties aliases, substitutes, root and search paths, the counters and the memory of logged paths,
  // and forgets the project and program file. The installation folders stay.
  void Reset();

  // Project.AddRootPath: macros are expanded and the path cleaned; a relative path is looked up in the
  // folders a relative path is searched in (see Resolve) and replaced by the folder found there, or
  // kept as it is if there is none.
  void AddRootPath(const QString& sPath);
  // Project.AddSearchPath: macros are expanded.
  void AddSearchPath(const QString& sPath);
  // Project.AddFileAlias, and the main window when the user points out a missing file: sOldPath (with
  // macros expanded) stands for sNewPath (expanded and cleaned). An alias for the same old path replaces
  // the earlier one. An empty old path is ignored.
  void AddFileAlias(const QString& sOldPath, const QString& sNewPath);
  // Project.AddPathSubstitute: every occurrence of sOldPart (in exact case) in a path becomes sNewPart.
  // Both are expanded and cleaned; an equal old part replaces the earlier one. An empty old part is
  // ignored, as it would match between any two characters.
  void AddPathSubstitute(const QString& sOldPart, const QString& sNewPart);

  const QStringList& GetRootPaths() const { return _RootPaths; }
  const QStringList& GetSearchPaths() const { return _SearchPaths; }

  // Replaces every $(DocDir), $(PluginDir), $(ProjectDir), $(InstallDir), $(ExecutableDir), $(AppDir),
  // $(AppBundleDir), $(ConfigDir) and $(LibraryDir) (exact case) by its folder and a "/". A macro whose
  // folder isn't known becomes nothing; an unknown macro stays. The result isn't cleaned.
  QString ExpandMacros(const QString& sPath);

  // The file of this machine that sPath names, or an empty string. In order: macros, the first alias
  // whose old path equals the path ignoring case (as it stands or cleaned), then all substitutes. A path
  // absolute here or on a Windows machine is then the result, cleaned, whether it exists or not. A
  // relative one is taken if it exists, and otherwise searched by kind: below the root paths, the
  // project folder, the application folder and the program's folder, and by file name in the search
  // paths and, for register descriptions, plug-ins and documents, in their installation folders.
  // Source files are counted; for other files the outcome is logged once per path.
  QString Resolve(const QString& sPath);

  // The old path of the alias whose new path is sResolved (ignoring case); otherwise sResolved.
  QString GetOriginalPath(const QString& sResolved) const;
  // Where a file dialog for sPath starts: the folder of an existing file, otherwise the installation
  // folder of its kind (peripheral descriptions, documents, plug-ins) or the application folder.
  QString GetFolderForFile(const QString& sPath);

  U32 GetSourcesNotFound() const { return _SourcesNotFound; }
  U32 GetSourcesResolved() const { return _SourcesResolved; }
  // The closing lines of File.Open, to all channels: "File.Open: N source file paths resolved" and
  // "File.Open: N source files not found", each only when N is above 0.
  void LogSourceCounts() const;

 private:
  QString _ResolveByDirs(const QString& sPath, const QStringList& Dirs);
  QString _ResolveRegisterFile(const QString& sPath);
  QString _SearchDirs(const QString& sName, const QStringList& Dirs);
  QString _SearchRoots(const QString& sPath, bool Strict);
  void _Account(const QString& sInput, const QString& sResult, bool IsSource);

  FILE_FINDER_FOLDERS _Folders;
  QString _sProjectFile;
  QString _sProgramFile;
  QString _sProjectDirCache;  // canonical folder of _sProjectFile, once it has been found
  QString _sProjectDirCacheKey;

  QMap<QString, QString> _Aliases;
  QMap<QString, QString> _Substitutes;
  QMap<QString, bool> _Reported;
  QStringList _SearchPaths;
  QStringList _RootPaths;
  bool _FoundInProject = false;
  U32 _SourcesNotFound = 0;
  U32 _SourcesResolved = 0;
};

CFileFinder& GetFileFinder();
