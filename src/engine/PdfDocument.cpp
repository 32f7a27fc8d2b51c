#include "PdfDocument.h"

#include "DocCore.h"
#include "Native.h"
#include "PdfPage.h"

#include <QFile>
#include <QSaveFile>

#include <algorithm>
#include <cstring>

DocCore::~DocCore()
{
    fz_context *c = mu::ctx();
    unloadPages();
    for (auto &[name, obj] : fonts)
        pdf_drop_obj(c, obj);
    pdf_drop_graft_map(c, graftMap_);
    pdf_drop_document(c, doc);
}

void DocCore::unloadPages()
{
    auto pages = std::move(loadedPages);
    loadedPages.clear();
    for (PdfPage *page : pages)
        page->unload();
}

pdf_graft_map *DocCore::graftMapFor(const std::shared_ptr<DocCore> &source)
{
    if (graftMap_ && graftSource_.lock() == source)
        return graftMap_;
    fz_context *c = mu::ctx();
    pdf_drop_graft_map(c, graftMap_);
    graftMap_ = nullptr;
    mu::guard([&](fz_context *cc) { graftMap_ = pdf_new_graft_map(cc, doc); });
    graftSource_ = source;
    return graftMap_;
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

namespace {

bool looksLikePdf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    return file.read(1024).contains("%PDF-");
}

} // namespace

std::shared_ptr<PdfDocument> PdfDocument::open(const QString &path)
{
    if (!looksLikePdf(path))
        return nullptr;
    const QByteArray name = QFile::encodeName(path);
    pdf_document *doc = nullptr;
    int needsPassword = 0;
    if (!mu::tryGuard([&](fz_context *c) {
            doc = pdf_open_document(c, name.constData());
            needsPassword = pdf_needs_password(c, doc);
        })) {
        if (doc)
            pdf_drop_document(mu::ctx(), doc);
        return nullptr;
    }
    std::shared_ptr<PdfDocument> document(new PdfDocument);
    document->core_ = std::make_shared<DocCore>(doc);
    document->core_->path = path;
    document->locked_ = needsPassword != 0;
    if (!document->locked_ && !document->loadPageList())
        return nullptr;
    return document;
}

std::shared_ptr<PdfDocument> PdfDocument::create()
{
    pdf_document *doc = nullptr;
    if (!mu::tryGuard([&](fz_context *c) { doc = pdf_create_document(c); }))
        return nullptr;
    std::shared_ptr<PdfDocument> document(new PdfDocument);
    document->core_ = std::make_shared<DocCore>(doc);
    return document;
}

PdfDocument::~PdfDocument()
{
    for (auto &page : pages_)
        page->document_.reset();
}

// Makes a page object for every page, reading the page tree once (looking up
// pages one by one walks the tree each time); a damaged file that MuPDF
// "repairs" into nothing is not a readable PDF.
bool PdfDocument::loadPageList()
{
    std::vector<pdf_obj *> refs;
    const bool ok = mu::tryGuard([&](fz_context *c) {
        const int count = pdf_count_pages(c, core_->doc);
        if (count == 0 && pdf_was_repaired(c, core_->doc))
            fz_throw(c, FZ_ERROR_GENERIC, "no pages in a damaged file");
        refs.reserve(size_t(std::max(count, 0)));
        pdf_load_page_tree(c, core_->doc);
        fz_try(c)
        {
            for (int i = 0; i < count; ++i) {
                pdf_obj *obj = pdf_lookup_page_obj(c, core_->doc, i);
                if (!obj)
                    fz_throw(c, FZ_ERROR_GENERIC, "page %d is missing", i);
                refs.push_back(core_->reference(c, obj));
            }
        }
        fz_always(c) pdf_drop_page_tree(c, core_->doc);
        fz_catch(c) fz_rethrow(c);
    });
    if (!ok) {
        for (pdf_obj *ref : refs)
            pdf_drop_obj(mu::ctx(), ref);
        return false;
    }
    pages_.clear();
    pages_.reserve(refs.size());
    for (pdf_obj *ref : refs) {
        pages_.emplace_back(new PdfPage(core_, std::make_unique<PdfPage::Native>(ref)));
        pages_.back()->document_ = weak_from_this();
    }
    return true;
}

