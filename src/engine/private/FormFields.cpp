// Form fields that copied widgets bring along: their parent fields, the
// source form's settings, and a place among the result's fields.
#include "StructureParts.h"

#include "DocCore.h"

namespace structure {

using mu::Obj;

namespace {

// The document's form dictionary with its list of fields, made when missing.
pdf_obj *formOf(fz_context *c, pdf_document *doc)
{
    pdf_obj *root = rootOf(c, doc);
    pdf_obj *form = pdf_dict_get(c, root, PDF_NAME(AcroForm));
    if (!pdf_is_dict(c, form)) {
        pdf_obj *made = pdf_add_new_dict(c, doc, 4);
        fz_try(c) pdf_dict_put(c, root, PDF_NAME(AcroForm), made);
        fz_always(c) pdf_drop_obj(c, made);
        fz_catch(c) fz_rethrow(c);
        form = pdf_dict_get(c, root, PDF_NAME(AcroForm));
    }
    if (!pdf_is_array(c, pdf_dict_get(c, form, PDF_NAME(Fields))))
        pdf_dict_put_array(c, form, PDF_NAME(Fields), 4);
    return form;
}

// The source's form settings a copied field needs: the default appearance,
// the resources it names (fonts) where the result has none by that name, and
// the request to make appearances.
void mergeForm(Graft &graft)
{
    if (graft.formMerged)
        return;
    graft.formMerged = true;
    pdf_document *dst = graft.destination();
    pdf_document *src = graft.source()->doc;
    mu::call([&](fz_context *c) {
        pdf_obj *from = pdf_dict_get(c, rootOf(c, src), PDF_NAME(AcroForm));
        pdf_obj *form = formOf(c, dst);
        pdf_obj *da = pdf_dict_get(c, from, PDF_NAME(DA));
        if (da && !pdf_dict_get(c, form, PDF_NAME(DA)))
            pdf_dict_put_drop(c, form, PDF_NAME(DA), graft.bring(c, da));
        if (pdf_to_bool(c, pdf_dict_gets(c, from, "NeedAppearances")))
            pdf_dict_puts(c, form, "NeedAppearances", PDF_TRUE);
        pdf_obj *resources = pdf_dict_get(c, from, PDF_NAME(DR));
        if (!pdf_is_dict(c, resources))
            return;
        pdf_obj *into = pdf_dict_get(c, form, PDF_NAME(DR));
        if (!pdf_is_dict(c, into))
            into = pdf_dict_put_dict(c, form, PDF_NAME(DR), 2);
        for (int i = 0; i < pdf_dict_len(c, resources); ++i) {
            pdf_obj *kind = pdf_dict_get_key(c, resources, i);
            pdf_obj *entries = pdf_dict_get_val(c, resources, i);
            if (!pdf_is_dict(c, entries))
                continue;
            pdf_obj *target = pdf_dict_get(c, into, kind);
            if (!pdf_is_dict(c, target))
                target = pdf_dict_put_dict(c, into, kind, pdf_dict_len(c, entries));
            for (int j = 0; j < pdf_dict_len(c, entries); ++j)
                if (!pdf_dict_get(c, target, pdf_dict_get_key(c, entries, j)))
                    pdf_dict_put_drop(c, target, pdf_dict_get_key(c, entries, j),
                                      graft.bring(c, pdf_dict_get_val(c, entries, j)));
        }
    });
}

} // namespace

void loadFieldNames(CopyState &state, pdf_document *dst)
{
    if (state.fieldNamesLoaded)
        return;
    pdf_obj *fields = mu::call([&](fz_context *c) { return pdf_dict_get(c, formOf(c, dst), PDF_NAME(Fields)); });
    const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, fields); });
    for (int i = 0; i < n; ++i)
        state.fieldNames.insert(mu::call(
            [&](fz_context *c) { return std::string(pdf_dict_get_text_string(c, pdf_array_get(c, fields, i), PDF_NAME(T))); }));
    state.fieldNames.erase(std::string());
    state.fieldNamesLoaded = true;
}

