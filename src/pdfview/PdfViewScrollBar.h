// The view's scroll bar. In a long document one page moves the handle by less
// than a pixel, yet a plain scroll bar repaints on every value change: this
// one repaints only when its handle moves on screen.
#pragma once

#include <QScrollBar>

class PdfViewScrollBar : public QScrollBar {
    Q_OBJECT
public:
    using QScrollBar::QScrollBar;

protected:
    void sliderChange(SliderChange change) override;

private:
    QRect handleRect() const;

    QRect shownHandle_;
};
