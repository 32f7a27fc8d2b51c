// Small value types shared by the engine's public classes.
#pragma once

#include <QColor>
#include <QPointF>
#include <QRectF>
#include <QString>

#include <memory>
#include <optional>

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

// A link area of a page. External links carry a URL; internal ones the index
// of the page they lead to and, when the file names one, a point on it.
struct PdfLink {
    QRectF bounds; // page space
    QString url;
    int page = -1;
    std::optional<QPointF> point; // page space of the target page
};

// What a rendering of a page shows.
struct PdfRenderOptions {
    bool annotations = true;
    // An annotation left out of the picture (the overlay draws it while it is dragged).
    std::shared_ptr<PdfAnnotation> skip;
    // When set, the picture shows this annotation of the page alone, on a
    // transparent background (what the overlay draws while it is dragged).
    std::shared_ptr<PdfAnnotation> only;
};
