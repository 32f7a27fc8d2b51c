#include "ActAsNobody.h"
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ScriptedFilePanel.h"

#include <QGuiApplication>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

namespace {

std::shared_ptr<PdfAnnotation> box(QRectF bounds = {100, 100, 50, 50})
{
    auto a = PdfAnnotation::create(bounds, PdfAnnotation::Square);
    a->setColor(Qt::red);
    a->setBorderWidth(2);
    return a;
}

void undoCommand(DocumentModel &model)
{
    model.undo();
}
void redoCommand(DocumentModel &model)
{
    model.redo();
}

// `plain` encrypted by qpdf into `out` with a security handler given as qpdf's
// key-length options. For the 40- and 128-bit handlers qpdf stores a password
// in PDFDocEncoding when it fits and as its UTF-8 bytes when it does not.
bool qpdfEncrypt(const QString &plain, const QString &out, const QString &user, const QString &owner, const QStringList &handler)
{
    QProcess qpdf;
    qpdf.start("qpdf", QStringList{"--allow-weak-crypto", "--encrypt", user, owner} + handler + QStringList{"--", plain, out});
    // Exit code 3: written, with warnings (the one about UTF-8 bytes).
    return qpdf.waitForFinished(60000) && qpdf.exitStatus() == QProcess::NormalExit &&
           (qpdf.exitCode() == 0 || qpdf.exitCode() == 3);
}

// The shape of the override cursor whenever one of the model's signals fires.
class CursorWatch {
public:
    explicit CursorWatch(DocumentModel &model)
    {
        for (auto signal :
             {&DocumentModel::errorMessageChanged, &DocumentModel::lockedURLChanged, &DocumentModel::pdfDocumentChanged})
            connections_ << QObject::connect(&model, signal, [this] {
                const QCursor *cursor = QGuiApplication::overrideCursor();
                shapes << (cursor ? cursor->shape() : Qt::BlankCursor);
            });
    }
    ~CursorWatch()
    {
        for (const auto &c : connections_)
            QObject::disconnect(c);
    }
    QList<Qt::CursorShape> shapes;

private:
    QList<QMetaObject::Connection> connections_;
};

} // namespace

class TestDocumentModel : public QObject {
    Q_OBJECT
private slots:
    void init();
    void openingFailuresLeaveTheOpenDocument();
    void passwordProtectedFiles();
    void unicodePasswords();
    void filesThatCannotBeOpened();
    void busyCursorWhileOpening();
    void adoptingAndSaving();
    void saveAsAndThePanels();
    void everyWriteIsAnnounced();
    void undoAndRedoSequences();
    void undoOfAChangeOnADeletedPage();
    void mutationsAndTheSelection();
    void markupFromTheViewSelection();
    void changesShowInEveryView();
    void pageWorkIsUndoable();

private:
    QString fixture(const QString &name, int pages = 3);
    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::shared_ptr<ScriptedFilePanel> panel_;
    QString recentStore_;
    int run_ = 0;
};

QString TestDocumentModel::fixture(const QString &name, int pages)
{
    return fixtures::numberedFile(dir_.path(), name, pages);
}

void TestDocumentModel::init()
{
    recentStore_ = dir_.filePath(QString("recently-used-%1.xbel").arg(++run_));
    model_ = std::make_unique<DocumentModel>(RecentDocuments(recentStore_));
    panel_ = std::make_shared<ScriptedFilePanel>();
    model_->setFilePanel(panel_);
}

