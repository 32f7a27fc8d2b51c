#include "SignatureSheet.h"

#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "FilePanel.h"
#include "SignatureCanvasView.h"
#include "SignatureFonts.h"
#include "SignatureStore.h"

#include <QAccessible>
#include <QButtonGroup>
#include <QComboBox>
#include <QDir>
#include <QFontMetricsF>
#include <QFrame>
#include <QHBoxLayout>
#include <QImageReader>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMimeDatabase>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QShowEvent>
#include <QToolButton>
#include <QVBoxLayout>

#include <cmath>
#include <functional>
#include <utility>

namespace {

constexpr int inset = 16;
constexpr int sectionSpace = 12;
constexpr int pickerWidth = 120;
constexpr int previewMinimumHeight = 60;
constexpr int savedRowHeight = 90;
constexpr QSize thumbnailSize(120, 70);

// The ink colours a signature can take, in the order the sheet offers them.
QList<std::pair<QString, QColor>> inks()
{
    return {{SignatureSheet::tr("Black Ink"), Qt::black}, {SignatureSheet::tr("Dark Blue Ink"), QColor(16, 40, 128)}};
}

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

// Why an image file that did not read cannot be used, as the end of a
// sentence; `size` is the one the file gave before the read failed.
QString unreadableReason(const QImageReader &reader, const QString &path, QSize size)
{
    switch (reader.error()) {
    case QImageReader::FileNotFoundError:
    case QImageReader::DeviceError:
        return SignatureSheet::tr("the file can't be read.");
    case QImageReader::UnsupportedFormatError:
        if (QMimeDatabase().mimeTypeForFile(path).inherits(QStringLiteral("image/svg+xml")))
            return SignatureSheet::tr("SVG drawings aren't supported; save it as a PNG first.");
        return SignatureSheet::tr("it isn't a picture in a format Vellora reads.");
    default:
        break;
    }
    // Qt refuses some pictures over its allocation limit (counted at 32 bits a
    // pixel) even when asked for a smaller size; the error does not tell that
    // from damage.
    if (size.isValid() && qint64(size.width()) * size.height() * 4 > qint64(QImageReader::allocationLimit()) << 20)
        return SignatureSheet::tr("the file is damaged or incomplete, or at %1 × %2 pixels too large to read.")
            .arg(size.width())
            .arg(size.height());
    return SignatureSheet::tr("the file is damaged or incomplete.");
}

// The picture in the file, upright. One wider than a placed signature needs at
// the drawing's pixels per point is asked for at that width, so that the
// decoders that can (JPEG, colour PNG) never hold it whole. Null, with
// `reason` set, when it cannot be used.
QImage readSignatureImage(const QString &path, QString &reason)
{
    QImageReader reader(path);
    reader.setAutoTransform(true);
    const bool turned = reader.transformation().testFlag(QImageIOHandler::TransformationRotate90);
    const QSize stored = reader.size();
    const QSize upright = turned ? stored.transposed() : stored;
    const int widest = int(AnnotationFactory::signatureWidth) * SignatureCanvasView::inkScale;
    if (upright.width() > widest) {
        const QSize scaled(widest, qMax(1, qRound(qreal(upright.height()) * widest / upright.width())));
        reader.setScaledSize(turned ? scaled.transposed() : scaled);
    }
    const QImage image = reader.read();
    if (image.isNull())
        reason = unreadableReason(reader, path, stored);
    return image;
}

// The dimmed colour of secondary text, and of thin frames at 40 %.
QColor secondary(const QWidget *widget, qreal opacity = 1)
{
    QColor color = widget->palette().color(QPalette::PlaceholderText);
    color.setAlphaF(float(color.alphaF() * opacity));
    return color;
}

QFont scaled(QFont font, qreal factor)
{
    font.setPointSizeF(font.pointSizeF() * factor);
    return font;
}

QLabel *subheadline(const QString &text)
{
    auto *label = new QLabel(text);
    label->setFont(scaled(label->font(), 0.85));
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

QPushButton *button(const QString &text)
{
    auto *result = new QPushButton(text);
    result->setAccessibleName(text);
    // Return in the name field places nothing by itself.
    result->setAutoDefault(false);
    return result;
}

// The button of a row that finishes the job, in the accent colour.
QPushButton *prominentButton(const QString &text)
{
    QPushButton *result = button(text);
    // Only while it can be pressed: a disabled one looks like any disabled button.
    QPalette accent = result->palette();
    for (QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive}) {
        accent.setColor(group, QPalette::Button, accent.color(group, QPalette::Highlight));
        accent.setColor(group, QPalette::ButtonText, accent.color(group, QPalette::HighlightedText));
    }
    result->setPalette(accent);
    return result;
}

QFrame *divider()
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
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

// A thin frame drawn over the edge of the widget it lies on, above what that
// widget draws, without taking its clicks.
class Outline : public QWidget {
public:
    explicit Outline(QWidget *framed) : QWidget(framed)
    {
        setAttribute(Qt::WA_TransparentForMouseEvents);
        framed->installEventFilter(this);
        setGeometry(framed->rect());
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (watched == parentWidget() && event->type() == QEvent::Resize) {
            setGeometry(parentWidget()->rect());
            raise();
        }
        return false;
    }
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setPen(QPen(secondary(this, 0.4), 1));
        painter.drawRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5));
    }
};

