// The document's list of pages: pages copied in (with their annotations,
// within copy batches), removed, and the whole list set at once.
#include "PdfDocument.h"

#include "DocCore.h"
#include "Native.h"
#include "PageTree.h"
#include "PdfPage.h"
#include "Structure.h"

#include <unordered_set>

namespace {

// Appends to the page's /Annots copies of the source page's annotations, each
// followed by a copy of its popup, linked to it. A graft lists the copies,
// to be tied up once the page is in.
void copyAnnotations(fz_context *c, pdf_document *dst, Graft *graft, pdf_obj *srcPage, pdf_obj *page)
{
    pdf_obj *annots = pdf_dict_get(c, srcPage, PDF_NAME(Annots));
    const int n = pdf_array_len(c, annots);
    if (n == 0)
        return;
    pdf_obj *copies = pdf_dict_put_array(c, page, PDF_NAME(Annots), n);
    for (int i = 0; i < n; ++i) {
        pdf_obj *annot = pdf_array_get(c, annots, i);
        if (!pdf_is_dict(c, annot) || pdf_name_eq(c, pdf_dict_get(c, annot, PDF_NAME(Subtype)), PDF_NAME(Popup)))
            continue;
        pdf_obj *copy = copyAnnotation(c, dst, graft, annot);
        pdf_array_push_drop(c, copies, copy);
        if (graft)
            mu::cxx(c, [&] { graft->copiedAnnotations.emplace_back(); });
        if (graft) {
            graft->copiedAnnotations.back().first = mu::Obj(pdf_keep_obj(c, annot));
            graft->copiedAnnotations.back().second = mu::Obj(pdf_keep_obj(c, copy));
        }
        pdf_dict_put(c, copy, PDF_NAME(P), page);
        pdf_obj *popup = pdf_dict_get(c, copy, PDF_NAME(Popup));
        if (popup) {
            pdf_array_push(c, copies, popup);
            pdf_dict_put(c, popup, PDF_NAME(P), page);
        }
    }
}

// Builds in `dst` a new page dictionary from `srcPage`, of another document
// (copied through `graft`, into the page's slot, so links to it made
// earlier lead to it) or of `dst` itself (no graft: contents and resources
// are shared, annotations get their own copies). Returns a new reference.
pdf_obj *importPage(fz_context *c, pdf_document *dst, Graft *graft, pdf_obj *srcPage)
{
    auto bring = [&](pdf_obj *obj) { return graft ? graft->bring(c, obj) : pdf_keep_obj(c, obj); };
    pdf_obj *dict = pdf_new_dict(c, dst, 12);
    pdf_obj *ref = nullptr;
    fz_var(ref);
    fz_try(c)
    {
        pdf_dict_put(c, dict, PDF_NAME(Type), PDF_NAME(Page));
        pdf_obj *inherited[] = {PDF_NAME(MediaBox), PDF_NAME(CropBox), PDF_NAME(Rotate), PDF_NAME(Resources)};
        for (pdf_obj *key : inherited) {
            pdf_obj *val = pdf_dict_get_inheritable(c, srcPage, key);
            if (val)
                pdf_dict_put_drop(c, dict, key, bring(val));
        }
        pdf_obj *own[] = {PDF_NAME(Contents), PDF_NAME(BleedBox), PDF_NAME(TrimBox),
                          PDF_NAME(ArtBox),   PDF_NAME(UserUnit), PDF_NAME(Group)};
        for (pdf_obj *key : own) {
            pdf_obj *val = pdf_dict_get(c, srcPage, key);
            if (val)
                pdf_dict_put_drop(c, dict, key, bring(val));
        }
        if (graft) {
            const int num = graft->pageNumber(c, pdf_to_num(c, srcPage));
            pdf_update_object(c, dst, num, dict);
            ref = pdf_new_indirect(c, dst, num, 0);
        } else {
            ref = pdf_add_object(c, dst, dict);
        }
        copyAnnotations(c, dst, graft, srcPage, ref);
    }
    fz_always(c) pdf_drop_obj(c, dict);
    fz_catch(c)
    {
        pdf_drop_obj(c, ref);
        fz_rethrow(c);
    }
    return ref;
}

} // namespace

// Everything C++ needs to list the page is made before MuPDF changes the
// document: once the page is in, nothing may fail.
bool PdfDocument::insert(const std::shared_ptr<PdfPage> &page, int index)
{
    const mu::DocumentsHold hold; // recordings on workers see the page list whole
    if (!page || locked_ || index < 0 || index > int(pages_.size()))
        return false;
    const bool returning = page->core_ == core_ && !page->isUnplacedCopy_ && indexOf(page.get()) < 0;
    try {
        pages_.reserve(pages_.size() + 1);
    } catch (const std::bad_alloc &) {
        return false;
    }
    core_->unloadPages();
    if (returning) {
        if (!mu::tryGuard([&](fz_context *c) {
                pagetree::ensureClean(c, core_->doc);
                pdf_insert_page(c, core_->doc, index, page->native_->obj);
            }))
            return false;
        page->document_ = weak_from_this();
        pages_.insert(pages_.begin() + index, page);
        core_->announcePageList();
        return true;
    }
    // Copied in: from another document, or a second place for a page of this one.
    const bool ownBatch = !core_->copying();
    Graft *graft = nullptr;
    std::unique_ptr<PdfPage::Native> native;
    std::shared_ptr<PdfPage> placed;
    try {
        if (ownBatch)
            core_->beginCopyBatch();
        if (page->core_ != core_)
            graft = &core_->copying()->graftFor(page->core_, core_->doc);
        native = std::make_unique<PdfPage::Native>();
        placed = page->isUnplacedCopy_ ? page : std::shared_ptr<PdfPage>(new PdfPage(core_, std::make_unique<PdfPage::Native>()));
    } catch (const std::bad_alloc &) {
        if (ownBatch && core_->copying())
            endCopyBatch();
        return false;
    }
    pdf_obj *ref = nullptr;
    int sourceNum = 0;
    const bool copied = mu::tryGuard([&](fz_context *c) {
        sourceNum = pdf_to_num(c, page->native_->obj);
        ref = importPage(c, core_->doc, graft, page->native_->obj);
        pagetree::ensureClean(c, core_->doc);
        pdf_insert_page(c, core_->doc, index, ref);
    });
    if (!copied) {
        if (graft)
            graft->copiedAnnotations.clear();
        pdf_drop_obj(mu::ctx(), ref);
        if (ownBatch)
            endCopyBatch();
        return false;
    }
    if (graft) {
        try {
            graft->notePlaced(sourceNum, mu::call([&](fz_context *c) { return pdf_to_num(c, ref); }));
            structure::tieAnnotations(*core_->copying(), *graft);
        } catch (const std::exception &) {
            // The page is in; what its annotations point at is as far as it got.
        }
    }
    native->obj = ref;
    if (placed == page)
        page->place(core_, std::move(native));
    else
        std::swap(placed->native_, native);
    placed->document_ = weak_from_this();
    pages_.insert(pages_.begin() + index, placed);
    core_->announcePageList();
    if (ownBatch)
        endCopyBatch();
    return true;
}

