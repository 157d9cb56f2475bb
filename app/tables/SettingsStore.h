// The persistent store: one in-memory map of the user's values between runs, read whole from the
// platform settings at start-up and written back whole at exit. Everything else uses the map only.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

class QSettings;

// Keys are the path parts joined by "/", then the key: ({"AppData", "Preferences"}, "Colors") is
// "AppData/Preferences/Colors".
QString StoreKey(const QStringList& Path, const QString& sKey);

void StoreValue(const QStringList& Path, const QString& sKey, const QVariant& Value);
bool StoreContains(const QStringList& Path, const QString& sKey);
QVariant LoadValue(const QStringList& Path, const QString& sKey, const QVariant& Default = QVariant());
void StoreRemove(const QStringList& Path, const QString& sKey);
// Empties the map (tests, and a load that starts over).
void StoreClear();
// The keys in the map, sorted.
QStringList StoreKeys();

// Organisation and application under which the store lives in the platform settings. On Linux that is
// the INI file $XDG_CONFIG_HOME/Quorin/Zevra.conf.
constexpr const char* kStoreOrganisation = "Quorin";
constexpr const char* kStoreApplication = "Zevra";

// Replaces the map by every key of the settings. Returns 0, or -1 if the settings can't be read (the
// map is then empty).
int LoadStore();
int LoadStore(QSettings& Settings);
// Clears the settings and writes every key of the map, so that a removed key doesn't survive.
// Returns 0, or -1 if the settings can't be written.
int SaveStore();
int SaveStore(QSettings& Settings);
