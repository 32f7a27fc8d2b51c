// The surface a signature is drawn on with the pointer: each press, drag and
// release is one stroke, a polyline of the points as they came. Shown in the
// ink colour (black unless chosen) on white above a grey guide line; rendered
// out in that ink on a transparent image the canvas's size.
#pragma once

#include <QColor>
#include <QImage>
#include <QList>
#include <QPointF>
#include <QWidget>

class SignatureCanvasView : public QWidget {
    Q_OBJECT
public:
    using Stroke = QList<QPointF>;
    // Pixels per point of the rendered drawing: enough for sharp edges when
    // the signature is printed, whatever the screen it was drawn on.
    static constexpr int inkScale = 4;

    explicit SignatureCanvasView(QWidget *parent = nullptr);

    // The finished strokes, in drawing order, and the one being drawn (empty
    // while the button is up).
    const QList<Stroke> &strokes() const { return strokes_; }
    const Stroke &currentStroke() const { return currentStroke_; }

    // Forgets every stroke.
    void clear();

    // The colour of every stroke, those already drawn included.
    QColor inkColor() const { return inkColor_; }
    void setInkColor(const QColor &color);

    // The finished strokes, inkScale pixels per point; null when there are none.
    // A stroke of a single point (a click) counts but leaves no ink.
    QImage renderImage() const;

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    QList<Stroke> strokes_;
    Stroke currentStroke_;
    QColor inkColor_{Qt::black};
};
