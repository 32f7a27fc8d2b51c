#include "FontService.h"

#include "FontFaces.h"

#include <QFontDatabase>
#include <QGuiApplication>
#include <QScreen>
#include <QTextBoundaryFinder>

#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace {

// What a source of faces finds for a font.
struct Found {
    FontFace face;        // family is filled in by the service
    QByteArray mupdfName; // MuPDF's name for the font; documents embed it under this name
    bool serif = false;   // MuPDF picks serif fallback faces for serif fonts
};

using Source = std::function<std::optional<Found>(const PdfFont &)>;

// The standard font that best stands in for a font of the page or the system.
QString standardFontName(const PdfFont &font)
{
    const QString name = font.name.toLower();
    const bool bold = font.bold || name.contains("bold") || name.contains("black") || name.contains("heavy");
    const bool italic = font.italic || name.contains("italic") || name.contains("oblique");
    if (name.contains("courier") || name.contains("mono") || name.contains("consol"))
        return bold && italic ? "Courier-BoldOblique" : bold ? "Courier-Bold" : italic ? "Courier-Oblique" : "Courier";
    const bool serif = !name.contains("sans")
                       && (name.contains("times") || name.contains("serif") || name.contains("roman") || name.contains("georgia")
                           || name.contains("garamond") || name.contains("cambria") || name.contains("minion")
                           || name.contains("palatino") || name.contains("book"));
    if (serif)
        return bold && italic ? "Times-BoldItalic" : bold ? "Times-Bold" : italic ? "Times-Italic" : "Times-Roman";
    return bold && italic ? "Helvetica-BoldOblique" : bold ? "Helvetica-Bold" : italic ? "Helvetica-Oblique" : "Helvetica";
}

// MuPDF's built-in copies of the standard fonts.
std::optional<Found> standardFace(const PdfFont &font)
{
    const QString name = standardFontName(font);
    const QByteArray latin = name.toLatin1();
    const unsigned char *data = nullptr;
    int length = 0;
    if (!mu::tryGuard([&](fz_context *c) { data = fz_lookup_base14_font(c, latin.constData(), &length); }) || !data
        || length <= 0)
        return std::nullopt;
    Found found;
    found.face.data = QByteArray::fromRawData(reinterpret_cast<const char *>(data), length);
    found.face.bold = name.contains("Bold");
    found.face.italic = name.contains("Italic") || name.contains("Oblique");
    found.mupdfName = latin;
    found.serif = name.startsWith("Times");
    return found;
}

