#include "SignatureSheet.h"

#include "DocumentModel.h"
#include "EdgeOutline.h"
#include "FilePanel.h"
#include "SavedSignatureThumbnail.h"
#include "SheetStyle.h"
#include "SidewaysScrollArea.h"
#include "SignatureCanvasView.h"
#include "SignatureFonts.h"
#include "SignatureImageReader.h"
#include "SignatureStore.h"
#include "TypedSignaturePreview.h"

#include <QAccessible>
#include <QButtonGroup>
#include <QComboBox>
#include <QDir>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QShowEvent>
#include <QToolButton>
#include <QVBoxLayout>

#include <utility>

namespace {

// The sheet's own layout: content inset from its sides, parts spaced as the
// rows of every sheet.
constexpr int inset = 16;
constexpr int sectionSpace = SheetStyle::rowSpacing;
constexpr int pickerWidth = 120;
constexpr int savedRowHeight = 90;
// The Import button's text, smaller than a caption's: it sits in the header row.
constexpr qreal importTextScale = 0.77;

// The ink colours a signature can take, in the order the sheet offers them.
QList<std::pair<QString, QColor>> inks()
{
    return {{SignatureSheet::tr("Black Ink"), Qt::black}, {SignatureSheet::tr("Dark Blue Ink"), QColor(16, 40, 128)}};
}

// A 12-point dot of the ink in a 14-point icon, drawn at twice the pixels for sharp screens.
QIcon inkDot(const QColor &color)
{
    QPixmap dot(QSize(14, 14) * 2);
    dot.setDevicePixelRatio(2);
    dot.fill(Qt::transparent);
    QPainter painter(&dot);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawEllipse(QRectF(1, 1, 12, 12));
    return dot;
}

QVBoxLayout *section(QWidget *widget, int spacing, int sideInset)
{
    auto *column = new QVBoxLayout(widget);
    column->setSpacing(spacing);
    column->setContentsMargins(sideInset, sectionSpace, sideInset, sectionSpace);
    return column;
}

QHBoxLayout *insetRow()
{
    auto *row = new QHBoxLayout;
    row->setContentsMargins(inset, 0, inset, 0);
    return row;
}

TypedSignaturePreview *typedPreview(QWidget *widget)
{
    return static_cast<TypedSignaturePreview *>(widget);
}

} // namespace

SignatureSheet::SignatureSheet(DocumentModel *model, QWidget *parent) : QDialog(parent), model_(model)
{
    const QString title = tr("Place Signature");
    setWindowTitle(title);
    setAccessibleName(title);

    // A fixed width; the height follows the content (the saved row or its
    // placeholder, the preview's font). The parts bring their own spacing.
    QVBoxLayout *column = SheetStyle::column(this, sheetWidth, 0, 0);
    column->addSpacing(inset);
    column->addWidget(SheetStyle::headline(title), 0, Qt::AlignHCenter);
    column->addWidget(buildInkChoice());
    column->addWidget(buildDrawingSection());
    column->addWidget(SheetStyle::divider());
    column->addWidget(buildTypedSection());
    column->addWidget(SheetStyle::divider());
    column->addWidget(buildSavedSection());
    column->addWidget(SheetStyle::divider());

    message_ = new QLabel;
    message_->setWordWrap(true);
    message_->setContentsMargins(inset, sectionSpace, inset, 0);
    message_->hide();
    column->addWidget(message_);

    cancel_ = SheetStyle::button(tr("Cancel"));
    connect(cancel_, &QPushButton::clicked, this, &SignatureSheet::reject);
    column->addSpacing(sectionSpace);
    column->addWidget(cancel_, 0, Qt::AlignHCenter);
    column->addSpacing(sectionSpace);

    inkChanged();
    savedChanged();
}

// One choice for drawn and typed signatures alike.
QWidget *SignatureSheet::buildInkChoice()
{
    auto *area = new QWidget;
    auto *row = new QHBoxLayout(area);
    row->setContentsMargins(inset, sectionSpace, inset, 0);
    row->setSpacing(4);
    row->addWidget(SheetStyle::caption(tr("Ink")));
    ink_ = new QButtonGroup(this);
    const auto choices = inks();
    for (int i = 0; i < choices.size(); ++i) {
        auto *choice = new QToolButton;
        choice->setCheckable(true);
        choice->setAutoRaise(true);
        choice->setIcon(inkDot(choices[i].second));
        choice->setToolTip(choices[i].first);
        choice->setAccessibleName(choices[i].first);
        ink_->addButton(choice, i);
        row->addWidget(choice);
    }
    ink_->button(0)->setChecked(true);
    row->addStretch(1);
    connect(ink_, &QButtonGroup::idToggled, this, [this](int, bool checked) {
        if (checked)
            inkChanged();
    });
    return area;
}

