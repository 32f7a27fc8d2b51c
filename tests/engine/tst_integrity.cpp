// Engine tests of what editing stands on: other programs' popups stay linked
// to their annotations, page copies within one document are independent of
// their originals, copies never reuse stale objects or keep their source
// alive, and MuPDF's errors stay inside the engine without leaking memory.
#include "FixtureBuilder.h"
#include "LegacyKeys.h"
#include "PdfAnnotation.h"
#include "PdfDisplayList.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"
#include "Testing.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdlib>
#include <functional>
#include <new>
#include <thread>

#include <csignal>
#include <sys/resource.h>

namespace {

// C++ allocations on the test's thread fail from the k-th on while this is
// not negative, the way MuPDF's do with mu::testing::failAllocationAfter.
thread_local long long newsUntilFailure = -1;

void *allocate(std::size_t size)
{
    if (newsUntilFailure == 0)
        throw std::bad_alloc();
    if (newsUntilFailure > 0)
        --newsUntilFailure;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}

} // namespace

// clang-format off
// Every form of the global operator new and delete, so that all of them
// pair up with the same allocator (a sanitizer checks that they do).
void *operator new(std::size_t size) { return allocate(size); }
void *operator new[](std::size_t size) { return allocate(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return std::malloc(size ? size : 1); }
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return std::malloc(size ? size : 1); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }
void operator delete[](void *p, std::size_t) noexcept { std::free(p); }
void operator delete(void *p, const std::nothrow_t &) noexcept { std::free(p); }
void operator delete[](void *p, const std::nothrow_t &) noexcept { std::free(p); }

// clang-format on
namespace {

// The number of annotations whose popup is listed on the same page and names
// the annotation as its parent; -1 (and `problem` says why) when a link is
// broken either way.
int linkedPopups(const inspect::PdfObjects &file, QString &problem)
{
    int pairs = 0;
    for (const QString &pageRef : file.pages()) {
        const QStringList annots = file.annots(pageRef);
        for (const QString &ref : annots) {
            const QJsonObject annot = file.dict(ref);
            if (annot.value("/Subtype").toString() == "/Popup") {
                const QString parent = annot.value("/Parent").toString();
                if (!annots.contains(parent) || file.dict(parent).value("/Popup").toString() != ref) {
                    problem = QString("popup %1 has lost its annotation %2").arg(ref, parent);
                    return -1;
                }
                continue;
            }
            if (!annot.contains("/Popup"))
                continue;
            const QString popup = annot.value("/Popup").toString();
            const QJsonObject popupDict = file.dict(popup);
            if (!annots.contains(popup) || popupDict.value("/Parent").toString() != ref ||
                (popupDict.contains("/P") && popupDict.value("/P").toString() != pageRef)) {
                problem = QString("the popup %1 of %2 is not linked on page %3").arg(popup, ref, pageRef);
                return -1;
            }
            ++pairs;
        }
    }
    return pairs;
}

// What the editor does for a nudge and for its undo: new bounds, then the
// annotation off its page and on again.
void reseatAt(const std::shared_ptr<PdfAnnotation> &annotation, QRectF bounds)
{
    auto page = annotation->page();
    annotation->setBounds(bounds);
    page->removeAnnotation(annotation);
    page->addAnnotation(annotation);
}

// Whether this process has the file open.
bool holdsOpen(const QString &path)
{
    const QString target = QFileInfo(path).canonicalFilePath();
    const QFileInfoList fds = QDir("/proc/self/fd").entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    return std::any_of(fds.begin(), fds.end(), [&](const QFileInfo &fd) { return fd.symLinkTarget() == target; });
}

QColor centreColour(const std::shared_ptr<PdfPage> &page, QRectF pageRect)
{
    const QImage image = page->render(1.0);
    const QPointF p = page->pageToDisplay().map(pageRect.center());
    return image.pixelColor(p.toPoint());
}

QColor popplerColour(const QString &path, int pageNumber, QPointF displayPoint)
{
    QTemporaryDir dir;
    const QString prefix = dir.filePath("page");
    QProcess::execute("pdftoppm", {"-r", "72", "-f", QString::number(pageNumber), "-l", QString::number(pageNumber),
                                   "-singlefile", "-png", path, prefix});
    return QImage(prefix + ".png").pixelColor(displayPoint.toPoint());
}

std::shared_ptr<PdfAnnotation> filledSquare(QRectF bounds, QColor colour)
{
    auto a = PdfAnnotation::create(bounds, PdfAnnotation::Square);
    a->setColor(colour);
    a->setInteriorColor(colour);
    a->setBorderWidth(2);
    return a;
}

// Runs `operation(k)` with MuPDF's allocations failing from the k-th on, for
// growing k until it succeeds. After each run, once MuPDF's caches are
// emptied, exactly the blocks alive before must be alive: an error path that
// leaks fails here. Returns the number of runs that failed.
int failuresWithoutLeaks(const std::function<bool(long long)> &operation)
{
    operation(-1); // fills the caches that live as long as the process
    mu::testing::emptyCaches();
    const long long baseline = mu::testing::liveAllocations();
    int failed = 0;
    for (long long k = 0; k < 1'000'000; k += k < 200 ? 1 : k / 16) {
        const bool ok = operation(k);
        mu::testing::failAllocationAfter(-1);
        mu::testing::emptyCaches();
        const long long live = mu::testing::liveAllocations();
        if (live != baseline) {
            qWarning("allocation %lld failed: %lld blocks left behind", k, live - baseline);
            return -1;
        }
        if (ok)
            return failed;
        ++failed;
    }
    return -1;
}

} // namespace

