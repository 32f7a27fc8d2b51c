#include "AnnotationToolbarItems.h"

#include "AnnotationStylePopover.h"
#include "DocumentModel.h"
#include "PdfAnnotation.h"
#include "PdfView.h"
#include "PopupAccessibility.h"
#include "ToolSettings.h"

#include <QButtonGroup>
#include <QEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QMenu>
#include <QScreen>
#include <QToolButton>

#include <algorithm>

namespace {

QFrame *divider()
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::VLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

int toolIndex(AnnotationTool tool)
{
    return static_cast<int>(tool);
}

} // namespace

AnnotationToolbarItems::AnnotationToolbarItems(DocumentModel *documentModel, ToolSettings *toolSettings,
                                               std::function<void()> onSign, std::function<QIcon(const QString &)> icon,
                                               QWidget *parent)
    : QWidget(parent), documentModel_(documentModel), toolSettings_(toolSettings)
{
    if (!icon)
        icon = [](const QString &name) { return QIcon::fromTheme(name); };
    // The style popover and the Markup menu are popups.
    PopupAccessibility::install();

    toolSelector_ = buildToolSelector(icon);

    styleButton_ = new QToolButton;
    styleButton_->setIcon(icon(QStringLiteral("color-management")));
    styleButton_->setAutoRaise(true);
    styleButton_->setAccessibleName(tr("Style"));
    styleButton_->setToolTip(tr("Style: color, size, line width"));
    styleButton_->setAccessibleDescription(styleButton_->toolTip());
    connect(styleButton_, &QToolButton::clicked, this, [this] { setShowStylePopover(true); });

    signButton_ = new QToolButton;
    signButton_->setText(tr("Sign"));
    signButton_->setIcon(icon(QStringLiteral("document-sign")));
    signButton_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    signButton_->setAutoRaise(true);
    signButton_->setAccessibleName(signButton_->text());
    signButton_->setToolTip(tr("Draw or place a saved signature"));
    connect(signButton_, &QToolButton::clicked, this, [onSign = std::move(onSign)] {
        if (onSign)
            onSign();
    });

    markupButton_ = new QToolButton;
    markupButton_->setText(tr("Markup"));
    markupButton_->setIcon(icon(QStringLiteral("draw-highlight")));
    markupButton_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    markupButton_->setAutoRaise(true);
    markupButton_->setAccessibleName(markupButton_->text());
    markupButton_->setToolTip(tr("Select text first, then highlight / underline / strike"));
    markupButton_->setPopupMode(QToolButton::InstantPopup);
    auto *menu = new QMenu(markupButton_);
    menu->setAccessibleName(markupButton_->text());
    // The colour is the one set when the item is chosen (each kind its own
    // until one is); the text is the one selected in this window's page view.
    auto markup = [this](const QString &subtype) {
        return [this, subtype] {
            const auto selection = pdfView_ ? pdfView_->currentSelection() : std::nullopt;
            if (!selection || selection->string().isEmpty())
                return;
            documentModel_->applyMarkup(subtype, toolSettings_->markupColorFor(subtype), *selection);
            pdfView_->setCurrentSelection(std::nullopt);
            documentModel_->setHasTextSelection(false);
        };
    };
    menu->addAction(tr("Highlight"), this, markup(PdfAnnotation::Highlight));
    menu->addAction(tr("Underline"), this, markup(PdfAnnotation::Underline));
    menu->addAction(tr("Strikethrough"), this, markup(PdfAnnotation::StrikeOut));
    markupButton_->setMenu(menu);

    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(toolSelector_);
    row->addWidget(styleButton_);
    row->addWidget(divider());
    row->addWidget(signButton_);
    row->addWidget(divider());
    row->addWidget(markupButton_);

    connect(toolSettings_, &ToolSettings::currentToolChanged, this, &AnnotationToolbarItems::showCurrentTool);
    connect(documentModel_, &DocumentModel::pdfDocumentChanged, this, &AnnotationToolbarItems::updateEnabling);
    connect(documentModel_, &DocumentModel::hasTextSelectionChanged, this, &AnnotationToolbarItems::updateEnabling);
    connect(documentModel_, &DocumentModel::changesRestrictedChanged, this, &AnnotationToolbarItems::updateEnabling);
    showCurrentTool();
    updateEnabling();
}

