#include "SheetStyle.h"

#include <QDialog>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace SheetStyle {

QVBoxLayout *column(QDialog *sheet, int width, int contentMargin, int spacing)
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
    layout->setSpacing(spacing);
    layout->setContentsMargins(contentMargin, contentMargin, contentMargin, contentMargin);
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

QFont smaller(QFont font, qreal factor)
{
    font.setPointSizeF(font.pointSizeF() * factor);
    return font;
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

QColor secondary(const QWidget *widget, qreal opacity)
{
    QColor color = widget->palette().color(QPalette::PlaceholderText);
    color.setAlphaF(float(color.alphaF() * opacity));
    return color;
}

QPushButton *button(const QString &text)
{
    auto *result = new QPushButton(text);
    result->setAccessibleName(text);
    // Return in a text field of the sheet presses nothing by itself.
    result->setAutoDefault(false);
    return result;
}

QPushButton *prominentButton(const QString &text)
{
    QPushButton *result = button(text);
    // Only while it can be pressed: a disabled one looks like any disabled button.
    QPalette accent = result->palette();
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive}) {
        accent.setColor(group, QPalette::Button, accent.color(group, QPalette::Highlight));
        accent.setColor(group, QPalette::ButtonText, accent.color(group, QPalette::HighlightedText));
    }
    result->setPalette(accent);
    return result;
}

QFrame *divider()
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
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
