// How faithfully a retyped line stands in for the page's own: a line of page
// text is retyped unchanged with the edit-text tool (click, Return) on pages
// set in a serif, a sans and a monospace standard font and on a page made by
// groff and Ghostscript; poppler renders the original and the saved file, and
// the line's ink must keep its width and its baseline. Also the growth of a
// saved file caused by one ten-word text box. The last line is the summary.
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "FixtureBuilder.h"
#include "InlineTextView.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QApplication>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <optional>

namespace {

constexpr int dpi = 288; // 4 pixels per point
constexpr qreal pixelsPerPoint = dpi / 72.0;

struct Ink {
    qreal left = 0, right = 0, baseline = 0; // page points from the page's left and top
};

// The extent and baseline of the dark pixels of a band of a rendered page: the
// baseline is the lowest row that many glyphs reach (descenders are few).
std::optional<Ink> inkIn(const QImage &page, qreal top, qreal bottom)
{
    const int y0 = std::max(0, int(top * pixelsPerPoint)), y1 = std::min(page.height() - 1, int(bottom * pixelsPerPoint));
    int left = page.width(), right = -1;
    std::vector<int> rows(size_t(std::max(0, y1 - y0 + 1)), 0);
    for (int y = y0; y <= y1; ++y)
        for (int x = 0; x < page.width(); ++x)
            if (qGray(page.pixel(x, y)) < 128) {
                left = std::min(left, x);
                right = std::max(right, x);
                ++rows[size_t(y - y0)];
            }
    if (right < 0)
        return std::nullopt;
    const int most = *std::max_element(rows.begin(), rows.end());
    int baseline = y0;
    for (int y = y0; y <= y1; ++y)
        if (rows[size_t(y - y0)] >= most * 0.3)
            baseline = y;
    return Ink{left / pixelsPerPoint, (right + 1) / pixelsPerPoint, (baseline + 1) / pixelsPerPoint};
}

QImage render(const QString &pdf, int pageNumber, const QString &prefix)
{
    QProcess::execute(QStringLiteral("pdftoppm"), {QStringLiteral("-r"), QString::number(dpi), QStringLiteral("-f"),
                                                   QString::number(pageNumber), QStringLiteral("-l"), QString::number(pageNumber),
                                                   QStringLiteral("-gray"), QStringLiteral("-singlefile"), pdf, prefix});
    return QImage(prefix + QStringLiteral(".pgm"));
}

void send(QWidget *target, QEvent *event)
{
    QApplication::sendEvent(target, event);
}

struct Result {
    QString name;
    qreal widthError = -1;    // per cent
    qreal baselineError = -1; // points
};

// Retypes the first long line of the file's first page unchanged and compares poppler's renderings.
Result replaceLine(const QString &name, const QString &path, const QString &work)
{
    Result result{name};
    DocumentModel model;
    ToolSettings tools;
    PdfView view;
    model.open(path);
    if (!model.pdfDocument())
        return result;
    view.setDocument(model.pdfDocument());
    auto *overlay = new DrawingOverlayView(&tools, &model);
    overlay->setPdfView(&view);
    view.setOverlay(overlay);
    overlay->attachObservers();
    view.resize(900, 1000);
    view.show();
    view.setAutoScales(false);
    view.setScaleFactor(1.0);
    auto page = model.pdfDocument()->page(0);
    std::optional<PdfSelection> line;
    for (const PdfSelection &candidate : page->selectionForAll().selectionsByLine())
        if (candidate.string().trimmed().size() >= 30) {
            line = candidate;
            break;
        }
    if (!line)
        return result;
    const QRectF box = line->bounds(page);
    view.goToPoint(page, QPointF(box.left(), box.top() + box.height() + 40));
    tools.setCurrentTool(AnnotationTool::editText);
    QCoreApplication::processEvents();
    const QPointF at = view.convertFromPage(box.center(), page);
    QMouseEvent press(QEvent::MouseButtonPress, at, overlay->mapToGlobal(at), Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
    QMouseEvent release(QEvent::MouseButtonRelease, at, overlay->mapToGlobal(at), Qt::LeftButton, Qt::NoButton, Qt::NoModifier);
    send(overlay, &press);
    send(overlay, &release);
    InlineTextView *editor = overlay->inlineEditor();
    if (!editor)
        return result;
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    send(editor, &enter);
    const QString saved = work + QLatin1Char('/') + name + QStringLiteral("-saved.pdf");
    if (!model.pdfDocument()->write(saved))
        return result;

    // The band of the line, from the page's top edge, a little taller than the line.
    const QRectF media = page->bounds(PdfBox::Media);
    const qreal top = media.top() + media.height() - (box.top() + box.height()) - 3;
    const qreal bottom = media.top() + media.height() - box.top() + 3;
    const auto before = inkIn(render(path, 1, work + QLatin1Char('/') + name + QStringLiteral("-before")), top, bottom);
    const auto after = inkIn(render(saved, 1, work + QLatin1Char('/') + name + QStringLiteral("-after")), top, bottom);
    if (!before || !after)
        return result;
    const qreal widthBefore = before->right - before->left, widthAfter = after->right - after->left;
    result.widthError = 100 * std::abs(widthAfter - widthBefore) / widthBefore;
    result.baselineError = std::abs(after->baseline - before->baseline);
    std::printf("%-10s \"%s\"\n           %s, %.1f pt: ink width %.2f -> %.2f pt (%.2f %%), baseline %.2f -> %.2f pt (%.2f pt)\n",
                qPrintable(name), qPrintable(line->string().trimmed().left(40)),
                qPrintable(overlay->selection() && overlay->selection()->font() ? overlay->selection()->font()->name
                                                                                : QStringLiteral("?")),
                overlay->selection() && overlay->selection()->font() ? overlay->selection()->font()->size : 0.0, widthBefore,
                widthAfter, result.widthError, before->baseline, after->baseline, result.baselineError);
    return result;
}

// A page set by groff and turned into PDF by Ghostscript, or an empty path.
QString producerPage(const QString &work)
{
    const QString source = work + QStringLiteral("/page.ms");
    QFile ms(source);
    if (!ms.open(QIODevice::WriteOnly))
        return {};
    ms.write(".PP\nEvery copy of the report was checked twice before it left the office, "
             "and the figures in the last table were corrected by hand where the printer had smudged them.\n");
    ms.close();
    const QString ps = work + QStringLiteral("/page.ps"), pdf = work + QStringLiteral("/groff.pdf");
    QProcess groff;
    groff.setStandardOutputFile(ps);
    groff.start(QStringLiteral("groff"), {QStringLiteral("-ms"), QStringLiteral("-Tps"), source});
    if (!groff.waitForFinished(60000) || groff.exitCode() != 0)
        return {};
    if (QProcess::execute(QStringLiteral("ps2pdf"), {ps, pdf}) != 0)
        return {};
    return pdf;
}

// How much one ten-word text box adds to a saved file.
qint64 textBoxBytes(const QString &path, const QString &work)
{
    auto doc = PdfDocument::open(path);
    if (!doc)
        return -1;
    const QString without = work + QStringLiteral("/without.pdf"), with = work + QStringLiteral("/with.pdf");
    if (!doc->write(without))
        return -1;
    auto box = PdfAnnotation::create(QRectF(72, 300, 300, 40), PdfAnnotation::FreeText);
    box->setContents(QStringLiteral("Ten words of text in a box: does it cost much space?"));
    box->setFont(DrawingOverlayView::systemFont(14));
    box->setFontColor(Qt::black);
    box->setColor(Qt::transparent);
    box->setBorderWidth(0);
    doc->page(0)->addAnnotation(box);
    if (!doc->write(with))
        return -1;
    return QFileInfo(with).size() - QFileInfo(without).size();
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    const QString work =
        qEnvironmentVariableIsSet("REPLACE_BENCH_KEEP") ? qEnvironmentVariable("REPLACE_BENCH_KEEP") : dir.path();
    qputenv("XDG_DATA_HOME", (work + QStringLiteral("/data")).toLocal8Bit());
    const QString sentence = QStringLiteral("The quick brown fox jumps over the lazy dog, twice 0123.");
    std::vector<std::pair<QString, QString>> files;
    for (const auto &[name, font] :
         {std::pair{"serif", "Times-Roman"}, std::pair{"sans", "Helvetica"}, std::pair{"mono", "Courier"}}) {
        fixtures::PageSpec page;
        page.text.push_back({sentence, {72, 600}, 14, font});
        page.text.push_back({sentence, {72, 560}, 11, font});
        const QString path = work + QLatin1Char('/') + QLatin1String(name) + QStringLiteral(".pdf");
        if (fixtures::writePdf(path, {page}))
            files.emplace_back(QLatin1String(name), path);
    }
    if (const QString groff = producerPage(work); !groff.isEmpty())
        files.emplace_back(QStringLiteral("groff"), groff);

    qreal worstWidth = 0, worstBaseline = 0;
    for (const auto &[name, path] : files) {
        const Result r = replaceLine(name, path, work);
        if (r.widthError < 0) {
            std::printf("%-10s could not be measured\n", qPrintable(name));
            worstWidth = worstBaseline = -1;
            continue;
        }
        if (worstWidth >= 0) {
            worstWidth = std::max(worstWidth, r.widthError);
            worstBaseline = std::max(worstBaseline, r.baselineError);
        }
    }
    const qint64 boxBytes = files.empty() ? -1 : textBoxBytes(files[1].second, work);
    std::printf("one ten-word text box adds %lld bytes to the saved file\n", boxBytes);
    std::printf("replace_width_err=%.2f replace_baseline_pt=%.2f textbox_bytes=%lld\n", worstWidth, worstBaseline, boxBytes);
    return 0;
}
