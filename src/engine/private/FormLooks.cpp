// The looks of text and choice fields' widgets: where a value's lines go
// (comb cells, auto-size, wrapping, alignment) and the appearance written
// from them.
#include "Appearance.h"
#include "DocCore.h"
#include "FontService.h"
#include "FormInternals.h"

#include <QScopeGuard>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <optional>

using mu::Obj;
using namespace formnative;

namespace {

// Where the lines of a text field's value go.
struct TextLayout {
    qreal size = 12;
    QVector<appearance::Input::PlacedText> lines;
};

qreal alignedX(PdfFormField::Alignment align, qreal width, qreal pad, qreal textWidth)
{
    switch (align) {
    case PdfFormField::Alignment::Center:
        return (width - textWidth) / 2;
    case PdfFormField::Alignment::Right:
        return width - pad - textWidth;
    default:
        return pad;
    }
}

// The size that fits one line of `shown` in a box `width` × `height` (inside
// its padding): as high as the box allows, as narrow as the text needs.
qreal fittedSize(PdfFont font, const QString &shown, qreal width, qreal height)
{
    FontService &fs = FontService::instance();
    font.size = 1;
    const qreal unitHeight = std::max<qreal>(0.5, fs.ascent(font) + fs.descent(font));
    qreal size = height / unitHeight;
    const qreal unitWidth = fs.textWidth(font, shown);
    if (unitWidth > 0)
        size = std::min(size, width / unitWidth);
    return std::clamp<qreal>(size, 2, 72);
}

TextLayout layoutText(PdfFont font, const QString &shown, QSizeF box, qreal border, PdfFormField::Alignment align, bool multiLine,
                      int combCells)
{
    FontService &fs = FontService::instance();
    const qreal w = box.width(), h = box.height();
    const qreal pad = border + FontService::TextInset;
    TextLayout out;
    if (combCells > 0) {
        const QString cells = shown.left(combCells);
        const qreal cell = w / combCells;
        if (font.size <= 0) {
            QString widest; // the size is fitted so the widest character fills a cell
            qreal most = -1;
            PdfFont unit = font;
            unit.size = 1;
            for (QChar ch : cells)
                if (const qreal cw = fs.textWidth(unit, QString(ch)); cw > most)
                    most = cw, widest = QString(ch);
            font.size = std::min<qreal>(12, fittedSize(font, widest, cell - 1, h - 2 * border - 2));
        }
        const qreal baseline = (h - (fs.ascent(font) + fs.descent(font))) / 2 + fs.descent(font);
        for (int i = 0; i < cells.size(); ++i) {
            const QString ch = cells.mid(i, 1);
            out.lines.push_back({QPointF(i * cell + (cell - fs.textWidth(font, ch)) / 2, baseline), ch});
        }
        out.size = font.size;
        return out;
    }
    if (!multiLine) {
        const QString line =
            QString(shown).replace(QLatin1Char('\n'), QLatin1Char(' ')).replace(QLatin1Char('\r'), QLatin1Char(' '));
        // Long values: only what the box can show is measured.
        const QString visible = line.left(2000);
        if (font.size <= 0)
            font.size = fittedSize(font, visible, w - 2 * pad, h - 2 * border - 2);
        const qreal baseline = (h - (fs.ascent(font) + fs.descent(font))) / 2 + fs.descent(font);
        out.lines.push_back({QPointF(alignedX(align, w, pad, fs.textWidth(font, visible)), baseline), visible});
        out.size = font.size;
        return out;
    }
    // Only what the box can show is laid out: the lines that start in it,
    // from no more text than fills them with the narrowest glyphs.
    auto wrapped = [&](const PdfFont &f) {
        const int shownLines = int(std::clamp(std::floor((h - pad) / fs.lineAdvance(f)) + 1, 1.0, 10000.0));
        const qreal perLine = std::clamp((w - 2 * pad) / (f.size * 0.1) + 2, 2.0, 10000.0);
        QStringList lines = fs.wrap(f, shown.left(qsizetype(shownLines * perLine)), w - 2 * pad);
        return lines;
    };
    QStringList lines;
    if (font.size <= 0) {
        for (font.size = 12; font.size > 4; font.size -= 0.5) {
            lines = wrapped(font);
            if (lines.size() * fs.lineAdvance(font) <= h - 2 * pad)
                break;
        }
        if (font.size <= 4)
            font.size = 4;
    }
    lines = wrapped(font);
    const qreal top = h - pad - fs.ascent(font);
    for (int i = 0; i < lines.size(); ++i) {
        const qreal baseline = top - i * fs.lineAdvance(font);
        if (baseline + fs.ascent(font) < 0)
            break;
        out.lines.push_back({QPointF(alignedX(align, w, pad, fs.textWidth(font, lines[i].trimmed())), baseline), lines[i]});
    }
    out.size = font.size;
    return out;
}

// The character the form's font `font` shows for each one-byte code, 0 where
// it shows none (no glyph in the face readers draw it with), when it is a
// simple font; false for any other. Runs inside MuPDF's error handling.
bool formFontCharacters(fz_context *c, pdf_document *doc, pdf_obj *resources, pdf_obj *font, std::array<int, 256> &shown)
{
    pdf_obj *subtype = pdf_dict_get(c, font, PDF_NAME(Subtype));
    if (!pdf_name_eq(c, subtype, PDF_NAME(Type1)) && !pdf_name_eq(c, subtype, PDF_NAME(TrueType)) &&
        !pdf_name_eq(c, subtype, PDF_NAME(MMType1)))
        return false;
    pdf_font_desc *desc = nullptr;
    fz_try(c) desc = pdf_load_font(c, doc, resources, font);
    fz_catch(c) return false;
    for (int code = 1; code < 256; ++code) {
        int ucs = 0;
        if (desc->to_unicode)
            ucs = pdf_lookup_cmap(desc->to_unicode, unsigned(code));
        else if (desc->cid_to_ucs && size_t(code) < desc->cid_to_ucs_len)
            ucs = desc->cid_to_ucs[code];
        shown[size_t(code)] = ucs > 0 && ucs != 0xfffd && pdf_font_cid_to_gid(c, desc, code) > 0 ? ucs : 0;
    }
    pdf_drop_font(c, desc);
    return true;
}

// The code of each character of `lines` in a font that shows `shown`, the
// lowest where several show it; nothing when one is missing.
std::optional<QHash<char32_t, uchar>> codesFor(const std::array<int, 256> &shown,
                                               const QVector<appearance::Input::PlacedText> &lines)
{
    QHash<char32_t, uchar> byCharacter;
    for (int code = 255; code > 0; --code)
        if (shown[size_t(code)] > 0)
            byCharacter.insert(char32_t(shown[size_t(code)]), uchar(code));
    QHash<char32_t, uchar> codes;
    for (const auto &line : lines)
        for (const char32_t ch : line.text.toUcs4()) {
            const auto found = byCharacter.constFind(ch);
            if (found == byCharacter.constEnd())
                return std::nullopt;
            codes.insert(ch, *found);
        }
    return codes;
}

QByteArray point(QPointF p)
{
    return appearance::number(p.x()) + ' ' + appearance::number(p.y()) + ' ';
}

// A circle as four Bézier curves.
QByteArray circle(QPointF centre, qreal r)
{
    const qreal k = 0.5523 * r;
    const qreal x = centre.x(), y = centre.y();
    return point({x + r, y}) + "m " + point({x + r, y + k}) + point({x + k, y + r}) + point({x, y + r}) + "c " +
           point({x - k, y + r}) + point({x - r, y + k}) + point({x - r, y}) + "c " + point({x - r, y - k}) +
           point({x - k, y - r}) + point({x, y - r}) + "c " + point({x + k, y - r}) + point({x + r, y - k}) + point({x + r, y}) +
           "c h ";
}

QByteArray polygon(const std::vector<QPointF> &points)
{
    QByteArray s;
    for (size_t i = 0; i < points.size(); ++i)
        s += point(points[i]) + (i ? "l " : "m ");
    return s + "h ";
}

// The look of a check box or radio button in a box `w` × `h`: the /MK
// background and border (a circle for radio buttons), and when on the mark
// the /MK /CA character names in ZapfDingbats (check ✔ "4", cross "8",
// dot "l", square "n", diamond "u", star "H"), drawn as paths so that no
// font is needed.
QByteArray buttonContent(qreal w, qreal h, bool radio, const QColor &background, const QColor &border, qreal borderWidth,
                         const QColor &markColor, char mark, bool on)
{
    const QPointF c(w / 2, h / 2);
    const qreal side = std::min(w, h);
    const qreal bw = border.isValid() ? borderWidth : 0;
    QByteArray s = "q\n";
    if (background.isValid() && background.alpha() > 0)
        s += appearance::colorOperator(background, "rg") +
             (radio ? circle(c, side / 2) : "0 0 " + appearance::number(w) + ' ' + appearance::number(h) + " re ") + "f\n";
    if (bw > 0)
        s += appearance::colorOperator(border, "RG") + appearance::number(bw) + " w " +
             (radio ? circle(c, (side - bw) / 2)
                    : point({bw / 2, bw / 2}) + appearance::number(w - bw) + ' ' + appearance::number(h - bw) + " re ") +
             "S\n";
    if (on) {
        const qreal r = std::max<qreal>(0.5, side / 2 - bw - side * 0.12);
        s += appearance::colorOperator(markColor, "rg") + appearance::colorOperator(markColor, "RG") + "1 J 1 j " +
             appearance::number(side * 0.12) + " w\n";
        switch (mark) {
        case 'l':
            s += circle(c, r * 0.7) + "f\n";
            break;
        case 'n':
            s += point(c - QPointF(r * 0.7, r * 0.7)) + appearance::number(r * 1.4) + ' ' + appearance::number(r * 1.4) +
                 " re f\n";
            break;
        case 'u':
            s += polygon({c + QPointF(0, r), c + QPointF(r, 0), c - QPointF(0, r), c - QPointF(r, 0)}) + "f\n";
            break;
        case '8':
            s += point(c + QPointF(-r, -r) * 0.75) + "m " + point(c + QPointF(r, r) * 0.75) + "l " +
                 point(c + QPointF(-r, r) * 0.75) + "m " + point(c + QPointF(r, -r) * 0.75) + "l S\n";
            break;
        case 'H': {
            std::vector<QPointF> star;
            for (int i = 0; i < 10; ++i) {
                const qreal a = std::numbers::pi / 2 + i * std::numbers::pi / 5, d = i % 2 ? r * 0.4 : r;
                star.push_back(c + QPointF(std::cos(a) * d, std::sin(a) * d));
            }
            s += polygon(star) + "f\n";
            break;
        }
        default: // the check mark
            s += point(c + QPointF(-r * 0.8, 0)) + "m " + point(c + QPointF(-r * 0.25, -r * 0.65)) + "l " +
                 point(c + QPointF(r * 0.8, r * 0.7)) + "l S\n";
            break;
        }
    }
    return s + "Q\n";
}

} // namespace

