// The file finder's rules. A path goes through macros, aliases and substitutes as text, and only then
// touches the file system, in a fixed order of folders per kind of file.
#include "script/FileFinder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include "app/base/Log.h"

// Paths from debug information of a Windows build use backslashes; cleaning turns them into slashes
// here too, so that aliases and substitutes written with either kind of separator match.
static QString _CleanPath(const QString& sPath) {
  QString s = sPath;
  s.replace(QLatin1Char('\\'), QLatin1Char('/'));
  return QDir::cleanPath(s);
}

static bool _IsAbsoluteHere(const QString& sPath) {
  return !QDir::isRelativePath(sPath);
}

static bool _IsFile(const QString& sPath) {
  return !sPath.isEmpty() && QFileInfo(sPath).isFile();
}

static QString _FolderWithSlash(const QString& sFolder) {
  return sFolder.isEmpty() ? QString() : sFolder + "/";
}

static QString _Join(const QString& sFolder, const QString& sPath) {
  return _CleanPath(sFolder + "/" + sPath);
}

static QString _CanonicalFolderOf(const QString& sFile) {
  if (sFile.isEmpty()) {
    return QString();
  }
  return QFileInfo(sFile).canonicalPath();
}

// The file name of a path with either kind of separator.
static QString _FileName(const QString& sPath) {
  qsizetype Pos = qMax(sPath.lastIndexOf(QLatin1Char('/')), sPath.lastIndexOf(QLatin1Char('\\')));
  return sPath.mid(Pos + 1);
}

QString GetFileSuffix(const QString& sPath) {
  QString sName = _FileName(sPath);
  qsizetype Pos = sName.lastIndexOf(QLatin1Char('.'));
  return Pos < 0 ? QString() : sName.mid(Pos + 1).toLower();
}

bool MatchesFileFilter(const QString& sPath, const char* sFilter) {
  if (sFilter == nullptr) {
    return false;
  }
  QString sSuffix = GetFileSuffix(sPath);
  if (sSuffix.isEmpty()) {
    return false;
  }
  const QStringList Patterns = QString::fromLatin1(sFilter).split(QLatin1Char(' '), Qt::SkipEmptyParts);
  for (const QString& sPattern : Patterns) {
    if (sPattern.startsWith(QLatin1String("*.")) && sPattern.mid(2) == sSuffix) {
      return true;
    }
  }
  return false;
}

bool HasDriveLetter(const QString& sPath) {
  if (sPath.size() < 2 || sPath[1] != QLatin1Char(':')) {
    return false;
  }
  char16_t c = sPath[0].unicode();
  return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z');
}

FILE_FINDER_FOLDERS MakeDefaultFinderFolders(const QString& sAppFolder) {
  FILE_FINDER_FOLDERS Folders;
  if (sAppFolder.isEmpty()) {
    return Folders;
  }
  Folders.sApp = _CleanPath(sAppFolder);
  Folders.sConfig = Folders.sApp + "/Config";
  Folders.sPeripheral = Folders.sConfig + "/Peripherals";
  Folders.sLibrary = Folders.sApp + "/Lib";
  Folders.sDoc = Folders.sApp + "/Doc";
  Folders.sPlugin = Folders.sApp + "/Plugins";
  return Folders;
}

CFileFinder::CFileFinder() {
  // Without an application object there is no program folder to derive from (and Qt would warn).
  if (QCoreApplication::instance() != nullptr) {
    _Folders = MakeDefaultFinderFolders(QCoreApplication::applicationDirPath());
  }
}

void CFileFinder::SetFolders(const FILE_FINDER_FOLDERS& Folders) {
  auto Clean = [](const QString& s) { return s.isEmpty() ? QString() : _CleanPath(s); };
  _Folders.sApp = Clean(Folders.sApp);
  _Folders.sConfig = Clean(Folders.sConfig);
  _Folders.sPeripheral = Clean(Folders.sPeripheral);
  _Folders.sLibrary = Clean(Folders.sLibrary);
  _Folders.sDoc = Clean(Folders.sDoc);
  _Folders.sPlugin = Clean(Folders.sPlugin);
}

