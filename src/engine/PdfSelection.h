// A piece of page text chosen by the user or by a point: one or more lines,
// each on one page, in reading order.
#pragma once

#include <QPointF>
#include <QRectF>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

class PdfPage;

class PdfSelection {
public:
    struct Line {
        std::shared_ptr<PdfPage> page;
        QString text;
        QRectF bounds; // page space
        // The selected glyphs without the white space at either end, where a
        // mark over the text goes; empty when the line is only white space.
        QRectF markBounds;
    };

    PdfSelection() = default;
    explicit PdfSelection(std::vector<Line> lines);

    // The text between two points, which may lie on different pages of one
    // document; the order of the two ends does not matter.
    static PdfSelection between(const std::shared_ptr<PdfPage> &fromPage, QPointF from,
                                const std::shared_ptr<PdfPage> &toPage, QPointF to);

    bool isEmpty() const { return lines_.empty(); }
    // The selected text, lines joined by line feeds.
    QString string() const;
    // The pages touched, in document order.
    std::vector<std::shared_ptr<PdfPage>> pages() const;
    // One selection per line, in reading order.
    std::vector<PdfSelection> selectionsByLine() const;
    // The union of the selected lines on one page (page space); empty if none.
    QRectF bounds(const std::shared_ptr<PdfPage> &page) const;
    const std::vector<Line> &lines() const { return lines_; }

private:
    std::vector<Line> lines_;
};
