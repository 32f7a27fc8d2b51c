// The application shell driven as a user would: commands and toolbar buttons,
// drops, the password sheet, the error alert and the page view bridge.
#include "ActAsNobody.h"
#include "AnnotationToolbarItems.h"
#include "CommandMenu.h"
#include "ContentView.h"
#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "FixtureBuilder.h"
#include "Icons.h"
#include "PageZoomFields.h"
#include "PagesMenu.h"
#include "PasswordSheet.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "PdfViewBridge.h"
#include "QtFilePanel.h"
#include "ScriptedFilePanel.h"
#include "ThumbnailCache.h"
#include "ThumbnailSidebarView.h"
#include "ToolSettings.h"
#include "VelloraApp.h"

#include <QAction>
#include <QClipboard>
#include <QComboBox>
#include <QDragEnterEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QProcess>
#include <QPushButton>
#include <QScrollBar>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QWindow>
#include <QtTest>

#include <sys/stat.h>

namespace {

// Drags `data` over `target` and drops it there, through the event path of a
// real drop (enter, then drop on whichever widget took the enter); true when
// the drop was accepted.
bool dropOn(QWidget *target, QMimeData *data)
{
    const QPoint at = target->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    if (!enter.isAccepted())
        return false;
    QDropEvent drop(at, Qt::CopyAction, data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &drop);
    return drop.isAccepted();
}

std::unique_ptr<QMimeData> urls(const QList<QUrl> &list)
{
    auto data = std::make_unique<QMimeData>();
    data->setUrls(list);
    return data;
}

// Types text as a keyboard does: one key event per character, an emoji's two
// UTF-16 halves in one event.
void typeText(QWidget *widget, const QString &text)
{
    for (char32_t ch : text.toUcs4())
        QTest::sendKeyEvent(QTest::Click, widget, Qt::Key_unknown, QString::fromUcs4(&ch, 1), Qt::NoModifier);
}

// `plain` encrypted by qpdf; `handler` are qpdf's key-length options.
bool qpdfEncrypt(const QString &plain, const QString &out, const QString &password, const QStringList &handler)
{
    QProcess qpdf;
    qpdf.start("qpdf",
               QStringList{"--allow-weak-crypto", "--encrypt", password, "owner"} + handler + QStringList{"--", plain, out});
    return qpdf.waitForFinished(60000) && qpdf.exitStatus() == QProcess::NormalExit &&
           (qpdf.exitCode() == 0 || qpdf.exitCode() == 3);
}

} // namespace

class TestApp : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();
    void commandsAndButtonsFollowTheModel();
    void recentFilesMenu();
    void titleAndEmptyState();
    void drops();
    void dropsThatCannotOpen();
    void commandLineAndHandedFiles();
    void errorAlert();
    void passwordSheet();
    void unicodePasswordsTyped();
    void hintBanner();
    void annotationGroupInTheToolbar();
    void currentPageInStepBothWays();
    void zoomIsFittedThenFrozen();
    void pageAndZoomFields();
    void pagesOpenAtTheirTopAndStayInView();
    void deleteKeyGoesToTheOverlayFirst();
    void everyWindowFollowsAnnotationChanges();
    void fileChoosersStartInAFolderThatExists();
    void closingAsksAboutUnsavedChanges();
    void signedAndRestrictedDocuments();

private:
    QString fixture(const QString &name, int pages = 3);
    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::unique_ptr<ContentView> window_;
    int run_ = 0;
};

QString TestApp::fixture(const QString &name, int pages)
{
    return fixtures::numberedFile(dir_.path(), name, pages);
}

void TestApp::initTestCase()
{
    qputenv("XDG_DATA_HOME", dir_.filePath("data").toLocal8Bit());
}

void TestApp::init()
{
    model_ = std::make_unique<DocumentModel>(RecentDocuments(dir_.filePath(QString("recent-%1.xbel").arg(++run_))));
    window_ = std::make_unique<ContentView>(model_.get());
    window_->show();
    QVERIFY(QTest::qWaitForWindowExposed(window_.get()));
}

void TestApp::cleanup()
{
    window_.reset();
    model_.reset();
}

