#include "OutlineModel.h"

#include "DocumentModel.h"
#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfOutline.h"
#include "PdfPage.h"

#include <QApplication>
#include <QFont>
#include <QIODevice>
#include <QMimeData>
#include <QPalette>
#include <QTimer>

#include <algorithm>
#include <limits>

namespace {

const QString mimeType = QStringLiteral("application/x-vellora-bookmark");

// A place counts as reached a little before the top of the view gets to
// it, so going to a bookmark marks that bookmark whatever the rounding.
constexpr qreal reachedWithin = 4;

} // namespace

struct OutlineModel::Node {
    int id = 0;
    QString title;
    std::shared_ptr<PdfPage> page;
    std::optional<QPointF> point;
    bool open = true;
    int pageIndex = -1;
    Node *parent = nullptr;
    int row = 0;
    std::vector<std::unique_ptr<Node>> children;

    // Where it leads in reading order: its page, then down the page.
    std::pair<int, qreal> place() const { return {pageIndex, point ? -point->y() : -std::numeric_limits<qreal>::infinity()}; }
};

namespace {

void build(OutlineModel::Node *parent, std::vector<PdfBookmark> &bookmarks, std::vector<const OutlineModel::Node *> &all)
{
    parent->children.reserve(bookmarks.size());
    for (PdfBookmark &bookmark : bookmarks) {
        auto node = std::make_unique<OutlineModel::Node>();
        node->id = bookmark.id;
        node->title = std::move(bookmark.title);
        node->page = std::move(bookmark.page);
        node->point = bookmark.point;
        node->open = bookmark.open;
        node->pageIndex = node->page ? node->page->index() : -1;
        node->parent = parent;
        node->row = int(parent->children.size());
        if (node->pageIndex >= 0)
            all.push_back(node.get());
        build(node.get(), bookmark.children, all);
        parent->children.push_back(std::move(node));
    }
}

} // namespace

OutlineModel::OutlineModel(DocumentModel *model, QObject *parent, bool active)
    : QAbstractItemModel(parent), model_(model), root_(std::make_unique<Node>()), active_(active)
{
    if (model_) {
        connect(model_, &DocumentModel::pdfDocumentChanged, this, &OutlineModel::followDocument);
        connect(model_, &DocumentModel::changesRestrictedChanged, this, &OutlineModel::scheduleReload);
    }
    followDocument();
}

OutlineModel::~OutlineModel() = default;

void OutlineModel::followDocument()
{
    for (const auto &connection : documentConnections_)
        disconnect(connection);
    documentConnections_.clear();
    document_ = model_ ? model_->pdfDocument() : nullptr;
    readingId_ = 0;
    if (document_) {
        PdfChangeChannel *changes = document_->changes();
        documentConnections_.push_back(connect(changes, &PdfChangeChannel::outlineChanged, this, &OutlineModel::scheduleReload));
        documentConnections_.push_back(connect(changes, &PdfChangeChannel::pageListChanged, this, &OutlineModel::scheduleReload));
    }
    reload();
}

// Changes come in the middle of other work (an edit in place being
// committed, a drop): the tree is read again once that is over, once for
// any number of changes.
void OutlineModel::scheduleReload()
{
    if (std::exchange(reloadPending_, true))
        return;
    QTimer::singleShot(0, this, [this] {
        if (reloadPending_)
            reload();
    });
}

void OutlineModel::setActive(bool active)
{
    if (std::exchange(active_, active) != active && active_ && stale_)
        reload();
}

void OutlineModel::reload()
{
    reloadPending_ = false;
    beginResetModel();
    root_ = std::make_unique<Node>();
    readingOrder_.clear();
    stale_ = !active_;
    std::vector<PdfBookmark> bookmarks = document_ && active_ ? PdfOutline(document_).bookmarks() : std::vector<PdfBookmark>();
    build(root_.get(), bookmarks, readingOrder_);
    std::stable_sort(readingOrder_.begin(), readingOrder_.end(),
                     [](const Node *a, const Node *b) { return a->place() < b->place(); });
    endResetModel();
}

