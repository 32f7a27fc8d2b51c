// Where each page of a continuous single column lies at one zoom: pure
// geometry, in content coordinates (logical pixels, origin at the top left of
// the whole column, y down).
#pragma once

#include <QPointF>
#include <QRect>
#include <QSize>
#include <QSizeF>
#include <QtGlobal>

#include <utility>
#include <vector>

class PdfViewLayout {
public:
    // Space around the column and between two pages, in logical pixels at every zoom.
    static constexpr int margin = 8;
    static constexpr int gap = 8;
    // The most pixels the column and any page in it take either way: a
    // scroll bar's range is an int, and a damaged file can claim pages of
    // any size. Pages beyond it are laid out at its end.
    static constexpr qint64 maxExtent = qint64(1) << 30;
    // A length in pixels, whole, at least 1 and at most maxExtent.
    static int pixels(qreal length);

    // Page sizes as shown (rotation applied), in points.
    void setPageSizes(std::vector<QSizeF> sizes);
    void setScale(qreal scale);
    qreal scale() const { return scale_; }

    int count() const { return int(sizes_.size()); }
    QSizeF pageSize(int index) const { return sizes_[size_t(index)]; }
    // The page as laid out, snapped to whole pixels.
    QRect pageRect(int index) const { return rects_[size_t(index)]; }
    QSize contentSize() const { return content_; }

    // The scale at which the widest page fills `width` pixels (margins included).
    qreal fitWidthScale(qreal width) const;
    // The height of the column at `scale`.
    int contentHeightAt(qreal scale) const;

    // The page containing a content point; with `nearest`, the closest page
    // when the point is between or beside pages. -1 for none.
    int pageAt(QPointF point, bool nearest) const;
    // First and last index of the pages that meet the rows [top, bottom); empty
    // range (first > last) when none does.
    std::pair<int, int> pagesBetween(qreal top, qreal bottom) const;

private:
    void relayout();

    std::vector<QSizeF> sizes_;
    std::vector<QRect> rects_;
    qreal scale_ = 1.0;
    qreal maxWidth_ = 0;
    QSize content_;
};
