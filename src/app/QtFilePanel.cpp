#include "QtFilePanel.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QStandardPaths>

QString QtFilePanel::startFolder()
{
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    return !documents.isEmpty() && QDir(documents).exists() ? documents : QDir::homePath();
}

// The panel belongs to the given window, or else to the window in front.
QWidget *QtFilePanel::owner() const { return window_ ? window_.data() : QApplication::activeWindow(); }

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
