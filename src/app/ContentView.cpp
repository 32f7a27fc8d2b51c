#include "ContentView.h"

#include "AnnotationToolbarItems.h"
#include "BookmarksView.h"
#include "CommandMenu.h"
#include "CommentsView.h"
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "ExtractPagesSheet.h"
#include "FindBar.h"
#include "FormFieldsLayer.h"
#include "Icons.h"
#include "InsertPagesSheet.h"
#include "MergeSheet.h"
#include "PageZoomFields.h"
#include "PagesMenu.h"
#include "PasswordSheet.h"
#include "PdfView.h"
#include "PdfViewBridge.h"
#include "PrintCommand.h"
#include "SearchResultsModel.h"
#include "SearchResultsView.h"
#include "SignatureSheet.h"
#include "SplitSheet.h"
#include "ThumbnailSidebarView.h"
#include "ToolSettings.h"

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QShortcut>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabBar>
#include <QTabWidget>
#include <QTimer>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWindow>

namespace {

QWidget *stretch()
{
    auto *spacer = new QWidget;
    spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    return spacer;
}

} // namespace

ContentView::ContentView(DocumentModel *model, std::function<void()> newWindow, QWidget *parent)
    : QMainWindow(parent), model_(model), toolSettings_(new ToolSettings(this))
{
    setMinimumSize(minimumWidth, minimumHeight);
    resize(1100, 800);
    setAcceptDrops(true);
    buildToolbar();

    sidebar_ = new QWidget;
    sidebar_->setMinimumWidth(140);
    // Wide enough to read bookmarks and comments when the user drags it wider.
    sidebar_->setMaximumWidth(420);
    auto *sidebarLayout = new QVBoxLayout(sidebar_);
    sidebarLayout->setContentsMargins(0, 0, 0, 0);
    thumbnailSidebar_ = new ThumbnailSidebarView(model_);
    sidebarTabs_ = new QTabWidget;
    sidebarTabs_->setDocumentMode(true);
    sidebarTabs_->setTabBarAutoHide(true);
    sidebarTabs_->setAccessibleName(tr("Sidebar"));
    addPanel(thumbnailSidebar_, "view-preview", tr("Thumbnails"));
    sidebarLayout->addWidget(sidebarTabs_);

    documentPane_ = new QWidget;
    auto *paneLayout = new QVBoxLayout(documentPane_);
    paneLayout->setContentsMargins(0, 0, 0, 0);
    paneLayout->setSpacing(0);
    bridge_ = new PdfViewBridge(model_, toolSettings_, documentPane_);
    findBar_ = new FindBar(bridge_->pdfView());
    findBar_->installEventFilter(this);
    paneLayout->addWidget(findBar_);
    paneLayout->addWidget(bridge_);
    // The fields of a form take clicks first, except while an annotation tool works.
    formFields_ = new FormFieldsLayer(model_, bridge_->pdfView());
    auto suspendFields = [this] {
        formFields_->setSuspended(toolSettings_->currentTool() != AnnotationTool::none ||
                                  !model_->pendingSignatureImage().isNull());
    };
    connect(toolSettings_, &ToolSettings::currentToolChanged, formFields_, suspendFields);
    connect(model_, &DocumentModel::pendingSignatureImageChanged, formFields_, suspendFields);
    banner_ = buildBanner();
    banner_->setParent(documentPane_);
    documentPane_->installEventFilter(this);

    emptyState_ = buildEmptyState();
    documentArea_ = new QStackedWidget;
    documentArea_->addWidget(emptyState_);
    documentArea_->addWidget(documentPane_);

    auto *split = new QSplitter(Qt::Horizontal);
    split->addWidget(sidebar_);
    split->addWidget(documentArea_);
    split->setStretchFactor(1, 1);
    split->setSizes({170, 930});
    setCentralWidget(split);

    commands_ = new CommandMenu(model_, this, std::move(newWindow), bridge_->pdfView());
    buildFind();
    buildSidebarSwitcher();
    pageZoom_ = new PageZoomFields(bridge_->pdfView());
    pageZoomPlace_->layout()->addWidget(pageZoom_);
    connect(commands_->goToPage, &QAction::triggered, pageZoom_, &PageZoomFields::focusPage);
    connect(commands_->print, &QAction::triggered, new PrintCommand(model_, bridge_->pdfView(), this), &PrintCommand::run);
    annotationItems_->setPdfView(bridge_->pdfView());
    // Escape drops a waiting signature wherever the keyboard focus is.
    auto *cancelSignature = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    cancelSignature->setEnabled(false);
    connect(cancelSignature, &QShortcut::activated, this, [this] { model_->setPendingSignatureImage({}); });
    connect(model_, &DocumentModel::pendingSignatureImageChanged, cancelSignature,
            [this, cancelSignature] { cancelSignature->setEnabled(!model_->pendingSignatureImage().isNull()); });
    // The toolbar buttons do what the menu commands do, under the same rules.
    auto mirror = [](QAction *button, QAction *command) {
        connect(button, &QAction::triggered, command, &QAction::trigger);
        connect(command, &QAction::enabledChanged, button, &QAction::setEnabled);
        button->setEnabled(command->isEnabled());
    };
    mirror(tbOpen_, commands_->open);
    mirror(tbSave_, commands_->save);
    mirror(tbUndo_, commands_->undo);
    mirror(tbRedo_, commands_->redo);
    mirror(tbSaveAs_, commands_->saveAs);

    connect(model_, &DocumentModel::isDirtyChanged, this, &ContentView::updateTitle);
    connect(model_, &DocumentModel::fileURLChanged, this, &ContentView::updateTitle);
    connect(model_, &DocumentModel::pdfDocumentChanged, this, &ContentView::updateDocumentArea);
    connect(model_, &DocumentModel::pendingSignatureImageChanged, this, &ContentView::updateBanner);
    connect(toolSettings_, &ToolSettings::currentToolChanged, this, &ContentView::updateBanner);
    for (auto signal :
         {&DocumentModel::pdfDocumentChanged, &DocumentModel::changesRestrictedChanged, &DocumentModel::keepsSignaturesChanged,
          &DocumentModel::retypedTextChanged, &DocumentModel::coveredLineChanged})
        connect(model_, signal, this, &ContentView::updateBanner);
    connect(model_, &DocumentModel::errorMessageChanged, this, &ContentView::updateErrorAlert);
    connect(model_, &DocumentModel::lockedURLChanged, this, &ContentView::updatePasswordSheet);
    connect(formFields_, &FormFieldsLayer::fieldsChanged, this, &ContentView::updateBanner);
    connect(this, &ContentView::sheetFlagsChanged, this, &ContentView::updateSheets);
    updateTitle();
    updateDocumentArea();
    updateBanner();
}

