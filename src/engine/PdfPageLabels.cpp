// Page labels: the document's own numbering of its pages (front matter in
// roman numerals, appendices with a prefix), read from the /PageLabels number
// tree of the catalogue.
#include "PdfDocument.h"

#include "DocCore.h"

#include <algorithm>
#include <map>
#include <unordered_set>
#include <vector>

namespace {

// One range of labels: from its first page on, a prefix and a numbering style
// counting from `start`.
struct LabelRange {
    QString prefix;
    char style = 0; // 'D', 'R', 'r', 'A', 'a', or none
    int start = 1;
};

QString roman(int n, bool upper)
{
    static const std::pair<int, const char *> numerals[] = {{1000, "m"}, {900, "cm"}, {500, "d"}, {400, "cd"}, {100, "c"},
                                                            {90, "xc"},  {50, "l"},   {40, "xl"}, {10, "x"},   {9, "ix"},
                                                            {5, "v"},    {4, "iv"},   {1, "i"}};
    QString out;
    n = std::clamp(n, 1, 100000);
    for (const auto &[value, letters] : numerals)
        for (; n >= value; n -= value)
            out += QLatin1String(letters);
    return upper ? out.toUpper() : out;
}

// A, B, … Z, AA, BB, … as page labels count in letters.
QString letters(int n, bool upper)
{
    n = std::clamp(n, 1, 26 * 1000);
    const QChar letter(char16_t((upper ? u'A' : u'a') + (n - 1) % 26));
    return QString((n - 1) / 26 + 1, letter);
}

QString label(const LabelRange &range, int offset)
{
    const int n = range.start + offset;
    switch (range.style) {
    case 'D':
        return range.prefix + QString::number(n);
    case 'R':
        return range.prefix + roman(n, true);
    case 'r':
        return range.prefix + roman(n, false);
    case 'A':
        return range.prefix + letters(n, true);
    case 'a':
        return range.prefix + letters(n, false);
    default:
        return range.prefix;
    }
}

// Reads the ranges of a /PageLabels number tree into `ranges`, by their first page. Each MuPDF
// call is a guarded call of its own, as C++ objects live across them; the
// tree's nodes are walked with a stack, a node met twice (a loop) is not
// walked again, and the walk stops at a bound.
void readRanges(pdf_document *doc, int pageCount, std::map<int, LabelRange> &ranges)
{
    std::vector<pdf_obj *> stack{
        mu::call([&](fz_context *c) { return pdf_dict_getp(c, pdf_trailer(c, doc), "Root/PageLabels"); })};
    std::unordered_set<int> seen;
    for (int visits = 0; !stack.empty() && visits < 100000; ++visits) {
        pdf_obj *node = stack.back();
        stack.pop_back();
        struct Node {
            bool walk = false;
            pdf_obj *kids = nullptr, *nums = nullptr;
            int kidCount = 0, numCount = 0;
        };
        const Node n = mu::call([&](fz_context *c) {
            Node out;
            const bool repeat = pdf_is_indirect(c, node) && seen.contains(pdf_to_num(c, node));
            out.walk = pdf_is_dict(c, node) && !repeat;
            if (!out.walk)
                return out;
            out.kids = pdf_dict_get(c, node, PDF_NAME(Kids));
            out.nums = pdf_dict_get(c, node, PDF_NAME(Nums));
            out.kidCount = pdf_array_len(c, out.kids);
            out.numCount = pdf_array_len(c, out.nums);
            return out;
        });
        if (!n.walk)
            continue;
        if (const int num = mu::call([&](fz_context *c) { return pdf_is_indirect(c, node) ? pdf_to_num(c, node) : 0; }))
            seen.insert(num);
        for (int i = n.kidCount - 1; i >= 0; --i)
            stack.push_back(mu::call([&](fz_context *c) { return pdf_array_get(c, n.kids, i); }));
        for (int i = 0; i + 1 < n.numCount; i += 2) {
            struct Entry {
                int first = -1;
                bool valid = false;
                const char *prefix = "";
                const char *style = "";
                int start = 1;
            };
            const Entry e = mu::call([&](fz_context *c) {
                Entry out;
                out.first = pdf_to_int(c, pdf_array_get(c, n.nums, i));
                pdf_obj *entry = pdf_array_get(c, n.nums, i + 1);
                out.valid = out.first >= 0 && out.first < pageCount && pdf_is_dict(c, entry);
                if (!out.valid)
                    return out;
                out.prefix = pdf_to_text_string(c, pdf_dict_get(c, entry, PDF_NAME(P)));
                out.style = pdf_to_name(c, pdf_dict_get(c, entry, PDF_NAME(S)));
                if (pdf_obj *start = pdf_dict_gets(c, entry, "St"); pdf_is_int(c, start))
                    out.start = std::max(1, pdf_to_int(c, start));
                return out;
            });
            if (e.valid)
                ranges[e.first] =
                    LabelRange{QString::fromUtf8(e.prefix), e.style[0] && !e.style[1] ? e.style[0] : char(0), e.start};
        }
    }
}

} // namespace

QStringList PdfDocument::pageLabels() const
{
    const int count = pageCount();
    if (locked_ || count <= 0)
        return {};
    std::map<int, LabelRange> ranges;
    try {
        readRanges(core_->doc, count, ranges);
    } catch (const mu::Error &) {
        // A damaged tree: the labels read before it, if any.
    } catch (const std::bad_alloc &) {
        return {};
    }
    if (ranges.empty())
        return {};
    QStringList labels;
    labels.reserve(count);
    auto range = ranges.begin();
    for (int page = 0; page < count; ++page) {
        while (std::next(range) != ranges.end() && std::next(range)->first <= page)
            ++range;
        // Pages before the first range have no label of their own: their number.
        labels << (page < range->first ? QString::number(page + 1) : label(range->second, page - range->first));
    }
    return labels;
}
