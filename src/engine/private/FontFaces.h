// Internal to the engine: the MuPDF side of the font service. The appearance
// writer draws with these fonts and the service measures with them, so what
// is measured is what the file shows.
#pragma once

#include "MuContext.h"
#include "PdfTypes.h"

#include <QByteArray>
#include <QStringView>

#include <vector>

namespace fontfaces {

// MuPDF's font made from the very bytes FontService::resolve gives for
// `font`; made once per face and kept for the process. Throws mu::Error.
fz_font *mupdfFont(const PdfFont &font);

// The font program MuPDF made `font` from, read in place (it lives as long as
// the font), and the face within it.
struct Program {
    QByteArray data;
    int index = 0;
};
Program program(fz_font *font);

// One glyph of a run of text: the font that has it (the face, or the fallback
// face MuPDF picks for a character the face lacks), its id, its advance in
// thousandths of the font size as the embedded font's widths give it (MuPDF
// truncates the advance when it writes them), and the UTF-16 index of the
// character it draws, and that character (a space for a tab).
struct Glyph {
    fz_font *font = nullptr;
    int id = 0;
    int width = 0;
    int position = 0;
    char32_t character = 0;
};

// The glyphs `text` is drawn with, one per character (a tab is four spaces),
// without kerning. Throws mu::Error.
std::vector<Glyph> glyphs(const PdfFont &font, QStringView text);

} // namespace fontfaces