ContentView::~ContentView() = default;

void ContentView::buildToolbar()
{
    QToolBar *bar = addToolBar(tr("Toolbar"));
    bar->setObjectName("mainToolbar");
    bar->setMovable(false);
    bar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    auto make = [&](const QString &title, const QString &icon, const QString &help) {
        QAction *action = new QAction(Icons::get(icon), title, this);
        action->setToolTip(help);
        action->setStatusTip(help);
        bar->addAction(action);
        return action;
    };
    tbOpen_ = make(tr("Open"), "document-open", tr("Open a PDF"));
    tbSave_ = make(tr("Save"), "document-save", tr("Save"));
    // The page and zoom fields, made with the page view.
    pageZoomPlace_ = new QWidget;
    pageZoomPlace_->setLayout(new QHBoxLayout);
    pageZoomPlace_->layout()->setContentsMargins(8, 0, 0, 0);
    bar->addWidget(pageZoomPlace_);
    bar->addWidget(stretch());
    toolGroup_ = new QWidget;
    toolGroup_->setLayout(new QHBoxLayout);
    toolGroup_->layout()->setContentsMargins(0, 0, 0, 0);
    annotationItems_ = new AnnotationToolbarItems(
        model_, toolSettings_, [this] { setShowSignatureSheet(true); }, &Icons::get);
    toolGroup_->layout()->addWidget(annotationItems_);
    bar->addWidget(toolGroup_);
    bar->addWidget(stretch());
    tbUndo_ = make(tr("Undo"), "edit-undo", tr("Undo"));
    tbRedo_ = make(tr("Redo"), "edit-redo", tr("Redo"));
    // Their icons say what they do; the room goes to the page and zoom fields.
    for (QAction *action : {tbUndo_, tbRedo_})
        if (auto *button = qobject_cast<QToolButton *>(bar->widgetForAction(action)))
            button->setToolButtonStyle(Qt::ToolButtonIconOnly);
    pagesMenu_ = new QWidget;
    pagesMenu_->setLayout(new QHBoxLayout);
    pagesMenu_->layout()->setContentsMargins(0, 0, 0, 0);
    pagesMenuButton_ = new PagesMenu(
        model_, {[this](bool show) { setShowMergeSheet(show); }, [this](bool show) { setShowSplitSheet(show); },
                 [this](bool show) { setShowInsertSheet(show); }, [this](bool show) { setShowExtractSheet(show); }});
    pagesMenuButton_->setIcon(Icons::get("edit-copy"));
    pagesMenu_->layout()->addWidget(pagesMenuButton_);
    bar->addWidget(pagesMenu_);
    tbSaveAs_ = make(tr("Save As"), "document-save-as", tr("Save As…"));
}

