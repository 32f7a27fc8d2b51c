// Engine tests on files other programs make, produced at test time: a
// PostScript page with a note, a link and a filled form field run through
// Ghostscript, a groff document, an SVG drawn by cairo, a scanned page packed
// by img2pdf, the same files rewritten by qpdf (linearized, object streams,
// encrypted, rotated) and damaged copies. Each file is opened, rendered,
// marked up with every kind of annotation the system makes and saved; qpdf
// checks what was written and poppler shows our marks beside the producer's.
#include "FixtureBuilder.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPainter>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <map>

namespace {

// The exit code of a program, or -1 when it did not run to its end.
int run(const QString &program, const QStringList &args, const QString &outputFile = {})
{
    QProcess process;
    if (!outputFile.isEmpty())
        process.setStandardOutputFile(outputFile);
    process.start(program, args);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

QStringList withPassword(const QString &password)
{
    return password.isEmpty() ? QStringList() : QStringList{"--password=" + password};
}

// One page as poppler draws it, one pixel per point.
QImage popplerPage(const QString &path, const QString &password, int pageNumber)
{
    QTemporaryDir dir;
    const QString prefix = dir.filePath("page");
    QStringList args{"-r", "72", "-f", QString::number(pageNumber), "-l", QString::number(pageNumber), "-singlefile", "-png"};
    if (!password.isEmpty())
        args << "-upw" << password;
    run("pdftoppm", args << path << prefix);
    return QImage(prefix + ".png").convertToFormat(QImage::Format_RGB32);
}

// The pixels of a page-space rectangle of a poppler picture that `matches` accepts.
int pixelsIn(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect,
             const std::function<bool(QColor)> &matches)
{
    const QRect area = page->pageToDisplay().mapRect(pageRect).toAlignedRect().intersected(image.rect());
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            count += matches(image.pixelColor(x, y));
    return count;
}

// The pixels of a page-space rectangle that differ between two pictures of the page.
int changedPixels(const QImage &a, const QImage &b, const std::shared_ptr<PdfPage> &page, QRectF pageRect)
{
    if (a.size() != b.size())
        return -1;
    const QRect area = page->pageToDisplay().mapRect(pageRect).toAlignedRect().intersected(a.rect());
    int count = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor p = a.pixelColor(x, y), q = b.pixelColor(x, y);
            count += std::abs(p.red() - q.red()) + std::abs(p.green() - q.green()) + std::abs(p.blue() - q.blue()) > 48;
        }
    return count;
}

QColor pixelAt(const QImage &image, const std::shared_ptr<PdfPage> &page, QPointF pagePoint, qreal scale = 1)
{
    const QPoint p = (page->pageToDisplay().map(pagePoint) * scale).toPoint();
    return image.rect().contains(p) ? image.pixelColor(p) : QColor();
}

bool isRed(QColor c)
{
    return c.red() > 200 && c.green() < 70 && c.blue() < 70;
}
bool isGreen(QColor c)
{
    return c.green() > 100 && c.red() < 90 && c.blue() < 90;
}
bool isInk(QColor c)
{
    return std::min({c.red(), c.green(), c.blue()}) < 200;
}
// The field's text colour (blue) on its pale yellow background.
bool isFieldText(QColor c)
{
    return c.blue() > 120 && c.red() < 150 && c.blue() - c.red() > 60;
}

// The PostScript page: a heading, a note with its popup, a link and a filled
// text field, made with pdfmark; a second page of plain text.
const QByteArray ghostscriptProgram = R"(%!PS
<< /PageSize [612 792] >> setpagedevice
/Helvetica findfont 24 scalefont setfont 72 720 moveto (Producers) show
/Helvetica findfont 12 scalefont setfont 72 690 moveto (A note, a link and a filled form field.) show
[ /_objdef {note} /Rect [100 600 120 620] /Subtype /Text /Contents (A note) /T (Reviewer) /Open false
  /Color [1 0 0] /Popup {popup} /ANN pdfmark
[ /_objdef {popup} /Rect [130 520 330 620] /Subtype /Popup /Open false /Parent {note} /ANN pdfmark
[ /Rect [72 684 300 704] /Border [0 0 1] /Color [0 0 1] /Action << /Subtype /URI /URI (https://example.org/) >>
  /Subtype /Link /ANN pdfmark
[ /_objdef {field} /Subtype /Widget /Rect [72 400 300 430] /FT /Tx /T (name) /V (Filled value) /F 4
  /DA (/Helv 14 Tf 0 0 1 rg) /MK << /BG [1 1 0.8] >> /ANN pdfmark
[ {Catalog} << /AcroForm << /Fields [{field}] /DA (/Helv 0 Tf 0 g)
  /DR << /Font << /Helv << /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >> >> >> >> >>
  /PUT pdfmark
showpage
/Helvetica findfont 18 scalefont setfont 72 720 moveto (Second page) show
showpage
)";
const QRectF notePlace(100, 600, 20, 20);
const QRectF fieldPlace(72, 400, 228, 30);

const QByteArray groffDocument = R"(.TL
A document set by groff
.AU
A. Writer
.PP
These words are set in the ms macros and written out by the PDF device,
long enough to fill a few lines of the first page.
.bp
.PP
A second page, so that every page of the file is shown.
)";

const QByteArray svgDrawing = R"(<svg xmlns="http://www.w3.org/2000/svg" width="600" height="450">
<rect x="0" y="0" width="600" height="450" fill="#f8f4e8"/>
<rect x="30" y="30" width="200" height="120" fill="#3060c0" stroke="#102040" stroke-width="6"/>
<circle cx="450" cy="100" r="70" fill="#e04020" stroke="black" stroke-width="4"/>
<path d="M 40 190 C 200 150 400 260 560 190" fill="none" stroke="#208040" stroke-width="8"/>
<text x="40" y="240" font-family="DejaVu Sans" font-size="30">Text drawn by cairo</text>
</svg>
)";

// A grey page of "printed lines", a little noisy, at 100 dots per inch.
QImage scannedPage()
{
    QImage image(600, 800, QImage::Format_RGB32);
    image.fill(QColor(236, 234, 228));
    QPainter painter(&image);
    QRandomGenerator random(7);
    for (int line = 0; line < 14; ++line)
        painter.fillRect(QRect(60, 60 + line * 24, 300 + int(random.bounded(180)), 10), QColor(40, 40, 40));
    painter.end();
    for (int i = 0; i < 3000; ++i)
        image.setPixelColor(int(random.bounded(600)), int(random.bounded(800)), QColor(200, 200, 200));
    image.setDotsPerMeterX(3937);
    image.setDotsPerMeterY(3937);
    return image.convertToFormat(QImage::Format_Grayscale8);
}

// The offset the last startxref names; -1 when there is none.
qsizetype startxref(const QByteArray &data)
{
    const qsizetype at = data.lastIndexOf("startxref");
    if (at < 0)
        return -1;
    bool ok = false;
    const qsizetype offset = data.mid(at + 9, 24).trimmed().split('\n').value(0).trimmed().toLongLong(&ok);
    return ok ? offset : -1;
}

// Where the data of the stream of object `ref` ("12 0 R") starts; -1 if it is not found.
qsizetype streamData(const QByteArray &data, const QString &ref)
{
    const QByteArray header = '\n' + ref.section(' ', 0, 1).toLatin1() + " obj";
    const qsizetype object = data.indexOf(header);
    const qsizetype keyword = object < 0 ? -1 : data.indexOf("stream", object);
    if (keyword < 0)
        return -1;
    qsizetype start = keyword + 6;
    if (data.at(start) == '\r')
        ++start;
    return data.at(start) == '\n' ? start + 1 : -1;
}

QJsonObject resolved(const inspect::PdfObjects &file, const QJsonValue &value)
{
    return value.isString() ? file.dict(value.toString()) : value.toObject();
}

// The document catalog of a file, as qpdf reads it.
QJsonObject catalog(const QString &path, const QString &password, const inspect::PdfObjects &file)
{
    const QString json = fixtures::toolOutput("qpdf", QStringList{"--json=2", "--json-key=qpdf", "--json-object=trailer"}
                                                          << withPassword(password) << path);
    const QJsonObject trailer = QJsonDocument::fromJson(json.toUtf8())
                                    .object()
                                    .value("qpdf")
                                    .toArray()
                                    .at(1)
                                    .toObject()
                                    .value("trailer")
                                    .toObject()
                                    .value("value")
                                    .toObject();
    return file.dict(trailer.value("/Root").toString());
}

// The subtypes of the annotations listed on a page, with how often each occurs.
std::map<QString, int> subtypes(const inspect::PdfObjects &file, const QString &pageRef)
{
    std::map<QString, int> counts;
    for (const QString &ref : file.annots(pageRef))
        ++counts[file.dict(ref).value("/Subtype").toString()];
    return counts;
}

// What is missing of the Ghostscript page's note (with its popup, linked both
// ways), link and filled form field in a file; empty when all is there.
QString lostForeignAnnotations(const QString &path, const QString &password)
{
    const inspect::PdfObjects file(path, password);
    if (!file.isValid())
        return "qpdf cannot read the file";
    const QString pageRef = file.pages().value(0);
    const QStringList annots = file.annots(pageRef);
    QString note, link, field;
    for (const QString &ref : annots) {
        const QJsonObject annot = file.dict(ref);
        const QString subtype = annot.value("/Subtype").toString();
        if (subtype == "/Text" && annot.value("/Contents").toString() == "u:A note")
            note = ref;
        else if (subtype == "/Link" && resolved(file, annot.value("/A")).value("/URI").toString() == "u:https://example.org/")
            link = ref;
        else if (subtype == "/Widget" && annot.value("/FT").toString() == "/Tx" && annot.value("/T").toString() == "u:name" &&
                 annot.value("/V").toString() == "u:Filled value")
            field = ref;
    }
    if (note.isEmpty())
        return "the note is gone";
    const QString popup = file.dict(note).value("/Popup").toString();
    if (!annots.contains(popup) || file.dict(popup).value("/Parent").toString() != note)
        return "the note's popup is not linked to it";
    if (link.isEmpty())
        return "the link is gone";
    if (field.isEmpty())
        return "the filled text field is gone";
    const QJsonObject form = resolved(file, catalog(path, password, file).value("/AcroForm"));
    if (!form.value("/Fields").toArray().contains(QJsonValue(field)))
        return "the text field is no longer listed in the form";
    return {};
}

// Eight places in the lower part of a page's crop box, four by two, clear of
// what the producers put on their pages.
QRectF place(const QRectF &box, int i)
{
    const QRectF area(box.left() + box.width() * 0.05, box.top() + box.height() * 0.05, box.width() * 0.9, box.height() * 0.35);
    const QSizeF cell(area.width() / 4, area.height() / 2);
    const QRectF at(area.topLeft() + QPointF(cell.width() * (i % 4), cell.height() * (i / 4)), cell);
    return at.adjusted(cell.width() * 0.1, cell.height() * 0.1, -cell.width() * 0.1, -cell.height() * 0.1);
}

// One annotation of every kind the system makes, in the places of `box`.
std::vector<std::shared_ptr<PdfAnnotation>> everyKind(const QRectF &box)
{
    const QString kinds[] = {PdfAnnotation::Square,    PdfAnnotation::Circle,    PdfAnnotation::Ink,
                             PdfAnnotation::Highlight, PdfAnnotation::StrikeOut, PdfAnnotation::Underline,
                             PdfAnnotation::FreeText,  PdfAnnotation::Stamp};
    std::vector<std::shared_ptr<PdfAnnotation>> made;
    for (const QString &kind : kinds)
        made.push_back(PdfAnnotation::create(place(box, int(made.size())), kind));
    made[0]->setColor(Qt::red);
    made[0]->setInteriorColor(Qt::red);
    made[0]->setBorderWidth(2);
    made[1]->setColor(Qt::blue);
    made[1]->setBorderWidth(3);
    const QSizeF size = made[2]->bounds().size();
    made[2]->setColor(Qt::black);
    made[2]->addInkPath(QPolygonF({QPointF(0, 0), QPointF(size.width() / 2, size.height()), QPointF(size.width(), 0)}));
    const QColor markup[] = {Qt::yellow, Qt::red, Qt::darkGreen};
    for (int i = 3; i <= 5; ++i) {
        const QSizeF s = made[size_t(i)]->bounds().size();
        made[size_t(i)]->setColor(markup[i - 3]);
        made[size_t(i)]->setQuadrilateralPoints({{0, s.height()}, {s.width(), s.height()}, {0, 0}, {s.width(), 0}});
    }
    made[6]->setFont(PdfFont{QStringLiteral("Helvetica"), 9});
    made[6]->setContents(QStringLiteral("Free text"));
    QImage stamp(60, 30, QImage::Format_ARGB32);
    stamp.fill(QColor(0, 160, 0));
    made[7]->setStampImage(stamp);
    return made;
}

// qpdf's account of a file's encryption, the file opened with `password`.
QString encryptionOf(const QString &path, const QString &password)
{
    return fixtures::toolOutput("qpdf", QStringList{"--show-encryption"} << withPassword(password) << path);
}

// The security handler revision qpdf reports ("R = 6"); 0 when there is none.
int revisionOf(const QString &path, const QString &password)
{
    static const QRegularExpression revision("^R = (\\d+)$", QRegularExpression::MultilineOption);
    return revision.match(encryptionOf(path, password)).captured(1).toInt();
}

// What a file is and what to expect of it after an edit.
struct Source {
    QString file;
    QString password; // the user password, when there is one
    bool foreign;     // carries the Ghostscript page's note, link and field
    QString intact;   // the undamaged file it was made from, when it is damaged
    bool badContent;  // the first page's content stream is damaged
};

// Opens `source`, renders every page, puts one annotation of every kind on the
// first page, saves to `saved` and checks the saved file with the engine,
// qpdf and poppler. Test failures are recorded; the caller stops on them.
void editAndCheck(const Source &source, const QString &saved)
{
    auto doc = PdfDocument::open(source.file);
    QVERIFY2(doc, "the file does not open");
    if (!source.password.isEmpty()) {
        QVERIFY(doc->isLocked());
        QVERIFY(!doc->unlock(source.password + "x"));
        QVERIFY(doc->unlock(source.password));
    }
    QVERIFY(!doc->isLocked());
    const int pages = doc->pageCount();
    QVERIFY(pages > 0);
    for (int i = 0; i < pages; ++i)
        QVERIFY2(!doc->page(i)->render(0.2).isNull(), qPrintable(QString("page %1 does not render").arg(i + 1)));

    auto page = doc->page(0);
    const int rotation = page->rotation();
    const size_t before = page->annotations().size();
    const auto made = everyKind(page->bounds());
    for (const auto &annotation : made) {
        page->addAnnotation(annotation);
        QVERIFY2(annotation->page() == page, qPrintable(annotation->type() + " was not added"));
    }
    QCOMPARE(page->annotations().size(), before + made.size());
    const QImage ours = page->render(1.0);
    QVERIFY(isRed(pixelAt(ours, page, made[0]->bounds().center())));

    // Saving mends damaged content (and tells the views), once and only then.
    int contentChanges = 0;
    QObject::connect(doc->changes(), &PdfChangeChannel::pageChanged,
                     [&](const std::shared_ptr<PdfPage> &changed, PdfChangeChannel::Changes changes) {
                         contentChanges += changed == page && changes.testFlag(PdfChangeChannel::Content);
                     });
    QVERIFY(doc->write(saved));
    QCOMPARE(contentChanges, source.badContent ? 1 : 0);
    QVERIFY(doc->write(saved));
    QCOMPARE(contentChanges, source.badContent ? 1 : 0);
    QCOMPARE(inspect::qpdfProblems(saved, source.password), QString());

    // The page lists the producer's annotations as they were, and ours once each.
    const inspect::PdfObjects original(source.file, source.password), written(saved, source.password);
    QVERIFY(written.isValid());
    QCOMPARE(written.pages().size(), pages);
    std::map<QString, int> expected =
        original.isValid() ? subtypes(original, original.pages().value(0)) : std::map<QString, int>();
    for (const auto &annotation : made)
        ++expected["/" + annotation->type()];
    std::map<QString, int> found = subtypes(written, written.pages().value(0));
    if (!original.isValid()) // damaged beyond qpdf's repair: only ours are asked for
        std::erase_if(found, [&](const auto &entry) { return !expected.count(entry.first); });
    QCOMPARE(found, expected);
    if (source.foreign)
        QCOMPARE(lostForeignAnnotations(saved, source.password), QString());

    // Another reader shows our marks and the producer's.
    const QImage shown = popplerPage(saved, source.password, 1);
    const QImage unedited = popplerPage(source.intact.isEmpty() ? source.file : source.intact, source.password, 1);
    QVERIFY2(!shown.isNull() && !unedited.isNull(), "poppler does not render the files");
    for (const auto &annotation : made)
        QVERIFY2(changedPixels(unedited, shown, page, annotation->bounds()) > 10,
                 qPrintable("poppler does not show the " + annotation->type()));
    QVERIFY2(isRed(pixelAt(shown, page, made[0]->bounds().center())), "poppler does not show the square's fill");
    QVERIFY2(isGreen(pixelAt(shown, page, made[7]->bounds().center())), "poppler does not show the stamp's image");
    if (source.foreign) {
        // The note's icon (which does not turn with the page) and the field look as they did.
        for (const QRectF &region : {notePlace, fieldPlace}) {
            const QRectF around = region.adjusted(-30, -30, 30, 30);
            QVERIFY(pixelsIn(unedited, page, around, isInk) > 20);
            QCOMPARE(changedPixels(unedited, shown, page, around), 0);
        }
        QVERIFY2(pixelsIn(shown, page, fieldPlace, isFieldText) > 20, "poppler does not show the field's value");
    }

    // The engine reads back what it wrote.
    auto reopened = PdfDocument::open(saved);
    QVERIFY(reopened);
    if (!source.password.isEmpty())
        QVERIFY(reopened->unlock(source.password));
    QCOMPARE(reopened->pageCount(), pages);
    QCOMPARE(reopened->page(0)->rotation(), rotation);
    QCOMPARE(reopened->page(0)->annotations().size(), before + made.size());
    for (int i = 0; i < pages; ++i)
        QVERIFY(!reopened->page(i)->render(0.2).isNull());
}

// The ways a file gets damaged: cut short, its cross-reference offset wrong,
// bytes of the first page's content overwritten.
enum class Damage { CutAtHalf, CutAtNinetyPercent, CutBeforeTrailer, CutBeforeCrossReference, WrongStartxref, Content };

QByteArray damaged(const QByteArray &data, Damage damage, const QString &contentsRef)
{
    switch (damage) {
    case Damage::CutAtHalf:
        return data.left(data.size() / 2);
    case Damage::CutAtNinetyPercent:
        return data.left(data.size() * 9 / 10);
    case Damage::CutBeforeTrailer:
        return data.left(data.lastIndexOf("trailer"));
    case Damage::CutBeforeCrossReference:
        return data.left(startxref(data));
    case Damage::WrongStartxref: {
        const qsizetype at = data.lastIndexOf("startxref");
        const QByteArray wrong = "startxref\n" + QByteArray::number(startxref(data) / 2) + "\n%%EOF\n";
        return data.left(at) + wrong;
    }
    case Damage::Content: {
        // Half-way through its data, so the start of the page still shows.
        QByteArray copy = data;
        const qsizetype start = streamData(copy, contentsRef), end = copy.indexOf("endstream", start);
        if (start >= 0 && end > start + 48)
            copy.replace((start + end) / 2, 16, QByteArray(16, 'X'));
        return copy;
    }
    }
    return data;
}

} // namespace

class TestProducers : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void producedFilesTakeEdits_data();
    void producedFilesTakeEdits();
    void encryptedFilesStayEncrypted_data();
    void encryptedFilesStayEncrypted();
    void damagedFilesOpenOrAreRefused_data();
    void damagedFilesOpenOrAreRefused();

private:
    QString path(const QString &name) const { return dir_.filePath(name); }
    QTemporaryDir dir_;
};

void TestProducers::initTestCase()
{
    QVERIFY(dir_.isValid());
    QVERIFY(fixtures::writeFile(path("page.ps"), ghostscriptProgram));
    QCOMPARE(run("ps2pdf", {path("page.ps"), path("ghostscript.pdf")}), 0);
    QVERIFY(fixtures::writeFile(path("document.ms"), groffDocument));
    QCOMPARE(run("groff", {"-ms", "-Tpdf", path("document.ms")}, path("groff.pdf")), 0);
    QVERIFY(fixtures::writeFile(path("drawing.svg"), svgDrawing));
    QCOMPARE(run("rsvg-convert", {"-f", "pdf", "-o", path("cairo.pdf"), path("drawing.svg")}), 0);
    QVERIFY(scannedPage().save(path("scan.png")));
    QCOMPARE(run("img2pdf", {path("scan.png"), "-o", path("scan.pdf")}), 0);

    // qpdf rewrites the Ghostscript file (the one with the most to lose) and the drawing.
    const QString gs = path("ghostscript.pdf");
    QCOMPARE(run("qpdf", {"--linearize", gs, path("linearized.pdf")}), 0);
    QCOMPARE(run("qpdf", {"--object-streams=generate", gs, path("object-streams.pdf")}), 0);
    QCOMPARE(run("qpdf", {"--object-streams=generate", path("cairo.pdf"), path("cairo-object-streams.pdf")}), 0);
    QCOMPARE(run("qpdf", {"--rotate=+90:1", gs, path("rotated.pdf")}), 0);
    QCOMPARE(run("qpdf", {"--encrypt", "user", "owner", "256", "--", gs, path("aes-256.pdf")}), 0);
    QCOMPARE(
        run("qpdf", {"--allow-weak-crypto", "--encrypt", "user", "owner", "128", "--use-aes=n", "--", gs, path("rc4-128.pdf")}),
        0);
    QCOMPARE(run("qpdf", {"--encrypt", "", "owner", "256", "--", gs, path("owner-only.pdf")}), 0);

    for (const char *name : {"ghostscript.pdf", "groff.pdf", "cairo.pdf", "scan.pdf"})
        QVERIFY2(readAll(path(name)).startsWith("%PDF-"), name);
    QCOMPARE(lostForeignAnnotations(gs, {}), QString());
}

void TestProducers::producedFilesTakeEdits_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("foreign");
    QTest::newRow("ghostscript") << "ghostscript.pdf" << true;
    QTest::newRow("groff") << "groff.pdf" << false;
    QTest::newRow("cairo") << "cairo.pdf" << false;
    QTest::newRow("img2pdf") << "scan.pdf" << false;
    QTest::newRow("qpdf linearized") << "linearized.pdf" << true;
    QTest::newRow("qpdf object streams") << "object-streams.pdf" << true;
    QTest::newRow("qpdf object streams, cairo") << "cairo-object-streams.pdf" << false;
    QTest::newRow("qpdf rotated") << "rotated.pdf" << true;
}

void TestProducers::producedFilesTakeEdits()
{
    QFETCH(QString, file);
    QFETCH(bool, foreign);
    editAndCheck({path(file), {}, foreign, {}, false}, path("saved-" + file));
}

void TestProducers::encryptedFilesStayEncrypted_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("userPassword");
    QTest::addColumn<int>("revision");
    QTest::newRow("AES-256") << "aes-256.pdf"
                             << "user" << 6;
    QTest::newRow("RC4 128") << "rc4-128.pdf"
                             << "user" << 3;
    QTest::newRow("owner password only") << "owner-only.pdf" << QString() << 6;
}

