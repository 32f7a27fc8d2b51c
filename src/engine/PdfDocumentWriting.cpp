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
