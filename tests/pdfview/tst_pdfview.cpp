#include "FixtureBuilder.h"
#include "PageRenderCache.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "PdfViewOverlay.h"

#include <QClipboard>
#include <QDesktopServices>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// Rendering waits are generous: tests must not fail on a slow machine.
constexpr int renderTimeoutMs = 60000;

// Helvetica advance widths (per 1000 units) of the characters used below.
qreal helveticaWidth(const QString &text, qreal size)
{
    static const QHash<QChar, int> widths{{'T', 611}, {'h', 556}, {'e', 556}, {' ', 278}, {'q', 556}, {'u', 556}, {'i', 222},
                                          {'c', 500}, {'k', 500}, {'b', 556}, {'r', 333}, {'o', 556}, {'w', 722}, {'n', 556},
                                          {'f', 278}, {'x', 500}, {'P', 667}, {'a', 556}, {'g', 556}, {'1', 556}, {'2', 556}};
    qreal sum = 0;
    for (QChar c : text)
        sum += widths.value(c, 0);
    return sum * size / 1000;
}

void sendMouse(QWidget *target, QEvent::Type type, QPointF pos, Qt::MouseButtons buttons, Qt::KeyboardModifiers modifiers = {})
{
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, pos, target->mapToGlobal(pos), button, buttons, modifiers);
    QApplication::sendEvent(target, &event);
}

void drag(QWidget *target, QPointF from, QPointF to, Qt::KeyboardModifiers modifiers = {})
{
    sendMouse(target, QEvent::MouseButtonPress, from, Qt::LeftButton, modifiers);
    sendMouse(target, QEvent::MouseMove, (from + to) / 2, Qt::LeftButton, modifiers);
    sendMouse(target, QEvent::MouseMove, to, Qt::LeftButton, modifiers);
    sendMouse(target, QEvent::MouseButtonRelease, to, Qt::NoButton, modifiers);
}

void click(QWidget *target, QPointF pos)
{
    sendMouse(target, QEvent::MouseButtonPress, pos, Qt::LeftButton);
    sendMouse(target, QEvent::MouseButtonRelease, pos, Qt::NoButton);
}

void wheel(QWidget *target, QPointF pos, int delta, Qt::KeyboardModifiers modifiers = {})
{
    QWheelEvent event(pos, target->mapToGlobal(pos), QPoint(), QPoint(0, delta), Qt::NoButton, modifiers, Qt::NoScrollPhase,
                      false);
    QApplication::sendEvent(target, &event);
}

// The selected text, or a marker when nothing is selected.
QString selectedText(const PdfView &view)
{
    const auto selection = view.currentSelection();
    return selection ? selection->string() : QStringLiteral("<no selection>");
}

// The view-space rectangle of a page.
QRectF pageRect(const PdfView &view, const std::shared_ptr<PdfPage> &page)
{
    return view.convertFromPage(page->bounds(PdfBox::Crop), page);
}

// An overlay that takes pointer events inside `claimed` and the Delete key.
class TestOverlay : public QWidget, public PdfViewOverlay {
public:
    QRectF claimed;
    QList<QEvent::Type> received;

    bool wantsEvent(const QEvent *event) override
    {
        if (event->type() == QEvent::KeyPress)
            return static_cast<const QKeyEvent *>(event)->key() == Qt::Key_Delete;
        if (auto *pointer = dynamic_cast<const QSinglePointEvent *>(event))
            return claimed.contains(pointer->position());
        return false;
    }

protected:
    void mousePressEvent(QMouseEvent *) override { received << QEvent::MouseButtonPress; }
    void mouseMoveEvent(QMouseEvent *) override { received << QEvent::MouseMove; }
    void mouseReleaseEvent(QMouseEvent *) override { received << QEvent::MouseButtonRelease; }
    void keyPressEvent(QKeyEvent *) override { received << QEvent::KeyPress; }
    void wheelEvent(QWheelEvent *) override { received << QEvent::Wheel; }
};

class PlainOverlay : public QWidget {
protected:
    void mousePressEvent(QMouseEvent *event) override { event->accept(); }
    void mouseMoveEvent(QMouseEvent *event) override { event->accept(); }
};

} // namespace

class TestPdfView : public QObject {
    Q_OBJECT
public slots:
    void openUrl(const QUrl &url) { openedUrls << url; }

private slots:
    void init();
    void cleanup();
    void fitWidthAndScaleBounds();
    void geometryOnRotatedAndMixedPages_data();
    void geometryOnRotatedAndMixedPages();
    void geometryOnOffsetBoxes_data();
    void geometryOnOffsetBoxes();
    void currentPageFollowsNavigation();
    void keyboardAndWheelScrolling();
    void textSelectionByDragging();
    void wordLineAndCopy();
    void linksGoToPagesAndOpenUrls();
    void renderingAndInvalidation();
    void reloadAfterPageChanges();
    void cacheStaysWithinItsLimit();
    void pagesReadStayWithinTheirBudget();
    void anAnnotationChangeRedrawsOnlyItsTiles();
    void overlayChoosesItsEvents();
    void hostilePagesAndEditsWhileRendering();

private:
    std::shared_ptr<PdfDocument> open(const std::vector<fixtures::PageSpec> &pages);
    void showView(int width = 600, int height = 500);

    QTemporaryDir dir_;
    int files_ = 0;
    std::unique_ptr<PdfView> view_;
    QList<QUrl> openedUrls;
};

void TestPdfView::init()
{
    view_ = std::make_unique<PdfView>();
    openedUrls.clear();
}

void TestPdfView::cleanup()
{
    view_.reset();
}

std::shared_ptr<PdfDocument> TestPdfView::open(const std::vector<fixtures::PageSpec> &pages)
{
    const QString path = dir_.filePath(QStringLiteral("f%1.pdf").arg(files_++));
    if (!fixtures::writePdf(path, pages))
        return nullptr;
    return PdfDocument::open(path);
}

void TestPdfView::showView(int width, int height)
{
    view_->resize(width, height);
    view_->show();
    QVERIFY(QTest::qWaitForWindowExposed(view_.get()));
}

