// The application's window: the thumbnail sidebar's place beside the document
// area (the page view under a hint banner, or the empty-state panel), the
// toolbar, the command menus, file drops, the sheets and the error alert.
#pragma once

#include "PasswordSheet.h"

#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>

#include <functional>

class AnnotationToolbarItems;
class BookmarksView;
class CommandMenu;
class CommentsView;
class DocumentModel;
class FindBar;
class FormFieldsLayer;
class PageZoomFields;
class PagesMenu;
class PasswordSheet;
class PdfViewBridge;
class QAction;
class QLabel;
class QMessageBox;
class QMimeData;
class QPushButton;
class QStackedWidget;
class QTabWidget;
class SearchResultsView;
class ThumbnailSidebarView;
class ToolSettings;

class ContentView : public QMainWindow {
    Q_OBJECT
public:
    static constexpr int minimumWidth = 700;
    static constexpr int minimumHeight = 480;

    ContentView(DocumentModel *model, std::function<void()> newWindow = {}, QWidget *parent = nullptr);
    ~ContentView() override;

    // Closes every window of the model without asking about unsaved changes
    // (the caller has settled them).
    static void closeWindowsOf(DocumentModel *model);

    ToolSettings *toolSettings() const { return toolSettings_; }
    CommandMenu *commands() const { return commands_; }
    PdfViewBridge *bridge() const { return bridge_; }

    // Which dialog is open; the page and signature dialogs fill these places.
    bool showMergeSheet() const { return showMergeSheet_; }
    void setShowMergeSheet(bool show);
    bool showSplitSheet() const { return showSplitSheet_; }
    void setShowSplitSheet(bool show);
    bool showInsertSheet() const { return showInsertSheet_; }
    void setShowInsertSheet(bool show);
    bool showExtractSheet() const { return showExtractSheet_; }
    void setShowExtractSheet(bool show);
    bool showSignatureSheet() const { return showSignatureSheet_; }
    void setShowSignatureSheet(bool show);

    // Opens the first dropped file if it is a PDF; true when a file was among
    // the dropped items (the drop is accepted even when it is not a PDF).
    bool handleDrop(const QMimeData *data);

    // The places other parts of the window fill in.
    QWidget *sidebarPlace() const { return sidebar_; }
    QWidget *toolGroupPlace() const { return toolGroup_; }
    AnnotationToolbarItems *annotationToolbarItems() const { return annotationItems_; }
    QWidget *pagesMenuPlace() const { return pagesMenu_; }
    ThumbnailSidebarView *thumbnailSidebar() const { return thumbnailSidebar_; }
    FindBar *findBar() const { return findBar_; }
    PageZoomFields *pageZoomFields() const { return pageZoom_; }
    SearchResultsView *resultsView() const { return resultsView_; }
    QTabWidget *sidebarTabs() const { return sidebarTabs_; }
    BookmarksView *bookmarksView() const { return bookmarks_; }
    CommentsView *commentsView() const { return comments_; }
    PagesMenu *pagesMenu() const { return pagesMenuButton_; }

    // For tests and accessibility: the pieces as they stand.
    QAction *toolbarOpen() const { return tbOpen_; }
    QAction *toolbarSave() const { return tbSave_; }
    QAction *toolbarUndo() const { return tbUndo_; }
    QAction *toolbarRedo() const { return tbRedo_; }
    QAction *toolbarSaveAs() const { return tbSaveAs_; }
    bool showsEmptyState() const;
    QString bannerText() const;
    QPushButton *bannerCancelButton() const { return bannerCancel_; }
    QPushButton *bannerEditAnywayButton() const { return bannerEditAnyway_; }
    QPushButton *bannerHighlightFieldsButton() const { return bannerHighlight_; }
    FormFieldsLayer *formFields() const { return formFields_; }
    QMessageBox *errorAlert() const { return alert_; }
    PasswordSheet *passwordSheet() const { return passwordSheet_; }
    // The page and signature dialogs on show, or none.
    QDialog *mergeSheet() const { return mergeSheet_; }
    QDialog *splitSheet() const { return splitSheet_; }
    QDialog *insertSheet() const { return insertSheet_; }
    QDialog *extractSheet() const { return extractSheet_; }
    QDialog *signatureSheet() const { return signatureSheet_; }

signals:
    // The window is on screen for the first time, painted.
    void firstShown();
    void sheetFlagsChanged();

protected:
    void showEvent(QShowEvent *event) override;
    void closeEvent(QCloseEvent *event) override;
    void dragEnterEvent(QDragEnterEvent *event) override;
    void dropEvent(QDropEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void buildToolbar();
    QWidget *buildEmptyState();
    QWidget *buildBanner();
    void updateTitle();
    void updateDocumentArea();
    void updateBanner();
    void updateErrorAlert();
    void updatePasswordSheet();
    void updateSheets();
    void presentSheet(bool wanted, QPointer<QDialog> &sheet, const std::function<QDialog *()> &make,
                      void (ContentView::*setFlag)(bool));
    void placeBanner();
    void buildFind();
    void buildSidebarSwitcher();
    void addPanel(QWidget *panel, const QString &icon, const QString &name);
    // True when no other window shows the model: closing this one ends the document.
    bool isLastWindow() const;

    DocumentModel *model_;
    ToolSettings *toolSettings_;
    CommandMenu *commands_ = nullptr;
    PdfViewBridge *bridge_ = nullptr;
    QWidget *sidebar_ = nullptr;
    QWidget *toolGroup_ = nullptr;
    AnnotationToolbarItems *annotationItems_ = nullptr;
    QWidget *pagesMenu_ = nullptr;
    QStackedWidget *documentArea_ = nullptr;
    QWidget *documentPane_ = nullptr;
    QWidget *emptyState_ = nullptr;
    QWidget *banner_ = nullptr;
    QLabel *bannerIcon_ = nullptr;
    QLabel *bannerLabel_ = nullptr;
    QPushButton *bannerCancel_ = nullptr;
    QPushButton *bannerEditAnyway_ = nullptr;
    QPushButton *bannerHighlight_ = nullptr;
    FormFieldsLayer *formFields_ = nullptr;
    QAction *tbOpen_ = nullptr;
    QAction *tbSave_ = nullptr;
    QAction *tbUndo_ = nullptr;
    QAction *tbRedo_ = nullptr;
    QAction *tbSaveAs_ = nullptr;
    QPointer<QMessageBox> alert_;
    QPointer<PasswordSheet> passwordSheet_;
    ThumbnailSidebarView *thumbnailSidebar_ = nullptr;
    QTabWidget *sidebarTabs_ = nullptr;
    FindBar *findBar_ = nullptr;
    QWidget *pageZoomPlace_ = nullptr;
    PageZoomFields *pageZoom_ = nullptr;
    SearchResultsView *resultsView_ = nullptr;
    BookmarksView *bookmarks_ = nullptr;
    CommentsView *comments_ = nullptr;
    PagesMenu *pagesMenuButton_ = nullptr;
    QPointer<QDialog> mergeSheet_;
    QPointer<QDialog> splitSheet_;
    QPointer<QDialog> insertSheet_;
    QPointer<QDialog> extractSheet_;
    QPointer<QDialog> signatureSheet_;
    bool shown_ = false;
    bool askOnClose_ = true;
    bool showMergeSheet_ = false;
    bool showSplitSheet_ = false;
    bool showInsertSheet_ = false;
    bool showExtractSheet_ = false;
    bool showSignatureSheet_ = false;
};
