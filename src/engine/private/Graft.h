// Internal to the engine: copying objects of one document into another, and
// what a batch of page copies gathers in its destination until it ends.
#pragma once

#include "MuContext.h"

#include <QString>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

struct DocCore;

// Copies objects of one source document into a destination, each source
// object once, so what pages share (fonts, images) stays shared by their
// copies. References to source pages are not followed: each becomes a
// reference to the page's slot, an object number kept for the page's copy.
// The slot is filled when the page itself is copied; one never filled stays
// an empty object, which a save leaves out together with whatever still
// points at it. Page tree nodes and the catalog are never copied.
class Graft {
public:
    Graft(std::shared_ptr<DocCore> source, pdf_document *dst);
    Graft(const Graft &) = delete;
    Graft &operator=(const Graft &) = delete;

    const std::shared_ptr<DocCore> &source() const { return source_; }
    pdf_document *destination() const { return dst_; }

    // A copy of `obj` for the destination (a new reference). Direct values are
    // copied deeply; an indirect object is copied the first time it is met.
    pdf_obj *bring(fz_context *c, pdf_obj *obj);
    // The destination object number for a new copy of the source page
    // `sourcePage` (an object number): its slot while that is unfilled, else
    // a new object (the page placed a second time).
    int pageNumber(fz_context *c, int sourcePage);
    // Notes that the copy `num` of the source page is in the destination's
    // page tree. C++ only: memory running out throws std::bad_alloc.
    void notePlaced(int sourcePage, int num);
    // The destination object number of the first copy of a source page, or 0.
    int copyOfPage(int sourcePage) const;
    // The destination object already made for a source object, or 0.
    int copyOf(int sourceNum) const;
    // Reserves `dstNum` as the copy of the source object `sourceNum`, until
    // forget() takes back what was reserved since `mark()`.
    void setCopy(fz_context *c, int sourceNum, int dstNum);
    size_t mark() const { return recorded_.size(); }
    void forget(size_t mark);

    // The destination object numbers of the pages copied, in the order copied.
    std::vector<int> placed;
    // Annotations copied (source, copy) not yet tied up.
    std::vector<std::pair<mu::Obj, mu::Obj>> copiedAnnotations;
    // Named destinations carried from the source, by their source name (a
    // null destination: the source has none by that name), and where the
    // copies name them (dictionary and key), for a rename when the batch
    // ends: names are settled in the order of the sources' pages, so that
    // the later of two sources is the one renamed.
    struct CarriedName {
        mu::Obj destination;
        std::vector<std::pair<mu::Obj, pdf_obj *>> uses;
    };
    std::map<std::string, CarriedName> names;
    // Fields copied that stand at the top of the form, to be named when the batch ends.
    std::vector<mu::Obj> topFields;
    // Whether the source's form settings were merged into the destination's.
    bool formMerged = false;

private:
    pdf_obj *bringDirect(fz_context *c, pdf_obj *obj);
    int slotFor(fz_context *c, int sourcePage);

    std::shared_ptr<DocCore> source_;
    pdf_document *dst_;
    // Source object number → destination object number; the source numbers
    // in the order recorded, so a failed copy takes its records back.
    std::unordered_map<int, int> numbers_;
    std::vector<int> recorded_;
    // Source page → its slot; the pages whose slot holds their copy.
    std::unordered_map<int, int> slots_;
    std::unordered_set<int> filled_;
};

// What a batch of page copies into one document gathers until it ends: a
// graft per source, the outline groups asked for, and the names (of
// destinations and form fields) given out so far, so copies from different
// sources never share a name by accident.
struct CopyState {
    ~CopyState();

    // The graft for a source, made on first use.
    Graft &graftFor(const std::shared_ptr<DocCore> &source, pdf_document *dst);

    // In the order the sources were first met.
    std::vector<std::unique_ptr<Graft>> grafts;
    // Sources whose outline entries go under an entry of their own, by title.
    std::map<const DocCore *, QString> outlineGroups;

    bool destinationNamesLoaded = false;
    std::set<std::string> destinationNames;
    // Destinations carried into the result by name (references kept).
    std::map<std::string, pdf_obj *> carriedDestinations;

    bool fieldNamesLoaded = false;
    std::set<std::string> fieldNames;
};