void TestPdfView::fitWidthAndScaleBounds()
{
    std::vector<fixtures::PageSpec> pages(3);
    pages[1].rotation = 90; // shown 792 wide: the widest page
    pages[2].mediaBox = QRectF(0, 0, 300, 400);
    auto doc = open(pages);
    QVERIFY(doc);
    view_->setDocument(doc);
    showView(700, 500);
    QWidget *viewport = view_->viewport();

    // Fit to width: the widest page spans the viewport less the margins; all pages are centred.
    QVERIFY(view_->autoScales());
    const QRectF widest = pageRect(*view_, doc->page(1));
    QCOMPARE(qRound(widest.width()), viewport->width() - 2 * PdfViewLayout::margin);
    QCOMPARE(view_->horizontalScrollBar()->maximum(), 0);
    for (int i = 0; i < 3; ++i)
        QVERIFY(qAbs(pageRect(*view_, doc->page(i)).center().x() - viewport->width() / 2.0) <= 1);
    QVERIFY(pageRect(*view_, doc->page(0)).bottom() < pageRect(*view_, doc->page(1)).top());

    // Fit follows resizes until it is switched off.
    const qreal fitted = view_->scaleFactor();
    view_->resize(900, 500);
    QTRY_VERIFY(view_->scaleFactor() > fitted);
    QSignalSpy autoSpy(view_.get(), &PdfView::autoScalesChanged);
    QSignalSpy scaleSpy(view_.get(), &PdfView::scaleChanged);
    view_->setScaleFactor(1.0);
    QCOMPARE(autoSpy.count(), 1);
    QVERIFY(!view_->autoScales());
    QCOMPARE(scaleSpy.count(), 1);
    view_->resize(600, 500);
    QTest::qWait(20);
    QCOMPARE(view_->scaleFactor(), 1.0);

    // Bounds, steps and the zoom signals.
    view_->setMinScaleFactor(0.5);
    view_->setMaxScaleFactor(2.0);
    view_->setScaleFactor(10);
    QCOMPARE(view_->scaleFactor(), 2.0);
    QVERIFY(!view_->canZoomIn());
    view_->zoomOut();
    QCOMPARE(view_->scaleFactor(), 2.0 / PdfView::zoomStep);
    view_->setScaleFactor(0.01);
    QCOMPARE(view_->scaleFactor(), 0.5);
    QVERIFY(!view_->canZoomOut());
    view_->zoomIn();
    QCOMPARE(view_->scaleFactor(), 0.5 * PdfView::zoomStep);
    // Narrower than the view, the column is centred.
    for (int i = 0; i < 3; ++i)
        QVERIFY(qAbs(pageRect(*view_, doc->page(i)).center().x() - viewport->width() / 2.0) <= 2);
    view_->setMinScaleFactor(0.8); // raising the lower bound lifts the scale with it
    QCOMPARE(view_->scaleFactor(), 0.8);
    QCOMPARE(scaleSpy.last().at(0).toReal(), 0.8);

    // Switching fit back on re-fits within the bounds.
    view_->setMinScaleFactor(0.1);
    view_->setMaxScaleFactor(8);
    view_->setAutoScales(true);
    QCOMPARE(qRound(pageRect(*view_, doc->page(1)).width()), viewport->width() - 2 * PdfViewLayout::margin);
}

void TestPdfView::geometryOnRotatedAndMixedPages_data()
{
    QTest::addColumn<qreal>("scale");
    QTest::newRow("50%") << 0.5;
    QTest::newRow("100%") << 1.0;
    QTest::newRow("250%") << 2.5;
}

void TestPdfView::geometryOnRotatedAndMixedPages()
{
    QFETCH(qreal, scale);
    // Each page: rotation, and an offset crop box on one of them.
    std::vector<fixtures::PageSpec> pages(5);
    pages[1].rotation = 90;
    pages[2].mediaBox = QRectF(0, 0, 400, 300);
    pages[2].cropBox = QRectF(50, 40, 250, 200);
    pages[2].rotation = 180;
    pages[3].rotation = 270;
    pages[4].mediaBox = QRectF(0, 0, 200, 200);
    auto doc = open(pages);
    QVERIFY(doc);
    view_->setDocument(doc);
    showView(500, 400);
    view_->setScaleFactor(scale);

    // Where the top-left corner of the upright page must appear once rotated clockwise.
    const QList<int> rotations{0, 90, 180, 270, 0};
    for (int i = 0; i < 5; ++i) {
        auto page = doc->page(i);
        view_->goToPage(page);
        const QRectF crop = page->bounds(PdfBox::Crop);
        const QRectF shown = pageRect(*view_, page);
        const QSizeF expected = rotations[i] % 180 ? crop.size().transposed() * scale : crop.size() * scale;
        QVERIFY2(qAbs(shown.width() - expected.width()) <= 1 && qAbs(shown.height() - expected.height()) <= 1,
                 qPrintable(QString::number(i)));

        const QPointF corner = view_->convertFromPage(crop.topLeft() + QPointF(0, crop.height()), page); // (x0, y1)
        const QPointF want = rotations[i] == 0     ? shown.topLeft()
                             : rotations[i] == 90  ? shown.topRight()
                             : rotations[i] == 180 ? shown.bottomRight()
                                                   : shown.bottomLeft();
        QVERIFY2((corner - want).manhattanLength() <= 1, qPrintable(QString::number(i)));

        // Round trips, inside and outside the page.
        for (QPointF p : {crop.center(), crop.topLeft() + QPointF(10, 20), QPointF(-30, 900)}) {
            const QPointF back = view_->convertToPage(view_->convertFromPage(p, page), page);
            QVERIFY((back - p).manhattanLength() < 1e-6);
        }
        const QRectF box(crop.left() + 10, crop.top() + 20, 30, 40);
        const QRectF roundTrip = view_->convertToPage(view_->convertFromPage(box, page), page);
        QVERIFY(qAbs(roundTrip.left() - box.left()) < 1e-6 && qAbs(roundTrip.width() - box.width()) < 1e-6);

        // Hit testing on the page, beside it and between pages.
        QCOMPARE(view_->pageAt(shown.center(), false), page);
        QCOMPARE(view_->pageAt(shown.topLeft() + QPointF(1, 1), false), page);
        QCOMPARE(view_->pageAt(QPointF(shown.left() - 3, shown.center().y()), false), nullptr);
        QCOMPARE(view_->pageAt(QPointF(shown.left() - 3, shown.center().y()), true), page);
        QCOMPARE(view_->pageAt(QPointF(shown.center().x(), shown.bottom() + 2), false), nullptr);
        QCOMPARE(view_->pageAt(QPointF(shown.center().x(), shown.bottom() + 2), true), page);
        if (i > 0)
            QCOMPARE(view_->pageAt(QPointF(shown.center().x(), shown.top() - 2), true), page);
    }
    // Beyond the last page, the nearest is the last page.
    auto last = doc->page(4);
    const QRectF shown = pageRect(*view_, last);
    QCOMPARE(view_->pageAt(QPointF(shown.center().x(), shown.bottom() + 500), true), last);
    QCOMPARE(view_->pageAt(QPointF(shown.center().x(), shown.bottom() + 500), false), nullptr);
}

