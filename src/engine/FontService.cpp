#include "FontService.h"

#include "CffFont.h"
#include "FontFaces.h"
#include "FontPrograms.h"
#include "SystemFonts.h"

#include <QFile>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QScreen>
#include <QTextBoundaryFinder>

#include <ft2build.h>
#include FT_FREETYPE_H

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
    // TeX's Computer Modern and Latin Modern faces go by short names: cmr10, cmbx12, cmtt10.
    static const QRegularExpression tex("^(?:[a-z]{6}\\+)?(?:cm|lm)(r|bx|b|ti|sl|mi|csc|u|tt|ss|ssbx|ssi)\\d");
    const QString texShape = tex.match(name).captured(1);
    const bool bold = font.bold || name.contains("bold") || name.contains("black") || name.contains("heavy") ||
                      texShape == "bx" || texShape == "ssbx" || texShape == "b";
    const bool italic = font.italic || name.contains("italic") || name.contains("oblique") || texShape == "ti" ||
                        texShape == "sl" || texShape == "mi" || texShape == "ssi";
    if (name.contains("courier") || name.contains("mono") || name.contains("consol") || texShape == "tt")
        return bold && italic ? "Courier-BoldOblique" : bold ? "Courier-Bold" : italic ? "Courier-Oblique" : "Courier";
    const bool serif = !name.contains("sans") && !texShape.startsWith("ss") &&
                       (!texShape.isEmpty() || name.contains("times") || name.contains("serif") || name.contains("roman") ||
                        name.contains("georgia") || name.contains("garamond") || name.contains("cambria") ||
                        name.contains("minion") || name.contains("palatino") || name.contains("book"));
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
    found.face.weight = found.face.bold ? 700 : 400;
    found.face.italic = name.contains("Italic") || name.contains("Oblique");
    found.mupdfName = latin;
    found.serif = name.startsWith("Times");
    return found;
}

// Names that stand for the system's default font of a kind rather than for one family.
QStringList genericFamilies()
{
    QStringList generic{"sans-serif", "serif", "monospace", "sans", "mono", "system-ui"};
    if (qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        generic << QFontDatabase::systemFont(QFontDatabase::GeneralFont).family();
    return generic;
}

// The installed face fontconfig finds for the font's name and style.
std::optional<Found> systemFace(const PdfFont &font)
{
    const std::optional<systemfonts::Face> match = systemfonts::find(font.name, font.bold, font.italic, genericFamilies());
    if (!match)
        return std::nullopt;
    // Files are read once; every face of a collection shares its bytes.
    static std::map<QString, QByteArray> files;
    auto file = files.find(match->file);
    if (file == files.end()) {
        QFile f(match->file);
        if (!f.open(QIODevice::ReadOnly))
            return std::nullopt;
        file = files.emplace(match->file, f.readAll()).first;
    }
    // A file that cannot be read as a font leaves the name to the standard faces.
    if (!fontprograms::names(file->second, match->index))
        return std::nullopt;
    Found found;
    found.face.data = file->second;
    found.face.index = match->index;
    found.face.weight = match->weight;
    found.face.bold = match->weight >= 600;
    found.face.italic = match->italic;
    found.face.postScriptName = match->postScriptName;
    found.mupdfName = (match->postScriptName.isEmpty() ? match->family : match->postScriptName).toUtf8();
    found.serif = standardFontName(PdfFont{match->family, 0}).startsWith("Times");
    return found;
}

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
    std::vector<Source> sources{systemFace, standardFace};
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
        } else if (std::optional<fontprograms::Names> names = fontprograms::names(f->face.data, f->face.index)) {
            if (!names->postScriptName.isEmpty())
                f->face.postScriptName = names->postScriptName;
            const QString family = QString::fromUtf8(UniqueFamilyPrefix) + names->family;
            f->qtData = fontprograms::renamed(f->face.data, f->face.index, family);
            if (!f->qtData.isEmpty())
                f->face.family = family;
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
        // The face's own weight and slant, so that Qt never makes a bolder or slanted copy of it.
        q.setWeight(QFont::Weight(std::clamp(face.weight, 100, 900)));
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

Program program(fz_font *font)
{
    Program p;
    if (!font || !font->buffer)
        return p;
    p.data = QByteArray::fromRawData(reinterpret_cast<const char *>(font->buffer->data), qsizetype(font->buffer->len));
    // The low half of FreeType's face index is the face; the high half an instance of a variable font.
    if (const auto face = static_cast<FT_Face>(fz_font_ft_face(mu::ctx(), font)))
        p.index = int(face->face_index & 0xffff);
    return p;
}

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
        Glyph g{face, 0, 0, position, cp};
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

qreal FontService::ascent(const PdfFont &font)
{
    qreal ascender = 0.8;
    try {
        if (fz_font *face = fontfaces::mupdfFont(font))
            mu::tryGuard([&](fz_context *c) { ascender = fz_font_ascender(c, face); });
    } catch (const mu::Error &) {
        // No face at all: the appearance writer's own default.
    }
    return ascender * font.size;
}

qreal FontService::descent(const PdfFont &font)
{
    qreal descender = -0.2;
    try {
        if (fz_font *face = fontfaces::mupdfFont(font))
            mu::tryGuard([&](fz_context *c) { descender = fz_font_descender(c, face); });
    } catch (const mu::Error &) {
        // No face at all: the appearance writer's own default.
    }
    return -descender * font.size;
}