void TestApp::commandsAndButtonsFollowTheModel()
{
    DocumentModel &m = *model_;
    CommandMenu *c = window_->commands();
    auto enabled = [&] {
        return QList<bool>{c->undo->isEnabled(),       c->redo->isEnabled(),   c->deleteSelection->isEnabled(),
                           c->open->isEnabled(),       c->save->isEnabled(),   c->saveAs->isEnabled(),
                           c->actualSize->isEnabled(), c->zoomIn->isEnabled(), c->zoomOut->isEnabled()};
    };
    auto buttons = [&] {
        return QList<bool>{window_->toolbarOpen()->isEnabled(), window_->toolbarSave()->isEnabled(),
                           window_->toolbarUndo()->isEnabled(), window_->toolbarRedo()->isEnabled(),
                           window_->toolbarSaveAs()->isEnabled()};
    };
    // Nothing open: only Open.
    QCOMPARE(enabled(), (QList<bool>{false, false, false, true, false, false, false, false, false}));
    QCOMPARE(buttons(), (QList<bool>{true, false, false, false, false}));

    m.open(fixture("a.pdf"));
    QCOMPARE(enabled(), (QList<bool>{false, false, false, true, false, true, true, true, true}));
    QCOMPARE(buttons(), (QList<bool>{true, false, false, false, true}));

    auto square = PdfAnnotation::create({100, 100, 50, 50}, PdfAnnotation::Square);
    square->setColor(Qt::red);
    m.addAnnotation(square, m.pdfDocument()->page(0), true);
    QCOMPARE(enabled(), (QList<bool>{true, false, false, true, true, true, true, true, true}));
    QCOMPARE(buttons(), (QList<bool>{true, true, true, false, true}));

    window_->toolbarUndo()->trigger();
    QVERIFY(!square->page());
    QVERIFY(c->redo->isEnabled() && window_->toolbarRedo()->isEnabled());
    QVERIFY(!c->undo->isEnabled());
    c->redo->trigger();
    QCOMPARE(square->page(), m.pdfDocument()->page(0));

    // Delete Selection removes the selected annotation as one undoable step.
    m.setSelectedAnnotation(square);
    QVERIFY(c->deleteSelection->isEnabled());
    QVERIFY(c->deleteSelection->shortcuts().contains(QKeySequence(Qt::Key_Backspace)));
    c->deleteSelection->trigger();
    QVERIFY(!square->page());
    QVERIFY(!c->deleteSelection->isEnabled());
    c->undo->trigger();
    QCOMPARE(square->page(), m.pdfDocument()->page(0));

    window_->toolbarSave()->trigger();
    QVERIFY(!m.isDirty());
    QVERIFY(!c->save->isEnabled() && !window_->toolbarSave()->isEnabled());

    // A document without a file can only be saved with Save As.
    m.setDocument(PdfDocument::create(), {});
    QVERIFY(!c->save->isEnabled());
    QVERIFY(c->saveAs->isEnabled());

    // The zoom commands act on the page view.
    m.open(fixture("a.pdf"));
    PdfView *view = window_->bridge()->pdfView();
    c->actualSize->trigger();
    QCOMPARE(view->scaleFactor(), 1.0);
    c->zoomIn->trigger();
    QVERIFY(view->scaleFactor() > 1.0);
    c->zoomOut->trigger();
    c->zoomOut->trigger();
    QVERIFY(view->scaleFactor() < 1.0);

    QCOMPARE(c->undo->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Z));
    QCOMPARE(c->redo->shortcut(), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z));
    QCOMPARE(c->saveAs->shortcut(), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S));
    QCOMPARE(c->saveAs->text(), QString("Save As…"));
    QCOMPARE(c->open->text(), QString("Open..."));
    QCOMPARE(window_->toolbarSaveAs()->text(), QString("Save As"));
    QCOMPARE(window_->toolbarSaveAs()->toolTip(), QString("Save As…"));
}

void TestApp::recentFilesMenu()
{
    DocumentModel &m = *model_;
    CommandMenu *c = window_->commands();
    QVERIFY(!c->openRecent->isEnabled());
    QVERIFY(QDir().mkpath(dir_.filePath("other")));
    const QString first = fixture("Report.pdf"), second = dir_.filePath("other/Report.pdf");
    QVERIFY(QFile::copy(first, second));
    m.open(first);
    m.open(second);
    QVERIFY(c->openRecent->isEnabled());
    QStringList titles;
    for (QAction *a : c->openRecent->actions())
        titles << a->text();
    QCOMPARE(titles, QStringList({"Report.pdf", "Report.pdf", "", "Clear Menu"}));
    c->openRecent->actions()[1]->trigger();
    QCOMPARE(m.fileURL(), first);
    c->openRecent->actions().last()->trigger();
    QVERIFY(m.recentURLs().isEmpty());
    QVERIFY(!c->openRecent->isEnabled());
    QVERIFY(c->openRecent->actions().isEmpty());
}

void TestApp::titleAndEmptyState()
{
    DocumentModel &m = *model_;
    QCOMPARE(window_->windowTitle(), QString("Untitled"));
    QVERIFY(window_->showsEmptyState());
    QVERIFY(window_->minimumSize() == QSize(700, 480));
    m.open(fixture("Title.pdf"));
    QVERIFY(!window_->showsEmptyState());
    QCOMPARE(window_->windowTitle(), QString("Title.pdf"));
    m.addAnnotation(PdfAnnotation::create({10, 10, 10, 10}, PdfAnnotation::Square), m.pdfDocument()->page(0), true);
    QCOMPARE(window_->windowTitle(), QString::fromUtf8("Title.pdf — Edited"));
    m.save();
    QCOMPARE(window_->windowTitle(), QString("Title.pdf"));
    m.setDocument(PdfDocument::create(), {});
    QCOMPARE(window_->windowTitle(), QString::fromUtf8("Untitled — Edited"));
    m.setDocument(nullptr, {});
    QVERIFY(window_->showsEmptyState());
}

void TestApp::drops()
{
    DocumentModel &m = *model_;
    QVERIFY(fixtures::writeFile(dir_.filePath("notes.txt"), "text"));
    QMimeData text;
    text.setUrls({QUrl::fromLocalFile(dir_.filePath("notes.txt"))});
    QVERIFY(window_->handleDrop(&text)); // accepted, and then ignored
    QTest::qWait(20);
    QVERIFY(!m.pdfDocument());
    QVERIFY(m.errorMessage().isEmpty());

    QMimeData plain;
    plain.setText("no files here");
    QVERIFY(!window_->handleDrop(&plain));

    const QString upper = dir_.filePath("Report.PDF");
    QVERIFY(QFile::copy(fixture("x.pdf"), upper));
    QMimeData three;
    three.setUrls({QUrl("https://example.org/a.pdf"), QUrl::fromLocalFile(upper), QUrl::fromLocalFile(fixture("b.pdf")),
                   QUrl::fromLocalFile(fixture("c.pdf"))});
    QVERIFY(window_->handleDrop(&three));
    QTRY_COMPARE(m.fileURL(), upper);
    QTest::qWait(20);
    QCOMPARE(m.fileURL(), upper); // only the first file
}

