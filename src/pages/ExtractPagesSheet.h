// The dialog that saves the pages selected in the sidebar as a new PDF file;
// the open document is not changed.
#pragma once

#include <QDialog>

class DocumentModel;
class QLabel;
class QPushButton;

class ExtractPagesSheet : public QDialog {
    Q_OBJECT
public:
    static constexpr int sheetWidth = 380;

    ExtractPagesSheet(DocumentModel *model, QWidget *parent = nullptr);

    // "Selected pages: 1, 3, 5" (1-based, ascending).
    QString selectionLine() const;
    // Asks where to save the selected pages and writes them there; closes in
    // every outcome of the save panel.
    void performExtract();

    QLabel *selectionLabel() const { return selection_; }
    QPushButton *extractButton() const { return extract_; }
    QPushButton *cancelButton() const { return cancel_; }

private:
    void selectionChanged();

    DocumentModel *model_;
    QLabel *selection_;
    QPushButton *cancel_;
    QPushButton *extract_;
};