void PdfFormField::writeButtonLooks(PdfFieldEdit::Native &edit)
{
    // The names are read once: as soon as one widget has its looks, the
    // field no longer counts as one without any.
    const std::vector<QString> names = onStates();
    for (size_t i = 0; i < native_->widgets.size(); ++i)
        if (!names[i].isEmpty() && !hasLook(native_->widgets[i].obj.get()))
            writeButtonLook(edit, i, names[i]);
}

void PdfFormField::writeButtonLook(PdfFieldEdit::Native &edit, size_t index, const QString &onState)
{
    auto form = form_.lock();
    if (!form)
        return;
    pdf_obj *widget = native_->widgets[index].obj.get();
    const QRectF rect = rectOf(widget);
    pdf_obj *mk = mu::call([&](fz_context *c) { return pdf_dict_get(c, widget, PDF_NAME(MK)); });
    const int rotation =
        ((mu::call([&](fz_context *c) { return pdf_dict_get_int(c, mk, PDF_NAME(R)); }) % 360) + 360) % 360 / 90 * 90;
    const QSizeF box = rotation % 180 ? rect.size().transposed() : rect.size();
    const QColor background = colorOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(BG)); }));
    const QColor border = colorOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(BC)); }));
    const qreal borderWidth = mu::call([&](fz_context *c) {
        pdf_obj *width = pdf_dict_get(c, pdf_dict_get(c, widget, PDF_NAME(BS)), PDF_NAME(W));
        return width ? pdf_to_real(c, width) : 1.0f;
    });
    const QByteArray caption = text(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(CA)); })).toLatin1();
    const bool radio = type_ == Type::RadioButton;
    const char mark = caption.isEmpty() ? (radio ? 'l' : '4') : caption[0];
    // The widget's own /DA first, then its field's and the form's.
    const QColor markColor = readDefaultAppearance(defaultAppearanceOf(*form->core_, widget)).color;
    const QByteArray looks[2] = {
        buttonContent(box.width(), box.height(), radio, background, border, borderWidth, markColor, mark, true),
        buttonContent(box.width(), box.height(), radio, background, border, borderWidth, markColor, mark, false)};
    const QByteArray name = onState.toUtf8();
    edit.touch(widget);
    mu::guard([&](fz_context *c) {
        const fz_rect bbox{0, 0, float(box.width()), float(box.height())};
        pdf_obj *normal = pdf_dict_put_dict(c, pdf_dict_put_dict(c, widget, PDF_NAME(AP), 1), PDF_NAME(N), 2);
        for (int k = 0; k < 2; ++k) {
            pdf_obj *resources = pdf_new_dict(c, form->core_->doc, 0);
            fz_buffer *content = nullptr;
            pdf_obj *stream = nullptr;
            fz_var(content);
            fz_var(stream);
            fz_try(c)
            {
                content = fz_new_buffer_from_copied_data(c, reinterpret_cast<const unsigned char *>(looks[k].constData()),
                                                         size_t(looks[k].size()));
                stream = pdf_new_xobject(c, form->core_->doc, bbox, rotation ? fz_rotate(float(rotation)) : fz_identity,
                                         resources, content);
                pdf_dict_puts(c, normal, k ? "Off" : name.constData(), stream);
            }
            fz_always(c)
            {
                pdf_drop_obj(c, stream);
                fz_drop_buffer(c, content);
                pdf_drop_obj(c, resources);
            }
            fz_catch(c) fz_rethrow(c);
        }
    });
    edit.areas.emplace_back(native_->widgets[index].page, rect);
}