QWidget *ContentView::buildEmptyState()
{
    auto *panel = new QWidget;
    panel->setAcceptDrops(true);
    auto *icon = new QLabel;
    icon->setPixmap(Icons::get("x-office-document").pixmap(44, 44));
    icon->setEnabled(false);
    auto *title = new QLabel(tr("No PDF Open"));
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.6);
    titleFont.setBold(true);
    title->setFont(titleFont);
    auto *hint = new QLabel(tr("Drop a PDF here, or use Open."));
    hint->setEnabled(false);
    auto *open = new QPushButton(tr("Open PDF…"));
    open->setDefault(true);
    QPalette accent = open->palette();
    accent.setColor(QPalette::Button, accent.color(QPalette::Highlight));
    accent.setColor(QPalette::ButtonText, accent.color(QPalette::HighlightedText));
    open->setPalette(accent);
    auto *merge = new QPushButton(tr("Merge PDFs…"));
    connect(open, &QPushButton::clicked, model_, &DocumentModel::promptOpen);
    connect(merge, &QPushButton::clicked, this, [this] { setShowMergeSheet(true); });

    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(10);
    buttons->addWidget(open);
    buttons->addWidget(merge);
    auto *column = new QVBoxLayout;
    column->setSpacing(12);
    column->addWidget(icon, 0, Qt::AlignHCenter);
    column->addWidget(title, 0, Qt::AlignHCenter);
    column->addWidget(hint, 0, Qt::AlignHCenter);
    column->addSpacing(4);
    column->addLayout(buttons);
    auto *layout = new QVBoxLayout(panel);
    layout->addStretch(1);
    layout->addLayout(column);
    layout->setAlignment(column, Qt::AlignHCenter);
    layout->addStretch(1);
    return panel;
}

