#include "PageTree.h"

#include <algorithm>
#include <iterator>
#include <unordered_set>

namespace pagetree {
namespace {

// MuPDF 1.21 walks trees up to this deep correctly.
constexpr size_t mupdfDepth = 8;
// Deeper than this is taken for damage; the walk keeps its own stack, so
// depth costs memory, never the thread's stack.
constexpr size_t maxDepth = 4096;

pdf_obj *const *keys()
{
    static pdf_obj *const names[inheritedKeys] = {PDF_NAME(Resources), PDF_NAME(MediaBox), PDF_NAME(CropBox), PDF_NAME(Rotate)};
    return names;
}

struct Frame {
    pdf_obj *node;
    pdf_obj *kids;
    int next;
    int count;
    size_t firstPage;
    pdf_obj *inherited[inheritedKeys];
};

} // namespace

Walk walk(fz_context *c, pdf_obj *root)
{
    Walk result;
    std::vector<Frame> stack;
    std::unordered_set<int> seen;
    // Takes in `node`, listed by `parent` (null for the root).
    auto enter = [&](pdf_obj *node, pdf_obj *parent, pdf_obj *const *inherited) {
        if (!pdf_is_dict(c, node)) {
            result.clean = false;
            return;
        }
        const int num = pdf_to_num(c, node);
        if (num > 0 && !seen.insert(num).second) {
            // A page listed twice, a loop, or the root among its own kids.
            result.clean = false;
            return;
        }
        pdf_obj *up = pdf_dict_get(c, node, PDF_NAME(Parent));
        if (parent ? pdf_to_num(c, up) != pdf_to_num(c, parent) || !pdf_is_indirect(c, up) : up != nullptr)
            result.clean = false;
        pdf_obj *kids = pdf_dict_get(c, node, PDF_NAME(Kids));
        if (!pdf_is_array(c, kids)) {
            if (pdf_name_eq(c, pdf_dict_get(c, node, PDF_NAME(Type)), PDF_NAME(Pages)) || !parent) {
                result.clean = false; // a branch without kids (or a root that is not a branch)
                return;
            }
            Walk::Page page{node, {}};
            for (int k = 0; k < inheritedKeys; ++k)
                page.inherited[k] = inherited[k];
            result.pages.push_back(page);
            return;
        }
        if (stack.size() >= maxDepth) {
            result.clean = false;
            return;
        }
        Frame frame{node, kids, 0, pdf_array_len(c, kids), result.pages.size(), {}};
        for (int k = 0; k < inheritedKeys; ++k) {
            pdf_obj *own = pdf_dict_get(c, node, keys()[k]);
            frame.inherited[k] = own ? own : inherited[k];
        }
        stack.push_back(frame);
        if (stack.size() > mupdfDepth)
            result.clean = false;
    };
    pdf_obj *none[inheritedKeys] = {};
    enter(root, nullptr, none);
    while (!stack.empty()) {
        Frame &top = stack.back();
        if (top.next < top.count) {
            pdf_obj *kid = pdf_array_get(c, top.kids, top.next++);
            pdf_obj *node = top.node;
            pdf_obj *inherited[inheritedKeys];
            std::copy(std::begin(top.inherited), std::end(top.inherited), inherited);
            enter(kid, node, inherited); // may grow the stack: `top` is not used after
            continue;
        }
        // /Count is checked, never believed.
        if (pdf_to_int64(c, pdf_dict_get(c, top.node, PDF_NAME(Count))) != int64_t(result.pages.size() - top.firstPage))
            result.clean = false;
        stack.pop_back();
    }
    return result;
}

void rebuild(fz_context *c, pdf_document *doc, pdf_obj *root, Walk &walk)
{
    // The inherited attributes become each page's own while the old nodes
    // still hold them.
    for (const Walk::Page &page : walk.pages)
        for (int k = 0; k < inheritedKeys; ++k)
            if (page.inherited[k] && !pdf_dict_get(c, page.obj, keys()[k]))
                pdf_dict_put(c, page.obj, keys()[k], page.inherited[k]);
    pdf_obj *kids = pdf_new_array(c, doc, int(walk.pages.size()));
    fz_try(c)
    {
        for (Walk::Page &page : walk.pages) {
            if (pdf_is_indirect(c, page.obj)) {
                pdf_array_push(c, kids, page.obj);
            } else {
                // A page written directly into a node: it becomes an object of its own.
                pdf_array_push_drop(c, kids, pdf_add_object(c, doc, page.obj));
            }
            page.obj = pdf_array_get(c, kids, pdf_array_len(c, kids) - 1);
            pdf_dict_put(c, page.obj, PDF_NAME(Parent), root);
        }
        pdf_dict_del(c, root, PDF_NAME(Parent));
        pdf_dict_put(c, root, PDF_NAME(Type), PDF_NAME(Pages));
        pdf_dict_put(c, root, PDF_NAME(Kids), kids);
        pdf_dict_put_int(c, root, PDF_NAME(Count), int64_t(walk.pages.size()));
    }
    fz_always(c) pdf_drop_obj(c, kids);
    fz_catch(c) fz_rethrow(c);
}

void ensureClean(fz_context *c, pdf_document *doc)
{
    if (!pdf_was_repaired(c, doc))
        return;
    pdf_obj *root = pdf_dict_getp(c, pdf_trailer(c, doc), "Root/Pages");
    Walk found = walk(c, root);
    if (!found.clean && pdf_is_dict(c, root))
        rebuild(c, doc, root, found);
}

} // namespace pagetree
