// Engine tests: documents, pages, annotations and text, checked against the
// files the engine writes, as read back by the engine and by other readers
// (poppler's pdftoppm renders them, qpdf checks their structure).
#include "ActAsNobody.h"
#include "EngineTestHelpers.h"
#include "FixtureBuilder.h"
#include "FontService.h"
#include "PdfAnnotation.h"
#include "PdfDisplayList.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFontInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QPainterPath>
#include <QProcess>
#include <QRawFont>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTextLayout>
#include <QUrl>
#include <QtTest>

#include <thread>

#include <sys/file.h>
#include <sys/stat.h>

using fixtures::PageSpec;

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

using inspect::qpdfProblems;

// One page of a file as poppler draws it.
QImage popplerPage(const QString &path, int pageNumber = 1, int dpi = 72)
{
    QTemporaryDir dir;
    const QString prefix = dir.filePath("page");
    QProcess::execute("pdftoppm", {"-cropbox", "-r", QString::number(dpi), "-f", QString::number(pageNumber), "-l",
                                   QString::number(pageNumber), "-singlefile", "-png", path, prefix});
    return QImage(prefix + ".png").convertToFormat(QImage::Format_ARGB32);
}

bool near(QColor a, QColor b, int tolerance = 40)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance;
}

// The pixel of `image` (rendered at `scale` pixels per point) at a page-space point.
QColor pixelAt(const QImage &image, const std::shared_ptr<PdfPage> &page, QPointF pagePoint, qreal scale)
{
    const QPointF p = page->pageToDisplay().map(pagePoint) * scale;
    const QPoint px(int(p.x()), int(p.y()));
    return image.rect().contains(px) ? image.pixelColor(px) : QColor();
}

// Whether any pixel near `color`, as it looks over white paper, lies inside a
// page-space rectangle of the image.
bool showsColorIn(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, QColor color, qreal scale,
                  int tolerance = 40)
{
    const qreal a = color.alphaF();
    color = QColor::fromRgbF(color.redF() * a + 1 - a, color.greenF() * a + 1 - a, color.blueF() * a + 1 - a);
    const QRect area = (page->pageToDisplay().mapRect(pageRect).toAlignedRect().adjusted(-1, -1, 1, 1));
    const QRect px = QRect(area.topLeft() * scale, area.size() * scale).intersected(image.rect());
    for (int y = px.top(); y <= px.bottom(); ++y)
        for (int x = px.left(); x <= px.right(); ++x)
            if (near(image.pixelColor(x, y), color, tolerance))
                return true;
    return false;
}

// Rows of a page-space rectangle that hold dark pixels: the height of drawn text.
int inkHeight(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRect px =
        QRectF(page->pageToDisplay().mapRect(pageRect).topLeft() * scale, page->pageToDisplay().mapRect(pageRect).size() * scale)
            .toAlignedRect()
            .intersected(image.rect());
    int top = -1, bottom = -1;
    for (int y = px.top(); y <= px.bottom(); ++y)
        for (int x = px.left(); x <= px.right(); ++x)
            if (qGray(image.pixel(x, y)) < 100) {
                if (top < 0)
                    top = y;
                bottom = y;
                break;
            }
    return top < 0 ? 0 : bottom - top + 1;
}

// The pixels of an image (rendered at `scale` pixels per point) that show a page-space rectangle.
QRect pixelsOf(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRectF shown = page->pageToDisplay().mapRect(pageRect);
    return QRectF(shown.topLeft() * scale, shown.size() * scale).toAlignedRect().intersected(image.rect());
}

bool dark(const QImage &image, int x, int y)
{
    return qGray(image.pixel(x, y)) < 128;
}

// The first and last pixel columns of a page-space rectangle that hold dark
// pixels: where drawn text starts and ends. (-1, -1) when there are none.
std::pair<int, int> inkColumns(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRect px = pixelsOf(image, page, pageRect, scale);
    int first = -1, last = -1;
    for (int x = px.left(); x <= px.right(); ++x)
        for (int y = px.top(); y <= px.bottom(); ++y)
            if (dark(image, x, y)) {
                if (first < 0)
                    first = x;
                last = x;
                break;
            }
    return {first, last};
}

// Bands of rows with dark pixels, separated by blank rows: the lines of drawn text.
int inkLines(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRect px = pixelsOf(image, page, pageRect, scale);
    int bands = 0;
    bool inBand = false;
    for (int y = px.top(); y <= px.bottom(); ++y) {
        bool ink = false;
        for (int x = px.left(); x <= px.right() && !ink; ++x)
            ink = dark(image, x, y);
        bands += ink && !inBand;
        inBand = ink;
    }
    return bands;
}

// The lines Qt's own text layout breaks `text` into, wrapping as a plain text editor does.
QStringList qtLines(const QFont &font, const QString &text, qreal width)
{
    QTextLayout layout(text, font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    QStringList lines;
    layout.beginLayout();
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(width);
        lines << text.mid(line.textStart(), line.textLength());
    }
    layout.endLayout();
    return lines;
}

// The objects of a PDF file as qpdf reads them, by reference ("12 0 R").
QJsonObject qpdfObjects(const QString &path)
{
    QProcess qpdf;
    qpdf.start("qpdf", {"--json=2", "--json-key=qpdf", path});
    if (!qpdf.waitForFinished(60000))
        return {};
    const QJsonObject all = QJsonDocument::fromJson(qpdf.readAllStandardOutput())["qpdf"].toArray().at(1).toObject();
    QJsonObject objects;
    for (auto it = all.begin(); it != all.end(); ++it) {
        const QJsonObject o = it.value().toObject();
        objects[it.key().mid(4)] = o.contains("stream") ? o["stream"].toObject()["dict"] : o["value"];
    }
    return objects;
}

// A PDF name without its #xx escapes.
QString unescapedName(QString name)
{
    return QUrl::fromPercentEncoding(name.replace('#', '%').toUtf8());
}

// Every file the engine writes must pass qpdf's check.
#define WRITE_AND_CHECK(doc, file)                                                                                               \
    do {                                                                                                                         \
        QVERIFY((doc)->write(file));                                                                                             \
        QCOMPARE(qpdfProblems(file), QString());                                                                                 \
    } while (false)

QString firstLine(const std::shared_ptr<PdfPage> &page)
{
    return page->text().section('\n', 0, 0);
}

std::shared_ptr<PdfAnnotation> square(QRectF bounds, QColor stroke, QColor fill = {})
{
    auto a = PdfAnnotation::create(bounds, PdfAnnotation::Square);
    a->setColor(stroke);
    if (fill.isValid())
        a->setInteriorColor(fill);
    a->setBorderWidth(4);
    return a;
}

} // namespace

class TestEngine : public QObject {
    Q_OBJECT
private slots:
    void opensOnlyReadablePdfs();
    void lockedDocuments();
    void pagesKeepIdentityThroughRemoveAndInsert();
    void pageCopiesCarryAnnotationsRotationAndBoxes();
    void geometryOnRotatedAndOffsetPages();
    void annotationsRoundTripThroughFiles();
    void annotationsShowInOtherReaders();
    void annotationIdentityAndDrawing();
    void foreignAnnotationsKeepTheirLook();
    void freeTextShowsEveryScript();
    void fontServiceMeasuresWhatTheFileShows();
    void freeTextWrapsInItsBox();
    void freeTextDefaultAppearanceNamesItsFont();
    void textSelections();
    void retypeEditsThePageContent();
    void retypeFontsAndRefusals();
    void links();
    void displayListsRenderOnWorkerThreads();
    void writingIsAtomic();
    void savesRespectTheFileSystem();

private:
    QTemporaryDir dir_;
    QString path(const QString &name) const { return dir_.filePath(name); }
};

void TestEngine::opensOnlyReadablePdfs()
{
    QVERIFY(fixtures::writeFile(path("notes.pdf"), "Just some text, not a PDF at all.\n"));
    QVERIFY(!PdfDocument::open(path("notes.pdf")));
    QVERIFY(fixtures::writeFile(path("empty.pdf"), {}));
    QVERIFY(!PdfDocument::open(path("empty.pdf")));
    QVERIFY(fixtures::writeDamaged(path("damaged.pdf")));
    QVERIFY(!PdfDocument::open(path("damaged.pdf")));
    QVERIFY(!PdfDocument::open(path("missing.pdf")));
    QVERIFY(!PdfDocument::open(dir_.path()));

    // A truncated file is either refused or, where MuPDF recovers it, usable
    // page by page without a crash.
    for (double fraction : {0.2, 0.5, 0.8, 0.97}) {
        const QString name = path(QString("truncated-%1.pdf").arg(fraction));
        QVERIFY(fixtures::writeTruncated(name, fraction));
        if (auto doc = PdfDocument::open(name))
            for (int i = 0; i < doc->pageCount(); ++i) {
                auto page = doc->page(i);
                QVERIFY(page);
                page->render(0.5);
                page->text();
            }
    }

    QVERIFY(fixtures::writePdf(path("three.pdf"), fixtures::numberedPages(3)));
    auto doc = PdfDocument::open(path("three.pdf"));
    QVERIFY(doc);
    QCOMPARE(doc->pageCount(), 3);
    QVERIFY(!doc->isLocked());
    QVERIFY(!doc->isEncrypted());
    QCOMPARE(doc->page(2), doc->page(2));
    QVERIFY(!doc->page(-1));
    QVERIFY(!doc->page(3));
    QCOMPARE(firstLine(doc->page(2)), QString("Page 3"));
}

