// Writing the document: content streams checked (and mended) first, then
// the file made and handed to the safe-save machinery.
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
#include <unordered_set>

#include <zlib.h>

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

// An output into a buffer that can also be sought in, cut and read back,
// as appending to a document asks of its output (MuPDF's own buffer output
// can do none of that).
struct MemoryOutput {
    fz_buffer *data;
    size_t at;
};

void memoryWrite(fz_context *c, void *state, const void *bytes, size_t n)
{
    auto *out = static_cast<MemoryOutput *>(state);
    const size_t inside = std::min(n, out->data->len - out->at);
    std::memcpy(out->data->data + out->at, bytes, inside);
    fz_append_data(c, out->data, static_cast<const unsigned char *>(bytes) + inside, n - inside);
    out->at += n;
}

void memorySeek(fz_context *c, void *state, int64_t offset, int whence)
{
    auto *out = static_cast<MemoryOutput *>(state);
    const int64_t base = whence == SEEK_END ? int64_t(out->data->len) : whence == SEEK_CUR ? int64_t(out->at) : 0;
    if (base + offset < 0 || base + offset > int64_t(out->data->len))
        fz_throw(c, FZ_ERROR_GENERIC, "cannot seek outside the written data");
    out->at = size_t(base + offset);
}

int64_t memoryTell(fz_context *, void *state)
{
    return int64_t(static_cast<MemoryOutput *>(state)->at);
}

void memoryTruncate(fz_context *, void *state)
{
    auto *out = static_cast<MemoryOutput *>(state);
    out->data->len = out->at;
}

fz_stream *memoryAsStream(fz_context *c, void *state)
{
    return fz_open_buffer(c, static_cast<MemoryOutput *>(state)->data);
}

void memoryDrop(fz_context *c, void *state)
{
    auto *out = static_cast<MemoryOutput *>(state);
    fz_drop_buffer(c, out->data);
    fz_free(c, out);
}

fz_output *newMemoryOutput(fz_context *c, fz_buffer *buffer)
{
    auto *state = static_cast<MemoryOutput *>(fz_calloc(c, 1, sizeof(MemoryOutput)));
    state->data = fz_keep_buffer(c, buffer);
    state->at = buffer->len;
    fz_output *out = nullptr;
    fz_try(c) out = fz_new_output(c, 0, state, memoryWrite, nullptr, memoryDrop);
    fz_catch(c)
    {
        memoryDrop(c, state);
        fz_rethrow(c);
    }
    out->seek = memorySeek;
    out->tell = memoryTell;
    out->truncate = memoryTruncate;
    out->as_stream = memoryAsStream;
    return out;
}

// Makes MuPDF read the document's bytes from `bytes` from now on.
void readFrom(fz_context *c, pdf_document *doc, fz_buffer *bytes)
{
    fz_stream *stream = fz_open_buffer(c, bytes);
    fz_drop_stream(c, doc->file);
    doc->file = stream;
    // An update is written after this many bytes of the file.
    doc->file_size = int64_t(fz_buffer_storage(c, bytes, nullptr));
}

void readFromCopy(fz_context *c, pdf_document *doc, const QByteArray &bytes)
{
    fz_buffer *buffer =
        fz_new_buffer_from_copied_data(c, reinterpret_cast<const unsigned char *>(bytes.constData()), size_t(bytes.size()));
    fz_try(c) readFrom(c, doc, buffer);
    fz_always(c) fz_drop_buffer(c, buffer);
    fz_catch(c) fz_rethrow(c);
}

// Whether a field (or a field below it) is a signature field holding a signature.
bool holdsSignature(fz_context *c, pdf_document *doc, pdf_obj *field, int depth, std::unordered_set<int> &seen)
{
    const int num = pdf_to_num(c, field);
    if (depth > 32 || !pdf_is_dict(c, field) || (num > 0 && !seen.insert(num).second))
        return false;
    if (pdf_name_eq(c, pdf_dict_get_inheritable(c, field, PDF_NAME(FT)), PDF_NAME(Sig)) && pdf_signature_is_signed(c, doc, field))
        return true;
    pdf_obj *kids = pdf_dict_get(c, field, PDF_NAME(Kids));
    for (int i = 0; i < pdf_array_len(c, kids); ++i)
        if (holdsSignature(c, doc, pdf_array_get(c, kids, i), depth + 1, seen))
            return true;
    return false;
}

