#include "CommentsView.h"

#include "CommentsModel.h"
#include "DocumentModel.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QHash>
#include <QMenu>
#include <QPainter>
#include <QToolButton>
#include <QKeyEvent>
#include <QListView>
#include <QLocale>
#include <QStyledItemDelegate>
#include <QVBoxLayout>

#include <functional>
#include <memory>
#include <vector>

namespace {

// The name a user knows a kind by.
QString kindName(const QString &kind)
{
    if (kind == QLatin1String("Text"))
        return CommentsView::tr("Note");
    if (kind == PdfAnnotation::FreeText)
        return CommentsView::tr("Free Text");
    if (kind == PdfAnnotation::StrikeOut)
        return CommentsView::tr("Strike-out");
    if (kind == QLatin1String("PolyLine"))
        return CommentsView::tr("Polyline");
    if (kind == QLatin1String("FileAttachment"))
        return CommentsView::tr("Attachment");
    return kind;
}

// Fills a box with "all" (no value) and the values given, keeping the value chosen.
void refill(QComboBox *box, const QString &all, const QStringList &values, const std::function<QString(const QString &)> &name)
{
    const QVariant chosen = box->currentData();
    const QSignalBlocker blocker(box);
    box->clear();
    box->addItem(all, QVariant());
    for (const QString &value : values)
        box->addItem(name(value), value);
    box->setCurrentIndex(chosen.isValid() ? std::max(0, box->findData(chosen)) : 0);
}

// How far a reply is set in per level, in pixels.
constexpr int replyIndent = 14;

// Two lines a row: the comment's first line, then its kind, page, author and
// date; the kind's icon with the comment's colour in its corner; replies set in.
class CommentDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    std::function<QIcon(const QString &)> icons;

    // As wide as the list, whatever the text: long lines are cut, not scrolled to.
    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        return {0, QStyledItemDelegate::sizeHint(option, index).height()};
    }

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QStyleOptionViewItem indented(option);
        indented.rect.setLeft(option.rect.left() + replyIndent * std::min(index.data(CommentsModel::DepthRole).toInt(), 8));
        QStyledItemDelegate::paint(painter, indented, index);
    }

protected:
    void initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        const QString kind = index.data(CommentsModel::KindRole).toString();
        const bool reply = index.data(CommentsModel::DepthRole).toInt() > 0;
        if (icons) {
            option->icon = iconOf(reply ? QStringLiteral("Reply") : kind, index.data(Qt::DecorationRole).value<QColor>());
            option->features |= QStyleOptionViewItem::HasDecoration;
            option->decorationSize = QSize(20, 20);
        }
        QStringList details{reply ? CommentsView::tr("Reply") : kindName(kind),
                            CommentsView::tr("Page %1").arg(index.data(CommentsModel::PageIndexRole).toInt() + 1)};
        if (const QString author = index.data(CommentsModel::AuthorRole).toString(); !author.isEmpty())
            details << author;
        if (const QDateTime date = index.data(CommentsModel::DateRole).toDateTime(); date.isValid())
            details << QLocale().toString(date.toLocalTime(), QLocale::ShortFormat);
        option->text += QChar::LineSeparator + details.join(QStringLiteral(" \u00b7 "));
    }

private:
    QIcon iconOf(const QString &kind, const QColor &color) const
    {
        const QString key = kind + QLatin1Char(' ') + (color.isValid() ? color.name(QColor::HexArgb) : QString());
        if (const auto cached = cache_.constFind(key); cached != cache_.constEnd())
            return *cached;
        QPixmap pixmap(40, 40);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        p.drawPixmap(0, 0, icons(CommentsView::iconName(kind)).pixmap(40, 40));
        if (color.isValid() && color.alpha() > 0) {
            QColor opaque = color;
            opaque.setAlpha(255);
            p.setPen(QPen(Qt::white, 2));
            p.setBrush(opaque);
            p.drawEllipse(QRectF(25, 25, 14, 14));
        }
        p.end();
        return *cache_.insert(key, QIcon(pixmap));
    }

    mutable QHash<QString, QIcon> cache_;
};

} // namespace