void TestEngine::lockedDocuments()
{
    const QString locked = path("locked.pdf");
    QVERIFY(fixtures::writeEncrypted(locked, fixtures::numberedPages(2), "sesame"));
    const QByteArray original = readAll(locked);
    auto doc = PdfDocument::open(locked);
    QVERIFY(doc);
    QVERIFY(doc->isLocked());
    QVERIFY(doc->isEncrypted());
    QCOMPARE(doc->pageCount(), 0);
    QVERIFY(!doc->page(0));
    QVERIFY(!doc->write(locked));
    QCOMPARE(readAll(locked), original);

    QVERIFY(!doc->unlock("wrong"));
    QVERIFY(!doc->unlock(""));
    QVERIFY(doc->isLocked());
    QVERIFY(doc->unlock("sesame"));
    QVERIFY(!doc->isLocked());
    QCOMPARE(doc->pageCount(), 2);
    QCOMPARE(firstLine(doc->page(1)), QString("Page 2"));

    // Saved again, it stays encrypted with the same passwords.
    doc->page(0)->addAnnotation(square({100, 100, 50, 50}, Qt::red));
    QVERIFY(doc->write(locked));
    QCOMPARE(qpdfProblems(locked, "sesame"), QString());
    auto again = PdfDocument::open(locked);
    QVERIFY(again && again->isLocked());
    QVERIFY(again->unlock("sesame-owner"));
    QCOMPARE(again->page(0)->annotations().size(), size_t(1));
}

void TestEngine::pagesKeepIdentityThroughRemoveAndInsert()
{
    QVERIFY(fixtures::writePdf(path("five.pdf"), fixtures::numberedPages(5)));
    auto doc = PdfDocument::open(path("five.pdf"));
    QVERIFY(doc);
    std::vector<std::shared_ptr<PdfPage>> pages;
    for (int i = 0; i < 5; ++i)
        pages.push_back(doc->page(i));

    QVERIFY(doc->removePage(1));
    QCOMPARE(doc->pageCount(), 4);
    QCOMPARE(pages[1]->index(), -1);
    QVERIFY(!pages[1]->document());
    QCOMPARE(doc->page(1), pages[2]);
    QCOMPARE(pages[4]->index(), 3);
    QVERIFY(!doc->removePage(4));

    // The removed page goes back as itself, annotations and all.
    auto mark = square({100, 100, 40, 40}, Qt::red);
    pages[1]->addAnnotation(mark);
    QVERIFY(doc->insert(pages[1], 3));
    QCOMPARE(pages[1]->index(), 3);
    QCOMPARE(pages[1]->document(), doc);
    QCOMPARE(doc->page(3), pages[1]);
    QCOMPARE(mark->page(), pages[1]);
    QVERIFY(showsColorIn(pages[1]->render(1), pages[1], mark->bounds(), Qt::red, 1));
    QVERIFY(!doc->insert(pages[0]->copy(), 9));

    pages[2]->setRotation(-90);
    QCOMPARE(pages[2]->rotation(), 270);
    pages[2]->setRotation(450);
    QCOMPARE(pages[2]->rotation(), 90);

    QStringList order;
    for (int i = 0; i < doc->pageCount(); ++i)
        order << firstLine(doc->page(i));
    QCOMPARE(order, QStringList({"Page 1", "Page 3", "Page 4", "Page 2", "Page 5"}));

    WRITE_AND_CHECK(doc, path("five-reordered.pdf"));
    auto reopened = PdfDocument::open(path("five-reordered.pdf"));
    QVERIFY(reopened);
    QStringList reopenedOrder;
    for (int i = 0; i < reopened->pageCount(); ++i)
        reopenedOrder << firstLine(reopened->page(i));
    QCOMPARE(reopenedOrder, order);
    QCOMPARE(reopened->page(1)->rotation(), 90);
    QCOMPARE(reopened->page(3)->annotations().size(), size_t(1));

    // Moving every page, as drag reordering does: remove all, insert all.
    std::vector<std::shared_ptr<PdfPage>> all;
    for (int i = 0; i < doc->pageCount(); ++i)
        all.push_back(doc->page(i));
    for (int i = doc->pageCount() - 1; i >= 0; --i)
        QVERIFY(doc->removePage(i));
    QCOMPARE(doc->pageCount(), 0);
    for (int i = 0; i < int(all.size()); ++i)
        QVERIFY(doc->insert(all[size_t(all.size()) - 1 - size_t(i)], i));
    QCOMPARE(firstLine(doc->page(0)), QString("Page 5"));
    QCOMPARE(doc->page(0), all.back());
    WRITE_AND_CHECK(doc, path("five-reversed.pdf"));
    QCOMPARE(PdfDocument::open(path("five-reversed.pdf"))->pageCount(), 5);
}

void TestEngine::pageCopiesCarryAnnotationsRotationAndBoxes()
{
    PageSpec cropped;
    cropped.mediaBox = QRectF(0, 0, 500, 700);
    cropped.cropBox = QRectF(50, 60, 400, 500);
    cropped.rotation = 90;
    cropped.text.push_back({"Cropped", {100, 400}, 20});
    QVERIFY(fixtures::writePdf(path("source.pdf"), {cropped, fixtures::numberedPages(1)[0]}));
    auto source = PdfDocument::open(path("source.pdf"));
    QVERIFY(source);
    auto mark = square({100, 100, 80, 40}, Qt::red);
    source->page(0)->addAnnotation(mark);

    auto merged = PdfDocument::create();
    QVERIFY(merged);
    QCOMPARE(merged->pageCount(), 0);
    auto first = source->page(0)->copy();
    QVERIFY(!first->document());
    QVERIFY(merged->insert(first, 0));
    QVERIFY(merged->insert(source->page(1)->copy(), 1));
    QVERIFY(merged->insert(source->page(0)->copy(), 2)); // a page placed twice is copied twice
    QCOMPARE(merged->pageCount(), 3);
    QCOMPARE(merged->page(0), first);
    QCOMPARE(first->document(), merged);
    QCOMPARE(first->rotation(), 90);
    QCOMPARE(first->bounds(PdfBox::Crop), QRectF(50, 60, 400, 500));
    QCOMPARE(first->bounds(PdfBox::Media), QRectF(0, 0, 500, 700));
    QCOMPARE(firstLine(first), QString("Cropped"));
    const auto copied = first->annotations();
    QCOMPARE(copied.size(), size_t(1));
    QCOMPARE(copied[0]->type(), PdfAnnotation::Square);
    QCOMPARE(copied[0]->bounds(), mark->bounds());
    QVERIFY(copied[0] != mark);

    // The copies are independent of their source and of each other.
    copied[0]->setBounds({200, 200, 80, 40});
    QCOMPARE(mark->bounds(), QRectF(100, 100, 80, 40));
    merged->page(2)->removeAnnotation(merged->page(2)->annotations().front());
    QCOMPARE(first->annotations().size(), size_t(1));
    QCOMPARE(source->page(0)->annotations().size(), size_t(1));
    QCOMPARE(source->pageCount(), 2);

    // A copy of a page of the same document.
    QVERIFY(source->insert(source->page(0)->copy(), 2));
    QCOMPARE(source->pageCount(), 3);
    QCOMPARE(source->page(2)->annotations().size(), size_t(1));
    source->page(2)->removeAnnotation(source->page(2)->annotations().front());
    QCOMPARE(source->page(0)->annotations().size(), size_t(1));

    const QString mergedPath = path("merged.pdf");
    WRITE_AND_CHECK(merged, mergedPath);
    WRITE_AND_CHECK(source, path("source-more.pdf"));
    auto reopened = PdfDocument::open(mergedPath);
    QVERIFY(reopened);
    QCOMPARE(reopened->pageCount(), 3);
    QCOMPARE(reopened->page(0)->rotation(), 90);
    QCOMPARE(reopened->page(0)->annotations().front()->bounds(), QRectF(200, 200, 80, 40));
    QCOMPARE(reopened->page(2)->annotations().size(), size_t(0));
    const QImage poppler = popplerPage(mergedPath);
    QCOMPARE(poppler.size(), QSize(500, 400));
    QVERIFY(showsColorIn(poppler, reopened->page(0), QRectF(200, 200, 80, 40), Qt::red, 1));
}

void TestEngine::geometryOnRotatedAndOffsetPages()
{
    const QRectF media(100, 200, 400, 300), crop(150, 250, 300, 200);
    std::vector<PageSpec> rotatedPages;
    for (int rotation : {0, 90, 180, 270}) {
        PageSpec page;
        page.mediaBox = media;
        page.cropBox = crop;
        page.rotation = rotation;
        rotatedPages.push_back(page);
    }
    const QString file = path("rotated.pdf");
    QVERIFY(fixtures::writePdf(file, rotatedPages));
    auto doc = PdfDocument::open(file);
    QVERIFY(doc);
    const QRectF markBounds(200, 300, 40, 20);
    for (int i = 0; i < 4; ++i) {
        auto page = doc->page(i);
        QCOMPARE(page->bounds(PdfBox::Media), media);
        QCOMPARE(page->bounds(PdfBox::Crop), crop);
        const QSizeF shown = page->rotation() % 180 ? QSizeF(200, 300) : QSizeF(300, 200);
        QCOMPARE(page->displaySize(), shown);
        QCOMPARE(page->pageToDisplay().mapRect(crop), QRectF(QPointF(0, 0), shown));
        page->addAnnotation(square(markBounds, Qt::red, Qt::red));

        // The mapping matches where MuPDF draws the page.
        const QImage image = page->render(2);
        QCOMPARE(image.size(), (shown * 2).toSize());
        QVERIFY(near(pixelAt(image, page, markBounds.center(), 2), Qt::red));
        QVERIFY(near(pixelAt(image, page, {170, 270}, 2), Qt::white));

        const QImage thumb = page->thumbnail({90, 120}, PdfBox::Crop);
        QVERIFY(thumb.width() <= 90 && thumb.height() <= 120);
        QVERIFY(thumb.width() == 90 || thumb.height() == 120);
        QVERIFY(std::abs(thumb.width() / double(thumb.height()) - shown.width() / shown.height()) < 0.05);
        const QImage mediaThumb = page->thumbnail({90, 120}, PdfBox::Media);
        const double mediaAspect = page->rotation() % 180 ? 300.0 / 400 : 400.0 / 300;
        QVERIFY(std::abs(mediaThumb.width() / double(mediaThumb.height()) - mediaAspect) < 0.05);
    }
    // ... and where poppler draws the saved file.
    WRITE_AND_CHECK(doc, path("rotated-marked.pdf"));
    for (int i = 0; i < 4; ++i) {
        const QImage poppler = popplerPage(path("rotated-marked.pdf"), i + 1, 144);
        QVERIFY2(near(pixelAt(poppler, doc->page(i), markBounds.center(), 2), Qt::red), qPrintable(QString::number(i)));
        QVERIFY(near(pixelAt(poppler, doc->page(i), {170, 270}, 2), Qt::white));
    }
}

