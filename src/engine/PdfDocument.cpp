#include "PdfDocument.h"

#include "DocCore.h"
#include "LegacyKeys.h"
#include "Native.h"
#include "PageTree.h"
#include "PdfPage.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstring>
#include <unordered_set>

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

// Makes a page object for every page. The page tree is walked here once, by
// the engine's own walk: looking pages up one by one walks it for every page,
// MuPDF's own loaded page tree keeps every page dictionary it was asked for
// referenced for good, and MuPDF's walks trust what a damaged tree says. A
// damaged tree is rebuilt at once as a clean one of the pages found, before
// MuPDF's page lookups and tree edits ever see it. A damaged file that MuPDF
// "repairs" into nothing is not a readable PDF.
bool PdfDocument::loadPageList()
{
    pagetree::Walk walk;
    pdf_obj *root = nullptr;
    std::vector<pdf_obj *> refs;
    const bool read = mu::tryGuard([&](fz_context *c) {
        root = pdf_dict_getp(c, pdf_trailer(c, core_->doc), "Root/Pages");
        walk = pagetree::walk(c, root);
        if (walk.pages.empty() && pdf_was_repaired(c, core_->doc))
            fz_throw(c, FZ_ERROR_GENERIC, "no pages in a damaged file");
        if (!walk.clean && pdf_is_dict(c, root))
            pagetree::rebuild(c, core_->doc, root, walk);
    });
    if (!read)
        return false;
    try {
        refs.reserve(walk.pages.size());
        std::vector<std::shared_ptr<PdfPage>> pages;
        pages.reserve(walk.pages.size());
        const bool ok = mu::tryGuard([&](fz_context *c) {
            for (const pagetree::Walk::Page &page : walk.pages)
                refs.push_back(core_->reference(c, page.obj));
        });
        if (!ok) {
            for (pdf_obj *ref : refs)
                pdf_drop_obj(mu::ctx(), ref);
            return false;
        }
        for (size_t i = 0; i < refs.size(); ++i) {
            auto native = std::make_unique<PdfPage::Native>(refs[i]);
            refs[i] = nullptr; // the page holds it from here on
            pages.emplace_back(new PdfPage(core_, std::move(native)));
            pages.back()->document_ = weak_from_this();
        }
        pages_ = std::move(pages);
        return true;
    } catch (const std::bad_alloc &) {
        for (pdf_obj *ref : refs)
            pdf_drop_obj(mu::ctx(), ref);
        return false;
    }
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

// The handler the file's encryption dictionary describes.
legacy::Handler handlerOf(fz_context *c, pdf_document *doc)
{
    pdf_crypt *crypt = doc->crypt;
    legacy::Handler handler;
    handler.revision = pdf_crypt_revision(c, crypt);
    handler.keyLength = std::clamp(pdf_crypt_length(c, crypt) / 8, 0, 16);
    std::memcpy(handler.owner.data(), pdf_crypt_owner_password(c, crypt), 32);
    std::memcpy(handler.user.data(), pdf_crypt_user_password(c, crypt), 32);
    handler.permissions = uint32_t(pdf_crypt_permissions(c, crypt));
    pdf_obj *id = pdf_array_get(c, pdf_dict_get(c, pdf_trailer(c, doc), PDF_NAME(ID)), 0);
    handler.id.assign(pdf_to_str_buf(c, id), pdf_to_str_len(c, id));
    handler.encryptMetadata = pdf_crypt_encrypt_metadata(c, crypt);
    return handler;
}

// Gives MuPDF's crypt object the file key when the password's bytes as they
// are (a user password, or an owner password unwrapping it) open the file.
bool authenticateBytes(fz_context *c, pdf_document *doc, const QByteArray &password)
{
    const legacy::Handler handler = handlerOf(c, doc);
    const auto *bytes = reinterpret_cast<const unsigned char *>(password.constData());
    legacy::Key key = legacy::fileKey(handler, bytes, size_t(password.size()));
    if (!legacy::keyMatches(handler, key)) {
        const auto user = legacy::userPasswordFromOwner(handler, bytes, size_t(password.size()));
        key = legacy::fileKey(handler, user.data(), user.size());
        if (!legacy::keyMatches(handler, key))
            return false;
    }
    std::memcpy(pdf_crypt_key(c, doc->crypt), key.data(), size_t(std::clamp(handler.keyLength, 1, 16)));
    return true;
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
                ok = authenticateBytes(c, core_->doc, utf8);
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