void TestPdfView::geometryOnOffsetBoxes_data()
{
    QTest::addColumn<qreal>("scale");
    QTest::newRow("100%") << 1.0;
    QTest::newRow("200%") << 2.0;
}

// Pages 1-4 have a media box that starts at (100, 200), turned 0, 90, 180 and
// 270 degrees (page 4 also crops it), each with a blue square drawn in page
// space; page 7 links to a point on each. The screen is the reference: the
// squares must show where the conversions say, the page top at the view top.
void TestPdfView::geometryOnOffsetBoxes()
{
    QFETCH(qreal, scale);
    const QRectF square(300, 800, 60, 60);
    const QPointF target(250, 700);
    std::vector<fixtures::PageSpec> pages(8);
    for (int k = 1; k <= 4; ++k) {
        pages[size_t(k)].mediaBox = QRectF(100, 200, 612, 792);
        pages[size_t(k)].rotation = (k - 1) * 90;
        pages[size_t(k)].annotations.push_back({"<< /Type /Annot /Subtype /Square /F 4", square, "0 0 1 rg 300 800 60 60 re f"});
        // Page k is object 4k + 2: each page before it has a page, contents and two annotation objects.
        pages[7].annotations.push_back(
            {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /Dest [" + QByteArray::number(4 * k + 2) + " 0 R /XYZ 250 700 null]",
             QRectF(50 + 120 * (k - 1), 100, 80, 30), ""});
    }
    pages[4].cropBox = QRectF(150, 260, 500, 650);
    auto doc = open(pages);
    QVERIFY(doc);
    view_->setDocument(doc);
    showView(500, 400);
    view_->setScaleFactor(scale);
    QWidget *viewport = view_->viewport();
    const QColor background = viewport->palette().color(QPalette::Mid);

    // The corner of the box shown at the top left, per rotation.
    auto topLeftCorner = [](const QRectF &box, int rotation) {
        const qreal x0 = box.left(), y0 = box.top(), x1 = box.left() + box.width(), y1 = box.top() + box.height();
        return rotation == 0     ? QPointF(x0, y1)
               : rotation == 90  ? QPointF(x0, y0)
               : rotation == 180 ? QPointF(x1, y0)
                                 : QPointF(x1, y1);
    };
    for (int k = 1; k <= 4; ++k) {
        const QString at = QStringLiteral("page %1 at %2").arg(k).arg(scale);
        auto page = doc->page(k);
        const QRectF crop = page->bounds(PdfBox::Crop);

        // Going to the page: its top at the top of the view, centred across it, or from its left edge when wider.
        view_->goToPage(page);
        QCOMPARE(view_->currentPageIndex(), k);
        const QRectF shown = pageRect(*view_, page);
        QVERIFY2(qAbs(shown.top()) <= 1, qPrintable(at));
        const bool wide = shown.width() > viewport->width();
        QVERIFY2(qAbs(wide ? shown.left() : shown.center().x() - viewport->width() / 2.0) <= 1, qPrintable(at));
        const QPointF corner = view_->convertFromPage(topLeftCorner(crop, (k - 1) * 90), page);
        QVERIFY2((corner - shown.topLeft()).manhattanLength() <= 1, qPrintable(at));
        for (QPointF p : {target, crop.center(), QPointF(-40, 2000)})
            QVERIFY2((view_->convertToPage(view_->convertFromPage(p, page), page) - p).manhattanLength() < 1e-6, qPrintable(at));

        // On screen: paper just inside the page's top corner, the square where it is converted to.
        QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
        const QImage screen = viewport->grab().toImage();
        const QPoint inside = (shown.topLeft() + QPointF(3, 3)).toPoint();
        if (viewport->rect().contains(inside))
            QVERIFY2(screen.pixelColor(inside) == Qt::white, qPrintable(at));
        const QRectF squareShown = view_->convertFromPage(square, page);
        QCOMPARE(squareShown.size().toSize(), (QSizeF(60, 60) * scale).toSize());
        const QPoint centre = squareShown.center().toPoint();
        if (viewport->rect().contains(centre))
            QVERIFY2(screen.pixelColor(centre) == QColor(Qt::blue), qPrintable(at));
        QVERIFY2(screen.pixelColor(QPoint(viewport->width() / 2, 1)) != background, qPrintable(at));

        // Going to a point: it is at the top; a page wider than the view shows
        // from the point on, as far as the scroll range allows.
        view_->goToPoint(page, target);
        const QScrollBar *bar = view_->horizontalScrollBar();
        const QPointF point = view_->convertFromPage(target, page);
        QVERIFY2(qAbs(point.y()) <= 1, qPrintable(at));
        if (pageRect(*view_, page).width() <= viewport->width())
            QVERIFY2(qAbs(pageRect(*view_, page).center().x() - viewport->width() / 2.0) <= 1, qPrintable(at));
        else
            QVERIFY2(qAbs(point.x()) <= 1 || (point.x() > 0 && bar->value() == bar->maximum()), qPrintable(at));

        // A link to the same point lands on it as well.
        auto last = doc->page(7);
        view_->goToPage(last);
        click(viewport, view_->convertFromPage(QPointF(90 + 120 * (k - 1), 115), last));
        QCOMPARE(view_->currentPageIndex(), k);
        QVERIFY2(qAbs(view_->convertFromPage(target, page).y()) <= 1, qPrintable(at));
    }
}