namespace {

struct Expected {
    QString type;
    QRectF bounds;
    QColor color, interior;
    std::optional<qreal> border;
    QString contents;
    QVector<QPointF> quads;
    QVector<QPolygonF> ink;
    std::optional<PdfFont> font;
    QColor fontColor;
};

std::vector<Expected> everyKind()
{
    const QVector<QPointF> twoLines{{0, 30}, {150, 30}, {0, 16}, {150, 16}, {0, 14}, {120, 14}, {0, 0}, {120, 0}};
    return {
        {PdfAnnotation::Square, {72, 500, 100, 60}, QColor(255, 0, 0, 200), QColor(0, 0, 255, 100), 3, {}, {}, {}, {}, {}},
        {PdfAnnotation::Circle, {200, 500, 80, 60}, QColor(0, 128, 0), {}, 2, "round", {}, {}, {}, {}},
        {PdfAnnotation::Ink,
         {300, 500, 100, 60},
         QColor(0, 0, 255),
         {},
         3,
         {},
         {},
         {QPolygonF({{3, 3}, {50, 57}, {97, 3}})},
         {},
         {}},
        {PdfAnnotation::Highlight, {72, 640, 150, 30}, QColor(255, 255, 0, 128), {}, {}, {}, twoLines, {}, {}, {}},
        {PdfAnnotation::Underline, {250, 640, 150, 30}, QColor(255, 0, 255), {}, {}, {}, twoLines, {}, {}, {}},
        {PdfAnnotation::StrikeOut, {420, 640, 150, 30}, QColor(0, 160, 160), {}, {}, {}, twoLines, {}, {}, {}},
        {PdfAnnotation::FreeText,
         {72, 400, 240, 30},
         QColor(0, 0, 0, 0),
         {},
         0,
         "A note\nover two lines",
         {},
         {},
         PdfFont{"DejaVu Sans", 14},
         QColor(0, 0, 200)},
        {PdfAnnotation::FreeText,
         {320, 400, 200, 24},
         QColor(250, 240, 230),
         {},
         0,
         "Replaced line",
         {},
         {},
         PdfFont{"Times-Roman", 12},
         QColor(0, 0, 0)},
    };
}

std::shared_ptr<PdfAnnotation> make(const Expected &e)
{
    auto a = PdfAnnotation::create(e.bounds, e.type);
    a->setColor(e.color);
    if (e.interior.isValid())
        a->setInteriorColor(e.interior);
    a->setBorderWidth(e.border);
    a->setContents(e.contents);
    if (!e.quads.isEmpty())
        a->setQuadrilateralPoints(e.quads);
    for (const auto &path : e.ink)
        a->addInkPath(path);
    if (e.font) {
        a->setFont(e.font);
        a->setFontColor(e.fontColor);
    }
    return a;
}

bool sameColor(QColor a, QColor b)
{
    if (a.isValid() != b.isValid())
        return false;
    return !a.isValid() || (near(a, b, 1) && std::abs(a.alpha() - b.alpha()) <= 1);
}

bool samePoints(const QVector<QPointF> &a, const QVector<QPointF> &b)
{
    if (a.size() != b.size())
        return false;
    for (int i = 0; i < a.size(); ++i)
        if (QLineF(a[i], b[i]).length() > 0.01)
            return false;
    return true;
}

QImage stampImage()
{
    QImage image(300, 90, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setPen(QPen(Qt::black, 6));
    painter.drawLine(10, 80, 290, 10);
    return image;
}

} // namespace

void TestEngine::annotationsRoundTripThroughFiles()
{
    QVERIFY(fixtures::writePdf(path("blank.pdf"), fixtures::numberedPages(1)));
    auto doc = PdfDocument::open(path("blank.pdf"));
    auto page = doc->page(0);
    const auto kinds = everyKind();
    for (const auto &e : kinds)
        page->addAnnotation(make(e));
    auto stamp = PdfAnnotation::create({300, 250, 200, 60}, PdfAnnotation::Stamp);
    stamp->setBorderWidth(0);
    stamp->setStampImage(stampImage());
    page->addAnnotation(stamp);
    WRITE_AND_CHECK(doc, path("every-kind.pdf"));

    auto reopened = PdfDocument::open(path("every-kind.pdf"));
    QVERIFY(reopened);
    const auto read = reopened->page(0)->annotations();
    QCOMPARE(read.size(), kinds.size() + 1);
    for (size_t i = 0; i < kinds.size(); ++i) {
        const Expected &e = kinds[i];
        const auto &a = read[i];
        const QString what = QString("%1 #%2").arg(e.type).arg(i);
        QCOMPARE(a->type(), e.type);
        QVERIFY2(QRectF(a->bounds()).adjusted(-0.01, -0.01, 0.01, 0.01).contains(e.bounds) &&
                     e.bounds.adjusted(-0.01, -0.01, 0.01, 0.01).contains(a->bounds()),
                 qPrintable(what));
        QVERIFY2(sameColor(a->color(), e.color), qPrintable(what));
        QVERIFY2(sameColor(a->interiorColor(), e.interior), qPrintable(what));
        QCOMPARE(a->borderWidth().has_value(), e.border.has_value());
        if (e.border)
            QCOMPARE(*a->borderWidth(), *e.border);
        QCOMPARE(a->contents(), e.contents);
        QVERIFY2(samePoints(a->quadrilateralPoints(), e.quads), qPrintable(what));
        QCOMPARE(a->inkPaths().size(), e.ink.size());
        for (int p = 0; p < e.ink.size(); ++p)
            QVERIFY(samePoints(a->inkPaths()[p], e.ink[p]));
        if (e.font) {
            QVERIFY(a->font());
            QCOMPARE(a->font()->name, e.font->name);
            QCOMPARE(a->font()->size, e.font->size);
            QVERIFY(sameColor(a->fontColor(), e.fontColor));
        }
        QCOMPARE(a->page(), reopened->page(0));
    }
    QCOMPARE(read.back()->type(), PdfAnnotation::Stamp);
    QCOMPARE(read.back()->bounds(), QRectF(300, 250, 200, 60));
    QCOMPARE(read.back()->borderWidth().value_or(-1), 0.0);

    // The fixture file with every kind lists them all.
    QVERIFY(fixtures::writeWithAnnotations(path("fixture-kinds.pdf")));
    QStringList types;
    for (const auto &a : PdfDocument::open(path("fixture-kinds.pdf"))->page(0)->annotations())
        types << a->type();
    QCOMPARE(types, QStringList({"Square", "Circle", "Ink", "Highlight", "Underline", "StrikeOut", "FreeText", "Stamp"}));
}

void TestEngine::annotationsShowInOtherReaders()
{
    QVERIFY(fixtures::writePdf(path("blank2.pdf"), {PageSpec{}}));
    auto doc = PdfDocument::open(path("blank2.pdf"));
    auto page = doc->page(0);
    const auto kinds = everyKind();
    for (const auto &e : kinds)
        page->addAnnotation(make(e));
    auto stamp = PdfAnnotation::create({300, 250, 200, 60}, PdfAnnotation::Stamp);
    stamp->setStampImage(stampImage());
    page->addAnnotation(stamp);
    const QString file = path("shown.pdf");
    WRITE_AND_CHECK(doc, file);
    const QImage mine = page->render(2);
    const QImage poppler = popplerPage(file, 1, 144);
    QCOMPARE(poppler.size(), mine.size());

    for (const QImage &image : {mine, poppler}) {
        // The outline colour of shapes and ink, the colour of markup.
        for (size_t i : {0, 1, 2, 4, 5})
            QVERIFY2(showsColorIn(image, page, kinds[i].bounds, kinds[i].color, 2), qPrintable(kinds[i].type));
        // A translucent highlight multiplies: yellow over white paper.
        QVERIFY(near(pixelAt(image, page, {100, 662}, 2), QColor(255, 255, 128), 50));
        // The square's half-transparent blue fill over white.
        QVERIFY(near(pixelAt(image, page, kinds[0].bounds.center(), 2), QColor(155, 155, 255), 40));
        // Text of the free-text boxes; the opaque background of the replacement.
        QVERIFY(showsColorIn(image, page, kinds[6].bounds, QColor(0, 0, 200), 2, 60));
        QVERIFY(near(pixelAt(image, page, {515, 402}, 2), QColor(250, 240, 230), 8));
        QVERIFY(showsColorIn(image, page, kinds[7].bounds, Qt::black, 2, 60));
        // The stamp's image, black on transparent, leaves the paper white around it.
        QVERIFY(showsColorIn(image, page, stamp->bounds(), Qt::black, 2, 60));
        QVERIFY(near(pixelAt(image, page, {305, 305}, 2), Qt::white, 10));
    }
}

void TestEngine::annotationIdentityAndDrawing()
{
    QVERIFY(fixtures::writePdf(path("plain.pdf"), fixtures::numberedPages(1)));
    auto doc = PdfDocument::open(path("plain.pdf"));
    auto page = doc->page(0);
    auto red = square({100, 100, 100, 100}, Qt::red, Qt::red);
    QVERIFY(!red->page());
    page->addAnnotation(red);
    QCOMPARE(red->page(), page);
    QCOMPARE(page->annotations(), std::vector<std::shared_ptr<PdfAnnotation>>{red});
    QCOMPARE(page->annotation({150, 150}), red);
    QCOMPARE(page->annotation({100, 100}), red);
    QVERIFY(!page->annotation({250, 150}));
    QVERIFY(near(pixelAt(page->render(1), page, {150, 150}, 1), Qt::red));

    page->removeAnnotation(red);
    QVERIFY(!red->page());
    QVERIFY(page->annotations().empty());
    QVERIFY(near(pixelAt(page->render(1), page, {150, 150}, 1), Qt::white));
    page->removeAnnotation(red); // not on the page: nothing happens
    page->addAnnotation(red);
    QCOMPARE(red->page(), page);
    QVERIFY(near(pixelAt(page->render(1), page, {150, 150}, 1), Qt::red));

    // Moving and resizing redraw at once; a moved annotation keeps its look.
    red->setBounds({300, 100, 50, 50});
    QImage image = page->render(1);
    QVERIFY(near(pixelAt(image, page, {325, 125}, 1), Qt::red));
    QVERIFY(near(pixelAt(image, page, {150, 150}, 1), Qt::white));

    // Drawing order: the last one added is on top; putting one back raises it.
    auto blue = square({320, 110, 100, 100}, Qt::blue, Qt::blue);
    page->addAnnotation(blue);
    QVERIFY(near(pixelAt(page->render(1), page, {340, 130}, 1), Qt::blue));
    page->removeAnnotation(red);
    page->addAnnotation(red);
    QCOMPARE(page->annotations().back(), red);
    QVERIFY(near(pixelAt(page->render(1), page, {340, 130}, 1), Qt::red));
    QCOMPARE(page->annotation({340, 130}), red);

    // Leaving one annotation out of the picture, or all of them.
    image = page->render(1, PdfRenderOptions{true, red, {}});
    QVERIFY(near(pixelAt(image, page, {340, 130}, 1), Qt::blue));
    QVERIFY(near(pixelAt(image, page, {310, 105}, 1), Qt::white));
    image = page->render(1, PdfRenderOptions{false, {}, {}});
    QVERIFY(near(pixelAt(image, page, {340, 130}, 1), Qt::white));

    // Colour and width changes show at once.
    blue->setColor(Qt::green);
    blue->setInteriorColor(QColor());
    image = page->render(1);
    QVERIFY(near(pixelAt(image, page, {400, 190}, 1), Qt::white));
    QVERIFY(showsColorIn(image, page, {418, 150, 2, 20}, Qt::green, 1));

    // An annotation taken off before a save and put back after it survives
    // (undo after save); one left off is gone from the file.
    page->removeAnnotation(blue);
    WRITE_AND_CHECK(doc, path("plain.pdf"));
    QCOMPARE(PdfDocument::open(path("plain.pdf"))->page(0)->annotations().size(), size_t(1));
    page->addAnnotation(blue);
    WRITE_AND_CHECK(doc, path("plain.pdf"));
    auto reopened = PdfDocument::open(path("plain.pdf"));
    QCOMPARE(reopened->page(0)->annotations().size(), size_t(2));
    QCOMPARE(reopened->page(0)->annotations().back()->color(), QColor(Qt::green));

    // An annotation moved to another page follows.
    QVERIFY(fixtures::writePdf(path("two.pdf"), fixtures::numberedPages(2)));
    auto two = PdfDocument::open(path("two.pdf"));
    two->page(0)->addAnnotation(red);
    QVERIFY(!page->annotation({325, 125}) || page->annotation({325, 125}) != red);
    two->page(1)->addAnnotation(red);
    QCOMPARE(red->page(), two->page(1));
    QVERIFY(two->page(0)->annotations().empty());
    WRITE_AND_CHECK(two, path("two-out.pdf"));
    QCOMPARE(PdfDocument::open(path("two-out.pdf"))->page(1)->annotations().size(), size_t(1));
}

void TestEngine::foreignAnnotationsKeepTheirLook()
{
    QVERIFY(fixtures::writePdf(path("form.pdf"), {fixtures::pageWithForeignAnnotations()}));
    auto doc = PdfDocument::open(path("form.pdf"));
    QVERIFY(doc);
    auto page = doc->page(0);
    const auto list = page->annotations();
    QCOMPARE(list.size(), size_t(2));
    QCOMPARE(list[0]->type(), QString("Line"));
    QCOMPARE(list[0]->bounds(), QRectF(98, 298, 204, 104));
    QCOMPARE(list[0]->color(), QColor(Qt::blue));
    QCOMPARE(list[1]->type(), QString("Widget"));
    QCOMPARE(list[1]->bounds(), QRectF(100, 500, 150, 30));
    QCOMPARE(page->annotation({175, 515}), list[1]);

    QImage image = page->render(1);
    QVERIFY(near(pixelAt(image, page, {175, 515}, 1), QColor(0, 153, 0)));
    QVERIFY(near(pixelAt(image, page, {200, 350}, 1), Qt::blue));

    // Moved, each keeps its look at the new place; the field is also made bigger.
    list[0]->setBounds(list[0]->bounds().translated(200, 0));
    list[1]->setBounds(QRectF(300, 600, 300, 60));
    image = page->render(1);
    QVERIFY(near(pixelAt(image, page, {400, 350}, 1), Qt::blue));
    QVERIFY(near(pixelAt(image, page, {200, 350}, 1), Qt::white));
    QVERIFY(near(pixelAt(image, page, {310, 605}, 1), QColor(0, 153, 0)));
    QVERIFY(near(pixelAt(image, page, {590, 655}, 1), QColor(0, 153, 0)));
    QVERIFY(near(pixelAt(image, page, {175, 515}, 1), Qt::white));

    WRITE_AND_CHECK(doc, path("form-moved.pdf"));
    const QImage poppler = popplerPage(path("form-moved.pdf"));
    QVERIFY(near(pixelAt(poppler, page, {400, 350}, 1), Qt::blue));
    QVERIFY(near(pixelAt(poppler, page, {590, 655}, 1), QColor(0, 153, 0)));
    auto reopened = PdfDocument::open(path("form-moved.pdf"));
    QCOMPARE(reopened->page(0)->annotations()[1]->bounds(), QRectF(300, 600, 300, 60));
}

void TestEngine::freeTextShowsEveryScript()
{
    QVERIFY(fixtures::writePdf(path("scripts.pdf"), {PageSpec{}}));
    auto doc = PdfDocument::open(path("scripts.pdf"));
    auto page = doc->page(0);
    const QStringList samples{QString::fromUtf8("Zażółć gęślą jaźń"), QString::fromUtf8("Καλημέρα κόσμε"),
                              QString::fromUtf8("Съешь же ещё этих булок")};
    std::vector<std::shared_ptr<PdfAnnotation>> boxes;
    for (int i = 0; i < samples.size(); ++i) {
        auto box = PdfAnnotation::create({72, 600.0 - 60 * i, 400, 40}, PdfAnnotation::FreeText);
        box->setContents(samples[i]);
        box->setFont(PdfFont{"Helvetica", 24});
        box->setFontColor(Qt::black);
        box->setColor(QColor(0, 0, 0, 0));
        box->setBorderWidth(0);
        page->addAnnotation(box);
        boxes.push_back(box);
    }
    WRITE_AND_CHECK(doc, path("scripts-out.pdf"));
    auto reopened = PdfDocument::open(path("scripts-out.pdf"));
    for (int i = 0; i < samples.size(); ++i)
        QCOMPARE(reopened->page(0)->annotations()[size_t(i)]->contents(), samples[i]);

    // Letters are about as tall as the font size (24 pt = 48 px here); a
    // missing glyph drawn as a dot would be a few pixels high.
    const QImage poppler = popplerPage(path("scripts-out.pdf"), 1, 144);
    const QImage mine = page->render(2);
    for (int i = 0; i < samples.size(); ++i) {
        QVERIFY2(inkHeight(poppler, page, boxes[size_t(i)]->bounds(), 2) > 30, qPrintable(samples[i]));
        QVERIFY2(inkHeight(mine, page, boxes[size_t(i)]->bounds(), 2) > 30, qPrintable(samples[i]));
    }
    // Changing the text redraws it.
    boxes[0]->setContents("..");
    QVERIFY(inkHeight(page->render(2), page, boxes[0]->bounds(), 2) < 10);
}

void TestEngine::fontServiceMeasuresWhatTheFileShows()
{
    FontService &fonts = FontService::instance();
    const QString text = "Sphinx of black quartz, judge my vow";
    const std::vector<PdfFont> styles{{"Times New Roman", 22}, {"Helvetica", 22}, {"Courier New", 22}, {"Arial", 22, true, true}};
    QVERIFY(fixtures::writePdf(path("widths.pdf"), {PageSpec{}}));
    auto doc = PdfDocument::open(path("widths.pdf"));
    auto page = doc->page(0);
    std::vector<std::shared_ptr<PdfAnnotation>> boxes;
    QSet<QString> faces;
    for (size_t i = 0; i < styles.size(); ++i) {
        const PdfFont &font = styles[i];
        const FontFace &face = fonts.resolve(font);
        QVERIFY(face.isValid());
        faces << face.postScriptName;
        // Qt draws with exactly the face the file embeds, even where a system
        // font goes by the same family name.
        const QFont q = fonts.qFont(font);
        QCOMPARE(QFontInfo(q).family(), face.family);
        QCOMPARE(QFontInfo(q).pixelSize(), 22);
        QVERIFY(sameOutlines(QRawFont::fromFont(q), QRawFont(face.data, font.size, QFont::PreferNoHinting), text));
        const qreal width = fonts.textWidth(font, text);
        const qreal advance = QFontMetricsF(q).horizontalAdvance(text);
        QVERIFY2(width > 300 && std::abs(advance - width) < width * 0.01, qPrintable(QString("%1 %2").arg(width).arg(advance)));

        auto box = plainTextBox({40, 700.0 - 70 * qreal(i), 532, 50}, font, text);
        page->addAnnotation(box);
        boxes.push_back(box);
    }
    QCOMPARE(faces.size(), qsizetype(styles.size()));

    // The text as drawn in the saved file, by poppler and by the engine, is as
    // wide as Qt says, at 2 pixels per point.
    WRITE_AND_CHECK(doc, path("widths-out.pdf"));
    const QImage poppler = popplerPage(path("widths-out.pdf"), 1, 144);
    const QImage mine = page->render(2);
    for (size_t i = 0; i < styles.size(); ++i) {
        PdfFont doubled = styles[i];
        doubled.size *= 2;
        const qreal expected = QFontMetricsF(fonts.qFont(doubled)).tightBoundingRect(text).width();
        for (const QImage &image : {poppler, mine}) {
            const auto [first, last] = inkColumns(image, page, boxes[i]->bounds(), 2);
            const qreal drawn = last - first + 1;
            QVERIFY2(first >= 0 && std::abs(drawn - expected) < expected * 0.01,
                     qPrintable(QString("%1: drawn %2 px, Qt %3 px").arg(styles[i].name).arg(drawn).arg(expected)));
        }
    }
}

void TestEngine::freeTextWrapsInItsBox()
{
    FontService &fonts = FontService::instance();
    const PdfFont font{"Helvetica", 12};
    QCOMPARE(fonts.wrap(font, "one\ntwo\r\nthree\rfour\n", 500), QStringList({"one", "two", "three", "four", ""}));
    // Spaces at the end of a line do not count against the width.
    const qreal word = fonts.textWidth(font, "word");
    QCOMPARE(fonts.textWidth(font, "word "), word + fonts.textWidth(font, " "));
    QCOMPARE(fonts.wrap(font, "word word", word), QStringList({"word ", "word"}));
    QCOMPARE(fonts.wrap(font, "word word", word - 0.01), QStringList({"wor", "d ", "wor", "d"}));

    // A word longer than the box is broken between characters, never inside one.
    const QString longWord = "Pneumonoultramicroscopicsilicovolcanoconiosis";
    QStringList lines = fonts.wrap(font, longWord, 60);
    QVERIFY(lines.size() > 3);
    QCOMPARE(lines.join(QString()), longWord);
    for (const QString &line : lines)
        QVERIFY(!line.isEmpty() && fonts.textWidth(font, line) <= 60);
    const QString accented = QString::fromUtf8("e\u0301").repeated(40);
    lines = fonts.wrap(font, accented, 30);
    QVERIFY(lines.size() > 3);
    for (const QString &line : lines)
        QVERIFY(line.startsWith('e') && line.endsWith(QChar(0x301)));

    // The lines are the ones Qt's own layout gives for the service's font, so
    // text typed on screen breaks where the saved file breaks it.
    const QString prose = "The quick brown fox jumps over the lazy dog. Pack my box with five dozen liquor jugs! "
                          "Sphinx of black quartz, judge my vow; how vexingly quick daft zebras jump.";
    for (const PdfFont &f : {font, PdfFont{"Times", 15}, PdfFont{"Courier", 10}})
        for (qreal width : {90.0, 156.0, 233.0})
            QCOMPARE(fonts.wrap(f, prose, width), qtLines(fonts.qFont(f), prose, width));

    // In the saved file the lines stay inside the box less its inset.
    QVERIFY(fixtures::writePdf(path("wrap.pdf"), {PageSpec{}}));
    auto doc = PdfDocument::open(path("wrap.pdf"));
    auto page = doc->page(0);
    const QRectF bounds(72, 400, 160, 300);
    const QString text = prose + "\n" + longWord;
    const QStringList expected = fonts.wrap(font, text, bounds.width() - 2 * FontService::TextInset);
    QVERIFY(expected.size() > 6);
    auto box = plainTextBox(bounds, font, text);
    page->addAnnotation(box);
    WRITE_AND_CHECK(doc, path("wrap-out.pdf"));
    const QRectF inner = bounds.adjusted(0, 0, -FontService::TextInset, 0);
    const int innerRight = int(std::ceil(page->pageToDisplay().mapRect(inner).right() * 2));
    for (const QImage &image : {popplerPage(path("wrap-out.pdf"), 1, 144), page->render(2)}) {
        QCOMPARE(inkLines(image, page, bounds, 2), int(expected.size()));
        const auto [first, last] = inkColumns(image, page, bounds, 2);
        QVERIFY2(first >= 0 && last <= innerRight, qPrintable(QString("%1 > %2").arg(last).arg(innerRight)));
    }
}

void TestEngine::freeTextDefaultAppearanceNamesItsFont()
{
    QVERIFY(fixtures::writePdf(path("names.pdf"), {PageSpec{}}));
    auto doc = PdfDocument::open(path("names.pdf"));
    auto page = doc->page(0);
    // A name with a space, the default font, a name that looks like a fallback
    // face's, and a box with no text yet. Armenian, and Hebrew in the standard
    // face, are drawn with fallback faces. Installed faces are embedded as
    // subsets ("ABCDEF+" and their PostScript name), the standard face whole.
    struct Case {
        std::optional<PdfFont> font;
        QString text;
        QString name;     // in /DA, and read back
        QString baseFont; // of the face the name stands for, less a subset tag
        bool subset;
        int faces; // font resources of the appearance
    };
    FontService &service = FontService::instance();
    const std::vector<Case> cases{
        {PdfFont{"DejaVu Sans", 14}, QString::fromUtf8("Zażółć שלום"), "DejaVu Sans",
         service.resolve({"DejaVu Sans", 14}).postScriptName, true, 1},
        {std::nullopt, "Plain", "Helvetica", service.resolve({"Helvetica", 12}).postScriptName, true, 1},
        {PdfFont{"F1", 12}, QString::fromUtf8("שלום Բարեւ"), "F1", "Helvetica", false, 3},
        {PdfFont{"Times-Roman", 12}, QString(), "Times-Roman", service.resolve({"Times-Roman", 12}).postScriptName, true, 1},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        auto box = PdfAnnotation::create({72, 700 - 60 * qreal(i), 300, 40}, PdfAnnotation::FreeText);
        if (cases[i].font)
            box->setFont(cases[i].font);
        box->setContents(cases[i].text);
        page->addAnnotation(box);
    }
    const QString file = path("names-out.pdf");
    WRITE_AND_CHECK(doc, file);
    auto reopened = PdfDocument::open(file);
    const auto read = reopened->page(0)->annotations();
    QCOMPARE(read.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i)
        QCOMPARE(read[i]->font().value_or(PdfFont{}).name, cases[i].name);

    // In the file, the font /DA names is the appearance's font resource for
    // the primary face; fallback faces go by other names.
    const QJsonObject objects = qpdfObjects(file);
    auto resolved = [&](const QJsonValue &v) { return v.isString() && v.toString().endsWith(" R") ? objects[v.toString()] : v; };
    int checked = 0;
    for (const QJsonValue &value : objects) {
        const QJsonObject annot = value.toObject();
        if (annot["/Subtype"].toString() != "/FreeText")
            continue;
        const QString da = annot["/DA"].toString().mid(2);
        const QString name = unescapedName(da.section(' ', 0, 0).mid(1));
        const auto c = std::find_if(cases.begin(), cases.end(), [&](const Case &c) { return c.name == name; });
        QVERIFY2(c != cases.end(), qPrintable(da));
        const QJsonObject stream = resolved(resolved(annot["/AP"]).toObject()["/N"]).toObject();
        const QJsonObject fonts = resolved(resolved(stream["/Resources"]).toObject()["/Font"]).toObject();
        QCOMPARE(fonts.size(), qsizetype(c->faces));
        QJsonObject primary;
        for (auto it = fonts.begin(); it != fonts.end(); ++it)
            if (unescapedName(it.key().mid(1)) == name)
                primary = resolved(it.value()).toObject();
        QVERIFY2(!primary.isEmpty(), qPrintable(da + " / " + fonts.keys().join(',')));
        const QString baseFont = primary["/BaseFont"].toString();
        const QRegularExpression tagged("^/[A-Z]{6}\\+" + QRegularExpression::escape(c->baseFont) + "$");
        QVERIFY2(c->subset ? tagged.match(baseFont).hasMatch() : baseFont == "/" + c->baseFont, qPrintable(baseFont));
        ++checked;
    }
    QCOMPARE(checked, int(cases.size()));
}

void TestEngine::textSelections()
{
    std::vector<PageSpec> pages = fixtures::numberedPages(3);
    pages[2].rotation = 90;
    // A table row: two cells on one baseline.
    pages[1].text.push_back({"Paper", {72, 400}, 12});
    pages[1].text.push_back({"1,200", {113.5, 400}, 12});
    QVERIFY(fixtures::writePdf(path("text.pdf"), pages));
    auto doc = PdfDocument::open(path("text.pdf"));
    auto p0 = doc->page(0), p1 = doc->page(1), p2 = doc->page(2);
    const QString line1 = "The quick brown fox jumps over the lazy dog, line 1 of page 1.";
    QVERIFY(p0->text().startsWith("Page 1\n" + line1 + "\n"));

    auto line = p0->selectionForLine({200, 683});
    QVERIFY(line);
    QCOMPARE(line->string(), line1);
    const QRectF box = line->bounds(p0);
    QVERIFY(std::abs(box.left() - 72) < 1);
    QVERIFY(box.top() < 680 && box.bottom() > 686);
    QVERIFY(!p0->selectionForLine({300, 100}));
    // Edit Text takes the cell clicked, a whole line of running text.
    QCOMPARE(p0->selectionForRun({200, 683})->string(), line1);
    QCOMPARE(p1->selectionForRun({125, 403})->string(), QString("1,200"));
    QCOMPARE(p1->selectionForRun({80, 403})->string(), QString("Paper"));
    QCOMPARE(p1->selectionForLine({80, 403})->string().simplified(), QString("Paper 1,200"));

    // Helvetica 12: "The quick " is 55.36 points wide, so a point just after
    // it lies before "brown".
    const QPointF startOfLine1(71, 683), afterQuick(72 + 55.36 + 1, 667);
    const auto drag = PdfSelection::between(p0, startOfLine1, p0, afterQuick);
    QCOMPARE(drag.string(), line1 + "\nThe quick ");
    QCOMPARE(PdfSelection::between(p0, afterQuick, p0, startOfLine1).string(), drag.string());
    QCOMPARE(drag.selectionsByLine().size(), size_t(2));
    QCOMPARE(drag.pages(), std::vector<std::shared_ptr<PdfPage>>{p0});

    auto word = p0->selectionForWord({72 + 55.36 + 10, 683});
    QVERIFY(word);
    QCOMPARE(word->string(), QString("brown"));
    QVERIFY(!p0->selectionForWord({72 + 55.36 - 1.5, 683}) || p0->selectionForWord({72 + 55.36 - 1.5, 683})->string() != " ");

    const auto font = p0->fontAt(int(p0->text().indexOf("quick")));
    QVERIFY(font);
    QCOMPARE(font->name, QString("Helvetica"));
    QCOMPARE(font->size, 12.0);
    QCOMPARE(p0->fontAt(0)->size, 24.0);
    QVERIFY(!p0->fontAt(int(p0->text().indexOf('\n'))));

    // Across pages, including a rotated one, in document order whichever end came first.
    const auto across = PdfSelection::between(p2, {300, 725}, p0, {71, 667});
    QCOMPARE(across.pages(), (std::vector<std::shared_ptr<PdfPage>>{p0, p1, p2}));
    QVERIFY(across.string().startsWith("The quick brown fox jumps over the lazy dog, line 2 of page 1."));
    QVERIFY2(across.string().endsWith("line 3 of page 2.\nPaper 1,200\nPage 3"), qPrintable(across.string()));
    QCOMPARE(across.selectionsByLine().size(), size_t(2 + 5 + 1));
    QVERIFY(across.bounds(p1).contains(QPointF(100, 683)));
    QVERIFY(across.bounds(p2).contains(QPointF(100, 725)));
    QVERIFY(!across.bounds(p0).contains(QPointF(100, 722)));

    // On the rotated page the same page-space points find the same text.
    QCOMPARE(p2->selectionForLine({200, 683})->string(),
             QString("The quick brown fox jumps over the lazy dog, line 1 of page 3."));
    QCOMPARE(p2->selectionForWord({72 + 55.36 + 10, 683})->string(), QString("brown"));
}

namespace {

QString pdftotext(const QString &path, int page)
{
    QProcess p;
    p.start("pdftotext", {"-f", QString::number(page), "-l", QString::number(page), path, "-"});
    p.waitForFinished();
    return QString::fromUtf8(p.readAllStandardOutput());
}

// Whether two renderings (at `scale`) differ only inside a page-space rectangle.
bool sameOutside(const QImage &a, const QImage &b, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRectF r = page->pageToDisplay().mapRect(pageRect);
    const QRect skip(QPoint(int(r.left() * scale), int(r.top() * scale)),
                     QPoint(int(r.right() * scale), int(r.bottom() * scale)));
    if (a.size() != b.size())
        return false;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            if (!skip.contains(x, y) && a.pixel(x, y) != b.pixel(x, y))
                return false;
    return true;
}

// The bounds of the page's line holding `words`, found from the top down.
QRectF lineWith(const std::shared_ptr<PdfPage> &page, const QString &words)
{
    const QRectF box = page->bounds();
    for (qreal y = box.bottom() - 1; y > box.top(); y -= 1)
        for (qreal x = box.left() + 36; x < box.right(); x += 36)
            if (auto line = page->selectionForLine({x, y}); line && line->string().contains(words))
                return line->bounds(page);
    return {};
}

} // namespace

void TestEngine::retypeEditsThePageContent()
{
    // Pages 1 and 2 (turned) share a content stream; pages 1 and 3 draw one form.
    const QByteArray shared =
        "0 0 1 rg 60 640 200 30 re f\nBT /F2 12 Tf 72 700 Td (Hello) Tj /F1 12 Tf 0.8 0 0 rg ( brave world) Tj ET\n"
        "BT /F1 12 Tf 72 680 Td (Second line stays) Tj ET\n/Fm Do\n";
    QTemporaryDir dir;
    const QString source = dir.filePath("retype.pdf"), saved = dir.filePath("retyped.pdf");
    QVERIFY(fixtures::writeFile(
        source,
        fixtures::buildFromObjects(
            {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R 4 0 R 5 0 R] /Count 3 /MediaBox [0 0 612 792] >>",
             "<< /Type /Page /Parent 2 0 R /Contents 6 0 R /Resources 7 0 R >>",
             "<< /Type /Page /Parent 2 0 R /Contents 6 0 R /Resources 7 0 R /Rotate 90 >>",
             "<< /Type /Page /Parent 2 0 R /Contents 9 0 R /Resources 7 0 R >>", fixtures::streamObject("", shared),
             "<< /Font << /F1 8 0 R /F2 11 0 R >> /XObject << /Fm 10 0 R >> >>",
             "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica /Encoding /WinAnsiEncoding >>",
             fixtures::streamObject("", "/Fm Do"),
             fixtures::streamObject("/Type /XObject /Subtype /Form /BBox [0 0 612 792] /Resources 7 0 R",
                                    "BT /F1 12 Tf 72 500 Td (Shared form text) Tj ET"),
             "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica-Bold /Encoding /WinAnsiEncoding >>"})));
    auto doc = PdfDocument::open(source);
    QVERIFY(doc);
    auto page = doc->page(0), twin = doc->page(1), formUser = doc->page(2);
    const QString text = page->text(), twinText = twin->text(), formText = formUser->text();
    const QImage before = page->render(2);
    QSignalSpy announced(doc->changes(), &PdfChangeChannel::pageChanged);

