// The "Pages" toolbar menu: it raises the window's flags for the merge,
// split, insert and extract dialogs, and rotates and deletes the current page.
#pragma once

#include <QToolButton>

#include <functional>

class DocumentModel;
class QAction;

class PagesMenu : public QToolButton {
    Q_OBJECT
public:
    // The window's flags for the four dialogs; the menu only ever sets them to true.
    struct Bindings {
        std::function<void(bool)> showMerge;
        std::function<void(bool)> showSplit;
        std::function<void(bool)> showInsert;
        std::function<void(bool)> showExtract;
    };

    PagesMenu(DocumentModel *model, Bindings bindings, QWidget *parent = nullptr);

    // Removes the current page, without asking and without an undo step.
    void deleteCurrentPage();

    QAction *mergeAction() const { return merge_; }
    QAction *splitAction() const { return split_; }
    QAction *insertAction() const { return insert_; }
    QAction *extractAction() const { return extract_; }
    QAction *rotateLeftAction() const { return rotateLeft_; }
    QAction *rotateRightAction() const { return rotateRight_; }
    QAction *deleteAction() const { return delete_; }

private:
    void updateEnabling();

    DocumentModel *model_;
    QAction *merge_;
    QAction *split_;
    QAction *insert_;
    QAction *extract_;
    QAction *rotateLeft_;
    QAction *rotateRight_;
    QAction *delete_;
};