void TestPdfView::currentPageFollowsNavigation()
{
    auto doc = open(fixtures::numberedPages(10));
    QVERIFY(doc);
    QSignalSpy pageSpy(view_.get(), &PdfView::currentPageChanged);
    QSignalSpy docSpy(view_.get(), &PdfView::documentChanged);
    view_->setDocument(doc);
    showView();
    QCOMPARE(docSpy.count(), 1);
    QCOMPARE(view_->currentPage(), doc->page(0));
    QCOMPARE(pageSpy.last().at(0).toInt(), 0);

    // Going to a page puts its top edge at the top of the view, and only that page becomes current.
    pageSpy.clear();
    view_->goToPage(doc->page(5));
    QCOMPARE(view_->currentPage(), doc->page(5));
    QCOMPARE(pageSpy.count(), 1);
    QCOMPARE(pageSpy.last().at(0).toInt(), 5);
    QVERIFY(qAbs(pageRect(*view_, doc->page(5)).top()) <= 1);

    // The bridge's way: the point (0, page height) of a page.
    view_->goToPoint(doc->page(3), QPointF(0, doc->page(3)->bounds().height()));
    QCOMPARE(view_->currentPageIndex(), 3);
    QVERIFY(qAbs(pageRect(*view_, doc->page(3)).top()) <= 1);

    // A point inside a zoomed page goes to the top left of the view.
    view_->setScaleFactor(2.0);
    view_->goToPoint(doc->page(7), QPointF(200, 400));
    QVERIFY((view_->convertFromPage(QPointF(200, 400), doc->page(7)) - QPointF(0, 0)).manhattanLength() <= 2);
    QCOMPARE(view_->currentPageIndex(), 7);

    // The last page cannot reach the top of the view; it is current all the same.
    view_->setScaleFactor(0.3);
    view_->goToPage(doc->page(9));
    QCOMPARE(view_->currentPageIndex(), 9);

    // Scrolling the view itself makes the page that fills most of it current.
    view_->setScaleFactor(1.0);
    pageSpy.clear();
    const int top = qRound(view_->convertFromPage(QPointF(0, 792), doc->page(2)).y()) + view_->verticalScrollBar()->value();
    view_->verticalScrollBar()->setValue(top + 300); // 492 of 792 points of page 2 remain above 500 pixels
    QCOMPARE(view_->currentPageIndex(), 2);
    view_->verticalScrollBar()->setValue(top + 600);
    QCOMPARE(view_->currentPageIndex(), 3);
    QCOMPARE(pageSpy.count(), 2);

    // Without a document there is nothing current.
    view_->setDocument(nullptr);
    QCOMPARE(view_->currentPage(), nullptr);
    QCOMPARE(view_->currentPageIndex(), -1);
    QCOMPARE(view_->pageAt(QPointF(100, 100), true), nullptr);
}

void TestPdfView::keyboardAndWheelScrolling()
{
    auto doc = open(fixtures::numberedPages(6));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(1.0);
    QScrollBar *v = view_->verticalScrollBar();
    v->setValue(0);

    QTest::keyClick(view_.get(), Qt::Key_Down);
    QVERIFY(v->value() > 0);
    const int afterLine = v->value();
    QTest::keyClick(view_.get(), Qt::Key_PageDown);
    const int page = v->value() - afterLine;
    QVERIFY(page > view_->viewport()->height() / 2 && page <= view_->viewport()->height());
    QTest::keyClick(view_.get(), Qt::Key_Space);
    QCOMPARE(v->value(), afterLine + 2 * page);
    QTest::keyClick(view_.get(), Qt::Key_Space, Qt::ShiftModifier);
    QTest::keyClick(view_.get(), Qt::Key_PageUp);
    QCOMPARE(v->value(), afterLine);
    QTest::keyClick(view_.get(), Qt::Key_End);
    QCOMPARE(v->value(), v->maximum());
    QCOMPARE(view_->currentPageIndex(), 5);
    QTest::keyClick(view_.get(), Qt::Key_Home);
    QCOMPARE(v->value(), 0);
    QCOMPARE(view_->currentPageIndex(), 0);

    // The wheel scrolls; with Ctrl it zooms and keeps the page point under the pointer.
    QSignalSpy geometrySpy(view_.get(), &PdfView::geometryChanged);
    wheel(view_->viewport(), QPointF(200, 200), -120);
    QVERIFY(v->value() > 0);
    QVERIFY(geometrySpy.count() > 0);
    const QPointF pointer(250, 300);
    auto under = view_->pageAt(pointer, true);
    const QPointF before = view_->convertToPage(pointer, under);
    wheel(view_->viewport(), pointer, 120, Qt::ControlModifier);
    QVERIFY(qAbs(view_->scaleFactor() - PdfView::zoomStep) < 1e-9);
    QVERIFY((view_->convertFromPage(before, under) - pointer).manhattanLength() <= 2);
}

