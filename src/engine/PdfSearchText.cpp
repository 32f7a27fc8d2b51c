// The text a search matches, how it is read from a page and how a query is
// matched in it.
#include "PdfSearchText.h"

#include "SearchTextBuilder.h"

#include <QPolygonF>

#include <algorithm>
#include <cstring>

namespace {

// Marks a hyphen at a line end that joined the two halves of a word.
constexpr char16_t joinedHyphen = 0x00AD;

// The letters of a ligature, or none.
const char *ligature(char32_t c)
{
    switch (c) {
    case 0xFB00: return "ff";
    case 0xFB01: return "fi";
    case 0xFB02: return "fl";
    case 0xFB03: return "ffi";
    case 0xFB04: return "ffl";
    case 0xFB05:
    case 0xFB06: return "st";
    default: return nullptr;
    }
}

bool isHyphen(char32_t c)
{
    return c == u'-' || c == 0x2010 || c == 0x2011 || c == joinedHyphen;
}

// Characters that take no place in the text: controls, and format
// characters such as a soft hyphen inside a line or a zero-width space.
bool isInvisible(char32_t c)
{
    const auto category = QChar::category(c);
    return category == QChar::Other_Control || category == QChar::Other_Format;
}

bool isWordChar(QChar ch)
{
    return ch.isLetterOrNumber() || ch.isMark() || ch == u'_' || ch.unicode() == joinedHyphen;
}

// A unit as it is compared: typographic quotes and hyphens as typed on a
// keyboard, and, unless case matters, case-folded.
char16_t comparable(char16_t u, bool matchCase)
{
    switch (u) {
    case 0x2018: case 0x2019: case 0x201B: case 0x2032: return u'\'';
    case 0x201C: case 0x201D: case 0x201E: case 0x2033: return u'"';
    case 0x2010: case 0x2011: case joinedHyphen: return u'-';
    default: return matchCase ? u : QChar(u).toCaseFolded().unicode();
    }
}

QPointF lerp(QPointF a, QPointF b, qreal t)
{
    return a + (b - a) * t;
}

} // namespace

// ---- Reading a page ---------------------------------------------------------

PdfSearchTextBuilder::PdfSearchTextBuilder(const QTransform &displayToPage, PdfSearchText &out, bool boxes)
    : toPage_(displayToPage), out_(out), boxes_(boxes)
{
}

PdfSearchText PdfSearchTextBuilder::build(const fz_stext_page *page, const QTransform &displayToPage, bool boxes)
{
    PdfSearchText out;
    PdfSearchTextBuilder builder(displayToPage, out, boxes);
    int lineNumber = 0;
    for (const fz_stext_block *block = page ? page->first_block : nullptr; block; block = block->next) {
        if (block->type != FZ_STEXT_BLOCK_TEXT)
            continue;
        for (const fz_stext_line *line = block->u.t.first_line; line; line = line->next, ++lineNumber) {
            for (const fz_stext_char *ch = line->first_char; ch; ch = ch->next)
                if (ch->c > 0 && ch->c <= 0x10FFFF)
                    builder.add(char32_t(ch->c), ch->quad, lineNumber);
            builder.endLine();
        }
    }
    if (out.text_.endsWith(u' ')) {
        out.text_.chop(1);
        if (boxes)
            out.boxes_.pop_back();
    }
    out.text_.squeeze();
    out.boxes_.shrink_to_fit();
    return out;
}

