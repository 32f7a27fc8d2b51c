// Internal to the engine: appearance streams for the annotation kinds the
// system makes, written in the annotation's own coordinates (origin at the
// lower left of its bounds) so that moving an annotation never needs a new one.
#pragma once

#include "PdfTypes.h"

#include <QByteArray>
#include <QColor>
#include <QHash>
#include <QImage>
#include <QPointF>
#include <QPolygonF>
#include <QSizeF>
#include <QString>
#include <QVector>

#include <optional>

struct DocCore;
typedef struct pdf_obj pdf_obj;
typedef struct fz_context fz_context;

namespace appearance {

struct Input {
    QString type;
    QSizeF size;
    QColor color;
    QColor interiorColor;
    std::optional<qreal> borderWidth;
    QString contents;
    std::optional<PdfFont> font;
    QColor fontColor;
    QVector<QPointF> quadPoints; // relative to the bounds' origin
    QVector<QPolygonF> inkPaths; // relative to the bounds' origin
    QImage stampImage;
    // Free text: the turn of its text, degrees clockwise as the page is shown;
    // `size` is then the text's own box, before it is turned.
    int rotation = 0;
    // Form field widgets ("Widget"): lines of text laid out by the caller,
    // each from a baseline origin relative to the bounds' origin, in `font`
    // at its size; the rows a list box shows as chosen; and the resource name
    // the field's default appearance gives its font ("Helv").
    struct PlacedText {
        QPointF origin;
        QString text;
    };
    QVector<PlacedText> placedText{};
    QVector<QRectF> markedRows{};
    QByteArray fontResource{};
    // The form's own font for that name, when it can show every character
    // placed: its dictionary and each character's one-byte code. The text is
    // then written in it; otherwise the glyphs are embedded as a subset.
    pdf_obj *formFont = nullptr;
    QHash<char32_t, uchar> formFontCodes{};
};

// Writes the normal appearance of `annot` (a dictionary in core's document),
// reusing the stream `*stream` when it is set. Throws mu::Error.
void write(DocCore &core, pdf_obj *annot, const Input &input, pdf_obj **stream);

// The colour a dictionary's colour array gives (gray, RGB or CMYK), with
// `alpha`; invalid for an array of any other length.
QColor colorFromArray(fz_context *c, pdf_obj *array, qreal alpha = 1);

// Formats a number the way content streams want it: short, no exponent.
QByteArray number(qreal value);
// Sets a colour as RGB with the operator `op` ("rg" to fill, "RG" to stroke).
QByteArray colorOperator(const QColor &color, const char *op);

// The name written into a default-appearance string for a font, and back.
QByteArray fontNameToken(const QString &name);
QString fontNameFromToken(const QByteArray &token);

// The font free text is written with: its own, else Helvetica, 12 points
// unless it has a size.
PdfFont freeTextFont(const std::optional<PdfFont> &font);

} // namespace appearance