void PdfFormField::writeLook(PdfFieldEdit::Native &edit, size_t index)
{
    auto form = form_.lock();
    if (!form || index >= native_->widgets.size() || type_ == Type::PushButton || type_ == Type::Signature)
        return;
    if (type_ == Type::CheckBox || type_ == Type::RadioButton) {
        // Their looks are the file's own; only widgets that came without any get ours.
        writeButtonLooks(edit);
        return;
    }
    pdf_obj *widget = native_->widgets[index].obj.get();
    const QRectF rect = rectOf(widget);
    appearance::Input in;
    in.type = QStringLiteral("Widget");
    pdf_obj *mk = mu::call([&](fz_context *c) { return pdf_dict_get(c, widget, PDF_NAME(MK)); });
    // A turned widget (/MK /R, counterclockwise) lays its text out in its own
    // upright box, which the appearance's matrix turns onto the rectangle.
    in.rotation = ((mu::call([&](fz_context *c) { return pdf_dict_get_int(c, mk, PDF_NAME(R)); }) % 360) + 360) % 360 / 90 * 90;
    in.size = in.rotation % 180 ? rect.size().transposed() : rect.size();
    const QSizeF box = in.size;
    in.interiorColor = colorOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(BG)); }));
    in.color = colorOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(BC)); }));
    const qreal border = in.color.isValid() ? mu::call([&](fz_context *c) {
        pdf_obj *bs = pdf_dict_get(c, widget, PDF_NAME(BS));
        pdf_obj *width = pdf_dict_get(c, bs, PDF_NAME(W));
        return width ? pdf_to_real(c, width) : 1.0f;
    })
                                            : 0;
    in.borderWidth = border;
    const DefaultAppearance da = readDefaultAppearance(defaultAppearanceOf(*form->core_, native_->field.get()));
    in.fontResource = da.font;
    const QByteArray fontName = appearance::fontNameFromToken(da.font).toUtf8();
    PdfFont font = this->font();
    const Flags f = flags();
    const QString value = this->value();
    in.fontColor = format().showsRed(value) ? QColor(Qt::red) : da.color;

    if (type_ == Type::ListBox) {
        if (font.size <= 0)
            font.size = 12;
        FontService &fs = FontService::instance();
        const qreal pad = border + FontService::TextInset;
        const qreal advance = fs.lineAdvance(font);
        const std::vector<Option> all = choiceOptions();
        const QStringList chosen = values();
        const int top =
            std::clamp(mu::call([&](fz_context *c) { return pdf_dict_get_int(c, native_->field.get(), PDF_NAME(TI)); }), 0,
                       std::max(0, int(all.size()) - 1));
        for (int row = top; row < int(all.size()); ++row) {
            const qreal rowTop = box.height() - border - (row - top) * advance;
            if (rowTop < 0)
                break;
            if (chosen.contains(all[size_t(row)].exportValue))
                in.markedRows.push_back(QRectF(border, rowTop - advance, box.width() - 2 * border, advance));
            in.placedText.push_back({QPointF(pad, rowTop - fs.ascent(font) - (advance - fs.ascent(font) - fs.descent(font)) / 2),
                                     all[size_t(row)].displayValue});
        }
    } else {
        QString shown = displayValue();
        if (f & Password)
            shown = QString(shown.size(), QLatin1Char('*'));
        const bool comb = type_ == Type::Text && (f & Comb) && !(f & (MultiLine | Password)) && maxLength() > 0;
        const TextLayout layout =
            layoutText(font, shown, box, border, alignment(), type_ == Type::Text && (f & MultiLine), comb ? maxLength() : 0);
        font.size = layout.size;
        in.placedText = layout.lines;
    }
    in.font = font;
    // Text the form's own font can show is written in it, as the form's author meant.
    std::array<int, 256> shown{};
    pdf_obj *formFont = mu::call([&](fz_context *c) -> pdf_obj * {
        pdf_obj *resources = pdf_dict_get(c, acroForm(*form->core_), PDF_NAME(DR));
        pdf_obj *named = pdf_dict_gets(c, pdf_dict_get(c, resources, PDF_NAME(Font)), fontName.constData());
        return named && formFontCharacters(c, form->core_->doc, resources, named, shown) ? named : nullptr;
    });
    if (auto codes = formFont ? codesFor(shown, in.placedText) : std::nullopt) {
        in.formFont = formFont;
        in.formFontCodes = std::move(*codes);
    }
    edit.touch(widget);
    // The stream is the widget's now; ours is dropped, also when writing failed after making it.
    pdf_obj *stream = nullptr;
    const auto drop = qScopeGuard([&] { mu::release([&](fz_context *c) { pdf_drop_obj(c, stream); }); });
    appearance::write(*form->core_, widget, in, &stream);
    edit.areas.emplace_back(native_->widgets[index].page, rect);
}
