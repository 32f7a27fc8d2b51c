// Notes on the page: the Note tool's new note, opening a note to read or
// change its text, and replies, all typed in the popup beside the icon.
#include "DrawingOverlayView.h"

#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "NotePopup.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QLocale>
#include <QPainter>
#include <QPlainTextEdit>

namespace {

// The gap between a note's icon and its popup, in view points.
constexpr int popupGap = 6;

} // namespace

NotePopup *DrawingOverlayView::notePopup() const
{
    return notePopup_;
}

void DrawingOverlayView::beginNewNote(const std::shared_ptr<PdfPage> &page, QPointF centre)
{
    if (!page || !pdfView_)
        return;
    commitNote();
    noteEdit_ = NoteEdit{nullptr, nullptr, page, centre};
    openNotePopup(AnnotationFactory::authorName(), QString());
}

void DrawingOverlayView::openNote(const std::shared_ptr<PdfAnnotation> &note)
{
    const auto page = note ? note->page() : nullptr;
    if (!page || !pdfView_)
        return;
    commitNote();
    noteEdit_ = NoteEdit{note, nullptr, page, note->bounds().center()};
    QStringList heading;
    if (!note->author().isEmpty())
        heading << note->author();
    if (note->modified().isValid())
        heading << QLocale().toString(note->modified().toLocalTime(), QLocale::ShortFormat);
    openNotePopup(heading.join(QStringLiteral(" \u00b7 ")), note->contents());
}

void DrawingOverlayView::beginReply(const std::shared_ptr<PdfAnnotation> &parent)
{
    const auto page = parent ? parent->page() : nullptr;
    if (!page || !pdfView_ || documentModel_->changesRestricted())
        return;
    commitNote();
    pdfView_->ensureVisible(page, parent->bounds());
    noteEdit_ = NoteEdit{nullptr, parent, page, AnnotationFactory::replyPosition(parent)};
    const QString to = parent->author().isEmpty() ? tr("Reply") : tr("Reply to %1").arg(parent->author());
    openNotePopup(to, QString());
}

void DrawingOverlayView::openNotePopup(const QString &heading, const QString &text)
{
    commitInlineEdit();
    auto *popup = new NotePopup(heading, text, this);
    const QPointer<DrawingOverlayView> overlay(this);
    popup->onCommit = [overlay] {
        if (overlay)
            overlay->commitNote();
    };
    popup->onCancel = [overlay] {
        if (overlay)
            overlay->closeNote();
    };
    notePopup_ = popup;
    placeNotePopup();
    popup->show();
    popup->editor()->setFocus(Qt::OtherFocusReason);
    popup->editor()->moveCursor(QTextCursor::End);
    refresh();
}

QRectF DrawingOverlayView::noteIconRect() const
{
    if (!noteEdit_ || !pdfView_)
        return {};
    if (noteEdit_->note)
        return pdfView_->convertFromPage(noteEdit_->note->bounds(), noteEdit_->page);
    const auto preview = AnnotationFactory::makeNote(noteEdit_->page, noteEdit_->centre, QString());
    return pdfView_->convertFromPage(preview->bounds(), noteEdit_->page);
}

// Beside the icon, on the right where there is room, else on the left; kept
// inside the view.
void DrawingOverlayView::placeNotePopup()
{
    if (!notePopup_)
        return;
    const QRectF icon = noteIconRect();
    const QSize size = notePopup_->size();
    int x = int(icon.right()) + popupGap;
    if (x + size.width() > width())
        x = int(icon.left()) - popupGap - size.width();
    x = std::clamp(x, 0, std::max(0, width() - size.width()));
    const int y = std::clamp(int(icon.top()), 0, std::max(0, height() - size.height()));
    notePopup_->move(x, y);
}

void DrawingOverlayView::closeNote()
{
    if (notePopup_) {
        notePopup_->hide();
        notePopup_->deleteLater();
    }
    notePopup_ = nullptr;
    noteEdit_.reset();
    refresh();
}

void DrawingOverlayView::commitNote()
{
    if (!notePopup_ || !noteEdit_) {
        closeNote();
        return;
    }
    const QString text = notePopup_->text();
    const NoteEdit edit = *noteEdit_;
    closeNote();
    if (edit.note) {
        // Undone while open: the note is gone, and so is the edit.
        if (!edit.note->page())
            return;
        if (text != edit.note->contents())
            documentModel_->setAnnotationContents(edit.note, text, edit.note->contents());
        select(edit.note);
        return;
    }
    if (text.trimmed().isEmpty() || (edit.replyTo && !edit.replyTo->page()))
        return;
    auto note = AnnotationFactory::makeNote(edit.page, edit.centre, text);
    if (edit.replyTo)
        note->setInReplyTo(edit.replyTo);
    documentModel_->addAnnotation(note, edit.page, true);
    if (toolSettings_->currentTool() == AnnotationTool::note)
        toolSettings_->setCurrentTool(AnnotationTool::none);
    select(note);
}

// The icon of a note that is not made yet, drawn as the page will show it.
void DrawingOverlayView::drawPendingNote(QPainter &painter) const
{
    if (!noteEdit_ || noteEdit_->note)
        return;
    const QRectF r = noteIconRect();
    const qreal fold = r.width() / 4;
    painter.save();
    painter.setPen(QPen(QColor(77, 77, 77), std::max<qreal>(1, pdfView_->scaleFactor())));
    painter.setBrush(QColor(255, 213, 79));
    painter.drawPolygon(QPolygonF({r.topLeft(), r.topRight() - QPointF(fold, 0), r.topRight() + QPointF(0, fold), r.bottomRight(),
                                   r.bottomLeft()}));
    for (const qreal f : {0.38, 0.55, 0.72})
        painter.drawLine(QPointF(r.left() + r.width() * 0.2, r.top() + r.height() * f),
                         QPointF(r.right() - r.width() * 0.2, r.top() + r.height() * f));
    painter.restore();
}
