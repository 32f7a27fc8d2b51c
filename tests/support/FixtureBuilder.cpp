#include "FixtureBuilder.h"

#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <QFile>
#include <QImage>
#include <QMap>
#include <QPainter>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <functional>
#include <map>

namespace fixtures {
namespace {

QByteArray num(qreal v)
{
    return QByteArray::number(v, 'f', 2);
}

QByteArray rect(const QRectF &r)
{
    return '[' + num(r.left()) + ' ' + num(r.top()) + ' ' + num(r.right()) + ' ' + num(r.bottom()) + ']';
}

QByteArray escaped(const QString &text)
{
    QByteArray out;
    for (char ch : text.toLatin1()) {
        if (ch == '(' || ch == ')' || ch == '\\')
            out += '\\';
        out += ch;
    }
    return out;
}

QByteArray ref(int number)
{
    return QByteArray::number(number) + " 0 R";
}

// A text string: literal when it is ASCII, UTF-16 otherwise.
QByteArray textString(const QString &text)
{
    if (std::all_of(text.begin(), text.end(), [](QChar ch) { return ch.unicode() < 128; }))
        return '(' + escaped(text) + ')';
    QByteArray hex = "<FEFF";
    for (QChar ch : text)
        hex += QByteArray::number(ch.unicode(), 16).rightJustified(4, '0').toUpper();
    return hex + '>';
}

QByteArray stream(const QByteArray &dictionary, const QByteArray &content)
{
    return "<< " + dictionary + " /Length " + QByteArray::number(content.size()) + " >>\nstream\n" + content + "\nendstream";
}

// The objects of a file, numbered from 1 in the order they are made; the
// first is the catalog.
class ObjectTable {
public:
    int reserve() { return add({}); }
    int add(const QByteArray &object)
    {
        objects_.push_back(object);
        return int(objects_.size());
    }
    void set(int number, const QByteArray &object) { objects_[size_t(number - 1)] = object; }

