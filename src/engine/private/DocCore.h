// Internal to the engine: the MuPDF document shared by a PdfDocument and every
// page and annotation object that came from it, so they stay usable after the
// PdfDocument itself is gone.
#pragma once

#include "MuContext.h"

#include <QString>

#include <map>
#include <memory>
#include <string>
#include <vector>

class PdfPage;

struct DocCore {
    explicit DocCore(pdf_document *d) : doc(d) {}
    ~DocCore();
    DocCore(const DocCore &) = delete;
    DocCore &operator=(const DocCore &) = delete;

    // MuPDF caches loaded pages by number and reads /Annots only when a page is
    // loaded, so loaded pages are dropped whenever the page tree changes.
    void unloadPages();
    // A graft map for copying objects from `source`; kept while copies keep
    // coming from the same document, so shared resources are copied once.
    pdf_graft_map *graftMapFor(const std::shared_ptr<DocCore> &source);
    // An indirect reference to `obj` where it has an object number, else `obj`.
    pdf_obj *reference(fz_context *c, pdf_obj *obj);

    pdf_document *doc;
    QString path;
    std::vector<PdfPage *> loadedPages;
    // Fonts embedded for free-text appearances, by font name.
    std::map<std::string, pdf_obj *> fonts;

private:
    std::weak_ptr<DocCore> graftSource_;
    pdf_graft_map *graftMap_ = nullptr;
};