int OutlineModel::id(const QModelIndex &index) const
{
    const Node *node = nodeOf(index);
    return node ? node->id : 0;
}

std::shared_ptr<PdfPage> OutlineModel::page(const QModelIndex &index) const
{
    const Node *node = nodeOf(index);
    return node ? node->page : nullptr;
}

std::optional<QPointF> OutlineModel::point(const QModelIndex &index) const
{
    const Node *node = nodeOf(index);
    return node ? node->point : std::nullopt;
}

bool OutlineModel::isOpenInFile(const QModelIndex &index) const
{
    const Node *node = nodeOf(index);
    return node && node->open;
}

QModelIndex OutlineModel::indexOf(int id) const
{
    if (id == 0)
        return {};
    // Depth first, without recursion: a deep outline is no trouble.
    std::vector<const Node *> stack{root_.get()};
    while (!stack.empty()) {
        const Node *node = stack.back();
        stack.pop_back();
        if (node != root_.get() && node->id == id)
            return indexOfNode(node);
        for (const auto &child : node->children)
            stack.push_back(child.get());
    }
    return {};
}

QModelIndex OutlineModel::sectionAt(int pageIndex, QPointF point) const
{
    const std::pair<int, qreal> here{pageIndex, -(point.y() - reachedWithin)};
    auto after = std::upper_bound(readingOrder_.begin(), readingOrder_.end(), here,
                                  [](const std::pair<int, qreal> &place, const Node *node) { return place < node->place(); });
    return after == readingOrder_.begin() ? QModelIndex() : indexOfNode(*(after - 1));
}

void OutlineModel::setReading(const QModelIndex &index)
{
    const int id = this->id(index);
    if (id == readingId_)
        return;
    const QModelIndex old = indexOf(readingId_);
    readingId_ = id;
    if (old.isValid())
        emit dataChanged(old, old, {Qt::FontRole, ReadingRole});
    if (index.isValid())
        emit dataChanged(index, index, {Qt::FontRole, ReadingRole});
}

bool OutlineModel::editable() const
{
    return model_ && document_ && !model_->changesRestricted();
}

QModelIndex OutlineModel::addBookmark(const QString &title, const std::shared_ptr<PdfPage> &page, std::optional<QPointF> point,
                                      const QModelIndex &parent, int row)
{
    if (!editable())
        return {};
    const int parentId = parent.isValid() ? id(parent) : 0;
    if (parent.isValid() && parentId == 0)
        return {};
    int made = 0;
    if (!model_->changeOutline([&](PdfOutline &outline) { return outline.add(title, page, point, parentId, row, &made); }))
        return {};
    reload();
    return indexOf(made);
}

bool OutlineModel::rename(const QModelIndex &index, const QString &title)
{
    const int id = this->id(index);
    if (!editable() || id == 0 || title == nodeOf(index)->title)
        return false;
    return model_->changeOutline([&](PdfOutline &outline) { return outline.rename(id, title); });
}

bool OutlineModel::remove(const QModelIndex &index)
{
    const int id = this->id(index);
    return editable() && id != 0 && model_->changeOutline([&](PdfOutline &outline) { return outline.remove(id); });
}

bool OutlineModel::move(const QModelIndex &index, const QModelIndex &parent, int row)
{
    const int id = this->id(index);
    const int parentId = parent.isValid() ? this->id(parent) : 0;
    if (!editable() || id == 0 || (parent.isValid() && parentId == 0))
        return false;
    return model_->changeOutline([&](PdfOutline &outline) { return outline.move(id, parentId, row); });
}

const OutlineModel::Node *OutlineModel::nodeOf(const QModelIndex &index) const
{
    return index.isValid() && index.model() == this ? static_cast<const Node *>(index.internalPointer()) : nullptr;
}

QModelIndex OutlineModel::indexOfNode(const Node *node) const
{
    if (!node || node == root_.get())
        return {};
    return createIndex(node->row, 0, const_cast<Node *>(node));
}

