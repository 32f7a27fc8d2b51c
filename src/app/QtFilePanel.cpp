#include "QtFilePanel.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>

QString QtFilePanel::startFolder()
{
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    return !documents.isEmpty() && QDir(documents).exists() ? documents : QDir::homePath();
}

// The panel belongs to the given window, or else to the window in front.
QWidget *QtFilePanel::owner() const
{
    return window_ ? window_.data() : QApplication::activeWindow();
}

QStringList QtFilePanel::chooseFilesToOpen(Content content, bool multiple)
{
    QFileDialog dialog(owner(), content == Content::Pdf ? QObject::tr("Open") : QObject::tr("Choose an Image"), startFolder());
    dialog.setWindowModality(Qt::WindowModal);
    dialog.setAcceptMode(QFileDialog::AcceptOpen);
    dialog.setFileMode(multiple ? QFileDialog::ExistingFiles : QFileDialog::ExistingFile);
    if (content == Content::Pdf)
        dialog.setMimeTypeFilters({"application/pdf"});
    else
        dialog.setNameFilter(QObject::tr("Images (*.png *.jpg *.jpeg *.tif *.tiff)"));
    return dialog.exec() == QDialog::Accepted ? dialog.selectedFiles() : QStringList();
}

QString QtFilePanel::chooseFileToSave(const QString &proposedName)
{
    QFileDialog dialog(owner(), QObject::tr("Save"), startFolder());
    dialog.setWindowModality(Qt::WindowModal);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    dialog.setMimeTypeFilters({"application/pdf"});
    dialog.setDefaultSuffix("pdf");
    dialog.selectFile(proposedName);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return {};
    return dialog.selectedFiles().first();
}

QString QtFilePanel::chooseFolder()
{
    QFileDialog dialog(owner(), QObject::tr("Choose a Folder"), startFolder());
    dialog.setWindowModality(Qt::WindowModal);
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    dialog.setLabelText(QFileDialog::Accept, QObject::tr("Choose Folder"));
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return {};
    return dialog.selectedFiles().first();
}

QString QtFilePanel::saveChangesQuestion(const QString &documentName)
{
    return QObject::tr("Do you want to save the changes to “%1”?").arg(documentName);
}

FilePanel::SaveAnswer QtFilePanel::askToSaveChanges(const QString &documentName)
{
    QMessageBox box(QMessageBox::Warning, QObject::tr("Save Changes"), saveChangesQuestion(documentName),
                    QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, owner());
    box.setInformativeText(QObject::tr("Your changes will be lost if you don't save them."));
    box.button(QMessageBox::Discard)->setText(QObject::tr("Don't Save"));
    box.setDefaultButton(QMessageBox::Save);
    box.setWindowModality(Qt::WindowModal);
    switch (box.exec()) {
    case QMessageBox::Save:
        return SaveAnswer::Save;
    case QMessageBox::Discard:
        return SaveAnswer::DontSave;
    default:
        return SaveAnswer::Cancel;
    }
}

bool QtFilePanel::confirmChangingSignedPages()
{
    QMessageBox box(QMessageBox::Warning, QObject::tr("Change Pages"),
                    QObject::tr("Changing the pages of this signed document invalidates its signatures."), QMessageBox::Cancel,
                    owner());
    box.setInformativeText(QObject::tr("Changes to pages can't be added after the signatures. Once you go ahead, saving "
                                       "writes the document anew and its signatures no longer match it."));
    QPushButton *change = box.addButton(QObject::tr("Change Pages"), QMessageBox::DestructiveRole);
    change->setAccessibleName(change->text());
    box.button(QMessageBox::Cancel)->setAccessibleName(QObject::tr("Cancel"));
    box.setDefaultButton(QMessageBox::Cancel);
    box.setWindowModality(Qt::WindowModal);
    box.exec();
    return box.clickedButton() == change;
}