class TestEngineIntegrity : public QObject {
    Q_OBJECT
private slots:
    void foreignPopupsStayLinked();
    void copiesWithinOneDocumentAreIndependent();
    void copiesAreMadeFromTheSourceAsItIs();
    void mupdfErrorsStayContained();
    void openingLeavesNothingBehind();
    void savesSurviveKillsAndFullDisks();
    void hugePagesGiveNoPicture();
    void legacyKeysMatchKnownVectors();
    void damagedPageTreesOpenAndChange();

private:
    QTemporaryDir dir_;
    QString path(const QString &name) const { return dir_.filePath(name); }
};

void TestEngineIntegrity::foreignPopupsStayLinked()
{
    QVERIFY(fixtures::writePdf(path("popups.pdf"), {fixtures::pageWithPopups(), fixtures::numberedPages(1)[0]}));
    QVERIFY2(fixtures::writeGhostscriptNote(path("gs-note.pdf")), "ps2pdf could not make the note");
    struct Case {
        QString file;
        int popups;
    };
    for (const Case &source : {Case{path("popups.pdf"), 2}, Case{path("gs-note.pdf"), 1}}) {
        QString problem;
        QCOMPARE(linkedPopups(inspect::PdfObjects(source.file), problem), source.popups);
        auto doc = PdfDocument::open(source.file);
        QVERIFY(doc);
        auto page = doc->page(0);
        const auto annotations = page->annotations();
        QCOMPARE(int(annotations.size()), source.popups); // popups are not listed as annotations
        for (const auto &annotation : annotations) {
            const QRectF bounds = annotation->bounds();
            reseatAt(annotation, bounds.translated(6, -4));
            reseatAt(annotation, bounds);
        }
        // Dragged to another page and back.
        auto note = annotations.front();
        if (doc->pageCount() > 1) {
            doc->page(1)->addAnnotation(note);
            QCOMPARE(note->page(), doc->page(1));
            page->addAnnotation(note);
        }
        QCOMPARE(page->annotations().size(), annotations.size());
        const QString saved = path("saved-" + QFileInfo(source.file).fileName());
        QVERIFY(doc->write(saved));
        QCOMPARE(inspect::qpdfProblems(saved), QString());
        QVERIFY2(linkedPopups(inspect::PdfObjects(saved), problem) == source.popups, qPrintable(problem));

        // Copies of the page, in another document and in the same one, bring
        // their own popups along.
        auto other = PdfDocument::create();
        QVERIFY(other->insert(page->copy(), 0));
        QVERIFY(doc->insert(page->copy(), doc->pageCount()));
        QVERIFY(other->write(path("other.pdf")));
        QVERIFY(doc->write(saved));
        QVERIFY2(linkedPopups(inspect::PdfObjects(path("other.pdf")), problem) == source.popups, qPrintable(problem));
        QVERIFY2(linkedPopups(inspect::PdfObjects(saved), problem) == 2 * source.popups, qPrintable(problem));
        auto reopened = PdfDocument::open(saved);
        QVERIFY(reopened);
        QCOMPARE(int(reopened->page(reopened->pageCount() - 1)->annotations().size()), source.popups);
    }
}