    // The line is retyped: its bold blue word stays as it was, the new words
    // continue the red run, and the rest of the page looks and reads as before.
    const QRectF run = lineWith(page, "brave");
    PdfRetype retyped = page->retype(run, "Hello new words");
    QCOMPARE(retyped.outcome, PdfRetype::Outcome::Done);
    QVERIFY(retyped.edit && !retyped.ownFont);
    QCOMPARE(announced.size(), 1);
    QCOMPARE(announced[0][1].value<PdfChangeChannel::Changes>(), PdfChangeChannel::Changes(PdfChangeChannel::Content));
    QCOMPARE(page->text().count("new words"), 1);
    QVERIFY(!page->text().contains("brave") && !page->text().contains("world"));
    for (const char *kept : {"Second line stays", "Shared form text"})
        QVERIFY2(page->text().contains(kept), kept);
    QCOMPARE(page->selectionForLine({110, 704})->string(), QString("Hello new words"));
    QVERIFY(page->fontAt(page->text().indexOf("Hello"))->bold);
    const QImage after = page->render(2);
    QVERIFY(sameOutside(before, after, page, run.adjusted(0, -4, 0, 0), 2));
    QVERIFY(after != before);
    QVERIFY(showsColorIn(after, page, QRectF(110, 698, 50, 8), QColor(204, 0, 0), 2, 30));
    QVERIFY(showsColorIn(after, page, QRectF(72, 698, 25, 8), Qt::blue, 2, 30));
    QCOMPARE(twin->text(), twinText);

