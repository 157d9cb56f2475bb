// Writing a whole file so that a reader, or the next start after a crash, sees either the old contents
// or the new ones, never a mixture. Every file a project writes (project file, user file, settings)
// goes through here.
#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>
#include <functional>

// Told after each chunk of a save, with the bytes written so far and the total. It runs before the new
// contents replace the old file, so whatever it does (even ending the process) leaves the old file.
typedef std::function<void(qint64 Written, qint64 Total)> ATOMIC_WRITE_PROGRESS;

// Bytes written between two progress reports.
constexpr qint64 ATOMIC_WRITE_CHUNK_SIZE = 1024 * 1024;

// Writes Bytes to a new file beside sPath and then puts it in the place of sPath in one step. A crash,
// a kill or a failed write before that step leaves the old file as it was (and no file if there was
// none). Returns 0, or -1 with a text naming the file in *psError (which may be null).
int WriteFileAtomically(const QString& sPath, const QByteArray& Bytes, QString* psError,
                        const ATOMIC_WRITE_PROGRESS& pfProgress = {});
