// Interaction benchmark: how long the page view and the drawing overlay take
// to answer the pointer on a text-heavy page shown at 200 %. A frame is timed
// on the user-interface thread from the pointer event being sent to the
// overlay until the view and the overlay have painted it; the paint is forced
// at once, so no frame waits for the event loop. The event loop runs between
// two events (pictures arrive from the render workers then) and that time is
// not counted. Three cases: dragging a rectangle annotation around with the
// select tool, drawing a long ink stroke, and drawing rectangles, each timed
// from the release until the view shows it rendered on its page. The last
// line is a one-line summary.
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "FixtureBuilder.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMouseEvent>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <numbers>
#include <vector>

namespace {

constexpr int pageCount = 3;
constexpr int linesPerPage = 42;
// A document window on a 1920 x 1080 screen.
constexpr QSize windowSize(1000, 850);
constexpr qreal zoom = 2.0;
constexpr int renderTimeoutMs = 60000;
constexpr int dragMoves = 300;
constexpr int inkMoves = 2000;
constexpr int rectangleRounds = 10;
// Where the dragged square sits on the first page (page space).
const QRectF squareBounds(300, 500, 100, 80);

double ms(qint64 ns)
{
    return double(ns) / 1e6;
}

qint64 cpuNs(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// The view, timing its own paints and telling when a paint showed every
// visible page finished.
class TimedView : public PdfView {
public:
    qint64 paintNs = 0;
    std::function<void()> onCompletePaint;

protected:
    void paintEvent(QPaintEvent *event) override
    {
        QElapsedTimer clock;
        clock.start();
        PdfView::paintEvent(event);
        paintNs += clock.nsecsElapsed();
        if (onCompletePaint && isRenderingComplete())
            onCompletePaint();
    }
};

class TimedOverlay : public DrawingOverlayView {
public:
    using DrawingOverlayView::DrawingOverlayView;
    qint64 paintNs = 0;

protected:
    void paintEvent(QPaintEvent *event) override
    {
        QElapsedTimer clock;
        clock.start();
        DrawingOverlayView::paintEvent(event);
        paintNs += clock.nsecsElapsed();
    }
};

// One pointer event and its paint, split into its parts.
struct Frame {
    QString label;
    qint64 eventNs = 0;
    qint64 viewPaintNs = 0;
    qint64 overlayPaintNs = 0;
    qint64 totalNs = 0;
    // Time the thread ran: much less than the frame means it waited for a core.
    qint64 cpuNs = 0;
};

// The document open in a view with the overlay over it, as the window has them.
struct Scene {
    DocumentModel model;
    ToolSettings tools;
    TimedView view;
    TimedOverlay *overlay = nullptr;

    std::shared_ptr<PdfPage> page() const { return model.pdfDocument()->page(0); }
    QPointF pv(QPointF pagePoint) const { return view.convertFromPage(pagePoint, page()); }
};

// Runs the event loop until `done` holds (checked every millisecond and
// whenever the view says it finished rendering), or the time runs out.
bool waitUntil(Scene &scene, const std::function<bool()> &done, int timeoutMs = renderTimeoutMs)
{
    if (done())
        return true;
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    auto check = [&] {
        if (done() || clock.elapsed() > timeoutMs)
            loop.quit();
    };
    QTimer poll;
    poll.setTimerType(Qt::PreciseTimer);
    poll.setInterval(1);
    QObject::connect(&poll, &QTimer::timeout, &loop, check);
    QObject::connect(&scene.view, &PdfView::renderingComplete, &loop, check);
    poll.start();
    loop.exec();
    return done();
}

bool waitForRendering(Scene &scene)
{
    return waitUntil(scene, [&] { return scene.view.isRenderingComplete(); });
}

QMouseEvent mouseEvent(QWidget *target, QEvent::Type type, QPointF pos, Qt::MouseButtons buttons)
{
    return QMouseEvent(type, pos, target->mapToGlobal(pos), type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton, buttons,
                       Qt::NoModifier);
}

// Sends one pointer event to the overlay (which routes it) and paints its result at once.
Frame frame(Scene &scene, const QString &label, QEvent::Type type, QPointF pos, Qt::MouseButtons buttons)
{
    QMouseEvent event = mouseEvent(scene.overlay, type, pos, buttons);
    scene.view.paintNs = scene.overlay->paintNs = 0;
    const qint64 cpu = cpuNs(CLOCK_THREAD_CPUTIME_ID);
    QElapsedTimer clock;
    clock.start();
    QApplication::sendEvent(scene.overlay, &event);
    const qint64 sent = clock.nsecsElapsed();
    scene.view.viewport()->repaint();
    const qint64 total = clock.nsecsElapsed();
    return {label, sent, scene.view.paintNs, scene.overlay->paintNs, total, cpuNs(CLOCK_THREAD_CPUTIME_ID) - cpu};
}

// A press at the first point, a move to each of the others and the release at
// the last, one frame each, the event loop running in between.
std::vector<Frame> gesture(Scene &scene, const std::vector<QPointF> &path)
{
    std::vector<Frame> frames;
    frames.reserve(path.size() + 1);
    frames.push_back(frame(scene, QStringLiteral("press"), QEvent::MouseButtonPress, path.front(), Qt::LeftButton));
    for (size_t i = 1; i < path.size(); ++i) {
        QCoreApplication::processEvents();
        frames.push_back(frame(scene, QStringLiteral("move %1").arg(i), QEvent::MouseMove, path[i], Qt::LeftButton));
    }
    QCoreApplication::processEvents();
    frames.push_back(frame(scene, QStringLiteral("release"), QEvent::MouseButtonRelease, path.back(), Qt::NoButton));
    return frames;
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

const Frame &worstBy(const std::vector<Frame> &frames, qint64 Frame::*part)
{
    return *std::max_element(frames.begin(), frames.end(), [part](const Frame &a, const Frame &b) { return a.*part < b.*part; });
}

// Prints the worst and the median frame and where the worst frames spend their
// time; returns the worst frame's milliseconds.
double report(const char *name, const std::vector<Frame> &frames)
{
    std::vector<double> totals;
    for (const Frame &f : frames)
        totals.push_back(ms(f.totalNs));
    const Frame &worst = worstBy(frames, &Frame::totalNs);
    std::printf("%s: worst frame %.1f ms (%s), %zu frames\n", name, ms(worst.totalNs), qPrintable(worst.label), frames.size());
    std::printf("%s: median frame %.2f ms\n", name, median(totals));
    std::printf("  worst frame: event %.2f ms, view paint %.2f ms, overlay paint %.2f ms, rest of the repaint %.2f ms; "
                "thread ran %.2f ms of it\n",
                ms(worst.eventNs), ms(worst.viewPaintNs), ms(worst.overlayPaintNs),
                ms(worst.totalNs - worst.eventNs - worst.viewPaintNs - worst.overlayPaintNs), ms(worst.cpuNs));
    const Frame &busiest = worstBy(frames, &Frame::cpuNs);
    std::printf("  most thread time in a frame: %.2f ms (%s, %.2f ms long)\n", ms(busiest.cpuNs), qPrintable(busiest.label),
                ms(busiest.totalNs));
    const Frame &event = worstBy(frames, &Frame::eventNs);
    const Frame &view = worstBy(frames, &Frame::viewPaintNs);
    const Frame &overlay = worstBy(frames, &Frame::overlayPaintNs);
    std::printf("  worst of each part: event %.2f ms (%s), view paint %.2f ms (%s), overlay paint %.2f ms (%s)\n",
                ms(event.eventNs), qPrintable(event.label), ms(view.viewPaintNs), qPrintable(view.label),
                ms(overlay.overlayPaintNs), qPrintable(overlay.label));
    std::vector<double> events, views, overlays;
    for (const Frame &f : frames) {
        events.push_back(ms(f.eventNs));
        views.push_back(ms(f.viewPaintNs));
        overlays.push_back(ms(f.overlayPaintNs));
    }
    std::printf("  median of each part: event %.2f ms, view paint %.2f ms, overlay paint %.2f ms\n", median(events),
                median(views), median(overlays));
    return ms(worst.totalNs);
}

// Select tool: presses on the square and drags it once around a circle of
// 100 view pixels' radius that starts and ends where it was pressed.
double dragCase(Scene &scene)
{
    auto square = PdfAnnotation::create(squareBounds, PdfAnnotation::Square);
    square->setColor(QColor(0, 0, 255));
    square->setBorderWidth(2);
    scene.model.addAnnotation(square, scene.page(), true);
    scene.tools.setCurrentTool(AnnotationTool::none);
    QCoreApplication::processEvents();
    waitForRendering(scene);

    const QPointF start = scene.pv(squareBounds.center());
    constexpr qreal radius = 100;
    std::vector<QPointF> path;
    for (int i = 0; i <= dragMoves; ++i) {
        const qreal angle = 2 * std::numbers::pi * i / dragMoves;
        path.push_back(start + QPointF(radius * (std::cos(angle) - 1), radius * std::sin(angle)));
    }
    const std::vector<Frame> frames = gesture(scene, path);
    const double worst = report("drag", frames);
    std::printf("  press %.2f ms, release %.2f ms; the square %s its page after the release\n", ms(frames.front().totalNs),
                ms(frames.back().totalNs), square->page() == scene.page() ? "is back on" : "is NOT on");
    waitForRendering(scene);
    return worst;
}

// Ink tool: one stroke, a sine wave across the view, a move every 0.4 pixel across.
double inkCase(Scene &scene)
{
    scene.tools.setCurrentTool(AnnotationTool::ink);
    QCoreApplication::processEvents();
    waitForRendering(scene);
    std::vector<QPointF> path;
    for (int i = 0; i <= inkMoves; ++i)
        path.push_back(QPointF(100 + 800.0 * i / inkMoves, 425 + 250 * std::sin(2 * std::numbers::pi * i / 200)));
    const size_t before = scene.page()->annotations().size();
    std::vector<Frame> frames = gesture(scene, path);
    const Frame press = frames.front(), release = frames.back();
    frames.erase(frames.begin());
    frames.pop_back();
    const double worst = report("ink", frames);
    // Each frame paints the whole stroke so far: how the frames grow with it.
    std::printf("  median frame by stroke length:");
    for (int quarter = 0; quarter < 4; ++quarter) {
        std::vector<double> part;
        for (size_t i = frames.size() * quarter / 4; i < frames.size() * (quarter + 1) / 4; ++i)
            part.push_back(ms(frames[i].totalNs));
        std::printf(" %d-%d points %.2f ms%s", inkMoves * quarter / 4 + 1, inkMoves * (quarter + 1) / 4, median(part),
                    quarter < 3 ? "," : "\n");
    }
    std::printf("  press %.2f ms, release %.2f ms (not among the frames above); %s\n", ms(press.totalNs), ms(release.totalNs),
                scene.page()->annotations().size() == before + 1 ? "one ink annotation made" : "NO ink annotation made");
    waitForRendering(scene);
    return worst;
}

// Whether the view shows the stroke colour somewhere across the left edge of `bounds`.
bool showsLeftEdge(Scene &scene, const QRectF &bounds, const QColor &stroke)
{
    const QImage screen = scene.view.viewport()->grab().toImage();
    const QPointF edge = scene.pv(QPointF(bounds.left(), bounds.center().y()));
    for (int dx = -4; dx <= 4; ++dx) {
        const QColor c = screen.pixelColor(edge.toPoint() + QPoint(dx, 0));
        if (std::abs(c.red() - stroke.red()) < 60 && std::abs(c.green() - stroke.green()) < 60 &&
            std::abs(c.blue() - stroke.blue()) < 60)
            return true;
    }
    return false;
}

// Rectangle tool: draws rectangles at ten places; each is timed from its
// release to the first paint that shows every visible page finished.
double annotateCase(Scene &scene)
{
    scene.tools.setCurrentTool(AnnotationTool::rectangle);
    QCoreApplication::processEvents();
    waitForRendering(scene);
    const QColor stroke = scene.tools.strokeColor();
    std::vector<double> times, handled, uiCpu;
    int missing = 0;
    for (int round = 0; round < rectangleRounds; ++round) {
        const QPointF from(80 + 170 * (round % 5), 120 + 330 * (round / 5));
        const QPointF to = from + QPointF(130, 200);
        const size_t before = scene.page()->annotations().size();
        for (int step = 0; step <= 4; ++step) {
            const QPointF at = from + (to - from) * step / 4;
            QMouseEvent event =
                mouseEvent(scene.overlay, step ? QEvent::MouseMove : QEvent::MouseButtonPress, at, Qt::LeftButton);
            QApplication::sendEvent(scene.overlay, &event);
            QCoreApplication::processEvents();
        }
        waitForRendering(scene);

        QMouseEvent release = mouseEvent(scene.overlay, QEvent::MouseButtonRelease, to, Qt::NoButton);
        bool shown = false;
        qint64 shownNs = -1;
        QElapsedTimer clock;
        scene.view.onCompletePaint = [&] {
            if (!shown) {
                shownNs = clock.nsecsElapsed();
                shown = true;
            }
        };
        const qint64 threadCpu = cpuNs(CLOCK_THREAD_CPUTIME_ID);
        clock.start();
        QApplication::sendEvent(scene.overlay, &release);
        handled.push_back(ms(clock.nsecsElapsed()));
        waitUntil(scene, [&] { return shown; });
        scene.view.onCompletePaint = nullptr;
        if (shownNs < 0) {
            std::printf("  WARNING: rectangle %d was not shown finished within %d ms\n", round + 1, renderTimeoutMs);
            continue;
        }
        times.push_back(ms(shownNs));
        uiCpu.push_back(ms(cpuNs(CLOCK_THREAD_CPUTIME_ID) - threadCpu));
        const auto all = scene.page()->annotations();
        if (all.size() != before + 1 || !showsLeftEdge(scene, all.back()->bounds(), stroke))
            ++missing;
    }
    const double med = median(times);
    std::printf("rectangle, release to shown finished on its page, %d times: median %.1f ms, worst %.1f ms\n", rectangleRounds,
                med, times.empty() ? 0.0 : *std::max_element(times.begin(), times.end()));
    std::printf("  median: release handled in %.1f ms, %.1f ms of user-interface thread time until shown\n", median(handled),
                median(uiCpu));
    if (missing)
        std::printf("  WARNING: %d of %d rectangles did not show their stroke colour on their edge\n", missing, rectangleRounds);
    return med;
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir dir;
    // The model adds every file it opens to the recent list: keep it out of the user's.
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toLocal8Bit());
    QApplication app(argc, argv);
    const QString path = dir.filePath(QStringLiteral("interaction.pdf"));
    if (!fixtures::writePdf(path, fixtures::numberedPages(pageCount, linesPerPage))) {
        std::fprintf(stderr, "cannot write the benchmark file\n");
        return 1;
    }

    Scene scene;
    scene.model.open(path);
    if (!scene.model.pdfDocument()) {
        std::fprintf(stderr, "cannot open the benchmark file\n");
        return 1;
    }
    scene.view.setDocument(scene.model.pdfDocument());
    scene.overlay = new TimedOverlay(&scene.tools, &scene.model);
    scene.overlay->setPdfView(&scene.view);
    scene.view.setOverlay(scene.overlay);
    scene.overlay->attachObservers();
    scene.view.resize(windowSize);
    scene.view.show();
    scene.view.setAutoScales(false);
    scene.view.setScaleFactor(zoom);
    scene.view.goToPage(scene.page());
    if (!waitForRendering(scene)) {
        std::fprintf(stderr, "the page was not rendered within %d ms\n", renderTimeoutMs);
        return 1;
    }
    std::printf("page: %d lines of text, view %dx%d at %.0f %%, viewport %dx%d\n", linesPerPage, windowSize.width(),
                windowSize.height(), zoom * 100, scene.view.viewport()->width(), scene.view.viewport()->height());

    const double dragMs = dragCase(scene);
    const double inkMs = inkCase(scene);
    const double annotateMs = annotateCase(scene);
    std::printf("drag_frame_ms=%.1f ink_frame_ms=%.1f annotate_ms=%.1f\n", dragMs, inkMs, annotateMs);
    return 0;
}
