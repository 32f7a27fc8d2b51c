#include "AnnotationStylePopover.h"

#include "ToolSettings.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

AnnotationStylePopover::ColorChooser AnnotationStylePopover::colorChooser = [](const QColor &initial, QWidget *parent,
                                                                               const QString &title) {
    return QColorDialog::getColor(initial, parent, title, QColorDialog::ShowAlphaChannel);
};

namespace {

// The colour over a checkerboard, so that a translucent colour looks translucent.
QPixmap swatch(const QColor &color, const QSize &size, qreal pixelRatio, const QColor &border)
{
    QPixmap pixmap(size * pixelRatio);
    pixmap.setDevicePixelRatio(pixelRatio);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF box = QRectF(QPointF(0, 0), QSizeF(size)).adjusted(0.5, 0.5, -0.5, -0.5);
    QPainterPath shape;
    shape.addRoundedRect(box, 3, 3);
    p.setClipPath(shape);
    const int cell = 5;
    for (int y = 0; y < size.height(); y += cell)
        for (int x = 0; x < size.width(); x += cell)
            p.fillRect(x, y, cell, cell, (x / cell + y / cell) % 2 ? QColor(204, 204, 204) : QColor(255, 255, 255));
    p.fillRect(box, color);
    p.setClipping(false);
    p.setPen(QPen(border, 1));
    p.drawPath(shape);
    return pixmap;
}

// A button showing a colour with its label beside it; a click asks for a new
// colour, opacity included, and writes it at once.
class ColorWell : public QToolButton {
public:
    ColorWell(const QString &label, std::function<QColor()> read, std::function<void(const QColor &)> write)
        : read_(std::move(read)), write_(std::move(write))
    {
        setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
        setAutoRaise(true);
        setIconSize(QSize(28, 18));
        relabel(this, label);
        connect(this, &QToolButton::clicked, this, &ColorWell::choose);
        refresh();
    }

    static void relabel(QAbstractButton *well, const QString &label)
    {
        well->setText(label);
        well->setAccessibleName(label);
    }

    void refresh() { setIcon(swatch(read_(), iconSize(), devicePixelRatioF(), palette().color(QPalette::Mid))); }

private:
    void choose()
    {
        // The dialog belongs to the window below the popover, which closes as the dialog opens.
        QWidget *owner = window()->parentWidget() ? window()->parentWidget()->window() : this;
        QPointer<QWidget> popover = window();
        const QColor chosen = AnnotationStylePopover::colorChooser(read_(), owner, text());
        if (chosen.isValid())
            write_(chosen);
        if (auto *style = qobject_cast<AnnotationStylePopover *>(popover.data()))
            emit style->colorDialogFinished();
    }

    std::function<QColor()> read_;
    std::function<void(const QColor &)> write_;
};

// A value label with smaller and larger buttons; the value stays in its range.
class Stepper : public QWidget {
public:
    struct Range {
        qreal minimum;
        qreal maximum;
        qreal step;
    };

    Stepper(const QString &name, std::function<QString(qreal)> format, Range range, std::function<qreal()> read,
            std::function<void(qreal)> write)
        : format_(std::move(format)), range_(range), read_(std::move(read)), write_(std::move(write)), label_(new QLabel),
          down_(new QToolButton), up_(new QToolButton)
    {
        setAccessibleName(name);
        down_->setText(QStringLiteral("\u2212"));
        up_->setText(QStringLiteral("+"));
        down_->setAccessibleName(AnnotationStylePopover::tr("Decrease %1").arg(name));
        up_->setAccessibleName(AnnotationStylePopover::tr("Increase %1").arg(name));
        connect(down_, &QToolButton::clicked, this, [this] { stepBy(-range_.step); });
        connect(up_, &QToolButton::clicked, this, [this] { stepBy(range_.step); });
        auto *row = new QHBoxLayout(this);
        row->setContentsMargins(0, 0, 0, 0);
        row->addWidget(label_);
        row->addSpacing(4);
        row->addWidget(down_);
        row->addWidget(up_);
        refresh();
    }

    void refresh()
    {
        const qreal value = read_();
        label_->setText(format_(value));
        down_->setEnabled(value > range_.minimum);
        up_->setEnabled(value < range_.maximum);
    }

private:
    void stepBy(qreal delta) { write_(std::clamp(read_() + delta, range_.minimum, range_.maximum)); }

    std::function<QString(qreal)> format_;
    Range range_;
    std::function<qreal()> read_;
    std::function<void(qreal)> write_;
    QLabel *label_;
    QToolButton *down_;
    QToolButton *up_;
};

QFrame *divider()
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

} // namespace

