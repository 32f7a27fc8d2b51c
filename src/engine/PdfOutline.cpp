// Bookmarks read from the outline index the page copies use, and edited by
// relinking the entries' chains with the same code (MuPDF's outline iterator
// is not used: it fails on an empty /Outlines).
#include "PdfOutline.h"

#include "DocCore.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "StructureParts.h"

#include <QByteArray>

#include <algorithm>
#include <unordered_map>

namespace {

using structure::OutlineIndex;

// Where an entry sits: below the entry `parent` (object number, 0: the top
// level), at `row` of its children.
struct Place {
    int parent = 0;
    int row = 0;
};

std::vector<pdf_obj *> childrenOf(const OutlineIndex &index, int at)
{
    std::vector<pdf_obj *> children;
    for (int i = at < 0 ? index.first : index.entries[size_t(at)].firstChild; i >= 0; i = index.entries[size_t(i)].next)
        children.push_back(index.entries[size_t(i)].item.get());
    return children;
}

// Links `children` below the entry at `at` (-1: the top level), then every
// entry above it again, so each count up to the root takes in the change.
void relink(DocCore &core, const OutlineIndex &index, int at, const std::vector<pdf_obj *> &children)
{
    std::vector<pdf_obj *> list = children;
    for (;;) {
        if (at < 0) {
            structure::linkChildren(structure::outlineRoot(core.doc, true), list, true);
            break;
        }
        const OutlineIndex::Entry &entry = index.entries[size_t(at)];
        structure::linkChildren(entry.item.get(), list, entry.open);
        at = entry.parent;
        list = childrenOf(index, at);
    }
    core.outline.reset();
}

// The position of entry `id` in the index, -1 for none; for 0, `top`.
int positionOf(const OutlineIndex &index, int id, int top = -2)
{
    if (id == 0)
        return top;
    auto found = index.positions.find(id);
    return found == index.positions.end() ? -2 : found->second;
}

// Takes entry `id` out of its chain; where it was, or none.
std::optional<Place> detach(DocCore &core, int id)
{
    const auto index = structure::outlineOf(core);
    const int at = positionOf(*index, id);
    if (at < 0)
        return std::nullopt;
    // Its own entries are linked again as read, so a loop below it goes with it nowhere.
    const OutlineIndex::Entry &entry = index->entries[size_t(at)];
    structure::linkChildren(entry.item.get(), childrenOf(*index, at), entry.open);
    const int parent = entry.parent;
    // Below an entry with no object number of its own it could not be put back.
    if (parent >= 0 && index->entries[size_t(parent)].num == 0)
        return std::nullopt;
    std::vector<pdf_obj *> siblings = childrenOf(*index, parent);
    const auto it = std::find(siblings.begin(), siblings.end(), index->entries[size_t(at)].item.get());
    const Place place{parent < 0 ? 0 : index->entries[size_t(parent)].num, int(it - siblings.begin())};
    siblings.erase(it);
    relink(core, *index, parent, siblings);
    return place;
}

// Puts entry `id`, out of any chain, at `place` (its row held to the
// children there); the row it took, or none.
std::optional<int> attach(DocCore &core, int id, Place place)
{
    const auto index = structure::outlineOf(core);
    const int at = positionOf(*index, place.parent, -1);
    if (at < -1)
        return std::nullopt;
    mu::Obj item(mu::call([&](fz_context *c) { return pdf_new_indirect(c, core.doc, id, 0); }));
    std::vector<pdf_obj *> siblings = childrenOf(*index, at);
    const int row = place.row < 0 ? int(siblings.size()) : std::min(place.row, int(siblings.size()));
    siblings.insert(siblings.begin() + row, item.get());
    relink(core, *index, at, siblings);
    return row;
}

// Runs an edit of the outline and announces it; false when it failed.
template <class F> bool edit(DocCore &core, F &&f)
{
    bool ok = false;
    try {
        ok = f();
    } catch (const mu::Error &) {
    } catch (const std::bad_alloc &) {
    }
    core.outline.reset();
    emit core.changes.outlineChanged();
    return ok;
}

// How many levels the entries below the one at `at` take.
int heightBelow(const OutlineIndex &index, int at)
{
    int height = 0;
    for (int i = index.entries[size_t(at)].firstChild; i >= 0; i = index.entries[size_t(i)].next)
        height = std::max(height, 1 + heightBelow(index, i));
    return height;
}

int depthOf(const OutlineIndex &index, int at)
{
    int depth = 0;
    for (; at >= 0; at = index.entries[size_t(at)].parent)
        ++depth;
    return depth;
}

void collect(const OutlineIndex &index, int first, const std::unordered_map<int, std::shared_ptr<PdfPage>> &pages,
             std::vector<PdfBookmark> &out)
{
    for (int at = first; at >= 0; at = index.entries[size_t(at)].next) {
        const OutlineIndex::Entry &entry = index.entries[size_t(at)];
        PdfBookmark bookmark;
        bookmark.id = entry.num;
        bookmark.title = entry.title;
        bookmark.open = entry.open;
        auto page = entry.page ? pages.find(entry.page) : pages.end();
        if (page != pages.end()) {
            bookmark.page = page->second;
            if (entry.left || entry.top) {
                const QRectF box = bookmark.page->bounds();
                bookmark.point = QPointF(entry.left.value_or(box.left()), entry.top.value_or(box.bottom()));
            }
        }
        collect(index, entry.firstChild, pages, bookmark.children);
        out.push_back(std::move(bookmark));
    }
}

} // namespace

