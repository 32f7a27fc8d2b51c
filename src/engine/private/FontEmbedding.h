// Internal to the engine: the fonts that appearances draw text with, put
// into a document so that every reader draws the text with the same glyphs.
#pragma once

#include "DocCore.h"

#include <map>

namespace fontembedding {

// A glyph a text draws: its advance in thousandths of the font size, as the
// text was measured, and the character it stands for.
struct UsedGlyph {
    int width = 0;
    char32_t character = 0;
};

// A font in core's document that draws `glyphs` of `font`, each with a
// two-byte code, and maps them back to their characters so that the text can
// be copied. It holds those glyphs alone, as a subset named "ABCDEF+Name"
// whose codes are its own; a font that cannot be cut down is embedded whole,
// once per document, and draws each glyph with its id. The same glyphs of a
// font give the same font again; core keeps it. Throws mu::Error.
const EmbeddedFont &embed(DocCore &core, fz_font *font, const std::map<int, UsedGlyph> &glyphs);

} // namespace fontembedding