QString CommentsView::iconName(const QString &kind)
{
    static const QHash<QString, QString> names{
        {QStringLiteral("Text"), QStringLiteral("annotation-note")},
        {QStringLiteral("Reply"), QStringLiteral("mail-reply-sender")},
        {QStringLiteral("FreeText"), QStringLiteral("insert-text")},
        {QStringLiteral("Highlight"), QStringLiteral("draw-highlight")},
        {QStringLiteral("Underline"), QStringLiteral("format-text-underline")},
        {QStringLiteral("Squiggly"), QStringLiteral("format-text-underline")},
        {QStringLiteral("StrikeOut"), QStringLiteral("format-text-strikethrough")},
        {QStringLiteral("Square"), QStringLiteral("draw-rectangle")},
        {QStringLiteral("Circle"), QStringLiteral("draw-ellipse")},
        {QStringLiteral("Ink"), QStringLiteral("draw-freehand")},
        {QStringLiteral("Line"), QStringLiteral("draw-line")},
        {QStringLiteral("PolyLine"), QStringLiteral("draw-line")},
        {QStringLiteral("Polygon"), QStringLiteral("draw-line")},
        {QStringLiteral("Stamp"), QStringLiteral("insert-image")},
        {QStringLiteral("FileAttachment"), QStringLiteral("mail-attachment")},
    };
    return names.value(kind, QStringLiteral("text-x-generic"));
}

CommentsView::CommentsView(DocumentModel *model, PdfView *view, QWidget *parent)
    : QWidget(parent), model_(model), view_(view), comments_(new CommentsModel(model, this)), filter_(new CommentsFilter(this)),
      kindBox_(new QComboBox(this)), authorBox_(new QComboBox(this)), list_(new QListView(this)),
      replyButton_(new QToolButton(this)), deleteButton_(new QToolButton(this))
{
    setAccessibleName(tr("Comments"));
    // Nothing is read until the panel is shown.
    comments_->setActive(false);
    filter_->setSourceModel(comments_);
    kindBox_->setAccessibleName(tr("Kind"));
    kindBox_->setToolTip(tr("Show the comments of one kind"));
    authorBox_->setAccessibleName(tr("Author"));
    authorBox_->setToolTip(tr("Show the comments of one author"));
    list_->setAccessibleName(tr("Comments List"));
    list_->setModel(filter_);
    list_->setItemDelegate(new CommentDelegate(list_));
    list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    list_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    list_->setUniformItemSizes(true);
    list_->setSpacing(2);
    list_->setTextElideMode(Qt::ElideRight);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_->installEventFilter(this);
    list_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(list_, &QWidget::customContextMenuRequested, this, &CommentsView::showMenu);

    replyButton_->setText(tr("Reply"));
    replyButton_->setAccessibleName(tr("Reply"));
    replyButton_->setToolTip(tr("Reply to the chosen comment"));
    deleteButton_->setText(tr("Delete"));
    deleteButton_->setAccessibleName(tr("Delete Comments"));
    deleteButton_->setToolTip(tr("Delete the chosen comments and their replies"));
    for (QToolButton *button : {replyButton_, deleteButton_})
        button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    connect(replyButton_, &QToolButton::clicked, this, &CommentsView::replyToSelected);
    connect(deleteButton_, &QToolButton::clicked, this, &CommentsView::deleteSelected);
    auto *buttons = new QHBoxLayout;
    buttons->setContentsMargins(0, 0, 0, 0);
    buttons->addWidget(replyButton_);
    buttons->addWidget(deleteButton_);
    buttons->addStretch(1);

    // One filter above the other: the sidebar is narrow.
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(kindBox_);
    layout->addWidget(authorBox_);
    layout->addWidget(list_, 1);
    layout->addLayout(buttons);

    connect(kindBox_, &QComboBox::currentIndexChanged, this, [this] {
        filter_->setKind(kindBox_->currentData().toString());
        followSelectedAnnotation();
    });
    connect(authorBox_, &QComboBox::currentIndexChanged, this, [this] {
        const QVariant author = authorBox_->currentData();
        filter_->setAuthor(author.isValid() ? std::optional(author.toString()) : std::nullopt);
        followSelectedAnnotation();
    });
    connect(list_->selectionModel(), &QItemSelectionModel::selectionChanged, this, &CommentsView::updateButtons);
    if (model_) {
        connect(model_, &DocumentModel::changesRestrictedChanged, this, &CommentsView::updateButtons);
        connect(model_, &DocumentModel::historyVersionChanged, this, &CommentsView::updateButtons);
    }
    connect(list_, &QListView::clicked, this, &CommentsView::goTo);
    connect(list_, &QListView::activated, this, &CommentsView::goTo);
    connect(comments_, &CommentsModel::contentsChanged, this, [this] {
        refillBoxes();
        followSelectedAnnotation();
    });
    if (model_)
        connect(model_, &DocumentModel::selectedAnnotationChanged, this, &CommentsView::followSelectedAnnotation);
    refillBoxes();
    followSelectedAnnotation();
    updateButtons();
}

