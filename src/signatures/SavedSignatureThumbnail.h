// One saved signature: the image fitted into 120 × 70 on white, framed in
// the accent colour while it is the selected one. A click, Space or Return
// selects it.
#pragma once

#include <QImage>
#include <QWidget>

#include <functional>

class SavedSignatureThumbnail : public QWidget {
public:
    static constexpr QSize cellSize{120, 70};

    SavedSignatureThumbnail(const QImage &image, std::function<void()> onClick);

    void setSelected(bool selected);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    QImage image_;
    std::function<void()> onClick_;
    bool selected_ = false;
};
