#include "ReorderableListView.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>

#include <algorithm>

namespace {

// Near the top or bottom edge a drag scrolls the list.
constexpr int scrollMargin = 24;
constexpr int scrollIntervalMs = 30;

} // namespace

ReorderableListView::ReorderableListView(QWidget *parent) : QListView(parent)
{
    setSelectionMode(QAbstractItemView::NoSelection);
    setDragDropMode(QAbstractItemView::NoDragDrop);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setMouseTracking(true);
    scrollTimer_.setInterval(scrollIntervalMs);
    connect(&scrollTimer_, &QTimer::timeout, this, &ReorderableListView::autoScroll);
}

int ReorderableListView::gapAt(QPoint point) const
{
    const int count = model() ? model()->rowCount(rootIndex()) : 0;
    if (count == 0)
        return 0;
    const QModelIndex index = indexAt(QPoint(1, point.y()));
    if (!index.isValid()) {
        const QRect first = visualRect(model()->index(0, 0, rootIndex()));
        return point.y() < first.top() ? 0 : count;
    }
    const QRect rect = visualRect(index);
    return index.row() + (point.y() > rect.center().y() ? 1 : 0);
}

void ReorderableListView::mousePressEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    const QModelIndex index = indexAt(QPoint(1, event->position().toPoint().y()));
    pressedRow_ = index.isValid() ? index.row() : -1;
    pressPoint_ = lastPoint_ = event->position().toPoint();
    event->accept();
}

void ReorderableListView::mouseMoveEvent(QMouseEvent *event)
{
    lastPoint_ = event->position().toPoint();
    if (pressedRow_ < 0)
        return;
    if (!dragging_ && (lastPoint_ - pressPoint_).manhattanLength() >= QApplication::startDragDistance()) {
        dragging_ = true;
        viewport()->setCursor(Qt::ClosedHandCursor);
        scrollTimer_.start();
    }
    if (dragging_) {
        gap_ = gapAt(lastPoint_);
        viewport()->update();
    }
}

void ReorderableListView::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton)
        return;
    const int row = pressedRow_;
    const QPoint point = event->position().toPoint();
    if (dragging_) {
        const int gap = gapAt(point);
        endDrag();
        // Dropping a row next to itself leaves the order as it is.
        if (row >= 0 && gap != row && gap != row + 1)
            emit rowsMoved({row}, gap);
        return;
    }
    pressedRow_ = -1;
    if (row >= 0 && indexAt(QPoint(1, point.y())).row() == row)
        emit rowClicked(row, point, event->modifiers());
}

// A second click is a click of its own; there is no double-click action.
void ReorderableListView::mouseDoubleClickEvent(QMouseEvent *event)
{
    mousePressEvent(event);
}

void ReorderableListView::endDrag()
{
    dragging_ = false;
    pressedRow_ = -1;
    gap_ = -1;
    scrollTimer_.stop();
    viewport()->unsetCursor();
    viewport()->update();
}

void ReorderableListView::autoScroll()
{
    if (!dragging_)
        return;
    QScrollBar *bar = verticalScrollBar();
    const int height = viewport()->height();
    int step = 0;
    if (lastPoint_.y() < scrollMargin)
        step = -(scrollMargin - lastPoint_.y());
    else if (lastPoint_.y() > height - scrollMargin)
        step = lastPoint_.y() - (height - scrollMargin);
    if (step == 0)
        return;
    bar->setValue(bar->value() + std::clamp(step, -scrollMargin, scrollMargin));
    gap_ = gapAt(lastPoint_);
    viewport()->update();
}

void ReorderableListView::paintEvent(QPaintEvent *event)
{
    QListView::paintEvent(event);
    if (!dragging_ || gap_ < 0 || !model())
        return;
    // A line in the accent colour marks the gap the row would go to.
    const int count = model()->rowCount(rootIndex());
    int y = 0;
    if (count > 0) {
        y = gap_ < count ? visualRect(model()->index(gap_, 0, rootIndex())).top()
                         : visualRect(model()->index(count - 1, 0, rootIndex())).bottom() + 1;
    }
    // Kept inside the viewport, so that a line at the very top or bottom shows.
    y = std::clamp(y, 1, viewport()->height() - 1);
    QPainter painter(viewport());
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
    painter.drawLine(QPointF(4, y), QPointF(viewport()->width() - 4, y));
}
