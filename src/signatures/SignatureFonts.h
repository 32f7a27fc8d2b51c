// The script fonts of typed signatures. A font is asked for by its PostScript
// name ("SignPainter-HouseScript"); where that font is not installed, a free
// script font of the same character stands in, and the system font where
// neither is there.
#pragma once

#include <QFont>
#include <QList>
#include <QString>

namespace SignatureFonts {

// The typed-signature choices, in the order the picker lists them.
struct Choice {
    QString label;
    QString fontName;
};
const QList<Choice> &choices();

// Whether a font of that name (PostScript or family name) is installed.
bool isInstalled(const QString &fontName);

// The font for `fontName`, `size` pixels high: one pixel per point.
QFont font(const QString &fontName, qreal size);

} // namespace SignatureFonts
