// The find bar above the pages: a search field, previous and next, the
// count of matches and the Match Case and Whole Words options. It searches
// as the user types (after a short pause), shows the first match near the
// current page as soon as it is found, marks every match on the pages shown
// (the current one stronger) and keeps the results list in step. Escape
// closes it and takes the marks away.
#pragma once

#include "PdfPageDecoration.h"
#include "PdfSearchText.h"

#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <memory>

class DocumentSearch;
class PdfDocument;
class PdfPage;
class PdfView;
class QCheckBox;
class QLabel;
class QLineEdit;
class QPropertyAnimation;
class QToolButton;
class SearchResultsModel;

class FindBar : public QWidget, public PdfPageDecoration {
    Q_OBJECT
public:
    // Pause after a keystroke before the search starts.
    static constexpr int typingPauseMs = 200;

    explicit FindBar(PdfView *view, QWidget *parent = nullptr);
    ~FindBar() override;

    // The document searched (the view's); a locked one disables the bar.
    void setDocument(std::shared_ptr<PdfDocument> document);

    DocumentSearch *search() const { return search_; }
    SearchResultsModel *resultsModel() const { return results_; }
    QLineEdit *field() const { return field_; }
    QCheckBox *matchCaseBox() const { return matchCase_; }
    QCheckBox *wholeWordsBox() const { return wholeWords_; }
    // What the bar says: the count ("12 of 340", "No matches", "Searching…
    // 120 so far") and the note after wrapping around.
    QString countText() const;
    QString noteText() const;
    // The row of the results list the current match is on, or -1.
    int currentRow() const;
    // The current match's quads, once they were read.
    std::vector<PdfSearchText::Quad> currentQuads() const;
    std::shared_ptr<PdfPage> currentPage() const { return current_.page.lock(); }
    bool isOpen() const { return open_; }

    void paintPage(QPainter &painter, const std::shared_ptr<PdfPage> &page, const QTransform &pageToView) override;

public slots:
    // Slides the bar in (or focuses it) with the field's text selected.
    void open();
    // Slides it out, cancels the search and removes the marks.
    void close();
    // Searches for the field's text now.
    void searchNow();
    void findNext();
    void findPrevious();
    // Goes to the match shown on a row of the results list.
    void goToRow(int row);

signals:
    void openChanged(bool open);
    // The current match moved (to a row of the results list, or none).
    void currentRowChanged(int row);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    struct Current {
        std::weak_ptr<PdfPage> page;
        int from = -1; // where the match starts in the page's text
    };

    void step(int direction);
    void select(int resultRow, int match, bool reveal);
    void reveal();
    void resultArrived(int resultRow);
    void resultChanged(int resultRow);
    void updateCount();
    void setNote(const QString &note);
    // The current match as a row of results() and a match in it, or {-1, -1}.
    std::pair<int, int> locateCurrent() const;
    void animateTo(int height);

    QPointer<PdfView> view_;
    DocumentSearch *search_;
    SearchResultsModel *results_;
    QLineEdit *field_;
    QToolButton *previous_;
    QToolButton *next_;
    QCheckBox *matchCase_;
    QCheckBox *wholeWords_;
    QLabel *count_;
    QLabel *note_;
    QToolButton *closeButton_;
    QPropertyAnimation *slide_;
    QTimer typingPause_;
    QTimer noteTimer_;
    Current current_;
    // The user asked for this search: its first match is gone to.
    bool jumpToFirst_ = false;
    // The current match is to be scrolled to once its quads are known.
    bool revealPending_ = false;
    bool open_ = false;
};