void TestEngineIntegrity::copiesWithinOneDocumentAreIndependent()
{
    QVERIFY(fixtures::writePdf(path("two.pdf"), fixtures::numberedPages(2)));
    auto doc = PdfDocument::open(path("two.pdf"));
    QVERIFY(doc);
    const QRectF box(100, 400, 100, 60);
    auto original = filledSquare(box, Qt::red);
    doc->page(0)->addAnnotation(original);
    QVERIFY(doc->insert(doc->page(0)->copy(), 1));
    auto copy = doc->page(1)->annotations().front();
    QVERIFY(copy != original);

    original->setInteriorColor(Qt::blue);
    QCOMPARE(centreColour(doc->page(0), box), QColor(Qt::blue));
    QCOMPARE(centreColour(doc->page(1), box), QColor(Qt::red));
    copy->setInteriorColor(Qt::green);
    QCOMPARE(centreColour(doc->page(0), box), QColor(Qt::blue));
    QCOMPARE(centreColour(doc->page(1), box), QColor(Qt::green));

    // Saved, and as another reader shows it.
    QVERIFY(doc->write(path("restyled.pdf")));
    QCOMPARE(inspect::qpdfProblems(path("restyled.pdf")), QString());
    const QPointF centre = doc->page(0)->pageToDisplay().map(box.center());
    QCOMPARE(popplerColour(path("restyled.pdf"), 1, centre), QColor(Qt::blue));
    QCOMPARE(popplerColour(path("restyled.pdf"), 2, centre), QColor(Qt::green));

    // A copy of a page whose annotation came from the file (its look is the
    // file's own until restyled) is independent too.
    auto reopened = PdfDocument::open(path("restyled.pdf"));
    QVERIFY(reopened->insert(reopened->page(0)->copy(), 2));
    reopened->page(0)->annotations().front()->setInteriorColor(Qt::yellow);
    QCOMPARE(centreColour(reopened->page(0), box), QColor(Qt::yellow));
    QCOMPARE(centreColour(reopened->page(2), box), QColor(Qt::blue));
}

void TestEngineIntegrity::copiesAreMadeFromTheSourceAsItIs()
{
    QVERIFY(fixtures::writePdf(path("source.pdf"), fixtures::numberedPages(2)));
    const QRectF box(100, 400, 100, 60);
    auto target = PdfDocument::create();
    {
        auto source = PdfDocument::open(path("source.pdf"));
        QVERIFY(source);
        auto mark = filledSquare(box, Qt::red);
        source->page(0)->addAnnotation(mark);
        QVERIFY(target->insert(source->page(0)->copy(), 0));
        // The source changes: the next copy shows it as it is now.
        mark->setInteriorColor(Qt::blue);
        QVERIFY(target->insert(source->page(0)->copy(), 1));
    }
    QCOMPARE(centreColour(target->page(0), box), QColor(Qt::red));
    QCOMPARE(centreColour(target->page(1), box), QColor(Qt::blue));
    // The copies do not keep their source: its file is closed once it is gone.
    QVERIFY(!holdsOpen(path("source.pdf")));

    // Pages copied in one batch share what they have in common: the font of
    // the two source pages is written once.
    auto merged = PdfDocument::create();
    {
        auto source = PdfDocument::open(path("source.pdf"));
        const PdfCopyBatch batch(merged);
        QVERIFY(merged->insert(source->page(0)->copy(), 0));
        QVERIFY(merged->insert(source->page(1)->copy(), 1));
    }
    QVERIFY(!holdsOpen(path("source.pdf")));
    QVERIFY(merged->write(path("merged.pdf")));
    const inspect::PdfObjects file(path("merged.pdf"));
    QCOMPARE(file.pages().size(), 2);
    QCOMPARE(file.dict(file.pages()[0]).value("/Resources"), file.dict(file.pages()[1]).value("/Resources"));
}

