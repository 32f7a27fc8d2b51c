#include "PasswordSheet.h"

#include "DocumentModel.h"
#include "Icons.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

PasswordSheet::PasswordSheet(DocumentModel *model, QWidget *parent) : QDialog(parent), model_(model)
{
    setWindowModality(Qt::WindowModal);
    setWindowTitle(tr("Password"));
    setMinimumWidth(380);

    auto *icon = new QLabel;
    icon->setPixmap(Icons::get("dialog-password").pixmap(34, 34));
    icon->setEnabled(false); // the dimmed look
    auto *title = new QLabel(fileName() + tr(" is password protected"));
    QFont headline = title->font();
    headline.setBold(true);
    title->setFont(headline);
    auto *subtitle = new QLabel(tr("Enter the password to open it."));
    subtitle->setForegroundRole(QPalette::PlaceholderText);
    auto *texts = new QVBoxLayout;
    texts->setSpacing(2);
    texts->addWidget(title);
    texts->addWidget(subtitle);
    auto *header = new QHBoxLayout;
    header->setSpacing(10);
    header->addWidget(icon, 0, Qt::AlignVCenter);
    header->addLayout(texts, 1);

    field_ = new QLineEdit;
    field_->setEchoMode(QLineEdit::Password);
    field_->setPlaceholderText(tr("Password"));
    field_->setFixedWidth(320);

    cancel_ = new QPushButton(tr("Cancel"));
    open_ = new QPushButton(tr("Open"));
    open_->setDefault(true);
    open_->setEnabled(false);
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(cancel_);
    buttons->addWidget(open_);

    auto *layout = new QVBoxLayout(this);
    layout->setSpacing(14);
    layout->setContentsMargins(20, 20, 20, 20);
    layout->addLayout(header);
    layout->addWidget(field_);
    layout->addLayout(buttons);

    connect(field_, &QLineEdit::textChanged, this, [this](const QString &text) { open_->setEnabled(!text.isEmpty()); });
    // Return in the field reaches unlock() even while "Open" is disabled.
    connect(field_, &QLineEdit::returnPressed, this, &PasswordSheet::unlock);
    connect(open_, &QPushButton::clicked, this, &PasswordSheet::unlock);
    connect(cancel_, &QPushButton::clicked, this, &PasswordSheet::reject);
}

QString PasswordSheet::fileName() const
{
    return model_->lockedURL().isEmpty() ? tr("This PDF") : QFileInfo(model_->lockedURL()).fileName();
}

void PasswordSheet::unlock()
{
    const QString password = field_->text();
    if (password.isEmpty())
        return;
    model_->unlockPendingDocument(password);
    if (model_->lockedURL().isEmpty())
        accept();
    field_->clear();
}

void PasswordSheet::reject()
{
    model_->setLockedDocument(nullptr);
    model_->setLockedURL({});
    QDialog::reject();
}
