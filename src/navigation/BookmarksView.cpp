#include "BookmarksView.h"

#include "DocumentModel.h"
#include "OutlineModel.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfSelection.h"
#include "PdfView.h"

#include <QAction>
#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QStyledItemDelegate>
#include <QTimer>

#include <algorithm>
#include <vector>

namespace {

// A title longer than this is cut (at a word where it can be).
constexpr int longestTitle = 80;

// Edits a title in place, in a field with a name.
class TitleDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    QWidget *createEditor(QWidget *parent, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QWidget *editor = QStyledItemDelegate::createEditor(parent, option, index);
        if (editor)
            editor->setAccessibleName(BookmarksView::tr("Bookmark Title"));
        return editor;
    }
};

} // namespace

BookmarksView::BookmarksView(DocumentModel *model, PdfView *view, QWidget *parent)
    : QTreeView(parent), model_(model), view_(view), outline_(nullptr), addAction_(new QAction(tr("Add Bookmark"), this)),
      renameAction_(new QAction(tr("Rename Bookmark"), this)), deleteAction_(new QAction(tr("Delete Bookmark"), this))
{
    setAccessibleName(tr("Bookmarks"));
    // A new document shown in the panel is read after the note is painted;
    // this runs before the outline model follows the document.
    if (model_)
        connect(model_, &DocumentModel::pdfDocumentChanged, this, [this] {
            outline_->setActive(false);
            readAfterPaint_ = isVisible();
        });
    outline_ = new OutlineModel(model, this, false);
    setHeaderHidden(true);
    setModel(outline_);
    setItemDelegate(new TitleDelegate(this));
    setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setDragEnabled(true);
    setAcceptDrops(true);
    setDropIndicatorShown(true);
    setDragDropMode(QAbstractItemView::InternalMove);
    setDefaultDropAction(Qt::MoveAction);
    setUniformRowHeights(true);

    connect(addAction_, &QAction::triggered, this, &BookmarksView::addBookmark);
    connect(renameAction_, &QAction::triggered, this, &BookmarksView::renameCurrent);
    connect(deleteAction_, &QAction::triggered, this, &BookmarksView::deleteCurrent);
    connect(this, &QTreeView::clicked, this, &BookmarksView::goTo);
    connect(this, &QTreeView::expanded, this, [this](const QModelIndex &index) { noteExpansion(index, true); });
    connect(this, &QTreeView::collapsed, this, [this](const QModelIndex &index) {
        noteExpansion(index, false);
        markReading();
    });
    connect(outline_, &QAbstractItemModel::modelReset, this, [this] {
        restoreExpansion();
        setCurrentIndex(outline_->indexOf(selectedId_));
        markReading();
        updateActions();
    });
    connect(selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex &current) {
        if (!restoring_)
            selectedId_ = outline_->id(current);
        updateActions();
    });
    if (model_) {
        connect(model_, &DocumentModel::changesRestrictedChanged, this, &BookmarksView::updateActions);
        connect(model_, &DocumentModel::pdfDocumentChanged, this, &BookmarksView::updateActions);
    }
    if (view_) {
        connect(view_, &PdfView::currentPageChanged, this, &BookmarksView::markReading);
        connect(view_, &PdfView::geometryChanged, this, &BookmarksView::markReading);
        connect(view_, &PdfView::documentChanged, this, &BookmarksView::updateActions);
    }
    restoreExpansion();
    updateActions();
}

BookmarksView::~BookmarksView() = default;

void BookmarksView::goTo(const QModelIndex &index)
{
    const auto page = outline_->page(index);
    if (!view_ || !page || page->document() != view_->document())
        return;
    if (const auto point = outline_->point(index))
        view_->goToPoint(page, *point);
    else
        view_->goToPage(page);
    markReading();
    emit bookmarkActivated(index);
}

std::pair<std::shared_ptr<PdfPage>, QPointF> BookmarksView::topOfView() const
{
    if (!view_ || !view_->document() || view_->document() != outline_->document())
        return {};
    const QPointF top(view_->viewport()->width() / 2.0, 0);
    const auto page = view_->pageAt(top, true);
    if (!page)
        return {};
    // Between pages or beside one, the nearest edge of the nearest page.
    const QRectF box = page->bounds();
    const QPointF at = view_->convertToPage(QPointF(0, 0), page);
    return {page, QPointF(std::clamp(at.x(), box.left(), box.right()), std::clamp(at.y(), box.top(), box.bottom()))};
}

QString BookmarksView::titleAt(const std::shared_ptr<PdfPage> &page, QPointF point)
{
    if (!page)
        return {};
    // The line whose top is nearest below the point (page space: y up), a
    // little above it too, so a line cut by the top of the view counts.
    const PdfSelection all = page->selectionForAll();
    const PdfSelection::Line *best = nullptr;
    for (const PdfSelection::Line &line : all.lines()) {
        if (line.text.trimmed().isEmpty() || line.bounds.bottom() > point.y() + line.bounds.height() / 2)
            continue;
        if (!best || line.bounds.bottom() > best->bounds.bottom())
            best = &line;
    }
    if (!best)
        return tr("Page %1").arg(page->index() + 1);
    QString title = best->text.simplified();
    if (title.size() > longestTitle) {
        title.truncate(longestTitle);
        const int space = title.lastIndexOf(' ');
        if (space > longestTitle / 2)
            title.truncate(space);
        title += QChar(0x2026);
    }
    return title;
}

