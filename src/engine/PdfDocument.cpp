#include "PdfDocument.h"

#include "DocCore.h"
#include "Native.h"
#include "PdfPage.h"
#include "SafeSave.h"
#include "Structure.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <unordered_set>

#include <zlib.h>

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
    if (copyBatches_++ == 0)
        copying_ = std::make_unique<CopyState>();
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

namespace {

// A new stream object in `doc` with the data and dictionary of `stream`.
pdf_obj *copyStream(fz_context *c, pdf_document *doc, pdf_obj *stream)
{
    pdf_obj *dict = pdf_deep_copy_obj(c, pdf_resolve_indirect(c, stream));
    fz_buffer *data = nullptr;
    pdf_obj *ref = nullptr;
    fz_var(data);
    fz_var(ref);
    fz_try(c)
    {
        data = pdf_load_raw_stream(c, stream);
        ref = pdf_add_object(c, doc, dict);
        pdf_update_stream(c, doc, ref, data, 1);
    }
    fz_always(c)
    {
        fz_drop_buffer(c, data);
        pdf_drop_obj(c, dict);
    }
    fz_catch(c)
    {
        pdf_drop_obj(c, ref);
        fz_rethrow(c);
    }
    return ref;
}

// The entry `key` of `dict` as a direct dictionary of its own (a copy when it
// is shared through a reference); null when there is none.
pdf_obj *ownDict(fz_context *c, pdf_obj *dict, pdf_obj *key)
{
    pdf_obj *value = pdf_dict_get(c, dict, key);
    if (!pdf_is_dict(c, value))
        return nullptr;
    if (pdf_is_indirect(c, value)) {
        pdf_obj *copy = pdf_deep_copy_obj(c, pdf_resolve_indirect(c, value));
        pdf_set_obj_parent(c, copy, pdf_obj_parent_num(c, dict));
        pdf_dict_put_drop(c, dict, key, copy);
        value = pdf_dict_get(c, dict, key);
    }
    return value;
}

// Gives an annotation copied within its own document appearance streams of
// its own, so that restyling the copy or the original leaves the other as it is.
void copyAppearances(fz_context *c, pdf_document *doc, pdf_obj *annot)
{
    pdf_obj *ap = ownDict(c, annot, PDF_NAME(AP));
    if (!ap)
        return;
    pdf_obj *kinds[] = {PDF_NAME(N), PDF_NAME(R), PDF_NAME(D)};
    for (pdf_obj *kind : kinds) {
        pdf_obj *value = pdf_dict_get(c, ap, kind);
        if (pdf_is_stream(c, value)) {
            pdf_dict_put_drop(c, ap, kind, copyStream(c, doc, value));
            continue;
        }
        pdf_obj *states = ownDict(c, ap, kind);
        for (int i = 0; i < pdf_dict_len(c, states); ++i)
            if (pdf_is_stream(c, pdf_dict_get_val(c, states, i)))
                pdf_dict_put_drop(c, states, pdf_dict_get_key(c, states, i), copyStream(c, doc, pdf_dict_get_val(c, states, i)));
    }
}

// A copy of the annotation `annot` added to `dst` as an object of its own
// (a new reference): brought through `graft` from another document, or with
// appearances of its own within the same one. Its links to the source page,
// popup, form parent and replied-to note would drag the source along; they
// are cut, and the caller links the copy to its new page and popup.
pdf_obj *copyAnnotationOnly(fz_context *c, pdf_document *dst, Graft *graft, pdf_obj *annot)
{
    // A new dictionary takes the entries. A deep copy still names the source
    // object as its parent, so changing it would make MuPDF prepare the source
    // for a change (which corrupts the source when memory runs out half-way):
    // the copied values are cut loose first.
    pdf_obj *source = pdf_resolve_indirect(c, annot);
    const int n = pdf_dict_len(c, source);
    pdf_obj *copy = pdf_new_dict(c, graft ? dst : pdf_get_bound_document(c, source), n);
    pdf_obj *ref = nullptr;
    fz_var(ref);
    fz_try(c)
    {
        pdf_obj *links[] = {PDF_NAME(P), PDF_NAME(Popup), PDF_NAME(Parent), PDF_NAME(IRT)};
        for (int i = 0; i < n; ++i) {
            pdf_obj *key = pdf_dict_get_key(c, source, i);
            if (std::any_of(std::begin(links), std::end(links), [&](pdf_obj *link) { return pdf_name_eq(c, key, link); }))
                continue;
            pdf_obj *value = pdf_dict_get_val(c, source, i);
            if (graft) {
                pdf_dict_put_drop(c, copy, key, graft->bring(c, value));
            } else {
                value = pdf_deep_copy_obj(c, value);
                pdf_set_obj_parent(c, value, 0);
                pdf_dict_put_drop(c, copy, key, value);
            }
        }
        if (!graft)
            copyAppearances(c, dst, copy);
        ref = pdf_add_object(c, dst, copy);
    }
    fz_always(c) pdf_drop_obj(c, copy);
    fz_catch(c)
    {
        pdf_drop_obj(c, ref);
        fz_rethrow(c);
    }
    return ref;
}

} // namespace