QWidget *ContentView::buildBanner()
{
    auto *banner = new QFrame;
    banner->setAutoFillBackground(true);
    QPalette translucent = banner->palette();
    QColor background = translucent.color(QPalette::Window);
    background.setAlpha(225);
    translucent.setColor(QPalette::Window, background);
    banner->setPalette(translucent);
    bannerIcon_ = new QLabel;
    bannerLabel_ = new QLabel;
    bannerLabel_->setWordWrap(true);
    bannerCancel_ = new QPushButton(tr("Cancel"));
    bannerCancel_->setFlat(true);
    bannerCancel_->setAccessibleName(bannerCancel_->text());
    connect(bannerCancel_, &QPushButton::clicked, this, [this] { model_->setPendingSignatureImage({}); });
    bannerEditAnyway_ = new QPushButton(tr("Edit Anyway"));
    bannerEditAnyway_->setFlat(true);
    bannerEditAnyway_->setAccessibleName(bannerEditAnyway_->text());
    bannerEditAnyway_->setToolTip(tr("Turn on the editing tools for this document"));
    connect(bannerEditAnyway_, &QPushButton::clicked, this, [this] { model_->setChangesRestricted(false); });
    bannerHighlight_ = new QPushButton(tr("Highlight Fields"));
    bannerHighlight_->setFlat(true);
    bannerHighlight_->setCheckable(true);
    bannerHighlight_->setChecked(true);
    bannerHighlight_->setAccessibleName(bannerHighlight_->text());
    bannerHighlight_->setToolTip(tr("Tint the fields you can fill in"));
    connect(bannerHighlight_, &QPushButton::toggled, this, [this](bool on) { formFields_->setHighlightsFields(on); });
    auto *row = new QHBoxLayout(banner);
    row->setContentsMargins(8, 8, 8, 8);
    row->addWidget(bannerIcon_);
    row->addWidget(bannerLabel_, 1);
    row->addWidget(bannerCancel_);
    row->addWidget(bannerEditAnyway_);
    row->addWidget(bannerHighlight_);
    return banner;
}

void ContentView::updateTitle()
{
    setWindowTitle(model_->displayName() + (model_->isDirty() ? tr(" — Edited") : QString()));
}

void ContentView::updateDocumentArea()
{
    documentArea_->setCurrentWidget(model_->pdfDocument() ? documentPane_ : emptyState_);
}

bool ContentView::showsEmptyState() const
{
    return documentArea_->currentWidget() == emptyState_;
}

QString ContentView::bannerText() const
{
    return banner_->isHidden() ? QString() : bannerLabel_->text();
}

// One banner at a time: what the current tool needs to say comes before
// what is true of the document.
void ContentView::updateBanner()
{
    const bool document = model_->pdfDocument() != nullptr;
    QString icon, text;
    bool cancel = false, editAnyway = false, highlight = false;
    if (!model_->pendingSignatureImage().isNull()) {
        icon = "document-sign";
        text = tr("Click to drop your signature — then drag to move, drag a corner to resize. Esc to cancel.");
        cancel = true;
    } else if (document && model_->coveredLine()) {
        icon = "dialog-information";
        text = tr("This line is covered, not replaced: its old text stays in the file");
    } else if (toolSettings_->currentTool() == AnnotationTool::editText) {
        icon = "edit-rename";
        text = tr("Click text to edit it in place, or empty space to add text.");
    } else if (document && model_->changesRestricted()) {
        icon = "document-encrypted";
        text = tr("The author of this document restricted changes.");
        editAnyway = true;
    } else if (document && model_->keepsSignatures()) {
        icon = "document-sign";
        text = tr("This document is signed. Changes you save are added after the signatures, which stay valid.");
        if (model_->retypedText())
            text += QLatin1Char(' ') + tr("Its signed revision still holds the old text of the lines you retyped.");
    } else if (document && formFields_->hasFields()) {
        icon = "edit-rename";
        text = tr("This document has fields you can fill in.");
        if (formFields_->hasScriptsNotRun())
            text += QLatin1Char(' ') + tr("Its scripts are not run here, so checks or sums they make beyond the common "
                                          "formats and totals do not happen.");
        highlight = true;
    }
    bannerLabel_->setText(text);
    banner_->setAccessibleName(text.isEmpty() ? QString() : tr("Notice"));
    banner_->setAccessibleDescription(text);
    banner_->setVisible(!text.isEmpty());
    if (!text.isEmpty())
        bannerIcon_->setPixmap(Icons::get(icon).pixmap(16, 16));
    bannerCancel_->setVisible(cancel);
    bannerEditAnyway_->setVisible(editAnyway);
    bannerHighlight_->setVisible(highlight);
    placeBanner();
}