void TestDocumentModel::openingFailuresLeaveTheOpenDocument()
{
    DocumentModel &m = *model_;
    QCOMPARE(m.displayName(), QString("Untitled"));
    const QString first = fixture("Report.pdf");
    m.open(first);
    QVERIFY(m.pdfDocument());
    QCOMPARE(m.fileURL(), first);
    QCOMPARE(m.displayName(), QString("Report.pdf"));
    QCOMPARE(m.recentURLs(), QStringList{first});
    m.addAnnotation(box(), m.pdfDocument()->page(0), true);
    const auto open = m.pdfDocument();

    QVERIFY(fixtures::writeFile(dir_.filePath("notes.txt"), "hello"));
    m.open(dir_.filePath("notes.txt"));
    QCOMPARE(m.errorMessage(), QString("Couldn't open notes.txt. It may not be a PDF, or the file may be damaged."));
    QVERIFY(fixtures::writeDamaged(dir_.filePath("broken.pdf")));
    m.open(dir_.filePath("broken.pdf"));
    QCOMPARE(m.errorMessage(), QString("Couldn't open broken.pdf. It may not be a PDF, or the file may be damaged."));
    QCOMPARE(m.pdfDocument(), open);
    QCOMPARE(m.fileURL(), first);
    QVERIFY(m.isDirty());
    QCOMPARE(m.history().undoStack().size(), size_t(1));
    QCOMPARE(m.recentURLs(), QStringList{first});
}

void TestDocumentModel::passwordProtectedFiles()
{
    DocumentModel &m = *model_;
    const QString plain = fixture("plain.pdf");
    m.open(plain);
    m.addAnnotation(box(), m.pdfDocument()->page(0), true);
    m.setCurrentPageIndex(2);
    const auto shown = m.pdfDocument();
    const int mutations = m.pageMutationCount();

    const QString locked = dir_.filePath("Locked.pdf");
    QVERIFY(fixtures::writeEncrypted(locked, fixtures::numberedPages(2), "sesame"));
    m.open(locked);
    QVERIFY(m.lockedDocument());
    QCOMPARE(m.lockedURL(), locked);
    QCOMPARE(m.pdfDocument(), shown); // still shown until the password is accepted
    QCOMPARE(m.fileURL(), plain);

    m.unlockPendingDocument("wrong");
    QCOMPARE(m.errorMessage(), QString("That password didn't open the file. Check it and try again."));
    QVERIFY(m.lockedDocument());
    QCOMPARE(m.lockedURL(), locked);
    QCOMPARE(m.pdfDocument(), shown);

    m.setErrorMessage({});
    m.unlockPendingDocument("sesame");
    QVERIFY(!m.lockedDocument());
    QVERIFY(m.lockedURL().isEmpty());
    QVERIFY(m.errorMessage().isEmpty());
    QCOMPARE(m.fileURL(), locked);
    QCOMPARE(m.pdfDocument()->pageCount(), 2);
    QCOMPARE(m.currentPageIndex(), 0);
    QVERIFY(!m.isDirty());
    QVERIFY(m.history().undoStack().empty());
    QCOMPARE(m.pageMutationCount(), mutations + 1);
    QCOMPARE(m.recentURLs().value(0), locked);

    m.unlockPendingDocument("sesame"); // nothing pending: nothing happens
    QCOMPARE(m.fileURL(), locked);
}