    QByteArray file() const
    {
        QByteArray out = "%PDF-1.7\n%\xe2\xe3\xcf\xd3\n";
        std::vector<qsizetype> offsets;
        for (size_t i = 0; i < objects_.size(); ++i) {
            offsets.push_back(out.size());
            out += QByteArray::number(int(i) + 1) + " 0 obj\n" + objects_[i] + "\nendobj\n";
        }
        const qsizetype xref = out.size();
        const QByteArray size = QByteArray::number(int(objects_.size()) + 1);
        out += "xref\n0 " + size + "\n0000000000 65535 f \n";
        for (qsizetype offset : offsets)
            out += QByteArray::number(offset).rightJustified(10, '0') + " 00000 n \n";
        return out + "trailer\n<< /Size " + size + " /Root 1 0 R >>\nstartxref\n" + QByteArray::number(xref) + "\n%%EOF\n";
    }

private:
    std::vector<QByteArray> objects_;
};

// Where a link or an outline entry goes: `page` directly, or through the
// named destination `name`, as a /Dest entry or a GoTo action.
using TargetWriter = std::function<QByteArray(int page, const QByteArray &name, bool asAction)>;

// The first, the last and the number of entries (all open) of one level of
// the outline below `parent`.
struct OutlineLevel {
    int first = 0;
    int last = 0;
    int count = 0;
};

OutlineLevel writeOutline(ObjectTable &objects, const std::vector<OutlineSpec> &items, int parent, const TargetWriter &target)
{
    std::vector<int> numbers;
    for (size_t i = 0; i < items.size(); ++i)
        numbers.push_back(objects.reserve());
    if (numbers.empty())
        return {};
    OutlineLevel level{numbers.front(), numbers.back(), int(items.size())};
    for (size_t i = 0; i < items.size(); ++i) {
        const OutlineSpec &item = items[i];
        QByteArray dict = "<< /Title " + textString(item.title) + " /Parent " + ref(parent);
        if (i > 0)
            dict += " /Prev " + ref(numbers[i - 1]);
        if (i + 1 < items.size())
            dict += " /Next " + ref(numbers[i + 1]);
        const OutlineLevel below = writeOutline(objects, item.children, numbers[i], target);
        if (below.count)
            dict += " /First " + ref(below.first) + " /Last " + ref(below.last) + " /Count " + QByteArray::number(below.count);
        level.count += below.count;
        if (item.page >= 0 || !item.name.isEmpty())
            dict += target(item.page, item.name, item.asAction);
        objects.set(numbers[i], dict + " >>");
    }
    return level;
}

// A text field's appearance: `value` in Helvetica 12, in the widget's box.
QByteArray fieldAppearance(const FieldSpec &field, const QString &value)
{
    QByteArray content = "/Tx BMC\n";
    if (!value.isEmpty())
        content += "q BT /Helv 12 Tf 0 g 2 " + num((field.rect.height() - 12) / 2 + 3) + " Td (" + escaped(value) + ") Tj ET Q\n";
    content += "EMC";
    return stream("/Type /XObject /Subtype /Form /BBox [0 0 " + num(field.rect.width()) + ' ' + num(field.rect.height()) +
                      "] /Resources << /Font << /Helv 3 0 R >> >>",
                  content);
}

} // namespace

QByteArray buildFromObjects(const std::vector<QByteArray> &objects)
{
    ObjectTable table;
    for (const QByteArray &object : objects)
        table.add(object);
    return table.file();
}

QByteArray streamObject(const QByteArray &dictionary, const QByteArray &content)
{
    return stream(dictionary, content);
}

QByteArray buildPdf(const std::vector<PageSpec> &pages)
{
    return buildStructuredPdf(StructuredSpec{pages});
}

QByteArray buildStructuredPdf(const StructuredSpec &spec)
{
    // Objects: 1 catalog, 2 page tree, 3 font, then per page: the page, its
    // contents, two objects (dictionary, appearance) per annotation and one
    // more for a popup, its links, two objects per widget (and a kid
    // widget's field where it first appears); fonts other than Helvetica
    // come next, so the numbers above never change, then outline, names and form.
    ObjectTable objects;
    objects.reserve();
    objects.reserve();
    objects.add("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>");
    const std::vector<PageSpec> &pages = spec.pages;
    std::vector<int> pageNumbers;
    std::vector<QByteArray> pageAnnots;
    std::vector<std::pair<int, const LinkSpec *>> links;
    std::vector<int> fields;
    QMap<QString, int> kidParents;
    QMap<int, QByteArray> parentKids;
    // Kid widgets show their field's value: the first one given for the name.
    auto fieldValue = [&](const FieldSpec &field) {
        for (const FieldSpec &other : spec.fields)
            if (field.kid && other.kid && other.name == field.name && !other.value.isEmpty())
                return other.value;
        return field.value;
    };
    for (size_t i = 0; i < pages.size(); ++i) {
        const int pageNumber = objects.reserve();
        pageNumbers.push_back(pageNumber);
        objects.reserve();
        const QByteArray pageRef = " /P " + ref(pageNumber);
        QByteArray annots;
        for (const RawAnnotation &a : pages[i].annotations) {
            const int dictNumber = objects.reserve();
            annots += ref(dictNumber) + ' ';
            const QByteArray popupRef = a.popup ? " /Popup " + ref(dictNumber + 2) : QByteArray();
            const QByteArray ap = a.appearance.isNull() ? QByteArray() : " /AP << /N " + ref(dictNumber + 1) + " >>";
            objects.set(dictNumber, a.dictionary + " /Rect " + rect(a.rect) + pageRef + popupRef + ap + " >>");
            objects.add(stream("/Type /XObject /Subtype /Form /BBox " + rect(a.rect), a.appearance));
            if (a.popup) {
                annots += ref(dictNumber + 2) + ' ';
                objects.add("<< /Type /Annot /Subtype /Popup /Rect " + rect(*a.popup) + pageRef + " /Parent " + ref(dictNumber) +
                            " /Open false >>");
            }
        }
        for (const LinkSpec &link : spec.links) {
            if (link.fromPage != int(i))
                continue;
            links.emplace_back(objects.reserve(), &link);
            annots += ref(links.back().first) + ' ';
        }
        for (const FieldSpec &field : spec.fields) {
            if (field.page != int(i))
                continue;
            const int widget = objects.reserve();
            annots += ref(widget) + ' ';
            QByteArray dict = "<< /Type /Annot /Subtype /Widget /F 4 /Rect " + rect(field.rect) + pageRef;
            if (field.kid) {
                if (!kidParents.contains(field.name)) {
                    kidParents.insert(field.name, objects.reserve());
                    fields.push_back(kidParents.value(field.name));
                }
                parentKids[kidParents.value(field.name)] += ref(widget) + ' ';
                dict += " /Parent " + ref(kidParents.value(field.name));
            } else {
                dict += " /FT /Tx /T " + textString(field.name) + " /DA (/Helv 12 Tf 0 g)";
                if (!field.value.isEmpty())
                    dict += " /V " + textString(field.value);
                fields.push_back(widget);
            }
            objects.set(widget, dict + " /AP << /N " + ref(objects.add(fieldAppearance(field, fieldValue(field)))) + " >> >>");
        }
        pageAnnots.push_back(annots);
    }

    QMap<QByteArray, int> otherFonts;
    for (const PageSpec &p : pages)
        for (const TextRun &run : p.text)
            if (run.font != "Helvetica")
                otherFonts.insert(run.font, 0);
    for (auto it = otherFonts.begin(); it != otherFonts.end(); ++it)
        it.value() = objects.add("<< /Type /Font /Subtype /Type1 /BaseFont /" + it.key() + " /Encoding /WinAnsiEncoding >>");
    auto fontKey = [&](const QByteArray &name) {
        return name == "Helvetica" ? QByteArray("F1") : "F" + QByteArray::number(otherFonts.value(name));
    };
    QByteArray fontResources = "/F1 3 0 R";
    for (auto it = otherFonts.begin(); it != otherFonts.end(); ++it)
        fontResources += " /F" + QByteArray::number(it.value()) + ' ' + ref(it.value());
    QByteArray kids;
    for (size_t i = 0; i < pages.size(); ++i) {
        const PageSpec &p = pages[i];
        const int pageNumber = pageNumbers[i];
        kids += ref(pageNumber) + ' ';
        QByteArray page = "<< /Type /Page /Parent 2 0 R /MediaBox " + rect(p.mediaBox);
        if (p.cropBox)
            page += " /CropBox " + rect(*p.cropBox);
        if (p.rotation)
            page += " /Rotate " + QByteArray::number(p.rotation);
        page += " /Resources << /Font << " + fontResources + " >> >> /Contents " + ref(pageNumber + 1);
        if (!pageAnnots[i].isEmpty())
            page += " /Annots [" + pageAnnots[i] + "]";
        objects.set(pageNumber, page + " >>");
        QByteArray content;
        for (const TextRun &run : p.text)
            content += "BT /" + fontKey(run.font) + ' ' + num(run.size) + " Tf " + num(run.origin.x()) + ' ' +
                       num(run.origin.y()) + " Td (" + escaped(run.text) + ") Tj ET\n";
        objects.set(pageNumber + 1, "<< /Length " + QByteArray::number(content.size()) + " >>\nstream\n" + content + "endstream");
    }

    auto explicitDestination = [&](int page) -> QByteArray {
        if (page < 0 || page >= int(pages.size()))
            return "null";
        return '[' + ref(pageNumbers[size_t(page)]) + " /XYZ 0 " + num(pages[size_t(page)].mediaBox.bottom()) + " 0]";
    };
    const TargetWriter target = [&](int page, const QByteArray &name, bool asAction) {
        const QByteArray destination = name.isEmpty()     ? explicitDestination(page)
                                       : spec.legacyDests ? '/' + name
                                                          : '(' + name + ')';
        return asAction ? " /A << /S /GoTo /D " + destination + " >>" : " /Dest " + destination;
    };
    for (const auto &[number, link] : links)
        objects.set(number, "<< /Type /Annot /Subtype /Link /Rect " + rect(link->rect) + " /Border [0 0 0] /P " +
                                ref(pageNumbers[size_t(link->fromPage)]) + target(link->toPage, link->name, link->asAction) +
                                " >>");
    for (const FieldSpec &field : spec.fields) {
        if (!field.kid || !parentKids.contains(kidParents.value(field.name)))
            continue;
        const QString value = fieldValue(field);
        const int parent = kidParents.value(field.name);
        objects.set(parent, "<< /FT /Tx /T " + textString(field.name) + (value.isEmpty() ? "" : " /V " + textString(value)) +
                                " /DA (/Helv 12 Tf 0 g) /Kids [" + parentKids.take(parent) + "] >>");
    }

    QByteArray catalog = "<< /Type /Catalog /Pages 2 0 R";
    if (!spec.outline.empty()) {
        const int root = objects.reserve();
        const OutlineLevel top = writeOutline(objects, spec.outline, root, target);
        objects.set(root, "<< /Type /Outlines /First " + ref(top.first) + " /Last " + ref(top.last) + " /Count " +
                              QByteArray::number(top.count) + " >>");
        catalog += " /Outlines " + ref(root) + " /PageMode /UseOutlines";
    }
    if (!spec.namedDestinations.empty()) {
        // A name tree's keys are sorted; the older dictionary takes names
        // for keys and holds each destination in a dictionary of its own.
        std::map<QByteArray, int> sorted(spec.namedDestinations.begin(), spec.namedDestinations.end());
        QByteArray entries;
        for (const auto &[name, page] : sorted)
            entries += spec.legacyDests ? " /" + name + " << /D " + explicitDestination(page) + " >>"
                                        : " (" + name + ") " + explicitDestination(page);
        if (spec.legacyDests) {
            catalog += " /Dests " + ref(objects.add("<<" + entries + " >>"));
        } else {
            const int leaf = objects.add("<< /Limits [(" + sorted.begin()->first + ") (" + sorted.rbegin()->first +
                                         ")] /Names [" + entries + " ] >>");
            catalog += " /Names << /Dests " + ref(objects.add("<< /Kids [" + ref(leaf) + "] >>")) + " >>";
        }
    }
    if (!fields.empty()) {
        QByteArray list;
        for (int field : fields)
            list += ref(field) + ' ';
        catalog += " /AcroForm " +
                   ref(objects.add("<< /Fields [" + list + "] /DR << /Font << /Helv 3 0 R >> >> /DA (/Helv 0 Tf 0 g) >>"));
    }
    objects.set(1, catalog + " >>");
    objects.set(2, "<< /Type /Pages /Kids [" + kids + "] /Count " + QByteArray::number(int(pages.size())) + " >>");
    return objects.file();
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

QString toolOutput(const QString &program, const QStringList &args)
{
    QProcess process;
    process.start(program, args);
    return process.waitForFinished(60000) ? QString::fromUtf8(process.readAllStandardOutput()) : QString();
}

bool writePdf(const QString &path, const std::vector<PageSpec> &pages)
{
    return writeFile(path, buildPdf(pages));
}

bool writeStructuredPdf(const QString &path, const StructuredSpec &document)
{
    return writeFile(path, buildStructuredPdf(document));
}

std::vector<PageSpec> numberedPages(int count, int linesPerPage)
{
    std::vector<PageSpec> pages(size_t(std::max(count, 0)));
    for (int i = 0; i < count; ++i) {
        auto &text = pages[size_t(i)].text;
        text.push_back({QStringLiteral("Page %1").arg(i + 1), {72, 720}, 24});
        for (int line = 0; line < linesPerPage; ++line)
            text.push_back(
                {QStringLiteral("The quick brown fox jumps over the lazy dog, line %1 of page %2.").arg(line + 1).arg(i + 1),
                 {72, 680.0 - 16 * line},
                 12});
    }
    return pages;
}

QString numberedFile(const QString &folder, const QString &name, int pages)
{
    const QString path = folder + QLatin1Char('/') + name;
    if (!QFile::exists(path))
        writePdf(path, numberedPages(pages));
    return path;
}

bool writeEncrypted(const QString &path, const std::vector<PageSpec> &pages, const QString &password)
{
    QTemporaryDir dir;
    const QString plain = dir.filePath(QStringLiteral("plain.pdf"));
    if (!writePdf(plain, pages))
        return false;
    auto doc = PdfDocument::open(plain);
    return doc && doc->write(path, PdfWriteOptions{password, password + QStringLiteral("-owner")});
}

bool writeWithAnnotations(const QString &path)
{
    QTemporaryDir dir;
    const QString plain = dir.filePath(QStringLiteral("plain.pdf"));
    if (!writePdf(plain, numberedPages(1)))
        return false;
    auto doc = PdfDocument::open(plain);
    auto page = doc ? doc->page(0) : nullptr;
    if (!page)
        return false;

    auto square = PdfAnnotation::create({72, 500, 100, 60}, PdfAnnotation::Square);
    square->setColor(Qt::red);
    square->setInteriorColor(QColor(0, 0, 255, 128));
    square->setBorderWidth(3);
    page->addAnnotation(square);

    auto circle = PdfAnnotation::create({200, 500, 80, 60}, PdfAnnotation::Circle);
    circle->setColor(Qt::darkGreen);
    circle->setBorderWidth(2);
    page->addAnnotation(circle);

    auto ink = PdfAnnotation::create({300, 500, 100, 60}, PdfAnnotation::Ink);
    ink->setColor(Qt::blue);
    ink->setBorderWidth(3);
    ink->addInkPath(QPolygonF({{3, 3}, {50, 57}, {97, 3}}));
    page->addAnnotation(ink);

    const QString markups[] = {PdfAnnotation::Highlight, PdfAnnotation::Underline, PdfAnnotation::StrikeOut};
    for (int i = 0; i < 3; ++i) {
        auto markup = PdfAnnotation::create({72, 676.0 - 16 * i, 200, 14}, markups[i]);
        markup->setColor(i == 0 ? QColor(Qt::yellow) : QColor(Qt::magenta));
        markup->setQuadrilateralPoints({{0, 14}, {200, 14}, {0, 0}, {200, 0}});
        page->addAnnotation(markup);
    }

    auto text = PdfAnnotation::create({72, 400, 240, 24}, PdfAnnotation::FreeText);
    text->setContents(QStringLiteral("Note"));
    text->setFont(PdfFont{QStringLiteral("Helvetica"), 14});
    text->setFontColor(Qt::black);
    text->setColor(QColor(0, 0, 0, 0));
    text->setBorderWidth(0);
    page->addAnnotation(text);

    QImage signature(200, 60, QImage::Format_ARGB32);
    signature.fill(Qt::transparent);
    QPainter painter(&signature);
    painter.setPen(QPen(Qt::black, 4));
    painter.drawLine(10, 50, 190, 10);
    painter.end();
    auto stamp = PdfAnnotation::create({300, 380, 200, 60}, PdfAnnotation::Stamp);
    stamp->setBorderWidth(0);
    stamp->setStampImage(signature);
    page->addAnnotation(stamp);

    return doc->write(path);
}

PageSpec pageWithForeignAnnotations()
{
    PageSpec page;
    page.text.push_back({QStringLiteral("Form"), {72, 720}, 24});
    page.annotations.push_back({"<< /Type /Annot /Subtype /Line /L [100 300 300 400] /C [0 0 1] /F 4",
                                QRectF(QPointF(98, 298), QPointF(302, 402)), "0 0 1 RG 4 w 100 300 m 300 400 l S"});
    page.annotations.push_back(
        {"<< /Type /Annot /Subtype /Widget /FT /Tx /T (name) /F 4", QRectF(100, 500, 150, 30), "0 0.6 0 rg 100 500 150 30 re f"});
    return page;
}

PageSpec pageWithPopups()
{
    PageSpec page;
    page.text.push_back({QStringLiteral("Notes"), {72, 720}, 24});
    page.annotations.push_back({"<< /Type /Annot /Subtype /Text /Contents (A note) /T (Reviewer) /C [1 1 0] /F 28",
                                QRectF(100, 600, 20, 20), "1 1 0 rg 100 600 20 20 re f", QRectF(130, 520, 200, 100)});
    page.annotations.push_back({"<< /Type /Annot /Subtype /Square /Contents (A square) /C [0 0 1] /F 4",
                                QRectF(200, 300, 100, 60), "0 0 1 RG 2 w 201 301 98 58 re S", QRectF(320, 300, 200, 100)});
    return page;
}

bool writeGhostscriptNote(const QString &path)
{
    QTemporaryDir dir;
    const QString ps = dir.filePath(QStringLiteral("note.ps"));
    const QByteArray program =
        "%!PS\n/Helvetica findfont 24 scalefont setfont 72 720 moveto (Notes) show\n"
        "[ /_objdef {note1} /Rect [100 600 120 620] /Subtype /Text /Contents (A note) /T (Reviewer)"
        " /Open false /Color [1 1 0] /Popup {pop1} /ANN pdfmark\n"
        "[ /_objdef {pop1} /Rect [130 520 330 620] /Subtype /Popup /Open false /Parent {note1} /ANN pdfmark\n"
        "showpage\n";
    return writeFile(ps, program) && QProcess::execute(QStringLiteral("ps2pdf"), {ps, path}) == 0 && QFile::exists(path);
}

QByteArray buildDamagedTree(TreeDamage damage)
{
    ObjectTable objects;
    objects.add("<< /Type /Catalog /Pages 2 0 R >>");
    objects.reserve();
    objects.add("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
    // The nodes between the root and the pages: one, or 200 for a deep tree.
    std::vector<int> nodes{2};
    const int between = damage == TreeDamage::Deep ? 200 : damage == TreeDamage::SelfParent || damage == TreeDamage::Loop;
    for (int i = 0; i < between; ++i)
        nodes.push_back(objects.reserve());
    const int holder = nodes.back();
    QByteArray kids;
    for (int i = 1; i <= 3; ++i) {
        const int content = objects.add(stream({}, "BT /F1 24 Tf 72 720 Td (Page " + QByteArray::number(i) + ") Tj ET"));
        kids += ref(objects.add("<< /Type /Page /Parent " + ref(holder) + " /Contents " + ref(content) + " >>")) + ' ';
        if (i == 1 && damage == TreeDamage::Loop)
            kids += ref(holder) + ' ';
        if (i == 2 && damage == TreeDamage::RootAmongKids)
            kids += ref(2) + ' ';
    }
    const QByteArray count = damage == TreeDamage::HugeCount ? "2147483647" : "3";
    for (size_t i = 0; i < nodes.size(); ++i) {
        QByteArray node = "<< /Type /Pages /Count " + count + " /Kids [" + (nodes[i] == holder ? kids : ref(nodes[i + 1])) + "]";
        if (i > 0)
            node += " /Parent " + ref(damage == TreeDamage::SelfParent ? nodes[i] : nodes[i - 1]);
        else
            node += " /MediaBox [0 0 612 792] /Resources << /Font << /F1 3 0 R >> >>";
        objects.set(nodes[i], node + " >>");
    }
    return objects.file();
}

bool writeSigned(const QString &path)
{
    QTemporaryDir dir;
    auto in = [&](const char *name) { return dir.filePath(QLatin1String(name)); };
    auto openssl = [](const QStringList &arguments) { return QProcess::execute(QStringLiteral("openssl"), arguments) == 0; };
    if (!openssl({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", in("key.pem"), "-out", in("cert.pem"), "-days",
                  "30", "-subj", "/CN=Vellora Test Signer"}))
        return false;
    // Two pages, the first with a signature field whose value leaves room for the signature.
    const QByteArray page = "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Resources << /Font << /F1 7 0 R >> >> ";
    const QByteArray unfilled = "[0 0000000000 0000000000 0000000000]";
    const std::vector<QByteArray> objects = {
        "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R] /SigFlags 3 >> >>",
        "<< /Type /Pages /Kids [3 0 R 8 0 R] /Count 2 >>",
        page + "/Contents 6 0 R /Annots [4 0 R] >>",
        "<< /FT /Sig /T (Signature1) /V 5 0 R /Type /Annot /Subtype /Widget /Rect [0 0 0 0] /F 132 /P 3 0 R >>",
        "<< /Type /Sig /Filter /Adobe.PPKLite /SubFilter /adbe.pkcs7.detached /M (D:20260101000000Z) /ByteRange " + unfilled +
            " /Contents <" + QByteArray(8192, '0') + "> >>",
        stream({}, "BT /F1 24 Tf 72 720 Td (Page 1) Tj ET"),
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        page + "/Contents 9 0 R >>",
        stream({}, "BT /F1 24 Tf 72 720 Td (Page 2) Tj ET"),
    };
    QByteArray pdf = "%PDF-1.7\n";
    QByteArray xref = "xref\n0 " + QByteArray::number(objects.size() + 1) + "\n0000000000 65535 f \n";
    for (size_t i = 0; i < objects.size(); ++i) {
        xref += QByteArray::number(pdf.size()).rightJustified(10, '0') + " 00000 n \n";
        pdf += QByteArray::number(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const qsizetype startxref = pdf.size();
    pdf += xref + "trailer\n<< /Size " + QByteArray::number(objects.size() + 1) + " /Root 1 0 R >>\nstartxref\n" +
           QByteArray::number(startxref) + "\n%%EOF\n";
    // The signature covers everything but its own hex string.
    const qsizetype from = pdf.indexOf("/Contents <") + 10, to = pdf.indexOf('>', from) + 1;
    const QByteArray range = '[' + QByteArray::number(0) + ' ' + QByteArray::number(from) + ' ' + QByteArray::number(to) + ' ' +
                             QByteArray::number(pdf.size() - to) + ']';
    pdf.replace(pdf.indexOf(unfilled), unfilled.size(), range.leftJustified(unfilled.size(), ' '));
    if (!writeFile(in("signed-bytes"), pdf.left(from) + pdf.mid(to)) ||
        !openssl({"cms", "-sign", "-binary", "-md", "sha256", "-outform", "DER", "-in", in("signed-bytes"), "-signer",
                  in("cert.pem"), "-inkey", in("key.pem"), "-out", in("signature.der")}))
        return false;
    QFile der(in("signature.der"));
    if (!der.open(QIODevice::ReadOnly))
        return false;
    const QByteArray hex = der.readAll().toHex().toUpper();
    if (hex.size() > to - from - 2)
        return false;
    pdf.replace(from + 1, hex.size(), hex);
    return writeFile(path, pdf);
}

bool writeRestricted(const QString &source, const QString &path)
{
    return QProcess::execute(QStringLiteral("qpdf"),
                             {"--encrypt", "", "owner-secret", "256", "--modify=none", "--annotate=n", "--", source, path}) == 0;
}

bool writeDamaged(const QString &path)
{
    QByteArray data = "%PDF-1.7\n";
    for (int i = 0; i < 4000; ++i)
        data += char((i * 7919 + 13) % 251);
    return writeFile(path, data);
}

bool writeTruncated(const QString &path, double fraction)
{
    const QByteArray whole = buildPdf(numberedPages(4));
    return writeFile(path, whole.left(qsizetype(whole.size() * fraction)));
}

QByteArray widgetObject(const QByteArray &rect, const QByteArray &more)
{
    return "<< /Type /Annot /Subtype /Widget /P 3 0 R /F 4 /Rect [" + rect + "] " + more + " >>";
}

QByteArray javaScript(const QByteArray &js)
{
    return "<< /S /JavaScript /JS (" + js + ") >>";
}

// A form of every kind of field on one page laid out in rows (/Tabs /R),
// listed out of their order. Objects: 1 catalog, 2 pages, 3 page, 4 form,
// 5 font, 6/7 check box on/off looks, then the fields from 8 on.
QByteArray formOfEveryKind()
{
    const QByteArray money = "/AA << /F " + javaScript("AFNumber_Format(2, 0, 0, 0, \"$\", true);") + " /K " +
                             javaScript("AFNumber_Keystroke(2, 0, 0, 0, \"$\", true);");
    std::vector<QByteArray> fields{
        // 8 total, 9 amount1, 10 amount2
        widgetObject("450 650 560 670", "/FT /Tx /T (total) /Ff 1 " + money + " /C " +
                                            javaScript("AFSimple_Calculate(\"SUM\", new Array (\"amount1\", \"amount2\"));") +
                                            " >>"),
        widgetObject("50 650 200 670", "/FT /Tx /T (amount1) /DV (5) /MK << /BC [0 0 1] >> " + money + " >>"),
        widgetObject("250 650 400 670", "/FT /Tx /T (amount2) " + money + " >>"),
        // 11 name: blue 12 pt, described; 12 comb of five; 13 comb without a length; 14 auto-sized
        widgetObject("50 700 300 720", "/FT /Tx /T (name) /TU (Your full name) /DA (/Helv 12 Tf 0 0 1 rg)"),
        widgetObject("50 600 150 620", "/FT /Tx /T (comb) /Ff 16777216 /MaxLen 5"),
        widgetObject("200 600 300 620", "/FT /Tx /T (plain) /Ff 16777216"),
        widgetObject("50 560 120 575", "/FT /Tx /T (small)"),
        // 15 check box whose on state is "Ja"
        widgetObject("350 600 365 615", "/FT /Btn /T (agree) /AS /Off /AP << /N << /Ja 6 0 R /Off 7 0 R >> >>"),
        // 16 radio group in unison (kids 17-20: A, B, A again, one without an on state)
        "<< /FT /Btn /T (choice) /Ff 33603584 /Kids [17 0 R 18 0 R 19 0 R 20 0 R] >>",
        widgetObject("350 560 365 575", "/Parent 16 0 R /AS /Off /AP << /N << /A 6 0 R /Off 7 0 R >> >>"),
        widgetObject("380 560 395 575", "/Parent 16 0 R /AS /Off /AP << /N << /B 6 0 R /Off 7 0 R >> >>"),
        widgetObject("410 560 425 575", "/Parent 16 0 R /AS /Off /AP << /N << /A 6 0 R /Off 7 0 R >> >>"),
        widgetObject("440 560 455 575", "/Parent 16 0 R /AS /Off"),
        // 21 multi-line; 22 multi-select list; 23 signature; 24 date; 25/26 a calculation loop
        widgetObject("50 400 300 540", "/FT /Tx /T (notes) /Ff 4096 /DA (/Helv 10 Tf 0 g)"),
        widgetObject("350 400 450 460", "/FT /Ch /T (list) /Ff 2097152 /Opt [(one) [(two) (Two)] (three)]"),
        widgetObject("350 300 450 330", "/FT /Sig /T (sign)"),
        widgetObject("50 350 200 370", "/FT /Tx /T (date) /AA << /F " + javaScript("AFDate_FormatEx(\"mm/dd/yyyy\");") + " >>"),
        widgetObject("50 300 100 320",
                     "/FT /Tx /T (loopA) /AA << /C " + javaScript("AFSimple_Calculate(\"SUM\", \"loopB, amount1\");") + " >>"),
        widgetObject("150 300 200 320",
                     "/FT /Tx /T (loopB) /AA << /C " + javaScript("AFSimple_Calculate(\"SUM\", \"loopA\");") + " >>"),
    };
    QByteArray annots, top;
    for (int n : {8, 9, 10, 11, 12, 13, 14, 15, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26})
        annots += QByteArray::number(n) + " 0 R ";
    for (int n : {8, 9, 10, 11, 12, 13, 14, 15, 16, 21, 22, 23, 24, 25, 26})
        top += QByteArray::number(n) + " 0 R ";
    std::vector<QByteArray> objects{
        "<< /Type /Catalog /Pages 2 0 R /AcroForm 4 0 R >>",
        "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Tabs /R /Annots [" + annots + "] >>",
        "<< /Fields [" + top +
            "] /DR << /Font << /Helv 5 0 R >> >> /DA (/Helv 0 Tf 0 g) /NeedAppearances true"
            " /CO [8 0 R 25 0 R 26 0 R 25 0 R] >>",
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        streamObject("/Type /XObject /Subtype /Form /BBox [0 0 15 15]", "0 g 2 2 11 11 re f"),
        streamObject("/Type /XObject /Subtype /Form /BBox [0 0 15 15]", ""),
    };
    objects.insert(objects.end(), fields.begin(), fields.end());
    return fixtures::buildFromObjects(objects);
}

} // namespace fixtures
