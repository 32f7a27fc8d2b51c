// The small editor a note's text is typed in, laid over the page beside the
// note's icon: who wrote it (and when) on top, the text below. Return types
// a line break, as in any note; Ctrl+Return, Done or a click elsewhere keeps
// the text, Escape abandons the edit.
#pragma once

#include <QFrame>

#include <functional>

class QLabel;
class QPlainTextEdit;

class NotePopup : public QFrame {
    Q_OBJECT
public:
    NotePopup(const QString &heading, const QString &text, QWidget *parent = nullptr);

    QString text() const;
    QPlainTextEdit *editor() const { return editor_; }

    std::function<void()> onCommit;
    std::function<void()> onCancel;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QLabel *heading_;
    QPlainTextEdit *editor_;
};
