// Application identity (names, title, version text), the application folders, and the command list
// that the dash words of the command line make.
#pragma once

#include <QString>
#include <QStringList>

constexpr const char* kOrganisationName = "Quorin";
constexpr const char* kApplicationName = "Zevra";
constexpr const char* kLongTitle = "Zevra - The Tarvik Debugger";
constexpr int kVersionMajor = 2;
constexpr int kVersionMinor = 44;
constexpr int kVersionRevision = 0;

// "V2.44", with the revision as a letter ("a" for 1 ... "z" for 26, then "z" and two digits).
QString GetVersionText(int Major = kVersionMajor, int Minor = kVersionMinor, int Revision = kVersionRevision);
// "Zevra", optionally with " - The Tarvik Debugger" and a blank plus the version text.
QString GetAppTitle(bool WithSubtitle, bool WithVersion);
// The creation date of the program's own file, "YYYY-MM-DD".
QString GetAppDateText();

// Folders, each with a trailing slash. The application folder is computed once; a call that arrives
// while it is being computed gets an empty string.
QString GetAppFolder();
QString GetConfigFolder();
QString GetPeripheralFolder();
QString GetLibFolder();
QString GetDocFolder();
QString GetPluginFolder();

// The command list made from the dash words of the command line (the arguments behind the program
// name): Project.SetDevice, Project.SetHostIF, Project.SetTargetIF, Project.SetTIFSpeed and File.Open in
// their canonical text, then an empty line. Empty unless device, host and target interface are all given.
QStringList BuildCommandListFromArgs(const QStringList& Args);

// True for a file name whose suffix (behind the last dot) is exactly "zvproj".
bool IsProjectFileName(const QString& sPath);
