// The document's bookmarks as a tree model: one row per bookmark, its title
// shown and edited in place, dragged to reorder and nest. It follows the
// document of a DocumentModel and reads the bookmarks again (one pass of the
// main loop later) whenever the engine announces that they or the pages
// changed; every edit goes through the DocumentModel's history.
#pragma once

#include <QAbstractItemModel>
#include <QPointF>

#include <memory>
#include <optional>
#include <vector>

class DocumentModel;
class PdfDocument;
class PdfPage;

class OutlineModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Role {
        IdRole = Qt::UserRole + 1, // the bookmark's id (int)
        PageIndexRole,             // the index of the page it goes to, -1 for none
        ReadingRole,               // true for the bookmark marked as the section being read
    };

    // One bookmark as read (internal to the model).
    struct Node;

    // An inactive model reads nothing until it is made active.
    explicit OutlineModel(DocumentModel *model, QObject *parent = nullptr, bool active = true);
    ~OutlineModel() override;

    // The document shown, and its bookmarks read again now.
    std::shared_ptr<PdfDocument> document() const { return document_; }
    void reload();
    // While inactive (its panel hidden) nothing is read: the tree is empty
    // and stale, and it is read once it is made active again.
    void setActive(bool active);
    bool isStale() const { return stale_; }

    // Where a bookmark goes: its page (none when it leads nowhere) and the
    // point on it (page space), when it names one.
    int id(const QModelIndex &index) const;
    std::shared_ptr<PdfPage> page(const QModelIndex &index) const;
    std::optional<QPointF> point(const QModelIndex &index) const;
    // Whether the file shows the bookmark's entries below it.
    bool isOpenInFile(const QModelIndex &index) const;
    QModelIndex indexOf(int id) const;

    // The bookmark of the section at a place in the document (page index,
    // point in page space): the last one, in reading order, that leads to
    // it or before it; invalid when every bookmark leads after it.
    QModelIndex sectionAt(int pageIndex, QPointF point) const;
    // Marks one bookmark (ReadingRole, shown bold); an invalid index clears the mark.
    void setReading(const QModelIndex &index);
    QModelIndex reading() const { return indexOf(readingId_); }

    // Edits, each one undoable step of the document's history; they answer
    // whether it was made. A new bookmark goes to `row` of `parent`'s
    // children (-1: the end); its index is the answer.
    QModelIndex addBookmark(const QString &title, const std::shared_ptr<PdfPage> &page, std::optional<QPointF> point,
                            const QModelIndex &parent, int row);
    bool rename(const QModelIndex &index, const QString &title);
    bool remove(const QModelIndex &index);
    // `row` counts `parent`'s children as they are before the move.
    bool move(const QModelIndex &index, const QModelIndex &parent, int row);

    QModelIndex index(int row, int column, const QModelIndex &parent = QModelIndex()) const override;
    QModelIndex parent(const QModelIndex &child) const override;
    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    int columnCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex &index, const QVariant &value, int role = Qt::EditRole) override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    Qt::DropActions supportedDropActions() const override;
    QStringList mimeTypes() const override;
    QMimeData *mimeData(const QModelIndexList &indexes) const override;
    bool canDropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column,
                         const QModelIndex &parent) const override;
    bool dropMimeData(const QMimeData *data, Qt::DropAction action, int row, int column, const QModelIndex &parent) override;

private:
    void followDocument();
    void scheduleReload();
    const Node *nodeOf(const QModelIndex &index) const;
    QModelIndex indexOfNode(const Node *node) const;
    bool editable() const;

    DocumentModel *model_;
    std::shared_ptr<PdfDocument> document_;
    std::unique_ptr<Node> root_;
    // Every bookmark in reading order (page, then down the page, then
    // outline order), for sectionAt.
    std::vector<const Node *> readingOrder_;
    std::vector<QMetaObject::Connection> documentConnections_;
    int readingId_ = 0;
    bool reloadPending_ = false;
    bool active_ = true;
    bool stale_ = false;
};