// Drops onto the window of things that are no readable PDF: each one that
// names a .pdf ends in the open-failure alert, never in silence or a hang;
// other names are ignored, and a drop without a file is refused.
void TestApp::dropsThatCannotOpen()
{
    DocumentModel &m = *model_;
    QWidget *emptyState = window_->findChild<QStackedWidget *>()->currentWidget();
    QVERIFY(window_->showsEmptyState());

    // Onto the empty-state panel, as a user would: it opens.
    const auto first = urls({QUrl::fromLocalFile(fixture("first.pdf"))});
    QVERIFY(dropOn(emptyState, first.get()));
    QTRY_COMPARE(m.fileURL(), fixture("first.pdf"));
    const auto shown = m.pdfDocument();
    QWidget *pages = window_->bridge()->pdfView()->viewport();

    // Only addresses on the web: refused already while dragging.
    const auto web = urls({QUrl("http://example.org/report.pdf"), QUrl("https://example.org/b.pdf")});
    QDragEnterEvent webEnter(pages->rect().center(), Qt::CopyAction, web.get(), Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(pages, &webEnter);
    QVERIFY(!webEnter.isAccepted());
    QVERIFY(!window_->handleDrop(web.get()));

    // "nobody" keeps root's group, so the group may read what others may.
    const auto readOnly = QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther;
    const auto traverse = QFileDevice::ExeOwner | QFileDevice::ExeGroup | QFileDevice::ExeOther;
    QTemporaryDir place;
    QVERIFY(QFile::setPermissions(place.path(), readOnly | traverse | QFileDevice::WriteOwner));
    auto in = [&](const QString &name) { return place.filePath(name); };
    QVERIFY(QDir().mkdir(in("Scans.pdf")));
    QVERIFY(QDir().mkdir(in("Scans")));
    QVERIFY(::mkfifo(QFile::encodeName(in("pipe.pdf")).constData(), 0644) == 0);
    QVERIFY(fixtures::writeFile(in("photo.pdf"), QByteArray("\x89PNG\r\n\x1a\n", 8) + QByteArray(500, 'x')));
    QVERIFY(fixtures::writeFile(in("notes.txt"), "not a PDF"));
    QVERIFY(QFile::copy(fixture("vanishing.pdf"), in("vanishing.pdf")));

    auto failsWithMessage = [&](const QString &name, const std::function<void()> &beforeTheOpen = {}) {
        m.setErrorMessage({});
        const auto data = urls({QUrl::fromLocalFile(in(name))});
        if (!dropOn(pages, data.get()))
            return QString("%1: drop refused").arg(name);
        if (beforeTheOpen)
            beforeTheOpen();
        if (!QTest::qWaitFor([&] { return !m.errorMessage().isEmpty(); }, 5000))
            return QString("%1: no message").arg(name);
        if (m.errorMessage() != DocumentModel::openFailedMessage(name))
            return QString("%1: %2").arg(name, m.errorMessage());
        if (!window_->errorAlert() || window_->errorAlert()->text() != m.errorMessage())
            return QString("%1: no alert").arg(name);
        if (m.pdfDocument() != shown)
            return QString("%1: the open document was replaced").arg(name);
        return QString();
    };
    QCOMPARE(failsWithMessage("Scans.pdf"), QString());
    QCOMPARE(failsWithMessage("pipe.pdf"), QString());
    QCOMPARE(failsWithMessage("photo.pdf"), QString());
    // Deleted after the drop was taken, before the open runs.
    QCOMPARE(failsWithMessage("vanishing.pdf", [&] { QVERIFY(QFile::remove(in("vanishing.pdf"))); }), QString());

    // Unreadable for its user; the same file readable opens, so the permission is what failed.
    QVERIFY(fixtures::writePdf(in("secret.pdf"), fixtures::numberedPages(1)));
    QVERIFY(QFile::copy(in("secret.pdf"), in("readable.pdf")));
    QVERIFY(QFile::setPermissions(in("secret.pdf"), {}));
    QVERIFY(QFile::setPermissions(in("readable.pdf"), readOnly));
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        QCOMPARE(failsWithMessage("secret.pdf"), QString());
        m.setErrorMessage({});
        const auto readable = urls({QUrl::fromLocalFile(in("readable.pdf"))});
        QVERIFY(dropOn(pages, readable.get()));
        QTRY_COMPARE(m.fileURL(), in("readable.pdf"));
    }

    // Not named .pdf: taken, then ignored without a word.
    m.setErrorMessage({});
    for (const QString &name : {QString("Scans"), QString("notes.txt")}) {
        const auto data = urls({QUrl::fromLocalFile(in(name))});
        QVERIFY(dropOn(pages, data.get()));
    }
    QTest::qWait(50);
    QVERIFY(m.errorMessage().isEmpty());
    QCOMPARE(m.fileURL(), in("readable.pdf"));
}

void TestApp::commandLineAndHandedFiles()
{
    QCOMPARE(VelloraApp::pdfArgument({"vellora", "-a", "first.pdf", "second.PDF", "third.pdf"}),
             QDir::current().absoluteFilePath("third.pdf"));
    QCOMPARE(VelloraApp::pdfArgument({"vellora", "second.PDF"}), QString());
    QCOMPARE(VelloraApp::pdfArgument({"program.pdf"}), QString());
    QCOMPARE(VelloraApp::pdfArgument({"vellora", "/abs/one.pdf", "-x"}), QString("/abs/one.pdf"));

    VelloraApp app({"vellora", fixture("Arg.pdf")});
    ContentView *window = app.newWindow();
    QVERIFY(!app.documentModel()->pdfDocument());
    // Read once the window is on screen, so the wait cursor shows over it.
    bool exposedWhenRead = false;
    connect(app.documentModel(), &DocumentModel::pdfDocumentChanged, window,
            [&] { exposedWhenRead = window->windowHandle()->isExposed(); });
    window->show();
    QVERIFY(!app.documentModel()->pdfDocument());
    QTRY_COMPARE(app.documentModel()->fileURL(), fixture("Arg.pdf"));
    QVERIFY(exposedWhenRead);
    window->close();

    // A text file handed over by the desktop: the message, and a recent entry anyway.
    QVERIFY(fixtures::writeFile(dir_.filePath("handed.txt"), "text"));
    app.openHandedFile(dir_.filePath("handed.txt"));
    QCOMPARE(app.documentModel()->errorMessage(), DocumentModel::openFailedMessage("handed.txt"));
    QFile store(dir_.filePath("data/recently-used.xbel"));
    QVERIFY(store.open(QIODevice::ReadOnly));
    QVERIFY(store.readAll().contains("handed.txt"));
}

