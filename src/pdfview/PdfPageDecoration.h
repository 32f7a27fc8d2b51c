// Something drawn over the pages of a PdfView that is not part of them, such
// as the matches of a search: the view asks each decoration it was given to
// paint every page it shows, after the page's picture and before the text
// selection.
#pragma once

#include <memory>

class PdfPage;
class QPainter;
class QTransform;

class PdfPageDecoration {
public:
    virtual ~PdfPageDecoration() = default;
    // Paints over `page`; `pageToView` maps page space to the view's
    // coordinates, in which the painter draws.
    virtual void paintPage(QPainter &painter, const std::shared_ptr<PdfPage> &page, const QTransform &pageToView) = 0;
};
