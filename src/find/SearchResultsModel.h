// Every match of a search as one row, in document order, for the results
// list: its page number and a line of context with the match marked. Rows
// follow the search as it streams in; thousands of them stay cheap, since a
// row is worked out only when it is shown.
#pragma once

#include <QAbstractListModel>

#include <utility>
#include <vector>

class DocumentSearch;

class SearchResultsModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        PageNumberRole = Qt::UserRole + 1, // 1-based
        ContextRole,                       // the line of context
        HitFromRole,                       // where the match lies in it
        HitLengthRole,
    };

    explicit SearchResultsModel(DocumentSearch *search, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;

    // The row of results() and the match in it that a row shows, and back.
    std::pair<int, int> locate(int row) const;
    int rowOf(int resultRow, int match) const;

private:
    void inserted(int resultRow);
    void changed(int resultRow);
    void removed(int resultRow);
    void cleared();
    void recount();

    DocumentSearch *search_;
    // Matches per row of results(), and the first row of each.
    std::vector<int> counts_;
    std::vector<int> starts_;
    int total_ = 0;
};
