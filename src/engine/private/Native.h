// Internal to the engine: the MuPDF objects behind the public engine classes,
// kept out of the public headers so that no other folder sees a MuPDF type.
#pragma once

#include "MuContext.h"
#include "PdfAnnotation.h"
#include "PdfDisplayList.h"
#include "PdfPage.h"

#include <atomic>

struct PdfPage::Native {
    explicit Native(pdf_obj *page = nullptr) : obj(page) {}
    pdf_obj *obj = nullptr;     // the page dictionary (a reference we own)
    pdf_page *loaded = nullptr; // MuPDF's loaded page, while it is kept
};

struct PdfAnnotation::Native {
    explicit Native(pdf_obj *annotation = nullptr) : obj(annotation) {}
    pdf_obj *obj = nullptr;        // the annotation dictionary (a reference we own)
    pdf_obj *appearance = nullptr; // our normal-appearance stream, reused on changes
};

struct PdfPageRecording::Native {
    pdf_document *doc = nullptr; // references we own
    pdf_obj *page = nullptr;
    pdf_obj *skip = nullptr;
    int number = -1;
    bool annotations = true;
    // The cookie tells a recording under way to stop, for the owner or for
    // a thread that needs the document; this says the owner ended it.
    fz_cookie cookie{};
    std::atomic<bool> cancelled{false};
};

struct PdfDisplayList::Native {
    explicit Native(fz_display_list *recorded) : list(recorded) {}
    fz_display_list *list = nullptr;
};
