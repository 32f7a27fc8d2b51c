// The column beside the document that lists every page as a small picture
// with its number. A click goes to a page and clears the page selection, a
// Ctrl-click adds a page to the selection or takes it out, and dragging a row
// to another gap reorders the pages. The current and selected pages are shown
// by the rows' drawing only; the list keeps no state of its own.
#pragma once

#include <QWidget>

#include <set>

class DocumentModel;
class QLabel;
class QStackedWidget;
class ReorderableListView;
class ThumbnailCache;
class ThumbnailListModel;

class ThumbnailSidebarView : public QWidget {
    Q_OBJECT
public:
    // A row: 4 points of padding around a 56 x 74 picture frame, then the number.
    static constexpr int padding = 4;
    static constexpr QSize frameSize{56, 74};
    static constexpr int spacing = 8;
    static constexpr int rowHeight = frameSize.height() + 2 * padding;

    explicit ThumbnailSidebarView(DocumentModel *model, QWidget *parent = nullptr);

    bool showsEmptyState() const;
    ReorderableListView *list() const { return list_; }
    ThumbnailCache *cache() const { return cache_; }
    QLabel *emptyLabel() const { return empty_; }
    // The row of a page index in the list's viewport.
    QRect rowRect(int row) const;

    // What a click and a drop do.
    void clickRow(int row, Qt::KeyboardModifiers modifiers);
    void moveRows(const std::set<qint64> &rows, int gap);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void rebuild();
    void repaintRows();
    void visibleRowsChanged();

    DocumentModel *model_;
    ThumbnailCache *cache_;
    ThumbnailListModel *rows_;
    QStackedWidget *stack_;
    QLabel *empty_;
    ReorderableListView *list_;
    // The current page the list last scrolled to.
    int followedPage_ = -1;
};
