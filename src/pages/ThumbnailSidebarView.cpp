#include "ThumbnailSidebarView.h"

#include "DocumentModel.h"
#include "PageOperations.h"
#include "PdfDocument.h"
#include "ReorderableListView.h"
#include "ThumbnailCache.h"

#include <QAbstractListModel>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QStackedWidget>
#include <QStyledItemDelegate>
#include <QVBoxLayout>

// One row per page index; the rows carry no data of their own, the delegate
// reads the model and the cache.
class ThumbnailListModel : public QAbstractListModel {
public:
    using QAbstractListModel::QAbstractListModel;
    void setCount(int count)
    {
        beginResetModel();
        count_ = count;
        endResetModel();
    }
    int rowCount(const QModelIndex &parent = {}) const override { return parent.isValid() ? 0 : count_; }
    QVariant data(const QModelIndex &, int) const override { return {}; }
    void rowChanged(int row) { emit dataChanged(index(row), index(row)); }

private:
    int count_ = 0;
};

namespace {

QFont captionFont(QFont font)
{
    font.setPointSizeF(font.pointSizeF() * 0.85);
    return font;
}

// Draws one row (a thumbnail cell) from the model's current state.
class ThumbnailCell : public QStyledItemDelegate {
public:
    ThumbnailCell(DocumentModel *model, ThumbnailCache *cache, QObject *parent)
        : QStyledItemDelegate(parent), model_(model), cache_(cache)
    {
    }

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const override
    {
        return QSize(option.rect.width(), ThumbnailSidebarView::rowHeight);
    }

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        const auto document = model_->pdfDocument();
        const int row = index.row();
        // A page the engine cannot yield leaves its row empty.
        if (!document || !document->page(row))
            return;
        const bool isCurrent = row == model_->currentPageIndex();
        const bool isSelected = model_->selectedPageIndices().contains(row);
        const QPalette &palette = option.palette;
        const QColor accent = palette.color(QPalette::Highlight);

        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        QPainterPath clip;
        clip.addRoundedRect(QRectF(option.rect), 4, 4);
        painter->setClipPath(clip);
        if (isSelected) {
            QColor wash = accent;
            wash.setAlphaF(0.25f);
            painter->fillRect(option.rect, wash);
        }

        const int pad = ThumbnailSidebarView::padding;
        const QRect frame(option.rect.topLeft() + QPoint(pad, pad), ThumbnailSidebarView::frameSize);
        const QImage image = cache_->thumbnail(row);
        if (!image.isNull()) {
            QSizeF shown = image.deviceIndependentSize();
            shown.scale(QSizeF(frame.size()), Qt::KeepAspectRatio);
            QRectF target(QPointF(), shown);
            target.moveCenter(QRectF(frame).center());
            painter->drawImage(target, image);
        }
        if (isCurrent) {
            painter->setPen(QPen(accent, 2));
            painter->setBrush(Qt::NoBrush);
            painter->drawRect(QRectF(frame).adjusted(1, 1, -1, -1));
        } else {
            painter->setPen(QPen(QColor(128, 128, 128, 77), 1));
            painter->setBrush(Qt::NoBrush);
            painter->drawRect(QRectF(frame).adjusted(0.5, 0.5, -0.5, -0.5));
        }

        painter->setFont(captionFont(option.font));
        painter->setPen(palette.color(QPalette::PlaceholderText));
        const QRect number(frame.right() + 1 + ThumbnailSidebarView::spacing, option.rect.top(),
                           option.rect.right() - frame.right() - ThumbnailSidebarView::spacing - pad, option.rect.height());
        painter->drawText(number, Qt::AlignLeft | Qt::AlignVCenter, QString::number(row + 1));
        painter->restore();
    }

private:
    DocumentModel *model_;
    ThumbnailCache *cache_;
};

} // namespace