void TestPdfView::textSelectionByDragging()
{
    auto doc = open(fixtures::numberedPages(3));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(1.5);
    auto first = doc->page(0), second = doc->page(1);
    QWidget *viewport = view_->viewport();
    QSignalSpy spy(view_.get(), &PdfView::selectionChanged);

    // Line 1 starts at (72, 680); "The quick brown fox" ends where the following space begins.
    const qreal foxEnd = 72 + helveticaWidth(QStringLiteral("The quick brown fox"), 12);
    const QPointF start = view_->convertFromPage(QPointF(70, 684), first);
    const QPointF end = view_->convertFromPage(QPointF(foxEnd + 1, 684), first);
    drag(viewport, start, end);
    QVERIFY(view_->currentSelection());
    QCOMPARE(selectedText(*view_), QStringLiteral("The quick brown fox"));
    QVERIFY(spy.count() >= 1);

    // The same words dragged from right to left.
    drag(viewport, end, start);
    QCOMPARE(selectedText(*view_), QStringLiteral("The quick brown fox"));

    // Across pages: from line 3 of the first page to the heading of the second.
    view_->setScaleFactor(0.5);
    const QPointF lineThree = view_->convertFromPage(QPointF(70, 652), first);
    const QPointF heading = view_->convertFromPage(QPointF(72 + helveticaWidth(QStringLiteral("Page 2"), 24) + 10, 728), second);
    drag(viewport, lineThree, heading);
    QCOMPARE(selectedText(*view_), QStringLiteral("The quick brown fox jumps over the lazy dog, line 3 of page 1.\nPage 2"));
    QCOMPARE(view_->currentSelection()->pages().size(), size_t(2));

    // Shift-click extends from the start of the last selection.
    const QPointF secondLine =
        view_->convertFromPage(QPointF(72 + helveticaWidth(QStringLiteral("The quick"), 12) + 1, 668), second);
    sendMouse(viewport, QEvent::MouseButtonPress, secondLine, Qt::LeftButton, Qt::ShiftModifier);
    sendMouse(viewport, QEvent::MouseButtonRelease, secondLine, Qt::NoButton, Qt::ShiftModifier);
    QVERIFY(selectedText(*view_).endsWith(QStringLiteral("line 1 of page 2.\nThe quick")));

    // The highlight is painted over the selected text, and only there.
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    const PdfSelection selection = *view_->currentSelection();
    const auto &lines = selection.lines();
    auto fullLine =
        std::find_if(lines.begin(), lines.end(), [&](const auto &l) { return l.page == second && l.text.endsWith("page 2."); });
    QVERIFY(fullLine != lines.end());
    const QRectF selected = view_->convertFromPage(fullLine->bounds, second);
    auto whiteShare = [&](const QImage &image, QRectF area) {
        int white = 0, all = 0;
        for (int y = int(area.top()) + 1; y < int(area.bottom()); ++y)
            for (int x = int(area.left()) + 1; x < int(area.right()); ++x, ++all)
                white += image.pixel(x, y) == qRgb(255, 255, 255);
        return all ? qreal(white) / all : 0.0;
    };
    QImage shot = viewport->grab().toImage().convertToFormat(QImage::Format_RGB32);
    QCOMPARE(whiteShare(shot, selected), 0.0);

    // A click without a drag clears the selection; so does setting none.
    spy.clear();
    click(viewport, view_->convertFromPage(QPointF(300, 300), first));
    QVERIFY(!view_->currentSelection());
    QCOMPARE(spy.count(), 1);
    shot = viewport->grab().toImage().convertToFormat(QImage::Format_RGB32);
    QVERIFY(whiteShare(shot, selected) > 0.1);
    view_->setCurrentSelection(first->selectionForAll());
    QCOMPARE(spy.count(), 2);
    view_->setCurrentSelection(std::nullopt);
    QVERIFY(!view_->currentSelection());
    QCOMPARE(spy.count(), 3);
}

void TestPdfView::wordLineAndCopy()
{
    auto doc = open(fixtures::numberedPages(1));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    auto page = doc->page(0);
    QWidget *viewport = view_->viewport();
    // Inside "brown" on line 2.
    const QPointF brown = view_->convertFromPage(QPointF(72 + helveticaWidth(QStringLiteral("The quick br"), 12), 668), page);

    QTest::mouseDClick(viewport, Qt::LeftButton, {}, brown.toPoint());
    QCOMPARE(selectedText(*view_), QStringLiteral("brown"));
    QTest::mouseClick(viewport, Qt::LeftButton, {}, brown.toPoint());
    QCOMPARE(selectedText(*view_), QStringLiteral("The quick brown fox jumps over the lazy dog, line 2 of page 1."));

    view_->setFocus();
    QTest::keyClick(view_.get(), Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(QGuiApplication::clipboard()->text(), selectedText(*view_));
}

void TestPdfView::linksGoToPagesAndOpenUrls()
{
    // Page objects are numbered 4 + 2 × index until the first annotation; the
    // links sit on the last page and lead back to the second one (object 6).
    std::vector<fixtures::PageSpec> pages = fixtures::numberedPages(3);
    pages[2].annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /Dest [6 0 R /XYZ 0 792 null]", {72, 100, 100, 30}, ""});
    pages[2].annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /A << /S /URI /URI (https://example.org/manual) >>",
         {200, 100, 100, 30},
         ""});
    pages[2].annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /A << /S /URI /URI (file:///bin/true) >>", {320, 100, 100, 30}, ""});
    auto doc = open(pages);
    QVERIFY(doc);
    QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "openUrl");
    QDesktopServices::setUrlHandler(QStringLiteral("file"), this, "openUrl");
    auto unset = qScopeGuard([] {
        QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
        QDesktopServices::unsetUrlHandler(QStringLiteral("file"));
    });
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(1.0);
    auto last = doc->page(2);
    view_->goToPage(last);

    click(view_->viewport(), view_->convertFromPage(QPointF(250, 115), last));
    QCOMPARE(openedUrls, QList<QUrl>{QUrl(QStringLiteral("https://example.org/manual"))});
    click(view_->viewport(), view_->convertFromPage(QPointF(370, 115), last));
    QCOMPARE(openedUrls.size(), 1); // a file link is not handed to the desktop

    // A drag that starts on a link selects instead of following it.
    view_->goToPage(last);
    drag(view_->viewport(), view_->convertFromPage(QPointF(100, 115), last), view_->convertFromPage(QPointF(300, 690), last));
    QCOMPARE(view_->currentPageIndex(), 2);

    click(view_->viewport(), view_->convertFromPage(QPointF(100, 115), last));
    QCOMPARE(view_->currentPageIndex(), 1);
    QVERIFY(qAbs(pageRect(*view_, doc->page(1)).top()) <= 1);
}

