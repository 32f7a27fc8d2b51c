// The page's text: its layout read once, and the selections, carets and
// fonts found in it.
#include "PdfPage.h"

#include "PageInternals.h"
#include "PdfDocument.h"

#include <QRegularExpression>

namespace {

QString cleanFontName(const char *name)
{
    QString s = QString::fromUtf8(name);
    static const QRegularExpression subsetTag(QStringLiteral("^[A-Z]{6}\\+"));
    return s.remove(subsetTag);
}

} // namespace

PdfPage::Text &PdfPage::textLayout()
{
    if (text_) {
        touch(core_->textPages, this);
        return *text_;
    }
    // Older layouts go first; callers hold a layout only while they use it.
    touch(core_->textPages, this);
    while (int(core_->textPages.size()) > PdfDocument::textLayoutBudget)
        core_->textPages.front()->dropText();
    text_ = std::make_unique<Text>();
    pdf_page *page = load() ? native_->loaded : nullptr;
    if (!page)
        return *text_;
    fz_stext_page *stext = nullptr;
    const bool ok = mu::tryGuard([&](fz_context *c) {
        fz_stext_options opts{};
        fz_device *dev = nullptr;
        fz_var(dev);
        stext = fz_new_stext_page(c, fz_bound_page(c, &page->super));
        fz_try(c)
        {
            dev = fz_new_stext_device(c, stext, &opts);
            pdf_run_page_contents(c, page, dev, fz_identity, nullptr);
            fz_close_device(c, dev);
        }
        fz_always(c) fz_drop_device(c, dev);
        fz_catch(c) fz_rethrow(c);
    });
    fz_context *c = mu::ctx();
    if (ok) {
        Text &t = *text_;
        const QTransform toPage = pageToDisplay().inverted();
        for (fz_stext_block *block = stext->first_block; block; block = block->next) {
            if (block->type != FZ_STEXT_BLOCK_TEXT)
                continue;
            for (fz_stext_line *line = block->u.t.first_line; line; line = line->next) {
                Text::Line l{toPage.mapRect(toQt(line->bbox)), int(t.chars.size()), int(t.chars.size()), std::nullopt};
                if (line->first_char && line->dir.x > 0.99f && std::abs(line->dir.y) < 0.01f && toPage.isAffine() &&
                    toPage.m12() == 0 && toPage.m21() == 0)
                    l.baseline = toPage.map(QPointF(line->first_char->origin.x, line->first_char->origin.y)).y();
                for (fz_stext_char *ch = line->first_char; ch; ch = ch->next) {
                    const QString s = QString::fromUcs4(reinterpret_cast<const char32_t *>(&ch->c), 1);
                    PdfFont font{cleanFontName(fz_font_name(c, ch->font)), ch->size, fz_font_is_bold(c, ch->font) != 0,
                                 fz_font_is_italic(c, ch->font) != 0};
                    if (t.fonts.empty() || t.fonts.back().name != font.name || t.fonts.back().size != font.size)
                        t.fonts.push_back(font);
                    t.chars.push_back({toPage.mapRect(toQt(fz_rect_from_quad(ch->quad))), int(t.text.size()), int(s.size()),
                                       int(t.fonts.size()) - 1});
                    t.text += s;
                }
                l.end = int(t.chars.size());
                if (l.end > l.first)
                    t.lines.push_back(l);
                t.text += QLatin1Char('\n');
            }
        }
    }
    fz_drop_stext_page(c, stext);
    return *text_;
}

QString PdfPage::text()
{
    return textLayout().text;
}

std::optional<PdfFont> PdfPage::fontAt(int textIndex)
{
    const Text &t = textLayout();
    auto it = std::upper_bound(t.chars.begin(), t.chars.end(), textIndex,
                               [](int index, const Text::Char &ch) { return index < ch.textIndex; });
    if (it == t.chars.begin())
        return std::nullopt;
    --it;
    if (textIndex >= it->textIndex + it->textLength)
        return std::nullopt;
    return t.fonts[size_t(it->font)];
}

