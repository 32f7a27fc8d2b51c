// Internal to the engine: what the page's files share, its text layout and
// the conversions from MuPDF's geometry.
#pragma once

#include "DocCore.h"
#include "Native.h"

#include <QRectF>
#include <QTransform>

#include <algorithm>
#include <optional>
#include <vector>

// The page's text as lines of characters with their boxes in page space (where
// the lines of an upright page run left to right whatever its rotation),
// built once and kept.
struct PdfPage::Text {
    struct Char {
        QRectF box;
        int textIndex;
        int textLength;
        int font;
    };
    struct Line {
        QRectF box;
        int first;
        int end;
        std::optional<qreal> baseline; // page-space y, for a line that runs left to right
    };
    QString text;
    std::vector<Char> chars;
    std::vector<Line> lines;
    std::vector<PdfFont> fonts;

    // Whether the character at `index` of `chars` is white space.
    bool isSpace(int index) const
    {
        const Char &ch = chars[size_t(index)];
        return text.mid(ch.textIndex, ch.textLength).trimmed().isEmpty();
    }
};

// The page's text as a structured-text page in display space (with its
// annotations and widgets but `skip` when `annotations`), and the matrix
// from page space to display space. Runs inside a guard.
fz_stext_page *readText(fz_context *c, pdf_page *page, bool annotations, pdf_obj *skip, fz_cookie *cookie, fz_matrix &ctm,
                        int flags = 0);

inline QTransform toQt(const fz_matrix &m)
{
    return QTransform(m.a, m.b, m.c, m.d, m.e, m.f);
}

inline QRectF toQt(const fz_rect &r)
{
    return QRectF(QPointF(std::min(r.x0, r.x1), std::min(r.y0, r.y1)), QPointF(std::max(r.x0, r.x1), std::max(r.y0, r.y1)));
}

// Moves `page` to the most recent end of a least-recently-used list; true when it was not in it.
inline bool touch(std::vector<PdfPage *> &list, PdfPage *page)
{
    auto it = std::find(list.begin(), list.end(), page);
    if (it == list.end()) {
        list.push_back(page);
        return true;
    }
    std::rotate(it, it + 1, list.end());
    return false;
}