// The banner lies over the top of the page view (below the find bar), the full width.
void ContentView::placeBanner()
{
    const int height = banner_->heightForWidth(documentPane_->width());
    const int top = findBar_->isVisible() ? findBar_->height() : 0;
    banner_->setGeometry(0, top, documentPane_->width(), height > 0 ? height : banner_->sizeHint().height());
    banner_->raise();
}

// A panel of the sidebar: a tab that shows its icon, with its name for
// tooltips and screen readers (the sidebar is too narrow for words).
void ContentView::addPanel(QWidget *panel, const QString &icon, const QString &name)
{
    const int index = sidebarTabs_->addTab(panel, Icons::get(icon), QString());
    sidebarTabs_->setTabToolTip(index, name);
    sidebarTabs_->tabBar()->setAccessibleTabName(index, name);
}

// The sidebar's panels, one tab each (View > Thumbnails, Bookmarks, Comments; Ctrl+1..3).
void ContentView::buildSidebarSwitcher()
{
    bookmarks_ = new BookmarksView(model_, bridge_->pdfView());
    addPanel(bookmarks_, "bookmarks", tr("Bookmarks"));
    comments_ = new CommentsView(model_, bridge_->pdfView());
    comments_->setIconSource(&Icons::get);
    connect(comments_, &CommentsView::replyRequested, bridge_->overlay(), &DrawingOverlayView::beginReply);
    addPanel(comments_, "comments", tr("Comments"));
    sidebarTabs_->setTabBarAutoHide(false);
    connect(commands_->showThumbnails, &QAction::triggered, this, [this] { sidebarTabs_->setCurrentIndex(0); });
    connect(commands_->showBookmarks, &QAction::triggered, this, [this] { sidebarTabs_->setCurrentWidget(bookmarks_); });
    connect(commands_->showComments, &QAction::triggered, this, [this] { sidebarTabs_->setCurrentWidget(comments_); });
    connect(commands_->addBookmark, &QAction::triggered, this, [this] {
        sidebarTabs_->setCurrentWidget(bookmarks_);
        bookmarks_->addBookmarkAction()->trigger();
    });
    auto follow = [this] { commands_->addBookmark->setEnabled(bookmarks_->addBookmarkAction()->isEnabled()); };
    connect(bookmarks_->addBookmarkAction(), &QAction::changed, this, follow);
    follow();
}

// Edit > Find… opens the bar above the pages; while it is open, its results
// are a tab of the sidebar beside the thumbnails.
void ContentView::buildFind()
{
    // Owned by the sidebar while it is not one of its tabs.
    resultsView_ = new SearchResultsView(findBar_->resultsModel(), sidebar_);
    resultsView_->hide();
    connect(commands_->find, &QAction::triggered, findBar_, &FindBar::open);
    connect(commands_->findNext, &QAction::triggered, findBar_, &FindBar::findNext);
    connect(commands_->findPrevious, &QAction::triggered, findBar_, &FindBar::findPrevious);
    connect(resultsView_, &SearchResultsView::rowActivated, findBar_, &FindBar::goToRow);
    connect(findBar_, &FindBar::currentRowChanged, resultsView_, [this](int row) {
        const QModelIndex index = findBar_->resultsModel()->index(row);
        resultsView_->setCurrentIndex(index);
        if (index.isValid())
            resultsView_->scrollTo(index);
    });
    connect(findBar_, &FindBar::openChanged, this, [this](bool open) {
        if (open && sidebarTabs_->indexOf(resultsView_) < 0) {
            addPanel(resultsView_, "edit-find", tr("Results"));
            sidebarTabs_->setCurrentWidget(resultsView_);
        } else if (!open) {
            sidebarTabs_->removeTab(sidebarTabs_->indexOf(resultsView_));
        }
    });
    auto follow = [this] { findBar_->setDocument(model_->pdfDocument()); };
    connect(model_, &DocumentModel::pdfDocumentChanged, findBar_, follow);
    follow();
}

