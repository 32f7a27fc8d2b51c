#include "EdgeOutline.h"

#include "SheetStyle.h"

#include <QEvent>
#include <QPainter>

namespace {

// How strongly the frame shows: a faint line in the dimmed text colour.
constexpr qreal frameOpacity = 0.4;

} // namespace

EdgeOutline::EdgeOutline(QWidget *framed) : QWidget(framed)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    framed->installEventFilter(this);
    setGeometry(framed->rect());
}

bool EdgeOutline::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == parentWidget() && event->type() == QEvent::Resize) {
        setGeometry(parentWidget()->rect());
        raise();
    }
    return false;
}

void EdgeOutline::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(QPen(SheetStyle::secondary(this, frameOpacity), 1));
    painter.drawRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
}
