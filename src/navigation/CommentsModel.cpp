#include "CommentsModel.h"

#include "DocumentModel.h"
#include "PdfAnnotation.h"
#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfSelection.h"

#include <QLocale>
#include <QTimer>

#include <algorithm>
#include <map>

namespace {

bool isTextMarkup(const QString &kind)
{
    return kind == PdfAnnotation::Highlight || kind == PdfAnnotation::Underline || kind == PdfAnnotation::StrikeOut ||
           kind == QLatin1String("Squiggly");
}

// The page text under a markup's quadrilaterals, one line per quadrilateral.
QString markedText(const std::shared_ptr<PdfPage> &page, const PdfAnnotation &annotation)
{
    const QVector<QPointF> points = annotation.quadrilateralPoints();
    const QPointF origin = annotation.bounds().topLeft();
    QStringList parts;
    for (qsizetype i = 0; i + 3 < points.size(); i += 4) {
        // From the middle of its left edge to the middle of its right edge.
        const QPointF left = origin + (points[i] + points[i + 2]) / 2;
        const QPointF right = origin + (points[i + 1] + points[i + 3]) / 2;
        const QString text = PdfSelection::between(page, left, page, right).string().simplified();
        if (!text.isEmpty())
            parts << text;
    }
    return parts.join(QLatin1Char(' '));
}

} // namespace

CommentsModel::CommentsModel(DocumentModel *model, QObject *parent) : QAbstractListModel(parent), model_(model)
{
    if (model_)
        connect(model_, &DocumentModel::pdfDocumentChanged, this, &CommentsModel::followDocument);
    followDocument();
}

CommentsModel::~CommentsModel() = default;

bool CommentsModel::isListed(const QString &kind)
{
    static const QStringList unlisted{"Link",   "Widget", "Popup", "PrinterMark", "TrapNet",   "Watermark",
                                      "Screen", "Movie",  "3D",    "RichMedia",   "Projection"};
    return !kind.isEmpty() && !unlisted.contains(kind);
}

QString CommentsModel::firstLine(const QString &text)
{
    // Only the start of the text is looked at, however long it is.
    const QStringView view(text);
    qsizetype start = 0;
    while (start < view.size() && view[start].isSpace())
        ++start;
    qsizetype end = start;
    const qsizetype limit = std::min<qsizetype>(view.size(), start + 2 * longestLine);
    while (end < limit && view[end] != QLatin1Char('\n') && view[end] != QLatin1Char('\r') && view[end] != QChar(0x2028))
        ++end;
    QString line = view.sliced(start, end - start).toString().simplified();
    if (line.size() > longestLine) {
        line.truncate(longestLine);
        const qsizetype space = line.lastIndexOf(QLatin1Char(' '));
        if (space > longestLine / 2)
            line.truncate(space);
        line += QChar(0x2026);
    }
    return line;
}

void CommentsModel::followDocument()
{
    for (const auto &connection : documentConnections_)
        disconnect(connection);
    documentConnections_.clear();
    document_ = model_ ? model_->pdfDocument() : nullptr;
    if (document_) {
        PdfChangeChannel *changes = document_->changes();
        documentConnections_.push_back(connect(changes, &PdfChangeChannel::pageChanged, this,
                                               [this](const std::shared_ptr<PdfPage> &page, PdfChangeChannel::Changes what) {
                                                   if (what & PdfChangeChannel::Annotations)
                                                       pageChanged(page);
                                               }));
        documentConnections_.push_back(
            connect(changes, &PdfChangeChannel::pageListChanged, this, &CommentsModel::scheduleReload));
    }
    reload();
}

std::vector<CommentsModel::Entry> CommentsModel::entriesOf(const std::shared_ptr<PdfPage> &page, int pageIndex) const
{
    std::vector<Entry> entries;
    for (const auto &annotation : page->annotations()) {
        const QString kind = annotation->type();
        if (!isListed(kind))
            continue;
        Entry entry;
        entry.annotation = annotation;
        entry.page = page;
        entry.pageIndex = pageIndex;
        entry.kind = kind;
        entry.author = annotation->author();
        entry.date = annotation->modified();
        entries.push_back(std::move(entry));
    }
    // Down the page (page space: y up), then from the left.
    std::stable_sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        const QRectF ra = a.annotation->bounds(), rb = b.annotation->bounds();
        return ra.bottom() != rb.bottom() ? ra.bottom() > rb.bottom() : ra.left() < rb.left();
    });
    return threaded(std::move(entries));
}

