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
    // The size in pixels the box being typed needs for a text; unset, the
    // editor only grows downwards.
    std::function<QSize(const QString &)> fittedSize;

    // Grows to the size the text needs (to the right and downwards), never
    // below the size it was opened with, so that every line stays in sight
    // while the user types and breaks as it will in the saved box.
    void growWithText();

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    QSize openedSize_;
};
