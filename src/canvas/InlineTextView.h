// The small plain-text editor the overlay lays over a page to type a text box
// or to retype a line of the page. Return (or Enter) confirms, Shift or Alt
// with it types a line break, Escape abandons the edit.
#pragma once

#include <QPlainTextEdit>

#include <functional>

class InlineTextView : public QPlainTextEdit {
    Q_OBJECT
public:
    explicit InlineTextView(QWidget *parent = nullptr);

    std::function<void()> onCommit;
    std::function<void()> onCancel;

    // Grows downwards, never below the height it was opened with, so that
    // wrapped and added lines stay in sight while the user types.
    void growWithText();

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    int openedHeight_ = -1;
};