    // Undo puts the very content back, redo the retyped one.
    retyped.edit->undo();
    QCOMPARE(page->text(), text);
    QCOMPARE(page->render(2), before);
    QVERIFY(doc->write(saved));
    inspect::PdfObjects undone(saved);
    const QString contents = undone.dict(undone.pages()[0]).value("/Contents").toString();
    QCOMPARE(undone.streamData(contents), shared);
    QCOMPARE(undone.dict(undone.pages()[0]).value("/Resources"), undone.dict(undone.pages()[1]).value("/Resources"));
    retyped.edit->redo();
    QCOMPARE(page->render(2), after);

    // Text of a form the page shares changes on this page only; empty text removes a run.
    const QRectF formLine = lineWith(page, "Shared form text");
    QCOMPARE(page->retype(formLine, "Form edited").outcome, PdfRetype::Outcome::Done);
    QCOMPARE(page->retype(lineWith(page, "Second line"), QString()).outcome, PdfRetype::Outcome::Done);
    QVERIFY(page->text().contains("Form edited") && !page->text().contains("Shared") && !page->text().contains("Second"));
    QCOMPARE(formUser->text(), formText);
    // On the turned page, which shared the first page's content.
    QCOMPARE(twin->retype(QRectF(70, 695, 30, 20), "Howdy").outcome, PdfRetype::Outcome::Done);
    QVERIFY(twin->text().contains("Howdy") && !twin->text().contains("Hello"));
    QVERIFY(twin->text().contains("brave world"));

