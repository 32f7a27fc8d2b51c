// A row that scrolls sideways, also with the plain (vertical) wheel.
#pragma once

#include <QScrollArea>

class SidewaysScrollArea : public QScrollArea {
protected:
    void wheelEvent(QWheelEvent *event) override;
};
