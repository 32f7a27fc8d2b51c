#include "Structure.h"

#include "DocCore.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <unordered_map>
#include <unordered_set>

// Code here keeps C++ objects (lists, names) between MuPDF calls, so every
// MuPDF call goes through mu::call and an error unwinds as an exception;
// the functions called inside mu::call use MuPDF only.
namespace structure {
namespace {

using mu::Obj;

constexpr int maxDepth = 32;

pdf_obj *rootOf(fz_context *c, pdf_document *doc)
{
    return pdf_dict_get(c, pdf_trailer(c, doc), PDF_NAME(Root));
}

// The bytes of a name or a string.
std::string nameText(fz_context *c, pdf_obj *obj)
{
    if (pdf_is_name(c, obj))
        return pdf_to_name(c, obj);
    return std::string(pdf_to_str_buf(c, obj), pdf_to_str_len(c, obj));
}

bool isNamed(fz_context *c, pdf_obj *obj)
{
    return pdf_is_name(c, obj) || pdf_is_string(c, obj);
}

// A destination by its name: in the older dictionary of names, then in the
// name tree (where names are strings).
pdf_obj *lookupNamed(fz_context *c, pdf_document *doc, pdf_obj *needle)
{
    pdf_obj *dests = pdf_dict_get(c, rootOf(c, doc), PDF_NAME(Dests));
    if (pdf_is_name(c, needle)) {
        if (pdf_obj *found = pdf_dict_get(c, dests, needle))
            return found;
        const char *name = pdf_to_name(c, needle);
        pdf_obj *key = pdf_new_string(c, name, std::strlen(name));
        pdf_obj *found = nullptr;
        fz_try(c) found = pdf_lookup_name(c, doc, PDF_NAME(Dests), key);
        fz_always(c) pdf_drop_obj(c, key);
        fz_catch(c) fz_rethrow(c);
        return found;
    }
    if (!pdf_is_string(c, needle))
        return nullptr;
    if (pdf_obj *found = pdf_dict_gets(c, dests, pdf_to_str_buf(c, needle)))
        return found;
    return pdf_lookup_name(c, doc, PDF_NAME(Dests), needle);
}

// The explicit destination (an array) that a destination stands for.
pdf_obj *explicitDestination(fz_context *c, pdf_document *doc, pdf_obj *dest)
{
    if (isNamed(c, dest))
        dest = lookupNamed(c, doc, dest);
    if (pdf_is_dict(c, dest))
        dest = pdf_dict_get(c, dest, PDF_NAME(D));
    return pdf_is_array(c, dest) ? dest : nullptr;
}

// Where a link, an outline entry or an action leads within its document:
// its destination, or the one of its go-to action; null when it leads elsewhere.
pdf_obj *localDestination(fz_context *c, pdf_obj *holder)
{
    if (pdf_obj *dest = pdf_dict_get(c, holder, PDF_NAME(Dest)))
        return dest;
    pdf_obj *action = pdf_dict_get(c, holder, PDF_NAME(A));
    if (pdf_name_eq(c, pdf_dict_get(c, action, PDF_NAME(S)), PDF_NAME(GoTo)))
        return pdf_dict_get(c, action, PDF_NAME(D));
    return nullptr;
}

// The object number of the page a destination names, 0 when it names none
// (a page number, or nothing that can be read).
int destinationPage(fz_context *c, pdf_document *doc, pdf_obj *dest)
{
    pdf_obj *page = pdf_array_get(c, explicitDestination(c, doc, dest), 0);
    return pdf_is_indirect(c, page) ? pdf_to_num(c, page) : 0;
}

std::string freeName(const std::set<std::string> &taken, const std::string &name)
{
    if (!taken.count(name))
        return name;
    for (int n = 2;; ++n) {
        std::string candidate = name + '-' + std::to_string(n);
        if (!taken.count(candidate))
            return candidate;
    }
}

// --- Named destinations ---------------------------------------------------

void loadDestinationNames(CopyState &state, pdf_document *dst)
{
    if (state.destinationNamesLoaded)
        return;
    Obj tree(mu::call([&](fz_context *c) { return pdf_load_name_tree(c, dst, PDF_NAME(Dests)); }));
    pdf_obj *dests = mu::call([&](fz_context *c) { return pdf_dict_get(c, rootOf(c, dst), PDF_NAME(Dests)); });
    for (pdf_obj *names : {tree.get(), dests}) {
        const int n = mu::call([&](fz_context *c) { return pdf_dict_len(c, names); });
        for (int i = 0; i < n; ++i)
            state.destinationNames.insert(mu::call([&](fz_context *c) { return nameText(c, pdf_dict_get_key(c, names, i)); }));
    }
    state.destinationNamesLoaded = true;
}

// Carries the source's destination `needle` into the result on first use;
// its source name, or empty when the source has no such destination.
std::string carryDestination(Graft &graft, pdf_obj *needle)
{
    const std::string name = mu::call([&](fz_context *c) { return nameText(c, needle); });
    auto known = graft.names.find(name);
    if (known != graft.names.end())
        return known->second.destination ? name : std::string();
    pdf_document *src = graft.source()->doc;
    Obj brought(mu::call([&](fz_context *c) -> pdf_obj * {
        pdf_obj *dest = explicitDestination(c, src, needle);
        return dest ? graft.bring(c, dest) : nullptr;
    }));
    const bool found = bool(brought);
    graft.names[name].destination = std::move(brought);
    return found ? name : std::string();
}

// Gives dict[key], when it is a destination name, the form names take in
// the name tree (a string), noting the use for a rename when the batch ends.
void renameDestination(Graft &graft, pdf_obj *dict, pdf_obj *key)
{
    pdf_obj *value = mu::call([&](fz_context *c) {
        pdf_obj *v = pdf_dict_get(c, dict, key);
        return isNamed(c, v) ? v : nullptr;
    });
    if (!value)
        return;
    const std::string name = carryDestination(graft, value);
    if (name.empty())
        return;
    mu::call([&](fz_context *c) { pdf_dict_put_drop(c, dict, key, pdf_new_string(c, name.data(), name.size())); });
    graft.names[name].uses.emplace_back(mu::call([&](fz_context *c) { return pdf_keep_obj(c, dict); }), key);
}

void carryInAction(Graft &graft, pdf_obj *action, int depth)
{
    if (depth > 8 || !mu::call([&](fz_context *c) { return pdf_is_dict(c, action); }))
        return;
    if (mu::call([&](fz_context *c) { return pdf_name_eq(c, pdf_dict_get(c, action, PDF_NAME(S)), PDF_NAME(GoTo)); }))
        renameDestination(graft, action, PDF_NAME(D));
    pdf_obj *next = mu::call([&](fz_context *c) { return pdf_dict_get(c, action, PDF_NAME(Next)); });
    const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, next); });
    if (n == 0)
        carryInAction(graft, next, depth + 1);
    for (int i = 0; i < n; ++i)
        carryInAction(graft, mu::call([&](fz_context *c) { return pdf_array_get(c, next, i); }), depth + 1);
}