void TestEngineIntegrity::mupdfErrorsStayContained()
{
    // A C++ exception raised within MuPDF's error handling comes out as it is
    // and leaves MuPDF's error stack as it was, so later MuPDF errors are still
    // caught where they are raised.
    const int depth = mu::testing::errorDepth();
    QVERIFY_THROWS_EXCEPTION(std::bad_alloc, mu::testing::throwThroughNestedTry([] { throw std::bad_alloc(); }));
    QCOMPARE(mu::testing::errorDepth(), depth);
    QVERIFY(fixtures::writeDamaged(path("damaged.pdf")));
    QVERIFY(!PdfDocument::open(path("damaged.pdf")));
    QCOMPARE(mu::testing::errorDepth(), depth);

    // Memory runs out at every step of copying a page with annotations and
    // popups into another document and into its own: nothing leaks, nothing
    // dies. (The objects of an opened file that a step changes are changed
    // once beforehand: MuPDF 1.21 itself frees an object twice when memory
    // runs out while it first takes a file's object in for changing.)
    QVERIFY(fixtures::writePdf(path("popups.pdf"), {fixtures::pageWithPopups()}));
    auto importOnce = [&](bool sameDocument, long long failAfter) {
        auto source = PdfDocument::open(path("popups.pdf"));
        auto target = sameDocument ? source : PdfDocument::create();
        if (!source || !target)
            return false;
        source->page(0)->addAnnotation(filledSquare({300, 600, 50, 50}, Qt::red));
        if (sameDocument && !(target->insert(source->page(0)->copy(), 1) && target->removePage(1)))
            return false;
        auto copy = source->page(0)->copy();
        mu::testing::failAllocationAfter(failAfter);
        const bool ok = target->insert(copy, target->pageCount());
        mu::testing::failAllocationAfter(-1);
        return ok && target->page(target->pageCount() - 1)->annotations().size() == 3;
    };
    QVERIFY(failuresWithoutLeaks([&](long long k) { return importOnce(false, k); }) > 0);
    QVERIFY(failuresWithoutLeaks([&](long long k) { return importOnce(true, k); }) > 0);

    // The same for pages that carry links (explicit and named), bookmarks and
    // form fields, copied in one batch: the carried structure is tied up at
    // the end of the batch. (Only a whole copy is written, after memory is
    // back: MuPDF 1.21's writer leaks a buffer when memory runs out while it
    // compresses a stream, and its object table is left inconsistent when
    // memory runs out while it grows.)
    fixtures::StructuredSpec spec;
    spec.pages = fixtures::numberedPages(3, 1);
    spec.links = {{0, 1}, {0, 2, "last"}, {1, 0, {}, true}};
    spec.namedDestinations = {{"last", 2}};
    spec.outline = {{"One", 0}, {"Rest", 1, {}, {{"Three", -1, "last"}}}};
    spec.fields = {{0, "name", "Ada"}, {1, "city", {}, {72, 400, 200, 24}, true}};
    QVERIFY(fixtures::writeStructuredPdf(path("structured.pdf"), spec));
    // The same with C++ allocations failing instead (the copy keeps lists
    // and names of its own): a failure, never an abort, and no MuPDF block left.
    auto copyStructured = [&](bool failNew, long long failAfter) {
        auto source = PdfDocument::open(path("structured.pdf"));
        auto target = PdfDocument::create();
        if (!source || !target)
            return false;
        const QString group = QStringLiteral("structured");
        bool ok = true;
        if (failNew)
            newsUntilFailure = failAfter;
        else
            mu::testing::failAllocationAfter(failAfter);
        {
            PdfCopyBatch batch(target);
            batch.groupOutline(source, group);
            ok = target->insert(source->page(1)->copy(), 0) && target->insert(source->page(0)->copy(), 0);
        }
        newsUntilFailure = -1;
        mu::testing::failAllocationAfter(-1);
        return ok && target->write(path("structured-copy.pdf"));
    };
    for (bool failNew : {false, true}) {
        QVERIFY(failuresWithoutLeaks([&](long long k) { return copyStructured(failNew, k); }) > 0);
        QVERIFY(inspect::qpdfProblems(path("structured-copy.pdf")).isEmpty());
    }

    // The same while annotations of every kind get their looks written.
    QVERIFY(fixtures::writePdf(path("plain.pdf"), fixtures::numberedPages(1)));
    QImage signature(40, 20, QImage::Format_ARGB32);
    signature.fill(Qt::transparent);
    signature.setPixelColor(5, 5, Qt::black);
    auto annotateOnce = [&](long long failAfter) {
        auto doc = PdfDocument::open(path("plain.pdf"));
        if (!doc)
            return false;
        auto page = doc->page(0);
        auto first = PdfAnnotation::create({300, 72, 10, 10}, PdfAnnotation::Square);
        page->addAnnotation(first);
        page->removeAnnotation(first);
        std::vector<std::shared_ptr<PdfAnnotation>> made{filledSquare({72, 72, 50, 50}, Qt::red),
                                                         PdfAnnotation::create({150, 72, 50, 50}, PdfAnnotation::Circle),
                                                         PdfAnnotation::create({72, 200, 50, 50}, PdfAnnotation::Ink),
                                                         PdfAnnotation::create({72, 300, 200, 20}, PdfAnnotation::Highlight),
                                                         PdfAnnotation::create({72, 400, 300, 40}, PdfAnnotation::FreeText),
                                                         PdfAnnotation::create({72, 500, 80, 40}, PdfAnnotation::Stamp)};
        made[1]->setColor(Qt::blue);
        made[2]->setColor(Qt::black);
        made[2]->addInkPath(QPolygonF({QPointF(0, 0), QPointF(20, 30), QPointF(50, 10)}));
        made[3]->setColor(Qt::yellow);
        made[3]->setQuadrilateralPoints({{0, 20}, {200, 20}, {0, 0}, {200, 0}});
        made[4]->setFont(PdfFont{QStringLiteral("Helvetica"), 14});
        made[4]->setContents(QStringLiteral("Zażółć gęślą jaźń, Ελληνικά, кириллица"));
        made[5]->setStampImage(signature);
        mu::testing::failAllocationAfter(failAfter);
        for (const auto &annotation : made)
            page->addAnnotation(annotation);
        mu::testing::failAllocationAfter(-1);
        return std::all_of(made.begin(), made.end(), [&](const auto &a) { return a->page() == page; });
    };
    QVERIFY(failuresWithoutLeaks(annotateOnce) > 0);

    // A thread whose engine context cannot be made (memory is out) draws
    // nothing and lets go of what it was handed without dying.
    auto list = PdfDocument::open(path("plain.pdf"))->page(0)->displayList();
    bool drawn = true;
    mu::testing::failAllocationAfter(0);
    std::thread([&] {
        drawn = !list->render(0.5).isNull();
        list.reset();
    }).join();
    mu::testing::failAllocationAfter(-1);
    QVERIFY(!drawn && !list);
}

