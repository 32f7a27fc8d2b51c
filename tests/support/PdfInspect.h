// Reads the objects of a written PDF file as qpdf sees them, so tests can check
// the file's structure (which annotation links to which) independently of the
// engine that wrote it.
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

namespace inspect {

class PdfObjects {
public:
    // Empty when qpdf cannot read the file.
    explicit PdfObjects(const QString &path, const QString &password = {});
    bool isValid() const { return !objects_.isEmpty(); }

    // The value of the object a reference ("12 0 R") names: a dictionary, or a
    // stream's dictionary; an empty object when there is none.
    QJsonObject dict(const QString &ref) const;
    // The references of the pages, in order.
    QStringList pages() const;
    // The references listed in a page's /Annots.
    QStringList annots(const QString &pageRef) const;
    // The number of objects in the file.
    int count() const { return int(objects_.size()); }

private:
    void collectPages(const QString &ref, QStringList &out, int depth) const;
    QJsonObject objects_;
};

// qpdf's structural check of a file; empty when it passes.
QString qpdfProblems(const QString &path, const QString &password = {});

} // namespace inspect