// Reading and rewriting a bare CFF font program: just enough to learn its
// names and to give it another family name.
namespace cff {

struct Index {
    int end = 0; // the first byte after the index
    std::vector<QByteArray> items;
};

bool readIndex(const QByteArray &d, int pos, Index &out)
{
    auto byte = [&](qsizetype i) { return i < d.size() ? int(uchar(d[i])) : -1; };
    if (pos + 2 > d.size())
        return false;
    const int count = byte(pos) << 8 | byte(pos + 1);
    if (count == 0) {
        out.end = pos + 2;
        return true;
    }
    const int offSize = byte(pos + 2);
    if (offSize < 1 || offSize > 4 || pos + 3 + qsizetype(count + 1) * offSize > d.size())
        return false;
    std::vector<qint64> offsets;
    for (int i = 0; i <= count; ++i) {
        qint64 offset = 0;
        for (int k = 0; k < offSize; ++k)
            offset = offset << 8 | byte(pos + 3 + i * offSize + k);
        offsets.push_back(offset);
    }
    const qint64 base = pos + 3 + qint64(count + 1) * offSize - 1;
    for (int i = 0; i < count; ++i) {
        if (offsets[i] < 1 || offsets[i + 1] < offsets[i] || base + offsets[i + 1] > d.size())
            return false;
        out.items.push_back(d.mid(base + offsets[i], offsets[i + 1] - offsets[i]));
    }
    out.end = int(base + offsets[count]);
    return true;
}

QByteArray writeIndex(const std::vector<QByteArray> &items)
{
    QByteArray out;
    out += char(items.size() >> 8);
    out += char(items.size() & 0xff);
    if (items.empty())
        return out;
    qint64 total = 1;
    for (const QByteArray &item : items)
        total += item.size();
    const int offSize = total < 0x100 ? 1 : total < 0x10000 ? 2 : total < 0x1000000 ? 3 : 4;
    out += char(offSize);
    qint64 offset = 1;
    auto putOffset = [&](qint64 value) {
        for (int k = offSize - 1; k >= 0; --k)
            out += char((value >> (8 * k)) & 0xff);
    };
    putOffset(offset);
    for (const QByteArray &item : items)
        putOffset(offset += item.size());
    for (const QByteArray &item : items)
        out += item;
    return out;
}

// A DICT entry: its operator (12 x is 0x0c00 | x) and its operands as written.
struct Entry {
    int op = 0;
    std::vector<QByteArray> operands;
};

bool readDict(const QByteArray &d, std::vector<Entry> &out)
{
    std::vector<QByteArray> operands;
    for (qsizetype i = 0; i < d.size();) {
        const int b = uchar(d[i]);
        qsizetype length = 0;
        if (b <= 21) {
            const bool escaped = b == 12;
            if (escaped && i + 1 >= d.size())
                return false;
            out.push_back({escaped ? 0x0c00 | uchar(d[i + 1]) : b, std::move(operands)});
            operands.clear();
            i += escaped ? 2 : 1;
            continue;
        }
        if (b == 28)
            length = 3;
        else if (b == 29)
            length = 5;
        else if (b == 30) {
            length = 1;
            while (i + length < d.size() && (uchar(d[i + length]) & 0x0f) != 0x0f && (uchar(d[i + length]) >> 4) != 0x0f)
                ++length;
            ++length;
        } else if (b >= 32 && b <= 246)
            length = 1;
        else if (b >= 247 && b <= 254)
            length = 2;
        else
            return false;
        if (i + length > d.size())
            return false;
        operands.push_back(d.mid(i, length));
        i += length;
    }
    return operands.empty();
}

std::optional<qint64> intOperand(const QByteArray &o)
{
    const int b0 = uchar(o[0]);
    if (b0 >= 32 && b0 <= 246)
        return b0 - 139;
    if (b0 >= 247 && b0 <= 250)
        return (b0 - 247) * 256 + uchar(o[1]) + 108;
    if (b0 >= 251 && b0 <= 254)
        return -(b0 - 251) * 256 - uchar(o[1]) - 108;
    if (b0 == 28)
        return qint16(uchar(o[1]) << 8 | uchar(o[2]));
    if (b0 == 29)
        return qint32(quint32(uchar(o[1])) << 24 | quint32(uchar(o[2])) << 16 | quint32(uchar(o[3])) << 8 | uchar(o[4]));
    return std::nullopt;
}

// Always five bytes, so a DICT's size does not depend on the values it holds.
QByteArray fixedInt(qint64 value)
{
    QByteArray out(1, char(29));
    for (int k = 3; k >= 0; --k)
        out += char((value >> (8 * k)) & 0xff);
    return out;
}

constexpr int FullName = 2, FamilyName = 3, Charset = 15, Encoding = 16, CharStrings = 17, Private = 18;
constexpr int Ros = 0x0c00 | 30, FdArray = 0x0c00 | 36, FdSelect = 0x0c00 | 37;
constexpr int StandardStrings = 391;

struct Font {
    Index names, topDicts, strings;
    std::vector<Entry> top;