// Carries the named destinations a copied link, outline entry or form widget
// (in the result) uses, in its destination, action and additional actions.
void carryNames(Graft &graft, pdf_obj *holder)
{
    renameDestination(graft, holder, PDF_NAME(Dest));
    carryInAction(graft, mu::call([&](fz_context *c) { return pdf_dict_get(c, holder, PDF_NAME(A)); }), 0);
    pdf_obj *more = mu::call([&](fz_context *c) { return pdf_dict_get(c, holder, PDF_NAME(AA)); });
    const int n = mu::call([&](fz_context *c) { return pdf_dict_len(c, more); });
    for (int i = 0; i < n; ++i)
        carryInAction(graft, mu::call([&](fz_context *c) { return pdf_dict_get_val(c, more, i); }), 0);
}

void writeDestinationNames(CopyState &state, pdf_document *dst)
{
    if (state.carriedDestinations.empty())
        return;
    // The tree is written again as one sorted list: the names it had and the carried ones.
    std::map<std::string, Obj> all;
    Obj tree(mu::call([&](fz_context *c) { return pdf_load_name_tree(c, dst, PDF_NAME(Dests)); }));
    const int n = mu::call([&](fz_context *c) { return pdf_dict_len(c, tree.get()); });
    for (int i = 0; i < n; ++i) {
        std::string name = mu::call([&](fz_context *c) { return nameText(c, pdf_dict_get_key(c, tree.get(), i)); });
        all[name] = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, pdf_dict_get_val(c, tree.get(), i)); }));
    }
    for (const auto &carried : state.carriedDestinations)
        all[carried.first] = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, carried.second); }));
    Obj names(mu::call([&](fz_context *c) { return pdf_new_array(c, dst, int(all.size() * 2)); }));
    for (const auto &entry : all)
        mu::call([&](fz_context *c) {
            pdf_array_push_drop(c, names.get(), pdf_new_string(c, entry.first.data(), entry.first.size()));
            pdf_array_push(c, names.get(), entry.second.get());
        });
    mu::call([&](fz_context *c) {
        pdf_obj *root = rootOf(c, dst);
        pdf_obj *nameDicts = pdf_dict_get(c, root, PDF_NAME(Names));
        if (!pdf_is_dict(c, nameDicts))
            nameDicts = pdf_dict_put_dict(c, root, PDF_NAME(Names), 2);
        pdf_obj *dests = pdf_add_new_dict(c, dst, 1);
        fz_try(c)
        {
            pdf_dict_put(c, dests, PDF_NAME(Names), names.get());
            pdf_dict_put(c, nameDicts, PDF_NAME(Dests), dests);
        }
        fz_always(c) pdf_drop_obj(c, dests);
        fz_catch(c) fz_rethrow(c);
    });
}

