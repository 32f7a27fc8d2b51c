// The look shared by the sheets (the window-modal dialogs of page work and of
// signatures): a fixed-width column of rows with a headline, dim caption
// lines, an error line, plain and prominent buttons and a row of buttons at
// the trailing edge.
#pragma once

#include <QColor>
#include <QFont>
#include <QString>

class QDialog;
class QFrame;
class QHBoxLayout;
class QLabel;
class QPushButton;
class QVBoxLayout;
class QWidget;

namespace SheetStyle {

constexpr int rowSpacing = 12;
// Around the column's content.
constexpr int margin = 20;

// The sheet's column: window-modal, the given fixed width, and a height that
// follows the rows as they are shown and hidden.
QVBoxLayout *column(QDialog *sheet, int width, int contentMargin = margin, int spacing = rowSpacing);
QLabel *headline(const QString &text);
// The font at `factor` of its size; captions take 85 %.
QFont smaller(QFont font, qreal factor = 0.85);
// Small text in the dimmed colour.
QLabel *caption(const QString &text);
// Small red text for errors.
QLabel *errorLine();
// The dimmed colour of secondary text, at `opacity` (thin frames take 40 %).
QColor secondary(const QWidget *widget, qreal opacity = 1);
// A button that Return does not press by itself, named for screen readers by its text.
QPushButton *button(const QString &text);
// The button of a row that finishes the job, in the accent colour while it can be pressed.
QPushButton *prominentButton(const QString &text);
// A thin line between the parts of a sheet.
QFrame *divider();
// Buttons at the trailing edge; the last one is the default (Return).
QHBoxLayout *buttonRow(std::initializer_list<QPushButton *> buttons);

} // namespace SheetStyle
