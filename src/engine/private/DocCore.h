// Internal to the engine: the MuPDF document shared by a PdfDocument and every
// page and annotation object that came from it, so they stay usable after the
// PdfDocument itself is gone.
#pragma once

#include "Graft.h"
#include "MuContext.h"
#include "PdfChangeChannel.h"
#include "SafeSave.h"

#include <QString>

#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

class PdfPage;
namespace structure {
struct OutlineIndex;
}

// A copy of the annotation `annot` (and of its popup, linked to it) added to
// `dst` as an object of its own; a new reference. From another document it is
// copied through `graft`; within one document (no graft) it gets appearance
// streams of its own, so restyling one leaves the other as it is. Links to
// the source page, form parent and replied-to note are cut.
pdf_obj *copyAnnotation(fz_context *c, pdf_document *dst, Graft *graft, pdf_obj *annot);

// A font embedded in a document: its font dictionary (a reference the
// document core keeps) and the code that draws each glyph of the face, by the
// glyph's id in the face; a glyph not listed is drawn with its id.
struct EmbeddedFont {
    pdf_obj *font = nullptr;
    std::map<int, int> codes;
};

struct DocCore {
    explicit DocCore(pdf_document *d) : doc(d) {}
    ~DocCore();
    DocCore(const DocCore &) = delete;
    DocCore &operator=(const DocCore &) = delete;

    // MuPDF caches loaded pages by number and reads /Annots only when a page is
    // loaded, so loaded pages are dropped whenever the page tree changes.
    void unloadPages();
    // Pages come in from other documents within a copy batch: one that
    // PdfCopyBatch opens, or one around a single copy. Within a batch,
    // copies from one source share a graft, so what they have in common is
    // copied once; a later batch copies afresh, so it never reuses a stale
    // copy of a source that changed since.
    void beginCopyBatch();
    // The batch's state when this ends the outermost batch, for the caller
    // to finish; null otherwise.
    std::unique_ptr<CopyState> endCopyBatch();
    // The open batch's state, or null.
    CopyState *copying() const { return copying_.get(); }
    // Announces that the list of pages changed; within a copy batch, once
    // when the outermost batch has ended (flushPageList).
    void announcePageList();
    void flushPageList();
    // An indirect reference to `obj` where it has an object number, else `obj`.
    pdf_obj *reference(fz_context *c, pdf_obj *obj);

    pdf_document *doc;
    QString path;
    // The file the document is saved to, as it was when opened or last
    // written: a save over it is refused when another file stands there.
    safesave::FileIdentity file;
    // The file MuPDF reads the document's bytes from; unknown once they are
    // read from memory (after that file was rewritten in place).
    safesave::FileIdentity source;
    // Why the last write failed.
    int writeFailure = 0;
    // Where the document's page changes are announced.
    PdfChangeChannel changes;
    // Pages holding a loaded page or a text layout, least recently used first.
    std::vector<PdfPage *> loadedPages;
    std::vector<PdfPage *> textPages;
    // Content streams (object numbers) found readable, or mended, before a save.
    std::unordered_set<int> checkedContents;
    // Fonts embedded for free-text appearances: whole fonts by their
    // program's digest, subsets by it and their glyphs.
    std::map<std::string, EmbeddedFont> fonts;
    // The outline as read for copies of its pages; dropped when it changes.
    std::shared_ptr<const structure::OutlineIndex> outline;

private:
    int copyBatches_ = 0;
    bool pageListPending_ = false;
    // Its grafts keep their sources alive only while the batch is open.
    std::unique_ptr<CopyState> copying_;
};
