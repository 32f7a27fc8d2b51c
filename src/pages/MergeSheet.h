// The dialog that combines several PDF files into one new file: the user adds
// files, orders them by dragging, removes the unwanted ones and saves the
// result, which then becomes the document open in the window.
#pragma once

#include <QDialog>
#include <QStringList>

#include <set>

class DocumentModel;
class QLabel;
class QPushButton;
class QStackedWidget;
class QStringListModel;
class ReorderableListView;

class MergeSheet : public QDialog {
    Q_OBJECT
public:
    static constexpr int sheetWidth = 440;
    static constexpr int sheetHeight = 340;

    MergeSheet(DocumentModel *model, QWidget *parent = nullptr);

    // The files to combine, in merge order; a file may be listed twice.
    QStringList sources() const;

    // Lets the user pick PDF files and appends them.
    void addFiles();
    void removeSource(int row);
    // Moves the rows at `rows` into the gap before row `gap`.
    void moveSources(const std::set<qint64> &rows, int gap);
    // Combines the files, asks where to save, writes and opens the result.
    void performMerge();

    // Where a row's remove button lies, in the list's viewport.
    QRect removeButtonRect(int row) const;

    ReorderableListView *list() const { return list_; }
    QLabel *placeholder() const { return placeholder_; }
    QPushButton *addButton() const { return add_; }
    QPushButton *mergeButton() const { return merge_; }
    QPushButton *cancelButton() const { return cancel_; }

private:
    void sourcesChanged();

    DocumentModel *model_;
    QStringListModel *sources_;
    QStackedWidget *fileArea_;
    QLabel *placeholder_;
    ReorderableListView *list_;
    QPushButton *add_;
    QPushButton *cancel_;
    QPushButton *merge_;
};
