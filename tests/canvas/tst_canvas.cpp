// The drawing overlay over a real page view: geometry, which events it takes,
// its interaction states, the annotations it makes and what they look like,
// on screen and in another reader's rendering of the saved file.
#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "EditHistory.h"
#include "FixtureBuilder.h"
#include "FontService.h"
#include "ImageStampAnnotation.h"
#include "InlineTextView.h"
#include "NotePopup.h"
#include "OverlayGeometry.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QPainter>
#include <QPlainTextEdit>
#include <QProcess>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int renderTimeoutMs = 60000;
const QRectF squareBounds(300, 300, 100, 80);
const QRectF highlightBounds(72, 676, 120, 14);

void sendMouse(QWidget *target, QEvent::Type type, QPointF pos, Qt::MouseButtons buttons = Qt::NoButton,
               Qt::MouseButton button = Qt::LeftButton)
{
    QMouseEvent event(type, pos, target->mapToGlobal(pos), type == QEvent::MouseMove ? Qt::NoButton : button, buttons,
                      Qt::NoModifier);
    QApplication::sendEvent(target, &event);
}

// A press, moves through `via` and the end point, and the release, all sent to the overlay.
void drag(QWidget *overlay, QPointF from, QPointF to, int steps = 4)
{
    sendMouse(overlay, QEvent::MouseButtonPress, from, Qt::LeftButton);
    for (int i = 1; i <= steps; ++i)
        sendMouse(overlay, QEvent::MouseMove, from + (to - from) * i / steps, Qt::LeftButton);
    sendMouse(overlay, QEvent::MouseButtonRelease, to, Qt::NoButton);
}

// A press and release at one point, sent to the overlay.
void clickOn(QWidget *overlay, QPointF pos)
{
    sendMouse(overlay, QEvent::MouseButtonPress, pos, Qt::LeftButton);
    sendMouse(overlay, QEvent::MouseButtonRelease, pos);
}

// The words poppler reads on a page (from 1) of a file, with their boxes in points on the page as shown.
QList<std::pair<QString, QRectF>> popplerWords(const QString &path, int page)
{
    QProcess pdftotext;
    pdftotext.start("pdftotext", {"-bbox", "-f", QString::number(page), "-l", QString::number(page), path, "-"});
    pdftotext.waitForFinished(60000);
    static const QRegularExpression word(
        "<word xMin=\"([\\d.]+)\" yMin=\"([\\d.]+)\" xMax=\"([\\d.]+)\" yMax=\"([\\d.]+)\">([^<]*)<");
    QList<std::pair<QString, QRectF>> words;
    for (auto m = word.globalMatch(QString::fromUtf8(pdftotext.readAllStandardOutput())); m.hasNext();) {
        const auto w = m.next();
        words.append({w.captured(5), QRectF(QPointF(w.captured(1).toDouble(), w.captured(2).toDouble()),
                                            QPointF(w.captured(3).toDouble(), w.captured(4).toDouble()))});
    }
    return words;
}

void key(QWidget *target, int code, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
{
    QKeyEvent press(QEvent::KeyPress, code, modifiers);
    QApplication::sendEvent(target, &press);
}

} // namespace

class TestCanvas : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void geometryRules();
    void pickingAtTwoZooms();
    void eventRouting();
    void selectMoveResizeNudgeDelete();
    void toolAndStructureChangesDropTheSelection();
    void shapesAndInk();
    void previewsAndChrome();
    void drawnRectangleInTheViewAndInAnotherReader();
    void newTextBoxes();
    void replacingALine();
    void coverTakesThePaperColour();
    void reEditingABox();
    void editorFontFollowsTheZoom();
    void placingSignatures();
    void placedSignatureInAnotherReader();
    void notes();

private:
    std::shared_ptr<PdfPage> page(int index) const { return model_->pdfDocument()->page(index); }
    std::shared_ptr<PdfAnnotation> square() const;
    QPointF pv(QPointF pagePoint, int index = 0) const { return view_->convertFromPage(pagePoint, page(index)); }
    int undoSteps() const { return int(model_->history().undoStack().size()); }
    void click(QPointF pos) { clickOn(overlay_, pos); }

    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::unique_ptr<ToolSettings> tools_;
    std::unique_ptr<PdfView> view_;
    DrawingOverlayView *overlay_ = nullptr;
};

void TestCanvas::init()
{
    qputenv("XDG_DATA_HOME", dir_.filePath("data").toLocal8Bit());
    auto pages = fixtures::numberedPages(2);
    pages[0].annotations.push_back(
        {"<< /Type /Annot /Subtype /Square /C [0 0 1] /F 4", squareBounds, "0 0 1 RG 2 w 301 301 98 78 re S"});
    pages[0].annotations.push_back(
        {"<< /Type /Annot /Subtype /Highlight /C [1 1 0] /F 4", highlightBounds, "1 1 0 rg 72 676 120 14 re f"});
    const QString path = dir_.filePath("canvas.pdf");
    QVERIFY(fixtures::writePdf(path, pages));
    model_ = std::make_unique<DocumentModel>();
    tools_ = std::make_unique<ToolSettings>();
    view_ = std::make_unique<PdfView>();
    model_->open(path);
    QVERIFY(model_->pdfDocument());
    view_->setDocument(model_->pdfDocument());
    overlay_ = new DrawingOverlayView(tools_.get(), model_.get());
    overlay_->setPdfView(view_.get());
    view_->setOverlay(overlay_);
    overlay_->attachObservers();
    view_->resize(700, 600);
    view_->show();
    QVERIFY(QTest::qWaitForWindowExposed(view_.get()));
    view_->setAutoScales(false);
    view_->setScaleFactor(1.0);
    view_->goToPage(page(0));
}

void TestCanvas::cleanup()
{
    view_.reset();
    tools_.reset();
    model_.reset();
}

std::shared_ptr<PdfAnnotation> TestCanvas::square() const
{
    for (const auto &a : page(0)->annotations())
        if (a->type() == PdfAnnotation::Square)
            return a;
    return nullptr;
}

// The resize rule, aspect lock and nudge steps, on their own.
void TestCanvas::geometryRules()
{
    using namespace overlayGeometry;
    const QRectF b(100, 100, 50, 40);
    QCOMPARE(resizedBounds(Handle::bottomRight, b, {120, 90}, false), QRectF(100, 90, 20, 50));
    // Onto the anchor: the smallest box, its lower left corner on the anchor.
    for (Handle h : allHandles) {
        const QPointF anchor = corner(b, Handle(3 - int(h)));
        QCOMPARE(resizedBounds(h, b, anchor, false), QRectF(anchor, QSizeF(14, 14)));
    }
    // Across the anchor the box turns over.
    QCOMPARE(resizedBounds(Handle::topLeft, b, {170, 60}, false), QRectF(150, 60, 20, 40));
    // Aspect lock: 200 x 50 (ratio 0.25) dragged 20 across keeps the ratio, raised to the minimum height.
    const QRectF stamp(0, 0, 200, 50);
    QCOMPARE(resizedBounds(Handle::topRight, stamp, {20, 2}, true), QRectF(0, 0, 56, 14));
    QCOMPARE(resizedBounds(Handle::topRight, stamp, {400, 60}, true), QRectF(0, 0, 400, 100));
    // A box narrower than 1 point counts as 1 wide: ratio 30.
    const QRectF thin(0, 0, 0.5, 30);
    QCOMPARE(resizedBounds(Handle::topRight, thin, {20, 300}, true), QRectF(0, 0, 20, 600));

    QCOMPARE(nudgeOffset(Qt::Key_Up, false), QPointF(0, 1));
    QCOMPARE(nudgeOffset(Qt::Key_Up, true), QPointF(0, 10));
    QCOMPARE(nudgeOffset(Qt::Key_Down, false), QPointF(0, -1));
    QCOMPARE(nudgeOffset(Qt::Key_Left, true), QPointF(-10, 0));
    QCOMPARE(nudgeOffset(Qt::Key_Right, false), QPointF(1, 0));
    QCOMPARE(nudgeOffset(Qt::Key_A, false), QPointF(0, 0));
}