void CFileFinder::SetProjectFile(const QString& sPath) {
  _sProjectFile = sPath;
}

void CFileFinder::SetProgramFile(const QString& sPath) {
  _sProgramFile = sPath;
}

QString CFileFinder::GetProjectDir() {
  // Every relative path asks for this folder, so the file system is asked once per project file. A file
  // not yet saved has no folder; it is asked again until it has one.
  QString sKey = _sProjectFile.toLower();
  if (_sProjectDirCache.isEmpty() || _sProjectDirCacheKey != sKey) {
    _sProjectDirCache = _CanonicalFolderOf(_sProjectFile);
    _sProjectDirCacheKey = sKey;
  }
  return _sProjectDirCache;
}

QString CFileFinder::GetProgramDir() {
  return _CanonicalFolderOf(_sProgramFile);
}

void CFileFinder::Reset() {
  _Aliases.clear();
  _Substitutes.clear();
  _Reported.clear();
  _SearchPaths.clear();
  _RootPaths.clear();
  _FoundInProject = false;
  _SourcesNotFound = 0;
  _SourcesResolved = 0;
  _sProjectFile.clear();
  _sProgramFile.clear();
  _sProjectDirCache.clear();
  _sProjectDirCacheKey.clear();
}

void CFileFinder::AddRootPath(const QString& sPath) {
  QString sRoot = ExpandMacros(sPath);
  if (sRoot.isEmpty()) {
    return;  // an empty root would turn every relative path into one below "/"
  }
  sRoot = _CleanPath(sRoot);
  if (!HasDriveLetter(sRoot) && !_IsAbsoluteHere(sRoot)) {
    QString sFound = _SearchRoots(sRoot, false);
    if (!sFound.isEmpty()) {
      sRoot = sFound;
    }
  }
  // A lookup made while adding a root must not silence the log line of the next resolution.
  _FoundInProject = false;
  _RootPaths.append(sRoot);
}

void CFileFinder::AddSearchPath(const QString& sPath) {
  QString sFolder = ExpandMacros(sPath);
  if (!sFolder.isEmpty()) {
    _SearchPaths.append(sFolder);
  }
}

void CFileFinder::AddFileAlias(const QString& sOldPath, const QString& sNewPath) {
  QString sKey = ExpandMacros(sOldPath);
  if (sKey.isEmpty()) {
    return;
  }
  _Aliases.insert(sKey, _CleanPath(ExpandMacros(sNewPath)));
}

void CFileFinder::AddPathSubstitute(const QString& sOldPart, const QString& sNewPart) {
  QString sKey = _CleanPath(ExpandMacros(sOldPart));
  if (sKey.isEmpty()) {
    return;
  }
  _Substitutes.insert(sKey, _CleanPath(ExpandMacros(sNewPart)));
}

QString CFileFinder::ExpandMacros(const QString& sPath) {
  if (!sPath.contains(QLatin1Char('$'))) {
    return sPath;
  }
  // The order is part of the behaviour: a folder value that itself holds "$(" is expanded only by the
  // macros that come after it.
  const struct {
    const char* sMacro;
    QString sFolder;
  } aMacros[] = {
      {"$(DocDir)", _Folders.sDoc},         {"$(PluginDir)", _Folders.sPlugin},
      {"$(ProjectDir)", GetProjectDir()},   {"$(InstallDir)", _Folders.sApp},
      {"$(ExecutableDir)", _Folders.sApp},  {"$(AppDir)", GetProgramDir()},
      {"$(AppBundleDir)", _Folders.sApp},   {"$(ConfigDir)", _Folders.sConfig},
      {"$(LibraryDir)", _Folders.sLibrary},
  };
  QString sResult = sPath;
  for (const auto& Macro : aMacros) {
    sResult.replace(QLatin1String(Macro.sMacro), _FolderWithSlash(Macro.sFolder), Qt::CaseSensitive);
  }
  return sResult;
}

