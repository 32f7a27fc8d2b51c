// The overlay's text editing: opening the editor for a new box, a re-edit or
// the replacement of a page line, and what committing it makes; the sizing of
// the result, the page font of a line and the paper colour around it.
#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "FontService.h"
#include "InlineTextView.h"
#include "PdfAnnotation.h"
#include "PdfDisplayList.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QFontDatabase>
#include <QFontMetricsF>
#include <QTextBlock>

#include <algorithm>

namespace {

// The smallest font the editor shows, however far the view is zoomed out.
constexpr qreal minimumEditorFontSize = 5;
// How near a box comes to the edges of its page, in points.
constexpr qreal pageMargin = 2;

// Where the paper around a retyped line is sampled, in points: this far in
// from the page's left edge, this far left of the line, this far in from the
// line's start for the samples this far below and above it.
constexpr qreal sampleEdgeInset = 6;
constexpr qreal sampleGapLeft = 12;
constexpr qreal sampleIndent = 2;
constexpr qreal sampleClearance = 5;
// Samples all darker than this are ink or a picture, not paper: the cover is white.
constexpr qreal darkPaperBrightness = 0.72;

// Slack over the measured width of a line (6 % and one em), so that a line the
// editor shows on one line also stays on one in the saved box, whose writer
// measures glyphs and breaks lines on its own.
constexpr qreal measuredWidthSlack = 1.06;
// The editor's document margin on each side: one point of inset and one of
// padding, as the saved box draws its text.
constexpr qreal editorMargin = 2;
// A box is never shorter than what the editor needs to show its lines: the
// font's line height with a quarter to spare for each (the editor's layout
// places lines a little apart from the font's own figures), and 6 points for
// its top and bottom margins with some slack.
constexpr qreal editorLineSpacing = 1.25;
constexpr qreal editorChrome = 6;
// A new box: 240 points wide, one line high at 160 % of its font size, on a
// nearly opaque white so that the page under it does not distract while typing.
constexpr qreal newBoxWidth = 240;
constexpr qreal newBoxLineHeight = 1.6;
constexpr qreal newBoxBackdropOpacity = 0.9;
// The editor over a retyped line reaches this far past the line's box on every side.
constexpr qreal lineBoxMargin = 2;
// Enough of a line's start to find it in the page's text (and its font there).
constexpr int fontProbeLength = 24;

// A font size for a line or box of that height when its font is not known:
// text usually fills about 78 % of its line's height; kept readable and sane.
qreal fallbackSizeFor(qreal height)
{
    return std::clamp(height * 0.78, 6.0, 96.0);
}

// Page space to the frame in which text turned by `rotation` (degrees
// clockwise, as a page is shown turned) reads upright: y down, lines along x.
QTransform uprightFrame(int rotation)
{
    return QTransform(1, 0, 0, -1, 0, 0) * QTransform().rotate(rotation);
}

// How far the edited text is turned: a new box reads upright on its page as
// shown, a re-edited box keeps its own turn, a cover runs with the page's line.
int textRotation(const DrawingOverlayView::EditingMode &mode, const std::shared_ptr<PdfPage> &page)
{
    if (const auto *existing = std::get_if<DrawingOverlayView::Existing>(&mode))
        return existing->annotation->rotation();
    return std::holds_alternative<DrawingOverlayView::NewBox>(mode) && page ? page->rotation() : 0;
}

// Whether the edit makes or retypes an opaque cover over a line of the page.
bool isCover(const DrawingOverlayView::EditingMode &mode)
{
    if (const auto *existing = std::get_if<DrawingOverlayView::Existing>(&mode)) {
        const QColor color = existing->annotation->color();
        return color.isValid() && color.alpha() == 255;
    }
    return std::holds_alternative<DrawingOverlayView::Replacement>(mode);
}

// The page's visible box in the upright frame.
QRectF paperIn(const QTransform &frame, const std::shared_ptr<PdfPage> &page)
{
    return frame.mapRect(page ? page->bounds(PdfBox::Crop) : QRectF(0, 0, 612, 792));
}

// The width that shows the widest of the text's lines unbroken.
qreal unbrokenWidth(const QString &text, const PdfFont &font)
{
    qreal widest = 0;
    for (const QString &line : text.split(QLatin1Char('\n')))
        widest = std::max(widest, FontService::instance().textWidth(font, line));
    // Plus the insets of the saved box and the margins of the editor, on both sides.
    return widest * measuredWidthSlack + font.size + 2 * (FontService::TextInset + editorMargin);
}

// The lines the saved box breaks the text into: the appearance writer's own
// breaking, in a box `width` points wide.
int wrappedLines(const QString &text, const PdfFont &font, qreal width)
{
    return int(FontService::instance().wrap(font, text, width - 2 * FontService::TextInset).size());
}

// How far down from a box's top edge the appearance draws that many lines.
qreal drawnHeight(int lines, const PdfFont &font)
{
    FontService &fonts = FontService::instance();
    return FontService::TextInset + fonts.ascent(font) + (lines - 1) * fonts.lineAdvance(font) + fonts.descent(font);
}

// The upright box (from an upright `base`) a text needs: as wide as its
// widest line, up to `right`, and as high as the lines it then breaks into.
// A cover is only as high as its lines are drawn, so that the page's next
// line stays in sight; a box has room for them as the editor spaces them too.
QRectF grownBox(const QString &text, const PdfFont &font, const QRectF &base, qreal right, bool cover)
{
    const qreal width = std::max(base.width(), std::min(unbrokenWidth(text, font), right - base.left()));
    const int lines = wrappedLines(text, font, width);
    // Below the last line: a point for a cover, the usual inset for a box.
    qreal height = drawnHeight(lines, font) + (cover ? 1 : FontService::TextInset);
    if (!cover) {
        const QFontMetricsF metrics(FontService::instance().qFont(font));
        // Qt's descent is positive below the baseline.
        height = std::max(height,
                          (metrics.ascent() + metrics.descent() + metrics.leading()) * lines * editorLineSpacing + editorChrome);
    }
    return QRectF(base.topLeft(), QSizeF(width, std::max(base.height(), height)));
}

} // namespace

