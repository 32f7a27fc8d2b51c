#include "FontEmbedding.h"

#include "DocCore.h"
#include "FontFaces.h"
#include "FontPrograms.h"

#include <QByteArray>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

namespace fontembedding {

namespace {

// What a font is known by in core.fonts: its program's digest, and the glyphs
// of a subset.
std::string fontKey(fz_font *font)
{
    unsigned char digest[16] = {};
    mu::guard([&](fz_context *c) { fz_font_digest(c, font, digest); });
    return QByteArray(reinterpret_cast<const char *>(digest), sizeof digest).toHex().toStdString();
}

// A PostScript name as a PDF name may hold it.
QByteArray nameToken(const QString &name)
{
    QByteArray out;
    for (char ch : name.toLatin1())
        if ((ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9') || ch == '-' || ch == '_' ||
            ch == '.')
            out += ch;
    return out.left(100).isEmpty() ? QByteArray("Font") : out.left(100);
}

QByteArray hex4(unsigned value)
{
    return QByteArray::number(value, 16).toUpper().rightJustified(4, '0');
}

// The map from codes back to the characters their glyphs draw.
QByteArray toUnicodeCMap(const std::map<int, UsedGlyph> &byCode)
{
    std::vector<QByteArray> lines;
    for (const auto &[id, glyph] : byCode) {
        QByteArray utf16;
        for (QChar ch : QString::fromUcs4(&glyph.character, 1))
            utf16 += hex4(ch.unicode());
        lines.push_back('<' + hex4(unsigned(id)) + "> <" + utf16 + ">\n");
    }
    QByteArray entries;
    // At most a hundred entries to a block.
    for (size_t i = 0; i < lines.size(); i += 100) {
        const size_t n = std::min<size_t>(100, lines.size() - i);
        entries += QByteArray::number(qulonglong(n)) + " beginbfchar\n";
        for (size_t k = i; k < i + n; ++k)
            entries += lines[k];
        entries += "endbfchar\n";
    }
    return "/CIDInit /ProcSet findresource begin\n12 dict begin\nbegincmap\n"
           "/CIDSystemInfo << /Registry (Adobe) /Ordering (UCS) /Supplement 0 >> def\n"
           "/CMapName /Adobe-Identity-UCS def\n/CMapType 2 def\n"
           "1 begincodespacerange\n<0000> <FFFF>\nendcodespacerange\n" +
           entries + "endcmap\nCMapName currentdict /CMap defineresource pop\nend\nend\n";
}

// Runs of consecutive codes and their glyphs' widths, as the W array lists them.
std::vector<std::pair<int, std::vector<int>>> widthRuns(const std::map<int, UsedGlyph> &byCode)
{
    std::vector<std::pair<int, std::vector<int>>> runs;
    for (const auto &[code, glyph] : byCode) {
        if (runs.empty() || runs.back().first + int(runs.back().second.size()) != code)
            runs.push_back({code, {}});
        runs.back().second.push_back(glyph.width);
    }
    return runs;
}

// The Type 0 font of a subset: a CID font whose CIDs are the subset's glyph ids.
pdf_obj *addSubset(DocCore &core, fz_font *font, const fontprograms::Subset &subset, const QByteArray &baseFont,
                   const std::map<int, UsedGlyph> &byCode)
{
    const QByteArray cmap = toUnicodeCMap(byCode);
    const std::vector<std::pair<int, std::vector<int>>> runs = widthRuns(byCode);
    const bool cff = subset.cff;
    const qreal italicAngle = subset.italicAngle, capHeight = subset.capHeight;
    fz_context *ctx = mu::ctx();
    fz_buffer *programBuffer = nullptr, *cmapBuffer = nullptr;
    pdf_obj *file = nullptr, *descriptor = nullptr, *cid = nullptr, *toUnicode = nullptr, *type0 = nullptr;
    auto release = [&] {
        fz_drop_buffer(ctx, programBuffer);
        fz_drop_buffer(ctx, cmapBuffer);
        pdf_drop_obj(ctx, file);
        pdf_drop_obj(ctx, descriptor);
        pdf_drop_obj(ctx, cid);
        pdf_drop_obj(ctx, toUnicode);
    };
    try {
        mu::guard([&](fz_context *c) {
            pdf_document *doc = core.doc;
            programBuffer = fz_new_buffer_from_copied_data(c, reinterpret_cast<const unsigned char *>(subset.program.constData()),
                                                           size_t(subset.program.size()));
            file = pdf_add_stream(c, doc, programBuffer, nullptr, 0);
            if (cff)
                pdf_dict_put(c, file, PDF_NAME(Subtype), PDF_NAME(OpenType));
            else
                pdf_dict_put_int(c, file, PDF_NAME(Length1), subset.program.size());

            const float ascender = fz_font_ascender(c, font), descender = fz_font_descender(c, font);
            fz_rect box = fz_font_bbox(c, font);
            if (fz_is_empty_rect(box))
                box = fz_make_rect(0, descender, 1, ascender);
            const fz_font_flags_t *flags = fz_font_flags(font);
            // Symbolic: the glyphs are not a standard Latin set.
            const int descriptorFlags = 4 | (flags->is_mono ? 1 : 0) | (flags->is_serif ? 2 : 0) | (flags->is_italic ? 64 : 0);
            descriptor = pdf_add_new_dict(c, doc, 11);
            pdf_dict_put(c, descriptor, PDF_NAME(Type), PDF_NAME(FontDescriptor));
            pdf_dict_put_name(c, descriptor, PDF_NAME(FontName), baseFont.constData());
            pdf_dict_put_int(c, descriptor, PDF_NAME(Flags), descriptorFlags);
            pdf_obj *bbox = pdf_dict_put_array(c, descriptor, PDF_NAME(FontBBox), 4);
            for (float v : {box.x0, box.y0, box.x1, box.y1})
                pdf_array_push_int(c, bbox, std::lround(v * 1000));
            pdf_dict_put_real(c, descriptor, PDF_NAME(ItalicAngle), italicAngle);
            pdf_dict_put_int(c, descriptor, PDF_NAME(Ascent), std::lround(ascender * 1000));
            pdf_dict_put_int(c, descriptor, PDF_NAME(Descent), std::lround(descender * 1000));
            pdf_dict_put_int(c, descriptor, PDF_NAME(CapHeight),
                             capHeight > 0 ? std::lround(capHeight) : std::lround(ascender * 1000));
            pdf_dict_put_int(c, descriptor, PDF_NAME(StemV), flags->is_bold ? 120 : 80);
            pdf_dict_put(c, descriptor, cff ? PDF_NAME(FontFile3) : PDF_NAME(FontFile2), file);

            cid = pdf_add_new_dict(c, doc, 8);
            pdf_dict_put(c, cid, PDF_NAME(Type), PDF_NAME(Font));
            pdf_dict_put(c, cid, PDF_NAME(Subtype), cff ? PDF_NAME(CIDFontType0) : PDF_NAME(CIDFontType2));
            pdf_dict_put_name(c, cid, PDF_NAME(BaseFont), baseFont.constData());
            pdf_obj *info = pdf_dict_put_dict(c, cid, PDF_NAME(CIDSystemInfo), 3);
            pdf_dict_put_string(c, info, PDF_NAME(Registry), "Adobe", 5);
            pdf_dict_put_string(c, info, PDF_NAME(Ordering), "Identity", 8);
            pdf_dict_put_int(c, info, PDF_NAME(Supplement), 0);
            pdf_dict_put(c, cid, PDF_NAME(FontDescriptor), descriptor);
            if (!cff)
                pdf_dict_put(c, cid, PDF_NAME(CIDToGIDMap), PDF_NAME(Identity));
            pdf_obj *w = pdf_dict_put_array(c, cid, PDF_NAME(W), int(runs.size() * 2));
            for (const auto &run : runs) {
                pdf_array_push_int(c, w, run.first);
                pdf_obj *widths = pdf_array_push_array(c, w, int(run.second.size()));
                for (int width : run.second)
                    pdf_array_push_int(c, widths, width);
            }

            cmapBuffer =
                fz_new_buffer_from_copied_data(c, reinterpret_cast<const unsigned char *>(cmap.constData()), size_t(cmap.size()));
            toUnicode = pdf_add_stream(c, doc, cmapBuffer, nullptr, 0);

            type0 = pdf_add_new_dict(c, doc, 6);
            pdf_dict_put(c, type0, PDF_NAME(Type), PDF_NAME(Font));
            pdf_dict_put(c, type0, PDF_NAME(Subtype), PDF_NAME(Type0));
            pdf_dict_put_name(c, type0, PDF_NAME(BaseFont), baseFont.constData());
            pdf_dict_put(c, type0, PDF_NAME(Encoding), PDF_NAME(Identity_H));
            pdf_obj *descendants = pdf_dict_put_array(c, type0, PDF_NAME(DescendantFonts), 1);
            pdf_array_push(c, descendants, cid);
            pdf_dict_put(c, type0, PDF_NAME(ToUnicode), toUnicode);
        });
    } catch (...) {
        release();
        pdf_drop_obj(ctx, type0);
        throw;
    }
    release();
    return type0;
}

} // namespace

const EmbeddedFont &embed(DocCore &core, fz_font *font, const std::map<int, UsedGlyph> &glyphs)
{
    const std::string program = fontKey(font);
    std::string key = program + ':';
    for (const auto &[id, glyph] : glyphs)
        key += ' ' + std::to_string(id) + '=' + std::to_string(unsigned(glyph.character));
    if (auto it = core.fonts.find(key); it != core.fonts.end())
        return it->second;

    const fontfaces::Program source = fontfaces::program(font);
    std::set<unsigned> ids;
    std::set<char32_t> characters;
    for (const auto &[id, glyph] : glyphs) {
        ids.insert(unsigned(id));
        if (glyph.character >= U' ')
            characters.insert(glyph.character);
    }
    EmbeddedFont embedded;
    if (const std::optional<fontprograms::Subset> subset = fontprograms::subset(source.data, source.index, ids, characters)) {
        const std::optional<fontprograms::Names> names = fontprograms::names(source.data, source.index);
        const QString postScript =
            names && !names->postScriptName.isEmpty() ? names->postScriptName : QString::fromUtf8(fz_font_name(mu::ctx(), font));
        const QByteArray baseFont = fontprograms::subsetTag(subset->program) + '+' + nameToken(postScript);
        std::map<int, UsedGlyph> byCode;
        for (const auto &[id, glyph] : glyphs) {
            const int code = int(subset->glyphs.at(unsigned(id)));
            embedded.codes[id] = code;
            byCode[code] = glyph;
        }
        embedded.font = addSubset(core, font, *subset, baseFont, byCode);
    } else {
        // Embedded whole, once per document, for every text drawn with it.
        auto it = core.fonts.find(program);
        if (it == core.fonts.end()) {
            pdf_obj *whole = nullptr;
            mu::guard([&](fz_context *c) { whole = pdf_add_cid_font(c, core.doc, font); });
            it = core.fonts.emplace(program, EmbeddedFont{whole, {}}).first;
        }
        embedded.font = pdf_keep_obj(mu::ctx(), it->second.font);
    }
    return core.fonts.emplace(key, std::move(embedded)).first->second;
}

} // namespace fontembedding
