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

void PdfViewLayout::relayout()
{
    rects_.clear();
    rects_.reserve(sizes_.size());
    const int columnWidth = int(std::lround(maxWidth_ * scale_));
    int y = margin;
    for (const QSizeF &s : sizes_) {
        const int w = std::max(1, int(std::lround(s.width() * scale_)));
        const int h = std::max(1, int(std::lround(s.height() * scale_)));
        rects_.emplace_back(margin + (columnWidth - w) / 2, y, w, h);
        y += h + gap;
    }
    content_ = sizes_.empty() ? QSize(0, 0) : QSize(columnWidth + 2 * margin, y - gap + margin);
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
    int y = margin;
    for (const QSizeF &s : sizes_)
        y += std::max(1, int(std::lround(s.height() * scale))) + gap;
    return y - gap + margin;
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