// Every security handler qpdf writes, with passwords in several scripts, as
// user and as owner password; a wrong password never opens the file.
void TestDocumentModel::unicodePasswords()
{
    DocumentModel &m = *model_;
    const QString plain = fixture("two-pages.pdf", 2);
    const QList<QPair<QString, QStringList>> handlers{{"AES-256", {"256"}},
                                                      {"AES-256 R5", {"256", "--force-R5"}},
                                                      {"AES-128", {"128", "--use-aes=y"}},
                                                      {"RC4-128", {"128", "--use-aes=n"}},
                                                      {"RC4-40", {"40"}}};
    const QStringList passwords{QString::fromUtf8("zażółć gęślą"),    QString::fromUtf8("пароль"), QString::fromUtf8("密码"),
                                QString::fromUtf8("🔑🗝️ key"), QString::fromUtf8("café"),   "plain ascii"};
    const QString owner = QString::fromUtf8("владелец 🔒");
    int made = 0;
    for (const auto &[handler, options] : handlers) {
        for (const QString &password : passwords) {
            const QString file = dir_.filePath(QString("unicode-%1.pdf").arg(++made));
            QVERIFY2(qpdfEncrypt(plain, file, password, owner, options), qPrintable(handler));
            const QString what = handler + " / " + password;
            m.setErrorMessage({});
            m.open(file);
            QVERIFY2(m.lockedDocument(), qPrintable(what));
            m.unlockPendingDocument(password.chopped(1));
            QVERIFY2(m.errorMessage() == DocumentModel::wrongPasswordMessage(), qPrintable(what));
            QVERIFY(m.lockedDocument());
            m.unlockPendingDocument(password + QString::fromUtf8("ż"));
            QVERIFY2(m.lockedDocument(), qPrintable(what));
            m.setErrorMessage({});
            m.unlockPendingDocument(password);
            QVERIFY2(m.errorMessage().isEmpty(), qPrintable(what));
            QVERIFY2(m.lockedURL().isEmpty(), qPrintable(what));
            QCOMPARE(m.fileURL(), file);
            QCOMPARE(m.pdfDocument()->pageCount(), 2);
            QVERIFY(!m.pdfDocument()->page(1)->text().isEmpty()); // decrypted for real

            m.open(file);
            m.unlockPendingDocument(owner);
            QVERIFY2(m.lockedURL().isEmpty(), qPrintable(what + " (owner)"));
        }
    }

    // Characters PDFDocEncoding cannot hold are not dropped: "abc" + "密" is not "abc".
    const QString abc = dir_.filePath("abc.pdf");
    QVERIFY(qpdfEncrypt(plain, abc, "abc", "abc-owner", {"128", "--use-aes=n"}));
    m.open(abc);
    m.setErrorMessage({});
    m.unlockPendingDocument(QString::fromUtf8("abc密"));
    QCOMPARE(m.errorMessage(), DocumentModel::wrongPasswordMessage());
    m.unlockPendingDocument("abc");
    QCOMPARE(m.fileURL(), abc);
}

// Whatever the path names, opening it fails with the message and leaves the
// open document as it was, and nothing waits for good.
void TestDocumentModel::filesThatCannotBeOpened()
{
    DocumentModel &m = *model_;
    const QString first = fixture("Shown.pdf");
    m.open(first);
    const auto shown = m.pdfDocument();

    // "nobody" keeps root's group, so the group may read what others may.
    const auto readOnly = QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther;
    const auto traverse = QFileDevice::ExeOwner | QFileDevice::ExeGroup | QFileDevice::ExeOther;
    QTemporaryDir place;
    QVERIFY(QFile::setPermissions(place.path(), readOnly | traverse | QFileDevice::WriteOwner));
    auto inPlace = [&](const QString &name) { return place.filePath(name); };
    QVERIFY(QDir().mkdir(inPlace("Folder.pdf")));
    QVERIFY(::mkfifo(QFile::encodeName(inPlace("pipe.pdf")).constData(), 0644) == 0);
    QVERIFY(fixtures::writeFile(inPlace("empty.pdf"), {}));
    QImage picture(20, 20, QImage::Format_RGB32);
    picture.fill(Qt::red);
    QVERIFY(picture.save(inPlace("photo.pdf"), "PNG"));
    QVERIFY(fixtures::writeFile(inPlace("header-only.pdf"), "%PDF-1.7\n"));
    QVERIFY(QFile::link(inPlace("nowhere.pdf"), inPlace("dangling.pdf")));
    for (const QString &name :
         QStringList{"Folder.pdf", "pipe.pdf", "empty.pdf", "photo.pdf", "header-only.pdf", "dangling.pdf", "gone.pdf"}) {
        m.setErrorMessage({});
        m.open(inPlace(name));
        QVERIFY2(m.errorMessage() == DocumentModel::openFailedMessage(name), qPrintable(name));
        QCOMPARE(m.pdfDocument(), shown);
        QCOMPARE(m.fileURL(), first);
    }

    // A file its user may not read; the same file readable opens, so the permission is what failed.
    const QString secret = inPlace("secret.pdf"), readable = inPlace("readable.pdf");
    QVERIFY(fixtures::writePdf(secret, fixtures::numberedPages(1)));
    QVERIFY(QFile::copy(secret, readable));
    QVERIFY(QFile::setPermissions(secret, {}));
    QVERIFY(QFile::setPermissions(readable, readOnly));
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        m.setErrorMessage({});
        m.open(secret);
        QCOMPARE(m.errorMessage(), DocumentModel::openFailedMessage("secret.pdf"));
        QCOMPARE(m.pdfDocument(), shown);
        m.open(readable);
    }
    QCOMPARE(m.fileURL(), readable);
}