QWidget *SignatureSheet::buildDrawingSection()
{
    auto *area = new QWidget;
    QVBoxLayout *column = section(area, 4, inset);
    column->addWidget(SheetStyle::caption(tr("Draw Signature")));
    canvas_ = new SignatureCanvasView;
    canvas_->setFixedHeight(canvasHeight);
    new EdgeOutline(canvas_);
    column->addWidget(canvas_);

    clear_ = SheetStyle::button(tr("Clear"));
    saveDrawing_ = SheetStyle::button(tr("Save Drawing"));
    placeDrawing_ = SheetStyle::prominentButton(tr("Place Drawing"));
    connect(clear_, &QPushButton::clicked, canvas_, &SignatureCanvasView::clear);
    connect(saveDrawing_, &QPushButton::clicked, this, [this] { saveImage(canvas_->renderImage()); });
    connect(placeDrawing_, &QPushButton::clicked, this, [this] { place(canvas_->renderImage()); });
    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(sectionSpace);
    buttons->addWidget(clear_);
    buttons->addWidget(saveDrawing_);
    buttons->addStretch(1);
    buttons->addWidget(placeDrawing_);
    column->addLayout(buttons);
    return area;
}

QWidget *SignatureSheet::buildTypedSection()
{
    auto *area = new QWidget;
    QVBoxLayout *column = section(area, 8, inset);
    column->addWidget(SheetStyle::caption(tr("Type Signature")));

    const QString yourName = tr("Your name");
    nameField_ = new QLineEdit;
    nameField_->setPlaceholderText(yourName);
    nameField_->setAccessibleName(yourName);
    fontPicker_ = new QComboBox;
    fontPicker_->setAccessibleName(tr("Signature font"));
    for (const SignatureFonts::Choice &choice : SignatureFonts::choices())
        fontPicker_->addItem(choice.label);
    fontPicker_->setFixedWidth(pickerWidth);
    auto *input = new QHBoxLayout;
    input->setSpacing(10);
    input->addWidget(nameField_, 1);
    input->addWidget(fontPicker_);
    column->addLayout(input);

    preview_ = new TypedSignaturePreview;
    preview_->setAccessibleName(tr("Signature preview"));
    column->addWidget(preview_);

    saveTyped_ = SheetStyle::button(tr("Save Typed"));
    placeTyped_ = SheetStyle::prominentButton(tr("Place Typed"));
    connect(saveTyped_, &QPushButton::clicked, this, [this] { saveImage(typedImage()); });
    connect(placeTyped_, &QPushButton::clicked, this, [this] { place(typedImage()); });
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(saveTyped_);
    buttons->addStretch(1);
    buttons->addWidget(placeTyped_);
    column->addLayout(buttons);

    connect(nameField_, &QLineEdit::textChanged, this, &SignatureSheet::typedChanged);
    connect(fontPicker_, &QComboBox::currentIndexChanged, this, &SignatureSheet::typedChanged);
    return area;
}

QWidget *SignatureSheet::buildSavedSection()
{
    auto *area = new QWidget;
    QVBoxLayout *column = section(area, 8, 0);

    const QString heading = tr("Saved Signatures");
    import_ = SheetStyle::button(tr("Import PNG…"));
    import_->setFont(SheetStyle::smaller(import_->font(), importTextScale));
    connect(import_, &QPushButton::clicked, this, &SignatureSheet::importPNG);
    QHBoxLayout *header = insetRow();
    header->addWidget(SheetStyle::caption(heading));
    header->addStretch(1);
    header->addWidget(import_);
    column->addLayout(header);

    noSaved_ = new QLabel(tr("No saved signatures."));
    noSaved_->setForegroundRole(QPalette::PlaceholderText);
    noSaved_->setAlignment(Qt::AlignCenter);
    noSaved_->setContentsMargins(0, 8, 0, 8);
    column->addWidget(noSaved_);

    savedRow_ = new SidewaysScrollArea;
    savedRow_->setAccessibleName(heading);
    savedRow_->setFrameShape(QFrame::NoFrame);
    savedRow_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    savedRow_->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    savedRow_->setFixedHeight(savedRowHeight);
    savedRow_->setWidgetResizable(true);
    auto *strip = new QWidget;
    thumbnails_ = new QHBoxLayout(strip);
    thumbnails_->setSpacing(sectionSpace);
    thumbnails_->setContentsMargins(inset, 0, inset, 0);
    thumbnails_->addStretch(1);
    savedRow_->setWidget(strip);
    column->addWidget(savedRow_);

    deleteSelected_ = SheetStyle::button(tr("Delete Selected"));
    placeSelected_ = SheetStyle::prominentButton(tr("Place Selected"));
    connect(deleteSelected_, &QPushButton::clicked, this, &SignatureSheet::deleteSelected);
    connect(placeSelected_, &QPushButton::clicked, this, &SignatureSheet::placeSelected);
    QHBoxLayout *buttons = insetRow();
    buttons->addWidget(deleteSelected_);
    buttons->addStretch(1);
    buttons->addWidget(placeSelected_);
    column->addLayout(buttons);
    return area;
}

void SignatureSheet::showEvent(QShowEvent *event)
{
    if (!event->spontaneous())
        reloadSaved();
    QDialog::showEvent(event);
}

