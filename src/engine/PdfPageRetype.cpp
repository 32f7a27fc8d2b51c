// Retyping a run of a page's text in its content: the run's glyphs are
// filtered out of the content and the new text is drawn where they started.
#include "PdfPage.h"

#include "Appearance.h"
#include "ContentFilter.h"
#include "FontEmbedding.h"
#include "FontFaces.h"
#include "PageInternals.h"

#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

// The page's /Contents and /Resources before ([0]) and after ([1]) a retype; none where absent.
struct PdfContentEdit::Native {
    mu::Obj contents[2];
    mu::Obj resources[2];
};

namespace {

using Outcome = PdfRetype::Outcome;
using appearance::number;
using namespace contentfilter;

// A structured-text page, dropped when it goes.
struct StextPage {
    fz_stext_page *page = nullptr;
    ~StextPage()
    {
        mu::release([this](fz_context *c) { fz_drop_stext_page(c, page); });
    }
};

// Characters of one line of the layout, in its order.
using Chars = std::vector<const fz_stext_char *>;

bool isSpace(const fz_stext_char *ch)
{
    return ch->c == ' ' || ch->c == 0xa0 || ch->c == '\t';
}

// The letters a character stands for: a ligature's, spelt out.
std::u32string spelt(char32_t c)
{
    switch (c) {
    case 0xFB00:
        return U"ff";
    case 0xFB01:
        return U"fi";
    case 0xFB02:
        return U"fl";
    case 0xFB03:
        return U"ffi";
    case 0xFB04:
        return U"ffl";
    case 0xFB05:
    case 0xFB06:
        return U"st";
    default:
        return std::u32string(1, c);
    }
}

fz_rect charBox(const fz_stext_char *ch)
{
    return fz_rect_from_quad(ch->quad);
}

// One glyph of the new text: the font it is drawn with (an index into the
// fonts written), its code and advance (thousandths of the size), and how
// much further the next glyph starts. A gap stands for a space the page's
// font cannot draw.
struct NewGlyph {
    int font = 0;
    unsigned code = 0;
    int bytes = 2;
    int width = 0;
    bool space = false;
    bool gap = false;
    qreal after = 0;
};

struct Plan {
    std::vector<pdf_obj *> fonts; // borrowed: the page's font, or the document core's embedded ones
    std::vector<NewGlyph> glyphs;
};

// A space the page's font has no glyph for is a gap of a quarter of the size.
constexpr int gapWidth = 250;

// The page's own font for `target` (in its resources or those of the forms
// it draws), loaded, or none.
pdf_font_desc *pageFont(pdf_document *doc, pdf_obj *pageObj, fz_font *target, pdf_obj **fontObj)
{
    pdf_font_desc *found = nullptr;
    auto search = [&](pdf_obj *resources) {
        pdf_obj *fonts = nullptr;
        int count = 0;
        mu::tryGuard([&](fz_context *c) {
            fonts = pdf_dict_get(c, resources, PDF_NAME(Font));
            count = pdf_dict_len(c, fonts);
        });
        for (int i = 0; i < count && !found; ++i)
            mu::tryGuard([&](fz_context *c) {
                pdf_obj *font = pdf_dict_get_val(c, fonts, i);
                pdf_font_desc *desc = pdf_load_font(c, doc, resources, font);
                if (desc->font == target) {
                    found = desc;
                    *fontObj = font;
                } else {
                    pdf_drop_font(c, desc);
                }
            });
    };
    pdf_obj *resources = nullptr, *xobjects = nullptr;
    int forms = 0;
    mu::tryGuard([&](fz_context *c) {
        resources = pdf_dict_get_inheritable(c, pageObj, PDF_NAME(Resources));
        xobjects = pdf_dict_get(c, resources, PDF_NAME(XObject));
        forms = pdf_dict_len(c, xobjects);
    });
    search(resources);
    for (int i = 0; i < forms && !found; ++i) {
        pdf_obj *formResources = nullptr;
        mu::tryGuard(
            [&](fz_context *c) { formResources = pdf_dict_get(c, pdf_dict_get_val(c, xobjects, i), PDF_NAME(Resources)); });
        if (formResources)
            search(formResources);
    }
    return found;
}

// The new text in the page's own font for the run: when it is embedded and
// has a glyph for every character (spaces may become gaps).
std::optional<Plan> ownFontPlan(pdf_document *doc, pdf_obj *pageObj, fz_font *target, const std::u32string &text)
{
    pdf_obj *fontObj = nullptr;
    pdf_font_desc *desc = pageFont(doc, pageObj, target, &fontObj);
    if (!desc)
        return std::nullopt;
    struct Dropper {
        pdf_font_desc *desc;
        ~Dropper()
        {
            mu::release([this](fz_context *c) { pdf_drop_font(c, desc); });
        }
    } dropper{desc};
    pdf_cmap *encoding = desc->encoding;
    if (!desc->is_embedded || desc->wmode || !encoding || encoding->codespace_len < 1)
        return std::nullopt;
    const int bytes = encoding->codespace[0].n;
    for (int i = 0; i < encoding->codespace_len; ++i)
        if (encoding->codespace[i].n != bytes)
            return std::nullopt;
    if (bytes != 1 && bytes != 2)
        return std::nullopt;

    // The code, CID and advance of each character of the text the font draws.
    std::set<char32_t> wanted(text.begin(), text.end());
    std::map<char32_t, std::pair<unsigned, int>> codes;
    const unsigned last = bytes == 1 ? 0xff : 0xffff;
    for (unsigned code = 0; code <= last && codes.size() < wanted.size(); ++code) {
        const int cid = pdf_lookup_cmap(encoding, code);
        if (cid < 0)
            continue;
        int ucs[8] = {};
        int n = desc->to_unicode ? pdf_lookup_cmap_full(desc->to_unicode, unsigned(cid), ucs) : 0;
        if (n == 0 && size_t(cid) < desc->cid_to_ucs_len) {
            ucs[0] = desc->cid_to_ucs[cid];
            n = 1;
        }
        if (n == 1 && wanted.count(char32_t(ucs[0])) && !codes.count(char32_t(ucs[0])))
            codes.emplace(char32_t(ucs[0]), std::pair(code, cid));
    }
    Plan plan;
    plan.fonts.push_back(fontObj);
    for (char32_t ch : text) {
        auto it = codes.find(ch);
        const bool space = ch == U' ' || ch == 0xa0;
        bool drawn = it != codes.end();
        int width = 0;
        if (drawn) {
            // A subset may list a character whose glyph it left out.
            const int cid = it->second.second;
            drawn = mu::tryGuard([&](fz_context *c) {
                const int gid = pdf_font_cid_to_gid(c, desc, cid);
                if (gid <= 0 || (!space && fz_is_empty_rect(fz_bound_glyph(c, desc->font, gid, fz_identity))))
                    fz_throw(c, FZ_ERROR_GENERIC, "no glyph");
                width = pdf_lookup_hmtx(c, desc, cid).w;
            });
        }
        if (!drawn && !space)
            return std::nullopt;
        if (drawn)
            plan.glyphs.push_back({0, it->second.first, bytes, width, space, false});
        else
            plan.glyphs.push_back({0, 0, bytes, gapWidth, true, true});
    }
    return plan;
}

// The new text in the font service's face for the run's font, each face it
// needs embedded as a subset.
Plan servicePlan(DocCore &core, fz_font *target, float size, const QString &text)
{
    fz_context *c = mu::ctx();
    const PdfFont font{QString::fromUtf8(fz_font_name(c, target)), size, fz_font_is_bold(c, target) != 0,
                       fz_font_is_italic(c, target) != 0};
    const std::vector<fontfaces::Glyph> glyphs = fontfaces::glyphs(font, text);
    std::vector<fz_font *> faces;
    std::vector<std::map<int, fontembedding::UsedGlyph>> used;
    std::vector<int> faceOf;
    for (const fontfaces::Glyph &glyph : glyphs) {
        auto it = std::find(faces.begin(), faces.end(), glyph.font);
        if (it == faces.end()) {
            faces.push_back(glyph.font);
            used.emplace_back();
            it = faces.end() - 1;
        }
        const int face = int(it - faces.begin());
        faceOf.push_back(face);
        used[size_t(face)].try_emplace(glyph.id, fontembedding::UsedGlyph{glyph.width, glyph.character});
    }
    Plan plan;
    std::vector<const EmbeddedFont *> embedded;
    for (size_t i = 0; i < faces.size(); ++i) {
        embedded.push_back(&fontembedding::embed(core, faces[i], used[i]));
        plan.fonts.push_back(embedded.back()->font);
    }
    for (size_t i = 0; i < glyphs.size(); ++i) {
        const std::map<int, int> &codes = embedded[size_t(faceOf[i])]->codes;
        const auto code = codes.find(glyphs[i].id);
        plan.glyphs.push_back({faceOf[i], unsigned(code == codes.end() ? glyphs[i].id : code->second), 2, glyphs[i].width,
                               glyphs[i].character == U' ', false});
    }
    return plan;
}

// A piece of the line drawn in one face, colour and size from where its
// first character starts: `matrix` maps its text space to page space.
struct Segment {
    Plan plan;
    const fz_stext_char *first = nullptr;
    size_t kept = 0; // the characters of the run it draws again, from `first` on
    fz_matrix matrix = fz_identity;
    bool ownFont = false;
};

// The operators that draw the segments, each font under its name.
QByteArray textOperators(const std::vector<Segment> &segments, const std::map<pdf_obj *, QByteArray> &names)
{
    QByteArray s = "BT\n0 Tr 0 Tc 0 Tw 100 Tz 0 Ts\n";
    for (const Segment &segment : segments) {
        const int color = segment.first->color;
        const float size = segment.first->size;
        s += number(((color >> 16) & 0xff) / 255.0) + ' ' + number(((color >> 8) & 0xff) / 255.0) + ' ' +
             number((color & 0xff) / 255.0) + " rg\n";
        const fz_matrix &m = segment.matrix;
        for (float v : {m.a, m.b, m.c, m.d, m.e, m.f})
            s += number(v) + ' ';
        s += "Tm\n";
        int font = -1;
        for (const NewGlyph &glyph : segment.plan.glyphs) {
            if (font < 0 || (!glyph.gap && glyph.font != font)) {
                if (font >= 0)
                    s += "] TJ\n";
                font = glyph.font;
                s += '/' + names.at(segment.plan.fonts[size_t(font)]) + ' ' + number(size) + " Tf\n[";
            }
            if (glyph.gap)
                s += ' ' + number(-glyph.width) + ' ';
            else
                s += '<' + QByteArray::number(glyph.code, 16).rightJustified(glyph.bytes * 2, '0') + '>';
            if (std::abs(glyph.after) > 0.05)
                s += ' ' + number(-glyph.after) + ' ';
        }
        if (font >= 0)
            s += "] TJ\n";
    }
    return s + "ET\n";
}

// The pieces that draw the line: the run's first `keep` characters again, a
// piece for each face, colour and size, then `text` after them in the face
// of the character it replaces. Throws mu::Error.
std::vector<Segment> planSegments(DocCore &core, pdf_obj *pageObj, const Chars &hits, size_t keep, const std::u32string &text)
{
    std::vector<Segment> segments;
    auto add = [&](const fz_stext_char *start, size_t kept, const std::u32string &piece) {
        Segment segment;
        segment.first = start;
        segment.kept = kept;
        if (auto own = ownFontPlan(core.doc, pageObj, start->font, piece)) {
            segment.plan = std::move(*own);
            segment.ownFont = true;
        } else {
            segment.plan = servicePlan(core, start->font, start->size, QString::fromStdU32String(piece));
        }
        segments.push_back(std::move(segment));
    };
    for (size_t i = 0; i < keep;) {
        size_t j = i + 1;
        while (j < keep && (isSpace(hits[j]) || (hits[j]->font == hits[i]->font && hits[j]->color == hits[i]->color &&
                                                 hits[j]->size == hits[i]->size)))
            ++j;
        std::u32string piece;
        for (size_t k = i; k < j; ++k)
            piece += char32_t(hits[k]->c);
        add(hits[i], j - i, piece);
        i = j;
    }
    if (!text.empty())
        add(keep < hits.size() ? hits[keep] : hits.back(), 0, text);
    return segments;
}

// Places each piece where its first character started, turned, slanted and
// scaled as the glyph taken out nearest there was, and each glyph drawn
// again where it was: it is followed by the difference between its advance
// and the way to the next one.
void placeSegments(std::vector<Segment> &segments, const Removal &removal, const fz_matrix &toPage, const Chars &hits,
                   const fz_stext_line *line)
{
    size_t at = 0;
    for (Segment &segment : segments) {
        const fz_point origin = fz_transform_point(segment.first->origin, toPage);
        const fz_matrix *nearest = nullptr;
        for (int i = 0; i < removal.taken; ++i) {
            const fz_matrix &m = removal.matrices[i];
            if (!nearest || std::hypot(m.e - origin.x, m.f - origin.y) < std::hypot(nearest->e - origin.x, nearest->f - origin.y))
                nearest = &m;
        }
        const float size = segment.first->size;
        segment.matrix = fz_concat(fz_scale(1 / size, 1 / size), nearest ? *nearest : fz_scale(size, size));
        segment.matrix.e = origin.x;
        segment.matrix.f = origin.y;

        std::vector<NewGlyph> &glyphs = segment.plan.glyphs;
        const qreal scale = size * std::hypot(segment.matrix.a, segment.matrix.b);
        if (segment.kept && glyphs.size() == segment.kept && scale > 0)
            for (size_t g = 0; g + 1 < glyphs.size(); ++g) {
                const fz_point a = hits[at + g]->origin, b = hits[at + g + 1]->origin;
                const qreal way = (b.x - a.x) * line->dir.x + (b.y - a.y) * line->dir.y;
                glyphs[g].after = way / scale * 1000 - glyphs[g].width;
            }
        at += segment.kept;
    }
}

// Spreads the difference between the new text's width and that of the
// characters it replaces (from `start` to the end of `last`) over its
// spaces, when it is close.
void justify(Segment &segment, const fz_stext_char *start, const fz_stext_char *last, const fz_stext_line *line)
{
    std::vector<NewGlyph> &glyphs = segment.plan.glyphs;
    const fz_point end = last->quad.lr;
    const qreal oldWidth =
        ((end.x - start->origin.x) * line->dir.x + (end.y - start->origin.y) * line->dir.y) / start->size * 1000;
    const int spaces = int(std::count_if(glyphs.begin(), glyphs.end(), [](const NewGlyph &g) { return g.space; }));
    int width = 0;
    for (const NewGlyph &glyph : glyphs)
        width += glyph.width;
    if (spaces && std::abs(oldWidth - width) < 0.12 * oldWidth)
        for (NewGlyph &glyph : glyphs)
            glyph.after = glyph.space ? (oldWidth - width) / spaces : 0;
}

// A name in the page's font resources for each font the pieces draw with,
// one no font there has (earlier retypes' included).
std::map<pdf_obj *, QByteArray> fontNames(pdf_obj *pageObj, const std::vector<Segment> &segments)
{
    std::map<pdf_obj *, QByteArray> names;
    pdf_obj *fonts = nullptr;
    mu::tryGuard([&](fz_context *c) { fonts = pdf_dict_get(c, pdf_dict_get(c, pageObj, PDF_NAME(Resources)), PDF_NAME(Font)); });
    int serial = 1;
    for (const Segment &segment : segments)
        for (pdf_obj *font : segment.plan.fonts)
            while (!names.count(font)) {
                const QByteArray name = "VR" + QByteArray::number(serial++);
                bool taken = true;
                mu::tryGuard([&](fz_context *c) { taken = pdf_dict_gets(c, fonts, name.constData()) != nullptr; });
                if (!taken)
                    names.emplace(font, name);
            }
    return names;
}

// Draws `operators` after the page's content, from the page's own graphics
// state, with the fonts they name in its resources.
void appendText(fz_context *c, pdf_document *doc, pdf_obj *pageObj, const char *operators, size_t length,
                const std::vector<std::pair<pdf_obj *, const char *>> &fonts)
{
    pdf_obj *contents = pdf_dict_get(c, pageObj, PDF_NAME(Contents));
    pdf_obj *resources = pdf_dict_get(c, pageObj, PDF_NAME(Resources));
    fz_buffer *old = nullptr, *joined = nullptr;
    fz_var(old);
    fz_var(joined);
    fz_try(c)
    {
        old = pdf_load_stream(c, contents);
        int lowest = 0, end = 0;
        depthOf(c, old, &lowest, &end);
        joined = fz_new_buffer(c, old->len + length + 64);
        for (int i = 0; i < 1 - lowest; ++i)
            fz_append_string(c, joined, "q\n");
        fz_append_buffer(c, joined, old);
        fz_append_byte(c, joined, '\n');
        for (int i = 0; i < 1 - lowest + end; ++i)
            fz_append_string(c, joined, "Q\n");
        fz_append_data(c, joined, operators, length);
        pdf_update_stream(c, doc, contents, joined, 0);
        pdf_obj *fontDict = pdf_dict_get(c, resources, PDF_NAME(Font));
        if (!pdf_is_dict(c, fontDict))
            fontDict = pdf_dict_put_dict(c, resources, PDF_NAME(Font), int(fonts.size()));
        for (const auto &[font, name] : fonts)
            pdf_dict_puts(c, fontDict, name, font);
    }
    fz_always(c)
    {
        fz_drop_buffer(c, old);
        fz_drop_buffer(c, joined);
    }
    fz_catch(c) fz_rethrow(c);
}

// The characters of a layout outside `skip`, spaces apart, by character and
// position (to a tenth of a point).
std::multiset<std::tuple<int, long, long>> charsOutside(fz_stext_page *page, const std::set<const fz_stext_char *> &skip)
{
    std::multiset<std::tuple<int, long, long>> chars;
    for (fz_stext_block *block = page->first_block; block; block = block->next)
        if (block->type == FZ_STEXT_BLOCK_TEXT)
            for (fz_stext_line *line = block->u.t.first_line; line; line = line->next)
                for (fz_stext_char *ch = line->first_char; ch; ch = ch->next)
                    if (!isSpace(ch) && !skip.count(ch))
                        chars.emplace(ch->c, std::lround(ch->origin.x * 10), std::lround(ch->origin.y * 10));
    return chars;
}

// Whether a line runs across the page as shown and another line ends where
// it does (it is set justified; a paragraph's first line may be indented).
bool isJustified(fz_stext_page *page, const fz_stext_line *line)
{
    if (std::abs(line->dir.x) < 0.999f)
        return false;
    for (fz_stext_block *block = page->first_block; block; block = block->next)
        if (block->type == FZ_STEXT_BLOCK_TEXT)
            for (fz_stext_line *other = block->u.t.first_line; other; other = other->next)
                if (other != line && other->dir.x == line->dir.x && std::abs(other->bbox.x1 - line->bbox.x1) < 1)
                    return true;
    return false;
}

} // namespace

