// The look shared by the page dialogs: a column of rows with a headline, dim
// caption lines and a row of buttons at the trailing edge.
#pragma once

#include <QString>

class QDialog;
class QHBoxLayout;
class QLabel;
class QPushButton;
class QVBoxLayout;
class QWidget;

namespace SheetStyle {

constexpr int rowSpacing = 12;

// The sheet's column: window-modal, the given fixed width, rows 12 apart.
QVBoxLayout *column(QDialog *sheet, int width);
QLabel *headline(const QString &text);
// Small text in the dimmed colour.
QLabel *caption(const QString &text);
// Small red text for errors.
QLabel *errorLine();
// Buttons at the trailing edge; the last one is the default (Return).
QHBoxLayout *buttonRow(std::initializer_list<QPushButton *> buttons);

} // namespace SheetStyle
