#include "NotePopup.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPlainTextEdit>
#include <QToolButton>
#include <QVBoxLayout>

NotePopup::NotePopup(const QString &heading, const QString &text, QWidget *parent)
    : QFrame(parent), heading_(new QLabel(heading, this)), editor_(new QPlainTextEdit(this))
{
    setAccessibleName(tr("Note"));
    // The paper of a sticky note, whatever the desktop's colours.
    setStyleSheet(QStringLiteral("NotePopup { background: #fff3c4; border: 1px solid #c9b25a; border-radius: 3px; }"
                                 "NotePopup QLabel { color: black; }"
                                 "NotePopup QPlainTextEdit { background: #fffbe8; color: black; border: none; }"));

    heading_->setAccessibleName(tr("Note Author"));
    heading_->setTextFormat(Qt::PlainText);
    QFont small = heading_->font();
    small.setPointSizeF(small.pointSizeF() * 0.9);
    small.setBold(true);
    heading_->setFont(small);
    auto *done = new QToolButton(this);
    done->setText(tr("Done"));
    done->setAccessibleName(tr("Done"));
    done->setToolTip(tr("Keep the note (Ctrl+Return)"));
    done->setAutoRaise(true);
    connect(done, &QToolButton::clicked, this, [this] {
        if (onCommit)
            onCommit();
    });

    editor_->setAccessibleName(tr("Note Text"));
    editor_->setPlaceholderText(tr("Type a note"));
    editor_->setPlainText(text);
    editor_->setTabChangesFocus(true);
    editor_->installEventFilter(this);

    auto *top = new QHBoxLayout;
    top->setContentsMargins(0, 0, 0, 0);
    top->addWidget(heading_, 1);
    top->addWidget(done);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(6, 4, 6, 6);
    layout->setSpacing(2);
    layout->addLayout(top);
    layout->addWidget(editor_, 1);
    resize(240, 150);
}

QString NotePopup::text() const
{
    return editor_->toPlainText();
}

bool NotePopup::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == editor_ && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        const bool enter = key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
        if (enter && key->modifiers().testFlag(Qt::ControlModifier)) {
            if (onCommit)
                onCommit();
            return true;
        }
        if (key->key() == Qt::Key_Escape) {
            if (onCancel)
                onCancel();
            return true;
        }
    }
    return QFrame::eventFilter(watched, event);
}