// The character position (0 .. number of characters) nearest to a page point:
// on the closest line, before the first character whose middle lies right of it.
int PdfPage::caretAt(QPointF point)
{
    const Text &t = textLayout();
    if (t.lines.empty())
        return -1;
    const QPointF &p = point;
    auto distance = [&](const QRectF &r) {
        const qreal dy = std::max({0.0, r.top() - p.y(), p.y() - r.bottom()});
        const qreal dx = std::max({0.0, r.left() - p.x(), p.x() - r.right()});
        return std::pair(dy, dx);
    };
    const Text::Line *best = &t.lines.front();
    for (const auto &line : t.lines)
        if (distance(line.box) < distance(best->box))
            best = &line;
    int caret = best->first;
    while (caret < best->end && t.chars[size_t(caret)].box.center().x() < p.x())
        ++caret;
    return caret;
}

PdfSelection PdfPage::selectionForRange(int fromChar, int toChar)
{
    const Text &t = textLayout();
    std::vector<PdfSelection::Line> lines;
    for (const auto &line : t.lines) {
        const int from = std::max(fromChar, line.first), to = std::min(toChar, line.end);
        if (from >= to)
            continue;
        const auto &first = t.chars[size_t(from)];
        const auto &last = t.chars[size_t(to - 1)];
        QRectF box, marked;
        for (int i = from; i < to; ++i)
            box = box.united(t.chars[size_t(i)].box);
        int markFrom = from, markTo = to;
        while (markFrom < markTo && t.isSpace(markFrom))
            ++markFrom;
        while (markTo > markFrom && t.isSpace(markTo - 1))
            --markTo;
        for (int i = markFrom; i < markTo; ++i)
            marked = marked.united(t.chars[size_t(i)].box);
        lines.push_back(
            {shared_from_this(), t.text.mid(first.textIndex, last.textIndex + last.textLength - first.textIndex), box, marked});
    }
    return PdfSelection(std::move(lines));
}

std::optional<PdfSelection> PdfPage::selectionForLine(QPointF point)
{
    const Text &t = textLayout();
    for (const auto &line : t.lines)
        if (line.box.adjusted(-1, -1, 1, 1).contains(point))
            return selectionForRange(line.first, line.end);
    return std::nullopt;
}

std::optional<PdfSelection> PdfPage::selectionForRun(QPointF point)
{
    const Text &t = textLayout();
    for (const auto &line : t.lines) {
        if (!line.box.adjusted(-1, -1, 1, 1).contains(point))
            continue;
        // Columns of a table are set apart by more than a word space is in
        // running text, even justified (a third of the text's size or less).
        int from = line.first, to = line.end;
        int previous = -1; // the last character that is not white space
        for (int i = line.first; i < line.end; ++i) {
            if (t.isSpace(i))
                continue;
            const QRectF &box = t.chars[size_t(i)].box;
            const qreal widest = 0.7 * t.fonts[size_t(t.chars[size_t(i)].font)].size;
            if (previous >= 0 && box.left() - t.chars[size_t(previous)].box.right() > widest) {
                if (point.x() < box.left()) {
                    to = previous + 1;
                    break;
                }
                from = i;
            }
            previous = i;
        }
        return selectionForRange(from, to);
    }
    return std::nullopt;
}

std::optional<qreal> PdfPage::baselineAt(QPointF point)
{
    const Text &t = textLayout();
    for (const auto &line : t.lines)
        if (line.box.adjusted(-1, -1, 1, 1).contains(point))
            return line.baseline;
    return std::nullopt;
}

std::optional<PdfSelection> PdfPage::selectionForWord(QPointF point)
{
    const int caret = caretAt(point);
    if (caret < 0)
        return std::nullopt;
    const Text &t = textLayout();
    // The character under the point: the one before or after the caret.
    int hit = caret;
    if (hit >= int(t.chars.size()) || (hit > 0 && t.chars[size_t(hit - 1)].box.right() >= point.x()))
        --hit;
    if (hit < 0 || t.isSpace(hit))
        return std::nullopt;
    auto lineOf = std::find_if(t.lines.begin(), t.lines.end(), [&](const auto &l) { return hit >= l.first && hit < l.end; });
    int from = hit, to = hit + 1;
    while (from > lineOf->first && !t.isSpace(from - 1))
        --from;
    while (to < lineOf->end && !t.isSpace(to))
        ++to;
    return selectionForRange(from, to);
}

PdfSelection PdfPage::selectionForAll()
{
    return selectionForRange(0, int(textLayout().chars.size()));
}
