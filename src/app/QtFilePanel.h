// The file choosers of the desktop (Qt's file dialogs) and the question
// about unsaved changes and signed pages, window-modal over the window they belong to.
#pragma once

#include "FilePanel.h"

#include <QPointer>
#include <QWidget>

class QtFilePanel : public FilePanel {
public:
    explicit QtFilePanel(QWidget *window = nullptr) : window_(window) {}
    void setWindow(QWidget *window) { window_ = window; }

    QStringList chooseFilesToOpen(Content content, bool multiple) override;
    QString chooseFileToSave(const QString &proposedName) override;
    QString chooseFolder() override;
    SaveAnswer askToSaveChanges(const QString &documentName) override;
    bool confirmChangingSignedPages() override;

    static QString saveChangesQuestion(const QString &documentName);

    // Where the choosers start: the user's documents folder, or the home
    // folder where there is none (a fresh home has no "Documents" yet).
    static QString startFolder();

private:
    QWidget *owner() const;
    QPointer<QWidget> window_;
};
