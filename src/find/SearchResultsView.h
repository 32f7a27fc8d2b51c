// The "Results" list: each match with its page number above a line of
// context in which the match is bold. Activating a row (click, Enter) asks
// to go to that match.
#pragma once

#include <QListView>

class SearchResultsModel;

class SearchResultsView : public QListView {
    Q_OBJECT
public:
    explicit SearchResultsView(SearchResultsModel *model, QWidget *parent = nullptr);

signals:
    void rowActivated(int row);
};
