#include "PdfDocument.h"

#include "DocCore.h"
#include "Native.h"
#include "PdfPage.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <unordered_set>

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
    document->fileOpened();
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
