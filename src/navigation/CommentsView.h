// The Comments panel: every annotation of the document as a list, narrowed
// by the Kind and Author boxes above it. A click selects the annotation in
// the document and shows it in the page view; Delete removes the chosen
// annotations (each one undoable step); the list's selection follows the
// annotation selected in the document.
#pragma once

#include <QWidget>

class CommentsFilter;
class CommentsModel;
class DocumentModel;
class PdfView;
class QComboBox;
class QListView;

class CommentsView : public QWidget {
    Q_OBJECT
public:
    CommentsView(DocumentModel *model, PdfView *view, QWidget *parent = nullptr);
    ~CommentsView() override;

    CommentsModel *commentsModel() const { return comments_; }
    CommentsFilter *filter() const { return filter_; }
    QListView *list() const { return list_; }
    QComboBox *kindBox() const { return kindBox_; }
    QComboBox *authorBox() const { return authorBox_; }

public slots:
    // Removes the annotations chosen in the list.
    void deleteSelected();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void goTo(const QModelIndex &index);
    void followSelectedAnnotation();
    void refillBoxes();

    DocumentModel *model_;
    PdfView *view_;
    CommentsModel *comments_;
    CommentsFilter *filter_;
    QComboBox *kindBox_;
    QComboBox *authorBox_;
    QListView *list_;
    bool following_ = false;
};