namespace {

// Lists a copied field (in the result) among the form's top-level fields,
// with the source's default appearance when the result's differs and it has
// none. Its name is settled when the batch ends.
void addTopField(CopyState &state, Graft &graft, pdf_obj *field)
{
    pdf_document *dst = graft.destination();
    // The names the result had before the batch: those the copies must not take.
    loadFieldNames(state, dst);
    pdf_document *src = graft.source()->doc;
    mu::call([&](fz_context *c) {
        pdf_obj *form = formOf(c, dst);
        pdf_obj *da = pdf_dict_getp(c, rootOf(c, src), "AcroForm/DA");
        if (da && !pdf_dict_get(c, field, PDF_NAME(DA)) && pdf_objcmp(c, da, pdf_dict_get(c, form, PDF_NAME(DA))))
            pdf_dict_put_drop(c, field, PDF_NAME(DA), graft.bring(c, da));
        pdf_array_push(c, pdf_dict_get(c, form, PDF_NAME(Fields)), field);
    });
    graft.topFields.emplace_back();
    graft.topFields.back() = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, field); }));
}

// The result's copy of the source field `field` (a new reference), made on
// first use with its entries but its kids and parent: the widgets copied,
// and fields on the way to them, join it as they come.
Obj bringField(CopyState &state, Graft &graft, pdf_obj *field, int depth)
{
    pdf_document *dst = graft.destination();
    const int num = mu::call([&](fz_context *c) { return pdf_to_num(c, field); });
    if (const int known = num > 0 ? graft.copyOf(num) : 0)
        return Obj(mu::call([&](fz_context *c) { return pdf_new_indirect(c, dst, known, 0); }));
    const size_t before = graft.mark();
    Obj copy(mu::call([&](fz_context *c) {
        pdf_obj *dict = pdf_add_new_dict(c, dst, 8);
        fz_try(c)
        {
            if (num > 0)
                graft.setCopy(c, num, pdf_to_num(c, dict));
            for (int i = 0; i < pdf_dict_len(c, field); ++i) {
                pdf_obj *key = pdf_dict_get_key(c, field, i);
                if (!pdf_name_eq(c, key, PDF_NAME(Kids)) && !pdf_name_eq(c, key, PDF_NAME(Parent)) &&
                    !pdf_name_eq(c, key, PDF_NAME(P)))
                    pdf_dict_put_drop(c, dict, key, graft.bring(c, pdf_dict_get_val(c, field, i)));
            }
        }
        fz_catch(c)
        {
            pdf_drop_obj(c, dict);
            graft.forget(before);
            fz_rethrow(c);
        }
        return dict;
    }));
    pdf_obj *parent = mu::call([&](fz_context *c) {
        pdf_obj *p = pdf_dict_get(c, field, PDF_NAME(Parent));
        return pdf_is_dict(c, p) ? p : nullptr;
    });
    if (parent && depth < maxDepth) {
        Obj up = bringField(state, graft, parent, depth + 1);
        mu::call([&](fz_context *c) {
            pdf_dict_put(c, copy.get(), PDF_NAME(Parent), up.get());
            pdf_obj *kids = pdf_dict_get(c, up.get(), PDF_NAME(Kids));
            if (!pdf_is_array(c, kids))
                kids = pdf_dict_put_array(c, up.get(), PDF_NAME(Kids), 2);
            pdf_array_push(c, kids, copy.get());
        });
    } else {
        addTopField(state, graft, copy.get());
    }
    return copy;
}

} // namespace

void adoptWidget(CopyState &state, Graft &graft, pdf_obj *source, pdf_obj *copy)
{
    mergeForm(graft);
    pdf_obj *parent = mu::call([&](fz_context *c) {
        pdf_obj *p = pdf_dict_get(c, source, PDF_NAME(Parent));
        return pdf_is_dict(c, p) ? p : nullptr;
    });
    if (!parent) {
        addTopField(state, graft, copy);
        return;
    }
    Obj field = bringField(state, graft, parent, 0);
    mu::call([&](fz_context *c) {
        pdf_dict_put(c, copy, PDF_NAME(Parent), field.get());
        pdf_obj *kids = pdf_dict_get(c, field.get(), PDF_NAME(Kids));
        if (!pdf_is_array(c, kids))
            kids = pdf_dict_put_array(c, field.get(), PDF_NAME(Kids), 2);
        pdf_array_push(c, kids, copy);
    });
}

} // namespace structure