// The pick radius is 12 view points at every zoom; on a small box the fixed order decides.
void TestCanvas::pickingAtTwoZooms()
{
    auto target = square();
    QVERIFY(target);
    overlay_->select(target);
    for (qreal zoom : {1.0, 2.0}) {
        view_->setScaleFactor(zoom);
        view_->goToPoint(page(0), QPointF(280, 420));
        const QPointF topLeft = pv(QPointF(300, 380));
        QCOMPARE(overlay_->handle(topLeft + QPointF(12, 0)), std::optional<Handle>(Handle::topLeft));
        QCOMPARE(overlay_->handle(topLeft + QPointF(0, 12.01)), std::nullopt);
        QCOMPARE(overlay_->handle(pv(QPointF(400, 300))), std::optional<Handle>(Handle::bottomRight));
        // 12 view points are 12 / zoom page points.
        QCOMPARE(overlay_->handle(pv(QPointF(300, 380 - 12 / zoom))), std::optional<Handle>(Handle::topLeft));
        QCOMPARE(overlay_->handle(pv(QPointF(300, 380 - 12.1 / zoom))), std::nullopt);
    }
    // A 10 x 10 box: a point near both top corners picks the top left one.
    auto small = PdfAnnotation::create(QRectF(100, 100, 10, 10), PdfAnnotation::Square);
    model_->addAnnotation(small, page(0), true);
    overlay_->select(small);
    QCOMPARE(overlay_->handle(pv(QPointF(105, 110))), std::optional<Handle>(Handle::topLeft));
}