QString PdfDocument::path() const { return core_->path; }

bool PdfDocument::isEncrypted() const
{
    bool encrypted = false;
    mu::tryGuard([&](fz_context *c) { encrypted = pdf_crypt_version(c, core_->doc->crypt) > 0; });
    return encrypted || locked_;
}

bool PdfDocument::isLocked() const { return locked_; }

bool PdfDocument::unlock(const QString &password)
{
    if (!locked_)
        return true;
    const QByteArray utf8 = password.toUtf8();
    int ok = 0;
    if (!mu::tryGuard([&](fz_context *c) { ok = pdf_authenticate_password(c, core_->doc, utf8.constData()); }) || !ok)
        return false;
    locked_ = false;
    if (!loadPageList()) {
        locked_ = true;
        return false;
    }
    return true;
}

int PdfDocument::pageCount() const { return locked_ ? 0 : int(pages_.size()); }

std::shared_ptr<PdfPage> PdfDocument::page(int index)
{
    if (locked_ || index < 0 || index >= int(pages_.size()))
        return nullptr;
    return pages_[size_t(index)];
}

int PdfDocument::indexOf(const PdfPage *page) const
{
    auto it = std::find_if(pages_.begin(), pages_.end(), [page](const auto &p) { return p.get() == page; });
    return it == pages_.end() ? -1 : int(it - pages_.begin());
}

