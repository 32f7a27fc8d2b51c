// The outline entries that page copies bring from their sources, placed
// among the result's entries in page order.
#include "StructureParts.h"

#include "DocCore.h"

#include <QByteArray>

#include <algorithm>
#include <climits>
#include <cstdint>

#include <unordered_set>

namespace structure {

using mu::Obj;

void putNow(pdf_obj *dict, pdf_obj *key, pdf_obj *value)
{
    mu::call([&](fz_context *c) {
        if (value)
            pdf_dict_put(c, dict, key, value);
        else
            pdf_dict_del(c, dict, key);
    });
}

void linkChildren(pdf_obj *parent, const std::vector<pdf_obj *> &children, bool open, const Put &put)
{
    // A count read from the file may be anything: the sum is kept in 64 bits
    // and held to what a PDF integer of ours can say.
    int64_t shown = 0;
    for (size_t i = 0; i < children.size(); ++i) {
        pdf_obj *child = children[i];
        put(child, PDF_NAME(Parent), parent);
        put(child, PDF_NAME(Prev), i > 0 ? children[i - 1] : nullptr);
        put(child, PDF_NAME(Next), i + 1 < children.size() ? children[i + 1] : nullptr);
        const int below = mu::call([&](fz_context *c) { return pdf_dict_get_int(c, child, PDF_NAME(Count)); });
        shown = std::min<int64_t>(shown + 1 + std::max(0, below), INT_MAX);
    }
    put(parent, PDF_NAME(First), children.empty() ? nullptr : children.front());
    put(parent, PDF_NAME(Last), children.empty() ? nullptr : children.back());
    Obj count(children.empty() ? nullptr : mu::call([&](fz_context *c) { return pdf_new_int(c, open ? shown : -shown); }));
    put(parent, PDF_NAME(Count), count.get());
}

namespace {

std::vector<pdf_obj *> pointers(const std::vector<Obj> &objects)
{
    std::vector<pdf_obj *> out;
    for (const Obj &object : objects)
        out.push_back(object.get());
    return out;
}

} // namespace

std::vector<Obj> chainOf(pdf_obj *first, std::unordered_set<int> &seen)
{
    std::vector<Obj> items;
    for (pdf_obj *item = first; item && items.size() < 1000000;) {
        const int num = mu::call([&](fz_context *c) { return pdf_is_dict(c, item) ? pdf_to_num(c, item) : -1; });
        if (num < 0 || (num > 0 && !seen.insert(num).second))
            break;
        items.emplace_back();
        items.back() = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, item); }));
        item = mu::call([&](fz_context *c) { return pdf_dict_get(c, item, PDF_NAME(Next)); });
    }
    return items;
}

namespace {

// The coordinate at `at` of an explicit destination, when it is a number.
std::optional<qreal> coordinate(fz_context *c, pdf_obj *dest, int at)
{
    pdf_obj *value = pdf_array_get(c, dest, at);
    if (!pdf_is_number(c, value))
        return std::nullopt;
    return pdf_to_real(c, value);
}

// Where on its page an explicit destination leads: the left edge and the
// top it names, each when it names one.
void readPlace(fz_context *c, pdf_obj *dest, OutlineIndex::Entry &entry)
{
    pdf_obj *kind = pdf_array_get(c, dest, 1);
    if (pdf_name_eq(c, kind, PDF_NAME(XYZ))) {
        entry.left = coordinate(c, dest, 2);
        entry.top = coordinate(c, dest, 3);
    } else if (pdf_name_eq(c, kind, PDF_NAME(FitH)) || pdf_name_eq(c, kind, PDF_NAME(FitBH))) {
        entry.top = coordinate(c, dest, 2);
    } else if (pdf_name_eq(c, kind, PDF_NAME(FitV)) || pdf_name_eq(c, kind, PDF_NAME(FitBV))) {
        entry.left = coordinate(c, dest, 2);
    } else if (pdf_name_eq(c, kind, PDF_NAME(FitR))) {
        entry.left = coordinate(c, dest, 2);
        entry.top = coordinate(c, dest, 5);
    }
}

// Reads a chain of entries below `parent` and those below them into
// `index`; the position of the chain's first entry, or -1.
int readChain(OutlineIndex &index, DestinationTable &doc, pdf_obj *first, int parent, int depth, std::unordered_set<int> &seen)
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
        const char *title = nullptr;
        mu::call([&](fz_context *c) {
            OutlineIndex::Entry &entry = index.entries[size_t(at)];
            pdf_obj *dest = localDestination(c, item.get());
            entry.local = dest != nullptr;
            entry.leads = entry.local || pdf_dict_get(c, item.get(), PDF_NAME(A));
            pdf_obj *target = dest ? doc.explicitDestination(c, dest) : nullptr;
            pdf_obj *page = pdf_array_get(c, target, 0);
            entry.page = pdf_is_indirect(c, page) ? pdf_to_num(c, page) : 0;
            if (entry.page)
                readPlace(c, target, entry);
            entry.open = pdf_dict_get_int(c, item.get(), PDF_NAME(Count)) >= 0;
            entry.parent = parent;
            title = pdf_dict_get_text_string(c, item.get(), PDF_NAME(Title));
        });
        OutlineIndex::Entry &entry = index.entries[size_t(at)];
        entry.title = QString::fromUtf8(title);
        const int num = mu::call([&](fz_context *c) { return pdf_to_num(c, item.get()); });
        entry.num = num;
        if (num > 0)
            index.positions.emplace(num, at);
        pdf_obj *child = mu::call([&](fz_context *c) { return pdf_dict_get(c, item.get(), PDF_NAME(First)); });
        entry.item = std::move(item);
        const int children = readChain(index, doc, child, at, depth + 1, seen);
        index.entries[size_t(at)].firstChild = children;
    }
    return head;
}

} // namespace

pdf_obj *outlineRoot(pdf_document *doc, bool make)
{
    return mu::call([&](fz_context *c) {
        pdf_obj *root = rootOf(c, doc);
        pdf_obj *found = pdf_dict_get(c, root, PDF_NAME(Outlines));
        if (pdf_is_dict(c, found) || !make)
            return pdf_is_dict(c, found) ? found : nullptr;
        pdf_obj *made = pdf_add_new_dict(c, doc, 4);
        fz_try(c)
        {
            pdf_dict_put(c, made, PDF_NAME(Type), PDF_NAME(Outlines));
            pdf_dict_put(c, root, PDF_NAME(Outlines), made);
        }
        fz_always(c) pdf_drop_obj(c, made);
        fz_catch(c) fz_rethrow(c);
        return pdf_dict_get(c, root, PDF_NAME(Outlines));
    });
}

std::shared_ptr<const OutlineIndex> outlineOf(DocCore &core)
{
    if (!core.outline) {
        auto index = std::make_shared<OutlineIndex>();
        pdf_obj *first = mu::call([&](fz_context *c) { return pdf_dict_getp(c, rootOf(c, core.doc), "Outlines/First"); });
        std::unordered_set<int> seen;
        DestinationTable names(core.doc);
        index->first = readChain(*index, names, first, -1, 0, seen);
        core.outline = index;
    }
    return core.outline;
}

namespace {

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

} // namespace

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

void placeInOutline(CopyState &state, pdf_document *dst, const PageIndex &index, Carried &carried)
{
    if (carried.entries.empty())
        return;
    pdf_obj *outlines = outlineRoot(dst, true);
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

} // namespace structure
