// Every annotation of the document as a list, for reviewers: in page order
// (down each page), each with its kind, page, author, date and the first
// line of its contents, or, for a text markup without contents, the text it
// marks. Links, form fields and popups are not listed. It follows the
// document of a DocumentModel: a change of a page's annotations reads that
// page again (one pass of the main loop later); a change of the page list
// reads them all. CommentsFilter narrows the list by kind and by author.
#pragma once

#include <QAbstractListModel>
#include <QDateTime>
#include <QSortFilterProxyModel>

#include <memory>
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
    };

    // A line longer than this is cut (at a word where it can be).
    static constexpr int longestLine = 120;

    explicit CommentsModel(DocumentModel *model, QObject *parent = nullptr);
    ~CommentsModel() override;

    std::shared_ptr<PdfDocument> document() const { return document_; }
    // Reads every page's annotations again now.
    void reload();

    std::shared_ptr<PdfAnnotation> annotation(const QModelIndex &index) const;
    std::shared_ptr<PdfPage> page(const QModelIndex &index) const;
    QModelIndex indexOf(const std::shared_ptr<PdfAnnotation> &annotation) const;
    // The kinds and the authors listed, each once, sorted.
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
    const QString &lineOf(const Entry &entry) const;

    DocumentModel *model_;
    std::shared_ptr<PdfDocument> document_;
    std::vector<Entry> entries_;
    std::vector<QMetaObject::Connection> documentConnections_;
    // Pages announced as changed since the list was last brought up to date.
    std::vector<std::weak_ptr<PdfPage>> pendingPages_;
    bool refreshPending_ = false;
    bool reloadPending_ = false;
};

// Keeps the rows of one kind and of one author; an empty one keeps all.
class CommentsFilter : public QSortFilterProxyModel {
    Q_OBJECT
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    QString kind() const { return kind_; }
    void setKind(const QString &kind);
    QString author() const { return author_; }
    void setAuthor(const QString &author);

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex &sourceParent) const override;

private:
    QString kind_;
    QString author_;
};