PdfOutline::PdfOutline(std::shared_ptr<PdfDocument> document) : document_(std::move(document)) {}

std::vector<PdfBookmark> PdfOutline::bookmarks() const
{
    std::vector<PdfBookmark> result;
    if (!document_ || document_->isLocked())
        return result;
    try {
        const auto index = structure::outlineOf(*document_->core_);
        std::unordered_map<int, std::shared_ptr<PdfPage>> pages;
        const std::vector<int> numbers = document_->pageNumbers();
        for (size_t i = 0; i < numbers.size(); ++i)
            pages.emplace(numbers[i], document_->pages_[i]);
        collect(*index, index->first, pages, result);
    } catch (const mu::Error &) {
        result.clear();
    } catch (const std::bad_alloc &) {
        result.clear();
    }
    return result;
}

PdfOutlineChange PdfOutline::add(const QString &title, const std::shared_ptr<PdfPage> &page, std::optional<QPointF> point,
                                 int parent, int row, int *made)
{
    if (!document_ || document_->isLocked() || !page || page->document() != document_)
        return {};
    const int pageIndex = document_->indexOf(page.get());
    const std::vector<int> numbers = document_->pageNumbers();
    if (pageIndex < 0 || pageIndex >= int(numbers.size()))
        return {};
    const auto core = document_->core_;
    const QByteArray text = title.toUtf8();
    int id = 0;
    std::optional<int> placed;
    edit(*core, [&] {
        id = mu::call([&](fz_context *c) {
            pdf_obj *entry = pdf_add_new_dict(c, core->doc, 4);
            const int num = pdf_to_num(c, entry);
            fz_try(c)
            {
                pdf_dict_put_text_string(c, entry, PDF_NAME(Title), text.constData());
                pdf_obj *dest = pdf_dict_put_array(c, entry, PDF_NAME(Dest), 5);
                pdf_array_push_drop(c, dest, pdf_new_indirect(c, core->doc, numbers[size_t(pageIndex)], 0));
                pdf_array_push(c, dest, PDF_NAME(XYZ));
                if (point) {
                    pdf_array_push_real(c, dest, point->x());
                    pdf_array_push_real(c, dest, point->y());
                } else {
                    pdf_array_push(c, dest, PDF_NULL);
                    pdf_array_push(c, dest, PDF_NULL);
                }
                pdf_array_push_int(c, dest, 0); // the zoom as it is
            }
            fz_always(c) pdf_drop_obj(c, entry);
            fz_catch(c) fz_rethrow(c);
            return num;
        });
        placed = attach(*core, id, {parent, row});
        return bool(placed);
    });
    if (!placed)
        return {};
    if (made)
        *made = id;
    const Place place{parent, *placed};
    return {[core, id] { edit(*core, [&] { return bool(detach(*core, id)); }); },
            [core, id, place] { edit(*core, [&] { return bool(attach(*core, id, place)); }); }};
}