// The wait cursor is up while a file is read and parsed, and gone afterwards,
// whether the file opens, fails or asks for its password.
void TestDocumentModel::busyCursorWhileOpening()
{
    DocumentModel &m = *model_;
    QVERIFY(!QGuiApplication::overrideCursor());
    const QString locked = dir_.filePath("Locked.pdf");
    QVERIFY(fixtures::writeEncrypted(locked, fixtures::numberedPages(1), "sesame"));
    QVERIFY(fixtures::writeFile(dir_.filePath("notes.pdf"), "not a PDF"));
    const QList<QPair<QString, std::function<void()>>> steps{
        {"success", [&] { m.open(fixture("busy.pdf")); }},
        {"failure", [&] { m.open(dir_.filePath("notes.pdf")); }},
        {"locked", [&] { m.open(locked); }},
        {"wrong password", [&] { m.unlockPendingDocument("wrong"); }},
        {"right password", [&] { m.unlockPendingDocument("sesame"); }},
    };
    for (const auto &[what, step] : steps) {
        CursorWatch watch(m);
        step();
        QVERIFY2(!watch.shapes.isEmpty(), qPrintable(what));
        for (Qt::CursorShape shape : watch.shapes)
            QVERIFY2(shape == Qt::WaitCursor, qPrintable(what));
        QVERIFY2(!QGuiApplication::overrideCursor(), qPrintable(what));
    }
    QCOMPARE(m.fileURL(), locked);
}

void TestDocumentModel::adoptingAndSaving()
{
    DocumentModel &m = *model_;
    auto built = PdfDocument::create();
    QVERIFY(built->insert(PdfDocument::open(fixture("source.pdf"))->page(0)->copy(), 0));
    m.setDocument(built, {});
    QVERIFY(m.isDirty());
    QCOMPARE(m.displayName(), QString("Untitled"));
    m.save(); // no file: nothing, and no message
    QVERIFY(m.isDirty());
    QVERIFY(m.errorMessage().isEmpty());
    QVERIFY(m.recentURLs().isEmpty()); // adopting does not touch the recent files

    const QString merged = dir_.filePath("Merged.pdf");
    QVERIFY(built->write(merged));
    m.setDocument(built, merged);
    QVERIFY(!m.isDirty());
    m.addAnnotation(box(), built->page(0), true);
    m.save();
    QVERIFY(!m.isDirty());
    QCOMPARE(m.history().undoStack().size(), size_t(1)); // saving keeps the history
    QCOMPARE(PdfDocument::open(merged)->page(0)->annotations().size(), size_t(1));

    // A folder the user may not change: the message names the file, the file stays.
    QTemporaryDir locked;
    QFile::setPermissions(locked.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                             QFileDevice::ReadOther | QFileDevice::ExeOther);
    const QString report = locked.filePath("Report.pdf");
    QVERIFY(fixtures::writePdf(report, fixtures::numberedPages(1)));
    QFile::setPermissions(report, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
    m.open(report);
    m.addAnnotation(box(), m.pdfDocument()->page(0), true);
    const QByteArray before = [&] {
        QFile f(report);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        m.save();
    }
    QCOMPARE(m.errorMessage(), QString("Couldn't save changes to Report.pdf. The file may be locked, or in a folder you don't "
                                       "have permission to change. Use File > Save As to put a copy somewhere else."));
    QVERIFY(m.isDirty());
    QFile f(report);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), before);
}

