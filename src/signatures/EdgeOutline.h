// A thin frame drawn over the edge of the widget it lies on, above what that
// widget draws, without taking its clicks; it follows the widget's size.
#pragma once

#include <QWidget>

class EdgeOutline : public QWidget {
public:
    explicit EdgeOutline(QWidget *framed);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
};
