// Named destinations that page copies carry from their sources into the
// result, renamed where the result already uses the name.
#include "StructureParts.h"

#include "DocCore.h"

#include <map>

namespace structure {

using mu::Obj;

void loadDestinationNames(CopyState &state, pdf_document *dst)
{
    if (state.destinationNamesLoaded)
        return;
    mu::call([&](fz_context *c) {
        visitDestinationNames(c, dst, [&](std::string_view name, pdf_obj *) { state.destinationNames.emplace(name); });
        pdf_obj *dests = pdf_dict_get(c, rootOf(c, dst), PDF_NAME(Dests));
        for (int i = 0; i < pdf_dict_len(c, dests); ++i)
            state.destinationNames.emplace(keyBytes(c, pdf_dict_get_key(c, dests, i)));
    });
    state.destinationNamesLoaded = true;
}

namespace {

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
    // The slot is made first: a reference is never taken before there is room to keep it.
    auto &uses = graft.names[name].uses;
    uses.emplace_back(Obj(), key);
    uses.back().first = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, dict); }));
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

} // namespace

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
    mu::call([&](fz_context *c) {
        visitDestinationNames(c, dst, [&](std::string_view name, pdf_obj *value) {
            Obj &slot = all[std::string(name)];
            slot = Obj(pdf_keep_obj(c, value));
        });
    });
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

} // namespace structure