bool ContentView::eventFilter(QObject *watched, QEvent *event)
{
    if ((watched == documentPane_ && event->type() == QEvent::Resize) ||
        (watched == findBar_ && (event->type() == QEvent::Resize || event->type() == QEvent::Hide)))
        placeBanner();
    // Announced a turn after the first exposure, once the window is painted, so
    // that whatever runs then (reading a large file) happens in front of it.
    if (watched == windowHandle() && event->type() == QEvent::Expose && windowHandle()->isExposed()) {
        windowHandle()->removeEventFilter(this);
        QTimer::singleShot(0, this, &ContentView::firstShown);
    }
    return QMainWindow::eventFilter(watched, event);
}

void ContentView::updateErrorAlert()
{
    const QString message = model_->errorMessage();
    if (message.isEmpty()) {
        if (alert_)
            alert_->done(QMessageBox::Ok);
        return;
    }
    if (alert_) {
        alert_->setText(message);
        return;
    }
    // Over the sheet this window shows, if any, so that both stay usable.
    QWidget *owner = this;
    for (QWidget *w = QApplication::activeModalWidget(); w; w = w->parentWidget())
        if (w->parentWidget() == this) {
            owner = QApplication::activeModalWidget();
            break;
        }
    alert_ = new QMessageBox(QMessageBox::Warning, tr("Couldn't finish that"), message, QMessageBox::NoButton, owner);
    alert_->addButton(tr("OK"), QMessageBox::RejectRole);
    alert_->setWindowModality(Qt::WindowModal);
    alert_->setAttribute(Qt::WA_DeleteOnClose);
    // The keys go back to what the alert covered (the password field, for
    // another try), also where the window system does not hand them back.
    connect(alert_, &QMessageBox::finished, this, [this, owner = QPointer<QWidget>(owner)] {
        alert_ = nullptr;
        if (owner)
            owner->activateWindow();
        if (!model_->errorMessage().isEmpty())
            model_->setErrorMessage({});
    });
    alert_->open();
}

void ContentView::updatePasswordSheet()
{
    if (model_->lockedURL().isEmpty()) {
        if (passwordSheet_)
            passwordSheet_->done(QDialog::Accepted);
        return;
    }
    if (passwordSheet_)
        return;
    passwordSheet_ = new PasswordSheet(model_, this);
    passwordSheet_->setAttribute(Qt::WA_DeleteOnClose);
    passwordSheet_->open();
}

void ContentView::updateSheets()
{
    presentSheet(
        showMergeSheet_, mergeSheet_, [this] { return new MergeSheet(model_, this); }, &ContentView::setShowMergeSheet);
    presentSheet(
        showSplitSheet_, splitSheet_, [this] { return new SplitSheet(model_, this); }, &ContentView::setShowSplitSheet);
    presentSheet(
        showInsertSheet_, insertSheet_, [this] { return new InsertPagesSheet(model_, this); }, &ContentView::setShowInsertSheet);
    presentSheet(
        showExtractSheet_, extractSheet_, [this] { return new ExtractPagesSheet(model_, this); },
        &ContentView::setShowExtractSheet);
    presentSheet(
        showSignatureSheet_, signatureSheet_, [this] { return new SignatureSheet(model_, this); },
        &ContentView::setShowSignatureSheet);
}

