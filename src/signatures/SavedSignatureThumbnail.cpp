#include "SavedSignatureThumbnail.h"

#include "SheetStyle.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>

#include <utility>

namespace {

// The frame of a cell that is not selected: a faint line in the dimmed text colour.
constexpr qreal frameOpacity = 0.4;
// The focus ring lies this far inside the frame.
constexpr qreal focusInset = 3.5;

} // namespace

SavedSignatureThumbnail::SavedSignatureThumbnail(const QImage &image, std::function<void()> onClick)
    : image_(image), onClick_(std::move(onClick))
{
    setFixedSize(cellSize);
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::PointingHandCursor);
}

void SavedSignatureThumbnail::setSelected(bool selected)
{
    selected_ = selected;
    update();
}

void SavedSignatureThumbnail::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.fillRect(rect(), Qt::white);
    const QSizeF fitted = QSizeF(image_.size()).scaled(QSizeF(size()), Qt::KeepAspectRatio);
    QRectF place(QPointF(), fitted);
    place.moveCenter(QRectF(rect()).center());
    painter.drawImage(place, image_);
    const qreal line = selected_ ? 2 : 1;
    painter.setPen(QPen(selected_ ? palette().color(QPalette::Highlight) : SheetStyle::secondary(this, frameOpacity), line));
    painter.drawRect(QRectF(rect()).adjusted(line / 2, line / 2, -line / 2, -line / 2));
    if (hasFocus()) {
        painter.setPen(QPen(palette().color(QPalette::Highlight), 1, Qt::DotLine));
        painter.drawRect(QRectF(rect()).adjusted(focusInset, focusInset, -focusInset, -focusInset));
    }
}

void SavedSignatureThumbnail::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint()))
        onClick_();
}

void SavedSignatureThumbnail::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Space || event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
        onClick_();
    else
        QWidget::keyPressEvent(event);
}
