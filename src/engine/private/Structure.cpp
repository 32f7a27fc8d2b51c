#include "StructureParts.h"

#include "DocCore.h"

#include <algorithm>
#include <climits>
#include <cstring>

// Code in the structure files keeps C++ objects (lists, names) between MuPDF
// calls, so every MuPDF call goes through mu::call and an error unwinds as an
// exception; the functions called inside mu::call use MuPDF only.
namespace structure {

using mu::Obj;

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

std::string_view keyBytes(fz_context *c, pdf_obj *key)
{
    if (pdf_is_name(c, key))
        return pdf_to_name(c, key);
    return std::string_view(pdf_to_str_buf(c, key), pdf_to_str_len(c, key));
}

namespace {

// Nodes of a name tree visited at most, whatever loops a damaged tree holds.
constexpr int nameTreeBudget = 100000;

pdf_obj *findInNameTree(fz_context *c, pdf_obj *node, std::string_view key, int depth, int &budget)
{
    if (depth > maxDepth || --budget < 0 || !pdf_is_dict(c, node))
        return nullptr;
    pdf_obj *names = pdf_dict_get(c, node, PDF_NAME(Names));
    for (int i = 0; i + 1 < pdf_array_len(c, names); i += 2)
        if (keyBytes(c, pdf_array_get(c, names, i)) == key)
            return pdf_array_get(c, names, i + 1);
    pdf_obj *kids = pdf_dict_get(c, node, PDF_NAME(Kids));
    for (int i = 0; i < pdf_array_len(c, kids); ++i) {
        pdf_obj *kid = pdf_array_get(c, kids, i);
        pdf_obj *limits = pdf_dict_get(c, kid, PDF_NAME(Limits));
        if (pdf_array_len(c, limits) == 2 &&
            (key < keyBytes(c, pdf_array_get(c, limits, 0)) || keyBytes(c, pdf_array_get(c, limits, 1)) < key))
            continue;
        if (pdf_obj *found = findInNameTree(c, kid, key, depth + 1, budget))
            return found;
    }
    return nullptr;
}

void visitNameTree(fz_context *c, pdf_obj *node, int depth, int &budget, const NameVisitor &visit)
{
    if (depth > maxDepth || --budget < 0 || !pdf_is_dict(c, node))
        return;
    pdf_obj *names = pdf_dict_get(c, node, PDF_NAME(Names));
    for (int i = 0; i + 1 < pdf_array_len(c, names); i += 2)
        visit(keyBytes(c, pdf_array_get(c, names, i)), pdf_array_get(c, names, i + 1));
    pdf_obj *kids = pdf_dict_get(c, node, PDF_NAME(Kids));
    for (int i = 0; i < pdf_array_len(c, kids); ++i)
        visitNameTree(c, pdf_array_get(c, kids, i), depth + 1, budget, visit);
}

pdf_obj *destinationTree(fz_context *c, pdf_document *doc)
{
    return pdf_dict_getp(c, rootOf(c, doc), "Names/Dests");
}

} // namespace

// Names are compared as the bytes they are written with: MuPDF's own lookup
// stops at the first zero byte (every UTF-16 name looks alike to it) and its
// loaded name tree turns the keys into UTF-8.
pdf_obj *lookupNamed(fz_context *c, pdf_document *doc, pdf_obj *needle)
{
    if (!isNamed(c, needle))
        return nullptr;
    const std::string_view key = keyBytes(c, needle);
    pdf_obj *dests = pdf_dict_get(c, rootOf(c, doc), PDF_NAME(Dests));
    for (int i = 0; i < pdf_dict_len(c, dests); ++i)
        if (keyBytes(c, pdf_dict_get_key(c, dests, i)) == key)
            return pdf_dict_get_val(c, dests, i);
    int budget = nameTreeBudget;
    return findInNameTree(c, destinationTree(c, doc), key, 0, budget);
}

void visitDestinationNames(fz_context *c, pdf_document *doc, const NameVisitor &visit)
{
    int budget = nameTreeBudget;
    visitNameTree(c, destinationTree(c, doc), 0, budget, visit);
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

pdf_obj *DestinationTable::explicitDestination(fz_context *c, pdf_obj *dest)
{
    if (isNamed(c, dest)) {
        if (!loaded_) {
            // As lookupNamed: the older dictionary of names before the tree.
            mu::cxx(c, [&] {
                visitDestinationNames(c, doc_, [&](std::string_view name, pdf_obj *value) { names_.emplace(name, value); });
            });
            pdf_obj *dests = pdf_dict_get(c, rootOf(c, doc_), PDF_NAME(Dests));
            for (int i = 0; i < pdf_dict_len(c, dests); ++i)
                mu::cxx(c,
                        [&] { names_[std::string(keyBytes(c, pdf_dict_get_key(c, dests, i)))] = pdf_dict_get_val(c, dests, i); });
            loaded_ = true;
        }
        auto found = mu::cxx(c, [&] { return names_.find(std::string(keyBytes(c, dest))); });
        dest = found == names_.end() ? nullptr : found->second;
    }
    return structure::explicitDestination(c, doc_, dest);
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

namespace {

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
            pdf_obj *&slot = state.carriedDestinations[final]; // room first, then the reference
            if (!slot)
                slot = mu::call([&](fz_context *c) { return pdf_keep_obj(c, carried.destination.get()); });
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
    bool outlineChanged = false;
    try {
        settleNames(state, dst, index);
        writeDestinationNames(state, dst);
        for (Carried &one : carried) {
            if (!one.entries.empty()) {
                core.outline.reset();
                outlineChanged = true;
            }
            placeInOutline(state, dst, index, one);
        }
    } catch (const mu::Error &) {
    }
    if (outlineChanged)
        emit core.changes.outlineChanged();
}

bool hasOutline(pdf_document *doc)
{
    bool found = false;
    mu::tryGuard([&](fz_context *c) { found = pdf_is_dict(c, pdf_dict_getp(c, rootOf(c, doc), "Outlines/First")); });
    return found;
}

} // namespace structure
