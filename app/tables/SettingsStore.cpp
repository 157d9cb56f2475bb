// The persistent store and its passage to and from QSettings.
#include "app/tables/SettingsStore.h"

#include <QMap>
#include <QSettings>

namespace {

QMap<QString, QVariant>& _Map() {
  static QMap<QString, QVariant> Map;
  return Map;
}

}  // namespace

QString StoreKey(const QStringList& Path, const QString& sKey) {
  if (Path.isEmpty()) {
    return sKey;
  }
  return Path.join('/') + '/' + sKey;
}

void StoreValue(const QStringList& Path, const QString& sKey, const QVariant& Value) {
  _Map().insert(StoreKey(Path, sKey), Value);
}

bool StoreContains(const QStringList& Path, const QString& sKey) {
  return _Map().contains(StoreKey(Path, sKey));
}

QVariant LoadValue(const QStringList& Path, const QString& sKey, const QVariant& Default) {
  return _Map().value(StoreKey(Path, sKey), Default);
}

void StoreRemove(const QStringList& Path, const QString& sKey) {
  _Map().remove(StoreKey(Path, sKey));
}

void StoreClear() {
  _Map().clear();
}

QStringList StoreKeys() {
  return _Map().keys();  // QMap keeps its keys sorted
}

int LoadStore() {
  QSettings Settings(kStoreOrganisation, kStoreApplication);
  return LoadStore(Settings);
}

int LoadStore(QSettings& Settings) {
  _Map().clear();
  if (Settings.status() != QSettings::NoError) {
    return -1;
  }
  const QStringList Keys = Settings.allKeys();
  for (const QString& sKey : Keys) {
    _Map().insert(sKey, Settings.value(sKey));
  }
  return 0;
}

int SaveStore() {
  QSettings Settings(kStoreOrganisation, kStoreApplication);
  return SaveStore(Settings);
}

int SaveStore(QSettings& Settings) {
  if (!Settings.isWritable()) {
    return -1;
  }
  // The map was read whole, so the file is replaced whole: a key the program removed must not come
  // back from the old file at the next start.
  Settings.clear();
  const QMap<QString, QVariant>& Map = _Map();
  for (auto it = Map.constBegin(); it != Map.constEnd(); ++it) {
    Settings.setValue(it.key(), it.value());
  }
  Settings.sync();
  return Settings.status() == QSettings::NoError ? 0 : -1;
}