InlineTextView *DrawingOverlayView::inlineEditor() const
{
    return inlineEditor_;
}

PdfFont DrawingOverlayView::systemFont(qreal size)
{
    const QFont system = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    return PdfFont{system.family(), size, false, false};
}

void DrawingOverlayView::handleEditTextClick(QPointF pv)
{
    if (!pdfView_)
        return;
    auto page = pdfView_->pageAt(pv, true);
    if (!page)
        return;
    const QPointF p = pdfView_->convertToPage(pv, page);
    if (auto annotation = page->annotation(p); annotation && annotation->type() == PdfAnnotation::FreeText) {
        select(annotation);
        beginEditExisting(annotation);
        return;
    }
    const auto line = page->selectionForRun(p);
    const QString text = line ? line->string() : QString();
    if (line && !text.isEmpty()) {
        if (text.trimmed().isEmpty())
            return;
        QRectF lineBox = line->bounds(page);
        const PdfFont font = detectFont(text, page, fallbackSizeFor(lineBox.height()));
        // The box spans the line from the face's descent to its ascent around
        // the line's own baseline, so that the retyped text sits on it and the
        // cover stays clear of the lines above and below (the page's font may
        // measure itself generously).
        if (const auto baseline = page->baselineAt(p)) {
            FontService &fonts = FontService::instance();
            const qreal descent = fonts.descent(font);
            lineBox = QRectF(lineBox.left(), *baseline - descent, lineBox.width(), fonts.ascent(font) + descent);
        }
        const QColor background = sampleBackgroundColor(page, lineBox);
        documentModel_->setCoveredLine(false); // a notice of an earlier line that was covered has been read
        beginTextEdit(Replacement{line->bounds(page)}, page,
                      lineBox.adjusted(-lineBoxMargin, -lineBoxMargin, lineBoxMargin, lineBoxMargin), text, font, Qt::black,
                      background);
        return;
    }
    beginNewTextBox(page, p);
}

void DrawingOverlayView::beginNewTextBox(const std::shared_ptr<PdfPage> &page, QPointF p)
{
    if (!page)
        return;
    const qreal size = toolSettings_->fontSize();
    const qreal h = size * newBoxLineHeight;
    QColor background(Qt::white);
    background.setAlphaF(newBoxBackdropOpacity);
    // The point is the box's top left corner as the page is read.
    const QTransform frame = uprightFrame(page->rotation());
    const QPointF corner = frame.map(p);
    const QRectF box = frame.inverted().mapRect(QRectF(corner.x(), corner.y(), newBoxWidth, h));
    beginTextEdit(NewBox{}, page, box, QString(), systemFont(size), toolSettings_->fontColor(), background);
}

void DrawingOverlayView::beginEditExisting(const std::shared_ptr<PdfAnnotation> &annotation)
{
    auto page = annotation ? annotation->page() : nullptr;
    if (!page)
        return;
    const qreal height = uprightFrame(annotation->rotation()).mapRect(annotation->bounds()).height();
    const PdfFont font = annotation->font().value_or(systemFont(fallbackSizeFor(height)));
    const QColor color = annotation->fontColor().isValid() ? annotation->fontColor() : QColor(Qt::black);
    beginTextEdit(Existing{annotation}, page, annotation->bounds(), annotation->contents(), font, color, Qt::white);
}