CommentsView::~CommentsView() = default;

void CommentsView::setIconSource(const std::function<QIcon(const QString &)> &source)
{
    static_cast<CommentDelegate *>(list_->itemDelegate())->icons = source;
    replyButton_->setIcon(source ? source(QStringLiteral("mail-reply-sender")) : QIcon());
    deleteButton_->setIcon(source ? source(QStringLiteral("edit-delete")) : QIcon());
    list_->viewport()->update();
}

void CommentsView::showEvent(QShowEvent *event)
{
    comments_->setActive(true);
    QWidget::showEvent(event);
}

void CommentsView::hideEvent(QHideEvent *event)
{
    comments_->setActive(false);
    QWidget::hideEvent(event);
}

void CommentsView::refillBoxes()
{
    refill(kindBox_, tr("All Kinds"), comments_->kinds(), kindName);
    refill(authorBox_, tr("All Authors"), comments_->authors(),
           [](const QString &author) { return author.isEmpty() ? tr("No Author") : author; });
    filter_->setKind(kindBox_->currentData().toString());
    const QVariant author = authorBox_->currentData();
    filter_->setAuthor(author.isValid() ? std::optional(author.toString()) : std::nullopt);
}

void CommentsView::updateButtons()
{
    const bool chosen = list_->selectionModel()->hasSelection();
    const bool editable = model_ && !model_->changesRestricted();
    replyButton_->setEnabled(chosen && editable && list_->selectionModel()->selectedIndexes().size() == 1);
    deleteButton_->setEnabled(chosen && editable);
}

void CommentsView::replyToSelected()
{
    const QModelIndexList chosen = list_->selectionModel()->selectedIndexes();
    if (chosen.size() != 1 || !model_ || model_->changesRestricted())
        return;
    if (auto annotation = comments_->annotation(filter_->mapToSource(chosen.first())))
        emit replyRequested(annotation);
}

void CommentsView::showMenu(const QPoint &at)
{
    if (!list_->indexAt(at).isValid())
        return;
    QMenu menu(this);
    menu.setAccessibleName(tr("Comment Actions"));
    menu.addAction(replyButton_->text(), this, &CommentsView::replyToSelected)->setEnabled(replyButton_->isEnabled());
    menu.addAction(tr("Delete"), this, &CommentsView::deleteSelected)->setEnabled(deleteButton_->isEnabled());
    menu.exec(list_->viewport()->mapToGlobal(at));
}

void CommentsView::goTo(const QModelIndex &index)
{
    const QModelIndex source = filter_->mapToSource(index);
    const auto annotation = comments_->annotation(source);
    const auto page = comments_->page(source);
    if (!annotation || !page)
        return;
    following_ = true;
    if (model_)
        model_->setSelectedAnnotation(annotation);
    following_ = false;
    if (view_ && view_->document() && page->document() == view_->document())
        view_->ensureVisible(page, annotation->bounds());
}

void CommentsView::followSelectedAnnotation()
{
    if (following_ || !model_)
        return;
    const QModelIndex index = filter_->mapFromSource(comments_->indexOf(model_->selectedAnnotation()));
    if (!index.isValid()) {
        list_->clearSelection();
        return;
    }
    list_->setCurrentIndex(index);
    list_->scrollTo(index);
}

void CommentsView::deleteSelected()
{
    if (!model_ || model_->changesRestricted())
        return;
    std::vector<std::shared_ptr<PdfAnnotation>> chosen;
    for (const QModelIndex &index : list_->selectionModel()->selectedIndexes())
        if (auto annotation = comments_->annotation(filter_->mapToSource(index)))
            chosen.push_back(std::move(annotation));
    model_->removeAnnotations(chosen);
}

bool CommentsView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == list_ && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        if (key == Qt::Key_Delete || key == Qt::Key_Backspace) {
            deleteSelected();
            return true;
        }
        if (key == Qt::Key_R && static_cast<QKeyEvent *>(event)->modifiers() == Qt::NoModifier) {
            replyToSelected();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}
