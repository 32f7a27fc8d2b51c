// Small value types shared by the engine's public classes.
#pragma once

#include <QColor>
#include <QString>

#include <memory>

class PdfAnnotation;

// Which page box a size or an image is taken from.
enum class PdfBox { Media, Crop };

// A font as the rest of the system sees it: a family name and a size in points.
struct PdfFont {
    QString name;
    qreal size = 0;
    bool bold = false;
    bool italic = false;
};

// What a rendering of a page shows.
struct PdfRenderOptions {
    bool annotations = true;
    // An annotation left out of the picture (the overlay draws it while it is dragged).
    std::shared_ptr<PdfAnnotation> skip;
};
