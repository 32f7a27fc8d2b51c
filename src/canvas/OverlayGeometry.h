// The overlay's pure geometry: picking a corner handle of the selection, the
// resize rule and the arrow-key nudge. Rectangles named "bounds" are in page
// space (points, y up); the corners are named after the page's orientation, so
// the top edge is the one with the greater y.
#pragma once

#include <QPointF>
#include <QRectF>

#include <array>
#include <functional>
#include <optional>

enum class Handle { topLeft = 0, topRight = 1, bottomLeft = 2, bottomRight = 3 };

namespace overlayGeometry {

// Every handle, in the order in which they are tried.
constexpr std::array<Handle, 4> allHandles{Handle::topLeft, Handle::topRight, Handle::bottomLeft, Handle::bottomRight};

// Picking distance of a handle and the smallest side a resize leaves, and the
// distance the pointer must travel before a press becomes a drag.
constexpr qreal handleHitRadius = 12;
constexpr qreal minimumSide = 14;
constexpr qreal dragThreshold = 2;

// The page-space corner of `bounds` a handle sits on.
QPointF corner(const QRectF &bounds, Handle handle);

// The first handle, in the fixed order, whose corner lies within
// `handleHitRadius` of `viewPoint`, corners being taken to view space by
// `toView`.
std::optional<Handle> handleAt(const QRectF &bounds, QPointF viewPoint, const std::function<QPointF(QPointF)> &toView);

// The bounds a selection of `original` bounds takes while `handle` is dragged
// to `current`: the opposite corner stays, no side goes below 14 points, a
// handle dragged across the anchor turns the box over, and with
// `aspectLocked` the proportions of `original` are kept.
QRectF resizedBounds(Handle handle, const QRectF &original, QPointF current, bool aspectLocked);

// `bounds` moved as little as possible to lie inside `area`; where it is
// larger than `area` its lower left corner is kept at the area's.
QRectF keptInside(const QRectF &bounds, const QRectF &area);

// The page-space offset of one press of an arrow key (Qt::Key_Left ... Key_Down):
// 10 points with Shift, else 1; none for any other key.
QPointF nudgeOffset(int key, bool shift);

} // namespace overlayGeometry
