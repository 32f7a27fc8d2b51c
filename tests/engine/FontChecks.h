// Checks on fonts shared by the engine's tests.
#pragma once

#include <QPainterPath>
#include <QRawFont>
#include <QString>

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
