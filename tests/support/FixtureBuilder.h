// Builds the PDF files the tests need, by code: pages with known words at
// known places, many pages, mixed sizes, rotated pages, encrypted files,
// files with annotations and damaged files.
#pragma once

#include <QByteArray>
#include <QPointF>
#include <QRectF>
#include <QString>

#include <optional>
#include <vector>

namespace fixtures {

// A run of text in Helvetica, its baseline starting at `origin` (page space).
struct TextRun {
    QString text;
    QPointF origin;
    qreal size = 12;
    // A standard font by its PDF name ("Times-Roman", "Courier-Bold", ...).
    QByteArray font = "Helvetica";
};

// An annotation written as it is into the file, as another program would:
// its dictionary without the closing ">>" and the content of its appearance
// stream (drawn in page space, the stream's box being `rect`).
struct RawAnnotation {
    QByteArray dictionary;
    QRectF rect;
    QByteArray appearance;
    // Where its popup window opens, when it has one (linked both ways and listed in /Annots).
    std::optional<QRectF> popup = std::nullopt;
};

struct PageSpec {
    QRectF mediaBox{0, 0, 612, 792};
    std::optional<QRectF> cropBox;
    int rotation = 0;
    std::vector<TextRun> text;
    std::vector<RawAnnotation> annotations;
};

// A PDF file made directly, object by object; the text is plain ASCII.
QByteArray buildPdf(const std::vector<PageSpec> &pages);
bool writeFile(const QString &path, const QByteArray &data);
bool writePdf(const QString &path, const std::vector<PageSpec> &pages);

// `count` letter-size pages; page i says "Page <i+1>" at (72, 720) and holds
// `linesPerPage` lines of words below it.
std::vector<PageSpec> numberedPages(int count, int linesPerPage = 3);

// `folder`/`name` holding numberedPages(pages), written unless it is there.
QString numberedFile(const QString &folder, const QString &name, int pages = 3);

// The same pages written encrypted with a password.
bool writeEncrypted(const QString &path, const std::vector<PageSpec> &pages, const QString &password);

// One page with an annotation of every kind the system makes, written by the engine.
bool writeWithAnnotations(const QString &path);

// A page with a Line annotation and a form field (Widget) made by "another
// program", each with its own appearance: a blue line and a green box.
PageSpec pageWithForeignAnnotations();

// A page with a note and a square made by "another program", each with a popup.
PageSpec pageWithPopups();

// The same kind of note and popup as written by Ghostscript's pdfmark (ps2pdf
// runs at test time); false when it fails.
bool writeGhostscriptNote(const QString &path);

// A file that starts like a PDF and continues with garbage.
bool writeDamaged(const QString &path);
// The first `fraction` of a valid file.
bool writeTruncated(const QString &path, double fraction);

} // namespace fixtures
