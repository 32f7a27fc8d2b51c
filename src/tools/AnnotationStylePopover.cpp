#include "AnnotationStylePopover.h"

#include "ToolSettings.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
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

// The preset colours offered beside every colour well.
QList<std::pair<QString, QColor>> presets()
{
    return {{AnnotationStylePopover::tr("Black"), Qt::black},
            {AnnotationStylePopover::tr("Red"), Qt::red},
            {AnnotationStylePopover::tr("Blue"), Qt::blue},
            {AnnotationStylePopover::tr("Green"), Qt::darkGreen},
            {AnnotationStylePopover::tr("Yellow"), Qt::yellow}};
}

// A colour well with a swatch for each preset colour beside it. A preset
// keeps the opacity the colour has (a translucent fill stays translucent).
class ColorRow : public QWidget {
public:
    ColorRow(const QString &label, const std::function<QColor()> &read, const std::function<void(const QColor &)> &write)
        : well_(new ColorWell(label, read, write))
    {
        auto *row = new QHBoxLayout(this);
        row->setContentsMargins(0, 0, 0, 0);
        row->setSpacing(2);
        row->addWidget(well_);
        row->addStretch(1);
        for (const auto &preset : presets()) {
            auto *button = new QToolButton;
            button->setAutoRaise(true);
            button->setIconSize(QSize(14, 14));
            button->setIcon(swatch(preset.second, button->iconSize(), 2, palette().color(QPalette::Mid)));
            button->setToolTip(preset.first);
            button->setAccessibleName(preset.first);
            const QColor color = preset.second;
            connect(button, &QToolButton::clicked, this, [read, write, color] {
                QColor chosen = color;
                if (const int alpha = read().alpha(); alpha > 0)
                    chosen.setAlpha(alpha);
                write(chosen);
            });
            row->addWidget(button);
            presets_ << button;
        }
        relabel(label);
    }

    // The well's label, which also tells each swatch which colour it sets.
    void relabel(const QString &label)
    {
        ColorWell::relabel(well_, label);
        for (QToolButton *button : std::as_const(presets_))
            button->setAccessibleDescription(label);
    }

    void refresh() { well_->refresh(); }

private:
    ColorWell *well_;
    QList<QToolButton *> presets_;
};

// A value label with smaller and larger buttons; the value stays in its range.
// The buttons carry the value in their description ("Line Width 2 pt"), so
// that a screen reader tells it as they are pressed.
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
        const QString spoken = AnnotationStylePopover::tr("%1 %2 pt").arg(accessibleName(), QLocale().toString(value));
        down_->setAccessibleDescription(spoken);
        up_->setAccessibleDescription(spoken);
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
    setAccessibleName(tr("Style"));
    ToolSettings *s = toolSettings_;

    hint_ = new QLabel(tr("Select a drawing tool to configure its style."));
    hint_->setWordWrap(true);
    hint_->setAccessibleName(hint_->text());
    QPalette dimmed = hint_->palette();
    dimmed.setColor(QPalette::WindowText, dimmed.color(QPalette::PlaceholderText));
    hint_->setPalette(dimmed);

    auto *fontColor = new ColorRow(
        tr("Text Color"), [s] { return s->fontColor(); }, [s](const QColor &c) { s->setFontColor(c); });
    auto *fontSize = new Stepper(
        tr("Font Size"), [](qreal size) { return tr("Font Size: %1").arg(static_cast<int>(size)); }, {8, 72, 1},
        [s] { return s->fontSize(); }, [s](qreal size) { s->setFontSize(size); });
    // Labelled "Color" or "Stroke Color", after the tool.
    auto *strokeColor = new ColorRow(
        QString(), [s] { return s->strokeColor(); }, [s](const QColor &c) { s->setStrokeColor(c); });
    auto *lineWidth = new Stepper(
        tr("Line Width"), [](qreal width) { return tr("Line Width: %1").arg(width, 0, 'f', 1); }, {0.5, 12, 0.5},
        [s] { return s->lineWidth(); }, [s](qreal width) { s->setLineWidth(width); });
    fill_ = new QCheckBox(tr("Fill"));
    fill_->setAccessibleName(fill_->text());
    fill_->setChecked(s->hasFill());
    auto *fillColor = new ColorRow(
        tr("Fill Color"), [s] { return s->fillColor(); }, [s](const QColor &c) { s->setFillColor(c); });
    auto *markupColor = new ColorRow(
        tr("Highlight/Markup Color"), [s] { return s->markupColor(); }, [s](const QColor &c) { s->setMarkupColor(c); });

    connect(s, &ToolSettings::fontColorChanged, fontColor, &ColorRow::refresh);
    connect(s, &ToolSettings::fontSizeChanged, fontSize, &Stepper::refresh);
    connect(s, &ToolSettings::strokeColorChanged, strokeColor, &ColorRow::refresh);
    connect(s, &ToolSettings::lineWidthChanged, lineWidth, &Stepper::refresh);
    connect(s, &ToolSettings::fillColorChanged, fillColor, &ColorRow::refresh);
    connect(s, &ToolSettings::markupColorChanged, markupColor, &ColorRow::refresh);
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
    // Colour rows take the whole width, their swatches at the right edge.
    column->addWidget(fontColor_);
    column->addWidget(fontSize_, 0, Qt::AlignLeft);
    column->addWidget(strokeColor_);
    column->addWidget(lineWidth_, 0, Qt::AlignLeft);
    column->addWidget(fill_, 0, Qt::AlignLeft);
    column->addWidget(fillColor_);
    column->addWidget(divider());
    column->addWidget(markupColor);
    showControlsOfCurrentTool();
    // The markup row, always shown, has the longest label.
    setFixedWidth(std::max(popoverWidth, sizeHint().width()));
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
    static_cast<ColorRow *>(strokeColor_)->relabel(shape ? tr("Stroke Color") : tr("Color"));
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