    // Other readers find the new words once and the old ones nowhere.
    QVERIFY(doc->write(saved));
    QCOMPARE(qpdfProblems(saved), QString());
    const QString first = pdftotext(saved, 1), second = pdftotext(saved, 2), third = pdftotext(saved, 3);
    QCOMPARE(first.count("new words"), 1);
    QVERIFY2(first.contains("Form edited") && !first.contains("brave") && !first.contains("Shared") && !first.contains("Second"),
             qPrintable(first));
    QVERIFY2(second.contains("Howdy") && second.contains("brave world") && !second.contains("Hello"), qPrintable(second));
    QVERIFY(third.contains("Shared form text"));
}

void TestEngine::retypeFontsAndRefusals()
{
    // A justified paragraph set by groff with its fonts embedded.
    QTemporaryDir dir;
    const QString ms = dir.filePath("text.ms"), groffFile = dir.filePath("groff.pdf");
    QVERIFY(fixtures::writeFile(ms, ".PP\n" + QByteArray("The quick brown fox jumps over the lazy dog. ").repeated(8) +
                                        "\n.PP\nThe office staff left on Friday.\n"));
    QProcess groff;
    groff.setStandardOutputFile(groffFile);
    groff.start("groff", {"-ms", "-Tpdf", "-P-e", ms});
    QVERIFY(groff.waitForFinished() && groff.exitCode() == 0);
    // Without its fonts embedded, its "ffi" is one glyph spelt out by its
    // ToUnicode: a line retyped after it reads as before up to the change.
    const QString bare = dir.filePath("bare.pdf");
    groff.setStandardOutputFile(bare);
    groff.start("groff", {"-ms", "-Tpdf", ms});
    QVERIFY(groff.waitForFinished() && groff.exitCode() == 0);
    auto plain = PdfDocument::open(bare);
    const QRectF ligatureLine = lineWith(plain->page(0), "office");
    QCOMPARE(plain->page(0)->retype(ligatureLine, "The office staff left on Monday.").outcome, PdfRetype::Outcome::Done);
    QCOMPARE(plain->page(0)->selectionForLine(ligatureLine.center())->string().trimmed(),
             QString("The office staff left on Monday."));
    auto doc = PdfDocument::open(groffFile);
    QVERIFY(doc);
    auto page = doc->page(0);
    const QRectF line = lineWith(page, "quick");
    QVERIFY(!line.isEmpty());
    const QString old = page->selectionForLine(line.center())->string().trimmed();
    QString changed = old;
    changed.replace(changed.indexOf("fox"), 3, "cat");
    // The page's own font has every glyph: the line keeps its face and width.
    PdfRetype own = page->retype(line, changed);
    QCOMPARE(own.outcome, PdfRetype::Outcome::Done);
    QVERIFY(own.ownFont);
    auto retyped = page->selectionForLine(line.center());
    QCOMPARE(retyped->string().trimmed(), changed);
    QVERIFY(std::abs(retyped->bounds(page).right() - line.right()) < 1);
    QCOMPARE(page->fontAt(page->text().indexOf("cat"))->name, QString("Times-Roman"));
    // Letters it lacks are drawn with the font service's face instead.
    PdfRetype fallback = page->retype(line, "Zażółć gęślą jaźń");
    QCOMPARE(fallback.outcome, PdfRetype::Outcome::Done);
    QVERIFY(!fallback.ownFont);
    QVERIFY(page->text().contains("Zażółć gęślą jaźń"));
    // That face, embedded now, has what a shorter text needs.
    PdfRetype again = page->retype(lineWith(page, "Zażółć"), "Zażółć jaźń");
    QVERIFY(again.outcome == PdfRetype::Outcome::Done && again.ownFont);
    QVERIFY(page->text().contains("Zażółć jaźń\n"));

    // What cannot be edited in the content is left as it is: a Type 3 font,
    // glyphs drawn as shapes, content broken off after the line.
    QByteArray many = "BT /F1 12 Tf 72 700 Td (Among many shapes) Tj ET\n";
    for (int i = 0; i < 17000; ++i)
        many += QByteArray::number(i % 500) + " 100 m 300 200 l S\n";
    const QByteArray type3 = "<< /Type /Font /Subtype /Type3 /FontBBox [0 0 1000 1000] /FontMatrix [0.001 0 0 0.001 0 0] "
                             "/FirstChar 65 /LastChar 65 /Widths [1000] /Encoding << /Differences [65 /box] >> "
                             "/CharProcs << /box 9 0 R >> >>";
    QVERIFY(fixtures::writeFile(
        dir.filePath("refused.pdf"),
        fixtures::buildFromObjects(
            {"<< /Type /Catalog /Pages 2 0 R >>",
             "<< /Type /Pages /Kids [4 0 R 5 0 R 6 0 R 7 0 R] /Count 4 /MediaBox [0 0 612 792] "
             "/Resources << /Font << /F1 3 0 R /T3 8 0 R >> >> >>",
             "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>", "<< /Type /Page /Parent 2 0 R /Contents 10 0 R >>",
             "<< /Type /Page /Parent 2 0 R /Contents 11 0 R >>", "<< /Type /Page /Parent 2 0 R /Contents 12 0 R >>",
             "<< /Type /Page /Parent 2 0 R /Contents 13 0 R >>", type3,
             fixtures::streamObject("", "1000 0 0 0 1000 1000 d1 0 0 1000 1000 re f"),
             fixtures::streamObject("", "BT /T3 12 Tf 72 700 Td (AAAA) Tj ET"),
             fixtures::streamObject("", "72 700 20 10 re f 100 700 20 10 re f"),
             fixtures::streamObject("", "BT /F1 12 Tf 72 700 Td (Broken off) Tj ET 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 "
                                        "18 19 20 21 22 23 24 25 26 27 28 29 30 31 32 33 re { [ [ ] <</a ) "
                                        "BT /F1 12 Tf 72 600 Td (Later) Tj ET"),
             fixtures::streamObject("", many)})));
    auto refused = PdfDocument::open(dir.filePath("refused.pdf"));
    QVERIFY(refused);
    const std::pair<int, PdfRetype::Outcome> cases[] = {
        {0, PdfRetype::Outcome::Unsupported}, {1, PdfRetype::Outcome::NoText}, {2, PdfRetype::Outcome::Damaged}};
    for (const auto &[index, outcome] : cases) {
        auto p = refused->page(index);
        const QString text = p->text();
        const QImage look = p->render(1);
        const PdfRetype result = p->retype(QRectF(60, 690, 300, 30), "New");
        QCOMPARE(result.outcome, outcome);
        QVERIFY(!result.edit);
        QCOMPARE(p->text(), text);
        QCOMPARE(p->render(1), look);
    }
    // A page of 50,000 operators is retyped in well under a third of a second.
    auto busy = refused->page(3);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(busy->retype(QRectF(60, 690, 300, 30), "Among fewer shapes").outcome, PdfRetype::Outcome::Done);
    const qint64 elapsed = timer.elapsed();
    qInfo("retype of a page of 50,000 operators: %lld ms", elapsed);
    QVERIFY(elapsed < 300);
    QVERIFY(busy->text().contains("Among fewer shapes"));
}

