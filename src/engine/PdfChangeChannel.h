// The one way the engine announces that a page changed: its annotations (one
// added, removed, moved or restyled), its rotation, or its content; that
// the list of pages changed; and that the bookmarks changed. Every view
// that shows pages listens to its document's channel, so nothing above the
// engine has to remember to ask a view to draw a page again.
#pragma once

#include <QFlags>
#include <QObject>
#include <QRectF>

#include <memory>

class PdfPage;

class PdfChangeChannel : public QObject {
    Q_OBJECT
public:
    enum Change { Annotations = 1, Rotation = 2, Content = 4 };
    Q_DECLARE_FLAGS(Changes, Change)
    Q_FLAG(Changes)

    using QObject::QObject;

signals:
    // Emitted on the thread that made the change (the user-interface thread),
    // right after it, also for a page that is not in its document right now.
    // `area` is the part of the page (page space) whose look changed; an
    // empty one means the whole page.
    void pageChanged(const std::shared_ptr<PdfPage> &page, PdfChangeChannel::Changes changes, QRectF area);
    // The document's list of pages changed: pages were inserted, removed or
    // moved. Emitted once per operation, after it (at the end of a copy batch
    // for the pages copied in within it).
    void pageListChanged();
    // The document's bookmarks changed: an entry was added, renamed, removed
    // or moved, or page copies brought entries along. Emitted once per change.
    void outlineChanged();
};

Q_DECLARE_OPERATORS_FOR_FLAGS(PdfChangeChannel::Changes)