void TestDocumentModel::saveAsAndThePanels()
{
    DocumentModel &m = *model_;
    m.promptSaveAs(); // no document: no panel
    QVERIFY(panel_->requests.empty());

    panel_->openAnswers.push_back({fixture("Chosen.pdf")});
    m.promptOpen();
    QCOMPARE(panel_->requests.size(), size_t(1));
    QCOMPARE(panel_->requests[0].content, FilePanel::Content::Pdf);
    QVERIFY(!panel_->requests[0].multiple);
    QCOMPARE(m.displayName(), QString("Chosen.pdf"));
    m.promptOpen(); // cancelled
    QCOMPARE(m.displayName(), QString("Chosen.pdf"));

    m.addAnnotation(box(), m.pdfDocument()->page(0), true);
    panel_->saveAnswers.push_back(dir_.filePath("no-such-folder/Copy.pdf"));
    m.promptSaveAs();
    QCOMPARE(panel_->requests.back().proposedName, QString("Chosen.pdf"));
    QCOMPARE(m.errorMessage(), QString("Couldn't save the PDF there. Pick a different folder and try again."));
    QCOMPARE(m.fileURL(), fixture("Chosen.pdf"));
    QVERIFY(m.isDirty());

    m.promptSaveAs(); // cancelled: nothing
    QCOMPARE(m.fileURL(), fixture("Chosen.pdf"));
    panel_->saveAnswers.push_back(dir_.filePath("Copy.pdf"));
    m.promptSaveAs();
    QCOMPARE(m.fileURL(), dir_.filePath("Copy.pdf"));
    QVERIFY(!m.isDirty());
    QCOMPARE(m.recentURLs(), QStringList{fixture("Chosen.pdf")}); // save-as adds no recent entry

    m.setDocument(PdfDocument::create(), {});
    m.promptSaveAs();
    QCOMPARE(panel_->requests.back().proposedName, QString("Untitled.pdf"));

    m.clearRecentDocuments();
    QVERIFY(m.recentURLs().isEmpty());
    QVERIFY(RecentDocuments(recentStore_).list().isEmpty());
}

void TestDocumentModel::everyWriteIsAnnounced()
{
    DocumentModel &m = *model_;
    QSignalSpy dirty(&m, &DocumentModel::isDirtyChanged);
    QSignalSpy page(&m, &DocumentModel::currentPageIndexChanged);
    QSignalSpy error(&m, &DocumentModel::errorMessageChanged);
    m.setIsDirty(false);
    m.setIsDirty(false);
    m.setCurrentPageIndex(0);
    m.setErrorMessage({});
    QCOMPARE(dirty.count(), 2);
    QCOMPARE(page.count(), 1);
    QCOMPARE(error.count(), 1);
}

void TestDocumentModel::undoAndRedoSequences()
{
    DocumentModel &m = *model_;
    m.open(fixture("edits.pdf"));
    auto page = m.pdfDocument()->page(0);
    undoCommand(m); // nothing to undo
    QVERIFY(m.history().undoStack().empty() && m.history().redoStack().empty());

    auto a = box({10, 10, 20, 20}), b = box({50, 50, 20, 20}), c = box({90, 90, 20, 20});
    const int version = m.historyVersion();
    m.addAnnotation(a, page, true);
    m.addAnnotation(b, page, true);
    QCOMPARE(m.historyVersion(), version + 2);
    undoCommand(m);
    QCOMPARE(m.historyVersion(), version + 3);
    undoCommand(m);
    redoCommand(m);
    QCOMPARE(m.history().undoStack().size(), size_t(1));
    QCOMPARE(m.history().redoStack().size(), size_t(1));
    QCOMPARE(a->page(), page);
    QVERIFY(!b->page());

    m.addAnnotation(c, page, true); // a new change empties the redo list
    QVERIFY(m.history().redoStack().empty());
    QCOMPARE(page->annotations(), (std::vector<std::shared_ptr<PdfAnnotation>>{a, c}));

    // Unsaved exactly while the history is away from the point last saved.
    m.save();
    QVERIFY(!m.isDirty());
    undoCommand(m);
    QVERIFY(m.isDirty());
    redoCommand(m);
    QVERIFY(!m.isDirty());
    undoCommand(m);
    m.addAnnotation(box(), page, true); // the saved point can no longer be reached
    undoCommand(m);
    QVERIFY(m.isDirty());
    redoCommand(m);

    // A thousand nudges, all undoable, back to the very first rectangle.
    const QRectF start = a->bounds();
    for (int i = 0; i < 1000; ++i) {
        const QRectF old = a->bounds();
        m.setAnnotationBounds(a, old.translated(1, 0), old);
    }
    QCOMPARE(a->bounds(), start.translated(1000, 0));
    for (int i = 0; i < 1000; ++i)
        undoCommand(m);
    QCOMPARE(a->bounds(), start);
    QCOMPARE(m.history().redoStack().size(), size_t(1000));
    redoCommand(m);
    QCOMPARE(a->bounds(), start.translated(1, 0));
}

