// A list whose rows the user reorders by dragging them to a gap between rows,
// and whose rows answer clicks anywhere in their rectangle. The list keeps no
// selection of its own: what a click or a drop means is left to its owner.
#pragma once

#include <QListView>
#include <QTimer>

#include <set>

class ReorderableListView : public QListView {
    Q_OBJECT
public:
    explicit ReorderableListView(QWidget *parent = nullptr);

    // The gap a drop at a viewport point would go to: 0 before the first row,
    // the row count after the last.
    int gapAt(QPoint point) const;
    bool isDragging() const { return dragging_; }

signals:
    // A press and release on the same row without a drag.
    void rowClicked(int row, QPoint viewportPoint, Qt::KeyboardModifiers modifiers);
    // Rows dropped into a gap that changes their order.
    void rowsMoved(const std::set<qint64> &rows, int gap);

protected:
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void autoScroll();
    void endDrag();

    int pressedRow_ = -1;
    QPoint pressPoint_;
    QPoint lastPoint_;
    bool dragging_ = false;
    int gap_ = -1;
    QTimer scrollTimer_;
};
