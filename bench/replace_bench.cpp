// How faithfully a retyped line stands in for the page's own: a line of page
// text is retyped unchanged with the edit-text tool (click, Return) on pages
// set in a serif, a sans and a monospace standard font and on pages made by
// groff and Ghostscript and by cairo; poppler renders the original and the
// saved file, and the line's ink must keep its width and its baseline, and no
// pixel outside the line may change. The line is retyped again with other
// words: pdftotext must not find the old ones in the saved file. Whether the
// page's own font set the line (no font added to the page) is counted on the
// files of real producers. Also the growth of a saved file caused by one
// ten-word text box. The last line is the summary.
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
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cmath>
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
    qint64 collateralPixels = -1;
    bool ownFont = false;
};

// The line retyped: where it was and what it said, and the file saved after.
struct Retyped {
    QString saved;
    QRectF box; // page space
    QString text;
    QString fontName;
    qreal fontSize = 0;
};

// Retypes the first long line of the file's first page with the edit-text
// tool (with `newText`, or unchanged) and saves the file.
std::optional<Retyped> retype(const QString &path, const QString &saved, const std::optional<QString> &newText)
{
    DocumentModel model;
    ToolSettings tools;
    PdfView view;
    model.open(path);
    if (!model.pdfDocument())
        return std::nullopt;
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
        return std::nullopt;
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
        return std::nullopt;
    if (newText)
        editor->setPlainText(*newText);
    const PdfFont font = overlay->editingFont();
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    send(editor, &enter);
    if (!model.pdfDocument()->write(saved))
        return std::nullopt;
    return Retyped{saved, box, line->string().trimmed(), font.name, font.size};
}

// The names of the fonts poppler finds on the first page.
QStringList fontsOfFirstPage(const QString &pdf)
{
    QProcess fonts;
    fonts.start(QStringLiteral("pdffonts"),
                {QStringLiteral("-f"), QStringLiteral("1"), QStringLiteral("-l"), QStringLiteral("1"), pdf});
    fonts.waitForFinished(60000);
    QStringList names;
    const QStringList lines = QString::fromUtf8(fonts.readAllStandardOutput()).split(QLatin1Char('\n'));
    for (qsizetype i = 2; i < lines.size(); ++i) // after the heading and its rule
        if (const QString name = lines[i].section(QLatin1Char(' '), 0, 0); !name.isEmpty())
            names << name;
    return names;
}

// Pixels (at 2 per point, in poppler's rendering) that differ between two
// files' first pages outside a page-space box grown by one point.
qint64 changedOutside(const QString &before, const QString &after, const QRectF &box, const QRectF &media, const QString &work)
{
    auto render2 = [&](const QString &pdf, const QString &prefix) {
        QProcess::execute(QStringLiteral("pdftoppm"), {QStringLiteral("-r"), QStringLiteral("144"), QStringLiteral("-f"),
                                                       QStringLiteral("1"), QStringLiteral("-l"), QStringLiteral("1"),
                                                       QStringLiteral("-gray"), QStringLiteral("-singlefile"), pdf, prefix});
        return QImage(prefix + QStringLiteral(".pgm"));
    };
    const QImage a = render2(before, work + QStringLiteral("/collateral-before"));
    const QImage b = render2(after, work + QStringLiteral("/collateral-after"));
    if (a.isNull() || a.size() != b.size())
        return -1;
    const QRectF grown = box.adjusted(-1, -1, 1, 1);
    const QRect spared(
        QPoint(int((grown.left() - media.left()) * 2), int((media.bottom() - grown.bottom()) * 2)),
        QPoint(int(std::ceil((grown.right() - media.left()) * 2)), int(std::ceil((media.bottom() - grown.top()) * 2))));
    qint64 changed = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            if (!spared.contains(x, y) && std::abs(qGray(a.pixel(x, y)) - qGray(b.pixel(x, y))) > 16)
                ++changed;
    return changed;
}

// How many of the line's words pdftotext still finds in the saved file
// beyond what the rest of the original page holds.
int oldWordsLeft(const QString &original, const QString &saved, const QString &line)
{
    auto text = [](const QString &pdf) {
        QProcess pdftotext;
        pdftotext.start(QStringLiteral("pdftotext"), {pdf, QStringLiteral("-")});
        pdftotext.waitForFinished(60000);
        return QString::fromUtf8(pdftotext.readAllStandardOutput());
    };
    const QString before = text(original), after = text(saved);
    int left = 0;
    QStringList words = line.split(QRegularExpression(QStringLiteral("\\W+")), Qt::SkipEmptyParts);
    words.removeDuplicates();
    for (const QString &word : words) {
        const QRegularExpression whole(QStringLiteral("\\b%1\\b").arg(QRegularExpression::escape(word)));
        const qsizetype inLine = line.count(whole), inBefore = before.count(whole), inAfter = after.count(whole);
        left += int(std::max<qsizetype>(0, inAfter - (inBefore - inLine)));
    }
    return left;
}

