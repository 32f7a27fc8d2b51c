// The one place that decides which font face stands for a PdfFont, for every
// use of text: the appearances written into files, the on-screen editor that
// lets the user type into a text box, and the measuring and line breaking both
// share. Whatever draws or measures a PdfFont asks here, so a line breaks at
// the same word on screen and in the saved file.
#pragma once

#include "PdfTypes.h"

#include <QByteArray>
#include <QFont>
#include <QString>
#include <QStringList>

#include <memory>

// A font file, or one face of a collection, as text is drawn with it.
struct FontFace {
    QByteArray data; // the font file; saved files embed the glyphs a text draws
    int index = 0;   // the face within `data`
    QString family;  // the family Qt knows the face by, once registered
    QString postScriptName;
    int weight = 400;  // OpenType weight class: 400 regular, 700 bold
    bool bold = false; // weight 600 and more
    bool italic = false;

    bool isValid() const { return !data.isEmpty(); }
};

// Process-wide; used on the user-interface thread only.
class FontService {
public:
    // Free text is drawn this far inside its box, on the left, the right and at the top.
    static constexpr qreal TextInset = 2;

    static FontService &instance();

    FontService(const FontService &) = delete;
    FontService &operator=(const FontService &) = delete;

    // The face that stands for `font` (its size does not matter): the
    // installed face fontconfig finds for the name (a PDF font name such as
    // "ABCDEF+Arial-BoldMT" is read as family and style) and style, when it
    // is of that family or one fontconfig puts in its place; else the
    // built-in standard face of its kind (serif, sans-serif or monospace).
    // Faces are looked up once per name and style and kept for the process;
    // the face is invalid only when no source has one.
    const FontFace &resolve(const PdfFont &font);

    // A font that draws with exactly the resolved face, `font.size` logical
    // pixels high (one point per pixel at 100 %), without kerning or hinting,
    // so that Qt measures text as the saved file shows it. The face is
    // registered with Qt on first use; without a QGuiApplication the font only
    // names the family.
    QFont qFont(const PdfFont &font);

    // The advance of one line in points, as the appearance writer draws it:
    // the sum of the glyph widths the embedded font gives, no kerning;
    // characters the face lacks are measured in the fallback face that draws
    // them. 0 when the face cannot be loaded.
    qreal textWidth(const PdfFont &font, const QString &line);

    // How far above its baseline free text in `font` is drawn from the top of
    // its text area, in points: the face's ascender at the font's size.
    qreal ascent(const PdfFont &font);
    // How far below its baseline the face reaches, in points (positive).
    qreal descent(const PdfFont &font);
    // The distance between two baselines of free text in `font`.
    qreal lineAdvance(const PdfFont &font) { return (ascent(font) + descent(font)) * 1.1; }

    // The lines `text` breaks into in a box `width` points wide, the way a
    // plain text editor wrapping at word boundaries (or anywhere, for a word
    // longer than the box) breaks it: at every line feed (also \r\n and \r),
    // else at the last line-break opportunity that fits. Spaces at the end of
    // a line do not count against the width; each line keeps them.
    QStringList wrap(const PdfFont &font, const QString &text, qreal width);

private:
    FontService();
    ~FontService();

    struct Private;
    friend struct FontServiceAccess;
    std::unique_ptr<Private> d_;
};
