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

} // namespace

QByteArray buildPdf(const std::vector<PageSpec> &pages)
{
    // Objects: 1 catalog, 2 page tree, 3 font, then per page: the page, its
    // contents, and two objects (dictionary, appearance) per annotation; fonts
    // other than Helvetica come last, so the numbers above never change.
    std::vector<QByteArray> objects(3);
    int count = 3;
    for (const PageSpec &p : pages) {
        count += 2;
        for (const RawAnnotation &a : p.annotations)
            count += a.popup ? 3 : 2;
    }
    QMap<QByteArray, int> otherFonts;
    for (const PageSpec &p : pages)
        for (const TextRun &run : p.text)
            if (run.font != "Helvetica")
                otherFonts.insert(run.font, 0);
    int next = count;
    for (int &number : otherFonts)
        number = ++next;
    auto fontKey = [&](const QByteArray &name) {
        return name == "Helvetica" ? QByteArray("F1") : "F" + QByteArray::number(otherFonts.value(name));
    };
    QByteArray fontResources = "/F1 3 0 R";
    for (auto it = otherFonts.begin(); it != otherFonts.end(); ++it)
        fontResources += " /F" + QByteArray::number(it.value()) + ' ' + QByteArray::number(it.value()) + " 0 R";
    QByteArray kids;
    for (const PageSpec &p : pages) {
        const int pageNumber = int(objects.size()) + 1;
        kids += QByteArray::number(pageNumber) + " 0 R ";
        QByteArray page = "<< /Type /Page /Parent 2 0 R /MediaBox " + rect(p.mediaBox);
        if (p.cropBox)
            page += " /CropBox " + rect(*p.cropBox);
        if (p.rotation)
            page += " /Rotate " + QByteArray::number(p.rotation);
        page += " /Resources << /Font << " + fontResources + " >> >> /Contents " + QByteArray::number(pageNumber + 1) + " 0 R";
        QByteArray content;
        for (const TextRun &run : p.text)
            content += "BT /" + fontKey(run.font) + ' ' + num(run.size) + " Tf " + num(run.origin.x()) + ' ' +
                       num(run.origin.y()) + " Td (" + escaped(run.text) + ") Tj ET\n";
        QByteArray annots;
        std::vector<QByteArray> extra;
        for (const RawAnnotation &a : p.annotations) {
            const int dictNumber = pageNumber + 2 + int(extra.size());
            const QByteArray pageRef = " /P " + QByteArray::number(pageNumber) + " 0 R";
            annots += QByteArray::number(dictNumber) + " 0 R ";
            const QByteArray popupRef = a.popup ? " /Popup " + QByteArray::number(dictNumber + 2) + " 0 R" : QByteArray();
            extra.push_back(a.dictionary + " /Rect " + rect(a.rect) + pageRef + popupRef + " /AP << /N " +
                            QByteArray::number(dictNumber + 1) + " 0 R >> >>");
            extra.push_back("<< /Type /XObject /Subtype /Form /BBox " + rect(a.rect) + " /Length " +
                            QByteArray::number(a.appearance.size()) + " >>\nstream\n" + a.appearance + "\nendstream");
            if (a.popup) {
                annots += QByteArray::number(dictNumber + 2) + " 0 R ";
                extra.push_back("<< /Type /Annot /Subtype /Popup /Rect " + rect(*a.popup) + pageRef + " /Parent " +
                                QByteArray::number(dictNumber) + " 0 R /Open false >>");
            }
        }
        if (!annots.isEmpty())
            page += " /Annots [" + annots + "]";
        objects.push_back(page + " >>");
        objects.push_back("<< /Length " + QByteArray::number(content.size()) + " >>\nstream\n" + content + "endstream");
        objects.insert(objects.end(), extra.begin(), extra.end());
    }
    objects[0] = "<< /Type /Catalog /Pages 2 0 R >>";
    objects[1] = "<< /Type /Pages /Kids [" + kids + "] /Count " + QByteArray::number(int(pages.size())) + " >>";
    objects[2] = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>";
    for (auto it = otherFonts.begin(); it != otherFonts.end(); ++it)
        objects.push_back("<< /Type /Font /Subtype /Type1 /BaseFont /" + it.key() + " /Encoding /WinAnsiEncoding >>");

    QByteArray out = "%PDF-1.7\n%\xe2\xe3\xcf\xd3\n";
    std::vector<qsizetype> offsets;
    for (size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(out.size());
        out += QByteArray::number(int(i) + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const qsizetype xref = out.size();
    out += "xref\n0 " + QByteArray::number(int(objects.size()) + 1) + "\n0000000000 65535 f \n";
    for (qsizetype offset : offsets)
        out += QByteArray::number(offset).rightJustified(10, '0') + " 00000 n \n";
    out += "trailer\n<< /Size " + QByteArray::number(int(objects.size()) + 1) + " /Root 1 0 R >>\nstartxref\n" +
           QByteArray::number(xref) + "\n%%EOF\n";
    return out;
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

bool writePdf(const QString &path, const std::vector<PageSpec> &pages)
{
    return writeFile(path, buildPdf(pages));
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

} // namespace fixtures