    QByteArray string(const Entry *entry) const
    {
        const auto sid = entry && entry->operands.size() == 1 ? intOperand(entry->operands[0]) : std::nullopt;
        if (!sid || *sid < StandardStrings || *sid - StandardStrings >= qint64(strings.items.size()))
            return {};
        return strings.items[size_t(*sid - StandardStrings)];
    }
    Entry *entry(int op)
    {
        for (Entry &e : top)
            if (e.op == op)
                return &e;
        return nullptr;
    }
};

// A font program with one font that is not CID-keyed: the standard fonts are.
std::optional<Font> read(const QByteArray &d)
{
    Font f;
    if (d.size() < 4 || d[0] != 1 || !readIndex(d, uchar(d[2]), f.names) || !readIndex(d, f.names.end, f.topDicts)
        || !readIndex(d, f.topDicts.end, f.strings) || f.names.items.size() != 1 || f.topDicts.items.size() != 1
        || !readDict(f.topDicts.items[0], f.top) || f.entry(Ros))
        return std::nullopt;
    return f;
}

// The same font program with `prefix` put before its family and full names.
// Everything after the strings moves by the same amount, so only the offsets
// in the top DICT change.
QByteArray withFamilyPrefix(const QByteArray &d, const QByteArray &prefix)
{
    std::optional<Font> f = read(d);
    if (!f)
        return {};
    std::map<qint64, qint64> renamed;
    for (int op : {FamilyName, FullName}) {
        Entry *e = f->entry(op);
        const QByteArray old = f->string(e);
        if (old.isEmpty())
            return {};
        const qint64 sid = *intOperand(e->operands[0]);
        if (!renamed.count(sid)) {
            renamed[sid] = StandardStrings + qint64(f->strings.items.size());
            f->strings.items.push_back(prefix + old);
        }
        e->operands[0] = fixedInt(renamed[sid]);
    }
    const int oldRest = f->strings.end;
    auto offsetOperand = [](const Entry &e) -> int {
        if (e.op == Charset || e.op == Encoding)
            return intOperand(e.operands.back()).value_or(0) > 2 ? int(e.operands.size()) - 1 : -1;
        return e.op == CharStrings || e.op == Private || e.op == FdArray || e.op == FdSelect ? int(e.operands.size()) - 1 : -1;
    };
    std::vector<qint64> offsets(f->top.size(), -1);
    for (size_t i = 0; i < f->top.size(); ++i) {
        const int k = offsetOperand(f->top[i]);
        if (k < 0)
            continue;
        offsets[i] = intOperand(f->top[i].operands[size_t(k)]).value_or(-1);
        if (offsets[i] < oldRest)
            return {};
        f->top[i].operands[size_t(k)] = fixedInt(0);
    }
    auto dict = [&] {
        QByteArray out;
        for (const Entry &e : f->top) {
            for (const QByteArray &o : e.operands)
                out += o;
            if (e.op >= 0x0c00)
                out += char(12);
            out += char(e.op & 0xff);
        }
        return out;
    };
    const qint64 delta = f->names.end + writeIndex({dict()}).size() + writeIndex(f->strings.items).size() - oldRest;
    for (size_t i = 0; i < f->top.size(); ++i)
        if (offsets[i] >= 0)
            f->top[i].operands.back() = fixedInt(offsets[i] + delta);
    return d.left(f->names.end) + writeIndex({dict()}) + writeIndex(f->strings.items) + d.mid(oldRest);
}

} // namespace cff

// Qt may already know a system font by the family name a face carries, and
// would then draw with that one; the face is registered under its own name.
const QByteArray UniqueFamilyPrefix = "Vellora ";

qreal logicalDpi()
{
    const bool gui = qobject_cast<QGuiApplication *>(QCoreApplication::instance());
    const QScreen *screen = gui ? QGuiApplication::primaryScreen() : nullptr;
    return screen ? screen->logicalDotsPerInchY() : 72;
}

bool isHardBreak(QChar ch)
{
    return ch == u'\n' || ch == u'\r' || ch == QChar::LineSeparator || ch == QChar::ParagraphSeparator;
}

// Where a line of a paragraph may end: at each line-break opportunity, and at its end.
std::vector<int> lineEnds(const QString &paragraph)
{
    std::vector<int> ends;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Line, paragraph);
    for (qsizetype p = finder.toNextBoundary(); p > 0; p = finder.toNextBoundary())
        if (finder.boundaryReasons() & QTextBoundaryFinder::BreakOpportunity)
            ends.push_back(int(p));
    if (ends.empty() || ends.back() != paragraph.size())
        ends.push_back(int(paragraph.size()));
    return ends;
}

