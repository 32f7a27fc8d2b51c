// Internal to the structure files: what the copy of named destinations, form
// fields and outline entries, and the trim of a save, share.
#pragma once

#include "Structure.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace structure {

// How deep outlines, field hierarchies and name trees are followed: deeper
// nesting is damage (or a loop), not structure anyone made.
constexpr int maxDepth = 32;

// Result page object number → its position in the result.
using PageIndex = std::unordered_map<int, int>;

// --- Reading destinations (MuPDF only: called inside mu::call) ----------------

pdf_obj *rootOf(fz_context *c, pdf_document *doc);
// The bytes of a name or a string.
std::string nameText(fz_context *c, pdf_obj *obj);
bool isNamed(fz_context *c, pdf_obj *obj);
// The bytes of a name, or of a string.
std::string_view keyBytes(fz_context *c, pdf_obj *key);
// A destination by its name (or string): in the older dictionary of names,
// then in the name tree.
pdf_obj *lookupNamed(fz_context *c, pdf_document *doc, pdf_obj *needle);
// Calls `visit` with each name (its bytes) and value of the destinations'
// name tree; a damaged tree is read as far as a bounded walk goes.
using NameVisitor = std::function<void(std::string_view name, pdf_obj *value)>;
void visitDestinationNames(fz_context *c, pdf_document *doc, const NameVisitor &visit);
// The explicit destination (an array) that a destination stands for.
pdf_obj *explicitDestination(fz_context *c, pdf_document *doc, pdf_obj *dest);
// The same for many destinations of one document: its names are read into a
// table at the first named one, so each lookup after it costs no walk of
// the name tree (a flat tree of many names is searched name by name).
class DestinationTable {
public:
    explicit DestinationTable(pdf_document *doc) : doc_(doc) {}
    pdf_obj *explicitDestination(fz_context *c, pdf_obj *dest);

private:
    pdf_document *doc_;
    bool loaded_ = false;
    std::unordered_map<std::string, pdf_obj *> names_;
};
// Where a link, an outline entry or an action leads within its document:
// its destination, or the one of its go-to action; null when it leads elsewhere.
pdf_obj *localDestination(fz_context *c, pdf_obj *holder);
// The object number of the page a destination names, 0 when it names none.
int destinationPage(fz_context *c, pdf_document *doc, pdf_obj *dest);

// `name`, or the first of "name-2", "name-3", … not in `taken`.
std::string freeName(const std::set<std::string> &taken, const std::string &name);

// --- Named destinations ---------------------------------------------------------

// The names the result's destinations had before the batch, read once.
void loadDestinationNames(CopyState &state, pdf_document *dst);
// Carries the named destinations a copied link, outline entry or form widget
// (in the result) uses, in its destination, action and additional actions.
void carryNames(Graft &graft, pdf_obj *holder);
// Writes the result's name tree again with the destinations carried.
void writeDestinationNames(CopyState &state, pdf_document *dst);

// --- Form fields ---------------------------------------------------------------

// The names of the result's top-level fields before the batch, read once.
void loadFieldNames(CopyState &state, pdf_document *dst);
// Makes the copy of a form widget a field of the result.
void adoptWidget(CopyState &state, Graft &graft, pdf_obj *source, pdf_obj *copy);

// --- Outline ---------------------------------------------------------------------

// The outline as read, kept by the document core until it changes.
std::shared_ptr<const OutlineIndex> outlineOf(DocCore &core);
// The document's /Outlines dictionary (made first when `make`), or null.
pdf_obj *outlineRoot(pdf_document *doc, bool make);

// Sets dict[key] to a value (null: removes the key).
using Put = std::function<void(pdf_obj *dict, pdf_obj *key, pdf_obj *value)>;
void putNow(pdf_obj *dict, pdf_obj *key, pdf_obj *value);

// Links `children` (outline entries) under `parent` in their order, with the
// count of entries shown below it (negative when it is closed), through `put`.
void linkChildren(pdf_obj *parent, const std::vector<pdf_obj *> &children, bool open, const Put &put = putNow);
// The outline entries of a chain (references kept), none seen before.
std::vector<mu::Obj> chainOf(pdf_obj *first, std::unordered_set<int> &seen);

// What one source brings to the result's outline: its entries (or the entry
// standing for it), to go before the first top-level entry of the result
// that leads past `firstPage`.
struct Carried {
    std::vector<mu::Obj> entries;
    int firstPage = -1;
};
Carried carryOutline(CopyState &state, Graft &graft, const PageIndex &index);
// Puts the carried entries among the result's top-level outline entries.
void placeInOutline(CopyState &state, pdf_document *dst, const PageIndex &index, Carried &carried);

} // namespace structure
