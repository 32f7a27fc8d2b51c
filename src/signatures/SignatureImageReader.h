// Reads a picture file to be imported as a signature, and says in words why
// one cannot be used.
#pragma once

#include <QCoreApplication>
#include <QImage>
#include <QString>

class SignatureImageReader {
    Q_DECLARE_TR_FUNCTIONS(SignatureImageReader)
public:
    // The picture in the file, upright. One wider than a placed signature needs
    // at the drawing's pixels per point is asked for at that width, so that the
    // decoders that can (JPEG, colour PNG) never hold it whole. Null, with
    // `reason` set (the end of a sentence), when it cannot be used.
    static QImage read(const QString &path, QString &reason);
};