// The typed name as it will look: in the chosen face on white, centred, or a
// dimmed placeholder while the name is blank.
class TypedPreview : public QWidget {
public:
    TypedPreview()
    {
        setAutoFillBackground(true);
        QPalette white = palette();
        white.setColor(QPalette::Window, Qt::white);
        setPalette(white);
        setMinimumHeight(previewMinimumHeight);
        setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Minimum);
        new Outline(this);
    }

    QString text;
    bool placeholder = true;
    QColor ink;

    void showText(const QString &shown, bool isPlaceholder, const QFont &face, const QColor &inkColor)
    {
        text = shown;
        placeholder = isPlaceholder;
        ink = inkColor;
        setFont(face);
        setAccessibleDescription(shown);
        updateGeometry();
        update();
    }

    QSize sizeHint() const override
    {
        return QSize(0, qMax(previewMinimumHeight, int(std::ceil(QFontMetricsF(font()).height()))));
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setPen(placeholder ? secondary(this) : ink);
        const QRect room = rect().adjusted(inset / 2, 0, -inset / 2, 0);
        painter.drawText(room, Qt::AlignCenter, fontMetrics().elidedText(text, Qt::ElideRight, room.width()));
    }
};

// One saved signature: the image fitted into 120 × 70 on white, framed in
// the accent colour while it is the selected one. A click selects it.
class Thumbnail : public QWidget {
public:
    Thumbnail(const QImage &image, std::function<void()> onClick) : image_(image), onClick_(std::move(onClick))
    {
        setFixedSize(thumbnailSize);
        setFocusPolicy(Qt::StrongFocus);
        setCursor(Qt::PointingHandCursor);
    }

    void setSelected(bool selected)
    {
        selected_ = selected;
        update();
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.fillRect(rect(), Qt::white);
        const QSizeF fitted = QSizeF(image_.size()).scaled(QSizeF(size()), Qt::KeepAspectRatio);
        QRectF place(QPointF(), fitted);
        place.moveCenter(QRectF(rect()).center());
        painter.drawImage(place, image_);
        const qreal line = selected_ ? 2 : 1;
        painter.setPen(QPen(selected_ ? palette().color(QPalette::Highlight) : secondary(this, 0.4), line));
        painter.drawRect(QRectF(rect()).adjusted(line / 2, line / 2, -line / 2, -line / 2));
        if (hasFocus()) {
            painter.setPen(QPen(palette().color(QPalette::Highlight), 1, Qt::DotLine));
            painter.drawRect(QRectF(rect()).adjusted(3.5, 3.5, -3.5, -3.5));
        }
    }
    void mouseReleaseEvent(QMouseEvent *event) override
    {
        if (event->button() == Qt::LeftButton && rect().contains(event->position().toPoint()))
            onClick_();
    }
    void keyPressEvent(QKeyEvent *event) override
    {
        if (event->key() == Qt::Key_Space || event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
            onClick_();
        else
            QWidget::keyPressEvent(event);
    }

private:
    QImage image_;
    std::function<void()> onClick_;
    bool selected_ = false;
};

// The row of saved signatures scrolls sideways, also with the plain wheel.
class SidewaysRow : public QScrollArea {
protected:
    void wheelEvent(QWheelEvent *event) override
    {
        const QPoint delta = event->angleDelta();
        QScrollBar *bar = horizontalScrollBar();
        bar->setValue(bar->value() - (delta.x() != 0 ? delta.x() : delta.y()) / 2);
        event->accept();
    }
};

TypedPreview *typedPreview(QWidget *widget)
{
    return static_cast<TypedPreview *>(widget);
}

Thumbnail *thumbnailCell(QWidget *widget)
{
    return static_cast<Thumbnail *>(widget);
}

} // namespace