void TestEngine::links()
{
    std::vector<PageSpec> pages = fixtures::numberedPages(2);
    // The first page is object 4 in files the builder makes.
    pages[1].annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /Dest [4 0 R /XYZ 72 700 0]", QRectF(72, 100, 128, 20), ""});
    pages[1].annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /A << /S /URI /URI (https://example.org/help) >>",
         QRectF(300, 100, 100, 20), ""});
    QVERIFY(fixtures::writePdf(path("links.pdf"), pages));
    auto doc = PdfDocument::open(path("links.pdf"));
    auto links = doc->page(1)->links();
    QCOMPARE(links.size(), size_t(2));
    std::sort(links.begin(), links.end(), [](const PdfLink &a, const PdfLink &b) { return a.bounds.left() < b.bounds.left(); });
    QCOMPARE(links[0].page, 0);
    QVERIFY(links[0].url.isEmpty());
    QCOMPARE(links[0].bounds, QRectF(72, 100, 128, 20));
    QVERIFY(links[0].point);
    QCOMPARE(links[0].point->y(), 700.0);
    QCOMPARE(links[1].url, QString("https://example.org/help"));
    QCOMPARE(links[1].page, -1);
    QVERIFY(doc->page(0)->links().empty());
}

void TestEngine::displayListsRenderOnWorkerThreads()
{
    QVERIFY(fixtures::writePdf(path("threads.pdf"), fixtures::numberedPages(4, 30)));
    auto doc = PdfDocument::open(path("threads.pdf"));
    std::vector<std::shared_ptr<PdfDisplayList>> lists;
    std::vector<QImage> expected;
    for (int i = 0; i < 4; ++i) {
        doc->page(i)->addAnnotation(square({100, 100, 50, 50}, Qt::red, Qt::red));
        lists.push_back(doc->page(i)->displayList());
        QVERIFY(lists.back());
        QCOMPARE(lists.back()->size(), QSizeF(612, 792));
        expected.push_back(doc->page(i)->render(1.5));
    }
    // The lists outlive the document they came from.
    doc.reset();
    std::vector<std::thread> workers;
    std::atomic<int> mismatches = 0;
    for (int t = 0; t < 4; ++t)
        workers.emplace_back([&, t] {
            QImage reused(918, 1188, QImage::Format_ARGB32_Premultiplied);
            for (int round = 0; round < 5; ++round) {
                const size_t i = size_t((t + round) % 4);
                if (!lists[i]->renderInto(reused, 1.5, {0, 0}) || reused != expected[i].convertToFormat(reused.format()))
                    ++mismatches;
            }
        });
    for (auto &w : workers)
        w.join();
    QCOMPARE(mismatches.load(), 0);
    const QImage region = lists[0]->render(2, QRectF(100, 600, 100, 100));
    QCOMPARE(region.size(), QSize(200, 200));
    QVERIFY(near(region.pixelColor(50, 100), Qt::red)); // display (125, 650) is page (125, 142), in the square
    QVERIFY(near(region.pixelColor(150, 100), Qt::white));
}

