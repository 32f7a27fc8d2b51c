#include "CommandMenu.h"

#include "ContentView.h"
#include "DocumentModel.h"
#include "PdfDocument.h"
#include "PdfView.h"

#include <QApplication>
#include <QFileInfo>
#include <QMainWindow>
#include <QMenuBar>
#include <QToolBar>

CommandMenu::CommandMenu(DocumentModel *model, QMainWindow *window, std::function<void()> newWindowAction, PdfView *pdfView)
    : QObject(window), model_(model), newWindow_(std::move(newWindowAction)), view_(pdfView)
{
    QMenuBar *bar = window->menuBar();
    QMenu *file = bar->addMenu(tr("&File"));
    newWindow = add(file, tr("New Window"), {QKeySequence(QKeySequence::New)}, &CommandMenu::performNewWindow);
    open = add(file, tr("Open..."), {QKeySequence(QKeySequence::Open)}, &CommandMenu::performOpen);
    openRecent = file->addMenu(tr("Open Recent"));
    connect(openRecent, &QMenu::aboutToShow, this, &CommandMenu::rebuildRecent);
    file->addSeparator();
    save = add(file, tr("Save"), {QKeySequence(QKeySequence::Save)}, &CommandMenu::performSave);
    // Some desktops define no standard key for Save As or Redo: bind them here.
    saveAs = add(file, tr("Save As…"), {QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S)}, &CommandMenu::performSaveAs);
    file->addSeparator();
    print = file->addAction(tr("Print…"));
    print->setShortcuts(QKeySequence::Print);
    file->addSeparator();
    quit = add(file, tr("Quit"), {QKeySequence(Qt::CTRL | Qt::Key_Q)}, &CommandMenu::performQuit);

    QMenu *edit = bar->addMenu(tr("&Edit"));
    undo = add(edit, tr("Undo"), {QKeySequence(Qt::CTRL | Qt::Key_Z)}, &CommandMenu::performUndo);
    redo = add(edit, tr("Redo"), {QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z)}, &CommandMenu::performRedo);
    edit->addSeparator();
    deleteSelection = add(edit, tr("Delete Selection"), {QKeySequence(Qt::Key_Backspace), QKeySequence(Qt::Key_Delete)},
                          &CommandMenu::performDelete);
    resetForm = edit->addAction(tr("Reset Form"));
    resetForm->setToolTip(tr("Set every field of the form back to its default value"));
    connect(resetForm, &QAction::triggered, model_, &DocumentModel::resetForm);
    edit->addSeparator();
    find = edit->addAction(tr("Find…"));
    find->setShortcuts(QKeySequence::Find);
    findNext = edit->addAction(tr("Find Next"));
    findNext->setShortcuts({QKeySequence(Qt::Key_F3), QKeySequence(Qt::CTRL | Qt::Key_G)});
    findPrevious = edit->addAction(tr("Find Previous"));
    findPrevious->setShortcuts({QKeySequence(Qt::SHIFT | Qt::Key_F3), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_G)});

    QMenu *view = bar->addMenu(tr("&View"));
    for (QToolBar *toolBar : window->findChildren<QToolBar *>())
        view->addAction(toolBar->toggleViewAction());
    view->addSeparator();
    actualSize = add(view, tr("Actual Size"), {QKeySequence(Qt::CTRL | Qt::Key_0)}, &CommandMenu::performActualSize);
    zoomIn = add(view, tr("Zoom In"), {QKeySequence(Qt::CTRL | Qt::Key_Equal), QKeySequence(Qt::CTRL | Qt::Key_Plus)},
                 &CommandMenu::performZoomIn);
    zoomOut = add(view, tr("Zoom Out"), {QKeySequence(Qt::CTRL | Qt::Key_Minus)}, &CommandMenu::performZoomOut);
    view->addSeparator();
    goToPage = view->addAction(tr("Go to Page…"));
    goToPage->setShortcut(QKeySequence(Qt::CTRL | Qt::ALT | Qt::Key_G));
    view->addSeparator();
    showThumbnails = view->addAction(tr("Thumbnails"));
    showThumbnails->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_1));
    showBookmarks = view->addAction(tr("Bookmarks"));
    showBookmarks->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_2));
    showComments = view->addAction(tr("Comments"));
    showComments->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_3));
    addBookmark = view->addAction(tr("Add Bookmark"));
    addBookmark->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_D));

    for (auto signal : {&DocumentModel::historyVersionChanged, &DocumentModel::isDirtyChanged, &DocumentModel::fileURLChanged,
                        &DocumentModel::pdfDocumentChanged, &DocumentModel::selectedAnnotationChanged,
                        &DocumentModel::recentURLsChanged, &DocumentModel::changesRestrictedChanged})
        connect(model_, signal, this, &CommandMenu::update);
    connect(model_, &DocumentModel::recentURLsChanged, this, &CommandMenu::rebuildRecent);
    rebuildRecent();
    update();
}

