#include "SheetStyle.h"

#include <QDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace SheetStyle {
namespace {

QFont smaller(QFont font)
{
    font.setPointSizeF(font.pointSizeF() * 0.85);
    return font;
}

} // namespace

QVBoxLayout *column(QDialog *sheet, int width)
{
    sheet->setWindowModality(Qt::WindowModal);
    // The sheet takes the content's size: a fixed width, and a height that
    // follows the rows as they are shown and hidden.
    auto *outer = new QVBoxLayout(sheet);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSizeConstraint(QLayout::SetFixedSize);
    auto *content = new QWidget;
    content->setFixedWidth(width);
    outer->addWidget(content);
    auto *layout = new QVBoxLayout(content);
    layout->setSpacing(rowSpacing);
    layout->setContentsMargins(20, 20, 20, 20);
    return layout;
}

QLabel *headline(const QString &text)
{
    auto *label = new QLabel(text);
    QFont font = label->font();
    font.setBold(true);
    label->setFont(font);
    return label;
}

QLabel *caption(const QString &text)
{
    auto *label = new QLabel(text);
    label->setFont(smaller(label->font()));
    label->setForegroundRole(QPalette::PlaceholderText);
    label->setWordWrap(true);
    return label;
}

QLabel *errorLine()
{
    auto *label = new QLabel;
    label->setFont(smaller(label->font()));
    QPalette red = label->palette();
    red.setColor(QPalette::WindowText, Qt::red);
    label->setPalette(red);
    label->setWordWrap(true);
    return label;
}

QHBoxLayout *buttonRow(std::initializer_list<QPushButton *> buttons)
{
    auto *row = new QHBoxLayout;
    row->addStretch(1);
    QPushButton *last = nullptr;
    for (QPushButton *button : buttons) {
        button->setAutoDefault(false);
        row->addWidget(button);
        last = button;
    }
    if (last)
        last->setDefault(true);
    return row;
}

} // namespace SheetStyle
