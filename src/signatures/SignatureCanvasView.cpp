#include "SignatureCanvasView.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

namespace {

constexpr qreal inkWidth = 2;
constexpr qreal guideInset = 16;
constexpr qreal guideHeight = 0.7;

QPen inkPen(const QColor &color)
{
    return QPen(color, inkWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
}

// A single point draws nothing: a click leaves no mark.
void drawStroke(QPainter &painter, const SignatureCanvasView::Stroke &stroke)
{
    if (stroke.size() < 2)
        return;
    QPainterPath path(stroke.first());
    for (qsizetype i = 1; i < stroke.size(); ++i)
        path.lineTo(stroke[i]);
    painter.drawPath(path);
}

} // namespace

SignatureCanvasView::SignatureCanvasView(QWidget *parent) : QWidget(parent)
{
    setAccessibleName(tr("Signature drawing area"));
    setCursor(Qt::CrossCursor);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

void SignatureCanvasView::clear()
{
    strokes_.clear();
    currentStroke_.clear();
    update();
}

void SignatureCanvasView::setInkColor(const QColor &color)
{
    inkColor_ = color;
    update();
}

void SignatureCanvasView::mousePressEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    currentStroke_ = {event->position()};
}

void SignatureCanvasView::mouseMoveEvent(QMouseEvent *event)
{
    if (currentStroke_.isEmpty() || !(event->buttons() & Qt::LeftButton))
        return;
    currentStroke_.append(event->position());
    update();
}

void SignatureCanvasView::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() != Qt::LeftButton)
        return;
    if (!currentStroke_.isEmpty())
        strokes_.append(currentStroke_);
    currentStroke_.clear();
}

void SignatureCanvasView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), Qt::white);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor guide(Qt::gray);
    guide.setAlphaF(0.3f);
    painter.setPen(QPen(guide, 1));
    const qreal y = guideHeight * height();
    painter.drawLine(QPointF(guideInset, y), QPointF(width() - guideInset, y));
    painter.setPen(inkPen(inkColor_));
    for (const Stroke &stroke : strokes_)
        drawStroke(painter, stroke);
    drawStroke(painter, currentStroke_);
}

QImage SignatureCanvasView::renderImage() const
{
    if (strokes_.isEmpty())
        return {};
    QImage image(qMax(1, width()) * inkScale, qMax(1, height()) * inkScale, QImage::Format_ARGB32_Premultiplied);
    if (image.isNull())
        return {};
    // Its size in points is the canvas's.
    image.setDevicePixelRatio(inkScale);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(inkPen(inkColor_));
    for (const Stroke &stroke : strokes_)
        drawStroke(painter, stroke);
    return image;
}