pdf_obj *copyAnnotation(fz_context *c, pdf_document *dst, Graft *graft, pdf_obj *annot)
{
    pdf_obj *copy = copyAnnotationOnly(c, dst, graft, annot);
    pdf_obj *popup = pdf_dict_get(c, annot, PDF_NAME(Popup));
    if (!pdf_is_dict(c, popup))
        return copy;
    fz_try(c)
    {
        pdf_dict_put_drop(c, copy, PDF_NAME(Popup), copyAnnotationOnly(c, dst, graft, popup));
        pdf_dict_put(c, pdf_dict_get(c, copy, PDF_NAME(Popup)), PDF_NAME(Parent), copy);
    }
    fz_catch(c)
    {
        pdf_drop_obj(c, copy);
        fz_rethrow(c);
    }
    return copy;
}

namespace {

bool looksLikePdf(const QString &path)
{
    // Only regular files: opening a named pipe would wait for a writer for good.
    if (!QFileInfo(path).isFile())
        return false;
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

namespace {

// Appends the page dictionaries under a node of the page tree to `out`, in
// order (a node with /Kids is a branch, anything else a page). Nodes seen
// before (a cycle in a damaged file) and nodes nested absurdly deep are skipped.
void collectPages(fz_context *c, pdf_obj *node, int depth, std::unordered_set<int> &seen, std::vector<pdf_obj *> &out)
{
    const int num = pdf_to_num(c, node);
    if (depth > 64 || (num > 0 && !seen.insert(num).second))
        return;
    pdf_obj *kids = pdf_dict_get(c, node, PDF_NAME(Kids));
    if (!pdf_is_array(c, kids)) {
        if (pdf_is_dict(c, node))
            out.push_back(node);
        return;
    }
    for (int i = 0; i < pdf_array_len(c, kids); ++i)
        collectPages(c, pdf_array_get(c, kids, i), depth + 1, seen, out);
}

} // namespace

// Makes a page object for every page. The page tree is walked here once:
// looking pages up one by one walks it for every page, and MuPDF's own
// loaded page tree keeps every page dictionary it was asked for referenced
// for good. Where the walk disagrees with the page count (a damaged tree),
// MuPDF's lookup decides. A damaged file that MuPDF "repairs" into nothing is
// not a readable PDF.
bool PdfDocument::loadPageList()
{
    std::vector<pdf_obj *> found, refs;
    std::unordered_set<int> seen;
    const bool ok = mu::tryGuard([&](fz_context *c) {
        const int count = pdf_count_pages(c, core_->doc);
        if (count == 0 && pdf_was_repaired(c, core_->doc))
            fz_throw(c, FZ_ERROR_GENERIC, "no pages in a damaged file");
        refs.reserve(size_t(std::max(count, 0)));
        found.reserve(size_t(std::max(count, 0)));
        collectPages(c, pdf_dict_get(c, pdf_dict_get(c, pdf_trailer(c, core_->doc), PDF_NAME(Root)), PDF_NAME(Pages)), 0, seen,
                     found);
        const bool walked = int(found.size()) == count;
        for (int i = 0; i < count; ++i) {
            pdf_obj *obj = walked ? found[size_t(i)] : pdf_lookup_page_obj(c, core_->doc, i);
            if (!obj)
                fz_throw(c, FZ_ERROR_GENERIC, "page %d is missing", i);
            refs.push_back(core_->reference(c, obj));
        }
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

QString PdfDocument::path() const
{
    return core_->path;
}

PdfChangeChannel *PdfDocument::changes() const
{
    return &core_->changes;
}

bool PdfDocument::isEncrypted() const
{
    bool encrypted = false;
    mu::tryGuard([&](fz_context *c) { encrypted = pdf_crypt_version(c, core_->doc->crypt) > 0; });
    return encrypted || locked_;
}

bool PdfDocument::isLocked() const
{
    return locked_;
}

namespace {

const unsigned char passwordPadding[32] = {0x28, 0xbf, 0x4e, 0x5e, 0x4e, 0x75, 0x8a, 0x41, 0x64, 0x00, 0x4e,
                                           0x56, 0xff, 0xfa, 0x01, 0x08, 0x2e, 0x2e, 0x00, 0xb6, 0xd0, 0x68,
                                           0x3e, 0x80, 0x2f, 0x0c, 0xa9, 0xfe, 0x64, 0x53, 0x69, 0x7a};

// Bytes of the file key, as MuPDF's crypt object counts them.
int fileKeyLength(fz_context *c, pdf_crypt *crypt)
{
    return std::clamp(pdf_crypt_length(c, crypt) / 8, 0, 16);
}

// MD5 of the password padded to 32 bytes and of `more`, then (revision 3 and
// later) 50 more rounds over the first `n` bytes.
void passwordHash(const unsigned char *password, size_t length,
                  std::initializer_list<std::pair<const unsigned char *, size_t>> more, int revision, int n,
                  unsigned char out[16])
{
    unsigned char padded[32];
    length = std::min<size_t>(length, 32);
    std::memcpy(padded, password, length);
    std::memcpy(padded + length, passwordPadding, 32 - length);
    fz_md5 md5;
    fz_md5_init(&md5);
    fz_md5_update(&md5, padded, 32);
    for (const auto &[data, size] : more)
        fz_md5_update(&md5, data, size);
    fz_md5_final(&md5, out);
    if (revision < 3)
        return;
    for (int i = 0; i < 50; ++i) {
        fz_md5_init(&md5);
        fz_md5_update(&md5, out, size_t(n));
        fz_md5_final(&md5, out);
    }
}

// RC4 with `key`; from revision 3 on twenty times, the key XORed with the
// round's number, counting up from 0 or down from 19.
void rc4Rounds(const unsigned char *key, int n, int revision, bool countDown, unsigned char *data, size_t length)
{
    const int rounds = revision >= 3 ? 20 : 1;
    unsigned char roundKey[16];
    fz_arc4 arc4;
    for (int round = 0; round < rounds; ++round) {
        const int x = countDown ? rounds - 1 - round : round;
        for (int i = 0; i < n; ++i)
            roundKey[i] = uint8_t(key[i] ^ x);
        fz_arc4_init(&arc4, roundKey, size_t(n));
        fz_arc4_encrypt(&arc4, data, data, length);
    }
}

// The standard security handler of revisions 2 to 4 fed with the password's
// bytes as they are: the file key (PDF 1.7 algorithm 3.2), checked against /U
// (3.4, 3.5) and given to MuPDF's crypt object when it matches.
bool authenticateUserBytes(fz_context *c, pdf_document *doc, const unsigned char *password, size_t length)
{
    pdf_crypt *crypt = doc->crypt;
    const int revision = pdf_crypt_revision(c, crypt), n = fileKeyLength(c, crypt);
    pdf_obj *id = pdf_array_get(c, pdf_dict_get(c, pdf_trailer(c, doc), PDF_NAME(ID)), 0);
    const auto *idBytes = reinterpret_cast<const unsigned char *>(pdf_to_str_buf(c, id));
    const size_t idLength = pdf_to_str_len(c, id);
    const auto p = unsigned(pdf_crypt_permissions(c, crypt));
    const unsigned char permissions[4] = {uint8_t(p), uint8_t(p >> 8), uint8_t(p >> 16), uint8_t(p >> 24)};
    const unsigned char unencryptedMetadata[4] = {0xff, 0xff, 0xff, 0xff};
    const bool plainMetadata = revision >= 4 && !pdf_crypt_encrypt_metadata(c, crypt);
    unsigned char key[16];
    passwordHash(password, length,
                 {{pdf_crypt_owner_password(c, crypt), 32},
                  {permissions, 4},
                  {idBytes, idLength},
                  {unencryptedMetadata, plainMetadata ? 4 : 0}},
                 revision, n, key);

    unsigned char check[32];
    size_t compared = 32;
    if (revision == 2) {
        std::memcpy(check, passwordPadding, 32);
    } else {
        fz_md5 md5;
        fz_md5_init(&md5);
        fz_md5_update(&md5, passwordPadding, 32);
        fz_md5_update(&md5, idBytes, idLength);
        fz_md5_final(&md5, check);
        compared = 16;
    }
    rc4Rounds(key, n, revision, false, check, compared);
    if (std::memcmp(check, pdf_crypt_user_password(c, crypt), compared) != 0)
        return false;
    std::memcpy(pdf_crypt_key(c, crypt), key, size_t(n));
    return true;
}

// The owner password of revisions 2 to 4 unwraps the user password from /O (3.7).
bool authenticateOwnerBytes(fz_context *c, pdf_document *doc, const unsigned char *password, size_t length)
{
    pdf_crypt *crypt = doc->crypt;
    const int revision = pdf_crypt_revision(c, crypt), n = fileKeyLength(c, crypt);
    unsigned char key[16];
    passwordHash(password, length, {}, revision, n, key);
    unsigned char user[32];
    std::memcpy(user, pdf_crypt_owner_password(c, crypt), 32);
    rc4Rounds(key, n, revision, true, user, 32);
    return authenticateUserBytes(c, doc, user, 32);
}

// True when every character has a code in PDFDocEncoding.
bool fitsPdfDocEncoding(const QString &text)
{
    const unsigned short *table = fz_unicode_from_pdf_doc_encoding;
    for (char32_t ch : text.toUcs4())
        if (std::find(table + 1, table + 256, ch) == table + 256)
            return false;
    return true;
}

} // namespace

// The older handlers (revisions 2 to 4) take the password as bytes. MuPDF
// turns it into PDFDocEncoding, as the format asks, but silently leaves out
// the characters that encoding cannot hold, so a wrong password could open the
// file; such a password is only tried as its UTF-8 bytes, which is also how
// qpdf and others write it. A password that fits is tried both ways.
bool PdfDocument::unlock(const QString &password)
{
    if (!locked_)
        return true;
    const QByteArray utf8 = password.toUtf8();
    const bool fits = fitsPdfDocEncoding(password);
    int ok = 0;
    if (!mu::tryGuard([&](fz_context *c) {
            const int revision = pdf_crypt_revision(c, core_->doc->crypt);
            const bool older = revision >= 2 && revision <= 4;
            if (fits || !older)
                ok = pdf_authenticate_password(c, core_->doc, utf8.constData());
            if (!ok && older) {
                const auto *bytes = reinterpret_cast<const unsigned char *>(utf8.constData());
                ok = authenticateUserBytes(c, core_->doc, bytes, size_t(utf8.size())) ||
                     authenticateOwnerBytes(c, core_->doc, bytes, size_t(utf8.size()));
            }
        }) ||
        !ok)
        return false;
    locked_ = false;
    if (!loadPageList()) {
        locked_ = true;
        return false;
    }
    return true;
}

int PdfDocument::pageCount() const
{
    return locked_ ? 0 : int(pages_.size());
}

int PdfDocument::loadedPageCount() const
{
    return int(core_->loadedPages.size());
}

int PdfDocument::textLayoutCount() const
{
    return int(core_->textPages.size());
}

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
            graft->copiedAnnotations.emplace_back(mu::Obj(pdf_keep_obj(c, annot)), mu::Obj(pdf_keep_obj(c, copy)));
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
            const int num = graft->placePage(c, pdf_to_num(c, srcPage));
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
        core_->announcePageList();
        return true;
    }
    // Copied in: from another document, or a second place for a page of this one.
    const bool ownBatch = !core_->copying();
    if (ownBatch)
        core_->beginCopyBatch();
    Graft *graft = nullptr;
    try {
        if (page->core_ != core_)
            graft = &core_->copying()->graftFor(page->core_, core_->doc);
    } catch (const std::bad_alloc &) {
    }
    pdf_obj *ref = nullptr;
    const bool copied = (graft || page->core_ == core_) && mu::tryGuard([&](fz_context *c) {
                            ref = importPage(c, core_->doc, graft, page->native_->obj);
                            pdf_insert_page(c, core_->doc, index, ref);
                        });
    if (copied && graft) {
        try {
            structure::tieAnnotations(*core_->copying(), *graft);
        } catch (const std::exception &) {
            // The page is in; what its annotations point at is as far as it got.
        }
    }
    if (!copied) {
        if (graft)
            graft->copiedAnnotations.clear();
        pdf_drop_obj(mu::ctx(), ref);
        if (ownBatch)
            endCopyBatch();
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
    core_->announcePageList();
    if (ownBatch)
        endCopyBatch();
    return true;
}

std::vector<int> PdfDocument::pageNumbers() const
{
    std::vector<int> numbers;
    numbers.reserve(pages_.size());
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
    if (into_)
        into_->core_->beginCopyBatch();
}

PdfCopyBatch::~PdfCopyBatch()
{
    if (into_)
        into_->endCopyBatch();
}

void PdfCopyBatch::groupOutline(const std::shared_ptr<PdfDocument> &source, const QString &title)
{
    if (into_ && source && into_->core_->copying())
        into_->core_->copying()->outlineGroups[source->core_.get()] = title;
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
    core_->announcePageList();
    return true;
}

bool PdfDocument::setPages(const std::vector<std::shared_ptr<PdfPage>> &pages)
{
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

namespace {

// The length of the start of content-stream data that ends with the last
// operator before the first token that cannot be read: damaged data decodes
// to a readable start and then garbage.
size_t readableContent(fz_context *c, fz_buffer *data)
{
    fz_stream *in = fz_open_buffer(c, data);
    pdf_lexbuf lex;
    pdf_lexbuf_init(c, &lex, PDF_LEXBUF_SMALL);
    size_t end = 0;
    fz_var(end);
    fz_try(c)
    {
        for (pdf_token token = pdf_lex(c, in, &lex); token != PDF_TOK_EOF && token != PDF_TOK_ERROR; token = pdf_lex(c, in, &lex))
            if (token == PDF_TOK_KEYWORD)
                end = size_t(fz_tell(c, in));
    }
    fz_always(c)
    {
        fz_drop_stream(c, in);
        pdf_lexbuf_fin(c, &lex);
    }
    fz_catch(c)
    {
        // What cannot be read ends the readable start, as a bad token does.
    }
    return end;
}

// Whether Flate data fails zlib's own checks. MuPDF only warns when the
// checksum at its end does not match, having decoded damaged bytes to garbage.
bool failsFlateCheck(fz_context *c, fz_buffer *raw)
{
    unsigned char *data = nullptr;
    const size_t size = fz_buffer_storage(c, raw, &data);
    z_stream z{};
    if (inflateInit(&z) != Z_OK)
        return false;
    unsigned char out[16384];
    z.next_in = data;
    z.avail_in = uInt(std::min<size_t>(size, UINT_MAX));
    int result = Z_OK;
    while (result == Z_OK) {
        z.next_out = out;
        z.avail_out = sizeof out;
        result = inflate(&z, Z_NO_FLUSH);
    }
    inflateEnd(&z);
    return result == Z_DATA_ERROR;
}

bool isFlateOnly(fz_context *c, pdf_obj *stream)
{
    pdf_obj *filter = pdf_dict_get(c, stream, PDF_NAME(Filter));
    if (pdf_array_len(c, filter) == 1)
        filter = pdf_array_get(c, filter, 0);
    return pdf_name_eq(c, filter, PDF_NAME(FlateDecode)) && !pdf_dict_get(c, stream, PDF_NAME(DecodeParms));
}

// Replaces a page content stream whose data is damaged (it breaks off in an
// error, or its checksum fails) with its readable start, stored plainly for
// the writer to compress again, so the written file holds a stream every
// reader decodes without finding stray tokens in it. True when it did.
bool mendStream(fz_context *c, pdf_document *doc, pdf_obj *stream)
{
    fz_stream *in = nullptr;
    fz_buffer *data = nullptr;
    fz_buffer *raw = nullptr;
    int damaged = 0;
    fz_var(in);
    fz_var(data);
    fz_var(raw);
    fz_var(damaged);
    fz_try(c)
    {
        if (isFlateOnly(c, stream)) {
            raw = pdf_load_raw_stream(c, stream);
            damaged = failsFlateCheck(c, raw);
        }
        if (damaged || !raw) {
            in = pdf_open_stream(c, stream);
            data = fz_read_all(c, in, 0);
            // A read error is only a warning to MuPDF: it ends the data and marks the stream.
            damaged = damaged || in->error;
        }
        if (damaged) {
            fz_resize_buffer(c, data, readableContent(c, data));
            pdf_update_stream(c, doc, stream, data, 0);
        }
    }
    fz_always(c)
    {
        fz_drop_stream(c, in);
        fz_drop_buffer(c, data);
        fz_drop_buffer(c, raw);
    }
    fz_catch(c) fz_rethrow(c);
    return damaged;
}

} // namespace

bool PdfDocument::write(const QString &path, const PdfWriteOptions &options)
{
    if (path.isEmpty())
        return false;
    return serialize(options, [&](const char *data, qint64 size) { return safesave::write(path, data, size); });
}

std::vector<bool> PdfDocument::writeAll(const std::vector<std::pair<std::shared_ptr<PdfDocument>, QString>> &files,
                                        const std::function<void(qint64 done)> &step)
{
    safesave::Batch batch;
    std::vector<bool> staged(files.size(), false);
    for (size_t i = 0; i < files.size(); ++i) {
        // Named rather than bound: clang does not let lambdas capture structured bindings.
        const std::shared_ptr<PdfDocument> &document = files[i].first;
        const QString &path = files[i].second;
        staged[i] = document && !path.isEmpty() &&
                    document->serialize({}, [&](const char *data, qint64 size) { return batch.stage(path, data, size); });
        if (step)
            step(qint64(i) + 1);
    }
    const std::vector<bool> placed = batch.commit();
    std::vector<bool> written(files.size(), false);
    // The batch answers for the staged files only.
    for (size_t i = 0, k = 0; i < files.size(); ++i)
        if (staged[i])
            written[i] = placed[k++];
    return written;
}

bool PdfDocument::serialize(const PdfWriteOptions &options, const std::function<bool(const char *, qint64)> &sink)
{
    if (locked_)
        return false;
    // Damaged page contents are written as far as they can be read; a content
    // stream that cannot be opened at all is left as it is. Each stream is
    // checked once: the engine itself never writes damaged contents.
    auto &checked = core_->checkedContents;
    for (const auto &page : pages_) {
        bool mended = false;
        mu::tryGuard([&](fz_context *c) {
            auto mend = [&](pdf_obj *stream) {
                const int num = pdf_to_num(c, stream);
                if (!pdf_is_stream(c, stream) || (num > 0 && checked.count(num)))
                    return;
                mended = mendStream(c, core_->doc, stream) || mended;
                if (num > 0)
                    checked.insert(num);
            };
            pdf_obj *contents = pdf_dict_get(c, page->native_->obj, PDF_NAME(Contents));
            mend(contents);
            for (int i = 0; i < pdf_array_len(c, contents); ++i)
                mend(pdf_array_get(c, contents, i));
        });
        if (mended)
            page->changed(PdfChangeChannel::Content);
    }
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

    // What points at pages not in the page tree stays out of the file (and
    // comes back once it is written).
    std::optional<structure::SaveTrim> trim(std::in_place, core_->doc, pageNumbers());
    fz_buffer *buffer = nullptr;
    fz_output *out = nullptr;
    const bool written = mu::tryGuard([&](fz_context *c) {
        buffer = fz_new_buffer(c, 1 << 16);
        out = fz_new_output_with_buffer(c, buffer);
        pdf_write_document(c, core_->doc, out, &opts);
        fz_close_output(c, out);
    });
    trim.reset();
    fz_context *c = mu::ctx();
    fz_drop_output(c, out);
    bool ok = false;
    if (written) {
        unsigned char *data = nullptr;
        const size_t size = fz_buffer_storage(c, buffer, &data);
        ok = sink(reinterpret_cast<const char *>(data), qint64(size));
    }
    fz_drop_buffer(c, buffer);
    return ok;
}
