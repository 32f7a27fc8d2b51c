#include "OverlayGeometry.h"

#include <QLineF>

#include <algorithm>
#include <cmath>

namespace overlayGeometry {

QPointF corner(const QRectF &bounds, Handle handle)
{
    const qreal minX = bounds.left(), maxX = bounds.left() + bounds.width();
    const qreal minY = bounds.top(), maxY = bounds.top() + bounds.height();
    switch (handle) {
    case Handle::topLeft:
        return {minX, maxY};
    case Handle::topRight:
        return {maxX, maxY};
    case Handle::bottomLeft:
        return {minX, minY};
    case Handle::bottomRight:
        break;
    }
    return {maxX, minY};
}

std::optional<Handle> handleAt(const QRectF &bounds, QPointF viewPoint, const std::function<QPointF(QPointF)> &toView)
{
    for (Handle handle : allHandles)
        if (QLineF(toView(corner(bounds, handle)), viewPoint).length() <= handleHitRadius)
            return handle;
    return std::nullopt;
}

namespace {

Handle opposite(Handle handle)
{
    switch (handle) {
    case Handle::topLeft:
        return Handle::bottomRight;
    case Handle::topRight:
        return Handle::bottomLeft;
    case Handle::bottomLeft:
        return Handle::topRight;
    case Handle::bottomRight:
        break;
    }
    return Handle::topLeft;
}

} // namespace

QRectF resizedBounds(Handle handle, const QRectF &original, QPointF current, bool aspectLocked)
{
    const QPointF anchor = corner(original, opposite(handle));
    qreal dx = current.x() - anchor.x();
    qreal dy = current.y() - anchor.y();
    const qreal ratio = original.height() / (original.width() > 1 ? original.width() : 1);
    if (aspectLocked) {
        if (std::abs(dy) > std::abs(dx) * ratio)
            dx = std::copysign(std::abs(dy) / ratio, dx < 0 ? -1.0 : 1.0);
        else
            dy = std::copysign(std::abs(dx) * ratio, dy < 0 ? -1.0 : 1.0);
    }
    qreal width = std::max(std::abs(dx), minimumSide);
    qreal height = std::max(std::abs(dy), minimumSide);
    if (aspectLocked) {
        height = width * ratio;
        if (height < minimumSide) {
            height = minimumSide;
            width = minimumSide / ratio;
        }
    }
    const qreal x = dx < 0 ? anchor.x() - width : anchor.x();
    const qreal y = dy < 0 ? anchor.y() - height : anchor.y();
    return {x, y, width, height};
}

QRectF keptInside(const QRectF &bounds, const QRectF &area)
{
    const qreal x = std::max(std::min(bounds.left(), area.right() - bounds.width()), area.left());
    const qreal y = std::max(std::min(bounds.top(), area.bottom() - bounds.height()), area.top());
    return QRectF(QPointF(x, y), bounds.size());
}

QPointF nudgeOffset(int key, bool shift)
{
    const qreal step = shift ? 10 : 1;
    switch (key) {
    case Qt::Key_Left:
        return {-step, 0};
    case Qt::Key_Right:
        return {step, 0};
    case Qt::Key_Down:
        return {0, -step};
    case Qt::Key_Up:
        return {0, step};
    default:
        return {};
    }
}

} // namespace overlayGeometry