void TestPdfView::renderingAndInvalidation()
{
    auto doc = open(fixtures::numberedPages(2));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(1.0);
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    auto page = doc->page(0);
    QWidget *viewport = view_->viewport();
    auto colourAt = [&](QPointF pagePoint) {
        return viewport->grab().toImage().pixelColor(view_->convertFromPage(pagePoint, page).toPoint());
    };
    // The heading is drawn (dark pixels inside "Page 1"), the rest of the page is white.
    const QRectF heading = view_->convertFromPage(QRectF(72, 720, helveticaWidth(QStringLiteral("Page 1"), 24), 17), page);
    const QImage shot = viewport->grab().toImage();
    int dark = 0;
    for (int y = int(heading.top()); y < int(heading.bottom()); ++y)
        for (int x = int(heading.left()); x < int(heading.right()); ++x)
            dark += qGray(shot.pixel(x, y)) < 100;
    QVERIFY(dark > 50);
    QCOMPARE(colourAt(QPointF(300, 400)), QColor(Qt::white));

    // A change made on the page itself reaches every view of the document
    // without anyone telling them: a second view shows it as well.
    PdfView second;
    second.resize(600, 500);
    second.setDocument(doc);
    second.setScaleFactor(1.0);
    second.show();
    QVERIFY(QTest::qWaitForWindowExposed(&second));
    QTRY_VERIFY_WITH_TIMEOUT(second.isRenderingComplete(), renderTimeoutMs);
    auto secondColourAt = [&](QPointF pagePoint) {
        return second.viewport()->grab().toImage().pixelColor(second.convertFromPage(pagePoint, page).toPoint());
    };
    QCOMPARE(secondColourAt(QPointF(300, 400)), QColor(Qt::white));
    auto square = PdfAnnotation::create(QRectF(250, 350, 100, 100), PdfAnnotation::Square);
    square->setColor(Qt::blue);
    square->setInteriorColor(Qt::blue);
    QSignalSpy done(view_.get(), &PdfView::renderingComplete);
    page->addAnnotation(square);
    QVERIFY(!view_->isRenderingComplete());
    QVERIFY(done.wait(renderTimeoutMs));
    QTRY_COMPARE_WITH_TIMEOUT(colourAt(QPointF(300, 400)), QColor(Qt::blue), renderTimeoutMs);
    QTRY_COMPARE_WITH_TIMEOUT(secondColourAt(QPointF(300, 400)), QColor(Qt::blue), renderTimeoutMs);
    square->setInteriorColor(Qt::green);
    QTRY_COMPARE_WITH_TIMEOUT(secondColourAt(QPointF(300, 400)), QColor(Qt::green), renderTimeoutMs);
    page->removeAnnotation(square);
    QTRY_COMPARE_WITH_TIMEOUT(colourAt(QPointF(300, 400)), QColor(Qt::white), renderTimeoutMs);
    QTRY_COMPARE_WITH_TIMEOUT(secondColourAt(QPointF(300, 400)), QColor(Qt::white), renderTimeoutMs);
    // A turned page takes its new shape in both views.
    page->setRotation(90);
    QCOMPARE(pageRect(second, page).size().toSize(), QSize(792, 612));
    QCOMPARE(pageRect(*view_, page).size().toSize(), QSize(792, 612));
    page->setRotation(0);
    second.close();
    square->setInteriorColor(Qt::blue);
    page->addAnnotation(square);
    QTRY_COMPARE_WITH_TIMEOUT(colourAt(QPointF(300, 400)), QColor(Qt::blue), renderTimeoutMs);

    // A zoom renders sharper pictures: after it, a new picture at the new scale.
    view_->setScaleFactor(2.0);
    view_->goToPoint(page, QPointF(200, 450));
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    QCOMPARE(colourAt(QPointF(300, 400)), QColor(Qt::blue));
    QCOMPARE(colourAt(QPointF(240, 400)), QColor(Qt::white));
}

void TestPdfView::reloadAfterPageChanges()
{
    auto doc = open(fixtures::numberedPages(5));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(0.8);
    auto third = doc->page(2), fourth = doc->page(3);
    view_->goToPage(fourth);
    view_->setCurrentSelection(doc->page(1)->selectionForAll());

    // Removing a page that holds the selection: the column closes up, the zoom
    // stays, the page shown at the top stays there, the selection goes.
    QVERIFY(doc->removePage(1));
    view_->reloadPages();
    QCOMPARE(view_->scaleFactor(), 0.8);
    QCOMPARE(view_->currentPage(), fourth);
    QVERIFY(qAbs(pageRect(*view_, fourth).top()) <= 1);
    QVERIFY(!view_->currentSelection());
    QVERIFY(qAbs(pageRect(*view_, third).bottom() + PdfViewLayout::gap - pageRect(*view_, fourth).top()) <= 1);

    // A rotated page is laid out on its side, shown from its top left corner
    // when it turns at the top of the view.
    view_->verticalScrollBar()->setValue(view_->verticalScrollBar()->value() + 200);
    fourth->setRotation(90);
    QVERIFY(qAbs(pageRect(*view_, fourth).width() - 792 * 0.8) <= 1);
    QVERIFY(qAbs(pageRect(*view_, fourth).top()) <= 1 && qAbs(pageRect(*view_, fourth).left()) <= 1);
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
}