// One exclusive segment per tool, in the order of the tools, icons only.
QWidget *AnnotationToolbarItems::buildToolSelector(const std::function<QIcon(const QString &)> &icon)
{
    auto *selector = new QFrame;
    selector->setFrameStyle(QFrame::StyledPanel | QFrame::Plain);
    selector->setFixedWidth(toolSelectorWidth);
    selector->setAccessibleName(tr("Tool"));
    auto *segments = new QHBoxLayout(selector);
    segments->setContentsMargins(1, 1, 1, 1);
    segments->setSpacing(0);
    tools_ = new QButtonGroup(this);
    tools_->setExclusive(true);
    for (AnnotationTool tool : annotationTool::allCases) {
        auto *segment = new QToolButton;
        segment->setCheckable(true);
        segment->setAutoRaise(true);
        segment->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        segment->setIcon(icon(annotationTool::iconName(tool)));
        segment->setAccessibleName(annotationTool::title(tool));
        segment->setToolTip(annotationTool::helpText(tool));
        tools_->addButton(segment, toolIndex(tool));
        segments->addWidget(segment);
    }
    connect(tools_, &QButtonGroup::idClicked, this,
            [this](int id) { toolSettings_->setCurrentTool(annotationTool::allCases.at(static_cast<size_t>(id))); });
    return selector;
}

QToolButton *AnnotationToolbarItems::toolButton(AnnotationTool tool) const
{
    return static_cast<QToolButton *>(tools_->button(toolIndex(tool)));
}

QMenu *AnnotationToolbarItems::markupMenu() const
{
    return markupButton_->menu();
}

void AnnotationToolbarItems::showCurrentTool()
{
    toolButton(toolSettings_->currentTool())->setChecked(true);
}

void AnnotationToolbarItems::updateEnabling()
{
    const bool open = documentModel_->pdfDocument() != nullptr;
    // A document whose author restricted changes is only looked at until the user chooses to edit it anyway.
    const bool editable = open && !documentModel_->changesRestricted();
    toolSelector_->setEnabled(open);
    for (AnnotationTool tool : annotationTool::allCases)
        toolButton(tool)->setEnabled(tool == AnnotationTool::none || editable);
    if (!editable && toolSettings_->currentTool() != AnnotationTool::none)
        toolSettings_->setCurrentTool(AnnotationTool::none);
    styleButton_->setEnabled(editable);
    signButton_->setEnabled(editable);
    markupButton_->setEnabled(editable && documentModel_->hasTextSelection());
}

void AnnotationToolbarItems::setShowStylePopover(bool show)
{
    showStylePopover_ = show;
    emit showStylePopoverChanged();
    presentStylePopover();
}

// The flag turns false when the popover closes (a click outside, Escape, a
// dialog opened over it), and clearing it closes the popover. The popover is
// kept rather than deleted on closing: a colour dialog of one of its wells may
// still be running when it closes.
void AnnotationToolbarItems::presentStylePopover()
{
    if (showStylePopover_) {
        if (!stylePopover_) {
            stylePopover_ = new AnnotationStylePopover(toolSettings_, this);
            stylePopover_->setAnchor(styleButton_);
            stylePopover_->installEventFilter(this);
            connect(
                stylePopover_, &AnnotationStylePopover::colorDialogFinished, this, [this] { setShowStylePopover(true); },
                Qt::QueuedConnection);
        }
        if (stylePopover_->isVisible())
            return;
        stylePopover_->adjustSize();
        QPoint place = styleButton_->mapToGlobal(QPoint(0, styleButton_->height()));
        if (const QScreen *screen = styleButton_->screen()) {
            const QRect free = screen->availableGeometry();
            place.setX(std::clamp(place.x(), free.left(), std::max(free.left(), free.right() - stylePopover_->width())));
        }
        stylePopover_->move(place);
        stylePopover_->show();
    } else if (stylePopover_ && stylePopover_->isVisible()) {
        stylePopover_->hide();
    }
}

bool AnnotationToolbarItems::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == stylePopover_ && event->type() == QEvent::Hide && showStylePopover_)
        setShowStylePopover(false);
    return QWidget::eventFilter(watched, event);
}

void AnnotationToolbarItems::setPdfView(PdfView *view)
{
    pdfView_ = view;
}
