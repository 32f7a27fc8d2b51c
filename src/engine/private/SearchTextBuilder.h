// Internal to the engine: turns MuPDF's structured text of a page into the
// text a search matches.
#pragma once

#include "MuContext.h"
#include "PdfSearchText.h"

#include <QTransform>

class PdfSearchTextBuilder {
public:
    // The text of `page` (display space, as MuPDF gives it), with the boxes
    // of its characters mapped to page space by `displayToPage` when `boxes`.
    // Reads plain memory only: no MuPDF call, so no MuPDF error.
    static PdfSearchText build(const fz_stext_page *page, const QTransform &displayToPage, bool boxes);

private:
    PdfSearchTextBuilder(const QTransform &displayToPage, PdfSearchText &out, bool boxes);
    void add(char32_t c, const fz_quad &quad, int line);
    // The end of a line: a space, or nothing after a hyphen that splits a word.
    void endLine();
    void append(char16_t unit, const PdfSearchText::Quad &quad, int line);
    void space();
    bool composeWithLast(char32_t mark);

    QTransform toPage_;
    PdfSearchText &out_;
    bool boxes_;
    bool breakPending_ = false;
    bool hyphenAtBreak_ = false;
};