void PdfSearchTextBuilder::add(char32_t c, const fz_quad &q, int line)
{
    if (QChar::isSpace(c)) {
        space();
        return;
    }
    if (isInvisible(c))
        return;
    const PdfSearchText::Quad quad{toPage_.map(QPointF(q.ul.x, q.ul.y)), toPage_.map(QPointF(q.ur.x, q.ur.y)),
                                   toPage_.map(QPointF(q.lr.x, q.lr.y)), toPage_.map(QPointF(q.ll.x, q.ll.y))};
    if (const char *letters = ligature(c)) {
        // Each letter gets its share of the ligature's box.
        const qreal n = qreal(std::strlen(letters));
        for (int i = 0; letters[i]; ++i) {
            const qreal a = i / n, b = (i + 1) / n;
            append(char16_t(letters[i]),
                   {lerp(quad[0], quad[1], a), lerp(quad[0], quad[1], b), lerp(quad[3], quad[2], b), lerp(quad[3], quad[2], a)},
                   line);
        }
        return;
    }
    if (QChar::isMark(c) && composeWithLast(c))
        return;
    if (QChar::requiresSurrogates(c)) {
        append(QChar::highSurrogate(c), quad, line);
        append(QChar::lowSurrogate(c), quad, line);
    } else {
        append(char16_t(c), quad, line);
    }
}

void PdfSearchTextBuilder::endLine()
{
    const QString &t = out_.text_;
    const qsizetype n = t.size();
    hyphenAtBreak_ = n >= 2 && isHyphen(t[n - 1].unicode()) && t[n - 2].isLetter();
    breakPending_ = n > 0;
}

void PdfSearchTextBuilder::append(char16_t u, const PdfSearchText::Quad &quad, int line)
{
    if (breakPending_) {
        breakPending_ = false;
        if (hyphenAtBreak_ && QChar(u).isLetter())
            out_.text_.back() = QChar(joinedHyphen);
        else
            space();
    }
    out_.text_.append(QChar(u));
    if (boxes_)
        out_.boxes_.push_back({quad, line});
}

void PdfSearchTextBuilder::space()
{
    breakPending_ = false;
    if (out_.text_.isEmpty() || out_.text_.back() == u' ')
        return;
    out_.text_.append(QChar(u' '));
    if (boxes_)
        out_.boxes_.push_back({{}, -1});
}

// Puts a combining mark together with the letter before it when Unicode has
// one character for both, as a query typed with that letter has.
bool PdfSearchTextBuilder::composeWithLast(char32_t mark)
{
    QString &t = out_.text_;
    if (t.isEmpty() || breakPending_ || QChar::requiresSurrogates(mark) || t.back().isSurrogate() || t.back() == u' ')
        return false;
    QString pair(t.back());
    pair.append(QChar(char16_t(mark)));
    const QString composed = pair.normalized(QString::NormalizationForm_C);
    if (composed.size() != 1)
        return false;
    t.back() = composed[0];
    return true;
}

// ---- Matching -----------------------------------------------------------------

QString PdfSearchText::searchable(const QString &query)
{
    const QString composed = query.normalized(QString::NormalizationForm_C);
    QString out;
    out.reserve(composed.size());
    for (const char32_t c : composed.toUcs4()) {
        if (QChar::isSpace(c)) {
            if (!out.isEmpty() && out.back() != u' ')
                out.append(u' ');
        } else if (const char *letters = ligature(c)) {
            out.append(QLatin1String(letters));
        } else if (!isInvisible(c)) {
            out.append(QString::fromUcs4(&c, 1));
        }
    }
    if (out.endsWith(u' '))
        out.chop(1);
    return out;
}