// Appends the lines a paragraph (text without line feeds) breaks into: each
// as long as fits, ending at a line-break opportunity where one fits.
void wrapParagraph(const QString &paragraph, const std::vector<fontfaces::Glyph> &glyphs, qreal size, qreal width,
                   QStringList &lines)
{
    if (paragraph.isEmpty()) {
        lines << QString();
        return;
    }
    size_t first = 0; // the first glyph of the line being filled
    // Whether the text from `from` to `end`, less the spaces it ends with, fits;
    // measured as textWidth measures it.
    auto fits = [&](int from, int end) {
        while (first < glyphs.size() && glyphs[first].position < from)
            ++first;
        qint64 sum = 0, visible = 0;
        for (size_t k = first; k < glyphs.size() && glyphs[k].position < end; ++k) {
            sum += glyphs[k].width;
            if (!paragraph[glyphs[k].position].isSpace())
                visible = sum;
        }
        return visible * size / 1000 <= width;
    };
    const std::vector<int> ends = lineEnds(paragraph);
    for (int from = 0; from < paragraph.size();) {
        int end = -1;
        for (int candidate : ends) {
            if (candidate <= from)
                continue;
            if (!fits(from, candidate))
                break;
            end = candidate;
        }
        if (end < 0) {
            // A word wider than the box: as many whole characters as fit, at least one.
            QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme, paragraph);
            graphemes.setPosition(from);
            end = int(graphemes.toNextBoundary());
            for (qsizetype g = graphemes.toNextBoundary(); g > 0 && fits(from, int(g)); g = graphemes.toNextBoundary())
                end = int(g);
        }
        lines << paragraph.mid(from, end - from);
        from = end;
    }
}

} // namespace

struct FontService::Private {
    struct Face {
        FontFace face;
        QByteArray mupdfName;
        bool serif = false;
        QByteArray qtData; // what Qt is given: the face under its own family name
        bool offeredToQt = false;
        fz_font *mupdf = nullptr;
    };

    // Asked in order; the first face found wins.
    std::vector<Source> sources{standardFace};
    std::map<QString, Face *> byRequest;
    std::vector<std::unique_ptr<Face>> faces;

    static QString requestKey(const PdfFont &font)
    {
        return font.name.toLower() + QLatin1Char('\n') + QLatin1Char(font.bold ? 'b' : '-')
               + QLatin1Char(font.italic ? 'i' : '-');
    }

    Face *face(const PdfFont &font)
    {
        const QString key = requestKey(font);
        if (auto it = byRequest.find(key); it != byRequest.end())
            return it->second;
        for (const Source &source : sources) {
            std::optional<Found> found = source(font);
            if (!found)
                continue;
            Face *f = adopt(std::move(*found));
            byRequest.emplace(key, f);
            return f;
        }
        return nullptr;
    }

    // The face kept for what a source found, shared by every request it answers.
    Face *adopt(Found found)
    {
        for (const auto &f : faces)
            if (f->face.index == found.face.index && f->face.data == found.face.data)
                return f.get();
        auto f = std::make_unique<Face>();
        f->face = std::move(found.face);
        f->mupdfName = std::move(found.mupdfName);
        f->serif = found.serif;
        if (std::optional<cff::Font> program = cff::read(f->face.data)) {
            f->face.postScriptName = QString::fromLatin1(program->names.items[0]);
            f->qtData = cff::withFamilyPrefix(f->face.data, UniqueFamilyPrefix);
            if (!f->qtData.isEmpty())
                f->face.family = QString::fromUtf8(UniqueFamilyPrefix + program->string(program->entry(cff::FamilyName)));
        }
        if (f->qtData.isEmpty())
            f->qtData = f->face.data;
        faces.push_back(std::move(f));
        return faces.back().get();
    }

