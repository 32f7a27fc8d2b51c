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
// stream (drawn in page space, the stream's box being `rect`; a null one
// writes no /AP).
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

// A link annotation on page `fromPage` that goes to page `toPage` by an
// explicit [page /XYZ ...] destination or, when `name` is set, through that
// named destination (`toPage` then unused); a /Dest entry, or a GoTo action.
struct LinkSpec {
    int fromPage = 0;
    int toPage = 0;
    QByteArray name = {};
    bool asAction = false;
    QRectF rect{72, 600, 128, 20};
};

// An outline entry going to `page` (-1: nowhere) or through the named
// destination `name`, with its entries below it; all entries are open.
struct OutlineSpec {
    QString title = {};
    int page = -1;
    QByteArray name = {};
    std::vector<OutlineSpec> children = {};
    bool asAction = false;
};

// A text field's widget on `page`, showing `value` (empty: not filled). A
// plain widget is the field itself; a kid widget hangs below a field object
// that holds the name and the value, shared by the kid widgets of one name.
struct FieldSpec {
    int page = 0;
    QString name = {};
    QString value = {};
    QRectF rect{72, 500, 200, 24};
    bool kid = false;
};

// Pages with what ties a document together: links between its pages, named
// destinations (in the /Names tree, or in the older /Root /Dests dictionary
// when `legacyDests`), an outline and an interactive form. The links and
// widgets come after the pages' own annotations in their /Annots.
struct StructuredSpec {
    std::vector<PageSpec> pages = {};
    std::vector<LinkSpec> links = {};
    std::vector<OutlineSpec> outline = {};
    std::vector<std::pair<QByteArray, int>> namedDestinations = {};
    bool legacyDests = false;
    std::vector<FieldSpec> fields = {};
};

// A PDF file made directly, object by object; the text is plain ASCII.
QByteArray buildPdf(const std::vector<PageSpec> &pages);
QByteArray buildStructuredPdf(const StructuredSpec &spec);
bool writeStructuredPdf(const QString &path, const StructuredSpec &spec);
bool writeFile(const QString &path, const QByteArray &data);
// What a program (pdftotext, pdfinfo, …) prints on its standard output, as
// UTF-8; empty when it does not finish within a minute.
QString toolOutput(const QString &program, const QStringList &args);
bool writePdf(const QString &path, const std::vector<PageSpec> &pages);

// A file of the objects given, numbered from 1 (the first is the catalog),
// for content no other builder writes; streamObject() makes a stream object.
QByteArray buildFromObjects(const std::vector<QByteArray> &objects);
QByteArray streamObject(const QByteArray &dictionary, const QByteArray &content);

// A widget annotation of page object 3 (`more` ends the field's dictionary),
// and a JavaScript action.
QByteArray widgetObject(const QByteArray &rect, const QByteArray &more);
QByteArray javaScript(const QByteArray &js);
// A form of every kind of field on one page laid out in rows (/Tabs /R),
// listed out of their order: a total of two currency amounts, text (blue
// 12 pt, comb, auto-sized, multi-line, date), a check box whose on state is
// "Ja", a radio group in unison, a multi-select list, a signature field and
// a calculation loop.
QByteArray formOfEveryKind();

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

// The ways page trees are damaged in files that other readers still show.
enum class TreeDamage { SelfParent, RootAmongKids, Loop, HugeCount, Deep };
// Three pages saying "Page 1" to "Page 3", under a page tree damaged so;
// the pages inherit their resources and size from the tree's root.
QByteArray buildDamagedTree(TreeDamage damage);

// Three numbered pages signed with a throw-away certificate (made with the
// openssl tool), the signature covering the whole file as written; false
// when openssl fails.
bool writeSigned(const QString &path);

// `source` encrypted (AES-256, no user password) by its author so that it
// may be read but not changed or annotated (qpdf does it).
bool writeRestricted(const QString &source, const QString &path);

// A file that starts like a PDF and continues with garbage.
bool writeDamaged(const QString &path);
// The first `fraction` of a valid file.
bool writeTruncated(const QString &path, double fraction);

} // namespace fixtures
