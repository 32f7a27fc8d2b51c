// The application's commands in a window's menu bar: Edit (Undo, Redo, Delete
// Selection, Find…, Find Next, Find Previous), File (New Window, Open...,
// Open Recent, Save, Save As…, Print…, Quit) and View (Actual Size, Zoom In, Zoom Out,
// Go to Page…, Thumbnails, Bookmarks, Comments, Add Bookmark). Enabling follows the model; the view
// commands act on the page view of the window the menu belongs to.
#pragma once

#include <QObject>
#include <QPointer>

#include <functional>

class DocumentModel;
class QAction;
class QMainWindow;
class QMenu;
class PdfView;

class CommandMenu : public QObject {
    Q_OBJECT
public:
    CommandMenu(DocumentModel *model, QMainWindow *window, std::function<void()> newWindow, PdfView *view = nullptr);

    QAction *undo = nullptr;
    QAction *redo = nullptr;
    QAction *deleteSelection = nullptr;
    QAction *resetForm = nullptr;
    // The window connects these to its find bar.
    QAction *find = nullptr;
    QAction *findNext = nullptr;
    QAction *findPrevious = nullptr;
    QAction *newWindow = nullptr;
    QAction *open = nullptr;
    QAction *save = nullptr;
    QAction *saveAs = nullptr;
    // The window connects this to its print command.
    QAction *print = nullptr;
    QAction *quit = nullptr;
    QAction *actualSize = nullptr;
    QAction *zoomIn = nullptr;
    QAction *zoomOut = nullptr;
    // The window connects these to its page field and its sidebar.
    QAction *goToPage = nullptr;
    QAction *showThumbnails = nullptr;
    QAction *showBookmarks = nullptr;
    QAction *showComments = nullptr;
    QAction *addBookmark = nullptr;
    QMenu *openRecent = nullptr;

    // Re-evaluates every command's enabling from the model.
    void update();
    // Fills "Open Recent" from the model's recent files.
    void rebuildRecent();

private:
    QAction *add(QMenu *menu, const QString &title, const QList<QKeySequence> &keys, void (CommandMenu::*slot)());
    void performUndo();
    void performRedo();
    void performDelete();
    void performNewWindow();
    void performOpen();
    void performSave();
    void performSaveAs();
    void performQuit();
    void performActualSize();
    void performZoomIn();
    void performZoomOut();

    DocumentModel *model_;
    std::function<void()> newWindow_;
    QPointer<PdfView> view_;
};
