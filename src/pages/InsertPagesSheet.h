// The dialog that copies all pages of another PDF file into the open
// document, after a page the user chooses (by default the current one).
#pragma once

#include <QDialog>

class DocumentModel;
class QPushButton;
class QSpinBox;

class InsertPagesSheet : public QDialog {
    Q_OBJECT
public:
    static constexpr int sheetWidth = 380;

    InsertPagesSheet(DocumentModel *model, QWidget *parent = nullptr);

    // 0: before the first page; N: after page N (1-based).
    qint64 insertAfter() const { return insertAfter_; }
    void setInsertAfter(qint64 value);
    // "Insert at the beginning" or "Insert after page N".
    static QString positionLabel(qint64 insertAfter);

    // Lets the user pick one PDF file and inserts its pages; closes once they are in.
    void chooseAndInsert();

    // The stepper; none while no document is open.
    QSpinBox *stepper() const { return stepper_; }
    QPushButton *chooseButton() const { return choose_; }
    QPushButton *cancelButton() const { return cancel_; }

private:
    DocumentModel *model_;
    qint64 insertAfter_ = 0;
    QSpinBox *stepper_ = nullptr;
    QPushButton *cancel_;
    QPushButton *choose_;
};
