// The current tool of one window and the style values new annotations take.
// Every setter announces the write, also when the value does not change.
#pragma once

#include "AnnotationTool.h"

#include <QColor>
#include <QObject>

class ToolSettings : public QObject {
    Q_OBJECT
public:
    explicit ToolSettings(QObject *parent = nullptr);

    AnnotationTool currentTool() const { return currentTool_; }
    void setCurrentTool(AnnotationTool tool);
    QColor strokeColor() const { return strokeColor_; }
    void setStrokeColor(const QColor &color);
    qreal lineWidth() const { return lineWidth_; }
    void setLineWidth(qreal width);
    bool hasFill() const { return hasFill_; }
    void setHasFill(bool fill);
    QColor fillColor() const { return fillColor_; }
    void setFillColor(const QColor &color);
    qreal fontSize() const { return fontSize_; }
    void setFontSize(qreal size);
    QColor fontColor() const { return fontColor_; }
    void setFontColor(const QColor &color);
    QColor markupColor() const { return markupColor_; }
    void setMarkupColor(const QColor &color);
    // The colour a markup of that kind (PdfAnnotation::Highlight, Underline,
    // StrikeOut) takes: the markup colour once it has been set, until then the
    // kind's own, which shows on white (yellow, blue, red).
    QColor markupColorFor(const QString &subtype) const;

signals:
    void currentToolChanged();
    void strokeColorChanged();
    void lineWidthChanged();
    void hasFillChanged();
    void fillColorChanged();
    void fontSizeChanged();
    void fontColorChanged();
    void markupColorChanged();

private:
    AnnotationTool currentTool_ = AnnotationTool::none;
    QColor strokeColor_{Qt::red};
    qreal lineWidth_ = 2.0;
    bool hasFill_ = false;
    QColor fillColor_{Qt::yellow};
    qreal fontSize_ = 14.0;
    QColor fontColor_{Qt::black};
    QColor markupColor_{Qt::yellow};
    bool markupColorSet_ = false;
};