// Which presses the overlay takes and which go on to the view.
void TestCanvas::eventRouting()
{
    QSignalSpy selected(model_.get(), &DocumentModel::selectedAnnotationChanged);
    // Nothing selected: a drag over page text selects text in the view.
    drag(overlay_, pv(QPointF(75, 668)), pv(QPointF(200, 668)));
    QVERIFY(view_->currentSelection().has_value());
    QVERIFY(!overlay_->selection());
    // A click selects a highlight, which can be deleted but not moved.
    const auto highlight = page(0)->annotation(highlightBounds.center());
    drag(overlay_, pv(highlightBounds.center()), pv(highlightBounds.center()) + QPointF(30, 30));
    QCOMPARE(overlay_->selection(), highlight);
    QCOMPARE(highlight->bounds(), highlightBounds);
    QKeyEvent right(QEvent::KeyPress, Qt::Key_Right, Qt::NoModifier);
    QVERIFY(!overlay_->wantsEvent(&right));
    key(overlay_, Qt::Key_Delete);
    QVERIFY(!highlight->page() && !overlay_->selection());
    model_->undo();
    view_->setCurrentSelection(std::nullopt);
    // A press on the rectangle is the overlay's: it selects it.
    sendMouse(overlay_, QEvent::MouseButtonPress, pv(QPointF(350, 340)), Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, pv(QPointF(350, 340)));
    QCOMPARE(overlay_->selection(), square());
    QCOMPARE(model_->selectedAnnotation(), square());
    // With a selection, a drag over text only deselects: no text selection starts.
    drag(overlay_, pv(QPointF(75, 668)), pv(QPointF(200, 668)));
    QVERIFY(!overlay_->selection());
    QVERIFY(!model_->selectedAnnotation());
    QVERIFY(!view_->currentSelection().has_value());
    // With a drawing tool every press is the overlay's.
    tools_->setCurrentTool(AnnotationTool::rectangle);
    QMouseEvent press(QEvent::MouseButtonPress, pv(QPointF(75, 668)), QPointF(), Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QVERIFY(overlay_->wantsEvent(&press));
    QKeyEvent pageDown(QEvent::KeyPress, Qt::Key_PageDown, Qt::NoModifier);
    QVERIFY(!overlay_->wantsEvent(&pageDown));
}

void TestCanvas::selectMoveResizeNudgeDelete()
{
    auto target = square();
    const int before = undoSteps();
    const QPointF inside = pv(QPointF(350, 340));
    // A 1.5-point wiggle is no drag: the square stays on its page, nothing is recorded.
    sendMouse(overlay_, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseMove, inside + QPointF(1.5, 0), Qt::LeftButton);
    QVERIFY(!overlay_->didBeginDrag());
    sendMouse(overlay_, QEvent::MouseButtonRelease, inside + QPointF(1.5, 0));
    QCOMPARE(target->page(), page(0));
    QCOMPARE(target->bounds(), squareBounds);
    QCOMPARE(undoSteps(), before);

    // A move: the document is left alone until the release (the square keeps
    // its page and its place among the page's annotations, only the view draws
    // the page without it), then one change.
    const auto stacking = page(0)->annotations();
    QSignalSpy announced(model_->pdfDocument()->changes(), &PdfChangeChannel::pageChanged);
    sendMouse(overlay_, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseMove, inside + QPointF(20, 0), Qt::LeftButton);
    QVERIFY(overlay_->didBeginDrag());
    QCOMPARE(page(0)->annotations(), stacking);
    QCOMPARE(view_->hiddenAnnotation(), target);
    sendMouse(overlay_, QEvent::MouseMove, inside + QPointF(40, -30), Qt::LeftButton);
    QCOMPARE(overlay_->liveBounds(), std::optional<QRectF>(squareBounds.translated(40, 30)));
    QCOMPARE(target->bounds(), squareBounds);
    QCOMPARE(announced.count(), 0);
    sendMouse(overlay_, QEvent::MouseButtonRelease, inside + QPointF(40, -30));
    QCOMPARE(page(0)->annotations(), stacking);
    QCOMPARE(target->bounds(), squareBounds.translated(40, 30));
    QCOMPARE(announced.count(), 1);
    QVERIFY(!view_->hiddenAnnotation());
    QCOMPARE(undoSteps(), before + 1);
    QCOMPARE(overlay_->selection(), target);

    // Undo in the middle of a drag: the drag ends, the document decides.
    const QPointF moved = pv(QPointF(390, 370));
    sendMouse(overlay_, QEvent::MouseButtonPress, moved, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseMove, moved + QPointF(10, 0), Qt::LeftButton);
    model_->undo();
    QVERIFY(!overlay_->didBeginDrag() && !view_->hiddenAnnotation());
    sendMouse(overlay_, QEvent::MouseMove, moved + QPointF(30, 0), Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, moved + QPointF(30, 0));
    QCOMPARE(target->bounds(), squareBounds);
    QCOMPARE(undoSteps(), before);
    model_->redo();
    QCOMPARE(target->bounds(), squareBounds.translated(40, 30));

    // Resizing by the bottom right corner.
    const QRectF at = target->bounds();
    drag(overlay_, pv(QPointF(at.right(), at.top())), pv(QPointF(at.right() + 30, at.top() - 20)));
    QCOMPARE(target->bounds(), QRectF(at.left(), at.top() - 20, at.width() + 30, at.height() + 20));
    QCOMPARE(undoSteps(), before + 2);

    // Nudges: one step and one change per key press.
    const QRectF nudged = target->bounds();
    announced.clear();
    key(overlay_, Qt::Key_Up);
    key(overlay_, Qt::Key_Left, Qt::ShiftModifier);
    QCOMPARE(target->bounds(), nudged.translated(-10, 1));
    QCOMPARE(undoSteps(), before + 4);
    QCOMPARE(announced.count(), 2);

    // Delete takes it off the page and deselects; undo brings it back.
    key(overlay_, Qt::Key_Delete);
    QVERIFY(!target->page());
    QVERIFY(!overlay_->selection());
    model_->undo();
    QCOMPARE(target->page(), page(0));
    QCOMPARE(target->bounds(), nudged.translated(-10, 1));

    // Backspace deletes as well; Escape with a selection only deselects.
    overlay_->select(target);
    key(overlay_, Qt::Key_Escape);
    QVERIFY(!overlay_->selection());
    QCOMPARE(target->page(), page(0));
    overlay_->select(target);
    key(overlay_, Qt::Key_Backspace);
    QVERIFY(!target->page());
    // Without a selection, the arrows and Delete are not the overlay's.
    QKeyEvent up(QEvent::KeyPress, Qt::Key_Up, Qt::NoModifier);
    QVERIFY(!overlay_->wantsEvent(&up));
}

void TestCanvas::toolAndStructureChangesDropTheSelection()
{
    auto target = square();
    overlay_->select(target);
    // The change reaches the overlay a turn of the event loop later.
    tools_->setCurrentTool(AnnotationTool::ink);
    QCOMPARE(overlay_->selection(), target);
    QTRY_VERIFY(!overlay_->selection());
    QVERIFY(!model_->selectedAnnotation());
    tools_->setCurrentTool(AnnotationTool::none);
    QTest::qWait(10);
    QVERIFY(!overlay_->selection());
    // Choosing the select tool keeps a selection made just before.
    overlay_->select(target);
    tools_->setCurrentTool(AnnotationTool::none);
    QTest::qWait(10);
    QCOMPARE(overlay_->selection(), target);
    // A rotation keeps it; a drag cut short by deleting its page changes nothing, and the selection goes.
    model_->rotateCurrentPage(90);
    model_->rotateCurrentPage(-90);
    QCOMPARE(overlay_->selection(), target);
    view_->goToPage(page(0));
    QTest::qWait(10);
    const QPointF inside = pv(QPointF(350, 340));
    sendMouse(overlay_, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseMove, inside + QPointF(30, 0), Qt::LeftButton);
    const auto first = page(0);
    model_->deletePages({0});
    QVERIFY(!overlay_->selection() && !model_->selectedAnnotation() && !overlay_->didBeginDrag());
    sendMouse(overlay_, QEvent::MouseButtonRelease, inside + QPointF(30, 0));
    QCOMPARE(target->page(), first);
    QCOMPARE(target->bounds(), squareBounds);
    model_->undo();
    QCOMPARE(page(0), first);
}

void TestCanvas::shapesAndInk()
{
    auto added = [&](int index) {
        const auto all = page(index)->annotations();
        return all.empty() ? nullptr : all.back();
    };
    view_->goToPage(page(1));
    const int before = undoSteps();
    tools_->setCurrentTool(AnnotationTool::rectangle);
    tools_->setStrokeColor(QColor(0, 0, 255, 128));
    tools_->setLineWidth(3);
    drag(overlay_, pv(QPointF(100, 500), 1), pv(QPointF(250, 400), 1));
    auto rect = added(1);
    QVERIFY(rect);
    QCOMPARE(rect->type(), PdfAnnotation::Square);
    QCOMPARE(rect->bounds(), QRectF(100, 400, 150, 100));
    QCOMPARE(rect->color(), QColor(0, 0, 255, 128));
    QCOMPARE(rect->borderWidth(), std::optional<qreal>(3));
    QVERIFY(!rect->interiorColor().isValid()); // no fill: no interior colour at all
    QCOMPARE(rect->author(), AnnotationFactory::authorName());
    QCOMPARE(undoSteps(), before + 1);

    // The style is read at the release, not when the drag starts.
    tools_->setCurrentTool(AnnotationTool::circle);
    QTest::qWait(10);
    sendMouse(overlay_, QEvent::MouseButtonPress, pv(QPointF(300, 300), 1), Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseMove, pv(QPointF(360, 260), 1), Qt::LeftButton);
    tools_->setHasFill(true);
    tools_->setFillColor(Qt::green);
    sendMouse(overlay_, QEvent::MouseButtonRelease, pv(QPointF(360, 260), 1));
    auto ellipse = added(1);
    QCOMPARE(ellipse->type(), PdfAnnotation::Circle);
    QCOMPARE(ellipse->interiorColor(), QColor(Qt::green));

    // A click (2 view points each way) makes nothing; 3 points across make a flat shape.
    const int count = int(page(1)->annotations().size());
    drag(overlay_, pv(QPointF(100, 200), 1), pv(QPointF(100, 200), 1) + QPointF(2, 2));
    QCOMPARE(int(page(1)->annotations().size()), count);
    drag(overlay_, pv(QPointF(100, 200), 1), pv(QPointF(100, 200), 1) + QPointF(3, 0));
    QCOMPARE(int(page(1)->annotations().size()), count + 1);
    QCOMPARE(added(1)->bounds().height(), 0.0);
    // At 50 % the same 3 view points cover 6 page points.
    view_->setScaleFactor(0.5);
    view_->goToPage(page(1));
    drag(overlay_, pv(QPointF(100, 200), 1), pv(QPointF(100, 200), 1) + QPointF(3, 0));
    QVERIFY(qAbs(added(1)->bounds().width() - 6) < 1e-6);
    view_->setScaleFactor(1.0);
    view_->goToPage(page(1));

    // Ink: bounds grown by the line width, the path relative to them.
    tools_->setCurrentTool(AnnotationTool::ink);
    QTest::qWait(10);
    drag(overlay_, pv(QPointF(100, 100), 1), pv(QPointF(110, 100), 1), 1);
    auto ink = added(1);
    QCOMPARE(ink->type(), PdfAnnotation::Ink);
    QCOMPARE(ink->bounds(), QRectF(97, 97, 16, 6));
    QCOMPARE(ink->inkPaths().size(), 1);
    QCOMPARE(ink->inkPaths().first().first(), QPointF(3, 3));
    QCOMPARE(ink->inkPaths().first().size(), 2);
    QVERIFY(!ink->interiorColor().isValid());
    // A click with the ink tool leaves no mark and clears the stroke.
    const int inks = int(page(1)->annotations().size());
    sendMouse(overlay_, QEvent::MouseButtonPress, pv(QPointF(200, 200), 1), Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, pv(QPointF(200, 200), 1));
    QCOMPARE(int(page(1)->annotations().size()), inks);
    QVERIFY(overlay_->inkPV().empty());
    // A press between pages draws on the nearest one.
    view_->goToPoint(page(0), QPointF(300, 100));
    const QPointF between = (pv(QPointF(300, 0), 0) + pv(QPointF(300, 792), 1)) / 2;
    QVERIFY(!view_->pageAt(between, false));
    sendMouse(overlay_, QEvent::MouseButtonPress, between, Qt::LeftButton);
    QCOMPARE(overlay_->activePage(), page(1).get() ? view_->pageAt(between, true) : nullptr);
    sendMouse(overlay_, QEvent::MouseButtonRelease, between);
}

// What the overlay paints: nothing when idle; frame and handles; the
// placeholder while dragging, the annotation itself gone from the page.
void TestCanvas::previewsAndChrome()
{
    auto target = square();
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    const QImage idle = overlay_->grab().toImage();
    bool anyPainted = false;
    for (int y = 0; y < idle.height() && !anyPainted; y += 3)
        for (int x = 0; x < idle.width() && !anyPainted; x += 3)
            anyPainted = qAlpha(idle.pixel(x, y)) != 0;
    QVERIFY(!anyPainted);

    overlay_->select(target);
    const QRectF shown = view_->convertFromPage(squareBounds, page(0));
    QImage chrome(overlay_->size(), QImage::Format_ARGB32_Premultiplied);
    chrome.fill(Qt::transparent);
    overlay_->render(&chrome, QPoint(), QRegion(), QWidget::DrawChildren);
    const QColor accent = overlay_->palette().color(QPalette::Highlight);
    // The handle at the top-left corner is white inside with an accent ring.
    QCOMPARE(QColor(chrome.pixel(shown.topLeft().toPoint())), QColor(Qt::white));
    const QColor ring = chrome.pixelColor((shown.topLeft() + QPointF(4.5, 0)).toPoint());
    QVERIFY2(qAbs(ring.hue() - accent.hue()) <= 10 && ring.alpha() > 128, qPrintable(ring.name()));
    QCOMPARE(qAlpha(chrome.pixel(shown.center().toPoint())), 0); // no placeholder while only selected

    // While dragged: the square's own look where it goes, and the page under it drawn without the square.
    const QPointF inside = shown.center();
    sendMouse(overlay_, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseMove, inside + QPointF(150, 0), Qt::LeftButton);
    chrome.fill(Qt::transparent);
    overlay_->render(&chrome, QPoint(), QRegion(), QWidget::DrawChildren);
    const QColor dragged = chrome.pixelColor(view_->convertFromPage(QPointF(451, 340), page(0)).toPoint());
    QVERIFY2(dragged.alpha() > 200 && dragged.blue() > 200 && dragged.red() < 60, qPrintable(dragged.name(QColor::HexArgb)));
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    const QImage page0 = view_->viewport()->grab().toImage();
    const QPoint edge = view_->convertFromPage(QPointF(301, 340), page(0)).toPoint();
    QCOMPARE(QColor(page0.pixel(edge)), QColor(Qt::white)); // the blue outline is off the page
    sendMouse(overlay_, QEvent::MouseButtonRelease, inside + QPointF(150, 0));
    QCOMPARE(target->bounds(), squareBounds.translated(150, 0));

    // An ink stroke in a half-transparent colour: one even tint, also where its segments meet.
    tools_->setCurrentTool(AnnotationTool::ink);
    tools_->setStrokeColor(QColor(0, 0, 255, 128));
    tools_->setLineWidth(6);
    QTest::qWait(10);
    const QPointF start(100, 100);
    sendMouse(overlay_, QEvent::MouseButtonPress, start, Qt::LeftButton);
    for (int i = 1; i <= 40; ++i)
        sendMouse(overlay_, QEvent::MouseMove, start + QPointF(5 * i, 0), Qt::LeftButton);
    chrome.fill(Qt::transparent);
    overlay_->render(&chrome, QPoint(), QRegion(), QWidget::DrawChildren);
    for (int x : {110, 125, 150, 175})
        QVERIFY2(qAbs(qAlpha(chrome.pixel(x, 100)) - 128) <= 2, qPrintable(QString::number(qAlpha(chrome.pixel(x, 100)))));
    sendMouse(overlay_, QEvent::MouseButtonRelease, start + QPointF(200, 0));
    QVERIFY(overlay_->inkPV().empty());
}

// A rectangle drawn with the pointer shows in the view where it was drawn,
// and poppler's rendering of the saved file shows it at the same place.
void TestCanvas::drawnRectangleInTheViewAndInAnotherReader()
{
    view_->goToPage(page(1));
    tools_->setCurrentTool(AnnotationTool::rectangle);
    tools_->setStrokeColor(Qt::red);
    tools_->setLineWidth(4);
    QTest::qWait(10);
    drag(overlay_, pv(QPointF(200, 600), 1), pv(QPointF(400, 450), 1));
    QTRY_VERIFY_WITH_TIMEOUT(view_->isRenderingComplete(), renderTimeoutMs);
    const QImage screen = view_->viewport()->grab().toImage();
    const QColor onScreen = screen.pixelColor(pv(QPointF(200, 525), 1).toPoint());
    QVERIFY2(onScreen.red() > 200 && onScreen.green() < 60 && onScreen.blue() < 60, qPrintable(onScreen.name()));
    QCOMPARE(screen.pixelColor(pv(QPointF(300, 525), 1).toPoint()), QColor(Qt::white));

    const QString saved = dir_.filePath("drawn.pdf");
    QVERIFY(model_->pdfDocument()->write(saved));
    const QString prefix = dir_.filePath("poppler");
    QCOMPARE(QProcess::execute("pdftoppm", {"-r", "72", "-f", "2", "-l", "2", "-png", saved, prefix}), 0);
    QImage rendered(prefix + "-2.png");
    QVERIFY(!rendered.isNull());
    // At 72 dpi a page point is a pixel; y is measured from the top.
    const QColor left = rendered.pixelColor(200, 792 - 525);
    QVERIFY2(left.red() > 200 && left.green() < 60 && left.blue() < 60, qPrintable(left.name()));
    QCOMPARE(rendered.pixelColor(300, 792 - 525), QColor(Qt::white));
    QCOMPARE(rendered.pixelColor(190, 792 - 525), QColor(Qt::white));
}

// The free-text tool and the edit-text tool on blank paper: a one-line box
// at the press; what ends the editor and what each ending makes.
void TestCanvas::newTextBoxes()
{
    tools_->setCurrentTool(AnnotationTool::freeText);
    tools_->setFontSize(20);
    tools_->setFontColor(Qt::blue);
    QTest::qWait(10);
    const int before = int(page(0)->annotations().size());
    click(pv(QPointF(100, 200)));
    InlineTextView *editor = overlay_->inlineEditor();
    QVERIFY(editor);
    QVERIFY(std::holds_alternative<DrawingOverlayView::NewBox>(*overlay_->editingMode()));
    QCOMPARE(overlay_->editingBounds(), QRectF(100, 200 - 32, 240, 32));
    QCOMPARE(overlay_->editingFontColor(), QColor(Qt::blue));
    QCOMPARE(overlay_->editingBg(), QColor(Qt::transparent));
    const QRect place = view_->convertFromPage(QRectF(100, 168, 240, 32), page(0)).toAlignedRect();
    QCOMPARE(editor->geometry().topLeft(), place.topLeft());
    QCOMPARE(editor->width(), place.width());
    QVERIFY(editor->height() >= place.height()); // it grows downwards to show its lines

    // Escape drops it: nothing is made.
    QTest::keyClick(editor, Qt::Key_Escape);
    QVERIFY(!overlay_->inlineEditor());
    QCOMPARE(int(page(0)->annotations().size()), before);
    // Only spaces: nothing is made and the tool stays.
    click(pv(QPointF(100, 200)));
    QTest::keyClicks(overlay_->inlineEditor(), "   ");
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    QCOMPARE(int(page(0)->annotations().size()), before);
    QCOMPARE(tools_->currentTool(), AnnotationTool::freeText);

    // Three lines typed with Shift+Return and Alt+Return, committed by Return.
    const int steps = undoSteps();
    click(pv(QPointF(100, 200)));
    editor = overlay_->inlineEditor();
    QTest::keyClicks(editor, "one");
    QTest::keyClick(editor, Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClicks(editor, "two");
    QTest::keyClick(editor, Qt::Key_Return, Qt::AltModifier);
    QTest::keyClicks(editor, "three");
    QTest::keyClick(editor, Qt::Key_Return);
    QVERIFY(!overlay_->inlineEditor());
    auto box = page(0)->annotations().back();
    QCOMPARE(box->type(), PdfAnnotation::FreeText);
    QCOMPARE(box->contents(), QString("one\ntwo\nthree"));
    QCOMPARE(box->fontColor(), QColor(Qt::blue));
    QCOMPARE(box->color().alpha(), 0);
    QCOMPARE(box->borderWidth(), std::optional<qreal>(0));
    QCOMPARE(box->font()->size, 20.0);
    const QFontMetricsF metrics(FontService::instance().qFont(*box->font()));
    const qreal lineHeight = metrics.ascent() + metrics.descent() + metrics.leading();
    QVERIFY(box->bounds().height() >= 3 * lineHeight * 1.25 + 6 - 1e-6);
    QCOMPARE(box->bounds().left(), 100.0);
    QCOMPARE(box->bounds().top() + box->bounds().height(), 200.0); // the top edge stays
    QCOMPARE(box->bounds().width(), 240.0);                        // short text: never narrower than the start
    QCOMPARE(undoSteps(), steps + 1);
    QCOMPARE(overlay_->selection(), box);
    QTRY_COMPARE(tools_->currentTool(), AnnotationTool::none);
    QTest::qWait(10);
    QCOMPARE(overlay_->selection(), box); // choosing the select tool keeps it

    // The edit-text tool on blank paper opens a new box too; scrolling commits it.
    tools_->setCurrentTool(AnnotationTool::editText);
    QTest::qWait(10);
    click(pv(QPointF(400, 100)));
    QVERIFY(std::holds_alternative<DrawingOverlayView::NewBox>(*overlay_->editingMode()));
    QTest::keyClicks(overlay_->inlineEditor(), "scrolled");
    view_->verticalScrollBar()->setValue(view_->verticalScrollBar()->value() + 30);
    QVERIFY(!overlay_->inlineEditor());
    QCOMPARE(page(0)->annotations().back()->contents(), QString("scrolled"));

    // A long line near the right edge grows the box only up to 2 points before it.
    tools_->setCurrentTool(AnnotationTool::freeText);
    QTest::qWait(10);
    view_->goToPoint(page(0), QPointF(0, 400));
    click(pv(QPointF(300, 250)));
    QTest::keyClicks(overlay_->inlineEditor(), "a line much too long to fit before the edge of the page");
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    QCOMPARE(page(0)->annotations().back()->bounds().left() + page(0)->annotations().back()->bounds().width(), 610.0);

    // A paragraph pasted there, too long for the room below: the box takes
    // the page's width and rises to hold every line on the page.
    QStringList pasted;
    for (int i = 0; i < 100; ++i)
        pasted << QStringLiteral("lorem%1").arg(i);
    tools_->setCurrentTool(AnnotationTool::freeText);
    QTest::qWait(10);
    click(pv(QPointF(300, 250)));
    overlay_->inlineEditor()->insertPlainText(pasted.join(' '));
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    const QRectF held = page(0)->annotations().back()->bounds();
    QVERIFY(QRectF(2, 2, 608, 788).contains(held) && held.left() < 300);

    // On a page turned a quarter a three-line note reads upright, in the editor and in another reader.
    page(1)->setRotation(90);
    view_->goToPage(page(1));
    tools_->setCurrentTool(AnnotationTool::freeText);
    QTest::qWait(10);
    click(pv(QPointF(300, 300), 1));
    editor = overlay_->inlineEditor();
    QVERIFY(editor->width() >= 240 && editor->height() < 60);
    editor->insertPlainText("one\ntwo\nthree");
    QTest::keyClick(editor, Qt::Key_Return);
    const auto note = page(1)->annotations().back();
    QCOMPARE(note->rotation(), 90);

    // Poppler finds every word of both inside their boxes, running across the page as shown.
    const QString saved = dir_.filePath("text-boxes.pdf");
    QVERIFY(model_->pdfDocument()->write(saved));
    for (const auto &[index, box, expected] :
         {std::tuple{0, held, pasted}, std::tuple{1, note->bounds(), QStringList{"one", "two", "three"}}}) {
        const QRectF shown = page(index)->pageToDisplay().mapRect(box).adjusted(-1, -1, 1, 1);
        QStringList read;
        for (const auto &[word, at] : popplerWords(saved, index + 1)) {
            if (!expected.contains(word))
                continue;
            read << word;
            QVERIFY2(shown.contains(at) && at.width() > at.height(), qPrintable(word));
        }
        QCOMPARE(QSet<QString>(read.cbegin(), read.cend()), QSet<QString>(expected.cbegin(), expected.cend()));
    }
}

// The edit-text tool on a line of the page: the line's text in the page's
// font, over a cover of the paper colour; Return makes the cover even unchanged.
void TestCanvas::replacingALine()
{
    tools_->setCurrentTool(AnnotationTool::editText);
    QTest::qWait(10);
    const QPointF onLine(150, 684); // the first 12-point line of Helvetica, baseline 680
    click(pv(onLine));
    InlineTextView *editor = overlay_->inlineEditor();
    QVERIFY(editor);
    QVERIFY(std::holds_alternative<DrawingOverlayView::Replacement>(*overlay_->editingMode()));
    const auto line = page(0)->selectionForLine(onLine);
    QVERIFY(line);
    QCOMPARE(overlay_->editingOriginalText(), line->string());
    QCOMPARE(editor->toPlainText(), line->string());
    // The box stands where its text, drawn from 2 points below its top edge,
    // sits on the line's own baseline (680).
    QCOMPARE(*page(0)->baselineAt(onLine), 680.0);
    const QRectF at = overlay_->editingBounds();
    QVERIFY(qAbs(at.top() + at.height() - FontService::TextInset - FontService::instance().ascent(overlay_->editingFont()) -
                 680) < 0.01);
    FontService &fonts = FontService::instance();
    QVERIFY(qAbs(at.height() - fonts.ascent(overlay_->editingFont()) - fonts.descent(overlay_->editingFont()) - 4) < 0.01);
    QCOMPARE(at.left(), line->bounds(page(0)).left() - 2);
    QVERIFY(overlay_->editingFont().name.contains("Helvetica"));
    QCOMPARE(overlay_->editingFont().size, 12.0);
    QCOMPARE(overlay_->editingBg(), QColor(Qt::white));
    QCOMPARE(editor->textCursor().selectedText(), line->string()); // typing replaces it all

    // Return retypes the line in the page's content: no box over it, one
    // undoable step, and the page reads the same.
    const size_t boxes = page(0)->annotations().size();
    const int steps = undoSteps();
    QTest::keyClick(editor, Qt::Key_Enter);
    QCOMPARE(page(0)->annotations().size(), boxes);
    QCOMPARE(undoSteps(), steps + 1);
    QVERIFY(page(0)->text().contains(line->string()));
    QTRY_COMPARE(tools_->currentTool(), AnnotationTool::none);

    // Other words replace the old ones; undo and redo swap them back and forth.
    tools_->setCurrentTool(AnnotationTool::editText);
    QTest::qWait(10);
    click(pv(onLine));
    QTest::keyClicks(overlay_->inlineEditor(), "Quite different words");
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    QVERIFY(page(0)->text().contains("Quite different words"));
    QVERIFY(!page(0)->text().contains(line->string()));
    model_->undo();
    QVERIFY(page(0)->text().contains(line->string()));
    model_->redo();
    QVERIFY(!page(0)->text().contains(line->string()));

    // Emptied: the line's text goes.
    const QString second = page(0)->selectionForRun(QPointF(150, 668))->string();
    tools_->setCurrentTool(AnnotationTool::editText);
    QTest::qWait(10);
    click(pv(QPointF(150, 668)));
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Backspace);
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    QVERIFY(!page(0)->text().contains(second));
    QCOMPARE(page(0)->annotations().size(), boxes);
    QVERIFY(!model_->coveredLine());

    // The fallback size follows the line's height, within 6 and 96 points.
    QCOMPARE(DrawingOverlayView::detectFont("no such words on the page", page(0), 9.36).size, 9.36);
    QVERIFY(DrawingOverlayView::detectFont("Page 1", page(0), 9).name.contains("Helvetica"));
    QCOMPARE(DrawingOverlayView::detectFont("Page 1", page(0), 9).size, 24.0);

    // Glyphs the content cannot give up (a Type 3 font): the line is covered,
    // opaque in the paper colour, clear of the line below, and the user is told.
    const QByteArray type3 = "<< /Type /Font /Subtype /Type3 /FontBBox [0 0 1000 1000] /FontMatrix [0.001 0 0 0.001 0 0] "
                             "/FirstChar 65 /LastChar 65 /Widths [600] /Encoding << /Differences [65 /A] >> "
                             "/CharProcs << /A 5 0 R >> /ToUnicode 6 0 R >>";
    const QString path = dir_.filePath("type3.pdf");
    QVERIFY(fixtures::writeFile(
        path, fixtures::buildFromObjects(
                  {"<< /Type /Catalog /Pages 2 0 R >>",
                   "<< /Type /Pages /Kids [3 0 R] /Count 1 /MediaBox [0 0 612 792] /Resources << /Font << /T3 4 0 R >> >> >>",
                   "<< /Type /Page /Parent 2 0 R /Contents 7 0 R >>", type3,
                   fixtures::streamObject("", "600 0 0 0 500 700 d1 50 0 450 700 re f"),
                   fixtures::streamObject("", "/CIDInit /ProcSet findresource begin 12 dict begin begincmap 1 "
                                              "begincodespacerange <00> <FF> endcodespacerange 1 beginbfchar <41> <0041> "
                                              "endbfchar endcmap CMapName currentdict /CMap defineresource pop end end"),
                   fixtures::streamObject("", "BT /T3 12 Tf 72 700 Td (AAAAAAAAAA) Tj 0 -16 Td (AAAAAAAAAA) Tj ET")})));
    model_->open(path);
    view_->setDocument(model_->pdfDocument());
    view_->goToPage(page(0));
    tools_->setCurrentTool(AnnotationTool::editText);
    QTest::qWait(10);
    click(pv(QPointF(100, 703)));
    QVERIFY(overlay_->inlineEditor());
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    QVERIFY(model_->coveredLine());
    auto cover = page(0)->annotations().back();
    QCOMPARE(cover->type(), PdfAnnotation::FreeText);
    QCOMPARE(cover->color(), QColor(Qt::white));
    QVERIFY2(cover->bounds().top() >= 684 + 8.4, qPrintable(QString::number(cover->bounds().top())));

}

// A cream page gives a cream cover; a mid-grey one a white cover.
void TestCanvas::coverTakesThePaperColour()
{
    auto pages = fixtures::numberedPages(2);
    pages[0].annotations.push_back(
        {"<< /Type /Annot /Subtype /Square /F 4", QRectF(0, 0, 612, 792), "1 0.96 0.84 rg 0 0 612 792 re f"});
    pages[1].annotations.push_back({"<< /Type /Annot /Subtype /Square /F 4", QRectF(0, 0, 612, 792), "0.5 g 0 0 612 792 re f"});
    const QString path = dir_.filePath("papers.pdf");
    QVERIFY(fixtures::writePdf(path, pages));
    auto doc = PdfDocument::open(path);
    QVERIFY(doc);
    const QRectF lineBox(72, 677, 300, 14);
    const QColor cream = DrawingOverlayView::sampleBackgroundColor(doc->page(0), lineBox);
    QVERIFY2(qAbs(cream.red() - 255) <= 2 && qAbs(cream.green() - 245) <= 2 && qAbs(cream.blue() - 214) <= 2,
             qPrintable(cream.name()));
    QCOMPARE(cream.alpha(), 255);
    QCOMPARE(DrawingOverlayView::sampleBackgroundColor(doc->page(1), lineBox), QColor(Qt::white));
    // Text under a sample point does not darken the cover: the brightest sample wins.
    QCOMPARE(DrawingOverlayView::sampleBackgroundColor(page(0), QRectF(72, 677, 300, 14)), QColor(Qt::white));
}

// A double click with the select tool re-edits a box; the box grown with its text is undone with it.
void TestCanvas::reEditingABox()
{
    auto box = PdfAnnotation::create(QRectF(100, 300, 120, 30), PdfAnnotation::FreeText);
    box->setContents("short");
    box->setFont(PdfFont{"Helvetica", 12});
    box->setColor(Qt::transparent);
    model_->addAnnotation(box, page(0), true);
    const int steps = undoSteps();
    const QPointF inside = pv(QPointF(150, 315));
    sendMouse(overlay_, QEvent::MouseButtonPress, inside, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, inside);
    sendMouse(overlay_, QEvent::MouseButtonDblClick, inside, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, inside);
    InlineTextView *editor = overlay_->inlineEditor();
    QVERIFY(editor);
    QCOMPARE(overlay_->editingMode(), std::optional<DrawingOverlayView::EditingMode>(DrawingOverlayView::Existing{box}));
    QCOMPARE(editor->toPlainText(), QString("short"));
    QCOMPARE(overlay_->editingBg(), QColor(Qt::transparent));
    QTest::keyClicks(editor, "a much longer text than before");
    QTest::keyClick(editor, Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClicks(editor, "and a second line");
    // A press on the overlay outside the editor commits.
    click(pv(QPointF(400, 100)));
    QVERIFY(!overlay_->inlineEditor());
    QCOMPARE(box->contents(), QString("a much longer text than before\nand a second line"));
    const QRectF grown = box->bounds();
    QVERIFY(grown.width() > 120 && grown.height() > 30);
    QCOMPARE(grown.top() + grown.height(), 330.0);
    QCOMPARE(undoSteps(), steps + 1);
    model_->undo();
    QCOMPARE(box->contents(), QString("short"));
    QCOMPARE(box->bounds(), QRectF(100, 300, 120, 30));
    model_->history().performRedo();
    QCOMPARE(box->bounds(), grown);
    model_->history().performUndo();

    // Unchanged text changes nothing and records nothing.
    tools_->setCurrentTool(AnnotationTool::editText);
    QTest::qWait(10);
    click(pv(QPointF(150, 315)));
    QVERIFY(std::holds_alternative<DrawingOverlayView::Existing>(*overlay_->editingMode()));
    QTest::keyClick(overlay_->inlineEditor(), Qt::Key_Return);
    QCOMPARE(undoSteps(), steps); // the undone step went to the redo stack; nothing new
    QCOMPARE(box->contents(), QString("short"));
}

// The editor shows the text at the page's size times the zoom, never below 5 points.
void TestCanvas::editorFontFollowsTheZoom()
{
    auto box = PdfAnnotation::create(QRectF(100, 300, 120, 30), PdfAnnotation::FreeText);
    box->setContents("zoomed");
    box->setFont(PdfFont{"Helvetica", 10});
    model_->addAnnotation(box, page(0), true);
    for (auto [zoom, expected] : {std::pair{3.0, 30}, std::pair{0.1, 5}}) {
        view_->setScaleFactor(zoom);
        view_->goToPoint(page(0), QPointF(90, 340));
        overlay_->beginEditExisting(box);
        QVERIFY(overlay_->inlineEditor());
        QCOMPARE(overlay_->inlineEditor()->font().pixelSize(), expected);
        overlay_->removeInlineEditor();
    }
}

// A pending signature: every press is the overlay's; the next press on (or
// nearest to) a page places a stamp 200 points wide centred on it.
void TestCanvas::placingSignatures()
{
    auto image = [](int w, int h) {
        QImage i(w, h, QImage::Format_ARGB32_Premultiplied);
        i.fill(Qt::transparent);
        return i;
    };
    auto placeAt = [&](const QImage &signature, QPointF pagePoint, int index = 0) {
        model_->setPendingSignatureImage(signature);
        QTest::qWait(10);
        click(pv(pagePoint, index));
        return page(index)->annotations().back();
    };
    tools_->setCurrentTool(AnnotationTool::rectangle);
    QTest::qWait(10);
    const int steps = undoSteps();
    auto wide = placeAt(image(400, 100), QPointF(300, 500));
    QVERIFY(std::dynamic_pointer_cast<ImageStampAnnotation>(wide));
    QCOMPARE(wide->bounds(), QRectF(200, 475, 200, 50));
    QCOMPARE(wide->borderWidth(), std::optional<qreal>(0));
    QVERIFY(model_->pendingSignatureImage().isNull());
    QCOMPARE(overlay_->selection(), wide);
    QCOMPARE(undoSteps(), steps + 1);
    QTRY_COMPARE(tools_->currentTool(), AnnotationTool::none);
    QTest::qWait(10);
    QCOMPARE(overlay_->selection(), wide); // the tool change keeps it selected
    QCOMPARE(placeAt(image(1000, 100), QPointF(300, 500))->bounds().size(), QSizeF(200, 40));
    QCOMPARE(placeAt(image(100, 300), QPointF(300, 500))->bounds().size(), QSizeF(200, 200));
    // 30 points from the left edge: kept on the page.
    QCOMPARE(placeAt(image(400, 100), QPointF(30, 400))->bounds().left(), 0.0);
    overlay_->placeSignature(QImage(), pv(QPointF(300, 300)), page(0));
    QCOMPARE(page(0)->annotations().back()->bounds().size(), QSizeF(200, 66));

    // A press between two pages places it on the nearer one, in its coordinates.
    view_->goToPoint(page(0), QPointF(300, 100));
    const QPointF gap = (pv(QPointF(300, 0), 0) + pv(QPointF(300, 792), 1)) / 2 + QPointF(0, 2);
    model_->setPendingSignatureImage(image(400, 100));
    QTest::qWait(10);
    clickOn(overlay_, gap);
    auto nearest = view_->pageAt(gap, true);
    QCOMPARE(nearest, page(1));
    const QRectF onNearest = page(1)->annotations().back()->bounds();
    QVERIFY(page(1)->bounds().contains(onNearest)); // kept on the page
    QVERIFY(qAbs(onNearest.center().x() - view_->convertToPage(gap, page(1)).x()) < 0.5);

    // Escape drops a pending signature: nothing is placed, the next press acts by the tool.
    const int count = int(page(0)->annotations().size());
    model_->setPendingSignatureImage(image(400, 100));
    QTest::qWait(10);
    overlay_->setFocus();
    QMouseEvent hover(QEvent::MouseMove, pv(QPointF(300, 300)), QPointF(), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    QVERIFY(overlay_->wantsEvent(&hover));
    QVERIFY(overlay_->pendingPreviewPoint().has_value());
    key(overlay_, Qt::Key_Escape);
    QVERIFY(model_->pendingSignatureImage().isNull());
    QTRY_VERIFY(!overlay_->pendingPreviewPoint());
    click(pv(QPointF(300, 300)));
    QCOMPARE(int(page(0)->annotations().size()), count);

    // A corner drag keeps the stamp's proportions; undo takes a placement away.
    view_->goToPoint(page(0), QPointF(0, 600));
    overlay_->select(wide);
    const QRectF before = wide->bounds();
    drag(overlay_, pv(QPointF(before.right(), before.top())), pv(QPointF(before.right() + 100, before.top() - 5)));
    QVERIFY(qAbs(wide->bounds().width() / wide->bounds().height() - 4) < 0.01);
    QVERIFY(wide->bounds().width() > 250);
    const auto last = page(1)->annotations().back();
    while (last->page())
        model_->undo();
    QVERIFY(!last->page());

    // Placed (selected), undone: the frame goes with it, so a drag where its
    // corner was brings nothing back and the placement can still be redone.
    auto again = placeAt(image(400, 100), QPointF(450, 150)); // clear of the other marks
    QCOMPARE(overlay_->selection(), again);
    model_->undo();
    QVERIFY(!overlay_->selection() && !again->page());
    const QRectF gone = again->bounds();
    drag(overlay_, pv(QPointF(gone.right(), gone.top())), pv(QPointF(gone.right() + 40, gone.top() + 10)));
    QVERIFY(!again->page());
    QCOMPARE(again->bounds(), gone);
    model_->redo();
    QCOMPARE(again->page(), page(0));
}

// The saved stamp: poppler shows the image where it was placed, multiplied
// over a coloured page (no white box), also after a move; read back it is a
// plain stamp that resizes freely.
void TestCanvas::placedSignatureInAnotherReader()
{
    auto pages = fixtures::numberedPages(1);
    pages[0].annotations.push_back(
        {"<< /Type /Annot /Subtype /Square /F 4", QRectF(0, 0, 612, 792), "1 0.9 0.6 rg 0 0 612 792 re f"});
    const QString path = dir_.filePath("cream.pdf");
    QVERIFY(fixtures::writePdf(path, pages));
    model_->open(path);
    view_->setDocument(model_->pdfDocument());
    view_->goToPage(page(0));
    // A signature: a black bar on white, 400 x 100.
    QImage signature(400, 100, QImage::Format_ARGB32);
    signature.fill(Qt::white);
    QPainter(&signature).fillRect(QRect(50, 40, 300, 20), Qt::black);
    model_->setPendingSignatureImage(signature);
    QTest::qWait(10);
    click(pv(QPointF(300, 400)));
    auto stamp = page(0)->annotations().back();
    QCOMPARE(stamp->bounds(), QRectF(200, 375, 200, 50));
    overlay_->select(stamp);
    key(overlay_, Qt::Key_Right, Qt::ShiftModifier); // moved 10 points right

    const QString saved = dir_.filePath("signed.pdf");
    QVERIFY(model_->pdfDocument()->write(saved));
    const QString prefix = dir_.filePath("signed");
    QCOMPARE(QProcess::execute("pdftoppm", {"-r", "72", "-png", "-singlefile", saved, prefix}), 0);
    const QImage rendered(prefix + ".png");
    QVERIFY(!rendered.isNull());
    // The bar: black in the middle of the stamp (x 210-410, y from the top 792-425 .. 792-375).
    QVERIFY(qGray(rendered.pixel(310, 792 - 400)) < 60);
    // The white of the image shows the cream page, not white.
    const QColor paper = rendered.pixelColor(240, 792 - 420);
    QVERIFY2(qAbs(paper.red() - 255) <= 3 && qAbs(paper.green() - 230) <= 3 && qAbs(paper.blue() - 153) <= 3,
             qPrintable(paper.name()));
    // Nothing left where it was before the move.
    QVERIFY(qGray(rendered.pixel(205, 792 - 400)) > 150);

    // Read back: a plain stamp, still drawn, resized freely.
    auto reopened = PdfDocument::open(saved);
    QVERIFY(reopened);
    auto again = reopened->page(0)->annotations().back();
    QCOMPARE(again->type(), PdfAnnotation::Stamp);
    QVERIFY(!std::dynamic_pointer_cast<ImageStampAnnotation>(again));
    QCOMPARE(again->bounds(), QRectF(210, 375, 200, 50));
    // Moved again after reopening and saved a second time, it still shows its image.
    again->setBounds(QRectF(210, 275, 200, 50));
    const QString twice = dir_.filePath("signed-twice.pdf");
    QVERIFY(reopened->write(twice));
    QCOMPARE(QProcess::execute("pdftoppm", {"-r", "72", "-png", "-singlefile", twice, prefix + "2"}), 0);
    const QImage second(prefix + "2.png");
    QVERIFY(qGray(second.pixel(310, 792 - 300)) < 60);
    QVERIFY(qGray(second.pixel(310, 792 - 400)) > 150);
}

// The Note tool: a press opens the popup (Escape leaves nothing behind);
// the typed text becomes a note with the user as author, in one step, kept
// on the page and upright on a turned page; a double click opens it again.
void TestCanvas::notes()
{
    const auto count = [this](int index) { return page(index)->annotations().size(); };
    const size_t before = count(0);
    const int steps = undoSteps();
    tools_->setCurrentTool(AnnotationTool::note);
    QTest::qWait(10);
    click(pv(QPointF(300, 500)));
    QVERIFY(overlay_->notePopup() && overlay_->notePopup()->isVisible());
    key(overlay_->notePopup()->editor(), Qt::Key_Escape);
    QVERIFY(!overlay_->notePopup());
    QCOMPARE(count(0), before);

    click(pv(QPointF(300, 500)));
    QVERIFY(overlay_->notePopup());
    QPlainTextEdit *editor = overlay_->notePopup()->editor();
    QTest::keyClicks(editor, "Call Ann");
    QTest::keyClick(editor, Qt::Key_Return);
    editor->insertPlainText(QString::fromUtf8("Żółw"));
    QCOMPARE(count(0), before);
    QTest::keyClick(editor, Qt::Key_Return, Qt::ControlModifier);
    QVERIFY(!overlay_->notePopup());
    const auto note = page(0)->annotations().back();
    QCOMPARE(note->type(), PdfAnnotation::Text);
    QCOMPARE(note->contents(), QString::fromUtf8("Call Ann\nŻółw"));
    QCOMPARE(note->bounds(), QRectF(290, 490, 20, 20));
    QCOMPARE(note->author(), AnnotationFactory::authorName());
    QCOMPARE(model_->selectedAnnotation(), note);
    QCOMPARE(tools_->currentTool(), AnnotationTool::none);
    QCOMPARE(undoSteps(), steps + 1);
    // Its icon is on the page, in its colour.
    const QImage icon = page(0)->render(4, page(0)->pageToDisplay().mapRect(note->bounds()), {});
    const QColor paperOfNote = icon.pixelColor(8, icon.height() / 2);
    QVERIFY2(paperOfNote.red() > 250 && qAbs(paperOfNote.green() - 213) < 4 && qAbs(paperOfNote.blue() - 79) < 4,
             qPrintable(paperOfNote.name()));

    // A double click opens it; a press elsewhere keeps the change, one step.
    const QPointF onIcon = pv(QPointF(300, 500));
    sendMouse(overlay_, QEvent::MouseButtonPress, onIcon, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, onIcon);
    sendMouse(overlay_, QEvent::MouseButtonDblClick, onIcon, Qt::LeftButton);
    sendMouse(overlay_, QEvent::MouseButtonRelease, onIcon);
    QVERIFY(overlay_->notePopup());
    QCOMPARE(overlay_->notePopup()->text(), note->contents());
    QTest::keyClicks(overlay_->notePopup()->editor(), " today");
    click(pv(QPointF(100, 100)));
    QCOMPARE(note->contents(), QString::fromUtf8("Call Ann\nŻółw today"));
    QCOMPARE(undoSteps(), steps + 2);
    model_->undo();
    QCOMPARE(note->contents(), QString::fromUtf8("Call Ann\nŻółw"));

    // At the paper's edge it stays on the page; on a turned page it reads upright.
    page(1)->setRotation(90);
    view_->goToPage(page(1));
    const QRectF paper = page(1)->bounds();
    overlay_->beginNewNote(page(1), paper.topRight());
    QVERIFY(overlay_->notePopup());
    QTest::keyClicks(overlay_->notePopup()->editor(), "corner");
    overlay_->commitNote();
    const auto turned = page(1)->annotations().back();
    QVERIFY(paper.contains(turned->bounds()));
    QCOMPARE(turned->rotation(), 90);
}

QTEST_MAIN(TestCanvas)
#include "tst_canvas.moc"