// Opening a file reads its page list; once the document and its pages are
// gone, so is everything MuPDF read for it, also after an unlock.
void TestEngineIntegrity::openingLeavesNothingBehind()
{
    QVERIFY(fixtures::writePdf(path("pages.pdf"), fixtures::numberedPages(40)));
    QVERIFY(fixtures::writeEncrypted(path("locked.pdf"), fixtures::numberedPages(40), "secret"));
    auto openAndRead = [&] {
        auto plain = PdfDocument::open(path("pages.pdf"));
        auto locked = PdfDocument::open(path("locked.pdf"));
        return plain && locked && locked->unlock("secret") && plain->pageCount() == 40 && locked->pageCount() == 40 &&
               locked->page(39)->text().startsWith("Page 40");
    };
    QVERIFY(openAndRead());
    mu::testing::emptyCaches();
    const long long baseline = mu::testing::liveAllocations();
    for (int round = 0; round < 3; ++round) {
        QVERIFY(openAndRead());
        mu::testing::emptyCaches();
        QCOMPARE(mu::testing::liveAllocations(), baseline);
    }
}

// Saves the document over its own file again and again, each time with one
// more annotation, saying "saving" before and "saved" after each save.
int runSaveWorker(const QString &path)
{
    auto doc = PdfDocument::open(path);
    if (!doc)
        return 1;
    QTextStream out(stdout);
    for (int i = 0;; ++i) {
        doc->page(i % doc->pageCount())->addAnnotation(filledSquare({72, 72, 40, 40}, Qt::red));
        out << "saving" << Qt::endl;
        if (!doc->write(path))
            return 2;
        out << "saved" << Qt::endl;
    }
}

