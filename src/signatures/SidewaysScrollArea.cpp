#include "SidewaysScrollArea.h"

#include <QScrollBar>
#include <QWheelEvent>

void SidewaysScrollArea::wheelEvent(QWheelEvent *event)
{
    const QPoint delta = event->angleDelta();
    QScrollBar *bar = horizontalScrollBar();
    // Half a wheel step's angle in pixels: one notch (120) moves 60.
    bar->setValue(bar->value() - (delta.x() != 0 ? delta.x() : delta.y()) / 2);
    event->accept();
}