void TestProducers::encryptedFilesStayEncrypted()
{
    QFETCH(QString, file);
    QFETCH(QString, userPassword);
    QFETCH(int, revision);
    const QString source = path(file), saved = path("saved-" + file);
    QCOMPARE(revisionOf(source, "owner"), revision);
    editAndCheck({source, userPassword, true, {}, false}, saved);
    if (QTest::currentTestFailed())
        return;

    // The same encryption with the same two passwords.
    QCOMPARE(revisionOf(saved, "owner"), revision);
    QVERIFY(encryptionOf(saved, "owner").contains("Supplied password is owner password"));
    QVERIFY(encryptionOf(saved, userPassword).contains("Supplied password is user password"));
    QCOMPARE(run("qpdf", {"--requires-password", saved}), userPassword.isEmpty() ? 3 : 0);
    auto reopened = PdfDocument::open(saved);
    QVERIFY(reopened);
    QVERIFY(reopened->isEncrypted());
    QCOMPARE(reopened->isLocked(), !userPassword.isEmpty());
    if (!userPassword.isEmpty()) {
        QVERIFY(!reopened->unlock("owner-x"));
        QVERIFY(reopened->unlock(userPassword));
        auto byOwner = PdfDocument::open(saved);
        QVERIFY(byOwner->unlock("owner"));
        QCOMPARE(byOwner->pageCount(), reopened->pageCount());
    }
}

