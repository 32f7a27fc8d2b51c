#include "PdfSelection.h"

#include "PdfDocument.h"
#include "PdfPage.h"

#include <algorithm>

PdfSelection::PdfSelection(std::vector<Line> lines) : lines_(std::move(lines)) {}

PdfSelection PdfSelection::between(const std::shared_ptr<PdfPage> &fromPage, QPointF from, const std::shared_ptr<PdfPage> &toPage,
                                   QPointF to)
{
    if (!fromPage || !toPage)
        return {};
    if (fromPage == toPage) {
        const int a = fromPage->caretAt(from), b = fromPage->caretAt(to);
        return a < 0 ? PdfSelection() : fromPage->selectionForRange(std::min(a, b), std::max(a, b));
    }
    auto doc = fromPage->document();
    if (!doc || doc != toPage->document())
        return {};
    auto first = fromPage, last = toPage;
    auto firstPoint = from, lastPoint = to;
    if (first->index() > last->index()) {
        std::swap(first, last);
        std::swap(firstPoint, lastPoint);
    }
    std::vector<Line> lines;
    auto append = [&](const PdfSelection &part) { lines.insert(lines.end(), part.lines_.begin(), part.lines_.end()); };
    const int start = first->caretAt(firstPoint);
    if (start >= 0)
        append(first->selectionForRange(start, INT_MAX));
    for (int i = first->index() + 1; i < last->index(); ++i)
        if (auto page = doc->page(i))
            append(page->selectionForAll());
    const int end = last->caretAt(lastPoint);
    if (end >= 0)
        append(last->selectionForRange(0, end));
    return PdfSelection(std::move(lines));
}

QString PdfSelection::string() const
{
    QStringList parts;
    for (const auto &line : lines_)
        parts << line.text;
    return parts.join(QLatin1Char('\n'));
}

std::vector<std::shared_ptr<PdfPage>> PdfSelection::pages() const
{
    std::vector<std::shared_ptr<PdfPage>> result;
    for (const auto &line : lines_)
        if (std::find(result.begin(), result.end(), line.page) == result.end())
            result.push_back(line.page);
    return result;
}

std::vector<PdfSelection> PdfSelection::selectionsByLine() const
{
    std::vector<PdfSelection> result;
    for (const auto &line : lines_)
        result.push_back(PdfSelection({line}));
    return result;
}

QRectF PdfSelection::bounds(const std::shared_ptr<PdfPage> &page) const
{
    QRectF result;
    for (const auto &line : lines_)
        if (line.page == page)
            result = result.united(line.bounds);
    return result;
}
