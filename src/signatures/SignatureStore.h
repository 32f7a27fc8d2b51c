// The user's saved signatures: PNG files in one folder of the per-user data
// folder ($XDG_DATA_HOME/Vellora/Signatures). The folder's content is all
// there is: no index and no cache. Nothing here reports an error; a failure
// shows as a file that is not there.
#pragma once

#include <QImage>
#include <QString>
#include <QStringList>

namespace SignatureStore {

// The store folder. Worked out, and made, on first use; kept for the life of
// the process.
QString directory();

// Writes the image as "sig_" + whole seconds since 1970 + ".png" and returns
// its path; a second save within the same second replaces the file. Empty
// when the image cannot be encoded; a failed write still returns the path.
QString save(const QImage &image);

// The saved signatures (the ".png" files, no hidden ones), sorted by file
// name, which puts the oldest first. Empty when the folder cannot be read.
QStringList load();

// Removes the file; errors are ignored.
void deleteSignature(const QString &path);

// The name (trimmed) in the font at 96 points, black on transparent, one
// pixel per point, with a margin of 28 all round. Null for a blank name.
QImage renderTypedSignature(const QString &name, const QString &fontName);

} // namespace SignatureStore