// The temporary files of saves of `file` in its folder.
QStringList leftovers(const QString &file)
{
    const QFileInfo info(file);
    const QRegularExpression ours("^\\." + QRegularExpression::escape(info.fileName()) + "\\.vellora-save-");
    return info.dir().entryList(QDir::Files | QDir::Hidden).filter(ours);
}

// A process killed at any moment of a save over its own file leaves the old
// file or the new one, whole; the temporary file a kill leaves is cleared by
// the next save. A write that fails half-way (the file size limit stands in
// for a full disk) leaves the old file as it was.
void TestEngineIntegrity::savesSurviveKillsAndFullDisks()
{
    const QString file = path("large.pdf");
    const int pages = 1500;
    QVERIFY(fixtures::writePdf(file, fixtures::numberedPages(pages, 12)));
    int killedMidSave = 0;
    for (int round = 0; round < 20; ++round) {
        QProcess worker;
        worker.start(QCoreApplication::applicationFilePath(), {"--save-worker", file});
        QVERIFY(worker.waitForStarted());
        // Let it get into its first or second save, then kill it at a random moment.
        QElapsedTimer clock;
        clock.start();
        QByteArray said;
        while (said.count("saving") < 1 + round % 2 && clock.elapsed() < 60000) {
            worker.waitForReadyRead(100);
            said += worker.readAllStandardOutput();
        }
        QVERIFY2(said.contains("saving"), said.constData());
        QTest::qSleep(QRandomGenerator::global()->bounded(400));
        worker.kill();
        QVERIFY(worker.waitForFinished());
        said += worker.readAllStandardOutput();
        killedMidSave += said.trimmed().endsWith("saving");
        QCOMPARE(inspect::qpdfProblems(file), QString());
        auto reopened = PdfDocument::open(file);
        QVERIFY(reopened);
        QCOMPARE(reopened->pageCount(), pages);
    }
    qInfo("%d of 20 kills fell into a save", killedMidSave);
    QVERIFY2(killedMidSave >= 5, qPrintable(QString("only %1 kills fell into a save").arg(killedMidSave)));
    // What a kill between writing the temporary file and renaming it leaves.
    QVERIFY(fixtures::writeFile(path(".large.pdf.vellora-save-Ab3dE9"), "%PDF-1.7 a complete copy"));
    QVERIFY(fixtures::writeFile(path(".large.pdf.vellora-saved"), "not ours"));
    auto doc = PdfDocument::open(file);
    QVERIFY(doc->write(file));
    QCOMPARE(leftovers(file), QStringList());
    QVERIFY(QFile::exists(path(".large.pdf.vellora-saved")));

    // A full disk.
    const QByteArray before = [&] {
        QFile f(file);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }();
    doc->page(0)->addAnnotation(filledSquare({200, 200, 40, 40}, Qt::blue));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{rlim_t(before.size() / 2), limit.rlim_max};
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool written = doc->write(file);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limit), 0);
    QVERIFY(!written);
    QFile after(file);
    QVERIFY(after.open(QIODevice::ReadOnly));
    QVERIFY(after.readAll() == before);
    QCOMPARE(leftovers(file), QStringList());
}

// A page whose box claims an absurd size (the fuzzer found one 10^74 points
// high) renders no picture instead of asking for gigabytes; a region of it,
// and its thumbnail fitted into a small size, still show.
void TestEngineIntegrity::hugePagesGiveNoPicture()
{
    fixtures::PageSpec tall = fixtures::numberedPages(1)[0];
    tall.mediaBox = QRectF(0, 0, 612, 2e9);
    fixtures::PageSpec wide = fixtures::numberedPages(1)[0];
    wide.mediaBox = QRectF(0, 0, 1e7, 1e7);
    QVERIFY(fixtures::writePdf(path("huge.pdf"), {tall, wide}));
    auto doc = PdfDocument::open(path("huge.pdf"));
    QVERIFY(doc);
    for (int i = 0; i < 2; ++i) {
        auto page = doc->page(i);
        QVERIFY(page->render(0.03).isNull());
        QVERIFY(page->render(1.0).isNull());
        QVERIFY(!page->render(1.0, QRectF(0, 0, 100, 100), {}).isNull());
        const QImage thumbnail = page->thumbnail(QSize(90, 120));
        QVERIFY(!thumbnail.isNull());
        QVERIFY(thumbnail.width() <= 90 && thumbnail.height() <= 120);
    }
}

