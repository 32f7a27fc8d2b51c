// The Bookmarks panel: the document's bookmarks as a tree. A click goes to a
// bookmark's place in the page view; the bookmark of the section being read
// is marked (bold) as the view scrolls. Add Bookmark (addBookmarkAction, for
// the window's shortcut) adds one for the place at the top of the view,
// named after the first line of text there, and opens its title for editing;
// F2 or a double click renames, Delete removes, dragging reorders and nests.
// Which bookmarks are expanded is kept per document while it is open. The
// bookmarks are read only while the panel is shown, after a note that they
// are being read (a long outline takes a moment).
#pragma once

#include <QTreeView>

#include <map>
#include <memory>
#include <set>

class DocumentModel;
class OutlineModel;
class PdfDocument;
class PdfPage;
class PdfView;

class BookmarksView : public QTreeView {
    Q_OBJECT
public:
    BookmarksView(DocumentModel *model, PdfView *view, QWidget *parent = nullptr);
    ~BookmarksView() override;

    OutlineModel *outlineModel() const { return outline_; }
    // Add Bookmark, Rename Bookmark and Delete Bookmark, enabled while they can act.
    QAction *addBookmarkAction() const { return addAction_; }
    QAction *renameBookmarkAction() const { return renameAction_; }
    QAction *deleteBookmarkAction() const { return deleteAction_; }

    // The title a bookmark at the top of the view gets: the first line of
    // text from there down on that page, else "Page N".
    static QString titleAt(const std::shared_ptr<PdfPage> &page, QPointF point);

public slots:
    void addBookmark();
    void renameCurrent();
    void deleteCurrent();
    // Marks the bookmark of the section at the top of the view.
    void markReading();

signals:
    // A bookmark was gone to.
    void bookmarkActivated(const QModelIndex &index);

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void contextMenuEvent(QContextMenuEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void goTo(const QModelIndex &index);
    // Where the top of the view is: a page and a point on it (page space).
    std::pair<std::shared_ptr<PdfPage>, QPointF> topOfView() const;
    void restoreExpansion();
    void noteExpansion(const QModelIndex &index, bool expanded);
    void updateActions();
    std::set<int> &expansionOfDocument();

    DocumentModel *model_;
    PdfView *view_;
    OutlineModel *outline_;
    QAction *addAction_;
    QAction *renameAction_;
    QAction *deleteAction_;
    // The expanded bookmarks (ids) of each document shown while it is open;
    // a document not seen yet starts as its file says.
    std::map<const PdfDocument *, std::pair<std::weak_ptr<PdfDocument>, std::set<int>>> expansion_;
    bool restoring_ = false;
    int selectedId_ = 0;
    // The bookmarks are read once the note saying so has been painted.
    bool readAfterPaint_ = false;
};