AnnotationStylePopover::AnnotationStylePopover(ToolSettings *toolSettings, QWidget *parent)
    : QFrame(parent, Qt::Popup), toolSettings_(toolSettings)
{
    setFrameStyle(QFrame::StyledPanel | QFrame::Raised);
    setFixedWidth(popoverWidth);
    ToolSettings *s = toolSettings_;

    hint_ = new QLabel(tr("Select a drawing tool to configure its style."));
    hint_->setWordWrap(true);
    hint_->setAccessibleName(hint_->text());
    QPalette dimmed = hint_->palette();
    dimmed.setColor(QPalette::WindowText, dimmed.color(QPalette::PlaceholderText));
    hint_->setPalette(dimmed);

    auto *fontColor = new ColorWell(
        tr("Text Color"), [s] { return s->fontColor(); }, [s](const QColor &c) { s->setFontColor(c); });
    auto *fontSize = new Stepper(
        tr("Font Size"), [](qreal size) { return tr("Font Size: %1").arg(static_cast<int>(size)); }, {8, 72, 1},
        [s] { return s->fontSize(); }, [s](qreal size) { s->setFontSize(size); });
    // Labelled "Color" or "Stroke Color", after the tool.
    auto *strokeColor = new ColorWell(
        QString(), [s] { return s->strokeColor(); }, [s](const QColor &c) { s->setStrokeColor(c); });
    auto *lineWidth = new Stepper(
        tr("Line Width"), [](qreal width) { return tr("Line Width: %1").arg(width, 0, 'f', 1); }, {0.5, 12, 0.5},
        [s] { return s->lineWidth(); }, [s](qreal width) { s->setLineWidth(width); });
    fill_ = new QCheckBox(tr("Fill"));
    fill_->setAccessibleName(fill_->text());
    fill_->setChecked(s->hasFill());
    auto *fillColor = new ColorWell(
        tr("Fill Color"), [s] { return s->fillColor(); }, [s](const QColor &c) { s->setFillColor(c); });
    auto *markupColor = new ColorWell(
        tr("Highlight/Markup Color"), [s] { return s->markupColor(); }, [s](const QColor &c) { s->setMarkupColor(c); });

    connect(s, &ToolSettings::fontColorChanged, fontColor, &ColorWell::refresh);
    connect(s, &ToolSettings::fontSizeChanged, fontSize, &Stepper::refresh);
    connect(s, &ToolSettings::strokeColorChanged, strokeColor, &ColorWell::refresh);
    connect(s, &ToolSettings::lineWidthChanged, lineWidth, &Stepper::refresh);
    connect(s, &ToolSettings::fillColorChanged, fillColor, &ColorWell::refresh);
    connect(s, &ToolSettings::markupColorChanged, markupColor, &ColorWell::refresh);
    connect(fill_, &QCheckBox::toggled, s, &ToolSettings::setHasFill);
    connect(s, &ToolSettings::hasFillChanged, this, [this] {
        const QSignalBlocker quiet(fill_);
        fill_->setChecked(toolSettings_->hasFill());
        showControlsOfCurrentTool();
    });
    connect(s, &ToolSettings::currentToolChanged, this, &AnnotationStylePopover::showControlsOfCurrentTool);

    fontColor_ = fontColor;
    fontSize_ = fontSize;
    strokeColor_ = strokeColor;
    lineWidth_ = lineWidth;
    fillColor_ = fillColor;

    auto *column = new QVBoxLayout(this);
    column->setSpacing(12);
    column->addWidget(hint_);
    for (QWidget *control : std::initializer_list<QWidget *>{fontColor_, fontSize_, strokeColor_, lineWidth_, fill_, fillColor_})
        column->addWidget(control, 0, Qt::AlignLeft);
    column->addWidget(divider());
    column->addWidget(markupColor, 0, Qt::AlignLeft);
    showControlsOfCurrentTool();
}

void AnnotationStylePopover::showControlsOfCurrentTool()
{
    const AnnotationTool tool = toolSettings_->currentTool();
    const bool text = tool == AnnotationTool::editText || tool == AnnotationTool::freeText;
    const bool shape = tool == AnnotationTool::rectangle || tool == AnnotationTool::circle;
    const bool stroked = shape || tool == AnnotationTool::ink;
    hint_->setVisible(tool == AnnotationTool::none);
    fontColor_->setVisible(text);
    fontSize_->setVisible(text);
    ColorWell::relabel(strokeColor_, shape ? tr("Stroke Color") : tr("Color"));
    strokeColor_->setVisible(stroked);
    lineWidth_->setVisible(stroked);
    fill_->setVisible(shape);
    fillColor_->setVisible(shape && toolSettings_->hasFill());
    adjustSize();
}

void AnnotationStylePopover::mousePressEvent(QMouseEvent *event)
{
    // A press outside closes the popover; on the anchor it must not also open it again.
    const bool outside = !rect().contains(event->position().toPoint());
    if (outside && anchor_ && anchor_->rect().contains(anchor_->mapFromGlobal(event->globalPosition().toPoint())))
        setAttribute(Qt::WA_NoMouseReplay);
    QFrame::mousePressEvent(event);
}