int runIntegrityTests(int argc, char **argv)
{
    TestEngineIntegrity tests;
    return QTest::qExec(&tests, argc, argv);
}

// The older handler's keys against vectors worked out independently (owner
// password "owner", user password "secret", /P -3904, /ID "0123456789abcdef"):
// the user password opens, the owner password unwraps it, another fails.
void TestEngineIntegrity::legacyKeysMatchKnownVectors()
{
    auto bytes = [](const char *hex) { return QByteArray::fromHex(hex); };
    auto text = [](const char *s) { return reinterpret_cast<const unsigned char *>(s); };
    struct Vector {
        int revision, keyLength;
        const char *owner, *user, *key;
    } vectors[] = {
        {2, 5, "92fe0f4454ad4c9644693f33c07cb54f587dce1e2682fe9ecea6107a1ef630dd",
         "c23375c0c41ad2d3a9cdcea32ae5175b0b1951676a733568c83f9694734e6aac", "f05e0b9c64"},
        {3, 16, "0db5855fc5326569e765906caf64e4429a4c20d6e996fdef963e9b5080f9e083",
         "4cf657064ccfab2bfddd6c4da766e74600000000000000000000000000000000", "410d7d87cd7e234ae6c72f40ee7efb80"},
    };
    for (const Vector &v : vectors) {
        legacy::Handler handler;
        handler.revision = v.revision;
        handler.keyLength = v.keyLength;
        std::memcpy(handler.owner.data(), bytes(v.owner).constData(), 32);
        std::memcpy(handler.user.data(), bytes(v.user).constData(), 32);
        handler.permissions = uint32_t(-3904);
        handler.id = "0123456789abcdef";
        const legacy::Key key = legacy::fileKey(handler, text("secret"), 6);
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(key.data()), v.keyLength), bytes(v.key));
        QVERIFY(legacy::keyMatches(handler, key));
        const auto user = legacy::userPasswordFromOwner(handler, text("owner"), 5);
        QVERIFY(legacy::keyMatches(handler, legacy::fileKey(handler, user.data(), user.size())));
        QVERIFY(!legacy::keyMatches(handler, legacy::fileKey(handler, text("Secret"), 6)));
    }
}

// Files whose page tree names a node its own parent, lists its root among
// its pages, loops, claims 2147483647 pages or nests 200 deep open with the
// pages other readers show; deleting, putting back, copying and reordering
// pages succeed, and the saved file holds them with what they inherited.
void TestEngineIntegrity::damagedPageTreesOpenAndChange()
{
    using fixtures::TreeDamage;
    auto firstLines = [](const std::shared_ptr<PdfDocument> &doc) {
        QStringList lines;
        for (int i = 0; doc && i < doc->pageCount(); ++i)
            lines << doc->page(i)->text().section(QLatin1Char('\n'), 0, 0).trimmed();
        return lines;
    };
    for (TreeDamage damage :
         {TreeDamage::SelfParent, TreeDamage::RootAmongKids, TreeDamage::Loop, TreeDamage::HugeCount, TreeDamage::Deep}) {
        const QString file = path(QStringLiteral("tree-%1.pdf").arg(int(damage)));
        QVERIFY(fixtures::writeFile(file, fixtures::buildDamagedTree(damage)));
        auto doc = PdfDocument::open(file);
        QCOMPARE(firstLines(doc), QStringList({"Page 1", "Page 2", "Page 3"}));
        auto first = doc->page(0);
        QVERIFY(doc->removePage(0));
        QVERIFY(doc->insert(first, 0));
        QVERIFY(doc->removePage(0));
        QVERIFY(doc->insert(doc->page(0)->copy(), 2));
        QVERIFY(doc->setPages({doc->page(1), doc->page(0), doc->page(2)}));
        QVERIFY(doc->write(path("tree-saved.pdf")));
        QCOMPARE(firstLines(PdfDocument::open(path("tree-saved.pdf"))), QStringList({"Page 3", "Page 2", "Page 2"}));
        QVERIFY(inspect::qpdfProblems(path("tree-saved.pdf")).isEmpty());
    }
}

#include "tst_integrity.moc"
