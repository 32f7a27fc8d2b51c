// Internal to the engine: taking a run of glyphs out of a page's content.
// The page first gets a content stream and resources of its own, so no
// other page that shared them changes; MuPDF's content filter then drops
// the glyphs that lie in a box.
#pragma once

#include "MuContext.h"

namespace contentfilter {

inline fz_point middle(fz_rect r)
{
    return {(r.x0 + r.x1) / 2, (r.y0 + r.y1) / 2};
}

// What the content filter takes out: the glyphs whose middles lie in `box`
// (page space). Plain data, as it is used inside MuPDF's error handling.
struct Removal {
    fz_rect box;
    int removed = 0; // glyphs other than spaces
    // Glyph space to page space of each glyph taken out, as far as there is room.
    fz_matrix *matrices = nullptr;
    int capacity = 0;
    int taken = 0;
    int warnings = 0; // errors and warnings of damage while the content was read
};

// Filters the run out of the page's own copy of its content, forms used on
// it included when `forms` (each made the page's own instance).
void filterRun(fz_context *c, pdf_document *doc, pdf_page *page, Removal *removal, bool forms);

// How far a content stream's q and Q take the graphics state stack from
// where it starts: the lowest it falls (0 or less) and where it ends. The
// filter may leave them unbalanced; text added after the content must start
// from the page's own state.
void depthOf(fz_context *c, fz_buffer *content, int *lowest, int *end);

// Sets `key` of `dict` to `value`, or removes it when there is none.
void putEntry(fz_context *c, pdf_obj *dict, pdf_obj *key, pdf_obj *value);

} // namespace contentfilter
