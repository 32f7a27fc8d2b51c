// Internal to the engine: reading a document's page tree without trusting
// it, and rebuilding a damaged one. MuPDF's own tree walks and edits trust
// /Count and /Parent: a loop or a node that is its own parent makes them run
// for good, a huge /Count makes them look for pages that are not there, and
// past 8 levels of nesting MuPDF 1.21 reads memory it never wrote.
#pragma once

#include "MuContext.h"

#include <vector>

namespace pagetree {

// The attributes a page inherits from the nodes above it.
constexpr int inheritedKeys = 4;

struct Walk {
    struct Page {
        pdf_obj *obj;
        // The nearest values of the inheritable attributes above the page.
        pdf_obj *inherited[inheritedKeys];
    };
    std::vector<Page> pages;
    // False when MuPDF's tree code must not see the tree as it is.
    bool clean = true;
};

// The pages under `root` in order, each listed once, by a walk of bounded
// depth that counts what it finds and never follows a node twice. Borrowed
// objects; MuPDF errors are thrown, C++ allocation failures too.
Walk walk(fz_context *c, pdf_obj *root);

// Makes `root` the only node of the tree, listing the walked pages, each of
// which takes the attributes it inherited as its own. MuPDF calls only.
void rebuild(fz_context *c, pdf_document *doc, pdf_obj *root, Walk &walk);

// Before MuPDF edits the tree: a document MuPDF repaired after it was
// opened has its objects read from the file again, the damaged tree
// included, so such a tree is walked and rebuilt again first.
void ensureClean(fz_context *c, pdf_document *doc);

} // namespace pagetree