void TestApp::errorAlert()
{
    DocumentModel &m = *model_;
    QVERIFY(!window_->errorAlert());
    m.setErrorMessage("First failure.");
    QMessageBox *alert = window_->errorAlert();
    QVERIFY(alert);
    QTRY_VERIFY(alert->isVisible());
    QCOMPARE(alert->windowTitle(), QString("Couldn't finish that"));
    QCOMPARE(alert->text(), QString("First failure."));
    QCOMPARE(alert->buttons().size(), 1);
    QCOMPARE(alert->buttons().first()->text(), QString("OK"));
    QTest::mouseClick(alert->buttons().first(), Qt::LeftButton);
    QVERIFY(m.errorMessage().isEmpty());
    QTRY_VERIFY(!window_->errorAlert());

    m.setErrorMessage("Second failure.");
    QTRY_VERIFY(window_->errorAlert() && window_->errorAlert()->isVisible());
    QCOMPARE(window_->errorAlert()->text(), QString("Second failure."));
    QTest::keyClick(window_->errorAlert(), Qt::Key_Escape);
    QVERIFY(m.errorMessage().isEmpty());
}

void TestApp::passwordSheet()
{
    DocumentModel &m = *model_;
    m.open(fixture("Shown.pdf"));
    const auto shown = m.pdfDocument();
    const QString locked = dir_.filePath("Locked.pdf");
    QVERIFY(fixtures::writeEncrypted(locked, fixtures::numberedPages(2), "sesame"));

    m.open(locked);
    PasswordSheet *sheet = window_->passwordSheet();
    QVERIFY(sheet);
    QTRY_VERIFY(sheet->isVisible());
    QCOMPARE(sheet->fileName(), QString("Locked.pdf"));
    QVERIFY(!sheet->findChildren<QLabel *>().isEmpty());
    bool titled = false;
    for (QLabel *label : sheet->findChildren<QLabel *>())
        titled |= label->text() == "Locked.pdf is password protected";
    QVERIFY(titled);
    QCOMPARE(sheet->passwordField()->placeholderText(), QString("Password"));
    QCOMPARE(sheet->passwordField()->width(), 320);
    QVERIFY(!sheet->openButton()->isEnabled());

    QTest::keyClick(sheet->passwordField(), Qt::Key_Return); // empty: nothing, no message
    QVERIFY(m.errorMessage().isEmpty());
    QVERIFY(sheet->isVisible());

    QTest::keyClicks(sheet->passwordField(), "wrong");
    QVERIFY(sheet->openButton()->isEnabled());
    QTest::keyClick(sheet->passwordField(), Qt::Key_Return);
    QCOMPARE(m.errorMessage(), DocumentModel::wrongPasswordMessage());
    QVERIFY(sheet->passwordField()->text().isEmpty());
    QVERIFY(sheet->isVisible());
    QCOMPARE(m.pdfDocument(), shown);
    QTRY_VERIFY(window_->errorAlert());
    QTest::mouseClick(window_->errorAlert()->buttons().first(), Qt::LeftButton);

    QTest::keyClicks(sheet->passwordField(), "sesame");
    QTest::mouseClick(sheet->openButton(), Qt::LeftButton);
    QTRY_VERIFY(!window_->passwordSheet());
    QCOMPARE(m.fileURL(), locked);
    QVERIFY(m.lockedURL().isEmpty());

    // Escape abandons the pending file and leaves the open one.
    m.open(locked);
    QTRY_VERIFY(window_->passwordSheet() && window_->passwordSheet()->isVisible());
    const auto open = m.pdfDocument();
    QTest::keyClick(window_->passwordSheet()->passwordField(), Qt::Key_Escape);
    QTRY_VERIFY(!window_->passwordSheet());
    QVERIFY(!m.lockedDocument());
    QVERIFY(m.lockedURL().isEmpty());
    QCOMPARE(m.pdfDocument(), open);

    // Without a pending file the sheet speaks of "This PDF".
    PasswordSheet orphan(&m, window_.get());
    QCOMPARE(orphan.fileName() + " is password protected", QString("This PDF is password protected"));
}

