#include "DocCore.h"

#include "PdfPage.h"

DocCore::~DocCore()
{
    fz_context *c = mu::ctx();
    unloadPages();
    outline.reset();
    for (auto &[key, font] : fonts)
        pdf_drop_obj(c, font.font);
    copying_.reset();
    pdf_drop_document(c, doc);
}

void DocCore::unloadPages()
{
    auto pages = std::move(loadedPages);
    loadedPages.clear();
    for (PdfPage *page : pages)
        page->unload();
}

void DocCore::beginCopyBatch()
{
    if (copyBatches_ == 0)
        copying_ = std::make_unique<CopyState>();
    ++copyBatches_;
}

std::unique_ptr<CopyState> DocCore::endCopyBatch()
{
    if (copyBatches_ == 0 || --copyBatches_ > 0)
        return nullptr;
    return std::move(copying_);
}

void DocCore::announcePageList()
{
    if (copyBatches_ > 0)
        pageListPending_ = true;
    else
        emit changes.pageListChanged();
}

void DocCore::flushPageList()
{
    if (copyBatches_ == 0 && std::exchange(pageListPending_, false))
        emit changes.pageListChanged();
}

pdf_obj *DocCore::reference(fz_context *c, pdf_obj *obj)
{
    if (pdf_is_indirect(c, obj))
        return pdf_keep_obj(c, obj);
    const int num = pdf_obj_parent_num(c, obj);
    if (num > 0)
        return pdf_new_indirect(c, doc, num, 0);
    return pdf_keep_obj(c, obj);
}