QString CFileFinder::Resolve(const QString& sInput) {
  if (sInput.isEmpty()) {
    return QString();
  }
  _FoundInProject = false;
  QString sPath = sInput;
  QString sExpanded = ExpandMacros(sPath);
  if (!sExpanded.isEmpty()) {
    sPath = sExpanded;
  }
  const QString sCleanPath = _CleanPath(sPath);
  for (auto It = _Aliases.cbegin(); It != _Aliases.cend(); ++It) {
    if (sPath.compare(It.key(), Qt::CaseInsensitive) == 0 ||
        sCleanPath.compare(_CleanPath(It.key()), Qt::CaseInsensitive) == 0) {
      sPath = It.value();
      break;
    }
  }
  if (!_Substitutes.isEmpty()) {
    sPath = _CleanPath(sPath);
    for (auto It = _Substitutes.cbegin(); It != _Substitutes.cend(); ++It) {
      if (sPath.contains(It.key(), Qt::CaseInsensitive)) {
        sPath.replace(It.key(), It.value(), Qt::CaseSensitive);
      }
    }
    sPath = _CleanPath(ExpandMacros(sPath));
  }

  const bool IsSource = MatchesFileFilter(sPath, FILE_FILTER_SOURCE);
  QString sResult;
  if (HasDriveLetter(sPath) || _IsAbsoluteHere(sPath)) {
    // Taken as it stands: only the caller's test of the file tells whether it is there.
    sResult = _CleanPath(sPath);
  } else {
    sPath = _CleanPath(sPath);
    if (_IsFile(sPath)) {
      sResult = sPath;
    } else if (IsSource) {
      sResult = _ResolveByDirs(sPath, _SearchPaths);
    } else if (MatchesFileFilter(sPath, FILE_FILTER_REGISTER)) {
      sResult = _ResolveRegisterFile(sPath);
    } else if (MatchesFileFilter(sPath, FILE_FILTER_PLUGIN) || GetFileSuffix(sPath).isEmpty()) {
      sResult = _ResolveByDirs(sPath, QStringList{_Folders.sPlugin, _Join(_Folders.sPlugin, "OS"),
                                                  _Join(_Folders.sPlugin, "Core")} +
                                          _SearchPaths);
    } else if (MatchesFileFilter(sPath, FILE_FILTER_PROGRAM) ||
               MatchesFileFilter(sPath, FILE_FILTER_PROJECT)) {
      sResult = _ResolveByDirs(sPath, _SearchPaths);
    } else if (MatchesFileFilter(sPath, FILE_FILTER_DOCUMENT)) {
      sResult = _ResolveByDirs(sPath, _SearchPaths + QStringList{_Folders.sDoc, _Join(_Folders.sApp, "Doc")});
    } else {
      sResult = _ResolveByDirs(sPath, _SearchPaths);
    }
  }
  _Account(sInput, sResult, IsSource);
  _FoundInProject = false;
  return sResult;
}

QString CFileFinder::_ResolveByDirs(const QString& sPath, const QStringList& Dirs) {
  QString sCandidate = sPath;
  if (!HasDriveLetter(sCandidate) && !_IsAbsoluteHere(sCandidate)) {
    QString sFound = _SearchRoots(sCandidate, true);
    if (!sFound.isEmpty()) {
      sCandidate = sFound;
    }
  }
  if (_IsFile(sCandidate)) {
    return sCandidate;
  }
  QString sName = _FileName(sCandidate);
  if (sName.isEmpty() || sName == QLatin1String(".") || sName == QLatin1String("..")) {
    return QString();
  }
  return _SearchDirs(sName, Dirs);
}

QString CFileFinder::_ResolveRegisterFile(const QString& sPath) {
  // Register descriptions come as SVD or in the older XML form under the same base name.
  const QStringList Dirs =
      QStringList{_Folders.sConfig, _Join(_Folders.sConfig, "CPU"), _Join(_Folders.sConfig, "Peripherals")} +
      _SearchPaths;
  qsizetype Dot = sPath.lastIndexOf(QLatin1Char('.'));
  QString sBase = Dot < 0 ? sPath : sPath.left(Dot);
  QString sFound = _ResolveByDirs(sBase + ".svd", Dirs);
  if (sFound.isEmpty()) {
    sFound = _ResolveByDirs(sBase + ".xml", Dirs);
  }
  return sFound;
}