std::vector<PdfSearchText::Match> PdfSearchText::find(const QString &query, PdfSearchOptions options) const
{
    std::vector<Match> matches;
    const qsizetype n = text_.size(), m = query.size();
    if (m == 0 || m > n)
        return matches;
    QString wanted(m, Qt::Uninitialized);
    for (qsizetype j = 0; j < m; ++j)
        wanted[j] = QChar(comparable(query[j].unicode(), options.matchCase));
    const char16_t *t = reinterpret_cast<const char16_t *>(text_.constData());
    const char16_t *q = reinterpret_cast<const char16_t *>(wanted.constData());
    const bool wordAtStart = isWordChar(query.front()), wordAtEnd = isWordChar(query.back());
    auto wordAt = [&](qsizetype i) { return i >= 0 && i < n && isWordChar(QChar(t[i])); };
    for (qsizetype start = 0; start + m <= n;) {
        if (comparable(t[start], options.matchCase) != q[0]) {
            ++start;
            continue;
        }
        qsizetype i = start + 1, j = 1;
        while (j < m && i < n) {
            if (t[i] == joinedHyphen && q[j] != u'-') {
                ++i; // the hyphen of a split word matches nothing as well
                continue;
            }
            if (comparable(t[i], options.matchCase) != q[j])
                break;
            ++i;
            ++j;
        }
        const bool whole = !options.wholeWords || ((!wordAtStart || !wordAt(start - 1)) && (!wordAtEnd || !wordAt(i)));
        if (j == m && whole) {
            matches.push_back({int(start), int(i)});
            start = i;
        } else {
            ++start;
        }
    }
    return matches;
}

PdfSearchText::Context PdfSearchText::context(Match match, int around) const
{
    const qsizetype n = text_.size();
    qsizetype from = std::clamp<qsizetype>(match.from - around, 0, n);
    qsizetype to = std::clamp<qsizetype>(match.to + around, 0, n);
    // Whole words only: cut at the first space inside the margin on each side.
    if (from > 0) {
        const qsizetype space = text_.indexOf(u' ', from);
        if (space >= 0 && space < match.from)
            from = space + 1;
    }
    if (to < n) {
        const qsizetype space = text_.lastIndexOf(u' ', to);
        if (space >= match.to)
            to = space;
    }
    Context out;
    if (from > 0)
        out.text += QChar(0x2026);
    for (qsizetype i = from; i < to; ++i) {
        if (i == match.from)
            out.hitFrom = int(out.text.size());
        if (i == match.to)
            out.hitLength = int(out.text.size()) - out.hitFrom;
        if (text_[i] != QChar(joinedHyphen))
            out.text += text_[i];
    }
    if (match.to >= to)
        out.hitLength = int(out.text.size()) - out.hitFrom;
    if (to < n)
        out.text += QChar(0x2026);
    return out;
}

std::vector<PdfSearchText::Quad> PdfSearchText::quads(Match match) const
{
    std::vector<Quad> out;
    const int end = std::min<int>(match.to, int(boxes_.size()));
    int runLine = -1;
    for (int i = std::max(match.from, 0); i < end; ++i) {
        const Box &box = boxes_[size_t(i)];
        if (box.line < 0)
            continue;
        if (box.line != runLine) {
            out.push_back(box.quad);
            runLine = box.line;
            continue;
        }
        Quad &run = out.back();
        const bool upright = run[0].y() == run[1].y() && box.quad[0].y() == box.quad[1].y() && run[0].x() == run[3].x() &&
                             box.quad[0].x() == box.quad[3].x();
        if (upright) {
            // Text that runs along an axis: the box around both, so a taller
            // letter is covered whole.
            const QRectF r = bounds({run, box.quad});
            run = {r.bottomLeft(), r.bottomRight(), r.topRight(), r.topLeft()}; // y is up: "bottom" is the top
        } else {
            run[1] = box.quad[1];
            run[2] = box.quad[2];
        }
    }
    return out;
}

QRectF PdfSearchText::bounds(const std::vector<Quad> &quads)
{
    QRectF r;
    for (const Quad &q : quads)
        r = r.united(QPolygonF({q[0], q[1], q[2], q[3]}).boundingRect());
    return r;
}

PdfSearchText PdfSearchText::withoutBoxes() const
{
    PdfSearchText out;
    out.text_ = text_;
    return out;
}

qint64 PdfSearchText::bytes() const
{
    return qint64(sizeof(*this)) + text_.capacity() * qint64(sizeof(QChar)) + qint64(boxes_.capacity() * sizeof(Box));
}
