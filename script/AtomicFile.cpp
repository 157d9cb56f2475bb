// Whole-file writes through QSaveFile: the new contents go to a temporary file in the same folder,
// which replaces the target only once everything has been written.
#include "script/AtomicFile.h"

#include <QFileInfo>
#include <QSaveFile>

static int _Fail(QString* psError, const QString& sPath, const QString& sReason) {
  if (psError != nullptr) {
    *psError = QString("Could not write \"%1\": %2").arg(sPath, sReason);
  }
  return -1;
}

int WriteFileAtomically(const QString& sPath, const QByteArray& Bytes, QString* psError,
                        const ATOMIC_WRITE_PROGRESS& pfProgress) {
  if (sPath.isEmpty()) {
    return _Fail(psError, sPath, "no file name");
  }
  if (QFileInfo(sPath).isDir()) {
    return _Fail(psError, sPath, "it is a folder");
  }
  QSaveFile File(sPath);
  // Writing in place when a temporary file can't be made would defeat the purpose; fail instead.
  File.setDirectWriteFallback(false);
  if (!File.open(QIODevice::WriteOnly)) {
    return _Fail(psError, sPath, File.errorString());
  }
  const qint64 Total = Bytes.size();
  qint64 Written = 0;
  while (Written < Total) {
    const qint64 Chunk = qMin(ATOMIC_WRITE_CHUNK_SIZE, Total - Written);
    const qint64 Done = File.write(Bytes.constData() + Written, Chunk);
    if (Done <= 0) {
      QString sReason = File.errorString();
      File.cancelWriting();
      return _Fail(psError, sPath, sReason);
    }
    Written += Done;
    if (pfProgress) {
      // Unwritten buffered bytes would make the report a promise rather than a fact.
      File.flush();
      pfProgress(Written, Total);
    }
  }
  if (!File.commit()) {
    return _Fail(psError, sPath, File.errorString());
  }
  return 0;
}
