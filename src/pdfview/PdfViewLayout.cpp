#include "PdfViewLayout.h"

#include <algorithm>
#include <cmath>

void PdfViewLayout::setPageSizes(std::vector<QSizeF> sizes)
{
    sizes_ = std::move(sizes);
    maxWidth_ = 0;
    for (const QSizeF &s : sizes_)
        maxWidth_ = std::max(maxWidth_, s.width());
    relayout();
}

void PdfViewLayout::setScale(qreal scale)
{
    scale_ = scale;
    relayout();
}

int PdfViewLayout::pixels(qreal length)
{
    if (!(length < qreal(maxExtent))) // also NaN
        return int(maxExtent);
    return std::max(1, int(std::lround(length)));
}

void PdfViewLayout::relayout()
{
    rects_.clear();
    rects_.reserve(sizes_.size());
    const int columnWidth = pixels(maxWidth_ * scale_);
    qint64 y = margin;
    for (const QSizeF &s : sizes_) {
        const int w = pixels(s.width() * scale_);
        const int top = int(std::min(y, maxExtent));
        const int h = std::max(1, std::min(pixels(s.height() * scale_), int(maxExtent) - top));
        rects_.emplace_back(margin + (columnWidth - w) / 2, top, w, h);
        y = top + qint64(h) + gap;
    }
    content_ = sizes_.empty() ? QSize(0, 0) : QSize(columnWidth + 2 * margin, int(std::min(y - gap, maxExtent)) + margin);
}

qreal PdfViewLayout::fitWidthScale(qreal width) const
{
    if (maxWidth_ <= 0)
        return 1.0;
    return std::max(width - 2 * margin, 1.0) / maxWidth_;
}

int PdfViewLayout::contentHeightAt(qreal scale) const
{
    if (sizes_.empty())
        return 0;
    qint64 y = margin;
    for (const QSizeF &s : sizes_)
        y = std::min(y + pixels(s.height() * scale) + gap, maxExtent + gap);
    return int(y - gap) + margin;
}

int PdfViewLayout::pageAt(QPointF point, bool nearest) const
{
    if (rects_.empty())
        return -1;
    // The first page whose bottom edge is below the point.
    auto it = std::lower_bound(rects_.begin(), rects_.end(), point.y(),
                               [](const QRect &r, qreal y) { return r.top() + r.height() <= y; });
    if (it == rects_.end())
        return nearest ? count() - 1 : -1;
    const int index = int(it - rects_.begin());
    if (QRectF(*it).contains(point))
        return index;
    if (!nearest)
        return -1;
    // Above this page: in the gap after the previous one or the top margin.
    if (point.y() < it->top() && index > 0) {
        const qreal toPrevious = point.y() - (rects_[size_t(index - 1)].top() + rects_[size_t(index - 1)].height());
        const qreal toThis = it->top() - point.y();
        if (toPrevious < toThis)
            return index - 1;
    }
    return index;
}

std::pair<int, int> PdfViewLayout::pagesBetween(qreal top, qreal bottom) const
{
    auto first =
        std::lower_bound(rects_.begin(), rects_.end(), top, [](const QRect &r, qreal y) { return r.top() + r.height() <= y; });
    auto end = std::lower_bound(first, rects_.end(), bottom, [](const QRect &r, qreal y) { return r.top() < y; });
    return {int(first - rects_.begin()), int(end - rects_.begin()) - 1};
}
