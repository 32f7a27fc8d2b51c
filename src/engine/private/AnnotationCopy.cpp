// Copies of annotations for pages copied within a document or from another.
#include "DocCore.h"

#include <algorithm>
#include <iterator>

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
