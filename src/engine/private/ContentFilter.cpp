#include "ContentFilter.h"

#include <algorithm>
#include <cstring>

namespace contentfilter {

namespace {

int removeGlyph(fz_context *, void *opaque, int *ucs, int ucslen, fz_matrix trm, fz_matrix ctm, fz_rect bbox)
{
    auto *removal = static_cast<Removal *>(opaque);
    const fz_matrix m = fz_concat(trm, ctm);
    if (!fz_is_point_inside_rect(middle(fz_transform_rect(bbox, m)), removal->box))
        return 0;
    if (!(ucslen == 1 && (ucs[0] == ' ' || ucs[0] == 0xa0)))
        ++removal->removed;
    if (removal->taken < removal->capacity)
        removal->matrices[removal->taken++] = m;
    return 1;
}

// Errors MuPDF reports while it reads the content (it reads on past them,
// or gives up the rest of the stream) mean the rewritten content may lose
// what other readers show; so do warnings of data cut short.
void countError(void *user, const char *)
{
    ++static_cast<Removal *>(user)->warnings;
}

void countWarning(void *user, const char *message)
{
    if (strstr(message, "syntax") || strstr(message, "read error") || strstr(message, "rest of"))
        ++static_cast<Removal *>(user)->warnings;
}

// The content writer's BT, followed by an explicit text matrix: MuPDF's
// filter places the text object after one it emptied wrongly when that one
// moved the text position with Td and the next one relies on BT resetting it.
void (*writeBT)(fz_context *, pdf_processor *) = nullptr;
void explicitBT(fz_context *c, pdf_processor *proc)
{
    writeBT(c, proc);
    proc->op_Tm(c, proc, 1, 0, 0, 1, 0, 0);
}

// Gives the page a content stream and resources of its own, copies of what
// it had (its streams rewritten as one, each text object starting with its
// text matrix), so that filtering it changes no other page.
void makeOwn(fz_context *c, pdf_document *doc, pdf_obj *page)
{
    pdf_obj *resources = pdf_resolve_indirect(c, pdf_dict_get_inheritable(c, page, PDF_NAME(Resources)));
    fz_buffer *content = fz_new_buffer(c, 1024);
    pdf_processor *proc = nullptr;
    fz_var(proc);
    fz_try(c)
    {
        proc = pdf_new_buffer_processor(c, content, 0);
        writeBT = proc->op_BT;
        proc->op_BT = explicitBT;
        pdf_process_contents(c, proc, doc, resources, pdf_dict_get(c, page, PDF_NAME(Contents)), nullptr);
        pdf_close_processor(c, proc);
        pdf_dict_put_drop(c, page, PDF_NAME(Contents), pdf_add_stream(c, doc, content, nullptr, 0));
        pdf_dict_put_drop(c, page, PDF_NAME(Resources),
                          pdf_is_dict(c, resources) ? pdf_copy_dict(c, resources) : pdf_new_dict(c, doc, 1));
    }
    fz_always(c)
    {
        pdf_drop_processor(c, proc);
        fz_drop_buffer(c, content);
    }
    fz_catch(c) fz_rethrow(c);
}

} // namespace

void depthOf(fz_context *c, fz_buffer *content, int *lowest, int *end)
{
    fz_stream *stm = fz_open_buffer(c, content);
    pdf_lexbuf lex;
    pdf_lexbuf_init(c, &lex, PDF_LEXBUF_SMALL);
    int depth = 0, low = 0;
    fz_try(c)
    {
        for (pdf_token token = pdf_lex(c, stm, &lex); token != PDF_TOK_EOF; token = pdf_lex(c, stm, &lex)) {
            if (token != PDF_TOK_KEYWORD)
                continue;
            if (!strcmp(lex.scratch, "q")) {
                ++depth;
            } else if (!strcmp(lex.scratch, "Q")) {
                low = std::min(low, --depth);
            } else if (!strcmp(lex.scratch, "ID")) {
                // Inline image data runs to white space, "EI" and white space.
                int last[3] = {0, 0, 0};
                for (int b = fz_read_byte(c, stm); b != EOF; b = fz_read_byte(c, stm)) {
                    last[0] = last[1];
                    last[1] = last[2];
                    last[2] = b;
                    if (last[1] == 'I' && last[0] == 'E' && (b == ' ' || b == '\n' || b == '\r'))
                        break;
                }
            }
        }
    }
    fz_always(c)
    {
        pdf_lexbuf_fin(c, &lex);
        fz_drop_stream(c, stm);
    }
    fz_catch(c) fz_rethrow(c);
    *lowest = low;
    *end = depth;
}

void putEntry(fz_context *c, pdf_obj *dict, pdf_obj *key, pdf_obj *value)
{
    if (value)
        pdf_dict_put(c, dict, key, value);
    else
        pdf_dict_del(c, dict, key);
}

void filterRun(fz_context *c, pdf_document *doc, pdf_page *page, Removal *removal, bool forms)
{
    void *warningUser = nullptr, *errorUser = nullptr;
    fz_warning_cb *warning = fz_warning_callback(c, &warningUser);
    fz_error_cb *error = fz_error_callback(c, &errorUser);
    fz_flush_warnings(c);
    fz_set_warning_callback(c, countWarning, removal);
    fz_set_error_callback(c, countError, removal);
    fz_try(c)
    {
        makeOwn(c, doc, page->obj);
        pdf_filter_options options{};
        options.opaque = removal;
        options.text_filter = removeGlyph;
        options.sanitize = 1;
        options.recurse = forms;
        options.instance_forms = forms;
        pdf_filter_page_contents(c, doc, page, &options);
        fz_flush_warnings(c);
    }
    fz_always(c)
    {
        fz_set_warning_callback(c, warning, warningUser);
        fz_set_error_callback(c, error, errorUser);
    }
    fz_catch(c) fz_rethrow(c);
}

} // namespace contentfilter
