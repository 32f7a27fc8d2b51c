#include "ToolSettings.h"

#include "PdfAnnotation.h"

ToolSettings::ToolSettings(QObject *parent) : QObject(parent) {}

void ToolSettings::setCurrentTool(AnnotationTool tool)
{
    currentTool_ = tool;
    emit currentToolChanged();
}

void ToolSettings::setStrokeColor(const QColor &color)
{
    strokeColor_ = color;
    emit strokeColorChanged();
}

void ToolSettings::setLineWidth(qreal width)
{
    lineWidth_ = width;
    emit lineWidthChanged();
}

void ToolSettings::setHasFill(bool fill)
{
    hasFill_ = fill;
    emit hasFillChanged();
}

void ToolSettings::setFillColor(const QColor &color)
{
    fillColor_ = color;
    emit fillColorChanged();
}

void ToolSettings::setFontSize(qreal size)
{
    fontSize_ = size;
    emit fontSizeChanged();
}

void ToolSettings::setFontColor(const QColor &color)
{
    fontColor_ = color;
    emit fontColorChanged();
}

void ToolSettings::setMarkupColor(const QColor &color)
{
    markupColor_ = color;
    markupColorSet_ = true;
    emit markupColorChanged();
}

QColor ToolSettings::markupColorFor(const QString &subtype) const
{
    if (markupColorSet_)
        return markupColor_;
    if (subtype == PdfAnnotation::Underline)
        return Qt::blue;
    if (subtype == PdfAnnotation::StrikeOut)
        return Qt::red;
    return markupColor_;
}
