// The typed name as it will look: in the chosen face on white, centred, or a
// dimmed placeholder while the name is blank.
#pragma once

#include <QColor>
#include <QString>
#include <QWidget>

class TypedSignaturePreview : public QWidget {
public:
    static constexpr int minimumHeight = 60;

    TypedSignaturePreview();

    void showText(const QString &shown, bool isPlaceholder, const QFont &face, const QColor &inkColor);
    QString text() const { return text_; }
    bool showsPlaceholder() const { return placeholder_; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QString text_;
    bool placeholder_ = true;
    QColor ink_;
};
