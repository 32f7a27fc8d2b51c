// Internal to the engine: the document structure that page copies carry
// along (internal links, named destinations, the outline, form fields), and
// the trimming a save does so that nothing in the file points at a page that
// is not in its page tree.
#pragma once

#include "Graft.h"

#include <QString>

#include <optional>
#include <unordered_map>

#include <vector>

namespace structure {

// A document's outline as read once: every entry (a reference kept), linked
// by positions, with the page its destination leads to. Page copies consult
// it for every copy made from the document, so it is read only once.
struct OutlineIndex {
    struct Entry {
        mu::Obj item;
        int firstChild = -1;
        int next = -1;
        // Whether it leads anywhere (a destination or an action), whether
        // to a place in its document, and the object number of that page
        // (0: none that can be read).
        bool leads = false;
        bool local = false;
        int page = 0;
        bool open = true;
        // What the bookmarks show: the entry above it (-1: top level), its
        // title, and the place on the page its destination names, when it
        // names one (each coordinate may be left open).
        int parent = -1;
        int num = 0;
        QString title;
        std::optional<qreal> left;
        std::optional<qreal> top;
    };
    std::vector<Entry> entries;
    int first = -1;
    // Entry positions by object number.
    std::unordered_map<int, int> positions;
};

// Ties up the annotations copied through `graft` since the last call: the
// named destinations they use are carried into the destination (renamed when
// the name is taken), and form widgets join the destination's form under
// copies of their parent fields, a top-level field renamed when its name is taken.
void tieAnnotations(CopyState &state, Graft &graft);

// Ends a batch of copies into `dst`, whose pages are `pages` (object numbers,
// in order): every source's outline entries that point at pages copied from
// it are brought along, placed among the destination's entries in page order
// (under an entry of their own when the batch asked for it), and the carried
// named destinations are written into the destination's name tree.
void finishCopies(CopyState &state, DocCore &dst, const std::vector<int> &pages);

// Whether the document has outline entries.
bool hasOutline(pdf_document *doc);

// For the time of a save, takes out of the document what points at pages
// that are not in its page tree (`pages`: object numbers): links and outline
// entries to them (an entry with children stays, without its destination),
// named destinations, the opening view, form fields whose widgets are not on
// a page, and an annotation's page reference that is not its own page. A
// save then writes no page outside the tree. Everything is put back when the
// trim goes, so the pages can still return (undo) with all that pointed at them.
class SaveTrim {
public:
    SaveTrim(pdf_document *doc, const std::vector<int> &pages);
    ~SaveTrim();
    SaveTrim(const SaveTrim &) = delete;
    SaveTrim &operator=(const SaveTrim &) = delete;

    // Sets dict[key] to `value` (null: removes it), keeping the old value.
    void put(pdf_obj *dict, pdf_obj *key, pdf_obj *value);

private:
    struct Change {
        mu::Obj dict;
        mu::Obj key;
        mu::Obj old;
    };
    std::vector<Change> changes_;
};

} // namespace structure
