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
    } else if (name == "view-pages" || name == "document-properties" || name == "edit-copy") {
        p.drawRect(QRectF(4, 3, 11, 14));
        p.drawPolyline(QPolygonF({{18, 7}, {18, 21}, {8, 21}}));
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