ThumbnailSidebarView::ThumbnailSidebarView(DocumentModel *model, QWidget *parent)
    : QWidget(parent), model_(model), cache_(new ThumbnailCache(this)), rows_(new ThumbnailListModel(this))
{
    empty_ = new QLabel(tr("No document open"));
    empty_->setAlignment(Qt::AlignCenter);
    empty_->setForegroundRole(QPalette::PlaceholderText);

    list_ = new ReorderableListView;
    list_->setModel(rows_);
    list_->setItemDelegate(new ThumbnailCell(model_, cache_, list_));
    list_->setUniformItemSizes(true);
    list_->setFocusPolicy(Qt::NoFocus);
    list_->setFrameShape(QFrame::NoFrame);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    list_->verticalScrollBar()->setSingleStep(rowHeight / 3);
    list_->viewport()->setBackgroundRole(QPalette::Window);

    stack_ = new QStackedWidget;
    stack_->addWidget(empty_);
    stack_->addWidget(list_);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(stack_);

    connect(list_, &ReorderableListView::rowClicked, this,
            [this](int row, QPoint, Qt::KeyboardModifiers modifiers) { clickRow(row, modifiers); });
    connect(list_, &ReorderableListView::rowsMoved, this, &ThumbnailSidebarView::moveRows);
    connect(list_->verticalScrollBar(), &QScrollBar::valueChanged, this, &ThumbnailSidebarView::visibleRowsChanged);
    connect(list_->verticalScrollBar(), &QScrollBar::rangeChanged, this, &ThumbnailSidebarView::visibleRowsChanged);
    connect(cache_, &ThumbnailCache::thumbnailReady, rows_, &ThumbnailListModel::rowChanged);

    connect(model_, &DocumentModel::pdfDocumentChanged, this, &ThumbnailSidebarView::rebuild);
    connect(model_, &DocumentModel::pageMutationCountChanged, this, &ThumbnailSidebarView::rebuild);
    connect(model_, &DocumentModel::currentPageIndexChanged, this, [this] {
        // The current page's thumbnail stays in sight as the user reads on
        // (the model tells of every write: only a new page moves the list).
        if (const int current = model_->currentPageIndex(); current != followedPage_) {
            followedPage_ = current;
            if (const QModelIndex row = rows_->index(current); row.isValid())
                list_->scrollTo(row, QAbstractItemView::EnsureVisible);
        }
        repaintRows();
    });
    connect(model_, &DocumentModel::selectedPageIndicesChanged, this, &ThumbnailSidebarView::repaintRows);
    rebuild();
}

bool ThumbnailSidebarView::showsEmptyState() const
{
    return stack_->currentWidget() == empty_;
}

QRect ThumbnailSidebarView::rowRect(int row) const
{
    return list_->visualRect(rows_->index(row));
}

void ThumbnailSidebarView::rebuild()
{
    const auto document = model_->pdfDocument();
    const int count = document ? document->pageCount() : 0;
    cache_->setDocument(count > 0 ? document : nullptr);
    rows_->setCount(count);
    followedPage_ = model_->currentPageIndex();
    stack_->setCurrentWidget(count > 0 ? static_cast<QWidget *>(list_) : empty_);
    visibleRowsChanged();
}

void ThumbnailSidebarView::repaintRows()
{
    list_->viewport()->update();
}

void ThumbnailSidebarView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    visibleRowsChanged();
}

void ThumbnailSidebarView::visibleRowsChanged()
{
    const qreal ratio = list_->devicePixelRatioF();
    cache_->setShownSize(frameSize * ratio, ratio);
    const int count = rows_->rowCount();
    if (count == 0)
        return;
    const int top = list_->verticalScrollBar()->value();
    const int first = std::clamp(top / rowHeight, 0, count - 1);
    const int last = std::clamp((top + list_->viewport()->height()) / rowHeight, first, count - 1);
    cache_->setVisibleRows(first, last);
}

void ThumbnailSidebarView::clickRow(int row, Qt::KeyboardModifiers modifiers)
{
    // Only Ctrl builds a selection; any other click, Shift-click included,
    // goes to the page and clears it.
    if (modifiers & Qt::ControlModifier) {
        QSet<int> selection = model_->selectedPageIndices();
        if (!selection.remove(row))
            selection.insert(row);
        model_->setSelectedPageIndices(selection);
        return;
    }
    model_->setCurrentPageIndex(row);
    model_->setSelectedPageIndices({});
}

void ThumbnailSidebarView::moveRows(const std::set<qint64> &rows, int gap)
{
    const auto document = model_->pdfDocument();
    if (!document)
        return;
    // The current page and the selection keep their numbers, not their pages.
    model_->changePages([&] { PageOperations::movePages(document, rows, gap); });
}