SignatureSheet::SignatureSheet(DocumentModel *model, QWidget *parent) : QDialog(parent), model_(model)
{
    const QString title = tr("Place Signature");
    setWindowTitle(title);
    setWindowModality(Qt::WindowModal);
    setAccessibleName(title);

    // A fixed width; the height follows the content (the saved row or its
    // placeholder, the preview's font).
    auto *outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->setSizeConstraint(QLayout::SetFixedSize);
    auto *content = new QWidget;
    content->setFixedWidth(sheetWidth);
    outer->addWidget(content);
    auto *column = new QVBoxLayout(content);
    column->setSpacing(0);
    column->setContentsMargins(0, 0, 0, 0);

    auto *heading = new QLabel(title);
    QFont bold = heading->font();
    bold.setBold(true);
    heading->setFont(bold);
    column->addSpacing(inset);
    column->addWidget(heading, 0, Qt::AlignHCenter);
    column->addWidget(buildInkChoice());
    column->addWidget(buildDrawingSection());
    column->addWidget(divider());
    column->addWidget(buildTypedSection());
    column->addWidget(divider());
    column->addWidget(buildSavedSection());
    column->addWidget(divider());

    message_ = new QLabel;
    message_->setWordWrap(true);
    message_->setContentsMargins(inset, sectionSpace, inset, 0);
    message_->hide();
    column->addWidget(message_);

    cancel_ = button(tr("Cancel"));
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
    row->addWidget(subheadline(tr("Ink")));
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
    column->addWidget(subheadline(tr("Draw Signature")));
    canvas_ = new SignatureCanvasView;
    canvas_->setFixedHeight(canvasHeight);
    new Outline(canvas_);
    column->addWidget(canvas_);

    clear_ = button(tr("Clear"));
    saveDrawing_ = button(tr("Save Drawing"));
    placeDrawing_ = prominentButton(tr("Place Drawing"));
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
    column->addWidget(subheadline(tr("Type Signature")));

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

    preview_ = new TypedPreview;
    preview_->setAccessibleName(tr("Signature preview"));
    column->addWidget(preview_);

    saveTyped_ = button(tr("Save Typed"));
    placeTyped_ = prominentButton(tr("Place Typed"));
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
    import_ = button(tr("Import PNG…"));
    import_->setFont(scaled(import_->font(), 0.77));
    connect(import_, &QPushButton::clicked, this, &SignatureSheet::importPNG);
    QHBoxLayout *header = insetRow();
    header->addWidget(subheadline(heading));
    header->addStretch(1);
    header->addWidget(import_);
    column->addLayout(header);

    noSaved_ = new QLabel(tr("No saved signatures."));
    noSaved_->setForegroundRole(QPalette::PlaceholderText);
    noSaved_->setAlignment(Qt::AlignCenter);
    noSaved_->setContentsMargins(0, 8, 0, 8);
    column->addWidget(noSaved_);

    savedRow_ = new SidewaysRow;
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

    deleteSelected_ = button(tr("Delete Selected"));
    placeSelected_ = prominentButton(tr("Place Selected"));
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
    return typedPreview(preview_)->text;
}

QFont SignatureSheet::previewFont() const
{
    return preview_->font();
}

bool SignatureSheet::previewShowsPlaceholder() const
{
    return typedPreview(preview_)->placeholder;
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
    const QImage image = readSignatureImage(chosen.first(), reason);
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
        auto *cell = new Thumbnail(image, [this, path] { setSelectedPath(path); });
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
            thumbnailCell(cell)->setSelected(cell->objectName() == selectedPath_);
    deleteSelected_->setEnabled(!selectedPath_.isEmpty());
    placeSelected_->setEnabled(!selectedPath_.isEmpty());
}