namespace {

// Builds in `dst` a new page dictionary from `srcPage` of `src` (same document
// or another), with copies of its annotations. Returns a new reference.
pdf_obj *importPage(fz_context *c, pdf_document *dst, pdf_graft_map *map, pdf_obj *srcPage)
{
    auto bring = [&](pdf_obj *obj) { return map ? pdf_graft_mapped_object(c, map, obj) : pdf_keep_obj(c, obj); };
    pdf_obj *dict = pdf_new_dict(c, dst, 12);
    pdf_obj *ref = nullptr;
    fz_try(c)
    {
        pdf_dict_put(c, dict, PDF_NAME(Type), PDF_NAME(Page));
        pdf_obj *inherited[] = {PDF_NAME(MediaBox), PDF_NAME(CropBox), PDF_NAME(Rotate), PDF_NAME(Resources)};
        for (pdf_obj *key : inherited) {
            pdf_obj *val = pdf_dict_get_inheritable(c, srcPage, key);
            if (val)
                pdf_dict_put_drop(c, dict, key, bring(val));
        }
        pdf_obj *own[] = {PDF_NAME(Contents), PDF_NAME(BleedBox), PDF_NAME(TrimBox), PDF_NAME(ArtBox),
                          PDF_NAME(UserUnit), PDF_NAME(Group)};
        for (pdf_obj *key : own) {
            pdf_obj *val = pdf_dict_get(c, srcPage, key);
            if (val)
                pdf_dict_put_drop(c, dict, key, bring(val));
        }
        ref = pdf_add_object(c, dst, dict);
        pdf_obj *annots = pdf_dict_get(c, srcPage, PDF_NAME(Annots));
        const int n = pdf_array_len(c, annots);
        if (n > 0) {
            pdf_obj *copies = pdf_dict_put_array(c, ref, PDF_NAME(Annots), n);
            for (int i = 0; i < n; ++i) {
                pdf_obj *annot = pdf_array_get(c, annots, i);
                if (!pdf_is_dict(c, annot) || pdf_name_eq(c, pdf_dict_get(c, annot, PDF_NAME(Subtype)), PDF_NAME(Popup)))
                    continue;
                // Links back to the source page or its form fields would drag the
                // whole source document along; the copy stands on its own.
                pdf_obj *copy = pdf_deep_copy_obj(c, pdf_resolve_indirect(c, annot));
                pdf_dict_del(c, copy, PDF_NAME(P));
                pdf_dict_del(c, copy, PDF_NAME(Popup));
                pdf_dict_del(c, copy, PDF_NAME(Parent));
                pdf_dict_del(c, copy, PDF_NAME(IRT));
                pdf_obj *brought = bring(copy);
                pdf_drop_obj(c, copy);
                pdf_dict_put(c, brought, PDF_NAME(P), ref);
                pdf_array_push_drop(c, copies, pdf_add_object_drop(c, dst, brought));
            }
        }
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

bool PdfDocument::insert(const std::shared_ptr<PdfPage> &page, int index)
{
    if (!page || locked_ || index < 0 || index > int(pages_.size()))
        return false;
    const bool returning = page->core_ == core_ && !page->isUnplacedCopy_ && indexOf(page.get()) < 0;
    core_->unloadPages();
    if (returning) {
        if (!mu::tryGuard([&](fz_context *c) { pdf_insert_page(c, core_->doc, index, page->native_->obj); }))
            return false;
        page->document_ = weak_from_this();
        pages_.insert(pages_.begin() + index, page);
        return true;
    }
    // Copied in: from another document, or a second place for a page of this one.
    pdf_graft_map *map = nullptr;
    try {
        if (page->core_ != core_)
            map = core_->graftMapFor(page->core_);
    } catch (const mu::Error &) {
        return false;
    }
    pdf_obj *ref = nullptr;
    if (!mu::tryGuard([&](fz_context *c) {
            ref = importPage(c, core_->doc, map, page->native_->obj);
            pdf_insert_page(c, core_->doc, index, ref);
        })) {
        pdf_drop_obj(mu::ctx(), ref);
        return false;
    }
    std::shared_ptr<PdfPage> placed;
    if (page->isUnplacedCopy_) {
        page->place(core_, std::make_unique<PdfPage::Native>(ref));
        placed = page;
    } else {
        placed.reset(new PdfPage(core_, std::make_unique<PdfPage::Native>(ref)));
    }
    placed->document_ = weak_from_this();
    pages_.insert(pages_.begin() + index, placed);
    return true;
}

bool PdfDocument::removePage(int index)
{
    if (locked_ || index < 0 || index >= int(pages_.size()))
        return false;
    core_->unloadPages();
    if (!mu::tryGuard([&](fz_context *c) { pdf_delete_page(c, core_->doc, index); }))
        return false;
    pages_[size_t(index)]->document_.reset();
    pages_.erase(pages_.begin() + index);
    return true;
}

bool PdfDocument::write(const QString &path, const PdfWriteOptions &options)
{
    if (locked_ || path.isEmpty())
        return false;
    pdf_write_options opts = pdf_default_write_options;
    opts.do_compress = 1;
    opts.do_compress_images = 1;
    opts.do_compress_fonts = 1;
    // Unreferenced objects (removed pages and annotations) are left out of the
    // file; they stay in memory so that undo can still put them back.
    opts.do_garbage = 1;
    if (!options.userPassword.isEmpty() || !options.ownerPassword.isEmpty()) {
        const QByteArray user = options.userPassword.toUtf8();
        const QByteArray owner = options.ownerPassword.isEmpty() ? user : options.ownerPassword.toUtf8();
        if (user.size() >= int(sizeof opts.upwd_utf8) || owner.size() >= int(sizeof opts.opwd_utf8))
            return false;
        opts.do_encrypt = PDF_ENCRYPT_AES_256;
        opts.permissions = -1;
        std::memcpy(opts.upwd_utf8, user.constData(), size_t(user.size()) + 1);
        std::memcpy(opts.opwd_utf8, owner.constData(), size_t(owner.size()) + 1);
    }

    fz_buffer *buffer = nullptr;
    fz_output *out = nullptr;
    const bool written = mu::tryGuard([&](fz_context *c) {
        buffer = fz_new_buffer(c, 1 << 16);
        out = fz_new_output_with_buffer(c, buffer);
        pdf_write_document(c, core_->doc, out, &opts);
        fz_close_output(c, out);
    });
    fz_context *c = mu::ctx();
    fz_drop_output(c, out);
    bool ok = false;
    if (written) {
        unsigned char *data = nullptr;
        const size_t size = fz_buffer_storage(c, buffer, &data);
        // QSaveFile writes next to the target and renames only on commit; it
        // follows a symbolic link and keeps the old file's permissions.
        QSaveFile file(path);
        ok = file.open(QIODevice::WriteOnly) && file.write(reinterpret_cast<const char *>(data), qint64(size)) == qint64(size)
             && file.commit();
    }
    fz_drop_buffer(c, buffer);
    return ok;
}
