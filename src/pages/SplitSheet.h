// The dialog that cuts the open document into several PDF files in a folder
// the user chooses: every page as a file of its own, or one file per typed
// page range. The open document itself is not changed.
#pragma once

#include "PageOperations.h"

#include <QDialog>

#include <optional>
#include <vector>

class DocumentModel;
class QLabel;
class QLineEdit;
class QPushButton;
class QRadioButton;

class SplitSheet : public QDialog {
    Q_OBJECT
public:
    static constexpr int sheetWidth = 420;

    enum class SplitMode { everyPage, ranges };
    static QString title(SplitMode mode);

    SplitSheet(DocumentModel *model, QWidget *parent = nullptr);

    // Reads text such as "1-3, 4, 5-10" (1-based page numbers) as 0-based
    // ranges, in the order written; none when any part of it is unreadable.
    static std::optional<std::vector<PageRange>> parseRanges(const QString &text, qint64 pageCount);
    static QString rangesRejectedMessage(qint64 pageCount);
    // "page-3" for a single page, "pages-1-3" for a longer range.
    static QString fileSuffix(const PageRange &range);

    SplitMode mode() const;
    void setMode(SplitMode mode);
    QString rangesText() const;
    void setRangesText(const QString &text);
    // The sheet's own error line; empty while none is shown.
    QString errorMessage() const;

    // Splits the open document as chosen and writes the files into a folder
    // the user picks; closes once a folder was chosen.
    void performSplit();

    QRadioButton *modeButton(SplitMode mode) const;
    QLineEdit *rangesField() const { return rangesField_; }
    QLabel *hintLabel() const { return hint_; }
    QLabel *errorLabel() const { return error_; }
    QPushButton *splitButton() const { return split_; }
    QPushButton *cancelButton() const { return cancel_; }

private:
    void showMode();
    void setErrorMessage(const QString &message);

    DocumentModel *model_;
    QRadioButton *everyPage_;
    QRadioButton *ranges_;
    QLabel *hint_;
    QLineEdit *rangesField_;
    QLabel *error_;
    QPushButton *cancel_;
    QPushButton *split_;
};