void TestPdfView::cacheStaysWithinItsLimit()
{
    auto doc = open(fixtures::numberedPages(8));
    QVERIFY(doc);
    PageRenderCache cache;
    const QRect whole(0, 0, 612, 792);
    const qint64 onePage = 612 * 792 * 4;
    cache.setLimit(3 * onePage);
    auto tile = [&](int i, qreal scale = 1.0) { return PageRenderCache::Tile{doc->page(i), scale, whole}; };
    for (int i = 0; i < 8; ++i) {
        cache.request({tile(i)}, 1);
        QTRY_VERIFY_WITH_TIMEOUT(cache.isComplete(), renderTimeoutMs);
        QVERIFY(cache.bytesUsed() <= 3 * onePage);
    }
    QVERIFY(!cache.picture(tile(7)).isNull());
    QVERIFY(cache.picture(tile(0)).isNull());
    QCOMPARE(cache.picture(tile(7)).size(), whole.size());

    // Invalidation makes the picture stale; it is kept to draw until the new one arrives.
    cache.invalidate(doc->page(7).get());
    QVERIFY(cache.picture(tile(7)).isNull());
    QCOMPARE(cache.stalePictures(doc->page(7).get(), 1.0).size(), size_t(1));
    QVERIFY(!cache.isComplete());
    QTRY_VERIFY_WITH_TIMEOUT(cache.isComplete(), renderTimeoutMs);
    QVERIFY(!cache.picture(tile(7)).isNull());

    // Wanted tiles beyond the limit are not rendered ahead; those on screen always are.
    cache.setLimit(onePage);
    cache.request({tile(1), tile(2), tile(3)}, 2);
    QTRY_VERIFY_WITH_TIMEOUT(cache.isComplete(), renderTimeoutMs);
    QVERIFY(!cache.picture(tile(1)).isNull() && !cache.picture(tile(2)).isNull());
    QTest::qWait(100);
    QVERIFY(cache.picture(tile(3)).isNull());
}

// Scrolling a long document end to end with the pointer over the pages (which
// reads their links and text) keeps what the engine holds within its budget,
// and pages let go of are read again correctly.
void TestPdfView::pagesReadStayWithinTheirBudget()
{
    const int count = 3 * PdfDocument::loadedPageBudget;
    auto doc = open(fixtures::numberedPages(count));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView(500, 400);
    view_->setScaleFactor(1.0);
    QWidget *viewport = view_->viewport();
    int mostLoaded = 0, mostLayouts = 0;
    for (int i = 0; i < count; ++i) {
        auto page = doc->page(i);
        view_->goToPage(page);
        QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
        sendMouse(viewport, QEvent::MouseMove, view_->convertFromPage(QPointF(90, 725), page), Qt::NoButton);
        QCOMPARE(viewport->cursor().shape(), Qt::IBeamCursor); // over the words "Page n"
        mostLoaded = std::max(mostLoaded, doc->loadedPageCount());
        mostLayouts = std::max(mostLayouts, doc->textLayoutCount());
    }
    QVERIFY(mostLoaded <= PdfDocument::loadedPageBudget);
    QVERIFY(mostLayouts <= PdfDocument::textLayoutBudget);
    QVERIFY(mostLayouts > 1);

    // A selection over more pages than the budget holds, and pages read again.
    auto first = doc->page(0), last = doc->page(count - 1);
    const PdfSelection all = PdfSelection::between(first, QPointF(0, 792), last, QPointF(612, 0));
    QVERIFY(all.string().startsWith(QStringLiteral("Page 1\n")));
    QVERIFY(all.string().contains(QStringLiteral("Page %1\n").arg(count)));
    QCOMPARE(all.pages().size(), size_t(count));
    QVERIFY(doc->textLayoutCount() <= PdfDocument::textLayoutBudget);
    QVERIFY(first->text().startsWith(QStringLiteral("Page 1\n")));
    QVERIFY(!first->render(0.5).isNull());
}

// Moving an annotation redraws the tiles it touches, before and after; the
// other tiles of the page keep their pictures.
void TestPdfView::anAnnotationChangeRedrawsOnlyItsTiles()
{
    auto doc = open(fixtures::numberedPages(1));
    QVERIFY(doc);
    auto page = doc->page(0);
    PageRenderCache cache;
    // At 2 pixels per point the page is 1224 x 1584 pixels: four tiles.
    std::vector<PageRenderCache::Tile> tiles;
    for (QRect r : {QRect(0, 0, 1024, 1024), QRect(1024, 0, 200, 1024), QRect(0, 1024, 1024, 560), QRect(1024, 1024, 200, 560)})
        tiles.push_back({page, 2.0, r});
    auto rendered = [&] {
        QList<bool> have;
        for (const auto &tile : tiles)
            have << !cache.picture(tile).isNull();
        return have;
    };
    cache.request(tiles, 4);
    QTRY_VERIFY_WITH_TIMEOUT(cache.isComplete(), renderTimeoutMs);
    QSignalSpy changes(doc->changes(), &PdfChangeChannel::pageChanged);
    connect(doc->changes(), &PdfChangeChannel::pageChanged, &cache,
            [&](const std::shared_ptr<PdfPage> &p, PdfChangeChannel::Changes, QRectF area) {
                cache.invalidate(p.get(), p->pageToDisplay().mapRect(area));
            });

    // A square low on the left (display y 632-692 points: the lower left tile only).
    auto square = PdfAnnotation::create(QRectF(100, 100, 100, 60), PdfAnnotation::Square);
    square->setColor(Qt::red);
    page->addAnnotation(square);
    QVERIFY(changes.count() >= 1);
    QVERIFY(changes.last().at(2).toRectF().contains(QRectF(100, 100, 100, 60)));
    QCOMPARE(rendered(), (QList<bool>{true, true, false, true}));
    QTRY_VERIFY_WITH_TIMEOUT(cache.isComplete(), renderTimeoutMs);
    const QImage lowerLeft = cache.picture(tiles[2]);
    QCOMPARE(lowerLeft.pixelColor(QPoint(200, (792 - 130) * 2 - 1024)).red(), 255); // the left edge of the square

    // Moved to the top right: both places are drawn again, the top left tile is kept.
    square->setBounds(QRectF(560, 700, 40, 40));
    QCOMPARE(rendered(), (QList<bool>{true, false, false, true}));
    QTRY_VERIFY_WITH_TIMEOUT(cache.isComplete(), renderTimeoutMs);
    QCOMPARE(cache.picture(tiles[2]).pixelColor(QPoint(200, (792 - 130) * 2 - 1024)), QColor(Qt::white));
}