QModelIndex OutlineModel::index(int row, int column, const QModelIndex &parent) const
{
    const Node *above = parent.isValid() ? nodeOf(parent) : root_.get();
    if (!above || column != 0 || row < 0 || row >= int(above->children.size()))
        return {};
    return createIndex(row, 0, above->children[size_t(row)].get());
}

QModelIndex OutlineModel::parent(const QModelIndex &child) const
{
    const Node *node = nodeOf(child);
    return node ? indexOfNode(node->parent) : QModelIndex();
}

int OutlineModel::rowCount(const QModelIndex &parent) const
{
    if (parent.column() > 0)
        return 0;
    const Node *node = parent.isValid() ? nodeOf(parent) : root_.get();
    return node ? int(node->children.size()) : 0;
}

int OutlineModel::columnCount(const QModelIndex &) const
{
    return 1;
}

QVariant OutlineModel::data(const QModelIndex &index, int role) const
{
    const Node *node = nodeOf(index);
    if (!node)
        return {};
    switch (role) {
    case Qt::DisplayRole:
    case Qt::EditRole:
        return node->title;
    case Qt::ToolTipRole:
        return node->pageIndex >= 0 ? tr("Page %1").arg(node->pageIndex + 1) : tr("Leads nowhere");
    case Qt::AccessibleTextRole:
        return node->pageIndex >= 0 ? tr("%1, page %2").arg(node->title).arg(node->pageIndex + 1)
                                    : tr("%1, leads nowhere").arg(node->title);
    case Qt::AccessibleDescriptionRole:
        return node->id == readingId_ ? tr("Section being read") : QString();
    case Qt::FontRole:
        if (node->id == readingId_) {
            QFont font = QApplication::font();
            font.setBold(true);
            return font;
        }
        return {};
    case Qt::ForegroundRole:
        if (node->pageIndex < 0)
            return QApplication::palette().brush(QPalette::Disabled, QPalette::Text);
        return {};
    case IdRole:
        return node->id;
    case PageIndexRole:
        return node->pageIndex;
    case ReadingRole:
        return node->id != 0 && node->id == readingId_;
    }
    return {};
}

bool OutlineModel::setData(const QModelIndex &index, const QVariant &value, int role)
{
    return role == Qt::EditRole && rename(index, value.toString());
}

Qt::ItemFlags OutlineModel::flags(const QModelIndex &index) const
{
    const Node *node = nodeOf(index);
    if (!node)
        return editable() ? Qt::ItemIsDropEnabled : Qt::NoItemFlags;
    Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (editable() && node->id != 0)
        flags |= Qt::ItemIsEditable | Qt::ItemIsDragEnabled | Qt::ItemIsDropEnabled;
    return flags;
}

Qt::DropActions OutlineModel::supportedDropActions() const
{
    return Qt::MoveAction;
}

QStringList OutlineModel::mimeTypes() const
{
    return {mimeType};
}

QMimeData *OutlineModel::mimeData(const QModelIndexList &indexes) const
{
    const int id = indexes.isEmpty() ? 0 : this->id(indexes.first());
    if (id == 0)
        return nullptr;
    auto *data = new QMimeData;
    data->setData(mimeType, QByteArray::number(id));
    return data;
}

bool OutlineModel::canDropMimeData(const QMimeData *data, Qt::DropAction action, int, int, const QModelIndex &parent) const
{
    if (!data || action != Qt::MoveAction || !editable() || !data->hasFormat(mimeType))
        return false;
    // Not into itself nor below itself.
    const QModelIndex moved = indexOf(data->data(mimeType).toInt());
    for (QModelIndex up = parent; up.isValid(); up = up.parent())
        if (up == moved)
            return false;
    return moved.isValid();
}

bool OutlineModel::dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column, const QModelIndex &parent)
{
    if (!canDropMimeData(data, action, row, column, parent))
        return false;
    // The view is told the drop did nothing of its own: the moved rows come
    // back when the tree is read again, not by removing the dragged ones.
    move(indexOf(data->data(mimeType).toInt()), parent, row);
    return false;
}
