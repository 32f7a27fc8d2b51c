#include "Appearance.h"

#include "DocCore.h"
#include "FontEmbedding.h"
#include "FontFaces.h"
#include "FontService.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <vector>

namespace appearance {

QColor colorFromArray(fz_context *c, pdf_obj *array, qreal alpha)
{
    const int n = pdf_array_len(c, array);
    auto at = [&](int i) { return std::clamp<qreal>(pdf_array_get_real(c, array, i), 0, 1); };
    QColor color;
    if (n == 1)
        color = QColor::fromRgbF(at(0), at(0), at(0));
    else if (n == 3)
        color = QColor::fromRgbF(at(0), at(1), at(2));
    else if (n == 4)
        color = QColor::fromRgbF((1 - at(0)) * (1 - at(3)), (1 - at(1)) * (1 - at(3)), (1 - at(2)) * (1 - at(3)));
    if (color.isValid())
        color.setAlphaF(std::clamp<qreal>(alpha, 0, 1));
    return color;
}

QByteArray number(qreal value)
{
    if (!std::isfinite(value) || std::abs(value) < 0.0005)
        return "0";
    QByteArray text = QByteArray::number(value, 'f', 3);
    while (text.endsWith('0'))
        text.chop(1);
    if (text.endsWith('.'))
        text.chop(1);
    return text;
}

// PDF names may hold any byte; white space and delimiters are written as #xx.
QByteArray fontNameToken(const QString &name)
{
    QByteArray out;
    for (char ch : name.toUtf8()) {
        const auto u = static_cast<unsigned char>(ch);
        if (u < 0x21 || u > 0x7e || QByteArray("#()<>[]{}/%").contains(ch))
            out += '#' + QByteArray::number(u, 16).rightJustified(2, '0');
        else
            out += ch;
    }
    return out.isEmpty() ? QByteArray("Helv") : out;
}

QString fontNameFromToken(const QByteArray &token)
{
    QByteArray out;
    for (int i = 0; i < token.size(); ++i) {
        if (token[i] == '#' && i + 2 < token.size()) {
            bool ok = false;
            const int value = token.mid(i + 1, 2).toInt(&ok, 16);
            if (ok) {
                out += char(value);
                i += 2;
                continue;
            }
        }
        out += token[i];
    }
    return QString::fromUtf8(out);
}

PdfFont freeTextFont(const std::optional<PdfFont> &font)
{
    PdfFont out = font.value_or(PdfFont{QStringLiteral("Helvetica"), 12});
    if (out.size <= 0)
        out.size = 12;
    return out;
}

QByteArray colorOperator(const QColor &color, const char *op)
{
    return number(color.redF()) + ' ' + number(color.greenF()) + ' ' + number(color.blueF()) + ' ' + op + '\n';
}

namespace {

// Glyphs of one font drawn in a row, by their ids in the face.
struct GlyphRun {
    size_t font = 0;
    std::vector<int> glyphs;
};

struct Resources {
    bool graphicsState = false;
    qreal strokeAlpha = 1;
    qreal fillAlpha = 1;
    bool multiply = false;
    std::vector<fz_font *> fonts;                                // the first is the face the default appearance names
    std::vector<std::map<int, fontembedding::UsedGlyph>> glyphs; // of each font, by glyph id
    // Text is written once its fonts are embedded, as a subset gives its
    // glyphs codes of its own: the content so far is these pieces, each
    // followed by the codes of a run of glyphs.
    std::vector<QByteArray> pieces;
    std::vector<GlyphRun> runs;
    QByteArray primaryFontName;  // as written in content streams
    pdf_obj *formFont = nullptr; // a form's own font, under primaryFontName, instead of embedded ones
    bool image = false;
};

int fontIndex(Resources &res, fz_font *font)
{
    for (size_t i = 0; i < res.fonts.size(); ++i)
        if (res.fonts[i] == font)
            return int(i);
    res.fonts.push_back(font);
    res.glyphs.emplace_back();
    return int(res.fonts.size() - 1);
}

// The primary face goes by the name the default appearance gives the font, so
// that "/Name size Tf" there finds it; fallback faces are /F1, /F2 and on.
QByteArray fontResourceName(const Resources &res, size_t index)
{
    if (index == 0)
        return res.primaryFontName;
    QByteArray name = 'F' + QByteArray::number(qulonglong(index));
    while (name == res.primaryFontName)
        name += '_';
    return name;
}

QByteArray shapeContent(const Input &in, Resources &res)
{
    const qreal w = in.borderWidth.value_or(1.0);
    const bool stroke = in.color.isValid() && w > 0;
    const bool fill = in.interiorColor.isValid();
    if (!stroke && !fill)
        return {};
    res.graphicsState = true;
    res.strokeAlpha = stroke ? in.color.alphaF() : 1;
    res.fillAlpha = fill ? in.interiorColor.alphaF() : 1;
    QByteArray s = "q /G0 gs\n";
    if (fill)
        s += colorOperator(in.interiorColor, "rg");
    if (stroke)
        s += colorOperator(in.color, "RG") + number(w) + " w\n";
    const qreal inset = stroke ? w / 2 : 0;
    const qreal x0 = inset, y0 = inset;
    const qreal x1 = std::max(inset, in.size.width() - inset), y1 = std::max(inset, in.size.height() - inset);
    if (in.type == QLatin1String("Circle")) {
        const qreal k = 0.5523;
        const qreal cx = (x0 + x1) / 2, cy = (y0 + y1) / 2, rx = (x1 - x0) / 2, ry = (y1 - y0) / 2;
        auto pt = [](qreal x, qreal y) { return number(x) + ' ' + number(y) + ' '; };
        s += pt(cx + rx, cy) + "m\n";
        s += pt(cx + rx, cy + k * ry) + pt(cx + k * rx, cy + ry) + pt(cx, cy + ry) + "c\n";
        s += pt(cx - k * rx, cy + ry) + pt(cx - rx, cy + k * ry) + pt(cx - rx, cy) + "c\n";
        s += pt(cx - rx, cy - k * ry) + pt(cx - k * rx, cy - ry) + pt(cx, cy - ry) + "c\n";
        s += pt(cx + k * rx, cy - ry) + pt(cx + rx, cy - k * ry) + pt(cx + rx, cy) + "c\nh\n";
    } else {
        s += number(x0) + ' ' + number(y0) + ' ' + number(x1 - x0) + ' ' + number(y1 - y0) + " re\n";
    }
    s += fill && stroke ? "B\n" : fill ? "f\n" : "S\n";
    return s + "Q\n";
}

// A note's icon: a sheet in its colour with a folded corner and three lines of writing.
QByteArray noteContent(const Input &in)
{
    const qreal w = in.size.width(), h = in.size.height();
    const qreal fold = std::min(w, h) / 4, e = 0.5;
    auto pt = [](qreal x, qreal y) { return number(x) + ' ' + number(y) + ' '; };
    QByteArray s = "q\n" + colorOperator(in.color.isValid() ? in.color : QColor(255, 213, 79), "rg") + "0.3 0.3 0.3 RG 1 w 1 j\n";
    s += pt(e, e) + "m " + pt(w - e, e) + "l " + pt(w - e, h - fold) + "l " + pt(w - fold, h - e) + "l " + pt(e, h - e) +
         "l h B\n";
    s += pt(w - fold, h - e) + "m " + pt(w - fold, h - fold) + "l " + pt(w - e, h - fold) + "l S\n";
    for (const qreal y : {0.62, 0.45, 0.28})
        s += pt(w * 0.2, h * y) + "m " + pt(w * 0.8, h * y) + "l S\n";
    return s + "Q\n";
}

QByteArray inkContent(const Input &in, Resources &res)
{
    if (!in.color.isValid())
        return {};
    res.graphicsState = true;
    res.strokeAlpha = in.color.alphaF();
    QByteArray s = "q /G0 gs 1 J 1 j\n" + colorOperator(in.color, "RG") + number(in.borderWidth.value_or(1.0)) + " w\n";
    for (const QPolygonF &path : in.inkPaths) {
        for (int i = 0; i < path.size(); ++i)
            s += number(path[i].x()) + ' ' + number(path[i].y()) + (i == 0 ? " m\n" : " l\n");
        if (path.size() == 1)
            s += number(path[0].x()) + ' ' + number(path[0].y()) + " l\n";
        if (!path.isEmpty())
            s += "S\n";
    }
    return s + "Q\n";
}

QByteArray markupContent(const Input &in, Resources &res)
{
    if (!in.color.isValid())
        return {};
    res.graphicsState = true;
    const bool highlight = in.type == QLatin1String("Highlight");
    QByteArray s = "q /G0 gs\n";
    if (highlight) {
        res.multiply = true;
        res.fillAlpha = in.color.alphaF();
        s += colorOperator(in.color, "rg");
    } else {
        res.strokeAlpha = in.color.alphaF();
        s += colorOperator(in.color, "RG");
    }
    auto pt = [](QPointF p) { return number(p.x()) + ' ' + number(p.y()) + ' '; };
    for (int i = 0; i + 3 < in.quadPoints.size(); i += 4) {
        const QPointF ul = in.quadPoints[i], ur = in.quadPoints[i + 1], ll = in.quadPoints[i + 2], lr = in.quadPoints[i + 3];
        if (highlight) {
            s += pt(ll) + "m " + pt(lr) + "l " + pt(ur) + "l " + pt(ul) + "l h f\n";
            continue;
        }
        const qreal height = std::hypot(ul.x() - ll.x(), ul.y() - ll.y());
        const qreal thickness = std::max<qreal>(0.5, height / 14);
        // Underline sits just above the bottom of the line box; strike-out near the middle.
        const qreal f = in.type == QLatin1String("StrikeOut") ? 0.45 : (thickness * 1.5) / std::max<qreal>(height, 1);
        const QPointF a = ll + (ul - ll) * f, b = lr + (ur - lr) * f;
        s += number(thickness) + " w " + pt(a) + "m " + pt(b) + "l S\n";
    }
    return s + "Q\n";
}

// Adds the glyphs of `line` to the text object under way in `s`, each run
// with the font (the face, or a fallback face) that has its glyphs; the codes
// are written once the fonts are embedded.
void showText(QByteArray &s, Resources &res, const PdfFont &font, const QString &line)
{
    std::optional<size_t> currentFont; // each line sets its font anew
    GlyphRun run;
    auto flush = [&] {
        if (run.glyphs.empty())
            return;
        res.pieces.push_back(s + '<');
        res.runs.push_back(std::move(run));
        s = "> Tj\n";
        run = {};
    };
    for (const fontfaces::Glyph &glyph : fontfaces::glyphs(font, line)) {
        const auto index = size_t(fontIndex(res, glyph.font));
        if (index != currentFont) {
            flush();
            s += '/' + fontResourceName(res, index) + ' ' + number(font.size) + " Tf\n";
            currentFont = index;
        }
        run.font = index;
        run.glyphs.push_back(glyph.id);
        res.glyphs[index].try_emplace(glyph.id, fontembedding::UsedGlyph{glyph.width, glyph.character});
    }
    flush();
}

QByteArray freeTextContent(const Input &in, Resources &res)
{
    QByteArray s = "q\n";
    const qreal w = in.size.width(), h = in.size.height();
    if (in.color.isValid() && in.color.alpha() > 0) {
        res.graphicsState = true;
        res.fillAlpha = in.color.alphaF();
        s += "q /G0 gs " + colorOperator(in.color, "rg") + "0 0 " + number(w) + ' ' + number(h) + " re f Q\n";
    }
    const qreal border = in.borderWidth.value_or(0);
    if (border > 0 && in.fontColor.isValid())
        s += colorOperator(in.fontColor, "RG") + number(border) + " w " + number(border / 2) + ' ' + number(border / 2) + ' ' +
             number(w - border) + ' ' + number(h - border) + " re S\n";
    s += "0 0 " + number(w) + ' ' + number(h) + " re W n\n";

    const PdfFont font = freeTextFont(in.font);
    fz_font *base = fontfaces::mupdfFont(font);
    res.primaryFontName = fontNameToken(font.name);
    fontIndex(res, base);
    if (in.contents.isEmpty())
        return s + "Q\n";

    qreal ascender = 0.8, descender = -0.2;
    mu::tryGuard([&](fz_context *c) {
        ascender = fz_font_ascender(c, base);
        descender = fz_font_descender(c, base);
    });
    const qreal inset = FontService::TextInset;
    const qreal lineHeight = (ascender - descender) * font.size * 1.1;
    const QColor textColor = in.fontColor.isValid() ? in.fontColor : QColor(Qt::black);
    s += "BT\n" + colorOperator(textColor, "rg");

    // Only what the box can show is laid out: the lines that start in it,
    // from no more text than fills them with the narrowest glyphs.
    const int shownLines = int(std::clamp(std::floor((h - inset) / lineHeight) + 1, 1.0, 10000.0));
    const qreal perLine = std::clamp((w - 2 * inset) / (font.size * 0.1) + 2, 2.0, 10000.0);
    const QString shown = in.contents.left(qsizetype(shownLines * perLine));
    QStringList lines = FontService::instance().wrap(font, shown, w - 2 * inset);
    if (lines.size() > shownLines)
        lines.erase(lines.begin() + shownLines, lines.end());
    for (int i = 0; i < lines.size(); ++i) {
        const qreal baseline = h - inset - ascender * font.size - i * lineHeight;
        s += "1 0 0 1 " + number(inset) + ' ' + number(baseline) + " Tm\n";
        showText(s, res, font, lines[i]);
    }
    return s + "ET\nQ\n";
}

// A form field's look: its background and border, then its text, clipped to
// the inside of the border and marked as the field's variable text.
QByteArray widgetContent(const Input &in, Resources &res)
{
    const qreal w = in.size.width(), h = in.size.height();
    QByteArray s;
    if (in.interiorColor.isValid() && in.interiorColor.alpha() > 0)
        s += "q " + colorOperator(in.interiorColor, "rg") + "0 0 " + number(w) + ' ' + number(h) + " re f Q\n";
    const qreal border = in.color.isValid() && in.color.alpha() > 0 ? in.borderWidth.value_or(1) : 0;
    if (border > 0)
        s += "q " + colorOperator(in.color, "RG") + number(border) + " w " + number(border / 2) + ' ' + number(border / 2) + ' ' +
             number(w - border) + ' ' + number(h - border) + " re S Q\n";
    const PdfFont font = freeTextFont(in.font);
    res.primaryFontName = in.fontResource.isEmpty() ? fontNameToken(font.name) : in.fontResource;
    const bool formFont = in.formFont && !in.fontResource.isEmpty();
    if (formFont)
        res.formFont = in.formFont;
    else
        fontIndex(res, fontfaces::mupdfFont(font));
    s += "/Tx BMC\nq\n" + number(border) + ' ' + number(border) + ' ' + number(std::max<qreal>(0, w - 2 * border)) + ' ' +
         number(std::max<qreal>(0, h - 2 * border)) + " re W n\n";
    for (const QRectF &row : in.markedRows)
        s += "q 0.6 0.75 0.86 rg " + number(row.x()) + ' ' + number(row.y()) + ' ' + number(row.width()) + ' ' +
             number(row.height()) + " re f Q\n";
    if (!in.placedText.isEmpty()) {
        s += "BT\n" + colorOperator(in.fontColor.isValid() ? in.fontColor : QColor(Qt::black), "rg");
        for (const Input::PlacedText &line : in.placedText) {
            s += "1 0 0 1 " + number(line.origin.x()) + ' ' + number(line.origin.y()) + " Tm\n";
            if (formFont) {
                QByteArray codes;
                for (const char32_t ch : line.text.toUcs4())
                    codes += char(in.formFontCodes.value(ch));
                s += '/' + in.fontResource + ' ' + number(font.size) + " Tf <" + codes.toHex() + "> Tj\n";
            } else {
                showText(s, res, font, line.text);
            }
        }
        s += "ET\n";
    }
    return s + "Q\nEMC\n";
}

QByteArray stampContent(const Input &in, Resources &res)
{
    if (in.stampImage.isNull())
        return {};
    res.graphicsState = true;
    res.multiply = true;
    res.image = true;
    return "q /G0 gs " + number(in.size.width()) + " 0 0 " + number(in.size.height()) + " 0 0 cm /Im0 Do Q\n";
}

// Adds an RGBA8888 image as an image XObject with a soft mask for its
// transparency. The image is converted by the caller: no Qt object may be
// made inside MuPDF's error handling, which would skip its destructor.
pdf_obj *addImage(fz_context *c, pdf_document *doc, const QImage &img)
{
    const int w = img.width(), h = img.height();
    const bool hasAlpha = img.hasAlphaChannel();
    fz_pixmap *rgb = nullptr, *alpha = nullptr;
    fz_image *mask = nullptr, *image = nullptr;
    pdf_obj *ref = nullptr;
    fz_var(rgb);
    fz_var(alpha);
    fz_var(mask);
    fz_var(image);
    fz_try(c)
    {
        rgb = fz_new_pixmap(c, fz_device_rgb(c), w, h, nullptr, 0);
        if (hasAlpha)
            alpha = fz_new_pixmap(c, fz_device_gray(c), w, h, nullptr, 0);
        for (int y = 0; y < h; ++y) {
            const uchar *src = img.constScanLine(y);
            unsigned char *dst = rgb->samples + size_t(y) * size_t(rgb->stride);
            unsigned char *dstAlpha = alpha ? alpha->samples + size_t(y) * size_t(alpha->stride) : nullptr;
            for (int x = 0; x < w; ++x) {
                dst[3 * x] = src[4 * x];
                dst[3 * x + 1] = src[4 * x + 1];
                dst[3 * x + 2] = src[4 * x + 2];
                if (dstAlpha)
                    dstAlpha[x] = src[4 * x + 3];
            }
        }
        if (alpha)
            mask = fz_new_image_from_pixmap(c, alpha, nullptr);
        image = fz_new_image_from_pixmap(c, rgb, mask);
        ref = pdf_add_image(c, doc, image);
    }
    fz_always(c)
    {
        fz_drop_image(c, image);
        fz_drop_image(c, mask);
        fz_drop_pixmap(c, alpha);
        fz_drop_pixmap(c, rgb);
    }
    fz_catch(c) fz_rethrow(c);
    return ref;
}

} // namespace

void write(DocCore &core, pdf_obj *annot, const Input &input, pdf_obj **stream)
{
    Resources res;
    QByteArray content;
    const QString &type = input.type;
    if (type == QLatin1String("Square") || type == QLatin1String("Circle"))
        content = shapeContent(input, res);
    else if (type == QLatin1String("Ink"))
        content = inkContent(input, res);
    else if (type == QLatin1String("Highlight") || type == QLatin1String("Underline") || type == QLatin1String("StrikeOut"))
        content = markupContent(input, res);
    else if (type == QLatin1String("FreeText"))
        content = freeTextContent(input, res);
    else if (type == QLatin1String("Stamp"))
        content = stampContent(input, res);
    else if (type == QLatin1String("Widget"))
        content = widgetContent(input, res);
    else if (type == QLatin1String("Text"))
        content = noteContent(input);
    else
        return;

    // Each font holds the glyphs this text draws, so that any text shows and
    // the file grows by little more than what it draws.
    std::vector<pdf_obj *> fontRefs;
    std::vector<QByteArray> fontNames;
    std::vector<const EmbeddedFont *> embedded;
    for (size_t i = 0; i < res.fonts.size(); ++i) {
        fontNames.push_back(fontNameFromToken(fontResourceName(res, i)).toUtf8());
        embedded.push_back(&fontembedding::embed(core, res.fonts[i], res.glyphs[i]));
        fontRefs.push_back(embedded.back()->font);
    }
    if (!res.runs.empty()) {
        QByteArray text;
        for (size_t i = 0; i < res.runs.size(); ++i) {
            text += res.pieces[i];
            const std::map<int, int> &codes = embedded[res.runs[i].font]->codes;
            for (int id : res.runs[i].glyphs) {
                const auto code = codes.find(id);
                text += QByteArray::number(code == codes.end() ? id : code->second, 16).rightJustified(4, '0');
            }
        }
        content = text + content;
    }
    pdf_obj *imageRef = nullptr;
    if (res.image) {
        const QImage rgba = input.stampImage.convertToFormat(QImage::Format_RGBA8888);
        mu::guard([&](fz_context *c) { imageRef = addImage(c, core.doc, rgba); });
    }

    const fz_rect bbox{0, 0, float(input.size.width()), float(input.size.height())};
    // Turned text is turned back the other way in page space; readers fit the turned box onto /Rect.
    const fz_matrix matrix = input.rotation ? fz_rotate(float(input.rotation)) : fz_identity;
    pdf_obj *resources = nullptr;
    fz_buffer *buffer = nullptr;
    try {
        mu::guard([&](fz_context *c) {
            resources = pdf_new_dict(c, core.doc, 4);
            if (res.graphicsState) {
                pdf_obj *ext = pdf_dict_put_dict(c, resources, PDF_NAME(ExtGState), 1);
                mu::putsDrop(c, ext, "G0", pdf_new_dict(c, core.doc, 3));
                pdf_obj *gs = pdf_dict_gets(c, ext, "G0");
                pdf_dict_put_real(c, gs, PDF_NAME(CA), res.strokeAlpha);
                pdf_dict_put_real(c, gs, PDF_NAME(ca), res.fillAlpha);
                if (res.multiply)
                    pdf_dict_put(c, gs, PDF_NAME(BM), PDF_NAME(Multiply));
            }
            if (!fontRefs.empty() || res.formFont) {
                pdf_obj *fonts = pdf_dict_put_dict(c, resources, PDF_NAME(Font), int(fontRefs.size()) + 1);
                for (size_t i = 0; i < fontRefs.size(); ++i)
                    pdf_dict_puts(c, fonts, fontNames[i].constData(), fontRefs[i]);
                if (res.formFont)
                    pdf_dict_puts(c, fonts, fontNameFromToken(res.primaryFontName).toUtf8().constData(), res.formFont);
            }
            if (imageRef) {
                pdf_obj *xobjects = pdf_dict_put_dict(c, resources, PDF_NAME(XObject), 1);
                pdf_dict_puts(c, xobjects, "Im0", imageRef);
            }
            buffer = fz_new_buffer_from_copied_data(c, reinterpret_cast<const unsigned char *>(content.constData()),
                                                    size_t(content.size()));
            if (*stream) {
                pdf_update_stream(c, core.doc, *stream, buffer, 0);
                pdf_dict_put_rect(c, *stream, PDF_NAME(BBox), bbox);
                pdf_dict_put_matrix(c, *stream, PDF_NAME(Matrix), matrix);
                pdf_dict_put(c, *stream, PDF_NAME(Resources), resources);
            } else {
                *stream = pdf_new_xobject(c, core.doc, bbox, matrix, resources, buffer);
            }
            pdf_obj *ap = pdf_dict_put_dict(c, annot, PDF_NAME(AP), 1);
            pdf_dict_put(c, ap, PDF_NAME(N), *stream);
        });
    } catch (...) {
        fz_context *c = mu::ctx();
        fz_drop_buffer(c, buffer);
        pdf_drop_obj(c, resources);
        pdf_drop_obj(c, imageRef);
        throw;
    }
    fz_context *c = mu::ctx();
    fz_drop_buffer(c, buffer);
    pdf_drop_obj(c, resources);
    pdf_drop_obj(c, imageRef);
}

} // namespace appearance
