// Asks for the password of the encrypted file the model holds back, hands it
// to the model, and closes when the model accepts it or the user gives up.
#pragma once

#include <QDialog>

class DocumentModel;
class QLabel;
class QLineEdit;
class QPushButton;

class PasswordSheet : public QDialog {
    Q_OBJECT
public:
    PasswordSheet(DocumentModel *model, QWidget *parent);

    QString fileName() const;
    QLineEdit *passwordField() const { return field_; }
    QPushButton *openButton() const { return open_; }
    QPushButton *cancelButton() const { return cancel_; }

    // Cancel: the pending file is abandoned; whatever was open stays open.
    void reject() override;

private:
    void unlock();

    DocumentModel *model_;
    QLineEdit *field_;
    QPushButton *open_;
    QPushButton *cancel_;
};