std::vector<int> PdfDocument::pageNumbers() const
{
    std::vector<int> numbers;
    numbers.reserve(pages_.size()); // before the guard: nothing below allocates
    mu::tryGuard([&](fz_context *c) {
        for (const auto &page : pages_)
            numbers.push_back(pdf_to_num(c, page->native_->obj));
    });
    return numbers;
}

void PdfDocument::endCopyBatch()
{
    std::unique_ptr<CopyState> state = core_->endCopyBatch();
    if (state) {
        try {
            structure::finishCopies(*state, *core_, pageNumbers());
        } catch (const std::exception &) {
            // The pages are in; the outline and names are as far as they got.
        }
    }
    core_->flushPageList();
}

bool PdfDocument::hasOutline() const
{
    return !locked_ && structure::hasOutline(core_->doc);
}

PdfCopyBatch::PdfCopyBatch(const std::shared_ptr<PdfDocument> &into) : into_(into)
{
    try {
        if (into_)
            into_->core_->beginCopyBatch();
    } catch (const std::bad_alloc &) {
        // Copies made meanwhile open a batch each.
        into_.reset();
    }
}

PdfCopyBatch::~PdfCopyBatch()
{
    if (into_)
        into_->endCopyBatch();
}

void PdfCopyBatch::groupOutline(const std::shared_ptr<PdfDocument> &source, const QString &title)
{
    try {
        if (into_ && source && into_->core_->copying())
            into_->core_->copying()->outlineGroups[source->core_.get()] = title;
    } catch (const std::bad_alloc &) {
        // The source's entries join the outline without an entry of their own.
    }
}

bool PdfDocument::removePage(int index)
{
    const mu::DocumentsHold hold; // recordings on workers see the page list whole
    if (locked_ || index < 0 || index >= int(pages_.size()))
        return false;
    core_->unloadPages();
    if (!mu::tryGuard([&](fz_context *c) {
            pagetree::ensureClean(c, core_->doc);
            pdf_delete_page(c, core_->doc, index);
        }))
        return false;
    pages_[size_t(index)]->document_.reset();
    pages_.erase(pages_.begin() + index);
    core_->announcePageList();
    return true;
}

bool PdfDocument::setPages(const std::vector<std::shared_ptr<PdfPage>> &pages)
{
    const mu::DocumentsHold hold; // recordings on workers see the page list whole
    if (locked_)
        return false;
    std::unordered_set<const PdfPage *> kept;
    for (const auto &page : pages) {
        if (!page || page->core_ != core_ || page->isUnplacedCopy_ || !kept.insert(page.get()).second)
            return false;
    }
    if (pages == pages_)
        return true;
    core_->unloadPages();
    const bool written = mu::tryGuard([&](fz_context *c) {
        pagetree::ensureClean(c, core_->doc);
        pdf_obj *root = pdf_dict_getp(c, pdf_trailer(c, core_->doc), "Root/Pages");
        if (!pdf_is_dict(c, root))
            fz_throw(c, FZ_ERROR_GENERIC, "no page tree");
        // What a page inherits from the nodes above it becomes its own before
        // it leaves them; only then does any page change its parent.
        for (const auto &page : pages)
            if (pdf_objcmp(c, pdf_dict_get(c, page->native_->obj, PDF_NAME(Parent)), root))
                pdf_flatten_inheritable_page_items(c, page->native_->obj);
        pdf_obj *kids = pdf_new_array(c, core_->doc, int(pages.size()));
        fz_try(c)
        {
            for (const auto &page : pages)
                pdf_array_push(c, kids, page->native_->obj);
            for (const auto &page : pages)
                pdf_dict_put(c, page->native_->obj, PDF_NAME(Parent), root);
            pdf_dict_put(c, root, PDF_NAME(Kids), kids);
            pdf_dict_put_int(c, root, PDF_NAME(Count), int(pages.size()));
        }
        fz_always(c) pdf_drop_obj(c, kids);
        fz_catch(c) fz_rethrow(c);
    });
    if (!written)
        return false;
    for (const auto &page : pages_)
        if (!kept.count(page.get()))
            page->document_.reset();
    pages_ = pages;
    for (const auto &page : pages_)
        page->document_ = weak_from_this();
    core_->announcePageList();
    return true;
}