void BookmarksView::addBookmark()
{
    outline_->setActive(isVisible()); // read now, if it waits for a paint

    const auto [page, point] = topOfView();
    if (!page)
        return;
    // After the bookmark of the section being read, beside it.
    const QModelIndex section = outline_->sectionAt(page->index(), point);
    const QModelIndex parent = section.parent();
    const QModelIndex made =
        outline_->addBookmark(titleAt(page, point), page, point, parent, section.isValid() ? section.row() + 1 : 0);
    if (!made.isValid())
        return;
    for (QModelIndex up = made.parent(); up.isValid(); up = up.parent())
        expand(up);
    setCurrentIndex(made);
    scrollTo(made);
    edit(made);
}

void BookmarksView::renameCurrent()
{
    if (currentIndex().isValid() && (outline_->flags(currentIndex()) & Qt::ItemIsEditable))
        edit(currentIndex());
}

void BookmarksView::deleteCurrent()
{
    outline_->remove(currentIndex());
}

void BookmarksView::markReading()
{
    const auto [page, point] = topOfView();
    QModelIndex section = page ? outline_->sectionAt(page->index(), point) : QModelIndex();
    // Inside a collapsed bookmark, the bookmark that is shown is marked.
    for (QModelIndex up = section.parent(); up.isValid(); up = up.parent())
        if (!isExpanded(up))
            section = up;
    outline_->setReading(section);
}

void BookmarksView::showEvent(QShowEvent *event)
{
    QTreeView::showEvent(event);
    if (outline_->isStale())
        readAfterPaint_ = true;
    else
        outline_->setActive(true);
}

void BookmarksView::hideEvent(QHideEvent *event)
{
    readAfterPaint_ = false;
    outline_->setActive(false);
    QTreeView::hideEvent(event);
}

void BookmarksView::paintEvent(QPaintEvent *event)
{
    QTreeView::paintEvent(event);
    if (outline_->rowCount() > 0 || !outline_->document())
        return;
    QPainter painter(viewport());
    painter.setPen(palette().color(QPalette::PlaceholderText));
    painter.drawText(viewport()->rect().adjusted(8, 8, -8, -8), Qt::AlignHCenter | Qt::AlignTop | Qt::TextWordWrap,
                     outline_->isStale() ? tr("Reading the bookmarks…") : tr("This document has no bookmarks."));
    if (std::exchange(readAfterPaint_, false))
        QTimer::singleShot(0, this, [this] {
            if (isVisible())
                outline_->setActive(true);
        });
}

void BookmarksView::keyPressEvent(QKeyEvent *event)
{
    if (state() != EditingState) {
        if (event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace) {
            deleteCurrent();
            return;
        }
        if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
            goTo(currentIndex());
            return;
        }
    }
    QTreeView::keyPressEvent(event);
}

void BookmarksView::contextMenuEvent(QContextMenuEvent *event)
{
    const QModelIndex index = indexAt(event->pos());
    if (index.isValid())
        setCurrentIndex(index);
    QMenu menu(this);
    menu.setAccessibleName(tr("Bookmark Menu"));
    menu.addAction(addAction_);
    menu.addAction(renameAction_);
    menu.addAction(deleteAction_);
    menu.exec(event->globalPos());
}

std::set<int> &BookmarksView::expansionOfDocument()
{
    for (auto it = expansion_.begin(); it != expansion_.end();)
        it = it->second.first.expired() ? expansion_.erase(it) : std::next(it);
    const auto document = outline_->document();
    auto found = expansion_.find(document.get());
    if (found == expansion_.end()) {
        auto &slot = expansion_[document.get()];
        slot.first = document;
        // First seen: expanded as the file says.
        std::vector<QModelIndex> stack{QModelIndex()};
        while (!stack.empty()) {
            const QModelIndex parent = stack.back();
            stack.pop_back();
            for (int row = 0; row < outline_->rowCount(parent); ++row) {
                const QModelIndex child = outline_->index(row, 0, parent);
                if (outline_->rowCount(child) > 0 && outline_->isOpenInFile(child)) {
                    slot.second.insert(outline_->id(child));
                    stack.push_back(child);
                }
            }
        }
        return slot.second;
    }
    return found->second.second;
}

void BookmarksView::restoreExpansion()
{
    if (!outline_->document() || outline_->isStale()) // not read yet
        return;
    const std::set<int> ids = expansionOfDocument();
    restoring_ = true;
    std::vector<QModelIndex> stack{QModelIndex()};
    while (!stack.empty()) {
        const QModelIndex parent = stack.back();
        stack.pop_back();
        for (int row = 0; row < outline_->rowCount(parent); ++row) {
            const QModelIndex child = outline_->index(row, 0, parent);
            if (ids.count(outline_->id(child))) {
                setExpanded(child, true);
                stack.push_back(child);
            }
        }
    }
    restoring_ = false;
}

void BookmarksView::noteExpansion(const QModelIndex &index, bool expanded)
{
    if (restoring_ || !outline_->document())
        return;
    std::set<int> &ids = expansionOfDocument();
    if (expanded)
        ids.insert(outline_->id(index));
    else
        ids.erase(outline_->id(index));
}

void BookmarksView::updateActions()
{
    const bool editable = outline_->flags(QModelIndex()) & Qt::ItemIsDropEnabled;
    addAction_->setEnabled(editable && view_ && view_->document() && view_->document() == outline_->document());
    const bool chosen = outline_->flags(currentIndex()) & Qt::ItemIsEditable;
    renameAction_->setEnabled(chosen);
    deleteAction_->setEnabled(chosen);
}
