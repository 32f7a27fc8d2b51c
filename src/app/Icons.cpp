#include "Icons.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QPixmap>

namespace Icons {
namespace {

// Simple line drawings on a 24 x 24 grid.
void draw(QPainter &p, const QString &name)
{
    const QColor ink = QGuiApplication::palette().color(QPalette::WindowText);
    p.setPen(QPen(ink, 1.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    auto arrowHead = [&](QPointF tip, QPointF a, QPointF b) {
        p.drawLine(tip, a);
        p.drawLine(tip, b);
    };
    if (name == "document-open") {
        QPainterPath folder;
        folder.moveTo(3, 6);
        folder.lineTo(9, 6);
        folder.lineTo(11, 8);
        folder.lineTo(21, 8);
        folder.lineTo(21, 19);
        folder.lineTo(3, 19);
        folder.closeSubpath();
        p.drawPath(folder);
    } else if (name == "document-save" || name == "document-save-as") {
        p.drawLine(QPointF(12, 3), QPointF(12, 14));
        arrowHead({12, 14}, {8, 10}, {16, 10});
        p.drawPolyline(QPolygonF({{4, 13}, {4, 20}, {20, 20}, {20, 13}}));
        if (name == "document-save-as")
            p.drawRect(QRectF(15, 2, 6, 6));
    } else if (name == "edit-undo" || name == "edit-redo") {
        const bool undo = name == "edit-undo";
        QPainterPath curve;
        curve.moveTo(undo ? 6 : 18, 9);
        curve.lineTo(undo ? 15 : 9, 9);
        curve.cubicTo(undo ? 22 : 2, 9, undo ? 22 : 2, 19, undo ? 15 : 9, 19);
        curve.lineTo(undo ? 8 : 16, 19);
        p.drawPath(curve);
        arrowHead({undo ? 6.0 : 18.0, 9}, {undo ? 10.0 : 14.0, 5}, {undo ? 10.0 : 14.0, 13});
    } else if (name == "dialog-password" || name == "document-encrypted") {
        p.drawRoundedRect(QRectF(5, 11, 14, 10), 2, 2);
        p.drawArc(QRectF(8, 4, 8, 12), 0, 180 * 16);
    } else if (name == "document-sign") {
        QPainterPath squiggle;
        squiggle.moveTo(3, 16);
        squiggle.cubicTo(7, 6, 9, 22, 13, 12);
        squiggle.cubicTo(15, 8, 17, 18, 21, 12);
        p.drawPath(squiggle);
        p.drawLine(QPointF(3, 20), QPointF(21, 20));
    } else if (name == "edit-find") {
        p.drawEllipse(QRectF(4, 4, 11, 11));
        p.drawLine(QPointF(13.5, 13.5), QPointF(20, 20));
    } else if (name == "comments") {
        QPainterPath bubble;
        bubble.moveTo(4, 5);
        bubble.lineTo(20, 5);
        bubble.lineTo(20, 16);
        bubble.lineTo(11, 16);
        bubble.lineTo(6, 20);
        bubble.lineTo(7, 16);
        bubble.lineTo(4, 16);
        bubble.closeSubpath();
        p.drawPath(bubble);
    } else if (name == "bookmarks") {
        p.drawPolygon(QPolygonF({{7, 3}, {17, 3}, {17, 21}, {12, 16}, {7, 21}}));
    } else if (name == "view-preview") {
        for (const QRectF &r : {QRectF(4, 3, 7, 8), QRectF(13, 3, 7, 8), QRectF(4, 13, 7, 8), QRectF(13, 13, 7, 8)})
            p.drawRect(r);
    } else if (name == "view-pages" || name == "document-properties" || name == "edit-copy") {
        p.drawRect(QRectF(4, 3, 11, 14));
        p.drawPolyline(QPolygonF({{18, 7}, {18, 21}, {8, 21}}));
    } else if (name == "edit-select") {
        // An arrow pointer.
        p.drawPolygon(QPolygonF({{6, 3}, {6, 19}, {10, 15.5}, {13, 21}, {15.5, 20}, {12.5, 14.5}, {17.5, 14.5}}));
    } else if (name == "edit-rename") {
        // A text cursor (I-beam).
        p.drawLine(QPointF(12, 4), QPointF(12, 20));
        p.drawLine(QPointF(8, 4), QPointF(16, 4));
        p.drawLine(QPointF(8, 20), QPointF(16, 20));
    } else if (name == "insert-text") {
        // A capital T.
        p.drawPolyline(QPolygonF({{5, 8}, {5, 4}, {19, 4}, {19, 8}}));
        p.drawLine(QPointF(12, 4), QPointF(12, 20));
        p.drawLine(QPointF(9, 20), QPointF(15, 20));
    } else if (name == "draw-freehand") {
        // A pencil, point down to the left.
        p.drawPolygon(QPolygonF({{4, 20}, {5.5, 14.5}, {16, 4}, {20, 8}, {9.5, 18.5}}));
        p.drawLine(QPointF(5.5, 14.5), QPointF(9.5, 18.5));
        p.drawLine(QPointF(13.5, 6.5), QPointF(17.5, 10.5));
    } else if (name == "draw-rectangle") {
        p.drawRect(QRectF(4, 6, 16, 12));
    } else if (name == "draw-ellipse") {
        p.drawEllipse(QRectF(3, 6, 18, 12));
    } else if (name == "color-management") {
        // A painter's palette: a rounded board, a thumb hole and three dabs of paint.
        p.drawEllipse(QRectF(3, 4, 18, 16));
        p.drawEllipse(QPointF(14.5, 15), 2, 2);
        p.setBrush(ink);
        for (QPointF dab : {QPointF(8, 10), QPointF(12, 7.5), QPointF(16.5, 9.5)})
            p.drawEllipse(dab, 1.2, 1.2);
    } else if (name == "draw-highlight") {
        // A marker over the broad stroke it leaves.
        p.drawPolygon(QPolygonF({{9, 13}, {16, 4}, {20, 8}, {13, 17}}));
        p.drawPolygon(QPolygonF({{9, 13}, {13, 17}, {10, 18}, {8, 16}}));
        QColor stroke = ink;
        stroke.setAlphaF(0.45);
        p.setPen(QPen(stroke, 3, Qt::SolidLine, Qt::RoundCap));
        p.drawLine(QPointF(4, 21), QPointF(20, 21));
    } else if (name == "annotation-note") {
        // A sticky note with a folded corner and lines of writing.
        p.drawPolygon(QPolygonF({{4, 4}, {20, 4}, {20, 15}, {15, 20}, {4, 20}}));
        p.drawPolyline(QPolygonF({{15, 20}, {15, 15}, {20, 15}}));
        for (int y : {9, 13})
            p.drawLine(QPointF(8, y), QPointF(16, y));
    } else if (name == "format-text-underline" || name == "format-text-strikethrough") {
        // A capital U, underlined or struck through.
        p.drawPolyline(QPolygonF({{7, 4}, {7, 12}}));
        p.drawArc(QRectF(7, 8, 10, 9), 180 * 16, 180 * 16);
        p.drawPolyline(QPolygonF({{17, 12}, {17, 4}}));
        if (name == "format-text-underline")
            p.drawLine(QPointF(5, 21), QPointF(19, 21));
        else
            p.drawLine(QPointF(4, 11), QPointF(20, 11));
    } else if (name == "mail-reply-sender") {
        // An arrow turning back to the left.
        QPainterPath curve;
        curve.moveTo(20, 19);
        curve.cubicTo(20, 12, 16, 10, 5, 10);
        p.drawPath(curve);
        arrowHead({5, 10}, {10, 5}, {10, 15});
    } else if (name == "insert-image") {
        p.drawRect(QRectF(3, 5, 18, 14));
        p.drawPolyline(QPolygonF({{3, 17}, {9, 11}, {14, 16}, {17, 13}, {21, 17}}));
    } else if (name == "draw-line") {
        p.drawLine(QPointF(4, 20), QPointF(20, 4));
    } else {
        // A page with lines of text: documents, and anything else.
        p.drawPolygon(QPolygonF({{6, 2}, {15, 2}, {19, 6}, {19, 22}, {6, 22}}));
        for (int y : {9, 13, 17})
            p.drawLine(QPointF(9, y), QPointF(16, y));
    }
}

QIcon drawn(const QString &name)
{
    QIcon icon;
    for (int size : {16, 24, 32, 48, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        p.scale(size / 24.0, size / 24.0);
        draw(p, name);
        icon.addPixmap(pixmap);
    }
    return icon;
}

} // namespace

QIcon get(const QString &themeName)
{
    if (QIcon::hasThemeIcon(themeName))
        return QIcon::fromTheme(themeName);
    return drawn(themeName);
}

} // namespace Icons
