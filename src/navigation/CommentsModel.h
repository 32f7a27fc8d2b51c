// Every annotation of the document as a list, for reviewers: in page order
// (down each page), each with its kind, page, author, date and the first
// line of its contents, or, for a text markup without contents, the text it
// marks; replies follow what they answer, one level deeper. Links, form
// fields and popups are not listed. It follows the
// document of a DocumentModel: a change of a page's annotations reads that
// page again (one pass of the main loop later); a change of the page list
// reads them all. CommentsFilter narrows the list by kind and by author.
#pragma once

#include <QAbstractListModel>
#include <QDateTime>
#include <QSortFilterProxyModel>

#include <memory>
#include <optional>
#include <set>
#include <vector>

class DocumentModel;
class PdfAnnotation;
class PdfDocument;
class PdfPage;

class CommentsModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        KindRole = Qt::UserRole + 1, // the subtype name ("Highlight", "Text", ...)
        PageIndexRole,               // the index of its page
        AuthorRole,                  // QString, empty when unknown
        DateRole,                    // QDateTime, invalid when unknown
        DepthRole,                   // 0, or how deep a reply is in its thread
    };

    // A line longer than this is cut (at a word where it can be).
    static constexpr int longestLine = 120;

    explicit CommentsModel(DocumentModel *model, QObject *parent = nullptr);
    ~CommentsModel() override;

    std::shared_ptr<PdfDocument> document() const { return document_; }
    // Reads every page's annotations again now.
    void reload();
    // An inactive list (its panel hidden) reads nothing: it is empty, and
    // lists the document when it becomes active again.
    bool isActive() const { return active_; }
    void setActive(bool active);

    std::shared_ptr<PdfAnnotation> annotation(const QModelIndex &index) const;
    std::shared_ptr<PdfPage> page(const QModelIndex &index) const;
    QModelIndex indexOf(const std::shared_ptr<PdfAnnotation> &annotation) const;
    // The kinds and the authors listed, each once, sorted; an empty author
    // stands for the comments that name none.
    QStringList kinds() const;
    QStringList authors() const;

    // The first line of `text`, cut to longestLine characters.
    static QString firstLine(const QString &text);
    // Whether an annotation of this kind is listed.
    static bool isListed(const QString &kind);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

signals:
    // The kinds or authors listed may have changed.
    void contentsChanged();

private:
    struct Entry {
        std::shared_ptr<PdfAnnotation> annotation;
        std::shared_ptr<PdfPage> page;
        int pageIndex = -1;
        QString kind;
        QString author;
        QDateTime date;
        int depth = 0;
        // The first line; for a markup without contents read when first shown.
        mutable QString line;
        mutable bool lineRead = false;
    };

    void followDocument();
    void pageChanged(const std::shared_ptr<PdfPage> &page);
    void scheduleReload();
    void refreshPages();
    void refreshPage(const std::shared_ptr<PdfPage> &page);
    std::vector<Entry> entriesOf(const std::shared_ptr<PdfPage> &page, int pageIndex) const;
    static std::vector<Entry> threaded(std::vector<Entry> entries);
    const QString &lineOf(const Entry &entry) const;

    DocumentModel *model_;
    std::shared_ptr<PdfDocument> document_;
    std::vector<Entry> entries_;
    std::vector<QMetaObject::Connection> documentConnections_;
    // Pages announced as changed since the list was last brought up to date.
    std::vector<std::weak_ptr<PdfPage>> pendingPages_;
    bool refreshPending_ = false;
    bool reloadPending_ = false;
    bool active_ = true;
    // The list does not show the document as it is (it was inactive).
    bool stale_ = false;
};

// Keeps the rows of one kind (an empty one keeps all) and of one author
// (none keeps all; an empty one keeps the comments that name no author).
class CommentsFilter : public QSortFilterProxyModel {
    Q_OBJECT
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    QString kind() const { return kind_; }
    void setKind(const QString &kind);
    std::optional<QString> author() const { return author_; }
    void setAuthor(const std::optional<QString> &author);

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const override;

private:
    QString kind_;
    std::optional<QString> author_;
};
