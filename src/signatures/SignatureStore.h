// The user's saved signatures: PNG files in one folder of the per-user data
// folder ($XDG_DATA_HOME/Vellora/Signatures). The folder's content is all
// there is: no index and no cache. Only a failed save says why; any other
// failure shows as a file that is not there.
#pragma once

#include <QImage>
#include <QString>
#include <QStringList>

namespace SignatureStore {

// The store folder. Worked out, and made, on first use; kept for the life of
// the process.
QString directory();

// Writes the image as "sig_" + whole seconds since 1970 + ".png" and returns
// its path; a later save within the same second adds "_1", "_2", ... before
// ".png", so that no save replaces another. Empty
// when the image cannot be encoded; a failed write still returns the path and
// says why in `error` (left empty when the file was written). The file is
// written whole or not at all.
QString save(const QImage &image, QString *error = nullptr);

// The saved signatures (the ".png" files, no hidden ones), sorted by file
// name, which puts the oldest first. Empty when the folder cannot be read.
QStringList load();

// Removes the file; errors are ignored.
void deleteSignature(const QString &path);

// The name (trimmed) in the font at 96 points, in the ink colour on
// transparent, one pixel per point, with a margin of 28 all round. Null for a
// blank name.
QImage renderTypedSignature(const QString &name, const QString &fontName, const QColor &ink = Qt::black);

} // namespace SignatureStore
