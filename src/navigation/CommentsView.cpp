#include "CommentsView.h"

#include "CommentsModel.h"
#include "DocumentModel.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QComboBox>
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

// Fills a box with "all" and the values given, keeping the value chosen.
void refill(QComboBox *box, const QString &all, const QStringList &values, const std::function<QString(const QString &)> &name)
{
    const QString chosen = box->currentData().toString();
    const QSignalBlocker blocker(box);
    box->clear();
    box->addItem(all, QString());
    for (const QString &value : values)
        box->addItem(name(value), value);
    box->setCurrentIndex(std::max(0, box->findData(chosen)));
}

// Two lines a row: the comment's first line, then its kind, page, author and date.
class CommentDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const override
    {
        QStyledItemDelegate::initStyleOption(option, index);
        QStringList details{kindName(index.data(CommentsModel::KindRole).toString()),
                            CommentsView::tr("Page %1").arg(index.data(CommentsModel::PageIndexRole).toInt() + 1)};
        if (const QString author = index.data(CommentsModel::AuthorRole).toString(); !author.isEmpty())
            details << author;
        if (const QDateTime date = index.data(CommentsModel::DateRole).toDateTime(); date.isValid())
            details << QLocale().toString(date.toLocalTime(), QLocale::ShortFormat);
        option->text += QChar::LineSeparator + details.join(QStringLiteral(" \u00b7 "));
    }
};

} // namespace

CommentsView::CommentsView(DocumentModel *model, PdfView *view, QWidget *parent)
    : QWidget(parent), model_(model), view_(view), comments_(new CommentsModel(model, this)), filter_(new CommentsFilter(this)),
      kindBox_(new QComboBox(this)), authorBox_(new QComboBox(this)), list_(new QListView(this))
{
    setAccessibleName(tr("Comments"));
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
    list_->installEventFilter(this);

    // One filter above the other: the sidebar is narrow.
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(kindBox_);
    layout->addWidget(authorBox_);
    layout->addWidget(list_, 1);

    connect(kindBox_, &QComboBox::currentIndexChanged, this, [this] {
        filter_->setKind(kindBox_->currentData().toString());
        followSelectedAnnotation();
    });
    connect(authorBox_, &QComboBox::currentIndexChanged, this, [this] {
        filter_->setAuthor(authorBox_->currentData().toString());
        followSelectedAnnotation();
    });
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
}

CommentsView::~CommentsView() = default;

void CommentsView::refillBoxes()
{
    refill(kindBox_, tr("All Kinds"), comments_->kinds(), kindName);
    refill(authorBox_, tr("All Authors"), comments_->authors(), [](const QString &author) { return author; });
    filter_->setKind(kindBox_->currentData().toString());
    filter_->setAuthor(authorBox_->currentData().toString());
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
    for (const auto &annotation : chosen)
        model_->removeAnnotation(annotation);
}

bool CommentsView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == list_ && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        if (key == Qt::Key_Delete || key == Qt::Key_Backspace) {
            deleteSelected();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}