// Passwords in other scripts typed into the sheet, for the AES-256 handler
// and the older ones (which store such a password as its UTF-8 bytes).
void TestApp::unicodePasswordsTyped()
{
    DocumentModel &m = *model_;
    const QString plain = fixture("to-lock.pdf", 2);
    struct Case {
        QString password;
        QStringList handler;
        bool paste;
    };
    const QList<Case> cases{{QString::fromUtf8("zażółć gęślą"), {"128", "--use-aes=n"}, false},
                            {QString::fromUtf8("пароль"), {"128", "--use-aes=y"}, false},
                            {QString::fromUtf8("🔑 ключ"), {"256"}, false},
                            {QString::fromUtf8("密码"), {"40"}, true}};
    int made = 0;
    for (const Case &c : cases) {
        const QString file = dir_.filePath(QString("locked-%1.pdf").arg(++made));
        QVERIFY(qpdfEncrypt(plain, file, c.password, c.handler));
        m.open(file);
        QTRY_VERIFY(window_->passwordSheet() && window_->passwordSheet()->isVisible());
        PasswordSheet *sheet = window_->passwordSheet();
        QLineEdit *field = sheet->passwordField();
        QTRY_VERIFY(field->hasFocus());
        auto enter = [&](const QString &text) {
            if (c.paste) {
                QGuiApplication::clipboard()->setText(text);
                QTest::keyClick(field, Qt::Key_V, Qt::ControlModifier);
            } else {
                typeText(field, text);
            }
            QCOMPARE(field->text(), text);
        };

        enter(c.password.chopped(1));
        QTest::keyClick(field, Qt::Key_Return);
        QCOMPARE(m.errorMessage(), DocumentModel::wrongPasswordMessage());
        QTRY_VERIFY(window_->errorAlert());
        QPointer<QMessageBox> alert = window_->errorAlert();
        QTest::mouseClick(alert->buttons().first(), Qt::LeftButton);
        QVERIFY(m.errorMessage().isEmpty());
        QVERIFY(sheet->isVisible());
        QTRY_VERIFY(!alert);

        QTRY_VERIFY(field->hasFocus()); // the next try is typed straight away
        enter(c.password);
        QTest::mouseClick(sheet->openButton(), Qt::LeftButton);
        QTRY_VERIFY2(!window_->passwordSheet(), qPrintable(c.password));
        QCOMPARE(m.fileURL(), file);
        QVERIFY(m.errorMessage().isEmpty());
        QVERIFY(!window_->showsEmptyState());
    }
}

void TestApp::hintBanner()
{
    DocumentModel &m = *model_;
    m.open(fixture("banner.pdf"));
    QVERIFY(window_->bannerText().isEmpty());
    window_->toolSettings()->setCurrentTool(AnnotationTool::ink);
    QVERIFY(window_->bannerText().isEmpty());
    window_->toolSettings()->setCurrentTool(AnnotationTool::editText);
    QVERIFY(window_->bannerText().startsWith("Click text to edit it in place"));
    QVERIFY(window_->bannerCancelButton()->isHidden());
    QImage signature(40, 20, QImage::Format_ARGB32);
    signature.fill(Qt::black);
    m.setPendingSignatureImage(signature);
    QCOMPARE(window_->bannerText(),
             QString::fromUtf8("Click to drop your signature — then drag to move, drag a corner to resize. Esc to cancel."));
    QVERIFY(!window_->bannerCancelButton()->isHidden());
    QTest::mouseClick(window_->bannerCancelButton(), Qt::LeftButton);
    QVERIFY(m.pendingSignatureImage().isNull());
    QVERIFY(window_->bannerText().startsWith("Click text to edit it in place"));
}

void TestApp::annotationGroupInTheToolbar()
{
    AnnotationToolbarItems *items = window_->annotationToolbarItems();
    QVERIFY(items && window_->toolGroupPlace()->isAncestorOf(items));
    model_->open(fixture("group.pdf", 1));
    QTest::mouseClick(items->signButton(), Qt::LeftButton);
    QVERIFY(window_->showSignatureSheet());
    QTest::mouseClick(items->toolButton(AnnotationTool::editText), Qt::LeftButton);
    QVERIFY(window_->bannerText().startsWith("Click text to edit it in place"));

    // Where the theme lacks them, the group's icons are drawings of their own.
    const auto look = [](const QString &name) { return Icons::get(name).pixmap(24, 24).toImage(); };
    QList<QImage> drawn{look("no-such-icon")};
    for (const char *name : {"edit-select", "edit-rename", "insert-text", "draw-freehand", "draw-rectangle", "draw-ellipse",
                             "color-management", "draw-highlight"}) {
        if (QIcon::hasThemeIcon(name))
            continue;
        QVERIFY2(!drawn.contains(look(name)), name);
        drawn << look(name);
    }
}

void TestApp::currentPageInStepBothWays()
{
    DocumentModel &m = *model_;
    window_->resize(900, 700);
    m.open(fixture("ten.pdf", 10));
    PdfView *view = window_->bridge()->pdfView();
    QCOMPARE(view->document(), m.pdfDocument());
    QTest::qWait(20); // the scroll to the first page waits for the next turn of the event loop
    QCOMPARE(view->currentPageIndex(), 0);

    m.setCurrentPageIndex(5);
    QTRY_COMPARE(view->currentPageIndex(), 5);
    QCOMPARE(m.currentPageIndex(), 5);

    // Scrolling the view by hand moves the model, and the model does not pull back.
    view->goToPage(m.pdfDocument()->page(8));
    QTRY_COMPARE(m.currentPageIndex(), 8);
    QTest::qWait(50);
    QCOMPARE(view->currentPageIndex(), 8);

    // A page structure change lays out again and keeps the current page at the top.
    m.setCurrentPageIndex(3);
    QTRY_COMPARE(view->currentPageIndex(), 3);
    QVERIFY(m.pdfDocument()->removePage(9));
    m.markPageStructureChanged();
    QTest::qWait(50);
    QCOMPARE(view->currentPageIndex(), 3);
    const QPointF top = view->convertFromPage(QPointF(0, m.pdfDocument()->page(3)->bounds().height()), m.pdfDocument()->page(3));
    QVERIFY(std::abs(top.y()) < 2);

    m.setCurrentPageIndex(40); // beyond the last page: no scroll, no failure
    QTest::qWait(20);
    QCOMPARE(view->currentPageIndex(), 3);

    m.setDocument(nullptr, {});
    QVERIFY(!view->document());
}

