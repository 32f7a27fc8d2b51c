// The file choosers the system shows, and the questions about unsaved
// changes and about changing a signed document's pages, behind one small
// interface so that tests can script the user's answers instead of showing
// real dialogs.
#pragma once

#include <QString>
#include <QStringList>

class FilePanel {
public:
    enum class Content { Pdf, Image };
    enum class SaveAnswer { Save, DontSave, Cancel };

    virtual ~FilePanel() = default;
    // Existing files of one content type; empty when the user cancels.
    virtual QStringList chooseFilesToOpen(Content content, bool multiple) = 0;
    // Where to write a PDF, proposing a file name; empty when the user cancels.
    virtual QString chooseFileToSave(const QString &proposedName) = 0;
    // A folder to write into; empty when the user cancels.
    virtual QString chooseFolder() = 0;
    // Whether to save the unsaved changes of the document named `documentName`
    // before they would be lost.
    virtual SaveAnswer askToSaveChanges(const QString &documentName) = 0;
    // Whether to change the pages of a signed document, which invalidates
    // its signatures; false when the user cancels.
    virtual bool confirmChangingSignedPages() = 0;
};