void DrawingOverlayView::beginTextEdit(const EditingMode &mode, const std::shared_ptr<PdfPage> &page, const QRectF &bounds,
                                       const QString &text, const PdfFont &font, const QColor &fontColor, const QColor &editorBg)
{
    commitInlineEdit();
    if (!pdfView_)
        return;
    editingMode_ = mode;
    editingPage_ = page;
    editingBounds_ = bounds;
    editingFont_ = font;
    editingFontColor_ = fontColor;
    editingOriginalText_ = text;
    QColor opaque = editorBg;
    opaque.setAlphaF(1);
    editingBg_ = std::holds_alternative<Replacement>(mode) ? opaque : QColor(Qt::transparent);

    const qreal scale = pdfView_->scaleFactor();
    PdfFont shown = font;
    shown.size = std::max(scale * font.size, minimumEditorFontSize);
    auto *editor = new InlineTextView(this);
    // The editor is laid out upright, as the text reads, from the box's top left corner on screen.
    const QTransform frame = uprightFrame(textRotation(mode, page));
    const QRectF upright = frame.mapRect(bounds);
    const QPointF corner = pdfView_->convertFromPage(bounds, page).topLeft();
    editor->setGeometry(QRectF(corner, upright.size() * scale).toAlignedRect());
    // It grows as the box will: right as far as the page's margin, then down for every line.
    const qreal right = paperIn(frame, page).right() - pageMargin;
    const bool cover = isCover(mode);
    editor->fittedSize = [font, upright, right, cover, scale](const QString &typed) {
        const QRectF box = grownBox(typed, font, upright, right, cover);
        return QSize(int(std::ceil(box.width() * scale)), int(std::ceil(box.height() * scale)));
    };
    editor->setFont(FontService::instance().qFont(shown));
    editor->setPlainText(text);
    editor->growWithText();
    QPalette colors = editor->palette();
    colors.setColor(QPalette::Base, editorBg);
    colors.setColor(QPalette::Text, fontColor);
    editor->setPalette(colors);
    editor->setBackgroundVisible(false);
    editor->viewport()->setAutoFillBackground(true);
    editor->document()->setDocumentMargin(editorMargin);
    const QPointer<DrawingOverlayView> overlay(this);
    editor->onCommit = [overlay] {
        if (overlay)
            overlay->commitInlineEdit();
    };
    editor->onCancel = [overlay] {
        if (overlay) {
            overlay->removeInlineEditor();
            overlay->refresh();
        }
    };
    inlineEditor_ = editor;
    editor->show();
    editor->setFocus(Qt::OtherFocusReason);
    editor->selectAll();
}

void DrawingOverlayView::removeInlineEditor()
{
    if (inlineEditor_) {
        inlineEditor_->hide();
        inlineEditor_->deleteLater();
    }
    inlineEditor_ = nullptr;
    editingMode_.reset();
    editingPage_.reset();
}

void DrawingOverlayView::commitInlineEdit()
{
    if (!inlineEditor_ || !editingMode_ || !editingPage_) {
        removeInlineEditor();
        return;
    }
    const QString text = inlineEditor_->toPlainText();
    const EditingMode mode = *editingMode_;
    const auto page = editingPage_;
    removeInlineEditor();
    const int rotation = textRotation(mode, page);
    if (const auto *existing = std::get_if<Existing>(&mode)) {
        const auto &annotation = existing->annotation;
        if (text != editingOriginalText_) {
            // The box grows with its text in the same undoable step.
            const QRectF old = annotation->bounds();
            const QRectF grown = isCover(mode) ? coverBounds(text, old, editingFont_, page, rotation)
                                               : fittedBounds(text, old, editingFont_, page, rotation);
            documentModel_->setAnnotationContents(annotation, text, editingOriginalText_, std::pair{grown, old});
        }
        select(annotation);
        refresh();
        return;
    }
    const auto *retyped = std::get_if<Replacement>(&mode);
    const bool replacement = retyped != nullptr;
    if (!replacement && text.trimmed().isEmpty()) {
        refresh();
        return;
    }
    if (retyped) {
        if (documentModel_->retypeText(page, retyped->run, text)) {
            toolSettings_->setCurrentTool(AnnotationTool::none);
            refresh();
            return;
        }
        // The page's content cannot be changed there: the line is covered.
        documentModel_->setCoveredLine(true);
    }
    const QRectF bounds = replacement ? coverBounds(text, editingBounds_, editingFont_, page, rotation)
                                      : fittedBounds(text, editingBounds_, editingFont_, page, rotation);
    auto annotation = PdfAnnotation::create(bounds, PdfAnnotation::FreeText);
    annotation->setAuthor(AnnotationFactory::authorName());
    annotation->setRotation(rotation);
    annotation->setContents(text);
    annotation->setFont(editingFont_);
    annotation->setFontColor(editingFontColor_);
    annotation->setColor(replacement ? editingBg_ : QColor(Qt::transparent));
    annotation->setBorderWidth(0);
    documentModel_->addAnnotation(annotation, page, true);
    toolSettings_->setCurrentTool(AnnotationTool::none);
    select(annotation);
    refresh();
}

