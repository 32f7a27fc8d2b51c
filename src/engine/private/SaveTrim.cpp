// Trimming for a save: what points at pages outside the page tree is taken
// out of the document for the time of the save and put back after it.
#include "StructureParts.h"

#include "DocCore.h"

#include <unordered_set>

namespace structure {

using mu::Obj;

namespace {

class Trimmer {
public:
    Trimmer(SaveTrim &trim, pdf_document *doc, const std::vector<int> &pages) : trim_(trim), doc_(doc)
    {
        pageSet_.insert(pages.begin(), pages.end());
        for (int num : pages) {
            pageRefs_.emplace_back();
            pageRefs_.back() = Obj(mu::call([&](fz_context *c) { return pdf_new_indirect(c, doc, num, 0); }));
        }
    }

    void run()
    {
        for (const Obj &page : pageRefs_)
            collectAnnotations(page.get());
        for (const Obj &page : pageRefs_)
            trimAnnotations(page.get());
        trimOutline();
        trimOpenAction();
        trimNames();
        trimForm();
    }

private:
    // Whether a destination leads to a page that is not in the page tree:
    // one left out, or the empty slot of a page never copied.
    bool gone(pdf_obj *dest)
    {
        return mu::call([&](fz_context *c) {
            if (!dest)
                return false;
            pdf_obj *page = pdf_array_get(c, explicitDestination(c, doc_, dest), 0);
            if (!pdf_is_indirect(c, page) || pageSet_.count(pdf_to_num(c, page)))
                return false;
            pdf_obj *value = pdf_resolve_indirect(c, page);
            return !value || pdf_is_null(c, value) || pdf_name_eq(c, pdf_dict_get(c, value, PDF_NAME(Type)), PDF_NAME(Page));
        });
    }

    bool actionGone(pdf_obj *action)
    {
        const bool goTo =
            mu::call([&](fz_context *c) { return pdf_name_eq(c, pdf_dict_get(c, action, PDF_NAME(S)), PDF_NAME(GoTo)); });
        return goTo && gone(mu::call([&](fz_context *c) { return pdf_dict_get(c, action, PDF_NAME(D)); }));
    }

    void collectAnnotations(pdf_obj *page)
    {
        pdf_obj *annots = mu::call([&](fz_context *c) { return pdf_dict_get(c, page, PDF_NAME(Annots)); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, annots); });
        for (int i = 0; i < n; ++i)
            onPages_.insert(mu::call([&](fz_context *c) { return pdf_to_num(c, pdf_array_get(c, annots, i)); }));
    }

    // Links to pages that are gone leave the page; other annotations lose
    // actions that lead there; each annotation's page reference names its page.
    void trimAnnotations(pdf_obj *page)
    {
        pdf_obj *annots = mu::call([&](fz_context *c) { return pdf_dict_get(c, page, PDF_NAME(Annots)); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, annots); });
        std::vector<int> keep;
        for (int i = 0; i < n; ++i) {
            pdf_obj *annot = mu::call([&](fz_context *c) { return pdf_array_get(c, annots, i); });
            const bool link = mu::call(
                [&](fz_context *c) { return pdf_name_eq(c, pdf_dict_get(c, annot, PDF_NAME(Subtype)), PDF_NAME(Link)); });
            if (link && gone(mu::call([&](fz_context *c) { return localDestination(c, annot); })))
                continue;
            keep.push_back(i);
            if (!link && gone(mu::call([&](fz_context *c) { return pdf_dict_get(c, annot, PDF_NAME(Dest)); })))
                trim_.put(annot, PDF_NAME(Dest), nullptr);
            pdf_obj *action = mu::call([&](fz_context *c) { return pdf_dict_get(c, annot, PDF_NAME(A)); });
            if (action && actionGone(action))
                trim_.put(annot, PDF_NAME(A), nullptr);
            pdf_obj *more = mu::call([&](fz_context *c) { return pdf_dict_get(c, annot, PDF_NAME(AA)); });
            const int m = mu::call([&](fz_context *c) { return pdf_dict_len(c, more); });
            for (int k = m - 1; k >= 0; --k)
                if (actionGone(mu::call([&](fz_context *c) { return pdf_dict_get_val(c, more, k); })))
                    trim_.put(more, mu::call([&](fz_context *c) { return pdf_dict_get_key(c, more, k); }), nullptr);
            const bool elsewhere = mu::call([&](fz_context *c) {
                pdf_obj *p = pdf_dict_get(c, annot, PDF_NAME(P));
                return p && pdf_to_num(c, p) != pdf_to_num(c, page);
            });
            if (elsewhere)
                trim_.put(annot, PDF_NAME(P), page);
        }
        putKept(page, PDF_NAME(Annots), annots, keep);
    }

