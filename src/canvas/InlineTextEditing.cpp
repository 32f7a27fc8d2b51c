// The overlay's text editing: opening the editor for a new box, a re-edit or
// the replacement of a page line, and what committing it makes; the sizing of
// the result, the page font of a line and the paper colour around it.
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "FontService.h"
#include "InlineTextView.h"
#include "PdfAnnotation.h"
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

qreal fallbackSizeFor(qreal height)
{
    return std::clamp(height * 0.78, 6.0, 96.0);
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
    const auto line = page->selectionForLine(p);
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
        beginTextEdit(Replacement{}, page, lineBox.adjusted(-2, -2, 2, 2), text, font, Qt::black, background);
        return;
    }
    beginNewTextBox(page, p);
}

void DrawingOverlayView::beginNewTextBox(const std::shared_ptr<PdfPage> &page, QPointF p)
{
    if (!page)
        return;
    const qreal size = toolSettings_->fontSize();
    const qreal h = size * 1.6;
    QColor background(Qt::white);
    background.setAlphaF(0.9);
    beginTextEdit(NewBox{}, page, QRectF(p.x(), p.y() - h, 240, h), QString(), systemFont(size), toolSettings_->fontColor(),
                  background);
}

void DrawingOverlayView::beginEditExisting(const std::shared_ptr<PdfAnnotation> &annotation)
{
    auto page = annotation ? annotation->page() : nullptr;
    if (!page)
        return;
    const PdfFont font = annotation->font().value_or(systemFont(fallbackSizeFor(annotation->bounds().height())));
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

    PdfFont shown = font;
    shown.size = std::max(pdfView_->scaleFactor() * font.size, minimumEditorFontSize);
    auto *editor = new InlineTextView(this);
    editor->setGeometry(pdfView_->convertFromPage(bounds, page).toAlignedRect());
    editor->setFont(FontService::instance().qFont(shown));
    editor->setPlainText(text);
    editor->growWithText();
    QPalette colors = editor->palette();
    colors.setColor(QPalette::Base, editorBg);
    colors.setColor(QPalette::Text, fontColor);
    editor->setPalette(colors);
    editor->setBackgroundVisible(false);
    editor->viewport()->setAutoFillBackground(true);
    // One point of inset and one of padding, as the saved box draws its text.
    editor->document()->setDocumentMargin(2);
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
    if (const auto *existing = std::get_if<Existing>(&mode)) {
        const auto &annotation = existing->annotation;
        if (text != editingOriginalText_) {
            // The grown box is not part of the undoable step: undoing keeps it.
            const bool cover = annotation->color().isValid() && annotation->color().alpha() == 255;
            annotation->setBounds(cover ? coverBounds(text, annotation->bounds(), editingFont_, page)
                                        : fittedBounds(text, annotation->bounds(), editingFont_, page));
            documentModel_->setAnnotationContents(annotation, text, editingOriginalText_);
        }
        select(annotation);
        refresh();
        return;
    }
    const bool replacement = std::holds_alternative<Replacement>(mode);
    if (!replacement && text.trimmed().isEmpty()) {
        refresh();
        return;
    }
    const QRectF bounds = replacement ? coverBounds(text, editingBounds_, editingFont_, page)
                                      : fittedBounds(text, editingBounds_, editingFont_, page);
    auto annotation = PdfAnnotation::create(bounds, PdfAnnotation::FreeText);
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
                                        const std::shared_ptr<PdfPage> &page)
{
    const QStringList lines = text.isEmpty() ? QStringList{QString()} : text.split(QLatin1Char('\n'));
    qreal widest = 0;
    for (const QString &line : lines)
        widest = std::max(widest, FontService::instance().textWidth(font, line));
    const qreal wanted = widest * 1.06 + font.size + 8;
    const QRectF media = page ? page->bounds(PdfBox::Media) : QRectF(0, 0, 612, 792);
    const qreal room = media.left() + media.width() - base.left() - 2;
    const qreal width = std::max(base.width(), std::min(wanted, room));
    const QFontMetricsF metrics(FontService::instance().qFont(font));
    // Qt's descent is positive below the baseline.
    const qreal lineHeight = metrics.ascent() + metrics.descent() + metrics.leading();
    const qreal height = std::max(base.height(), lineHeight * qreal(lines.size()) * 1.25 + 6);
    const qreal top = base.top() + base.height();
    return QRectF(base.left(), top - height, width, height);
}

// A cover over a line of the page is as wide as a fitted box but reaches down
// only as far as its own lines, so that the page's next line stays in sight.
QRectF DrawingOverlayView::coverBounds(const QString &text, const QRectF &base, const PdfFont &font,
                                       const std::shared_ptr<PdfPage> &page)
{
    QRectF bounds = fittedBounds(text, base, font, page);
    FontService &fonts = FontService::instance();
    const qreal lines = qreal(text.count(QLatin1Char('\n')) + 1);
    const qreal drawn =
        FontService::TextInset + fonts.ascent(font) + (lines - 1) * fonts.lineAdvance(font) + fonts.descent(font) + 1;
    bounds.setTop(bounds.top() + bounds.height() - std::max(base.height(), drawn));
    return bounds;
}

PdfFont DrawingOverlayView::detectFont(const QString &text, const std::shared_ptr<PdfPage> &page, qreal fallbackSize)
{
    if (!page)
        return systemFont(fallbackSize);
    const QString needle = text.left(24);
    const int at = page->text().indexOf(needle);
    if (at >= 0)
        if (auto font = page->fontAt(at))
            return *font;
    return systemFont(fallbackSize);
}

QColor DrawingOverlayView::sampleBackgroundColor(const std::shared_ptr<PdfPage> &page, const QRectF &lineBox)
{
    if (!page)
        return Qt::white;
    const QRectF media = page->bounds(PdfBox::Media);
    const qreal midY = lineBox.center().y();
    const QPointF samples[] = {
        {media.left() + 6, midY},
        {std::max(media.left() + 6, lineBox.left() - 12), midY},
        {lineBox.left() + 2, lineBox.top() + lineBox.height() + 5},
        {lineBox.left() + 2, lineBox.top() - 5},
    };
    const QTransform toDisplay = page->pageToDisplay();
    QColor best(Qt::white);
    qreal bestBrightness = -1;
    for (QPointF q : samples) {
        // A 3 x 3 pixel picture of the page centred on the sample point, at one pixel per point.
        const QPointF d = toDisplay.map(q);
        const QImage picture = page->render(1.0, QRectF(d.x() - 1.5, d.y() - 1.5, 3, 3), PdfRenderOptions{});
        const QColor sample =
            picture.isNull() ? QColor(Qt::white) : picture.pixelColor(picture.width() / 2, picture.height() / 2);
        const qreal brightness = 0.299 * sample.redF() + 0.587 * sample.greenF() + 0.114 * sample.blueF();
        if (brightness > bestBrightness) {
            bestBrightness = brightness;
            best = QColor(sample.red(), sample.green(), sample.blue());
        }
    }
    return bestBrightness < 0.72 ? QColor(Qt::white) : best;
}