// --- Form fields -------------------------------------------------------------

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
    graft.topFields.emplace_back(mu::call([&](fz_context *c) { return pdf_keep_obj(c, field); }));
}

// Gives the destinations and top-level fields each source brought their
// names in the result, the sources in the order of their first page there,
// so that of two sources using one name the later is renamed ("-2").
void settleNames(CopyState &state, pdf_document *dst, const std::unordered_map<int, int> &index)
{
    std::vector<std::pair<int, Graft *>> order;
    for (auto &graft : state.grafts) {
        int first = INT_MAX;
        for (int num : graft->placed) {
            auto found = index.find(num);
            if (found != index.end())
                first = std::min(first, found->second);
        }
        order.emplace_back(first, graft.get());
    }
    std::stable_sort(order.begin(), order.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    for (auto &[first, graft] : order) {
        for (auto &named : graft->names) {
            const std::string &name = named.first;
            const Graft::CarriedName &carried = named.second;
            if (!carried.destination)
                continue;
            loadDestinationNames(state, dst);
            const std::string final = freeName(state.destinationNames, name);
            state.destinationNames.insert(final);
            state.carriedDestinations.emplace(
                final, mu::call([&](fz_context *c) { return pdf_keep_obj(c, carried.destination.get()); }));
            if (final != name)
                for (const auto &use : carried.uses)
                    mu::call([&](fz_context *c) {
                        pdf_dict_put_drop(c, use.first.get(), use.second, pdf_new_string(c, final.data(), final.size()));
                    });
        }
        for (const Obj &field : graft->topFields) {
            const std::string name =
                mu::call([&](fz_context *c) { return std::string(pdf_dict_get_text_string(c, field.get(), PDF_NAME(T))); });
            if (name.empty())
                continue;
            const std::string final = freeName(state.fieldNames, name);
            state.fieldNames.insert(final);
            if (final != name)
                mu::call([&](fz_context *c) { pdf_dict_put_text_string(c, field.get(), PDF_NAME(T), final.c_str()); });
        }
    }
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
    Obj copy(mu::call([&](fz_context *c) {
        pdf_obj *dict = pdf_add_new_dict(c, dst, 8);
        fz_try(c)
        {
            if (num > 0)
                graft.setCopy(num, pdf_to_num(c, dict));
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

// Makes the copy of a form widget a field of the result.
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

// --- Outline -------------------------------------------------------------------

using PageIndex = std::unordered_map<int, int>;

// Sets dict[key] to a value (null: removes the key).
using Put = std::function<void(pdf_obj *dict, pdf_obj *key, pdf_obj *value)>;

void putNow(pdf_obj *dict, pdf_obj *key, pdf_obj *value)
{
    mu::call([&](fz_context *c) {
        if (value)
            pdf_dict_put(c, dict, key, value);
        else
            pdf_dict_del(c, dict, key);
    });
}

// Links `children` (outline entries) under `parent` in their order, with the
// count of entries shown below it (negative when it is closed), through `put`.
void linkChildren(pdf_obj *parent, const std::vector<pdf_obj *> &children, bool open, const Put &put = putNow)
{
    int shown = 0;
    for (size_t i = 0; i < children.size(); ++i) {
        pdf_obj *child = children[i];
        put(child, PDF_NAME(Parent), parent);
        put(child, PDF_NAME(Prev), i > 0 ? children[i - 1] : nullptr);
        put(child, PDF_NAME(Next), i + 1 < children.size() ? children[i + 1] : nullptr);
        shown += 1 + std::max(0, mu::call([&](fz_context *c) { return int(pdf_dict_get_int(c, child, PDF_NAME(Count))); }));
    }
    put(parent, PDF_NAME(First), children.empty() ? nullptr : children.front());
    put(parent, PDF_NAME(Last), children.empty() ? nullptr : children.back());
    Obj count(children.empty() ? nullptr : mu::call([&](fz_context *c) { return pdf_new_int(c, open ? shown : -shown); }));
    put(parent, PDF_NAME(Count), count.get());
}

std::vector<pdf_obj *> pointers(const std::vector<Obj> &objects)
{
    std::vector<pdf_obj *> out;
    for (const Obj &object : objects)
        out.push_back(object.get());
    return out;
}

// The outline entries of a chain (references kept).
std::vector<Obj> chainOf(pdf_obj *first, std::unordered_set<int> &seen)
{
    std::vector<Obj> items;
    for (pdf_obj *item = first; item && items.size() < 1000000;) {
        const int num = mu::call([&](fz_context *c) { return pdf_is_dict(c, item) ? pdf_to_num(c, item) : -1; });
        if (num < 0 || (num > 0 && !seen.insert(num).second))
            break;
        items.emplace_back(mu::call([&](fz_context *c) { return pdf_keep_obj(c, item); }));
        item = mu::call([&](fz_context *c) { return pdf_dict_get(c, item, PDF_NAME(Next)); });
    }
    return items;
}

// Reads a chain of entries and those below them into `index`; the position
// of the chain's first entry, or -1.
int readChain(OutlineIndex &index, pdf_document *doc, pdf_obj *first, int depth, std::unordered_set<int> &seen)
{
    if (depth > maxDepth)
        return -1;
    int head = -1, last = -1;
    for (Obj &item : chainOf(first, seen)) {
        const int at = int(index.entries.size());
        index.entries.push_back({});
        if (last >= 0)
            index.entries[size_t(last)].next = at;
        else
            head = at;
        last = at;
        mu::call([&](fz_context *c) {
            OutlineIndex::Entry &entry = index.entries[size_t(at)];
            pdf_obj *dest = localDestination(c, item.get());
            entry.local = dest != nullptr;
            entry.leads = entry.local || pdf_dict_get(c, item.get(), PDF_NAME(A));
            entry.page = dest ? destinationPage(c, doc, dest) : 0;
            entry.open = pdf_dict_get_int(c, item.get(), PDF_NAME(Count)) >= 0;
        });
        pdf_obj *child = mu::call([&](fz_context *c) { return pdf_dict_get(c, item.get(), PDF_NAME(First)); });
        index.entries[size_t(at)].item = std::move(item);
        const int children = readChain(index, doc, child, depth + 1, seen);
        index.entries[size_t(at)].firstChild = children;
    }
    return head;
}

std::shared_ptr<const OutlineIndex> outlineOf(DocCore &core)
{
    if (!core.outline) {
        auto index = std::make_shared<OutlineIndex>();
        pdf_obj *first = mu::call([&](fz_context *c) { return pdf_dict_getp(c, rootOf(c, core.doc), "Outlines/First"); });
        std::unordered_set<int> seen;
        index->first = readChain(*index, core.doc, first, 0, seen);
        core.outline = index;
    }
    return core.outline;
}

// Copies of the source outline entries from position `first` on that lead
// to copied pages or elsewhere, or have entries below them that do; an entry
// kept only for those loses its destination.
std::vector<Obj> copyEntries(Graft &graft, const PageIndex &pages, const OutlineIndex &outline, int first, int depth)
{
    std::vector<Obj> result;
    if (depth > maxDepth)
        return result;
    pdf_document *dst = graft.destination();
    for (int at = first; at >= 0; at = outline.entries[size_t(at)].next) {
        const OutlineIndex::Entry &source = outline.entries[size_t(at)];
        std::vector<Obj> children = copyEntries(graft, pages, outline, source.firstChild, depth + 1);
        const int copy = source.page > 0 ? graft.copyOfPage(source.page) : 0;
        // An entry leading to a page left behind, or nowhere at all, stays
        // only for entries below it; one leading out of the document stays.
        const bool dropped = source.local ? !(copy && pages.count(copy)) : !source.leads;
        if (dropped && children.empty())
            continue;
        Obj entry(mu::call([&](fz_context *c) {
            pdf_obj *made = pdf_add_new_dict(c, dst, 8);
            fz_try(c)
            {
                pdf_obj *keys[] = {PDF_NAME(Title), PDF_NAME(C), PDF_NAME(F), PDF_NAME(Dest), PDF_NAME(A)};
                const int kept = dropped ? 3 : 5;
                for (int k = 0; k < kept; ++k)
                    if (pdf_obj *value = pdf_dict_get(c, source.item.get(), keys[k]))
                        pdf_dict_put_drop(c, made, keys[k], graft.bring(c, value));
            }
            fz_catch(c)
            {
                pdf_drop_obj(c, made);
                fz_rethrow(c);
            }
            return made;
        }));
        if (!dropped)
            carryNames(graft, entry.get());
        linkChildren(entry.get(), pointers(children), source.open);
        result.push_back(std::move(entry));
    }
    return result;
}

// The index of the result page an outline entry of the result leads to,
// else the one its first child leads to; -1 when there is none.
int entryPage(pdf_document *dst, const CopyState &state, const PageIndex &index, pdf_obj *item, int depth)
{
    if (depth > maxDepth)
        return -1;
    const int num = mu::call([&](fz_context *c) {
        pdf_obj *dest = localDestination(c, item);
        if (isNamed(c, dest)) {
            // Names carried by this batch are not in the name tree yet.
            auto carried = state.carriedDestinations.find(nameText(c, dest));
            if (carried != state.carriedDestinations.end())
                dest = carried->second;
        }
        return dest ? destinationPage(c, dst, dest) : 0;
    });
    auto found = index.find(num);
    if (found != index.end())
        return found->second;
    pdf_obj *child = mu::call([&](fz_context *c) { return pdf_dict_get(c, item, PDF_NAME(First)); });
    return child ? entryPage(dst, state, index, child, depth + 1) : -1;
}

// What one source brings to the result's outline: its entries (or the entry
// standing for it), to go before the first top-level entry of the result
// that leads past `firstPage`.
struct Carried {
    std::vector<Obj> entries;
    int firstPage = -1;
};

Carried carryOutline(CopyState &state, Graft &graft, const PageIndex &index)
{
    Carried carried;
    int firstNum = 0;
    for (int num : graft.placed) {
        auto found = index.find(num);
        if (found != index.end() && (carried.firstPage < 0 || found->second < carried.firstPage)) {
            carried.firstPage = found->second;
            firstNum = num;
        }
    }
    if (carried.firstPage < 0)
        return carried;
    pdf_document *dst = graft.destination();
    const auto outline = outlineOf(*graft.source());
    carried.entries = copyEntries(graft, index, *outline, outline->first, 0);
    auto group = state.outlineGroups.find(graft.source().get());
    if (group == state.outlineGroups.end())
        return carried;
    const QByteArray title = group->second.toUtf8();
    Obj entry(mu::call([&](fz_context *c) {
        pdf_obj *made = pdf_add_new_dict(c, dst, 6);
        fz_try(c)
        {
            pdf_dict_put_text_string(c, made, PDF_NAME(Title), title.constData());
            pdf_obj *dest = pdf_dict_put_array(c, made, PDF_NAME(Dest), 5);
            pdf_array_push_drop(c, dest, pdf_new_indirect(c, dst, firstNum, 0));
            pdf_array_push(c, dest, PDF_NAME(XYZ));
            for (int k = 0; k < 3; ++k)
                pdf_array_push(c, dest, PDF_NULL);
        }
        fz_catch(c)
        {
            pdf_drop_obj(c, made);
            fz_rethrow(c);
        }
        return made;
    }));
    linkChildren(entry.get(), pointers(carried.entries), true);
    carried.entries.clear();
    carried.entries.push_back(std::move(entry));
    return carried;
}

// Puts the carried entries among the result's top-level outline entries.
void placeInOutline(CopyState &state, pdf_document *dst, const PageIndex &index, Carried &carried)
{
    if (carried.entries.empty())
        return;
    pdf_obj *outlines = mu::call([&](fz_context *c) {
        pdf_obj *root = rootOf(c, dst);
        pdf_obj *found = pdf_dict_get(c, root, PDF_NAME(Outlines));
        if (pdf_is_dict(c, found))
            return found;
        pdf_obj *made = pdf_add_new_dict(c, dst, 4);
        fz_try(c)
        {
            pdf_dict_put(c, made, PDF_NAME(Type), PDF_NAME(Outlines));
            pdf_dict_put(c, root, PDF_NAME(Outlines), made);
        }
        fz_always(c) pdf_drop_obj(c, made);
        fz_catch(c) fz_rethrow(c);
        return pdf_dict_get(c, root, PDF_NAME(Outlines));
    });
    std::unordered_set<int> seen;
    std::vector<Obj> top = chainOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, outlines, PDF_NAME(First)); }), seen);
    size_t at = 0;
    while (at < top.size() && entryPage(dst, state, index, top[at].get(), 0) <= carried.firstPage)
        ++at;
    std::vector<Obj> all;
    for (size_t i = 0; i < top.size(); ++i) {
        if (i == at)
            for (Obj &entry : carried.entries)
                all.push_back(std::move(entry));
        all.push_back(std::move(top[i]));
    }
    for (Obj &entry : carried.entries)
        if (entry)
            all.push_back(std::move(entry));
    linkChildren(outlines, pointers(all), true);
}

} // namespace

void tieAnnotations(CopyState &state, Graft &graft)
{
    auto copied = std::move(graft.copiedAnnotations);
    graft.copiedAnnotations.clear();
    for (const auto &pair : copied) {
        const Obj &source = pair.first;
        const Obj &copy = pair.second;
        try {
            carryNames(graft, copy.get());
            if (mu::call([&](fz_context *c) {
                    return pdf_name_eq(c, pdf_dict_get(c, copy.get(), PDF_NAME(Subtype)), PDF_NAME(Widget));
                }))
                adoptWidget(state, graft, source.get(), copy.get());
        } catch (const mu::Error &) {
            // The copy stays as it is: shown on its page, not tied to the rest.
        }
    }
}

void finishCopies(CopyState &state, DocCore &core, const std::vector<int> &pages)
{
    pdf_document *dst = core.doc;
    PageIndex index;
    for (size_t i = 0; i < pages.size(); ++i)
        index.emplace(pages[i], int(i));
    // The entries are made first (they may carry names), the names written,
    // then the entries placed, which looks their pages up by name.
    std::vector<Carried> carried;
    for (auto &graft : state.grafts) {
        try {
            carried.push_back(carryOutline(state, *graft, index));
        } catch (const mu::Error &) {
        }
    }
    try {
        settleNames(state, dst, index);
        writeDestinationNames(state, dst);
        for (Carried &one : carried) {
            if (!one.entries.empty())
                core.outline.reset();
            placeInOutline(state, dst, index, one);
        }
    } catch (const mu::Error &) {
    }
}

bool hasOutline(pdf_document *doc)
{
    bool found = false;
    mu::tryGuard([&](fz_context *c) { found = pdf_is_dict(c, pdf_dict_getp(c, rootOf(c, doc), "Outlines/First")); });
    return found;
}

// --- Trimming for a save ------------------------------------------------------

namespace {

class Trimmer {
public:
    Trimmer(SaveTrim &trim, pdf_document *doc, const std::vector<int> &pages) : trim_(trim), doc_(doc)
    {
        pageSet_.insert(pages.begin(), pages.end());
        for (int num : pages)
            pageRefs_.emplace_back(mu::call([&](fz_context *c) { return pdf_new_indirect(c, doc, num, 0); }));
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