    void offerToQt(Face &f)
    {
        if (f.offeredToQt || !qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
            return;
        f.offeredToQt = true;
        const int id = QFontDatabase::addApplicationFontFromData(f.qtData);
        if (id >= 0 && f.face.family.isEmpty())
            f.face.family = QFontDatabase::applicationFontFamilies(id).value(0);
    }

    fz_font *mupdf(Face &f)
    {
        if (f.mupdf)
            return f.mupdf;
        const char *name = f.mupdfName.constData();
        const auto *data = reinterpret_cast<const unsigned char *>(f.face.data.constData());
        const int length = int(f.face.data.size()), index = f.face.index;
        const bool serif = f.serif;
        fz_font *made = nullptr;
        mu::guard([&](fz_context *c) {
            made = fz_new_font_from_memory(c, name, data, length, index, 1);
            fz_font_flags(made)->is_serif = serif;
        });
        return f.mupdf = made;
    }
};

struct FontServiceAccess {
    static fz_font *mupdf(const PdfFont &font)
    {
        FontService::Private &d = *FontService::instance().d_;
        FontService::Private::Face *face = d.face(font);
        if (!face)
            throw mu::Error("no font face for " + font.name.toStdString());
        return d.mupdf(*face);
    }
};

FontService::FontService() : d_(std::make_unique<Private>()) {}

FontService::~FontService() = default;

// The service lives as long as the process: the MuPDF fonts it keeps are used
// by every document, and no engine context is left to drop them at exit.
FontService &FontService::instance()
{
    static FontService *service = new FontService;
    return *service;
}

const FontFace &FontService::resolve(const PdfFont &font)
{
    static const FontFace none;
    Private::Face *face = d_->face(font);
    if (!face)
        return none;
    d_->offerToQt(*face);
    return face->face;
}

QFont FontService::qFont(const PdfFont &font)
{
    const FontFace &face = resolve(font);
    QFont q;
    if (face.isValid()) {
        q.setFamilies({face.family});
        q.setBold(face.bold);
        q.setItalic(face.italic);
    }
    q.setKerning(false);
    q.setHintingPreference(QFont::PreferNoHinting);
    if (font.size > 0 && font.size == std::round(font.size))
        q.setPixelSize(int(font.size));
    else if (font.size > 0)
        q.setPointSizeF(font.size * 72 / logicalDpi());
    return q;
}

qreal FontService::textWidth(const PdfFont &font, const QString &line)
{
    qint64 units = 0;
    try {
        for (const fontfaces::Glyph &g : fontfaces::glyphs(font, line))
            units += g.width;
    } catch (const mu::Error &) {
        return 0;
    }
    return units * font.size / 1000;
}

QStringList FontService::wrap(const PdfFont &font, const QString &text, qreal width)
{
    QStringList lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i < text.size() && !isHardBreak(text[i]))
            continue;
        const QString paragraph = text.mid(start, i - start);
        std::vector<fontfaces::Glyph> glyphs;
        try {
            glyphs = fontfaces::glyphs(font, paragraph);
        } catch (const mu::Error &) {
        }
        wrapParagraph(paragraph, glyphs, font.size, width, lines);
        if (i < text.size() && text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n')
            ++i;
        start = i + 1;
    }
    return lines;
}

namespace fontfaces {

fz_font *mupdfFont(const PdfFont &font) { return FontServiceAccess::mupdf(font); }

std::vector<Glyph> glyphs(const PdfFont &font, QStringView text)
{
    fz_font *face = mupdfFont(font);
    std::vector<Glyph> out;
    out.reserve(size_t(text.size()));
    for (qsizetype i = 0; i < text.size();) {
        const int position = int(i);
        char32_t cp = text[i].unicode();
        if (QChar::isHighSurrogate(cp) && i + 1 < text.size() && text[i + 1].isLowSurrogate()) {
            cp = QChar::surrogateToUcs4(text[i], text[i + 1]);
            i += 2;
        } else {
            ++i;
        }
        const int repeat = cp == U'\t' ? 4 : 1;
        if (cp == U'\t')
            cp = U' ';
        Glyph g{face, 0, 0, position};
        mu::guard([&](fz_context *c) {
            g.id = fz_encode_character(c, face, int(cp));
            if (g.id == 0 && cp != U' ')
                g.id = fz_encode_character_with_fallback(c, face, int(cp), 0, 0, &g.font);
            if (!g.font)
                g.font = face;
            g.width = int(fz_advance_glyph(c, g.font, g.id, 0) * 1000);
        });
        for (int k = 0; k < repeat; ++k)
            out.push_back(g);
    }
    return out;
}

} // namespace fontfaces