void TestDocumentModel::undoOfAChangeOnADeletedPage()
{
    DocumentModel &m = *model_;
    m.open(fixture("pages.pdf", 3));
    auto doc = m.pdfDocument();
    auto page = doc->page(1);
    auto a = box();
    m.addAnnotation(a, page, true);
    QVERIFY(doc->removePage(1));
    m.markPageStructureChanged();
    m.setIsDirty(false);
    undoCommand(m);
    QVERIFY(m.isDirty());
    QCOMPARE(m.history().redoStack().size(), size_t(1));
    QVERIFY(!a->page());
    QCOMPARE(doc->pageCount(), 2);
    for (int i = 0; i < doc->pageCount(); ++i)
        QVERIFY(doc->page(i)->annotations().empty());
    redoCommand(m);
    QCOMPARE(a->page(), page); // back on the detached page, not on the document
    QVERIFY(!page->document());
}

void TestDocumentModel::mutationsAndTheSelection()
{
    DocumentModel &m = *model_;
    m.open(fixture("mutations.pdf"));
    auto page = m.pdfDocument()->page(0);
    auto a = box({10, 10, 20, 20}), b = box({200, 200, 30, 30});
    m.addAnnotation(a, page, true);
    m.addAnnotation(b, page, true);

    m.setSelectedAnnotation(a);
    m.removeAnnotation(a);
    QVERIFY(!m.selectedAnnotation());
    QVERIFY(!a->page());
    undoCommand(m);
    QCOMPARE(a->page(), page);
    QVERIFY(!m.selectedAnnotation());
    redoCommand(m);
    QVERIFY(!a->page());

    // Removing an annotation that is on no page records nothing.
    const size_t records = m.history().undoStack().size();
    m.setIsDirty(false);
    m.removeAnnotation(a);
    QCOMPARE(m.history().undoStack().size(), records);
    QVERIFY(!m.isDirty());

    // Changed bounds or text keep the annotation's place among the others and
    // are one change of the page each; undo restores exactly.
    undoCommand(m);
    m.addAnnotation(box({300, 300, 10, 10}), page, true);
    const auto order = page->annotations();
    QSignalSpy announced(m.pdfDocument()->changes(), &PdfChangeChannel::pageChanged);
    m.setAnnotationBounds(a, {12.5, 10, 20, 20}, {10, 10, 20, 20});
    QCOMPARE(announced.count(), 1);
    QCOMPARE(page->annotations(), order);
    undoCommand(m);
    QCOMPARE(a->bounds(), QRectF(10, 10, 20, 20));
    redoCommand(m);
    QCOMPARE(a->bounds(), QRectF(12.5, 10, 20, 20));

    auto text = PdfAnnotation::create({100, 400, 200, 30}, PdfAnnotation::FreeText);
    text->setContents("before");
    m.addAnnotation(text, page, true);
    text->setContents("after");
    m.setAnnotationContents(text, "after", "before");
    m.addAnnotation(box({0, 0, 5, 5}), page, true);
    undoCommand(m);
    undoCommand(m);
    QCOMPARE(text->contents(), QString("before"));

    // A drag's release changes the bounds only; one whose annotation left its page meanwhile changes nothing.
    const auto stacked = page->annotations();
    m.commitAnnotationDrag(b, page, {220, 220, 30, 30}, {200, 200, 30, 30});
    QCOMPARE(page->annotations(), stacked);
    QCOMPARE(b->bounds(), QRectF(220, 220, 30, 30));
    undoCommand(m);
    QCOMPARE(b->bounds(), QRectF(200, 200, 30, 30));
    page->removeAnnotation(b);
    const size_t steps = m.history().undoStack().size();
    m.commitAnnotationDrag(b, page, {240, 240, 30, 30}, {200, 200, 30, 30});
    QVERIFY(!b->page());
    QCOMPARE(m.history().undoStack().size(), steps);

    // Added without recording: unsaved, counted, not undoable.
    const size_t before = m.history().undoStack().size();
    const int version = m.historyVersion();
    m.setIsDirty(false);
    m.addAnnotation(box(), page, false);
    QVERIFY(m.isDirty());
    QCOMPARE(m.historyVersion(), version + 1);
    QCOMPARE(m.history().undoStack().size(), before);
}