// The toolbar's page field shows the document's own labels and goes where
// the user types; the zoom field takes a percentage or a fit.
void TestApp::pageAndZoomFields()
{
    QByteArray pdf =
        "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R /PageLabels << /Nums [0 << /S /r >> 2 << /S /D "
        "/P (A-) >>] >> >>\nendobj\n2 0 obj << /Type /Pages /Kids [3 0 R 4 0 R 5 0 R 6 0 R 7 0 R] /Count 5 >>\nendobj\n";
    for (int i = 3; i <= 7; ++i)
        pdf += QByteArray::number(i) + " 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] >>\nendobj\n";
    pdf += "trailer << /Root 1 0 R >>\n%%EOF\n";
    const QString path = dir_.filePath("labels.pdf");
    QVERIFY(fixtures::writeFile(path, pdf));
    window_->resize(1000, 700);
    model_->open(path);
    QCOMPARE(model_->pdfDocument()->pageLabels(), QStringList({"i", "ii", "A-1", "A-2", "A-3"}));
    PdfView *view = window_->bridge()->pdfView();
    PageZoomFields *fields = window_->pageZoomFields();
    QTRY_COMPARE(fields->pageField()->text(), QString("i"));
    QCOMPARE(fields->pageCountLabel()->text(), QString("(1 of 5)"));

    window_->commands()->goToPage->trigger();
    QTest::keyClicks(fields->pageField(), "a-2");
    QTest::keyClick(fields->pageField(), Qt::Key_Return);
    QTRY_COMPARE(view->currentPageIndex(), 3);
    QCOMPARE(fields->pageField()->text(), QString("A-2"));
    fields->pageField()->setText("9"); // no such page: it stays
    QTest::keyClick(fields->pageField(), Qt::Key_Return);
    QCOMPARE(fields->pageField()->text(), QString("A-2"));

    QComboBox *zoom = fields->zoomField();
    zoom->lineEdit()->setText("150");
    QTest::keyClick(zoom->lineEdit(), Qt::Key_Return);
    QCOMPARE(view->scaleFactor(), 1.5);
    QCOMPARE(zoom->currentText(), QString("150 %"));
    zoom->activated(zoom->findText("Fit Page"));
    const QRectF page = view->convertFromPage(view->currentPage()->bounds(), view->currentPage());
    QVERIFY(page.height() <= view->viewport()->height() && page.height() > view->viewport()->height() * 0.9);

    // Without labels: the number and "of N".
    model_->open(fixture("plain.pdf", 12));
    QTRY_COMPARE(fields->pageCountLabel()->text(), QString("of 12"));
    QCOMPARE(fields->pageField()->text(), QString("1"));
}

void TestApp::zoomIsFittedThenFrozen()
{
    DocumentModel &m = *model_;
    window_->resize(900, 700);
    m.open(fixture("zoom.pdf"));
    PdfView *view = window_->bridge()->pdfView();
    QVERIFY(view->autoScales());
    const qreal fitted = view->scaleFactor();
    QTRY_VERIFY_WITH_TIMEOUT(!view->autoScales(), 2000);
    QCOMPARE(view->scaleFactor(), fitted);
    QCOMPARE(view->minScaleFactor(), 0.1);
    QCOMPARE(view->maxScaleFactor(), 6.0);
    window_->resize(1000, 700); // frozen: the zoom stays
    QTest::qWait(20);
    QCOMPARE(view->scaleFactor(), fitted);

    // A zoom before the lock runs wins; the limits then stay as they were.
    m.open(fixture("zoom2.pdf"));
    QVERIFY(view->autoScales());
    view->setMinScaleFactor(0.25);
    window_->commands()->zoomIn->trigger();
    const qreal zoomed = view->scaleFactor();
    QTest::qWait(PdfViewBridge::lockDelayMs + 150);
    QCOMPARE(view->scaleFactor(), zoomed);
    QCOMPARE(view->minScaleFactor(), 0.25);
}

// A page whose box starts away from 0,0 opens at its top; a page turned at
// the frozen zoom shows its top left corner, a page gone to later is centred.
void TestApp::pagesOpenAtTheirTopAndStayInView()
{
    DocumentModel &m = *model_;
    window_->resize(900, 700);
    fixtures::PageSpec offset;
    offset.mediaBox = QRectF(100, 200, 612, 792);
    offset.text.push_back({QStringLiteral("Top line"), {172, 950}, 24});
    const QString offsetPath = dir_.filePath(QStringLiteral("offset.pdf"));
    QVERIFY(fixtures::writePdf(offsetPath, {offset}));
    m.open(offsetPath);
    PdfView *view = window_->bridge()->pdfView();
    auto page = m.pdfDocument()->page(0);
    QTRY_VERIFY(std::abs(view->convertFromPage(QPointF(100, 992), page).y()) < 2);
    QVERIFY(view->verticalScrollBar()->maximum() > 0); // the page is taller than the view

    m.open(fixture("turned.pdf", 10));
    QTRY_VERIFY_WITH_TIMEOUT(!view->autoScales(), 2000);
    const qreal zoom = view->scaleFactor();
    const int middle = view->viewport()->width() / 2;
    auto shown = [&](int index) {
        auto p = m.pdfDocument()->page(index);
        return view->convertFromPage(p->bounds(PdfBox::Crop), p);
    };
    m.setCurrentPageIndex(2);
    QTRY_COMPARE(view->currentPageIndex(), 2);
    m.rotateCurrentPage(90);
    QTest::qWait(50);
    QCOMPARE(view->scaleFactor(), zoom);
    QVERIFY(shown(2).width() > view->viewport()->width()); // landscape now, wider than the view: shown from its left edge
    QVERIFY(std::abs(shown(2).left()) < 2);
    QVERIFY(std::abs(shown(2).top()) < 2);

    // Going to a portrait page, as a thumbnail click does: all of it across the view.
    m.setCurrentPageIndex(6);
    QTRY_COMPARE(view->currentPageIndex(), 6);
    QVERIFY(shown(6).left() >= 0 && shown(6).right() <= view->viewport()->width());
    QVERIFY(std::abs(shown(6).center().x() - middle) <= 1);
}

