#include "SearchResultsModel.h"

#include "DocumentSearch.h"
#include "PdfPage.h"

#include <algorithm>

SearchResultsModel::SearchResultsModel(DocumentSearch *search, QObject *parent) : QAbstractListModel(parent), search_(search)
{
    connect(search_, &DocumentSearch::resultInserted, this, &SearchResultsModel::inserted);
    connect(search_, &DocumentSearch::resultChanged, this, &SearchResultsModel::changed);
    connect(search_, &DocumentSearch::resultRemoved, this, &SearchResultsModel::removed);
    connect(search_, &DocumentSearch::resultsCleared, this, &SearchResultsModel::cleared);
    for (size_t i = 0; i < search_->results().size(); ++i)
        counts_.push_back(int(search_->results()[i].matches.size()));
    recount();
}

int SearchResultsModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : total_;
}

std::pair<int, int> SearchResultsModel::locate(int row) const
{
    if (row < 0 || row >= total_)
        return {-1, -1};
    const auto it = std::upper_bound(starts_.begin(), starts_.end(), row);
    const int result = int(it - starts_.begin()) - 1;
    return {result, row - starts_[size_t(result)]};
}

int SearchResultsModel::rowOf(int resultRow, int match) const
{
    if (resultRow < 0 || resultRow >= int(starts_.size()) || match < 0 || match >= counts_[size_t(resultRow)])
        return -1;
    return starts_[size_t(resultRow)] + match;
}

QVariant SearchResultsModel::data(const QModelIndex &index, int role) const
{
    const auto [result, match] = locate(index.row());
    if (result < 0 || result >= int(search_->results().size()))
        return {};
    const auto &hits = search_->results()[size_t(result)];
    if (match >= int(hits.matches.size()))
        return {};
    if (role == PageNumberRole)
        return hits.page->index() + 1;
    if (role != Qt::DisplayRole && role != Qt::AccessibleTextRole && role != ContextRole && role != HitFromRole &&
        role != HitLengthRole)
        return {};
    const auto context = hits.text->context(hits.matches[size_t(match)]);
    switch (role) {
    case ContextRole: return context.text;
    case HitFromRole: return context.hitFrom;
    case HitLengthRole: return context.hitLength;
    default: return tr("Page %1: %2").arg(hits.page->index() + 1).arg(context.text);
    }
}

void SearchResultsModel::inserted(int resultRow)
{
    const int count = int(search_->results()[size_t(resultRow)].matches.size());
    const int first = resultRow < int(starts_.size()) ? starts_[size_t(resultRow)] : total_;
    beginInsertRows(QModelIndex(), first, first + count - 1);
    counts_.insert(counts_.begin() + resultRow, count);
    recount();
    endInsertRows();
}

void SearchResultsModel::changed(int resultRow)
{
    const int count = int(search_->results()[size_t(resultRow)].matches.size());
    const int first = starts_[size_t(resultRow)];
    const int before = counts_[size_t(resultRow)];
    if (count != before) {
        removed(resultRow);
        counts_.insert(counts_.begin() + resultRow, 0);
        recount();
        beginInsertRows(QModelIndex(), first, first + count - 1);
        counts_[size_t(resultRow)] = count;
        recount();
        endInsertRows();
        return;
    }
    emit dataChanged(index(first), index(first + count - 1));
}

void SearchResultsModel::removed(int resultRow)
{
    const int first = starts_[size_t(resultRow)];
    beginRemoveRows(QModelIndex(), first, first + counts_[size_t(resultRow)] - 1);
    counts_.erase(counts_.begin() + resultRow);
    recount();
    endRemoveRows();
}

void SearchResultsModel::cleared()
{
    beginResetModel();
    counts_.clear();
    recount();
    endResetModel();
}

void SearchResultsModel::recount()
{
    starts_.resize(counts_.size());
    total_ = 0;
    for (size_t i = 0; i < counts_.size(); ++i) {
        starts_[i] = total_;
        total_ += counts_[i];
    }
}