// Each reply right after what it answers (replies in the order they were
// written), one level deeper; a reply whose annotation is not listed, or a
// loop of replies, stays where it is.
std::vector<CommentsModel::Entry> CommentsModel::threaded(std::vector<Entry> entries)
{
    std::map<const PdfAnnotation *, size_t> position;
    for (size_t i = 0; i < entries.size(); ++i)
        position.emplace(entries[i].annotation.get(), i);
    std::map<size_t, std::vector<size_t>> replies;
    std::vector<bool> isReply(entries.size(), false);
    for (size_t i = 0; i < entries.size(); ++i) {
        if (!entries[i].annotation->isReply())
            continue;
        const auto parent = position.find(entries[i].annotation->inReplyTo().get());
        if (parent != position.end() && parent->second != i) {
            replies[parent->second].push_back(i);
            isReply[i] = true;
        }
    }
    if (replies.empty())
        return entries;
    for (auto &[parent, list] : replies)
        std::stable_sort(list.begin(), list.end(), [&entries](size_t a, size_t b) { return entries[a].date < entries[b].date; });
    std::vector<Entry> ordered;
    ordered.reserve(entries.size());
    std::vector<bool> placed(entries.size(), false);
    // Depth first, with a stack of its own: a thread may be deep.
    const auto place = [&](size_t root) {
        std::vector<std::pair<size_t, int>> stack{{root, 0}};
        while (!stack.empty()) {
            const auto [at, depth] = stack.back();
            stack.pop_back();
            if (placed[at])
                continue;
            placed[at] = true;
            entries[at].depth = depth;
            ordered.push_back(std::move(entries[at]));
            if (const auto found = replies.find(at); found != replies.end())
                for (auto it = found->second.rbegin(); it != found->second.rend(); ++it)
                    stack.emplace_back(*it, depth + 1);
        }
    };
    for (size_t i = 0; i < entries.size(); ++i)
        if (!isReply[i])
            place(i);
    for (size_t i = 0; i < entries.size(); ++i)
        if (!placed[i])
            place(i);
    return ordered;
}

void CommentsModel::setActive(bool active)
{
    if (active == active_)
        return;
    active_ = active;
    if (active_ && stale_)
        reload();
}

void CommentsModel::reload()
{
    reloadPending_ = false;
    pendingPages_.clear();
    beginResetModel();
    entries_.clear();
    stale_ = !active_;
    if (document_ && active_) {
        const int count = document_->pageCount();
        for (int i = 0; i < count; ++i)
            if (const auto page = document_->page(i)) {
                std::vector<Entry> entries = entriesOf(page, i);
                std::move(entries.begin(), entries.end(), std::back_inserter(entries_));
            }
    }
    endResetModel();
    emit contentsChanged();
}

// Changes come in the middle of other work (an undo step putting several
// things back): the list is brought up to date once that is over.
void CommentsModel::scheduleReload()
{
    reloadPending_ = true;
    if (std::exchange(refreshPending_, true))
        return;
    QTimer::singleShot(0, this, &CommentsModel::refreshPages);
}

void CommentsModel::pageChanged(const std::shared_ptr<PdfPage> &page)
{
    if (!page || stale_)
        return;
    if (!active_) {
        // Read again when shown; until then the rows left are not shown either.
        scheduleReload();
        return;
    }
    pendingPages_.push_back(page);
    if (std::exchange(refreshPending_, true))
        return;
    QTimer::singleShot(0, this, &CommentsModel::refreshPages);
}

void CommentsModel::refreshPages()
{
    refreshPending_ = false;
    if (reloadPending_) {
        reload();
        return;
    }
    std::vector<std::weak_ptr<PdfPage>> pages = std::move(pendingPages_);
    pendingPages_.clear();
    std::set<PdfPage *> done;
    for (const auto &weak : pages)
        if (const auto page = weak.lock(); page && done.insert(page.get()).second)
            refreshPage(page);
    emit contentsChanged();
}