QString SignatureSheet::previewText() const
{
    return typedPreview(preview_)->text();
}

QFont SignatureSheet::previewFont() const
{
    return preview_->font();
}

bool SignatureSheet::previewShowsPlaceholder() const
{
    return typedPreview(preview_)->showsPlaceholder();
}

QString SignatureSheet::typedFontName() const
{
    const QList<SignatureFonts::Choice> &table = SignatureFonts::choices();
    const int index = fontPicker_->currentIndex();
    if (index < 0 || index >= table.size())
        qFatal("No signature font at %d", index);
    return table[index].fontName;
}

QColor SignatureSheet::inkColor() const
{
    return inks().value(qMax(0, ink_->checkedId())).second;
}

void SignatureSheet::inkChanged()
{
    canvas_->setInkColor(inkColor());
    typedChanged();
}

void SignatureSheet::typedChanged()
{
    const QString name = nameField_->text().trimmed();
    const QFont face = SignatureFonts::font(typedFontName(), previewFontSize);
    typedPreview(preview_)->showText(name.isEmpty() ? tr("Your signature") : name, name.isEmpty(), face, inkColor());
    saveTyped_->setEnabled(!name.isEmpty());
    placeTyped_->setEnabled(!name.isEmpty());
}

QImage SignatureSheet::typedImage() const
{
    return SignatureStore::renderTypedSignature(nameField_->text(), typedFontName(), inkColor());
}

void SignatureSheet::saveImage(const QImage &image)
{
    if (image.isNull())
        return;
    QString error;
    SignatureStore::save(image, &error);
    // What was drawn, typed or imported stays where it was.
    showMessage(
        error.isEmpty()
            ? QString()
            : tr("The signature couldn't be saved in %1: %2.").arg(QDir::toNativeSeparators(SignatureStore::directory()), error));
    reloadSaved();
}

void SignatureSheet::showMessage(const QString &text)
{
    message_->setText(text);
    message_->setVisible(!text.isEmpty());
    if (!text.isEmpty()) {
        QAccessibleEvent alert(message_, QAccessible::Alert);
        QAccessible::updateAccessibility(&alert);
    }
}

void SignatureSheet::place(const QImage &image)
{
    if (image.isNull())
        return;
    model_->setPendingSignatureImage(image);
    accept();
}

void SignatureSheet::importPNG()
{
    const auto panel = model_->filePanel();
    if (!panel)
        return;
    const QStringList chosen = panel->chooseFilesToOpen(FilePanel::Content::Image, false);
    if (chosen.isEmpty())
        return;
    QString reason;
    const QImage image = SignatureImageReader::read(chosen.first(), reason);
    if (image.isNull())
        showMessage(tr("This image can't be used as a signature: %1").arg(reason));
    else
        saveImage(image);
}

void SignatureSheet::deleteSelected()
{
    if (selectedPath_.isEmpty())
        return;
    SignatureStore::deleteSignature(selectedPath_);
    reloadSaved();
    setSelectedPath({});
}

void SignatureSheet::placeSelected()
{
    if (!selectedPath_.isEmpty())
        place(QImage(selectedPath_));
}

void SignatureSheet::setSelectedPath(const QString &path)
{
    selectedPath_ = path;
    savedChanged();
}

void SignatureSheet::reloadSaved()
{
    savedPaths_ = SignatureStore::load();
    while (thumbnails_->count() > 1) {
        QLayoutItem *item = thumbnails_->takeAt(0);
        delete item->widget();
        delete item;
    }
    // A file that is no image gets no cell.
    int number = 0;
    for (const QString &path : std::as_const(savedPaths_)) {
        const QImage image(path);
        ++number;
        if (image.isNull())
            continue;
        auto *cell = new SavedSignatureThumbnail(image, [this, path] { setSelectedPath(path); });
        cell->setObjectName(path);
        cell->setAccessibleName(tr("Saved signature %1").arg(number));
        thumbnails_->insertWidget(thumbnails_->count() - 1, cell, 0, Qt::AlignVCenter);
    }
    savedChanged();
}

QWidget *SignatureSheet::thumbnail(const QString &path) const
{
    for (int i = 0; i < thumbnails_->count(); ++i)
        if (QWidget *cell = thumbnails_->itemAt(i)->widget(); cell && cell->objectName() == path)
            return cell;
    return nullptr;
}

void SignatureSheet::savedChanged()
{
    noSaved_->setVisible(savedPaths_.isEmpty());
    savedRow_->setVisible(!savedPaths_.isEmpty());
    for (int i = 0; i < thumbnails_->count(); ++i)
        if (QWidget *cell = thumbnails_->itemAt(i)->widget())
            static_cast<SavedSignatureThumbnail *>(cell)->setSelected(cell->objectName() == selectedPath_);
    deleteSelected_->setEnabled(!selectedPath_.isEmpty());
    placeSelected_->setEnabled(!selectedPath_.isEmpty());
}
