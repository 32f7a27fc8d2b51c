// The style popover of the toolbar: the colours and sizes the current tool
// draws with, and the markup colour; each colour well has preset swatches
// beside it. Every change goes straight into the
// ToolSettings (there is nothing to confirm), and the controls follow changes
// made elsewhere, the current tool included.
#pragma once

#include <QColor>
#include <QFrame>
#include <QPointer>

#include <functional>

class QCheckBox;
class QLabel;
class QToolButton;
class ToolSettings;

class AnnotationStylePopover : public QFrame {
    Q_OBJECT
public:
    // The narrowest it is; wider when a colour well's label and its swatches need it.
    static constexpr int popoverWidth = 240;

    // Asks the user for a colour, starting from `initial`; an invalid colour
    // when the user cancels. Tests replace it to choose without a dialog.
    using ColorChooser = std::function<QColor(const QColor &initial, QWidget *parent, const QString &title)>;
    static ColorChooser colorChooser;

    explicit AnnotationStylePopover(ToolSettings *toolSettings, QWidget *parent = nullptr);

    // The widget whose clicks close the popover without reaching it (the
    // button that opens it, so that a second click only closes it).
    void setAnchor(QWidget *anchor) { anchor_ = anchor; }

signals:
    // A colour dialog opened from the popover (which closes as it opens) has
    // closed: the popover can be shown again where the user left it.
    void colorDialogFinished();

protected:
    void mousePressEvent(QMouseEvent *event) override;

private:
    void showControlsOfCurrentTool();

    ToolSettings *toolSettings_;
    QPointer<QWidget> anchor_;
    QLabel *hint_;
    QWidget *fontColor_;
    QWidget *fontSize_;
    QWidget *strokeColor_;
    QWidget *lineWidth_;
    QCheckBox *fill_;
    QWidget *fillColor_;
};