PdfRetype PdfPage::retype(const QRectF &run, const QString &newText)
{
    PdfRetype result;
    pdf_page *page = load() ? native_->loaded : nullptr;
    if (!page)
        return result;
    StextPage before;
    fz_matrix ctm = fz_identity;
    if (!mu::tryGuard(
            [&](fz_context *c) { before.page = readText(c, page, false, nullptr, nullptr, ctm, FZ_STEXT_PRESERVE_LIGATURES); })) {
        result.outcome = Outcome::Damaged;
        return result;
    }

    // The line with most characters in the run, and those characters.
    const fz_rect area =
        fz_transform_rect(fz_make_rect(float(run.left()), float(run.top()), float(run.right()), float(run.bottom())), ctm);
    const fz_stext_line *line = nullptr;
    Chars hits;
    int letters = 0;
    for (fz_stext_block *block = before.page->first_block; block; block = block->next) {
        if (block->type != FZ_STEXT_BLOCK_TEXT)
            continue;
        for (fz_stext_line *l = block->u.t.first_line; l; l = l->next) {
            Chars inside;
            int count = 0;
            for (fz_stext_char *ch = l->first_char; ch; ch = ch->next)
                if (fz_is_point_inside_rect(middle(charBox(ch)), area)) {
                    inside.push_back(ch);
                    count += isSpace(ch) ? 0 : 1;
                }
            if (count > letters) {
                letters = count;
                hits = std::move(inside);
                line = l;
            }
        }
    }
    if (!letters)
        return result;
    while (isSpace(hits.back()))
        hits.pop_back();
    while (isSpace(hits.front()))
        hits.erase(hits.begin());
    fz_context *c = mu::ctx();
    const bool alongSide = std::abs(line->dir.x) > 0.999f || std::abs(line->dir.y) > 0.999f;
    for (const fz_stext_char *ch : hits)
        if (fz_font_t3_procs(c, ch->font) || !alongSide) {
            result.outcome = Outcome::Unsupported;
            return result;
        }
    // The text as one line. The characters it starts with as the run did
    // (whole words) are drawn again as they were, where they were, in their
    // own faces and colours; the rest of the run is replaced from there, in
    // the face and colour of the character it starts at.
    QString text = newText;
    text.replace(QLatin1String("\r\n"), QLatin1String(" "))
        .replace(QLatin1Char('\n'), QLatin1Char(' '))
        .replace(QLatin1Char('\r'), QLatin1Char(' '))
        .replace(QLatin1Char('\t'), QLatin1Char(' '));
    std::u32string codePoints = text.toStdU32String();
    int lineLetters = 0;
    for (fz_stext_char *ch = line->first_char; ch; ch = ch->next)
        lineLetters += isSpace(ch) ? 0 : 1;
    const bool wholeLine = lineLetters == letters;
    // The glyphs of the run kept as they are, back to the start of a word,
    // and the code points of the new text they stand for.
    size_t keep = 0, typed = 0;
    auto sameGlyph = [&](size_t a, size_t b) {
        return b < hits.size() && hits[a]->origin.x == hits[b]->origin.x && hits[a]->origin.y == hits[b]->origin.y;
    };
    while (keep < hits.size()) {
        const std::u32string letters = spelt(char32_t(hits[keep]->c));
        // A word with a ligature (one glyph for several letters) is set anew:
        // its glyph may not be drawn the same in another face.
        if (letters.size() > 1 || sameGlyph(keep, keep + 1) || codePoints.compare(typed, letters.size(), letters) != 0)
            break;
        typed += letters.size();
        ++keep;
    }
    while (keep > 0 && keep < hits.size() && !isSpace(hits[keep - 1]))
        typed -= spelt(char32_t(hits[--keep]->c)).size();
    const std::u32string tail = codePoints.substr(typed);
    std::vector<Segment> segments;
    try {
        segments = planSegments(*core_, native_->obj, hits, keep, tail);
    } catch (const mu::Error &) {
        result.outcome = Outcome::Unsupported;
        return result;
    } catch (const std::bad_alloc &) {
        result.outcome = Outcome::Unsupported;
        return result;
    }
    result.ownFont = std::all_of(segments.begin(), segments.end(), [](const Segment &s) { return s.ownFont; });
    if (!tail.empty())
        result.ownFont = segments.back().ownFont;

    // The filter sees glyphs in page space.
    // One glyph may stand for several characters (a ligature its ToUnicode
    // spells out): they share its origin.
    std::set<std::pair<long, long>> glyphs;
    for (const fz_stext_char *ch : hits)
        if (!isSpace(ch))
            glyphs.emplace(std::lround(ch->origin.x * 10), std::lround(ch->origin.y * 10));
    const int needed = int(glyphs.size());
    const fz_matrix toPage = fz_invert_matrix(ctm);
    std::vector<fz_matrix> matrices(hits.size() + 16);
    Removal removal;
    removal.box = fz_empty_rect;
    for (const fz_stext_char *ch : hits)
        removal.box = fz_union_rect(removal.box, fz_transform_rect(charBox(ch), toPage));
    removal.matrices = matrices.data();
    removal.capacity = int(matrices.size());

    pdf_obj *oldContents = nullptr, *oldResources = nullptr;
    mu::tryGuard([&](fz_context *cc) {
        oldContents = pdf_keep_obj(cc, pdf_dict_get(cc, native_->obj, PDF_NAME(Contents)));
        oldResources = pdf_keep_obj(cc, pdf_dict_get(cc, native_->obj, PDF_NAME(Resources)));
    });
    auto native = std::make_unique<PdfContentEdit::Native>();
    native->contents[0] = mu::Obj(oldContents);
    native->resources[0] = mu::Obj(oldResources);
    auto putBack = [&] {
        mu::tryGuard([&](fz_context *cc) {
            putEntry(cc, native_->obj, PDF_NAME(Contents), oldContents);
            putEntry(cc, native_->obj, PDF_NAME(Resources), oldResources);
        });
    };

    // Glyphs drawn on the page itself first; else those of forms it draws too.
    for (bool forms : {false, true}) {
        Removal attempt = removal;
        if (!mu::tryGuard([&](fz_context *cc) { filterRun(cc, core_->doc, page, &attempt, forms); }) || attempt.warnings) {
            putBack();
            result.outcome = Outcome::Damaged;
            return result;
        }
        if (attempt.removed == needed) {
            removal = attempt;
            result.outcome = Outcome::Done;
            break;
        }
        putBack();
        result.outcome = Outcome::Unmatched;
    }
    if (result.outcome != Outcome::Done)
        return result;

    placeSegments(segments, removal, toPage, hits, line);
    if (!tail.empty() && keep < hits.size() && wholeLine && isJustified(before.page, line))
        justify(segments.back(), hits[keep], hits.back(), line);
    const std::map<pdf_obj *, QByteArray> names = fontNames(native_->obj, segments);
    std::vector<std::pair<pdf_obj *, const char *>> fonts;
    for (const auto &[font, name] : names)
        fonts.emplace_back(font, name.constData());
    const QByteArray operators = segments.empty() ? QByteArray() : textOperators(segments, names);
    pdf_obj *newContents = nullptr, *newResources = nullptr;
    const bool written = mu::tryGuard([&](fz_context *cc) {
        if (!operators.isEmpty())
            appendText(cc, core_->doc, native_->obj, operators.constData(), size_t(operators.size()), fonts);
        newContents = pdf_keep_obj(cc, pdf_dict_get(cc, native_->obj, PDF_NAME(Contents)));
        newResources = pdf_keep_obj(cc, pdf_dict_get(cc, native_->obj, PDF_NAME(Resources)));
    });
    native->contents[1] = mu::Obj(newContents);
    native->resources[1] = mu::Obj(newResources);
    if (!written) {
        putBack();
        result.outcome = Outcome::Damaged;
        return result;
    }
    changed(PdfChangeChannel::Content);

    // Every other character of the page stays where it was.
    StextPage after;
    pdf_page *reloaded = load() ? native_->loaded : nullptr;
    const std::set<const fz_stext_char *> replaced(hits.begin(), hits.end());
    const bool read = reloaded && mu::tryGuard([&](fz_context *cc) {
                          after.page = readText(cc, reloaded, false, nullptr, nullptr, ctm, FZ_STEXT_PRESERVE_LIGATURES);
                      });
    if (!read) {
        putBack();
        changed(PdfChangeChannel::Content);
        result.outcome = Outcome::Damaged;
        return result;
    }
    const auto kept = charsOutside(before.page, replaced), now = charsOutside(after.page, {});
    if (!std::includes(now.begin(), now.end(), kept.begin(), kept.end())) {
        putBack();
        changed(PdfChangeChannel::Content);
        result.outcome = Outcome::Unmatched;
        return result;
    }
    result.edit = std::shared_ptr<PdfContentEdit>(new PdfContentEdit(weak_from_this(), std::move(native)));
    return result;
}

PdfContentEdit::PdfContentEdit(std::weak_ptr<PdfPage> page, std::unique_ptr<Native> native)
    : page_(std::move(page)), native_(std::move(native))
{
}

PdfContentEdit::~PdfContentEdit() = default;

void PdfContentEdit::undo()
{
    put(false);
}

void PdfContentEdit::redo()
{
    put(true);
}

void PdfContentEdit::put(bool after)
{
    auto page = page_.lock();
    if (!page)
        return;
    const int i = after ? 1 : 0;
    if (mu::tryGuard([&](fz_context *c) {
            putEntry(c, page->native_->obj, PDF_NAME(Contents), native_->contents[i].get());
            putEntry(c, page->native_->obj, PDF_NAME(Resources), native_->resources[i].get());
        }))
        page->changed(PdfChangeChannel::Content);
}
