// Reads the objects of a written PDF file as qpdf sees them, so tests can check
// the file's structure (which annotation links to which, where links and
// outline entries go, which fields the form has) independently of the engine
// that wrote it.
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <map>
#include <vector>

namespace inspect {

// An outline entry: its title, the index of the page it goes to (-1: none, or
// an object that is not a page of the page tree) and its entries.
struct OutlineItem {
    QString title;
    int page = -1;
    std::vector<OutlineItem> children;
};

// A link annotation of a page: where it goes (as OutlineItem::page) and the
// named destination it goes through (empty for an explicit destination).
struct Link {
    QString ref;
    int target = -1;
    QString name;
};

// A terminal form field: its value as text, its widget annotations and the
// indices of the pages listing them (-1: listed by no page).
struct Field {
    QString value;
    QStringList widgets;
    QList<int> pages;
};

class PdfObjects {
public:
    // Empty when qpdf cannot read the file.
    explicit PdfObjects(const QString &path, const QString &password = {});
    bool isValid() const { return !objects_.isEmpty(); }

    // The value of the object a reference ("12 0 R") names: a dictionary, or a
    // stream's dictionary; an empty object when there is none.
    QJsonObject dict(const QString &ref) const;
    // A value with a reference replaced by what it names.
    QJsonValue resolved(const QJsonValue &value) const;
    // The document catalog.
    QJsonObject root() const;
    // The references of the pages, in order.
    QStringList pages() const { return pages_; }
    // The index of a page in the page tree; -1 for any other object.
    int pageIndex(const QString &ref) const { return int(pages_.indexOf(ref)); }
    // The references listed in a page's /Annots.
    QStringList annots(const QString &pageRef) const;
    // Every object whose /Type is `type` ("/Page"), reachable or not.
    QStringList refsOfType(const QString &type) const;
    // The number of objects in the file.
    int count() const { return int(objects_.size()); }
    // The decoded content of a stream object.
    QByteArray streamData(const QString &ref) const;

    // The page a destination leads to: an explicit array, a string named in
    // /Names /Dests, a name of /Root /Dests, or a dictionary holding /D.
    int destinationPage(const QJsonValue &destination) const;
    // The /Names /Dests tree: each name and the page it leads to.
    std::map<QString, int> namedDestinations() const;
    std::vector<OutlineItem> outline() const;
    // Broken links between outline entries (/Parent, /Prev, /Last, /Count).
    QStringList outlineProblems() const;
    // The link annotations of the page at `page`, in /Annots order.
    std::vector<Link> links(int page) const;
    // The fields of /Root /AcroForm, by fully qualified name.
    std::map<QString, Field> fields() const;
    QJsonObject acroForm() const { return resolved(root().value("/AcroForm")).toObject(); }
    // Annotations whose /P is not the page that lists them.
    QStringList misplacedAnnotations() const;

private:
    void collectPages(const QString &ref, QStringList &out, int depth) const;
    std::vector<OutlineItem> outlineLevel(const QString &first, const QString &parent, QStringList *problems, int depth) const;
    void collectFields(const QJsonValue &node, const QString &prefix, std::map<QString, Field> &out, int depth) const;
    int annotationPage(const QString &ref) const;

    QString path_;
    QString password_;
    QJsonObject objects_;
    QStringList pages_;
};

// A string as qpdf writes it ("u:text", or "b:" and hex bytes) as text; a
// name ("/Name") without its slash.
QString text(const QJsonValue &value);

// qpdf's structural check of a file; empty when it passes.
QString qpdfProblems(const QString &path, const QString &password = {});

} // namespace inspect