PdfOutlineChange PdfOutline::rename(int id, const QString &title)
{
    if (!document_ || document_->isLocked())
        return {};
    const auto core = document_->core_;
    auto put = [core, id](const std::shared_ptr<mu::Obj> &value) {
        edit(*core, [&] {
            mu::call([&](fz_context *c) {
                pdf_obj *entry = pdf_load_object(c, core->doc, id);
                fz_try(c)
                {
                    if (value->get())
                        pdf_dict_put(c, entry, PDF_NAME(Title), value->get());
                    else
                        pdf_dict_del(c, entry, PDF_NAME(Title));
                }
                fz_always(c) pdf_drop_obj(c, entry);
                fz_catch(c) fz_rethrow(c);
            });
            return true;
        });
    };
    const auto index = [&] {
        try {
            return structure::outlineOf(*core);
        } catch (const mu::Error &) {
            return std::shared_ptr<const OutlineIndex>();
        }
    }();
    const int at = index ? positionOf(*index, id) : -2;
    if (at < 0)
        return {};
    const QByteArray text = title.toUtf8();
    auto before = std::make_shared<mu::Obj>();
    auto after = std::make_shared<mu::Obj>();
    if (!mu::tryGuard([&](fz_context *c) {
            pdf_obj *item = index->entries[size_t(at)].item.get();
            *before = mu::Obj(pdf_keep_obj(c, pdf_dict_get(c, item, PDF_NAME(Title))));
            *after = mu::Obj(pdf_new_text_string(c, text.constData()));
        }))
        return {};
    put(after);
    return {[put, before] { put(before); }, [put, after] { put(after); }};
}

PdfOutlineChange PdfOutline::remove(int id)
{
    if (!document_ || document_->isLocked())
        return {};
    const auto core = document_->core_;
    std::optional<Place> place;
    edit(*core, [&] { return bool(place = detach(*core, id)); });
    if (!place)
        return {};
    const Place at = *place;
    return {[core, id, at] { edit(*core, [&] { return bool(attach(*core, id, at)); }); },
            [core, id] { edit(*core, [&] { return bool(detach(*core, id)); }); }};
}

PdfOutlineChange PdfOutline::move(int id, int parent, int row)
{
    if (!document_ || document_->isLocked())
        return {};
    const auto core = document_->core_;
    std::optional<Place> from;
    Place to{parent, row};
    bool refused = true;
    try {
        const auto index = structure::outlineOf(*core);
        const int at = positionOf(*index, id);
        const int into = positionOf(*index, parent, -1);
        if (at < 0 || into < -1)
            return {};
        // Not into itself or below itself, nor deeper than the outline is read.
        for (int up = into; up >= 0; up = index->entries[size_t(up)].parent)
            if (up == at)
                return {};
        if (depthOf(*index, into) + heightBelow(*index, at) > structure::maxDepth)
            return {};
        const int oldParent = index->entries[size_t(at)].parent;
        const std::vector<pdf_obj *> siblings = childrenOf(*index, oldParent);
        const int oldRow =
            int(std::find(siblings.begin(), siblings.end(), index->entries[size_t(at)].item.get()) - siblings.begin());
        if (oldParent == into) {
            if (row < 0)
                to.row = int(siblings.size()) - 1;
            else if (row > oldRow)
                to.row = row - 1;
            refused = to.row == oldRow;
        } else {
            refused = false;
        }
    } catch (const mu::Error &) {
    } catch (const std::bad_alloc &) {
    }
    if (refused)
        return {};
    auto moveTo = [core, id](Place place) {
        std::optional<Place> left;
        edit(*core, [&] { return (left = detach(*core, id)) && attach(*core, id, place); });
        return left;
    };
    from = moveTo(to);
    if (!from)
        return {};
    const Place back = *from;
    return {[moveTo, back] { moveTo(back); }, [moveTo, to] { moveTo(to); }};
}
