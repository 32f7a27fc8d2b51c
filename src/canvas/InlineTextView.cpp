#include "InlineTextView.h"

#include <QAbstractTextDocumentLayout>
#include <QKeyEvent>
#include <QTextBlock>
#include <QTextDocument>

#include <algorithm>
#include <cmath>

InlineTextView::InlineTextView(QWidget *parent) : QPlainTextEdit(parent)
{
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setTabChangesFocus(true);
    setAccessibleName(tr("Text"));
    connect(this, &QPlainTextEdit::textChanged, this, &InlineTextView::growWithText);
}

void InlineTextView::growWithText()
{
    if (!openedSize_.isValid())
        openedSize_ = size();
    const QSize fitted = fittedSize ? fittedSize(toPlainText()) : QSize();
    // Widened first: the lines break anew at the new width.
    const int wantedWidth = std::max(openedSize_.width(), fitted.width());
    if (wantedWidth != width())
        resize(wantedWidth, height());
    // A plain text document measures its height in lines; the pixel height is the blocks' extent.
    const QRectF last = blockBoundingGeometry(document()->lastBlock()).translated(contentOffset());
    const int needed = int(std::ceil(last.bottom() + document()->documentMargin())) + 1;
    const int wanted = std::max({openedSize_.height(), needed, fitted.height()});
    if (wanted != height())
        resize(width(), wanted);
}

void InlineTextView::keyPressEvent(QKeyEvent *event)
{
    const int key = event->key();
    if (key == Qt::Key_Return || key == Qt::Key_Enter) {
        if (event->modifiers() & (Qt::ShiftModifier | Qt::AltModifier)) {
            // A plain line feed: the text's lines are split at line feeds only.
            insertPlainText(QStringLiteral("\n"));
            return;
        }
        if (onCommit)
            onCommit();
        return;
    }
    if (key == Qt::Key_Escape) {
        if (onCancel)
            onCancel();
        return;
    }
    QPlainTextEdit::keyPressEvent(event);
}
