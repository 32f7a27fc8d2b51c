// A copy of chosen pages of a document made for printing: every page of it
// is the paper's size, with the source page (as shown: rotated, cut to its
// crop box) turned to the paper's orientation, scaled to the printable area
// and centred. Page contents stay vector (each source page is drawn as one
// form), annotations that print are drawn from their appearances, and the
// copy is never encrypted.
#pragma once

#include <QRectF>
#include <QSizeF>
#include <QString>

#include <functional>
#include <memory>
#include <vector>

class PdfDocument;

struct PdfPrintLayout {
    enum class Scaling { FitToPrintableArea, ActualSize, ShrinkOversized };
    // The paper as it is printed on, in points (wider than high for landscape).
    QSizeF paper{595.276, 841.89};
    // The part of the paper the printer reaches, in points from the paper's
    // top left; empty means the whole paper.
    QRectF printable;
    Scaling scaling = Scaling::FitToPrintableArea;
};

// Where one page lands on the paper.
struct PdfPrintPlacement {
    // Turned a quarter counter-clockwise (its top to the paper's left edge)
    // because its orientation differs from the paper's.
    bool turned = false;
    qreal scale = 1;
    // The page's area on the paper, in points from the paper's top left.
    QRectF area;
};

class PdfPrintCopy {
public:
    // The placement of a page shown at `displaySize` (points, rotation applied).
    static PdfPrintPlacement place(QSizeF displaySize, const PdfPrintLayout &layout);

    enum class Result { Written, Cancelled, Failed };
    // Writes the pages at `pages` (indexes, in the order given, repeats
    // allowed) of `document` as it is now, unsaved changes included, to
    // `path`. `step` is told the pages done of the total (the last step is
    // the file itself) and answers false to stop: a stopped or failed copy
    // leaves no file at `path`. Fails for a locked document, no pages or an
    // index outside the document.
    static Result write(const std::shared_ptr<PdfDocument> &document, const std::vector<int> &pages, const PdfPrintLayout &layout,
                        const QString &path, const std::function<bool(int done, int total)> &step = {});
};
