// A file panel for tests: it answers with scripted choices instead of showing
// a dialog, and remembers what it was asked.
#pragma once

#include "FilePanel.h"

#include <deque>
#include <vector>

class ScriptedFilePanel : public FilePanel {
public:
    struct Request {
        enum class Kind { Open, Save, Folder, SaveChanges, SignedPages } kind;
        Content content = Content::Pdf;
        bool multiple = false;
        QString proposedName;
    };

    // Answers given in order; an empty answer (or none left) is a cancel.
    std::deque<QStringList> openAnswers;
    std::deque<QString> saveAnswers;
    std::deque<QString> folderAnswers;
    // Answers to the unsaved-changes question; with none left the user does not save.
    std::deque<SaveAnswer> saveChangesAnswers;
    // Answers to the question about changing a signed document's pages; with none left the user cancels.
    std::deque<bool> signedPagesAnswers;
    std::vector<Request> requests;

    QStringList chooseFilesToOpen(Content content, bool multiple) override
    {
        requests.push_back({Request::Kind::Open, content, multiple, {}});
        return next(openAnswers);
    }
    QString chooseFileToSave(const QString &proposedName) override
    {
        requests.push_back({Request::Kind::Save, Content::Pdf, false, proposedName});
        return next(saveAnswers);
    }
    QString chooseFolder() override
    {
        requests.push_back({Request::Kind::Folder, Content::Pdf, false, {}});
        return next(folderAnswers);
    }
    SaveAnswer askToSaveChanges(const QString &documentName) override
    {
        requests.push_back({Request::Kind::SaveChanges, Content::Pdf, false, documentName});
        if (saveChangesAnswers.empty())
            return SaveAnswer::DontSave;
        const SaveAnswer answer = saveChangesAnswers.front();
        saveChangesAnswers.pop_front();
        return answer;
    }

    bool confirmChangingSignedPages() override
    {
        requests.push_back({Request::Kind::SignedPages, Content::Pdf, false, {}});
        return next(signedPagesAnswers);
    }

private:
    template <class T> static T next(std::deque<T> &answers)
    {
        if (answers.empty())
            return T();
        T answer = answers.front();
        answers.pop_front();
        return answer;
    }
};