void TestDocumentModel::markupFromTheViewSelection()
{
    DocumentModel &m = *model_;
    m.open(fixture("markup.pdf", 2));
    auto p0 = m.pdfDocument()->page(0), p1 = m.pdfDocument()->page(1);

    // Two lines on one page: one highlight with eight points.
    m.applyMarkup(PdfAnnotation::Highlight, QColor(255, 255, 0, 128), PdfSelection::between(p0, {71, 683}, p0, {300, 667}));
    QCOMPARE(p0->annotations().size(), size_t(1));
    const auto highlight = p0->annotations().front();
    QCOMPARE(highlight->type(), PdfAnnotation::Highlight);
    QCOMPARE(highlight->quadrilateralPoints().size(), 8);
    QCOMPARE(highlight->color().alpha(), 128);
    const QRectF u = highlight->bounds();
    const auto q = highlight->quadrilateralPoints();
    QVERIFY(q[0].y() > q[2].y() && q[1].x() > q[0].x()); // upper left, upper right, lower left
    QVERIFY(std::abs(q[0].y() - u.height()) < 0.01 && std::abs(q[6].y()) < 0.01);

    // Over a page break: one per page, two undo steps.
    const size_t records = m.history().undoStack().size();
    m.applyMarkup(PdfAnnotation::Underline, Qt::blue, PdfSelection::between(p0, {71, 651}, p1, {200, 725}));
    QCOMPARE(m.history().undoStack().size(), records + 2);
    QCOMPARE(p0->annotations().size(), size_t(2));
    QCOMPARE(p1->annotations().size(), size_t(1));
    QCOMPARE(p1->annotations().front()->quadrilateralPoints().size(), 4);

    // A selection without text: nothing.
    m.applyMarkup(PdfAnnotation::StrikeOut, Qt::red, PdfSelection::between(p0, {400, 300}, p0, {500, 200}));
    QCOMPARE(m.history().undoStack().size(), records + 2);

    // Ending after a space ("The "), the mark ends at the last glyph; a space alone marks nothing.
    const QRectF word = p0->selectionForWord({80, 683})->bounds(p0);
    m.applyMarkup(PdfAnnotation::Underline, Qt::blue, PdfSelection::between(p0, {71, 683}, p0, {95, 683}));
    QVERIFY(std::abs(p0->annotations().back()->bounds().right() - word.right()) < 0.01);
    m.applyMarkup(PdfAnnotation::Underline, Qt::blue, PdfSelection::between(p0, {93, 683}, p0, {95, 683}));
    QCOMPARE(m.history().undoStack().size(), records + 3);
}