bool sameFile(const QString &a, const QString &b)
{
    return !a.isEmpty() && !b.isEmpty() && QFileInfo(a).absoluteFilePath() == QFileInfo(b).absoluteFilePath();
}

} // namespace

void PdfDocument::fileOpened()
{
    core_->file = core_->source = safesave::identify(core_->path);
    safesave::removeStaleTemporaries(core_->path);
}

PdfDocument::WriteFailure PdfDocument::lastWriteFailure() const
{
    return WriteFailure(core_->writeFailure);
}

bool PdfDocument::isSigned() const
{
    if (locked_)
        return false;
    bool found = false;
    std::unordered_set<int> seen;
    mu::tryGuard([&](fz_context *c) {
        if (pdf_count_signatures(c, core_->doc) == 0)
            return;
        pdf_obj *fields = pdf_dict_getp(c, pdf_trailer(c, core_->doc), "Root/AcroForm/Fields");
        for (int i = 0; !found && i < pdf_array_len(c, fields); ++i)
            found = holdsSignature(c, core_->doc, pdf_array_get(c, fields, i), 0, seen);
    });
    return found;
}

bool PdfDocument::canAppendChanges() const
{
    bool appendable = false;
    mu::tryGuard([&](fz_context *c) { appendable = core_->doc->file && pdf_can_be_saved_incrementally(c, core_->doc); });
    return appendable && !locked_;
}

bool PdfDocument::allowsChanges() const
{
    bool allowed = true;
    mu::tryGuard([&](fz_context *c) {
        allowed =
            pdf_has_permission(c, core_->doc, FZ_PERMISSION_EDIT) && pdf_has_permission(c, core_->doc, FZ_PERMISSION_ANNOTATE);
    });
    return allowed;
}

bool PdfDocument::write(const QString &path, const PdfWriteOptions &options)
{
    core_->writeFailure = int(WriteFailure::Failed);
    if (path.isEmpty())
        return false;
    const safesave::FileIdentity expected = sameFile(path, core_->path) ? core_->file : safesave::FileIdentity{};
    safesave::Result result = safesave::Result::Failed;
    QByteArray previous;
    const bool written = serialize(options, [&](const char *data, qint64 size) {
        result = safesave::write(path, data, size, expected, &previous);
        return result == safesave::Result::Written;
    });
    // The file MuPDF reads from was rewritten in place: from now on it reads
    // the bytes it knew, kept in memory.
    if (!previous.isNull() && core_->source.known() && safesave::identify(path) == core_->source &&
        mu::tryGuard([&](fz_context *c) { readFromCopy(c, core_->doc, previous); }))
        core_->source = {};
    switch (result) {
    case safesave::Result::NotPermitted:
        core_->writeFailure = int(WriteFailure::NotPermitted);
        break;
    case safesave::Result::Replaced:
        core_->writeFailure = int(WriteFailure::Replaced);
        break;
    default:
        break;
    }
    if (!written)
        return false;
    core_->writeFailure = int(WriteFailure::None);
    core_->path = path;
    core_->file = safesave::identify(path);
    return true;
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
    const mu::DocumentsHold hold; // recordings on workers never see the trimmed document
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
    const bool newPasswords = !options.userPassword.isEmpty() || !options.ownerPassword.isEmpty();
    const bool append = options.keepSignatures && !newPasswords && isSigned() && canAppendChanges();
    if (append) {
        // The original bytes stay as they are, the changes follow them.
        opts.do_incremental = 1;
    } else {
        // Unreferenced objects (removed pages and annotations) are left out of the
        // file; they stay in memory so that undo can still put them back.
        opts.do_garbage = 1;
    }
    if (newPasswords) {
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
        out = newMemoryOutput(c, buffer);
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
    // MuPDF takes what it appended for part of the document (the next update
    // points back at it), so the document goes on from the bytes just made,
    // written or not.
    if (written && append && mu::tryGuard([&](fz_context *c) { readFrom(c, core_->doc, buffer); }))
        core_->source = {};
    fz_drop_buffer(c, buffer);
    return ok;
}