QAction *CommandMenu::add(QMenu *menu, const QString &title, const QList<QKeySequence> &keys, void (CommandMenu::*slot)())
{
    QAction *action = menu->addAction(title);
    action->setShortcuts(keys);
    connect(action, &QAction::triggered, this, slot);
    return action;
}

void CommandMenu::update()
{
    const bool hasDocument = model_->pdfDocument() != nullptr;
    undo->setEnabled(!model_->history().undoStack().empty());
    redo->setEnabled(!model_->history().redoStack().empty());
    deleteSelection->setEnabled(model_->selectedAnnotation() != nullptr && !model_->changesRestricted());
    resetForm->setEnabled(!model_->changesRestricted() && model_->hasFormFields());
    save->setEnabled(!model_->fileURL().isEmpty() && model_->isDirty());
    saveAs->setEnabled(hasDocument);
    print->setEnabled(hasDocument && !model_->pdfDocument()->isLocked());
    for (QAction *action : {find, findNext, findPrevious})
        action->setEnabled(hasDocument && !model_->pdfDocument()->isLocked());
    actualSize->setEnabled(hasDocument);
    zoomIn->setEnabled(hasDocument);
    zoomOut->setEnabled(hasDocument);
    goToPage->setEnabled(hasDocument);
    openRecent->setEnabled(!model_->recentURLs().isEmpty());
}

void CommandMenu::rebuildRecent()
{
    openRecent->clear();
    const QStringList recent = model_->recentURLs();
    for (const QString &path : recent) {
        QAction *item = openRecent->addAction(QFileInfo(path).fileName());
        item->setToolTip(path);
        connect(item, &QAction::triggered, this, [this, path] { model_->open(path); });
    }
    if (!recent.isEmpty()) {
        openRecent->addSeparator();
        connect(openRecent->addAction(tr("Clear Menu")), &QAction::triggered, model_, &DocumentModel::clearRecentDocuments);
    }
    openRecent->setEnabled(!recent.isEmpty());
}

void CommandMenu::performUndo()
{
    model_->undo();
}
void CommandMenu::performRedo()
{
    model_->redo();
}

void CommandMenu::performDelete()
{
    if (auto annotation = model_->selectedAnnotation())
        model_->removeAnnotation(annotation);
}

void CommandMenu::performNewWindow()
{
    if (newWindow_)
        newWindow_();
}

void CommandMenu::performOpen()
{
    model_->promptOpen();
}
void CommandMenu::performSave()
{
    model_->save();
}
void CommandMenu::performSaveAs()
{
    model_->promptSaveAs();
}
// Unsaved changes are settled once, before any window closes.
void CommandMenu::performQuit()
{
    if (!model_->resolveUnsavedChanges())
        return;
    ContentView::closeWindowsOf(model_);
}

void CommandMenu::performActualSize()
{
    if (view_)
        view_->setScaleFactor(1.0);
}

void CommandMenu::performZoomIn()
{
    if (view_)
        view_->zoomIn();
}

void CommandMenu::performZoomOut()
{
    if (view_)
        view_->zoomOut();
}
