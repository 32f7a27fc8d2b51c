#include "TypedSignaturePreview.h"

#include "EdgeOutline.h"
#include "SheetStyle.h"

#include <QFontMetricsF>
#include <QPainter>

#include <cmath>

namespace {

// Room kept free on the left and the right of the text.
constexpr int sideRoom = 8;

} // namespace

TypedSignaturePreview::TypedSignaturePreview()
{
    setAutoFillBackground(true);
    QPalette white = palette();
    white.setColor(QPalette::Window, Qt::white);
    setPalette(white);
    setMinimumHeight(minimumHeight);
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Minimum);
    new EdgeOutline(this);
}

void TypedSignaturePreview::showText(const QString &shown, bool isPlaceholder, const QFont &face, const QColor &inkColor)
{
    text_ = shown;
    placeholder_ = isPlaceholder;
    ink_ = inkColor;
    setFont(face);
    setAccessibleDescription(shown);
    updateGeometry();
    update();
}

QSize TypedSignaturePreview::sizeHint() const
{
    return QSize(0, qMax(minimumHeight, int(std::ceil(QFontMetricsF(font()).height()))));
}

void TypedSignaturePreview::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(placeholder_ ? SheetStyle::secondary(this) : ink_);
    const QRect room = rect().adjusted(sideRoom, 0, -sideRoom, 0);
    painter.drawText(room, Qt::AlignCenter, fontMetrics().elidedText(text_, Qt::ElideRight, room.width()));
}