    // An outline entry that stays, with the entries below it that stay.
    struct Entry {
        Obj item;
        std::vector<Entry> children;
    };

    // The entries of a chain that stay; `changed` tells when any went or lost its destination.
    std::vector<Entry> trimEntries(pdf_obj *first, int depth, std::unordered_set<int> &seen, bool &changed)
    {
        std::vector<Entry> kept;
        if (depth > maxDepth)
            return kept;
        for (Obj &item : chainOf(first, seen)) {
            pdf_obj *firstChild = mu::call([&](fz_context *c) { return pdf_dict_get(c, item.get(), PDF_NAME(First)); });
            std::vector<Entry> children = trimEntries(firstChild, depth + 1, seen, changed);
            const bool leadsAway = gone(mu::call([&](fz_context *c) { return localDestination(c, item.get()); }));
            if (leadsAway && children.empty()) {
                changed = true;
                continue;
            }
            if (leadsAway) {
                trim_.put(item.get(), PDF_NAME(Dest), nullptr);
                trim_.put(item.get(), PDF_NAME(A), nullptr);
                changed = true;
            }
            kept.push_back({std::move(item), std::move(children)});
        }
        return kept;
    }

    void trimOutline()
    {
        pdf_obj *outlines = mu::call([&](fz_context *c) { return pdf_dict_get(c, rootOf(c, doc_), PDF_NAME(Outlines)); });
        pdf_obj *first = mu::call([&](fz_context *c) { return pdf_dict_get(c, outlines, PDF_NAME(First)); });
        if (!first)
            return;
        bool changed = false;
        std::unordered_set<int> seen;
        std::vector<Entry> top = trimEntries(first, 0, seen, changed);
        // Entries dropped anywhere change the counts up to the root: the
        // whole outline is linked again with what stays of it.
        if (changed)
            relink(outlines, top, true);
    }

    // Links what stays of the outline again through the trim, each entry's
    // children first, so each count sees the counts below it.
    void relink(pdf_obj *parent, const std::vector<Entry> &children, bool open)
    {
        std::vector<pdf_obj *> items;
        for (const Entry &child : children) {
            const bool childOpen =
                mu::call([&](fz_context *c) { return pdf_dict_get_int(c, child.item.get(), PDF_NAME(Count)) >= 0; });
            relink(child.item.get(), child.children, childOpen);
            items.push_back(child.item.get());
        }
        linkChildren(parent, items, open, [this](pdf_obj *dict, pdf_obj *key, pdf_obj *value) { trim_.put(dict, key, value); });
    }