// With an annotation selected on the page, Delete is the overlay's (it also
// drops the selection), not the menu shortcut of the same key.
void TestApp::deleteKeyGoesToTheOverlayFirst()
{
    model_->open(fixture("delete-key.pdf", 1));
    auto page = model_->pdfDocument()->page(0);
    auto square = PdfAnnotation::create(QRectF(100, 100, 80, 60), PdfAnnotation::Square);
    model_->addAnnotation(square, page, true);
    DrawingOverlayView *overlay = window_->bridge()->overlay();
    window_->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(window_.get()));
    overlay->select(square);
    QTRY_VERIFY(overlay->hasFocus());
    QTest::keyClick(overlay, Qt::Key_Delete);
    QVERIFY(!square->page());
    QVERIFY(!overlay->selection());
    QVERIFY(!model_->selectedAnnotation());
    window_->commands()->undo->trigger();
    QCOMPARE(square->page(), page);
}

// Two windows on one document (File > New Window): a change made and undone
// in one is drawn in both page views and in the thumbnails.
void TestApp::everyWindowFollowsAnnotationChanges()
{
    model_->open(fixture("two-windows.pdf", 2));
    ContentView second(model_.get());
    second.show();
    QVERIFY(QTest::qWaitForWindowExposed(&second));
    PdfView *views[] = {window_->bridge()->findChild<PdfView *>(), second.bridge()->findChild<PdfView *>()};
    auto page = model_->pdfDocument()->page(0);
    const QRectF box(250, 350, 100, 100);
    auto colourIn = [&](PdfView *view) {
        return view->viewport()->grab().toImage().pixelColor(view->convertFromPage(box.center(), page).toPoint());
    };
    auto thumbnailCentre = [&](ContentView &window) {
        const QImage thumbnail = window.thumbnailSidebar()->cache()->thumbnail(0);
        const QPointF centre = page->pageToDisplay().map(box.center());
        const QSizeF shown = page->displaySize();
        return thumbnail.isNull() ? QColor()
                                  : thumbnail.pixelColor(int(centre.x() / shown.width() * thumbnail.width()),
                                                         int(centre.y() / shown.height() * thumbnail.height()));
    };
    for (PdfView *view : views) {
        QVERIFY(view);
        view->goToPoint(page, QPointF(0, 792));
        QTRY_VERIFY_WITH_TIMEOUT(view->isRenderingComplete(), 60000);
        QCOMPARE(colourIn(view), QColor(Qt::white));
    }
    QTRY_COMPARE_WITH_TIMEOUT(thumbnailCentre(second), QColor(Qt::white), 60000);

    auto square = PdfAnnotation::create(box, PdfAnnotation::Square);
    square->setColor(Qt::blue);
    square->setInteriorColor(Qt::blue);
    model_->addAnnotation(square, page, true);
    for (PdfView *view : views)
        QTRY_COMPARE_WITH_TIMEOUT(colourIn(view), QColor(Qt::blue), 60000);
    QTRY_COMPARE_WITH_TIMEOUT(thumbnailCentre(*window_), QColor(Qt::blue), 60000);
    QTRY_COMPARE_WITH_TIMEOUT(thumbnailCentre(second), QColor(Qt::blue), 60000);

    // Undone in the second window.
    QVERIFY(second.commands()->undo->isEnabled());
    second.commands()->undo->trigger();
    for (PdfView *view : views)
        QTRY_COMPARE_WITH_TIMEOUT(colourIn(view), QColor(Qt::white), 60000);
    QTRY_COMPARE_WITH_TIMEOUT(thumbnailCentre(*window_), QColor(Qt::white), 60000);
}