void TestPdfView::overlayChoosesItsEvents()
{
    auto doc = open(fixtures::numberedPages(3));
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(1.0);
    auto page = doc->page(0);
    TestOverlay overlay;
    view_->setOverlay(&overlay);
    QCOMPARE(overlay.parentWidget(), view_->viewport());
    QCOMPARE(overlay.geometry(), view_->viewport()->rect());
    view_->resize(640, 420);
    QTRY_COMPARE(overlay.geometry(), view_->viewport()->rect());

    // The overlay claims an area below the first lines; a drag elsewhere selects text.
    overlay.claimed = view_->convertFromPage(QRectF(300, 600, 200, 60), page);
    const QPointF start = view_->convertFromPage(QPointF(70, 684), page);
    drag(&overlay, start, view_->convertFromPage(QPointF(72 + helveticaWidth(QStringLiteral("The quick"), 12) + 1, 684), page));
    QCOMPARE(selectedText(*view_), QStringLiteral("The quick"));
    QVERIFY(overlay.received.isEmpty());

    // A press the overlay takes brings it the moves and the release, even outside its area.
    drag(&overlay, overlay.claimed.center(), start);
    QCOMPARE(overlay.received,
             (QList<QEvent::Type>{QEvent::MouseButtonPress, QEvent::MouseMove, QEvent::MouseMove, QEvent::MouseButtonRelease}));
    QCOMPARE(selectedText(*view_), QStringLiteral("The quick"));

    // And a press it declines keeps going to the view when the pointer enters its area.
    overlay.received.clear();
    drag(&overlay, start, overlay.claimed.center());
    QVERIFY(overlay.received.isEmpty());
    QVERIFY(selectedText(*view_).startsWith(QStringLiteral("The quick brown fox jumps over the lazy dog, line 1")));

    // Keys and wheel: Delete is the overlay's, the rest scroll the view.
    overlay.setFocus();
    QTest::keyClick(&overlay, Qt::Key_Delete);
    QCOMPARE(overlay.received, QList<QEvent::Type>{QEvent::KeyPress});
    QTest::keyClick(&overlay, Qt::Key_PageDown);
    QVERIFY(view_->verticalScrollBar()->value() > 0);
    const int scrolled = view_->verticalScrollBar()->value();
    wheel(&overlay, QPointF(5, 5), -120);
    QVERIFY(view_->verticalScrollBar()->value() > scrolled);
    QCOMPARE(overlay.received.size(), 1);

    // A plain widget as overlay gets everything first; what it accepts stays with it.
    view_->setCurrentSelection(std::nullopt);
    PlainOverlay plain;
    view_->setOverlay(&plain);
    drag(&plain, start, view_->convertFromPage(QPointF(150, 684), page));
    QVERIFY(!view_->currentSelection());
    view_->setOverlay(nullptr);
}

QTEST_MAIN(TestPdfView)
#include "tst_pdfview.moc"

// Pages that cost much to read are read off the user-interface thread, pages
// of absurd size are laid out within what a scroll bar holds, and the
// document can be edited, saved and have pages removed while workers render.
void TestPdfView::hostilePagesAndEditsWhileRendering()
{
    std::vector<fixtures::PageSpec> pages = fixtures::numberedPages(4);
    // Ten megabytes of free text without an appearance, which MuPDF lays out.
    const QByteArray text = QByteArray("lorem ipsum dolor sit amet ").repeated(400000);
    pages[0].annotations.push_back({"<< /Type /Annot /Subtype /FreeText /DA (/Helv 12 Tf 0 g) /Contents (" + text + ")",
                                    QRectF(72, 300, 300, 200), QByteArray()});
    pages[1].mediaBox = pages[2].mediaBox = QRectF(0, 0, 1e9, 1e9);
    auto doc = open(pages);
    QVERIFY(doc);
    view_->setDocument(doc);
    showView();
    view_->setScaleFactor(1.0);
    view_->goToPoint(doc->page(0), QPointF(60, 510));
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    // The view's pictures are recorded on a worker: the user-interface thread loaded no page.
    QCOMPARE(doc->loadedPageCount(), 0);
    const QRectF box = view_->convertFromPage(QRectF(72, 300, 300, 200), doc->page(0));
    const QImage shot = view_->viewport()->grab(box.toAlignedRect()).toImage();
    int dark = 0;
    for (int y = 0; y < shot.height(); ++y)
        for (int x = 0; x < shot.width(); ++x)
            dark += qGray(shot.pixel(x, y)) < 128;
    QVERIFY2(dark > 500, qPrintable(QString::number(dark))); // the text, as far as its box shows it

    view_->setScaleFactor(6.0);
    QScrollBar *bar = view_->verticalScrollBar();
    QVERIFY(bar->maximum() > 1 << 29);
    QVERIFY(pageRect(*view_, doc->page(3)).top() >= pageRect(*view_, doc->page(2)).top());
    bar->setValue(bar->maximum());
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);

    // Edits, saves and removals while tiles are rendered and lists recorded.
    view_->setScaleFactor(1.0);
    auto kept = doc->page(3);
    for (int round = 0; round < 6; ++round) {
        view_->goToPage(doc->page(round % doc->pageCount()));
        auto square = PdfAnnotation::create(QRectF(100, 100, 50, 50), PdfAnnotation::Square);
        square->setColor(Qt::red);
        kept->addAnnotation(square);
        QVERIFY(doc->write(dir_.filePath(QStringLiteral("saved.pdf"))));
        auto removed = doc->page(0);
        QVERIFY(doc->removePage(0));
        QTest::qWait(5);
        QVERIFY(doc->insert(removed, doc->pageCount()));
        kept->removeAnnotation(square);
    }
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    QCOMPARE(doc->pageCount(), 4);
    QVERIFY(PdfDocument::open(dir_.filePath(QStringLiteral("saved.pdf"))));
}