    // Puts in holder[key], for the time of the save, a list of the entries
    // of `list` at the positions `keep`, each with the `group - 1` entries
    // after it; nothing when every entry is kept.
    void putKept(pdf_obj *holder, pdf_obj *key, pdf_obj *list, const std::vector<int> &keep, int group = 1)
    {
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, list); });
        if (int(keep.size()) * group >= n - n % group)
            return;
        Obj kept(mu::call([&](fz_context *c) { return pdf_new_array(c, doc_, int(keep.size()) * group); }));
        for (int i : keep)
            mu::call([&](fz_context *c) {
                for (int k = 0; k < group; ++k)
                    pdf_array_push(c, kept.get(), pdf_array_get(c, list, i + k));
            });
        trim_.put(holder, key, kept.get());
    }

    void trimOpenAction()
    {
        pdf_obj *root = mu::call([&](fz_context *c) { return rootOf(c, doc_); });
        Obj key(mu::call([&](fz_context *c) { return pdf_new_name(c, "OpenAction"); }));
        pdf_obj *open = mu::call([&](fz_context *c) { return pdf_dict_get(c, root, key.get()); });
        const bool array = mu::call([&](fz_context *c) { return pdf_is_array(c, open); });
        if (open && (array ? gone(open) : actionGone(open)))
            trim_.put(root, key.get(), nullptr);
    }

    void trimNameTree(pdf_obj *node, int depth)
    {
        if (depth > maxDepth)
            return;
        pdf_obj *names = mu::call([&](fz_context *c) { return pdf_dict_get(c, node, PDF_NAME(Names)); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, names); });
        std::vector<int> keep;
        for (int i = 0; i + 1 < n; i += 2)
            if (!gone(mu::call([&](fz_context *c) { return pdf_array_get(c, names, i + 1); })))
                keep.push_back(i);
        putKept(node, PDF_NAME(Names), names, keep, 2);
        pdf_obj *kids = mu::call([&](fz_context *c) { return pdf_dict_get(c, node, PDF_NAME(Kids)); });
        const int k = mu::call([&](fz_context *c) { return pdf_array_len(c, kids); });
        for (int i = 0; i < k; ++i)
            trimNameTree(mu::call([&](fz_context *c) { return pdf_array_get(c, kids, i); }), depth + 1);
    }

    void trimNames()
    {
        pdf_obj *root = mu::call([&](fz_context *c) { return rootOf(c, doc_); });
        trimNameTree(mu::call([&](fz_context *c) { return pdf_dict_getp(c, root, "Names/Dests"); }), 0);
        pdf_obj *dests = mu::call([&](fz_context *c) { return pdf_dict_get(c, root, PDF_NAME(Dests)); });
        const int n = mu::call([&](fz_context *c) { return pdf_dict_len(c, dests); });
        for (int i = n - 1; i >= 0; --i)
            if (gone(mu::call([&](fz_context *c) { return pdf_dict_get_val(c, dests, i); })))
                trim_.put(dests, mu::call([&](fz_context *c) { return pdf_dict_get_key(c, dests, i); }), nullptr);
    }

    // Whether a field stays: one with kids while a kid stays (the kids that
    // go are taken out), a widget while it is on a page, any other while it is there.
    bool keepField(pdf_obj *field, int depth)
    {
        pdf_obj *kids = mu::call([&](fz_context *c) {
            pdf_obj *k = pdf_dict_get(c, field, PDF_NAME(Kids));
            return pdf_is_array(c, k) ? k : nullptr;
        });
        if (!kids || depth > maxDepth) {
            const bool widget = mu::call(
                [&](fz_context *c) { return pdf_name_eq(c, pdf_dict_get(c, field, PDF_NAME(Subtype)), PDF_NAME(Widget)); });
            return !widget || onPages_.count(mu::call([&](fz_context *c) { return pdf_to_num(c, field); }));
        }
        return trimFieldList(field, PDF_NAME(Kids), kids, depth + 1) > 0;
    }

    // Takes the fields that go out of a list; how many stay.
    int trimFieldList(pdf_obj *holder, pdf_obj *key, pdf_obj *list, int depth)
    {
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, list); });
        std::vector<int> keep;
        for (int i = 0; i < n; ++i) {
            pdf_obj *field = mu::call([&](fz_context *c) { return pdf_array_get(c, list, i); });
            if (keepField(field, depth))
                keep.push_back(i);
            else
                goneFields_.insert(mu::call([&](fz_context *c) { return pdf_to_num(c, field); }));
        }
        putKept(holder, key, list, keep);
        return int(keep.size());
    }

    void trimForm()
    {
        pdf_obj *form = mu::call([&](fz_context *c) { return pdf_dict_get(c, rootOf(c, doc_), PDF_NAME(AcroForm)); });
        pdf_obj *fields = mu::call([&](fz_context *c) { return pdf_dict_get(c, form, PDF_NAME(Fields)); });
        if (!mu::call([&](fz_context *c) { return pdf_is_array(c, fields); }))
            return;
        trimFieldList(form, PDF_NAME(Fields), fields, 0);
        if (goneFields_.empty())
            return;
        // The calculation order names fields too.
        Obj key(mu::call([&](fz_context *c) { return pdf_new_name(c, "CO"); }));
        pdf_obj *order = mu::call([&](fz_context *c) { return pdf_dict_get(c, form, key.get()); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, order); });
        std::vector<int> keep;
        for (int i = 0; i < n; ++i)
            if (!goneFields_.count(mu::call([&](fz_context *c) { return pdf_to_num(c, pdf_array_get(c, order, i)); })))
                keep.push_back(i);
        putKept(form, key.get(), order, keep);
    }

    SaveTrim &trim_;
    pdf_document *doc_;
    std::unordered_set<int> pageSet_;
    std::vector<Obj> pageRefs_;
    std::unordered_set<int> onPages_;
    std::unordered_set<int> goneFields_;
};

} // namespace

SaveTrim::SaveTrim(pdf_document *doc, const std::vector<int> &pages)
{
    try {
        Trimmer trimmer(*this, doc, pages);
        trimmer.run();
    } catch (const mu::Error &) {
        // What was taken out so far stays out for the save and comes back after it.
    }
}

SaveTrim::~SaveTrim()
{
    for (auto it = changes_.rbegin(); it != changes_.rend(); ++it)
        mu::tryGuard([&](fz_context *c) {
            if (it->old)
                pdf_dict_put(c, it->dict.get(), it->key.get(), it->old.get());
            else
                pdf_dict_del(c, it->dict.get(), it->key.get());
        });
}

void SaveTrim::put(pdf_obj *dict, pdf_obj *key, pdf_obj *value)
{
    Change change;
    change.dict = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, dict); }));
    change.key = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, key); }));
    change.old = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, pdf_dict_get(c, dict, key)); }));
    if (!change.old && !value)
        return;
    changes_.push_back(std::move(change));
    mu::call([&](fz_context *c) {
        if (value)
            pdf_dict_put(c, dict, key, value);
        else
            pdf_dict_del(c, dict, key);
    });
}

} // namespace structure