// Retypes the first long line of the file's first page unchanged and compares
// poppler's renderings; then retypes it with other words.
Result replaceLine(const QString &name, const QString &path, const QString &work, int &oldWords, int &oldWordsFound)
{
    Result result{name};
    const auto same = retype(path, work + QLatin1Char('/') + name + QStringLiteral("-saved.pdf"), std::nullopt);
    if (!same)
        return result;
    const QString &saved = same->saved;
    const QRectF box = same->box;
    auto doc = PdfDocument::open(path);
    if (!doc)
        return result;

    // The band of the line, from the page's top edge, a little taller than the line.
    const QRectF media = doc->page(0)->bounds(PdfBox::Media);
    const qreal top = media.top() + media.height() - (box.top() + box.height()) - 3;
    const qreal bottom = media.top() + media.height() - box.top() + 3;
    const auto before = inkIn(render(path, 1, work + QLatin1Char('/') + name + QStringLiteral("-before")), top, bottom);
    const auto after = inkIn(render(saved, 1, work + QLatin1Char('/') + name + QStringLiteral("-after")), top, bottom);
    if (!before || !after)
        return result;
    const qreal widthBefore = before->right - before->left, widthAfter = after->right - after->left;
    result.widthError = 100 * std::abs(widthAfter - widthBefore) / widthBefore;
    result.baselineError = std::abs(after->baseline - before->baseline);
    result.collateralPixels = changedOutside(path, saved, box, media, work);
    const QStringList fontsBefore = fontsOfFirstPage(path);
    const QStringList fontsAfter = fontsOfFirstPage(saved);
    result.ownFont = std::all_of(fontsAfter.begin(), fontsAfter.end(), [&](const QString &f) { return fontsBefore.contains(f); });
    std::printf("%-10s \"%s\"\n           %s, %.1f pt: ink width %.2f -> %.2f pt (%.2f %%), baseline %.2f -> %.2f pt (%.2f pt)\n"
                "           %lld pixels changed outside the line; %s\n",
                qPrintable(name), qPrintable(same->text.left(40)), qPrintable(same->fontName), same->fontSize, widthBefore,
                widthAfter, result.widthError, before->baseline, after->baseline, result.baselineError, result.collateralPixels,
                result.ownFont ? "set in the page's own font" : "set in an added font");

    const QString other = QStringLiteral("Zebras wander past violet kiosks humming quietly");
    if (const auto changed = retype(path, work + QLatin1Char('/') + name + QStringLiteral("-changed.pdf"), other)) {
        const int left = oldWordsLeft(path, changed->saved, changed->text);
        oldWords += int(changed->text.split(QRegularExpression(QStringLiteral("\\W+")), Qt::SkipEmptyParts).size());
        oldWordsFound += left;
        std::printf("           retyped with other words: pdftotext still finds %d of the old words\n", left);
    }
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

// A page drawn by cairo from an SVG drawing with a line of text (an embedded
// TrueType subset), or an empty path.
QString cairoPage(const QString &work)
{
    const QString svg = work + QStringLiteral("/page.svg"), pdf = work + QStringLiteral("/cairo.pdf");
    QFile file(svg);
    if (!file.open(QIODevice::WriteOnly))
        return {};
    file.write(R"(<svg xmlns="http://www.w3.org/2000/svg" width="600" height="300">
<text x="40" y="120" font-family="DejaVu Serif" font-size="15">Every copy of the report was checked twice before it left.</text>
<text x="40" y="150" font-family="DejaVu Serif" font-size="15">The figures in the last table were corrected by hand.</text>
</svg>
)");
    file.close();
    if (QProcess::execute(QStringLiteral("rsvg-convert"),
                          {QStringLiteral("-f"), QStringLiteral("pdf"), QStringLiteral("-o"), pdf, svg}) != 0)
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
    // Files of real producers, with fonts of their own embedded.
    const QStringList producers{QStringLiteral("groff"), QStringLiteral("cairo")};
    if (const QString groff = producerPage(work); !groff.isEmpty())
        files.emplace_back(producers[0], groff);
    if (const QString cairo = cairoPage(work); !cairo.isEmpty())
        files.emplace_back(producers[1], cairo);

    qreal worstWidth = 0, worstBaseline = 0;
    qint64 collateral = 0;
    int oldWords = 0, oldWordsFound = 0, producerLines = 0, ownFontLines = 0;
    for (const auto &[name, path] : files) {
        const Result r = replaceLine(name, path, work, oldWords, oldWordsFound);
        if (r.widthError < 0) {
            std::printf("%-10s could not be measured\n", qPrintable(name));
            worstWidth = worstBaseline = -1;
            continue;
        }
        if (worstWidth >= 0) {
            worstWidth = std::max(worstWidth, r.widthError);
            worstBaseline = std::max(worstBaseline, r.baselineError);
        }
        collateral = r.collateralPixels < 0 || collateral < 0 ? -1 : collateral + r.collateralPixels;
        if (producers.contains(name)) {
            ++producerLines;
            ownFontLines += r.ownFont ? 1 : 0;
        }
    }
    const qint64 boxBytes = files.empty() ? -1 : textBoxBytes(files[1].second, work);
    std::printf("one ten-word text box adds %lld bytes to the saved file\n", boxBytes);
    std::printf("retyped with other words: %d of %d old words still extracted\n", oldWordsFound, oldWords);
    std::printf("replace_width_err=%.2f replace_baseline_pt=%.2f textbox_bytes=%lld replace_old_text_left=%d "
                "replace_collateral_px=%lld replace_own_font=%.2f\n",
                worstWidth, worstBaseline, boxBytes, oldWordsFound, collateral,
                producerLines > 0 ? double(ownFontLines) / producerLines : -1.0);
    return 0;
}