void TestEngine::writingIsAtomic()
{
    QVERIFY(fixtures::writePdf(path("keep.pdf"), fixtures::numberedPages(2)));
    auto doc = PdfDocument::open(path("keep.pdf"));
    QVERIFY(!doc->write(path("no-such-folder/out.pdf")));
    QVERIFY(!doc->write(path("keep.pdf/out.pdf")));
    QVERIFY(!doc->write(dir_.path()));

    // A folder the user may not write to: the old file is left as it was, and
    // no temporary file is left behind.
    QTemporaryDir locked;
    QVERIFY(QFile::setPermissions(locked.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                                     QFileDevice::ReadOther | QFileDevice::ExeOther));
    const QString old = locked.filePath("old.pdf");
    QVERIFY(QFile::copy(path("keep.pdf"), old));
    QVERIFY(QFile::setPermissions(old, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther));
    const QByteArray before = readAll(old);
    auto oldDoc = PdfDocument::open(old);
    oldDoc->page(0)->addAnnotation(square({100, 100, 50, 50}, Qt::red));
    bool wroteOver = true, wroteNew = true;
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        wroteOver = oldDoc->write(old);
        wroteNew = oldDoc->write(locked.filePath("new.pdf"));
    }
    QVERIFY(!wroteOver);
    QVERIFY(!wroteNew);
    QCOMPARE(readAll(old), before);
    QCOMPARE(QDir(locked.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"old.pdf"});

    // Writing over the file the document came from, twice in one session,
    // keeps its permissions and a symbolic link pointing at it.
    const QString target = path("target.pdf"), link = path("link.pdf");
    QVERIFY(fixtures::writePdf(target, fixtures::numberedPages(2)));
    QVERIFY(QFile::setPermissions(target, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup));
    QVERIFY(QFile::link(target, link));
    auto linked = PdfDocument::open(link);
    linked->page(0)->addAnnotation(square({100, 100, 50, 50}, Qt::red));
    WRITE_AND_CHECK(linked, link);
    linked->page(1)->addAnnotation(square({200, 200, 50, 50}, Qt::blue));
    linked->removePage(0);
    WRITE_AND_CHECK(linked, link);
    QVERIFY(QFileInfo(link).isSymLink());
    const auto modeBits = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner | QFileDevice::ReadGroup |
                          QFileDevice::WriteGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::WriteOther |
                          QFileDevice::ExeOther;
    QCOMPARE(QFile::permissions(target) & modeBits, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup);
    auto reopened = PdfDocument::open(target);
    QCOMPARE(reopened->pageCount(), 1);
    QCOMPARE(firstLine(reopened->page(0)), QString("Page 2"));
    QCOMPARE(reopened->page(0)->annotations().size(), size_t(1));

    // Many documents written together: each as a whole where it can be
    // written (over an existing file too, keeping its permissions), the others
    // not at all, and no temporary file left behind in either folder.
    const QString batchFolder = path("batch");
    QVERIFY(QDir().mkpath(batchFolder));
    const QString existing = batchFolder + "/b.pdf";
    QVERIFY(fixtures::writePdf(existing, fixtures::numberedPages(1)));
    QVERIFY(QFile::setPermissions(existing, QFileDevice::ReadOwner | QFileDevice::WriteOwner));
    auto three = PdfDocument::open(path("keep.pdf"));
    three->removePage(0);
    const auto written = PdfDocument::writeAll({{doc, batchFolder + "/a.pdf"},
                                                {three, existing},
                                                {doc, locked.filePath("refused.pdf")},
                                                {nullptr, batchFolder + "/none.pdf"},
                                                {doc, path("no-such-folder/c.pdf")}});
    QCOMPARE(written, (std::vector<bool>{true, true, true, false, false}));
    QCOMPARE(PdfDocument::open(batchFolder + "/a.pdf")->pageCount(), 2);
    QCOMPARE(firstLine(PdfDocument::open(existing)->page(0)), QString("Page 2"));
    QCOMPARE(QFile::permissions(existing) & modeBits, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    QCOMPARE(QDir(batchFolder).entryList(QDir::Files | QDir::Hidden), (QStringList{"a.pdf", "b.pdf"}));
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        const auto refused = PdfDocument::writeAll({{doc, locked.filePath("other.pdf")}, {doc, path("batch/d.pdf")}});
        QCOMPARE(refused, (std::vector<bool>{false, false}));
    }
    QCOMPARE(QDir(locked.path()).entryList(QDir::Files | QDir::Hidden), (QStringList{"old.pdf", "refused.pdf"}));
}

// A save changes only a file the user may write, only the file that was
// opened, and leaves its owner, group, permissions and hard links as they were.
void TestEngine::savesRespectTheFileSystem()
{
    const bool root = geteuid() == 0;
    const uid_t nobodyId = 65534;
    QTemporaryDir shared; // a folder everyone may change
    QVERIFY(QFile::setPermissions(shared.path(), QFileDevice::Permissions(0x7777)));
    auto in = [&](const QString &name) { return shared.filePath(name); };
    auto annotated = [](const QString &file) {
        auto doc = PdfDocument::open(file);
        doc->page(0)->addAnnotation(square({100, 100, 50, 50}, Qt::red));
        return doc;
    };
    auto notes = [](const QString &file, int page = 0) { return int(PdfDocument::open(file)->page(page)->annotations().size()); };
    auto status = [](const QString &file) {
        struct stat st {};
        ::lstat(QFile::encodeName(file).constData(), &st);
        return st;
    };

    // A read-only file (another user's, for root) is refused and left as it was.
    const QString readOnly = in("read-only.pdf");
    QVERIFY(fixtures::writePdf(readOnly, fixtures::numberedPages(2)));
    QCOMPARE(::chmod(QFile::encodeName(readOnly).constData(), 0444), 0);
    QVERIFY(!root || ::chown(QFile::encodeName(readOnly).constData(), nobodyId, nobodyId) == 0);
    const QByteArray before = readAll(readOnly);
    auto doc = annotated(readOnly);
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        QVERIFY(!doc->write(readOnly));
    }
    QCOMPARE(doc->lastWriteFailure(), PdfDocument::WriteFailure::NotPermitted);
    QCOMPARE(readAll(readOnly), before);

    // Another user's file keeps its owner, group and mode: given to the new
    // file by root, or kept by writing the file itself for a user who may
    // write it but not give it away.
    if (root) {
        const QString theirs = in("theirs.pdf"), rootsFile = in("roots.pdf");
        QVERIFY(fixtures::writePdf(theirs, fixtures::numberedPages(2)));
        QVERIFY(fixtures::writePdf(rootsFile, fixtures::numberedPages(2)));
        QCOMPARE(::chown(QFile::encodeName(theirs).constData(), nobodyId, nobodyId), 0);
        QCOMPARE(::chmod(QFile::encodeName(theirs).constData(), 0640), 0);
        QCOMPARE(::chmod(QFile::encodeName(rootsFile).constData(), 0666), 0);
        QVERIFY(annotated(theirs)->write(theirs));
        doc = annotated(rootsFile);
        {
            ActAsNobody nobody;
            QVERIFY(doc->write(rootsFile));
        }
        QCOMPARE(status(theirs).st_uid, nobodyId);
        QCOMPARE(status(theirs).st_gid, gid_t(nobodyId));
        QCOMPARE(status(theirs).st_mode & 07777, mode_t(0640));
        QCOMPARE(status(rootsFile).st_uid, uid_t(0));
        QCOMPARE(status(rootsFile).st_mode & 07777, mode_t(0666));
        QCOMPARE(notes(theirs) + notes(rootsFile), 2);
    }

    // A hard-linked file stays one file under both names, and the document
    // that read its bytes from it still writes whole files after it was
    // rewritten under it.
    const QString linked = in("linked.pdf"), otherName = in("other-name.pdf");
    QVERIFY(fixtures::writePdf(linked, fixtures::numberedPages(2)));
    QCOMPARE(::link(QFile::encodeName(linked).constData(), QFile::encodeName(otherName).constData()), 0);
    doc = annotated(linked);
    QVERIFY(doc->write(linked));
    doc->page(1)->addAnnotation(square({200, 200, 50, 50}, Qt::blue));
    QVERIFY(doc->write(linked));
    QCOMPARE(status(linked).st_nlink, nlink_t(2));
    QCOMPARE(status(linked).st_ino, status(otherName).st_ino);
    QCOMPARE(notes(otherName, 0) + notes(otherName, 1), 2);
    QCOMPARE(firstLine(PdfDocument::open(otherName)->page(1)), QString("Page 2"));

    // A symbolic link put in place of the file after it was opened is not followed.
    const QString swapped = in("swapped.pdf"), victim = in("victim.pdf");
    QVERIFY(fixtures::writePdf(swapped, fixtures::numberedPages(1)));
    QVERIFY(fixtures::writePdf(victim, fixtures::numberedPages(1)));
    doc = annotated(swapped);
    QVERIFY(QFile::remove(swapped) && QFile::link(victim, swapped));
    const QByteArray victimBefore = readAll(victim);
    QVERIFY(!doc->write(swapped));
    QCOMPARE(doc->lastWriteFailure(), PdfDocument::WriteFailure::Replaced);
    QCOMPARE(readAll(victim), victimBefore);
    QVERIFY(QFileInfo(swapped).isSymLink());

    // What a save killed before its rename left is cleared when the file is
    // opened again; a save still writing holds its file locked.
    const QString stale = in(".linked.pdf.vellora-save-Ab3dE9"), busy = in(".linked.pdf.vellora-save-Zz9yX8");
    QVERIFY(fixtures::writeFile(stale, "%PDF-1.7 a complete copy") && fixtures::writeFile(busy, "%PDF-1.7 being written"));
    QFile writing(busy);
    QVERIFY(writing.open(QIODevice::ReadOnly) && ::flock(writing.handle(), LOCK_EX) == 0);
    QVERIFY(PdfDocument::open(linked));
    QVERIFY(!QFile::exists(stale));
    QVERIFY(QFile::exists(busy));

    // A writable file in a folder the user may not change is saved in place.
    QTemporaryDir fixed;
    const QString kept = fixed.filePath("kept.pdf");
    QVERIFY(fixtures::writePdf(kept, fixtures::numberedPages(1)));
    QVERIFY(!root || ::chown(QFile::encodeName(kept).constData(), nobodyId, nobodyId) == 0);
    QCOMPARE(::chmod(QFile::encodeName(fixed.path()).constData(), 0555), 0);
    doc = annotated(kept);
    bool written = false;
    {
        ActAsNobody nobody;
        written = doc->write(kept);
    }
    QCOMPARE(::chmod(QFile::encodeName(fixed.path()).constData(), 0755), 0);
    QVERIFY(written);
    QCOMPARE(notes(kept), 1);
}

int runEngineTests(int argc, char **argv)
{
    TestEngine tests;
    return QTest::qExec(&tests, argc, argv);
}

#include "tst_engine.moc"