void TestProducers::damagedFilesOpenOrAreRefused_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<Damage>("damage");
    QTest::addColumn<bool>("opens");
    QTest::addColumn<bool>("foreign");
    QTest::newRow("ghostscript cut at 50%") << "ghostscript.pdf" << Damage::CutAtHalf << true << false;
    QTest::newRow("ghostscript cut at 90%") << "ghostscript.pdf" << Damage::CutAtNinetyPercent << true << true;
    QTest::newRow("ghostscript cut before the trailer") << "ghostscript.pdf" << Damage::CutBeforeTrailer << true << true;
    QTest::newRow("ghostscript wrong startxref") << "ghostscript.pdf" << Damage::WrongStartxref << true << true;
    QTest::newRow("ghostscript content overwritten") << "ghostscript.pdf" << Damage::Content << true << true;
    QTest::newRow("object streams cut before the cross-reference stream")
        << "object-streams.pdf" << Damage::CutBeforeCrossReference << true << true;
    QTest::newRow("groff content overwritten") << "groff.pdf" << Damage::Content << true << false;
    QTest::newRow("cairo wrong startxref") << "cairo.pdf" << Damage::WrongStartxref << true << false;
    // These cuts lose the root of the page tree, which groff, cairo and img2pdf
    // write last: no page is left to show.
    QTest::newRow("groff cut at 50%") << "groff.pdf" << Damage::CutAtHalf << false << false;
    QTest::newRow("cairo cut at 90%") << "cairo.pdf" << Damage::CutAtNinetyPercent << false << false;
    QTest::newRow("img2pdf cut at 50%") << "scan.pdf" << Damage::CutAtHalf << false << false;
}

void TestProducers::damagedFilesOpenOrAreRefused()
{
    QFETCH(QString, file);
    QFETCH(Damage, damage);
    QFETCH(bool, opens);
    QFETCH(bool, foreign);
    const inspect::PdfObjects source(path(file));
    const QJsonValue contents = source.dict(source.pages().value(0)).value("/Contents");
    const QString contentsRef = contents.isArray() ? contents.toArray().at(0).toString() : contents.toString();
    const QByteArray data = damaged(readAll(path(file)), damage, contentsRef);
    QVERIFY(data != readAll(path(file)));
    const QString broken = path(QString("damaged-%1-%2").arg(int(damage)).arg(file));
    QVERIFY(fixtures::writeFile(broken, data));
    if (!opens) {
        QVERIFY(!data.contains("/Type /Pages") && !data.contains("/Type/Pages"));
        QVERIFY(!PdfDocument::open(broken));
        return;
    }
    editAndCheck({broken, {}, foreign, path(file), damage == Damage::Content}, path("saved-" + QFileInfo(broken).fileName()));
}

int runProducerTests(int argc, char **argv)
{
    TestProducers tests;
    return QTest::qExec(&tests, argc, argv);
}

#include "tst_producers.moc"
