#include "PdfViewScrollBar.h"

#include <QStyle>
#include <QStyleOptionSlider>

QRect PdfViewScrollBar::handleRect() const
{
    QStyleOptionSlider option;
    initStyleOption(&option);
    return style()->subControlRect(QStyle::CC_ScrollBar, &option, QStyle::SC_ScrollBarSlider, this);
}

void PdfViewScrollBar::sliderChange(SliderChange change)
{
    const QRect handle = handleRect();
    if (change == SliderValueChange && handle == shownHandle_)
        return;
    shownHandle_ = handle;
    QScrollBar::sliderChange(change);
}