void TestDocumentModel::changesShowInEveryView()
{
    DocumentModel &m = *model_;
    m.open(fixture("shown.pdf", 1));
    PdfView view;
    view.resize(700, 900);
    view.show();
    view.setDocument(m.pdfDocument());
    auto page = m.pdfDocument()->page(0);
    auto colorAt = [&](QPointF pagePoint) {
        if (!QTest::qWaitFor([&] { return view.isRenderingComplete(); }, 5000))
            return QColor();
        const QPoint p = view.convertFromPage(pagePoint, page).toPoint();
        return view.viewport()->grab().toImage().pixelColor(p);
    };
    const QPointF middle(125, 625);
    QCOMPARE(colorAt(middle), QColor(Qt::white));

    auto a = box({100, 600, 50, 50});
    a->setInteriorColor(Qt::red);
    m.addAnnotation(a, page, true);
    QCOMPARE(colorAt(middle), QColor(Qt::red));
    m.setAnnotationBounds(a, {300, 600, 50, 50}, a->bounds());
    QCOMPARE(colorAt(middle), QColor(Qt::white));
    QCOMPARE(colorAt({325, 625}), QColor(Qt::red));
    undoCommand(m);
    QCOMPARE(colorAt(middle), QColor(Qt::red));
    undoCommand(m);
    QCOMPARE(colorAt(middle), QColor(Qt::white));
    redoCommand(m);
    QCOMPARE(colorAt(middle), QColor(Qt::red));
    m.removeAnnotation(a);
    QCOMPARE(colorAt(middle), QColor(Qt::white));
}

// Rotation, deletion and moves are one undoable step each, however many
// pages they touch; the model's page state and the selection follow every
// change of the page list, and the saved point decides what is unsaved.
void TestDocumentModel::pageWorkIsUndoable()
{
    DocumentModel &m = *model_;
    m.open(fixture("five.pdf", 5));
    auto doc = m.pdfDocument();
    const auto original = doc->pages();
    auto onLast = box();
    m.addAnnotation(onLast, original[4], true);
    m.save();

    m.rotateCurrentPage(-90);
    QCOMPARE(doc->page(0)->rotation(), 270);
    QVERIFY(m.isDirty());
    undoCommand(m);
    QCOMPARE(doc->page(0)->rotation(), 0);
    QVERIFY(!m.isDirty());
    redoCommand(m);
    QCOMPARE(doc->page(0)->rotation(), 270);

    m.setCurrentPageIndex(4);
    m.setSelectedPageIndices({1, 4});
    m.setSelectedAnnotation(onLast);
    const int mutations = m.pageMutationCount();
    m.deletePages({1, 3, 4});
    QCOMPARE(doc->pageCount(), 2);
    QCOMPARE(m.pageMutationCount(), mutations + 1); // one announcement for the whole deletion
    QCOMPARE(m.currentPageIndex(), 1);
    QCOMPARE(m.selectedPageIndices(), QSet<int>{1});
    QVERIFY(!m.selectedAnnotation()); // its page left the document
    undoCommand(m);
    QCOMPARE(doc->pages(), original);
    QCOMPARE(onLast->page(), original[4]);
    redoCommand(m);
    QCOMPARE(doc->pages(), (std::vector{original[0], original[2]}));
    undoCommand(m);
    undoCommand(m);
    QVERIFY(!m.isDirty());

    // A failed step changes nothing and records nothing.
    const size_t steps = m.history().undoStack().size();
    m.changePages([&] { QVERIFY(!doc->setPages({original[0], original[0]})); });
    QCOMPARE(doc->pages(), original);
    QCOMPARE(m.history().undoStack().size(), steps);

    // Page work that goes around the model still leaves the document unsaved.
    QVERIFY(doc->removePage(0));
    QVERIFY(m.isDirty());
    QCOMPARE(m.history().undoStack().size(), steps);

    // The pages come back as themselves in a saved file too.
    m.changePages([&] { doc->setPages({original[4], original[0], original[2]}); });
    const QString saved = dir_.filePath("reordered.pdf");
    QVERIFY(doc->write(saved));
    undoCommand(m);
    QCOMPARE(doc->pageCount(), 4);
    const auto reread = PdfDocument::open(saved);
    QCOMPARE(reread->pageCount(), 3);
    QCOMPARE(reread->page(0)->annotations().size(), size_t(1));
}

int runDocumentModelTests(int argc, char **argv)
{
    TestDocumentModel test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_document.moc"