QString CFileFinder::_SearchDirs(const QString& sName, const QStringList& Dirs) {
  for (const QString& sDir : Dirs) {
    if (sDir.isEmpty()) {
      continue;  // a folder that isn't known, not the root of the file system
    }
    QString sFolder = sDir;
    if (!HasDriveLetter(sFolder) && !_IsAbsoluteHere(sFolder)) {
      QString sFound = _SearchRoots(sFolder, false);
      if (!sFound.isEmpty()) {
        sFolder = sFound;
      }
    }
    QString sCandidate = _Join(sFolder, sName);
    if (_IsFile(sCandidate)) {
      return sCandidate;
    }
  }
  return QString();
}

QString CFileFinder::_SearchRoots(const QString& sPath, bool Strict) {
  auto Try = [&sPath](const QString& sRoot) -> QString {
    if (sRoot.isEmpty()) {
      return QString();
    }
    QString sCandidate = _Join(sRoot, sPath);
    return QFileInfo::exists(sCandidate) ? sCandidate : QString();
  };
  for (const QString& sRoot : std::as_const(_RootPaths)) {
    QString sHit = Try(sRoot);
    if (!sHit.isEmpty()) {
      return sHit;
    }
  }
  QString sHit = Try(GetProjectDir());
  if (!sHit.isEmpty()) {
    _FoundInProject = true;
    return sHit;
  }
  sHit = Try(_Folders.sApp);
  if (sHit.isEmpty()) {
    sHit = Try(GetProgramDir());
  }
  if (sHit.isEmpty() && !Strict) {
    sHit = Try(QDir::currentPath());
  }
  return sHit;
}

void CFileFinder::_Account(const QString& sInput, const QString& sResult, bool IsSource) {
  const bool Exists = _IsFile(sResult);
  if (IsSource) {
    // Thousands of source paths come with one program; they are counted, not logged one by one.
    if (Exists) {
      ++_SourcesResolved;
    } else {
      ++_SourcesNotFound;
    }
    return;
  }
  if (_Reported.contains(sInput)) {
    return;
  }
  if (Exists) {
    if (sResult != sInput && !_FoundInProject) {
      LogMessage(QString("File path resolved: \"%1\" was found at \"%2\"").arg(sInput, sResult),
                 MSG_INFO | MSG_TO_ALL);
      _Reported.insert(sInput, true);
    }
  } else {
    LogMessage(QString("File not found: %1").arg(sInput), MSG_WARNING | MSG_TO_ALL);
    _Reported.insert(sInput, true);
  }
}

QString CFileFinder::GetOriginalPath(const QString& sResolved) const {
  for (auto It = _Aliases.cbegin(); It != _Aliases.cend(); ++It) {
    if (It.value().compare(sResolved, Qt::CaseInsensitive) == 0) {
      return It.key();
    }
  }
  return sResolved;
}

QString CFileFinder::GetFolderForFile(const QString& sPath) {
  if (_IsFile(sPath)) {
    QString sFolder = QFileInfo(sPath).canonicalPath();
    if (!sFolder.isEmpty() && QFileInfo(sFolder).isDir()) {
      return sFolder;
    }
  }
  if (MatchesFileFilter(sPath, FILE_FILTER_REGISTER)) {
    return _Folders.sPeripheral;
  }
  if (MatchesFileFilter(sPath, FILE_FILTER_DOCUMENT)) {
    return _Folders.sDoc;
  }
  if (MatchesFileFilter(sPath, FILE_FILTER_PLUGIN)) {
    return _Folders.sPlugin;
  }
  return _Folders.sApp;
}

void CFileFinder::LogSourceCounts() const {
  if (_SourcesResolved > 0) {
    LogMessage(QString("File.Open: %1 source file paths resolved").arg(_SourcesResolved),
               MSG_INFO | MSG_TO_ALL);
  }
  if (_SourcesNotFound > 0) {
    LogMessage(QString("File.Open: %1 source files not found").arg(_SourcesNotFound), MSG_INFO | MSG_TO_ALL);
  }
}

CFileFinder& GetFileFinder() {
  static CFileFinder Finder;
  return Finder;
}