// Replaces the rows of one page; the other rows stay as they are.
void CommentsModel::refreshPage(const std::shared_ptr<PdfPage> &page)
{
    const int pageIndex = page->index();
    if (pageIndex < 0 || page->document() != document_)
        return;
    std::vector<Entry> fresh = entriesOf(page, pageIndex);
    const auto byPage = [](const Entry &entry, int index) { return entry.pageIndex < index; };
    const auto first = std::lower_bound(entries_.begin(), entries_.end(), pageIndex, byPage);
    auto last = first;
    while (last != entries_.end() && last->pageIndex == pageIndex)
        ++last;
    const int row = int(first - entries_.begin());
    const int oldCount = int(last - first);
    const bool sameRows =
        oldCount == int(fresh.size()) &&
        std::equal(first, last, fresh.begin(), [](const Entry &a, const Entry &b) { return a.annotation == b.annotation; });
    if (sameRows) {
        std::move(fresh.begin(), fresh.end(), first);
        if (oldCount > 0)
            emit dataChanged(index(row), index(row + oldCount - 1));
        return;
    }
    if (oldCount > 0) {
        beginRemoveRows({}, row, row + oldCount - 1);
        entries_.erase(first, last);
        endRemoveRows();
    }
    if (!fresh.empty()) {
        beginInsertRows({}, row, row + int(fresh.size()) - 1);
        entries_.insert(entries_.begin() + row, std::make_move_iterator(fresh.begin()), std::make_move_iterator(fresh.end()));
        endInsertRows();
    }
}

const QString &CommentsModel::lineOf(const Entry &entry) const
{
    if (!entry.lineRead) {
        entry.lineRead = true;
        const QString contents = entry.annotation->contents();
        if (contents.trimmed().isEmpty() && isTextMarkup(entry.kind))
            entry.line = firstLine(markedText(entry.page, *entry.annotation));
        else
            entry.line = firstLine(contents);
    }
    return entry.line;
}

std::shared_ptr<PdfAnnotation> CommentsModel::annotation(const QModelIndex &index) const
{
    return index.isValid() && index.row() < rowCount() ? entries_[size_t(index.row())].annotation : nullptr;
}

std::shared_ptr<PdfPage> CommentsModel::page(const QModelIndex &index) const
{
    return index.isValid() && index.row() < rowCount() ? entries_[size_t(index.row())].page : nullptr;
}

QModelIndex CommentsModel::indexOf(const std::shared_ptr<PdfAnnotation> &annotation) const
{
    if (!annotation)
        return {};
    for (size_t row = 0; row < entries_.size(); ++row)
        if (entries_[row].annotation == annotation)
            return index(int(row));
    return {};
}

QStringList CommentsModel::kinds() const
{
    std::set<QString> kinds;
    for (const Entry &entry : entries_)
        kinds.insert(entry.kind);
    return QStringList(kinds.begin(), kinds.end());
}

QStringList CommentsModel::authors() const
{
    std::set<QString> authors;
    for (const Entry &entry : entries_)
        authors.insert(entry.author);
    return QStringList(authors.begin(), authors.end());
}

int CommentsModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(entries_.size());
}

QVariant CommentsModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    const Entry &entry = entries_[size_t(index.row())];
    switch (role) {
    case Qt::DisplayRole: {
        const QString &line = lineOf(entry);
        return line.isEmpty() ? tr("(%1)").arg(entry.kind) : line;
    }
    case Qt::ToolTipRole:
    case Qt::AccessibleDescriptionRole: {
        QStringList parts{entry.kind, tr("Page %1").arg(entry.pageIndex + 1)};
        if (!entry.author.isEmpty())
            parts << entry.author;
        if (entry.date.isValid())
            parts << QLocale().toString(entry.date.toLocalTime(), QLocale::ShortFormat);
        return parts.join(QStringLiteral(" \u00b7 "));
    }
    case Qt::DecorationRole:
        return entry.annotation->color().isValid() && entry.annotation->color().alpha() > 0 ? QVariant(entry.annotation->color())
                                                                                            : QVariant();
    case KindRole:
        return entry.kind;
    case PageIndexRole:
        return entry.pageIndex;
    case AuthorRole:
        return entry.author;
    case DateRole:
        return entry.date;
    case DepthRole:
        return entry.depth;
    default:
        return {};
    }
}

void CommentsFilter::setKind(const QString &kind)
{
    if (kind == kind_)
        return;
    kind_ = kind;
    invalidateFilter();
}

void CommentsFilter::setAuthor(const std::optional<QString> &author)
{
    if (author == author_)
        return;
    author_ = author;
    invalidateFilter();
}

bool CommentsFilter::filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const
{
    const QModelIndex index = sourceModel()->index(sourceRow, 0, sourceParent);
    return (kind_.isEmpty() || index.data(CommentsModel::KindRole).toString() == kind_) &&
           (!author_ || index.data(CommentsModel::AuthorRole).toString() == *author_);
}