void TestApp::fileChoosersStartInAFolderThatExists()
{
    const QByteArray home = qgetenv("HOME");
    const bool hadConfig = qEnvironmentVariableIsSet("XDG_CONFIG_HOME");
    const QByteArray config = qgetenv("XDG_CONFIG_HOME");
    QTemporaryDir fresh;
    qputenv("HOME", fresh.path().toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", fresh.filePath("config").toLocal8Bit());
    const QString atFirst = QtFilePanel::startFolder();
    QDir(fresh.path()).mkdir("Documents");
    const QString withDocuments = QtFilePanel::startFolder();
    qputenv("HOME", home);
    if (hadConfig)
        qputenv("XDG_CONFIG_HOME", config);
    else
        qunsetenv("XDG_CONFIG_HOME");
    QCOMPARE(atFirst, fresh.path());
    QCOMPARE(withDocuments, fresh.filePath("Documents"));
}

QTEST_MAIN(TestApp)
// Only the last window of a document asks; Cancel keeps it open, Save writes
// the file first (a failed save keeps it open), Don't Save lets it go. Quit
// asks once, before any window closes. Each window's commands act on its own view.
void TestApp::closingAsksAboutUnsavedChanges()
{
    auto panel = std::make_shared<ScriptedFilePanel>();
    model_->setFilePanel(panel);
    const QString path = fixture("unsaved.pdf", 2);
    model_->open(path);
    auto second = std::make_unique<ContentView>(model_.get());
    second->show();
    QVERIFY(QTest::qWaitForWindowExposed(second.get()));
    auto square = PdfAnnotation::create({100, 100, 50, 50}, PdfAnnotation::Square);
    square->setColor(Qt::red);
    model_->addAnnotation(square, model_->pdfDocument()->page(0), true);
    auto asked = [&] {
        return std::count_if(panel->requests.begin(), panel->requests.end(), [](const auto &r) {
            return r.kind == ScriptedFilePanel::Request::Kind::SaveChanges && r.proposedName == "unsaved.pdf";
        });
    };

    panel->saveChangesAnswers = {FilePanel::SaveAnswer::Cancel};
    second->commands()->quit->trigger();
    QCOMPARE(asked(), 1);
    QVERIFY(window_->isVisible() && second->isVisible());

    QVERIFY(second->close()); // another window still shows the document: no question
    second.reset();
    QCOMPARE(asked(), 1);
    PdfView *view = window_->bridge()->pdfView();
    window_->commands()->actualSize->trigger();
    window_->commands()->zoomIn->trigger();
    QVERIFY(view->scaleFactor() > 1.0); // the remaining window's commands still reach its view

    panel->saveChangesAnswers = {FilePanel::SaveAnswer::Cancel};
    QVERIFY(!window_->close());
    QCOMPARE(asked(), 2);
    QVERIFY(window_->isVisible());
    QCOMPARE(PdfDocument::open(path)->page(0)->annotations().size(), size_t(0));

    panel->saveChangesAnswers = {FilePanel::SaveAnswer::Save};
    QFile::setPermissions(dir_.path(), QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    {
        ActAsNobody nobody;
        QVERIFY(!window_->close()); // the save failed: the window stays
    }
    QFile::setPermissions(dir_.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QVERIFY(!model_->errorMessage().isEmpty());
    QVERIFY(window_->isVisible());
    panel->saveChangesAnswers = {FilePanel::SaveAnswer::Save};
    QVERIFY(window_->close());
    QCOMPARE(PdfDocument::open(path)->page(0)->annotations().size(), size_t(1));
    QVERIFY(!model_->isDirty());

    window_->show();
    auto circle = PdfAnnotation::create({300, 300, 20, 20}, PdfAnnotation::Circle);
    circle->setColor(Qt::red);
    model_->addAnnotation(circle, model_->pdfDocument()->page(1), true);
    panel->saveChangesAnswers = {FilePanel::SaveAnswer::DontSave};
    QVERIFY(window_->close());
    QCOMPARE(PdfDocument::open(path)->page(1)->annotations().size(), size_t(0));
}

// A signed document stays signed through saves that add notes, and page work
// that would invalidate the signatures asks first. A document whose author
// restricted changes opens with its editing tools off until the user chooses
// to edit it anyway, and keeps its restrictions when saved.
void TestApp::signedAndRestrictedDocuments()
{
    auto panel = std::make_shared<ScriptedFilePanel>();
    model_->setFilePanel(panel);
    auto tool = [](const QString &program, const QStringList &arguments) {
        QProcess process;
        process.start(program, arguments);
        process.waitForFinished(60000);
        return QString::fromUtf8(process.readAllStandardOutput());
    };
    auto valid = [&](const QString &file) {
        return tool("pdfsig", {file}).contains("Signature Validation: Signature is Valid.");
    };
    auto note = [&](int page) {
        auto square = PdfAnnotation::create({100, 100, 50, 50}, PdfAnnotation::Square);
        square->setColor(Qt::red);
        model_->addAnnotation(square, model_->pdfDocument()->page(page), true);
    };
    const QString signedFile = dir_.filePath("signed.pdf");
    QVERIFY(fixtures::writeSigned(signedFile));
    QVERIFY(valid(signedFile));
    model_->open(signedFile);
    QVERIFY(window_->bannerText().startsWith("This document is signed."));
    const size_t widgets = model_->pdfDocument()->page(0)->annotations().size();
    model_->deletePages({1}); // the question is cancelled
    QCOMPARE(model_->pdfDocument()->pageCount(), 2);
    QCOMPARE(panel->requests.back().kind, ScriptedFilePanel::Request::Kind::SignedPages);
    for (int page : {0, 1}) {
        note(page);
        QVERIFY(model_->save());
        QVERIFY2(valid(signedFile), qPrintable(tool("pdfsig", {signedFile})));
        QCOMPARE(inspect::qpdfProblems(signedFile), QString());
    }
    auto reopened = PdfDocument::open(signedFile);
    QCOMPARE(reopened->page(0)->annotations().size(), widgets + 1);
    QCOMPARE(reopened->page(1)->annotations().size(), size_t(1));
    panel->signedPagesAnswers = {true};
    model_->deletePages({1});
    QCOMPARE(model_->pdfDocument()->pageCount(), 1);
    QVERIFY(window_->bannerText().isEmpty());

    const QString restricted = dir_.filePath("restricted.pdf");
    QVERIFY(fixtures::writeRestricted(fixture("to-restrict.pdf", 2), restricted));
    const QString encryption = tool("qpdf", {"--show-encryption", restricted});
    QVERIFY(encryption.contains("modify annotations: not allowed"));
    model_->open(restricted);
    AnnotationToolbarItems *items = window_->annotationToolbarItems();
    const QList<QAction *> pageCommands = window_->pagesMenu()->menu()->actions();
    auto deletePage = std::find_if(pageCommands.begin(), pageCommands.end(),
                                   [](QAction *action) { return action->text() == "Delete Current Page"; });
    auto editable = [&] {
        return items->signButton()->isEnabled() && items->toolButton(AnnotationTool::ink)->isEnabled() &&
               items->toolButton(AnnotationTool::editText)->isEnabled() && (*deletePage)->isEnabled();
    };
    QCOMPARE(window_->bannerText(), QString("The author of this document restricted changes."));
    QVERIFY(!editable() && items->toolButton(AnnotationTool::none)->isEnabled());
    note(0);
    QVERIFY(!model_->isDirty());
    QTest::mouseClick(window_->bannerEditAnywayButton(), Qt::LeftButton);
    QVERIFY(editable());
    QVERIFY(window_->bannerText().isEmpty());
    note(0);
    QVERIFY(model_->save());
    QCOMPARE(tool("qpdf", {"--show-encryption", restricted}), encryption);
    QCOMPARE(PdfDocument::open(restricted)->page(0)->annotations().size(), size_t(1));
}

#include "tst_app.moc"