QRectF DrawingOverlayView::fittedBounds(const QString &text, const QRectF &base, const PdfFont &font,
                                        const std::shared_ptr<PdfPage> &page, int rotation)
{
    const QTransform frame = uprightFrame(rotation);
    const QRectF start = frame.mapRect(base);
    const QRectF paper = paperIn(frame, page);
    QRectF box = grownBox(text, font, start, paper.right() - pageMargin, false);
    if (box.bottom() > paper.bottom() - pageMargin) {
        // Past the page's foot, where no reader shows it: a box taller than
        // the page first takes the page's whole width, then the box rises.
        const qreal left = paper.left() + pageMargin;
        const bool narrowed = box.width() < std::min(unbrokenWidth(text, font), paper.right() - pageMargin - left);
        if (box.height() > paper.height() - 2 * pageMargin && narrowed)
            box =
                grownBox(text, font, QRectF(left, start.top(), start.width(), start.height()), paper.right() - pageMargin, false);
        box.moveTop(std::max(paper.top() + pageMargin, paper.bottom() - pageMargin - box.height()));
    }
    return frame.inverted().mapRect(box);
}

QRectF DrawingOverlayView::coverBounds(const QString &text, const QRectF &base, const PdfFont &font,
                                       const std::shared_ptr<PdfPage> &page, int rotation)
{
    const QTransform frame = uprightFrame(rotation);
    return frame.inverted().mapRect(grownBox(text, font, frame.mapRect(base), paperIn(frame, page).right() - pageMargin, true));
}

PdfFont DrawingOverlayView::detectFont(const QString &text, const std::shared_ptr<PdfPage> &page, qreal fallbackSize)
{
    if (!page)
        return systemFont(fallbackSize);
    const QString needle = text.left(fontProbeLength);
    const int at = page->text().indexOf(needle);
    if (at >= 0)
        if (auto font = page->fontAt(at))
            return *font;
    return systemFont(fallbackSize);
}

QColor DrawingOverlayView::sampleBackgroundColor(const std::shared_ptr<PdfPage> &page, const QRectF &lineBox)
{
    // The page is recorded once; only the four small areas are drawn from it.
    const auto list = page ? page->displayList(PdfRenderOptions{}) : nullptr;
    if (!list)
        return Qt::white;
    const QRectF media = page->bounds(PdfBox::Media);
    const qreal midY = lineBox.center().y();
    // Beside the line where paper shows and ink seldom does: near the page's
    // left edge, in the gap left of the line, and just below and above it.
    const QPointF samples[] = {
        {media.left() + sampleEdgeInset, midY},
        {std::max(media.left() + sampleEdgeInset, lineBox.left() - sampleGapLeft), midY},
        {lineBox.left() + sampleIndent, lineBox.bottom() + sampleClearance},
        {lineBox.left() + sampleIndent, lineBox.top() - sampleClearance},
    };
    const QTransform toDisplay = page->pageToDisplay();
    QColor best(Qt::white);
    qreal bestBrightness = -1;
    for (QPointF q : samples) {
        // A 3 x 3 pixel picture of the page centred on the sample point, at one pixel per point.
        const QPointF d = toDisplay.map(q);
        const QImage picture = list->render(1.0, QRectF(d.x() - 1.5, d.y() - 1.5, 3, 3));
        const QColor sample =
            picture.isNull() ? QColor(Qt::white) : picture.pixelColor(picture.width() / 2, picture.height() / 2);
        // Perceived brightness (the Rec. 601 luma weights).
        const qreal brightness = 0.299 * sample.redF() + 0.587 * sample.greenF() + 0.114 * sample.blueF();
        if (brightness > bestBrightness) {
            bestBrightness = brightness;
            best = QColor(sample.red(), sample.green(), sample.blue());
        }
    }
    return bestBrightness < darkPaperBrightness ? QColor(Qt::white) : best;
}
