// A document's bookmarks (its outline): read as a tree for display, and
// edited entry by entry. Every edit answers what undoes it and what does it
// again, and is announced on the document's change channel (outlineChanged).
#pragma once

#include <QPointF>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class PdfDocument;
class PdfPage;

// One bookmark as read.
struct PdfBookmark {
    // The entry's identity while the document is open (it stays through
    // edits, undo and redo); 0 for an entry that cannot be edited.
    int id = 0;
    QString title;
    // The page it goes to; none when its destination is broken, leads out of
    // the document or to a page not in it now.
    std::shared_ptr<PdfPage> page;
    // Where on that page (page space), when the destination names a place.
    std::optional<QPointF> point;
    // Whether the file shows its entries below it.
    bool open = true;
    std::vector<PdfBookmark> children;
};

// What an edit did, as the two actions a history keeps; empty when the edit
// was refused (nothing changed).
struct PdfOutlineChange {
    std::function<void()> undo;
    std::function<void()> redo;
    explicit operator bool() const { return bool(undo); }
};

class PdfOutline {
public:
    explicit PdfOutline(std::shared_ptr<PdfDocument> document);

    // The top-level bookmarks, each with those below it. An entry met a
    // second time (a loop of /Next or /First) is left out where it recurs;
    // nesting deeper than the engine follows is left out.
    std::vector<PdfBookmark> bookmarks() const;

    // A place in the tree: below the bookmark `parent` (0: the top level),
    // at position `row` of its children (-1: the end).
    //
    // Adds a bookmark going to `point` (page space) on `page`, a page of the
    // document, or to the page as it is shown when there is no point. `made`,
    // when given, receives its id.
    PdfOutlineChange add(const QString &title, const std::shared_ptr<PdfPage> &page, std::optional<QPointF> point, int parent,
                         int row, int *made = nullptr);
    PdfOutlineChange rename(int id, const QString &title);
    // Takes the bookmark out with the bookmarks below it.
    PdfOutlineChange remove(int id);
    // Moves the bookmark (with those below it) to `row` of `parent`'s
    // children, `row` counted among the children as they are before the
    // move. Refused into itself or a bookmark below it.
    PdfOutlineChange move(int id, int parent, int row);

private:
    std::shared_ptr<PdfDocument> document_;
};
