// The Comments panel: every annotation of the document as a list, replies
// threaded under what they answer, narrowed by the Kind and Author boxes
// above it. A click selects the annotation in the document and shows it in
// the page view; Reply asks the window for a reply to it; Delete removes the
// chosen annotations and their replies (one undoable step); the list's
// selection follows the annotation selected in the document. It reads the
// document only while it is shown.
#pragma once

#include <QIcon>
#include <QWidget>

#include <functional>
#include <memory>

class CommentsFilter;
class CommentsModel;
class DocumentModel;
class PdfAnnotation;
class PdfView;
class QComboBox;
class QListView;
class QToolButton;

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
    QToolButton *replyButton() const { return replyButton_; }
    QToolButton *deleteButton() const { return deleteButton_; }

    // Where the panel's icons come from: an icon-theme name to an icon.
    void setIconSource(const std::function<QIcon(const QString &)> &source);
    // The icon-theme name of an annotation kind's icon.
    static QString iconName(const QString &kind);

signals:
    // The user asked to reply to this annotation.
    void replyRequested(const std::shared_ptr<PdfAnnotation> &annotation);

public slots:
    // Removes the annotations chosen in the list.
    void deleteSelected();
    // Asks for a reply to the annotation chosen in the list.
    void replyToSelected();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void goTo(const QModelIndex &index);
    void followSelectedAnnotation();
    void refillBoxes();
    void updateButtons();
    void showMenu(const QPoint &at);

    DocumentModel *model_;
    PdfView *view_;
    CommentsModel *comments_;
    CommentsFilter *filter_;
    QComboBox *kindBox_;
    QComboBox *authorBox_;
    QListView *list_;
    QToolButton *replyButton_;
    QToolButton *deleteButton_;
    bool following_ = false;
};
