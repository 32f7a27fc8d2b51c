// Helpers shared by the engine's tests.
#pragma once

#include "PdfAnnotation.h"

#include <QPainterPath>
#include <QRawFont>
#include <QString>

#include <memory>

// A text box in black on no background, without a border.
inline std::shared_ptr<PdfAnnotation> plainTextBox(QRectF bounds, const PdfFont &font, const QString &text)
{
    auto box = PdfAnnotation::create(bounds, PdfAnnotation::FreeText);
    box->setFont(font);
    box->setContents(text);
    box->setFontColor(Qt::black);
    box->setColor(QColor(0, 0, 0, 0));
    box->setBorderWidth(0);
    return box;
}

// Whether two fonts draw every character of `text` with the same outline.
inline bool sameOutlines(const QRawFont &a, const QRawFont &b, const QString &text)
{
    const QList<quint32> ga = a.glyphIndexesForString(text), gb = b.glyphIndexesForString(text);
    if (ga.size() != text.size() || gb.size() != text.size())
        return false;
    for (int i = 0; i < ga.size(); ++i)
        if (a.pathForGlyph(ga[i]) != b.pathForGlyph(gb[i]))
            return false;
    return true;
}