// A sheet is made afresh each time its flag turns true, and its flag turns
// false when it closes; a flag cleared from outside closes the sheet.
void ContentView::presentSheet(bool wanted, QPointer<QDialog> &sheet, const std::function<QDialog *()> &make,
                               void (ContentView::*setFlag)(bool))
{
    if (wanted && !sheet) {
        QDialog *dialog = make();
        sheet = dialog;
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        connect(dialog, &QDialog::finished, this, [this, dialog, &sheet, setFlag] {
            if (sheet == dialog)
                sheet = nullptr;
            (this->*setFlag)(false);
        });
        dialog->open();
    } else if (!wanted && sheet) {
        QDialog *dialog = sheet;
        sheet = nullptr;
        dialog->reject();
    }
}

void ContentView::setShowMergeSheet(bool show)
{
    showMergeSheet_ = show;
    emit sheetFlagsChanged();
}

void ContentView::setShowSplitSheet(bool show)
{
    showSplitSheet_ = show;
    emit sheetFlagsChanged();
}

void ContentView::setShowInsertSheet(bool show)
{
    showInsertSheet_ = show;
    emit sheetFlagsChanged();
}

void ContentView::setShowExtractSheet(bool show)
{
    showExtractSheet_ = show;
    emit sheetFlagsChanged();
}

void ContentView::setShowSignatureSheet(bool show)
{
    showSignatureSheet_ = show;
    emit sheetFlagsChanged();
}

namespace {

// The first dropped item that is a file; empty when there is none.
QString firstDroppedFile(const QMimeData *data)
{
    if (data)
        for (const QUrl &url : data->urls())
            if (url.isLocalFile())
                return url.toLocalFile();
    return {};
}

} // namespace

bool ContentView::handleDrop(const QMimeData *data)
{
    const QString path = firstDroppedFile(data);
    if (path.isEmpty())
        return false;
    // Opened on a later turn of the event loop, like a drop that arrives late.
    // The file may be gone by then, or be no PDF: the open reports that.
    if (QFileInfo(path).suffix().toLower() == QLatin1String("pdf"))
        QTimer::singleShot(0, model_, [model = model_, path] { model->open(path); });
    return true;
}

// Drags that carry no file (addresses on the web, text) are refused already
// while over the window, so the pointer says so before the drop.
void ContentView::dragEnterEvent(QDragEnterEvent *event)
{
    if (!firstDroppedFile(event->mimeData()).isEmpty())
        event->acceptProposedAction();
}

void ContentView::dropEvent(QDropEvent *event)
{
    if (handleDrop(event->mimeData()))
        event->acceptProposedAction();
    else
        event->ignore();
}

void ContentView::showEvent(QShowEvent *event)
{
    QMainWindow::showEvent(event);
    if (!shown_) {
        shown_ = true;
        windowHandle()->installEventFilter(this);
    }
}

void ContentView::closeEvent(QCloseEvent *event)
{
    // What is being typed or dragged is settled first, then the document's changes.
    bridge_->overlay()->finishInteraction();
    if (askOnClose_ && isLastWindow() && !model_->resolveUnsavedChanges()) {
        event->ignore();
        return;
    }
    // A password sheet closed with its window abandons the pending file.
    if (passwordSheet_)
        passwordSheet_->reject();
    QMainWindow::closeEvent(event);
}

bool ContentView::isLastWindow() const
{
    const auto windows = QApplication::topLevelWidgets();
    return std::none_of(windows.begin(), windows.end(), [this](QWidget *widget) {
        auto *other = qobject_cast<ContentView *>(widget);
        return other && other != this && other->model_ == model_ && other->isVisible();
    });
}

void ContentView::closeWindowsOf(DocumentModel *model)
{
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        auto *window = qobject_cast<ContentView *>(widget);
        if (window && window->model_ == model && window->isVisible()) {
            window->askOnClose_ = false;
            window->close();
        }
    }
}
