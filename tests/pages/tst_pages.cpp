// Page work: the page operations and the range parser as functions, the four
// dialogs driven through their buttons with scripted file choosers, the
// thumbnail sidebar and the Pages menu driven with the mouse, and the window
// presenting the dialogs.
#include "ActAsNobody.h"
#include "ContentView.h"
#include "DocumentModel.h"
#include "ExtractPagesSheet.h"
#include "FixtureBuilder.h"
#include "InsertPagesSheet.h"
#include "MergeSheet.h"
#include "PageOperations.h"
#include "PageWorkProgress.h"
#include "PagesMenu.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "ReorderableListView.h"
#include "ScriptedFilePanel.h"
#include "SplitSheet.h"
#include "ThumbnailCache.h"
#include "ThumbnailSidebarView.h"

#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using Ranges = std::vector<PageRange>;
Q_DECLARE_METATYPE(Ranges)
using Offsets = std::set<qint64>;

namespace {

// What each page says first: "Page 3" for the numbered fixtures, "A1" for lettered ones.
QStringList labels(const std::shared_ptr<PdfDocument> &document)
{
    QStringList result;
    for (int i = 0; document && i < document->pageCount(); ++i)
        result.append(document->page(i)->text().section(QLatin1Char('\n'), 0, 0).trimmed());
    return result;
}

QStringList labelsOf(const QString &path)
{
    return labels(PdfDocument::open(path));
}

// Pages saying prefix + number ("A1", "A2", ...).
QString lettered(const QString &folder, const QString &prefix, int count)
{
    std::vector<fixtures::PageSpec> pages(size_t(std::max(count, 0)));
    for (int i = 0; i < count; ++i)
        pages[size_t(i)].text.push_back({prefix + QString::number(i + 1), {72, 720}, 24});
    const QString path = folder + QLatin1Char('/') + prefix + QStringLiteral(".pdf");
    fixtures::writePdf(path, pages);
    return path;
}

QStringList range(const QString &prefix, int from, int to)
{
    QStringList result;
    for (int i = from; i <= to; ++i)
        result.append(prefix + QString::number(i));
    return result;
}

} // namespace

class TestPages : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void cleanup();

    void parseRanges_data();
    void parseRanges();
    void buildingOperations();
    void insertPages();
    void movePages();
    void stoppedWorkLeavesNothing();
    void pageWorkHoldsInput();

    void splitFileNames_data();
    void splitFileNames();
    void splitSheetStates();
    void splitWriteFailures();
    void mergeSheetList();
    void mergeSheetMerging();
    void extractSheet();
    void insertSheet_data();
    void insertSheet();
    void insertSheetStaysOpen();

    void sidebarClicks();
    void sidebarDragReorders();
    void sidebarRebuildsAndEmptyState();
    void sidebarThumbnailsAreLazy();
    void pagesMenu();
    void windowPresentsSheets();

private:
    QString numbered(const QString &name, int pages = 3) { return fixtures::numberedFile(dir_.path(), name, pages); }
    QString folder(const QString &name);
    void openModel(const QString &path);

    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::shared_ptr<ScriptedFilePanel> panel_;
    int run_ = 0;
};

void TestPages::initTestCase()
{
    // Readable by "nobody" for the tests that give up root.
    QVERIFY(::chmod(QFile::encodeName(dir_.path()).constData(), 0755) == 0);
    qputenv("XDG_DATA_HOME", dir_.filePath("data").toLocal8Bit());
    qRegisterMetaType<Ranges>();
}

void TestPages::init()
{
    model_ = std::make_unique<DocumentModel>(RecentDocuments(dir_.filePath(QString("recent-%1.xbel").arg(++run_))));
    panel_ = std::make_shared<ScriptedFilePanel>();
    model_->setFilePanel(panel_);
}

void TestPages::cleanup()
{
    model_.reset();
    panel_.reset();
}

QString TestPages::folder(const QString &name)
{
    const QString path = dir_.filePath(QString("%1-%2").arg(name).arg(run_));
    QDir().mkpath(path);
    return path;
}

void TestPages::openModel(const QString &path)
{
    model_->open(path);
    QVERIFY(model_->pdfDocument());
    QVERIFY(!model_->isDirty());
}

// ---- Page ranges -----------------------------------------------------------

void TestPages::parseRanges_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<Ranges>("expected");
    auto ok = [](const char *name, const QString &text, Ranges ranges) { QTest::newRow(name) << text << true << ranges; };
    auto no = [](const char *name, const QString &text) { QTest::newRow(name) << text << false << Ranges{}; };
    ok("mixed", "1-3, 4, 5-10", {{0, 2}, {3, 3}, {4, 9}});
    ok("order kept", "5, 1-3", {{4, 4}, {0, 2}});
    ok("repeats kept", "2, 2, 1-3", {{1, 1}, {1, 1}, {0, 2}});
    ok("one-page range", "3-3", {{2, 2}});
    ok("spaces around", " 1 - 3 ", {{0, 2}});
    ok("tabs around hyphen", "1\t-\t3", {{0, 2}});
    ok("no-break space", QString::fromUtf8("1\u00a0-\u20033"), {{0, 2}});
    ok("double hyphen", "1--3", {{0, 2}});
    ok("plus sign", "+2", {{1, 1}});
    ok("leading zero", "02", {{1, 1}});
    ok("empty piece between commas", "1,,3", {{0, 0}, {2, 2}});
    ok("trailing comma", "1,3,", {{0, 0}, {2, 2}});
    ok("leading comma", ",1", {{0, 0}});
    ok("whole document", "1-10", {{0, 9}});
    no("empty", "");
    no("blank", " ");
    no("only a comma", ",");
    no("blank piece", "1, , 3");
    no("blank trailing piece", "1,3, ");
    no("zero", "0");
    no("past the end", "11");
    no("range from zero", "0-2");
    no("range past the end", "9-11");
    no("reversed", "5-3");
    no("open start", "-3");
    no("open end", "3-");
    no("three bounds", "1-2-3");
    no("inner space", "1 2");
    no("letter", "a");
    no("decimal", "1.5");
    no("en dash", QString::fromUtf8("1\u20133"));
    no("two plus signs", "++2");
    no("plus alone", "+");
    no("arabic-indic digit", QString::fromUtf8("\u0663"));
    no("twenty nines", QString(20, QLatin1Char('9')));
    no("line break", "1,\n2");
}

void TestPages::parseRanges()
{
    QFETCH(QString, text);
    QFETCH(bool, accepted);
    QFETCH(Ranges, expected);
    const auto result = SplitSheet::parseRanges(text, 10);
    QCOMPARE(result.has_value(), accepted);
    if (accepted)
        QCOMPARE(*result, expected);
}

// ---- Page operations -------------------------------------------------------

void TestPages::buildingOperations()
{
    const QString dir = folder("ops");
    auto a = PdfDocument::open(lettered(dir, "A", 2));
    auto b = PdfDocument::create();
    auto c = PdfDocument::open(lettered(dir, "C", 3));
    auto four = PdfDocument::open(numbered("four.pdf", 4));
    // A page carries its rotation and annotations into every copy.
    four->page(1)->setRotation(90);
    auto mark = PdfAnnotation::create({100, 100, 50, 50}, PdfAnnotation::Square);
    four->page(1)->addAnnotation(mark);

    auto merged = PageOperations::merge({a, b, c});
    QCOMPARE(labels(merged), (QStringList{"A1", "A2", "C1", "C2", "C3"}));
    QCOMPARE(labels(a), (QStringList{"A1", "A2"}));
    QCOMPARE(labels(c), range("C", 1, 3));
    QCOMPARE(PageOperations::merge({})->pageCount(), 0);
    QCOMPARE(labels(PageOperations::merge({a, a})), (QStringList{"A1", "A2", "A1", "A2"}));

    const auto singles = PageOperations::splitEveryPage(c);
    QCOMPARE(singles.size(), size_t(3));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(labels(singles[size_t(i)]), QStringList{QString("C%1").arg(i + 1)});
    QVERIFY(PageOperations::splitEveryPage(b).empty());

    const auto parts = PageOperations::splitByRanges(four, {{0, 2}, {1, 1}, {1, 1}});
    QCOMPARE(parts.size(), size_t(3));
    QCOMPARE(labels(parts[0]), (QStringList{"Page 1", "Page 2", "Page 3"}));
    QCOMPARE(labels(parts[1]), QStringList{"Page 2"});
    QCOMPARE(labels(parts[2]), QStringList{"Page 2"});
    // Separate copies: changing one leaves the other and the source alone.
    QVERIFY(parts[1]->page(0) != parts[2]->page(0));
    QCOMPARE(parts[1]->page(0)->rotation(), 90);
    QCOMPARE(parts[1]->page(0)->annotations().size(), size_t(1));
    parts[1]->page(0)->setRotation(0);
    QCOMPARE(parts[2]->page(0)->rotation(), 90);
    QCOMPARE(four->page(1)->rotation(), 90);
    QCOMPARE(four->pageCount(), 4);
    QVERIFY(PageOperations::splitByRanges(four, {}).empty());

    const auto extracted = PageOperations::extractPages(four, {3, 0, 3});
    QCOMPARE(labels(extracted), (QStringList{"Page 1", "Page 4", "Page 4"}));
    QCOMPARE(PageOperations::extractPages(four, {})->pageCount(), 0);

    // What was copied survives writing and reading back.
    const QString written = dir + "/extract.pdf";
    QVERIFY(PageOperations::extractPages(four, {1})->write(written));
    auto reread = PdfDocument::open(written);
    QCOMPARE(labels(reread), QStringList{"Page 2"});
    QCOMPARE(reread->page(0)->rotation(), 90);
    QCOMPARE(reread->page(0)->annotations().size(), size_t(1));
}

void TestPages::insertPages()
{
    const QString dir = folder("insert");
    const QStringList d{"D1", "D2", "D3"}, s{"S1", "S2"};
    // At 0, 1, the end, and past the end (limited to the end).
    const std::vector<std::pair<qint64, QStringList>> cases{
        {0, s + d}, {1, QStringList{"D1"} + s + QStringList{"D2", "D3"}}, {3, d + s}, {9, d + s}};
    for (const auto &[at, expected] : cases) {
        auto source = PdfDocument::open(lettered(dir, "S", 2));
        auto destination = PdfDocument::open(lettered(dir, "D", 3));
        QVERIFY(PageOperations::insertPages(source, destination, at));
        QCOMPARE(labels(destination), expected);
        QCOMPARE(labels(source), s);
    }
    // Into itself: the pages as they were before.
    auto source = PdfDocument::open(lettered(dir, "S", 2));
    QVERIFY(PageOperations::insertPages(source, source, 1));
    QCOMPARE(labels(source), (QStringList{"S1", "S1", "S2", "S2"}));
}

void TestPages::movePages()
{
    // The move rule, on pages A B C D E.
    const std::vector<std::tuple<Offsets, qint64, QString>> examples{{{1}, 4, "ACDBE"}, {{3}, 0, "DABCE"}, {{0, 2}, 5, "BDEAC"},
                                                                     {{1}, 1, "ABCDE"}, {{1}, 2, "ABCDE"}, {{4, 0}, 2, "BAECD"}};
    for (const auto &[offsets, to, expected] : examples) {
        QString order;
        for (qint64 i : PageOperations::movedOrder(5, offsets, to))
            order += QChar('A' + int(i));
        QCOMPARE(order, expected);
    }
    // Every move in a five-page document follows it, moving the page objects
    // themselves (no copies), annotations included.
    for (int subset = 1; subset < 32; ++subset) {
        Offsets moved;
        for (int i = 0; i < 5; ++i)
            if (subset & (1 << i))
                moved.insert(i);
        for (qint64 gap = 0; gap <= 5; ++gap) {
            auto document = PdfDocument::open(numbered("five.pdf", 5));
            std::vector<std::shared_ptr<PdfPage>> pages;
            for (int i = 0; i < 5; ++i)
                pages.push_back(document->page(i));
            auto mark = PdfAnnotation::create({100, 100, 50, 50}, PdfAnnotation::Circle);
            pages[1]->addAnnotation(mark);
            PageOperations::movePages(document, moved, gap);
            const auto order = PageOperations::movedOrder(5, moved, gap);
            QCOMPARE(document->pageCount(), 5);
            for (int i = 0; i < 5; ++i)
                QCOMPARE(document->page(i), pages[size_t(order[size_t(i)])]);
            QCOMPARE(mark->page(), pages[1]);
        }
    }
    auto document = PdfDocument::open(numbered("five.pdf", 5));
    PageOperations::movePages(document, {0, 2}, 5);
    QCOMPARE(labels(document), (QStringList{"Page 2", "Page 4", "Page 5", "Page 1", "Page 3"}));
}

void TestPages::stoppedWorkLeavesNothing()
{
    const QString dir = folder("stop");
    auto source = PdfDocument::open(lettered(dir, "S", 4));
    auto destination = PdfDocument::open(lettered(dir, "D", 2));
    std::vector<std::pair<qint64, qint64>> reports;
    auto stopAfter = [&](qint64 n) {
        reports.clear();
        return [&reports, n](qint64 done, qint64 total) {
            reports.emplace_back(done, total);
            return done < n;
        };
    };

    // Stopped half-way, an insertion takes its pages out again.
    QVERIFY(!PageOperations::insertPages(source, destination, 1, stopAfter(2)));
    QCOMPARE(labels(destination), (QStringList{"D1", "D2"}));
    QCOMPARE(reports, (std::vector<std::pair<qint64, qint64>>{{1, 4}, {2, 4}}));

    QVERIFY(!PageOperations::merge({source, destination}, stopAfter(5)));
    QCOMPARE(reports.back(), (std::pair<qint64, qint64>{5, 6}));
    QVERIFY(PageOperations::splitEveryPage(source, stopAfter(1)).empty());
    QVERIFY(PageOperations::splitByRanges(source, {{0, 1}, {2, 3}}, stopAfter(3)).empty());
    QCOMPARE(reports.back(), (std::pair<qint64, qint64>{3, 4}));
    QVERIFY(!PageOperations::extractPages(source, {0, 1}, stopAfter(1)));

    // Reports that always answer yes change nothing.
    QVERIFY(PageOperations::insertPages(source, destination, 2, stopAfter(100)));
    QCOMPARE(labels(destination), (QStringList{"D1", "D2", "S1", "S2", "S3", "S4"}));
}

// While page work runs and its progress shows, a click in any window but the
// progress dialog (another document's, a sheet's) does nothing.
void TestPages::pageWorkHoldsInput()
{
    QWidget sheet;
    sheet.show();
    QPushButton other("Other window");
    other.show();
    QVERIFY(QTest::qWaitForWindowExposed(&other));
    int clicks = 0;
    connect(&other, &QPushButton::clicked, this, [&clicks] { ++clicks; });
    QTest::mouseClick(other.windowHandle(), Qt::LeftButton, {}, other.rect().center());
    {
        PageWorkProgress progress(&sheet, true);
        progress.begin("Working", true);
        for (qint64 done = 1; !progress.wasShown(); ++done)
            QVERIFY(progress.step(done, 1'000'000));
        QTest::mouseClick(other.windowHandle(), Qt::LeftButton, {}, other.rect().center());
        QVERIFY(progress.step(2'000'000, 1'000'000));
    }
    QCOMPARE(clicks, 1);
}

// ---- Split sheet -----------------------------------------------------------

void TestPages::splitFileNames_data()
{
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<int>("pages");
    QTest::addColumn<QString>("ranges"); // empty: every page
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QList<int>>("pageCounts");
    QTest::newRow("every page") << "Report.pdf" << 3 << ""
                                << QStringList{"Report-page-1.pdf", "Report-page-2.pdf", "Report-page-3.pdf"}
                                << QList<int>{1, 1, 1};
    QTest::newRow("one page") << "Report.pdf" << 1 << "" << QStringList{"Report-page-1.pdf"} << QList<int>{1};
    QTest::newRow("ranges") << "Report.pdf" << 10 << "1-3, 4, 5-10"
                            << QStringList{"Report-pages-1-3.pdf", "Report-page-4.pdf", "Report-pages-5-10.pdf"}
                            << QList<int>{3, 1, 6};
    QTest::newRow("one-page range") << "Report.pdf" << 3 << "2-2" << QStringList{"Report-page-2.pdf"} << QList<int>{1};
    QTest::newRow("same range twice") << "Report.pdf" << 3 << "1-2, 1-2" << QStringList{"Report-pages-1-2.pdf"} << QList<int>{2};
    QTest::newRow("last extension only") << "a.b.pdf" << 2 << "" << QStringList{"a.b-page-1.pdf", "a.b-page-2.pdf"}
                                         << QList<int>{1, 1};
    QTest::newRow("no file") << "" << 2 << "" << QStringList{"document-page-1.pdf", "document-page-2.pdf"} << QList<int>{1, 1};
}

void TestPages::splitFileNames()
{
    QFETCH(QString, fileName);
    QFETCH(int, pages);
    QFETCH(QString, ranges);
    QFETCH(QStringList, files);
    QFETCH(QList<int>, pageCounts);
    const QString source = folder("source") + "/" + (fileName.isEmpty() ? QString("x.pdf") : fileName);
    QVERIFY(fixtures::writePdf(source, fixtures::numberedPages(pages)));
    if (fileName.isEmpty())
        model_->setDocument(PdfDocument::open(source), {});
    else
        openModel(source);
    const QString out = folder("out");
    panel_->folderAnswers = {out};

    SplitSheet sheet(model_.get());
    sheet.open();
    if (!ranges.isEmpty()) {
        sheet.setMode(SplitSheet::SplitMode::ranges);
        sheet.setRangesText(ranges);
    }
    QTest::mouseClick(sheet.splitButton(), Qt::LeftButton);
    QVERIFY(!sheet.isVisible());
    QCOMPARE(sheet.result(), int(QDialog::Accepted));
    QVERIFY(model_->errorMessage().isEmpty());
    QStringList sorted = files;
    sorted.sort();
    QCOMPARE(QDir(out).entryList(QDir::Files, QDir::Name), sorted);
    for (int i = 0; i < files.size(); ++i)
        QCOMPARE(PdfDocument::open(out + "/" + files[i])->pageCount(), pageCounts[i]);
    if (ranges == "1-3, 4, 5-10")
        QCOMPARE(labelsOf(out + "/Report-pages-5-10.pdf"),
                 (QStringList{"Page 5", "Page 6", "Page 7", "Page 8", "Page 9", "Page 10"}));
    // The open document is left as it was.
    QCOMPARE(model_->pdfDocument()->pageCount(), pages);
}

void TestPages::splitSheetStates()
{
    SplitSheet sheet(model_.get());
    sheet.open();
    // The initial state: every page, no ranges row, no error line.
    QCOMPARE(sheet.mode(), SplitSheet::SplitMode::everyPage);
    QCOMPARE(sheet.modeButton(SplitSheet::SplitMode::everyPage)->text(), QString("Every page as its own file"));
    QCOMPARE(sheet.modeButton(SplitSheet::SplitMode::ranges)->text(), QString("Custom page ranges"));
    QVERIFY(sheet.hintLabel()->isHidden() && sheet.rangesField()->isHidden() && sheet.errorLabel()->isHidden());
    QCOMPARE(sheet.width(), SplitSheet::sheetWidth);

    // No document: nothing happens.
    QTest::mouseClick(sheet.splitButton(), Qt::LeftButton);
    QVERIFY(sheet.isVisible());
    QVERIFY(panel_->requests.empty());

    openModel(numbered("two.pdf", 2));
    auto choose = [&](SplitSheet::SplitMode mode) {
        QRadioButton *button = sheet.modeButton(mode);
        QTest::mouseClick(button, Qt::LeftButton, {}, QPoint(10, button->height() / 2));
    };
    choose(SplitSheet::SplitMode::ranges);
    QVERIFY(sheet.rangesField()->isVisible() && sheet.hintLabel()->isVisible());
    QCOMPARE(sheet.rangesField()->placeholderText(), QString("e.g. 1-3, 4-10"));
    QTest::keyClicks(sheet.rangesField(), "1, 3");
    // Return in the field is the default button.
    QTest::keyClick(sheet.rangesField(), Qt::Key_Return);
    QCOMPARE(sheet.errorMessage(),
             QString("Couldn't parse page ranges. Use formats like 1-3, 4, 5-10 (page numbers between 1 and 2)."));
    QVERIFY(sheet.isVisible());
    QVERIFY(panel_->requests.empty()); // no folder chooser
    QCOMPARE(sheet.rangesText(), QString("1, 3"));

    // Cancelled folder chooser: open, state kept.
    sheet.setRangesText("1-2");
    QTest::mouseClick(sheet.splitButton(), Qt::LeftButton);
    QCOMPARE(panel_->requests.size(), size_t(1));
    QCOMPARE(panel_->requests[0].kind, ScriptedFilePanel::Request::Kind::Folder);
    QVERIFY(sheet.isVisible());
    QCOMPARE(sheet.rangesText(), QString("1-2"));

    // Back to every page: the row goes, the text and the error line stay, and the split works.
    sheet.setRangesText("9");
    QTest::mouseClick(sheet.splitButton(), Qt::LeftButton);
    choose(SplitSheet::SplitMode::everyPage);
    QVERIFY(sheet.rangesField()->isHidden());
    QVERIFY(sheet.errorLabel()->isVisible());
    QCOMPARE(sheet.rangesText(), QString("9"));
    const QString out = folder("states");
    panel_->folderAnswers = {out};
    QTest::mouseClick(sheet.splitButton(), Qt::LeftButton);
    QVERIFY(!sheet.isVisible());
    QCOMPARE(QDir(out).entryList(QDir::Files).size(), 2);
    QVERIFY(model_->errorMessage().isEmpty());
    QVERIFY(!model_->isDirty());
}

void TestPages::splitWriteFailures()
{
    openModel(numbered("Report.pdf", 3));

    // Some files fail: a folder stands where page 2's file would go.
    const QString partly = folder("partly");
    QVERIFY(QDir(partly).mkdir("Report-page-2.pdf"));
    panel_->folderAnswers = {partly};
    SplitSheet sheet(model_.get());
    sheet.open();
    sheet.performSplit();
    QVERIFY(!sheet.isVisible());
    QCOMPARE(model_->errorMessage(), QString("Only 2 of 3 files saved. The rest couldn't be written to that folder."));
    QVERIFY(QFile::exists(partly + "/Report-page-1.pdf") && QFile::exists(partly + "/Report-page-3.pdf"));
    model_->setErrorMessage({});

    // Every file fails: a folder the user may not write into.
    const QString locked = folder("locked");
    QVERIFY(::chmod(QFile::encodeName(locked).constData(), 0755) == 0);
    panel_->folderAnswers = {locked};
    SplitSheet again(model_.get());
    again.open();
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        again.performSplit();
    }
    QVERIFY(!again.isVisible());
    QCOMPARE(model_->errorMessage(),
             QString("Couldn't save the split files to that folder. Pick a different folder and try again."));
    QVERIFY(QDir(locked).entryList(QDir::Files).isEmpty());
}

// ---- Merge sheet -----------------------------------------------------------

void TestPages::mergeSheetList()
{
    const QString dir = folder("list");
    const QString a = lettered(dir, "A", 1), b = lettered(dir, "B", 1), c = lettered(dir, "C", 1);
    MergeSheet sheet(model_.get());
    sheet.show();
    QVERIFY(QTest::qWaitForWindowExposed(&sheet));
    QCOMPARE(sheet.size(), QSize(MergeSheet::sheetWidth, MergeSheet::sheetHeight));
    QVERIFY(sheet.placeholder()->isVisible());
    QCOMPARE(sheet.placeholder()->text(), QString("No files added yet"));
    QVERIFY(!sheet.mergeButton()->isEnabled());
    // Shown as "Merge & Save As...": a single "&" would mark a shortcut letter instead.
    QCOMPARE(sheet.mergeButton()->text(), QString("Merge && Save As..."));

    // A cancelled chooser adds nothing; files come in the chooser's order.
    QTest::mouseClick(sheet.addButton(), Qt::LeftButton);
    QVERIFY(sheet.sources().isEmpty());
    QCOMPARE(panel_->requests.back().multiple, true);
    panel_->openAnswers = {{a}, {b, c}};
    QTest::mouseClick(sheet.addButton(), Qt::LeftButton);
    QVERIFY(!sheet.mergeButton()->isEnabled());
    QTest::mouseClick(sheet.addButton(), Qt::LeftButton);
    QCOMPARE(sheet.sources(), (QStringList{a, b, c}));
    QVERIFY(sheet.list()->isVisible());
    QVERIFY(sheet.mergeButton()->isEnabled() && sheet.mergeButton()->isDefault());

    // Dragging row 3 to the top.
    QWidget *viewport = sheet.list()->viewport();
    const QRect third = sheet.list()->visualRect(sheet.list()->model()->index(2, 0));
    const QRect first = sheet.list()->visualRect(sheet.list()->model()->index(0, 0));
    QTest::mousePress(viewport, Qt::LeftButton, {}, third.center());
    QTest::mouseMove(viewport, third.center() - QPoint(0, 10));
    QTest::mouseMove(viewport, first.topLeft() + QPoint(20, 2));
    QVERIFY(sheet.list()->isDragging());
    QTest::mouseRelease(viewport, Qt::LeftButton, {}, first.topLeft() + QPoint(20, 2));
    QCOMPARE(sheet.sources(), (QStringList{c, a, b}));

    // A click on a row's remove button takes that row out; elsewhere on the row it does nothing.
    QTest::mouseClick(viewport, Qt::LeftButton, {}, first.center());
    QCOMPARE(sheet.sources().size(), 3);
    QTest::mouseClick(viewport, Qt::LeftButton, {}, sheet.removeButtonRect(1).center());
    QCOMPARE(sheet.sources(), (QStringList{c, b}));
    QTest::mouseClick(viewport, Qt::LeftButton, {}, sheet.removeButtonRect(0).center());
    QTest::mouseClick(viewport, Qt::LeftButton, {}, sheet.removeButtonRect(0).center());
    QVERIFY(sheet.sources().isEmpty());
    QVERIFY(sheet.placeholder()->isVisible());
    QVERIFY(!sheet.mergeButton()->isEnabled());
}

void TestPages::mergeSheetMerging()
{
    const QString dir = folder("merge");
    const QString a = lettered(dir, "A", 2), b = lettered(dir, "B", 1);
    const QString damaged = dir + "/damaged.pdf";
    QVERIFY(fixtures::writeDamaged(damaged));
    openModel(numbered("open.pdf", 3));
    const auto before = model_->pdfDocument();

    // Two entries, one of them damaged: nothing happens.
    MergeSheet sheet(model_.get());
    sheet.open();
    panel_->openAnswers = {{a, damaged}};
    sheet.addFiles();
    QTest::mouseClick(sheet.mergeButton(), Qt::LeftButton);
    QVERIFY(sheet.isVisible());
    QCOMPARE(panel_->requests.size(), size_t(1));

    // Three entries, one damaged: the others merge; a cancelled save panel keeps the sheet.
    panel_->openAnswers = {{a}};
    sheet.addFiles();
    QTest::mouseClick(sheet.mergeButton(), Qt::LeftButton);
    QCOMPARE(panel_->requests.back().kind, ScriptedFilePanel::Request::Kind::Save);
    QCOMPARE(panel_->requests.back().proposedName, QString("Merged.pdf"));
    QVERIFY(sheet.isVisible());
    QCOMPARE(sheet.sources(), (QStringList{a, damaged, a}));

    // A write that fails: alert text, sheet closed, the open document unchanged.
    panel_->saveAnswers = {dir}; // a folder cannot be written as a file
    sheet.performMerge();
    QVERIFY(!sheet.isVisible());
    QCOMPARE(model_->errorMessage(), QString("Couldn't save the combined PDF there. Pick a different folder and try again."));
    QCOMPARE(model_->pdfDocument(), before);
    model_->setErrorMessage({});

    // Success: the merged file is written and becomes the open document.
    MergeSheet second(model_.get());
    second.open();
    panel_->openAnswers = {{b, damaged, a, b}};
    second.addFiles();
    const QString target = dir + "/Combined.pdf";
    panel_->saveAnswers = {target};
    QTest::keyClick(&second, Qt::Key_Return);
    QVERIFY(!second.isVisible());
    QVERIFY(model_->errorMessage().isEmpty());
    QCOMPARE(labelsOf(target), (QStringList{"B1", "A1", "A2", "B1"}));
    QCOMPARE(model_->fileURL(), target);
    QCOMPARE(labels(model_->pdfDocument()), (QStringList{"B1", "A1", "A2", "B1"}));
    QVERIFY(!model_->isDirty());
}

// ---- Extract and insert sheets ---------------------------------------------

void TestPages::extractSheet()
{
    openModel(numbered("three.pdf", 3));
    const QString dir = folder("extract");
    {
        ExtractPagesSheet sheet(model_.get());
        sheet.open();
        QCOMPARE(sheet.selectionLabel()->text(), QString("Selected pages: "));
        QVERIFY(!sheet.extractButton()->isEnabled());
        sheet.performExtract();
        QVERIFY(sheet.isVisible());
        QVERIFY(panel_->requests.empty());
    }

    model_->setSelectedPageIndices({2, 0});
    const QString target = dir + "/out.pdf";
    panel_->saveAnswers = {target};
    {
        ExtractPagesSheet sheet(model_.get());
        sheet.open();
        QCOMPARE(sheet.selectionLabel()->text(), QString("Selected pages: 1, 3"));
        QCOMPARE(sheet.extractButton()->text(), QString("Extract && Save As..."));
        QVERIFY(sheet.extractButton()->isEnabled());
        QTest::mouseClick(sheet.extractButton(), Qt::LeftButton);
        QVERIFY(!sheet.isVisible());
    }
    QCOMPARE(panel_->requests.back().proposedName, QString("Extracted.pdf"));
    QCOMPARE(labelsOf(target), (QStringList{"Page 1", "Page 3"}));
    QCOMPARE(model_->pdfDocument()->pageCount(), 3);
    QVERIFY(!model_->isDirty());

    // A cancelled save panel closes the sheet too, and writes nothing.
    model_->setSelectedPageIndices({4, 0, 2});
    {
        ExtractPagesSheet sheet(model_.get());
        sheet.open();
        QCOMPARE(sheet.selectionLabel()->text(), QString("Selected pages: 1, 3, 5"));
        sheet.performExtract();
        QVERIFY(!sheet.isVisible());
    }
    QCOMPARE(QDir(dir).entryList(QDir::Files), QStringList{"out.pdf"});
    QVERIFY(model_->errorMessage().isEmpty());

    // A failed write.
    model_->setSelectedPageIndices({1});
    panel_->saveAnswers = {dir};
    ExtractPagesSheet sheet(model_.get());
    sheet.open();
    sheet.performExtract();
    QVERIFY(!sheet.isVisible());
    QCOMPARE(model_->errorMessage(), QString("Couldn't save the extracted pages there. Pick a different folder and try again."));
}

void TestPages::insertSheet_data()
{
    QTest::addColumn<int>("current");
    QTest::addColumn<int>("stepTo"); // -1: keep the initial value
    QTest::addColumn<QString>("initialLabel");
    QTest::addColumn<QStringList>("expected");
    const QStringList s = range("S", 1, 3);
    QTest::newRow("after the current page") << 1 << -1 << "Insert after page 2"
                                            << (QStringList{"Page 1", "Page 2"} + s + QStringList{"Page 3", "Page 4"});
    QTest::newRow("at the beginning") << 1 << 0 << "Insert after page 2"
                                      << (s + QStringList{"Page 1", "Page 2", "Page 3", "Page 4"});
    QTest::newRow("at the end") << 3 << 4 << "Insert after page 4" << (QStringList{"Page 1", "Page 2", "Page 3", "Page 4"} + s);
}

void TestPages::insertSheet()
{
    QFETCH(int, current);
    QFETCH(int, stepTo);
    QFETCH(QString, initialLabel);
    QFETCH(QStringList, expected);
    openModel(numbered("four.pdf", 4));
    model_->setCurrentPageIndex(current);
    ThumbnailSidebarView sidebar(model_.get());
    const int mutations = model_->pageMutationCount();
    panel_->openAnswers = {{lettered(folder("insert-source"), "S", 3)}};

    InsertPagesSheet sheet(model_.get());
    sheet.open();
    QCOMPARE(sheet.stepper()->text(), initialLabel);
    QCOMPARE(sheet.stepper()->maximum(), 4);
    if (stepTo >= 0) {
        sheet.setInsertAfter(stepTo);
        QCOMPARE(sheet.stepper()->text(),
                 stepTo == 0 ? QString("Insert at the beginning") : QString("Insert after page %1").arg(stepTo));
    }
    QTest::mouseClick(sheet.chooseButton(), Qt::LeftButton);
    QCOMPARE(panel_->requests.back().multiple, false);
    QVERIFY(!sheet.isVisible());
    QCOMPARE(labels(model_->pdfDocument()), expected);
    QVERIFY(model_->isDirty());
    QCOMPARE(model_->pageMutationCount(), mutations + 1);
    QCOMPARE(sidebar.list()->model()->rowCount(), 7);
}

void TestPages::insertSheetStaysOpen()
{
    // No document: no stepper, and the button does nothing.
    InsertPagesSheet none(model_.get());
    none.open();
    QVERIFY(!none.stepper());
    none.chooseAndInsert();
    QVERIFY(none.isVisible() && panel_->requests.empty());

    openModel(numbered("two.pdf", 2));
    const QString damaged = folder("insert-bad") + "/bad.pdf";
    QVERIFY(fixtures::writeDamaged(damaged));
    panel_->openAnswers = {{}, {damaged}};
    InsertPagesSheet sheet(model_.get());
    sheet.open();
    sheet.chooseAndInsert(); // cancelled
    QVERIFY(sheet.isVisible());
    sheet.chooseAndInsert(); // not a PDF
    QVERIFY(sheet.isVisible());
    QCOMPARE(model_->pdfDocument()->pageCount(), 2);
    QVERIFY(!model_->isDirty());
    QVERIFY(model_->errorMessage().isEmpty());
    QTest::mouseClick(sheet.cancelButton(), Qt::LeftButton);
    QVERIFY(!sheet.isVisible());

    // A document without pages: the pages go in at the start.
    model_->pdfDocument()->removePage(0);
    model_->pdfDocument()->removePage(0);
    model_->markPageStructureChanged();
    panel_->openAnswers = {{numbered("one.pdf", 1)}};
    InsertPagesSheet empty(model_.get());
    QCOMPARE(empty.insertAfter(), 1);
    QCOMPARE(empty.stepper()->maximum(), 0);
    empty.chooseAndInsert();
    QCOMPARE(labels(model_->pdfDocument()), QStringList{"Page 1"});
}

// ---- Thumbnail sidebar -----------------------------------------------------

void TestPages::sidebarClicks()
{
    openModel(numbered("six.pdf", 6));
    ThumbnailSidebarView sidebar(model_.get());
    sidebar.resize(180, 700);
    sidebar.show();
    QVERIFY(QTest::qWaitForWindowExposed(&sidebar));
    QWidget *viewport = sidebar.list()->viewport();
    auto click = [&](int row, Qt::KeyboardModifiers modifiers = {}, QPoint offset = {}) {
        QTest::mouseClick(viewport, Qt::LeftButton, modifiers, sidebar.rowRect(row).center() + offset);
    };

    model_->setSelectedPageIndices({1, 3});
    // The empty right-hand part of a row counts as the row.
    click(4, {}, QPoint(sidebar.rowRect(4).width() / 2 - 6, 0));
    QCOMPARE(model_->currentPageIndex(), 4);
    QVERIFY(model_->selectedPageIndices().isEmpty());

    click(4, Qt::ControlModifier);
    QCOMPARE(model_->selectedPageIndices(), QSet<int>{4});
    QCOMPARE(model_->currentPageIndex(), 4);
    click(2, Qt::ControlModifier | Qt::AltModifier);
    QCOMPARE(model_->selectedPageIndices(), (QSet<int>{2, 4}));
    // Two quick Ctrl-clicks are two clicks: selected, then not.
    click(0, Qt::ControlModifier);
    click(0, Qt::ControlModifier);
    QCOMPARE(model_->selectedPageIndices(), (QSet<int>{2, 4}));
    click(4, Qt::ControlModifier);
    QCOMPARE(model_->selectedPageIndices(), QSet<int>{2});
    QCOMPARE(model_->currentPageIndex(), 4);

    // Shift-click is a plain click.
    click(1, Qt::ShiftModifier);
    QCOMPARE(model_->currentPageIndex(), 1);
    QVERIFY(model_->selectedPageIndices().isEmpty());
    QVERIFY(!model_->isDirty());

    // The drawing: the current page's frame in the accent colour, a selected row washed with it.
    model_->setSelectedPageIndices({3});
    QTRY_VERIFY(sidebar.cache()->has(1) && sidebar.cache()->has(3) && sidebar.cache()->has(5));
    const QImage shot = viewport->grab().toImage().convertToFormat(QImage::Format_RGB32);
    const QColor accent = sidebar.palette().color(QPalette::Highlight);
    const QRect current = sidebar.rowRect(1), selected = sidebar.rowRect(3), plain = sidebar.rowRect(5);
    const int pad = ThumbnailSidebarView::padding;
    QCOMPARE(shot.pixelColor(current.left() + pad, current.top() + pad + 30), accent);
    QVERIFY(shot.pixelColor(plain.left() + pad, plain.top() + pad + 30) != accent);
    const QPoint emptyPart(selected.right() - 10, selected.center().y());
    QVERIFY(shot.pixelColor(emptyPart) != shot.pixelColor(plain.right() - 10, plain.center().y()));
    // The thumbnail is the page: white paper inside the frame.
    QCOMPARE(shot.pixelColor(plain.left() + pad + 28, plain.top() + pad + 70), QColor(Qt::white));
}

void TestPages::sidebarDragReorders()
{
    openModel(numbered("four.pdf", 4));
    ThumbnailSidebarView sidebar(model_.get());
    sidebar.resize(180, 500);
    sidebar.show();
    QVERIFY(QTest::qWaitForWindowExposed(&sidebar));
    QWidget *viewport = sidebar.list()->viewport();
    const auto pages = std::vector<std::shared_ptr<PdfPage>>{model_->pdfDocument()->page(0), model_->pdfDocument()->page(1)};

    // The first row dropped below the third: 2, 3, 1, 4; index 0 stays current.
    const QPoint from = sidebar.rowRect(0).center();
    const QPoint to(from.x(), sidebar.rowRect(2).bottom() - 5);
    QTest::mousePress(viewport, Qt::LeftButton, {}, from);
    QTest::mouseMove(viewport, from + QPoint(0, 20));
    QTest::mouseMove(viewport, to);
    QCOMPARE(sidebar.list()->gapAt(to), 3);
    QTest::mouseRelease(viewport, Qt::LeftButton, {}, to);
    QCOMPARE(labels(model_->pdfDocument()), (QStringList{"Page 2", "Page 3", "Page 1", "Page 4"}));
    QCOMPARE(model_->pdfDocument()->page(2), pages[0]);
    QCOMPARE(model_->currentPageIndex(), 0);
    QVERIFY(model_->isDirty());
    // A drag is not a click.
    QVERIFY(model_->selectedPageIndices().isEmpty());

    // Dropped next to itself: nothing moves and nothing is marked.
    model_->setIsDirty(false);
    const int mutations = model_->pageMutationCount();
    const QPoint second = sidebar.rowRect(1).center();
    QTest::mousePress(viewport, Qt::LeftButton, {}, second);
    QTest::mouseMove(viewport, second + QPoint(0, 15));
    QTest::mouseRelease(viewport, Qt::LeftButton, {}, second + QPoint(0, 15));
    QCOMPARE(model_->pageMutationCount(), mutations);
    QVERIFY(!model_->isDirty());

    // To the very end, below the last row.
    const QPoint last(second.x(), sidebar.rowRect(3).bottom() + 40);
    QTest::mousePress(viewport, Qt::LeftButton, {}, second);
    QTest::mouseMove(viewport, second + QPoint(0, 20));
    QTest::mouseMove(viewport, last);
    QTest::mouseRelease(viewport, Qt::LeftButton, {}, last);
    QCOMPARE(labels(model_->pdfDocument()), (QStringList{"Page 2", "Page 1", "Page 4", "Page 3"}));
}

void TestPages::sidebarRebuildsAndEmptyState()
{
    ThumbnailSidebarView sidebar(model_.get());
    sidebar.resize(180, 500);
    sidebar.show();
    QVERIFY(sidebar.showsEmptyState());
    QCOMPARE(sidebar.emptyLabel()->text(), QString("No document open"));

    QVERIFY(QTest::qWaitForWindowExposed(&sidebar));
    openModel(numbered("two.pdf", 2));
    QVERIFY(!sidebar.showsEmptyState());
    QCOMPARE(sidebar.list()->model()->rowCount(), 2);
    QTRY_VERIFY(sidebar.cache()->has(0) && sidebar.cache()->has(1));

    // Rotating the first page draws its picture anew, now landscape.
    model_->rotateCurrentPage(90);
    QTRY_VERIFY(sidebar.cache()->has(0) && sidebar.cache()->thumbnail(0).width() > sidebar.cache()->thumbnail(0).height());

    // An annotation change keeps the old picture on show while a new one is made.
    auto square = PdfAnnotation::create({100, 100, 300, 300}, PdfAnnotation::Square);
    square->setColor(Qt::red);
    square->setInteriorColor(Qt::red);
    model_->addAnnotation(square, model_->pdfDocument()->page(1), true);
    QVERIFY(sidebar.cache()->has(1));
    auto redInside = [&] {
        const QImage marked = sidebar.cache()->thumbnail(1);
        const QColor inside = marked.pixelColor(marked.width() / 3, marked.height() * 3 / 4);
        return inside.red() > 200 && inside.green() < 80;
    };
    QVERIFY(!redInside());
    QTRY_VERIFY(redInside());

    // Deleting every page leaves a document without pages: "No document open".
    model_->pdfDocument()->removePage(0);
    model_->pdfDocument()->removePage(0);
    model_->markPageStructureChanged();
    QVERIFY(sidebar.showsEmptyState());
}

void TestPages::sidebarThumbnailsAreLazy()
{
    const QString path = dir_.filePath("many.pdf");
    QVERIFY(fixtures::writePdf(path, fixtures::numberedPages(600, 1)));
    openModel(path);
    ThumbnailSidebarView sidebar(model_.get());
    sidebar.resize(180, 400);
    sidebar.show();
    QVERIFY(QTest::qWaitForWindowExposed(&sidebar));
    QCOMPARE(sidebar.list()->model()->rowCount(), 600);
    QTRY_VERIFY(sidebar.cache()->has(0) && !sidebar.cache()->isBusy());
    // The rows in sight and a screenful beyond, not the whole file.
    QVERIFY(sidebar.cache()->has(4));
    QVERIFY(!sidebar.cache()->has(100));
    QVERIFY(!sidebar.cache()->has(599));

    // Scrolled to the end: the last rows are drawn.
    sidebar.list()->verticalScrollBar()->setValue(sidebar.list()->verticalScrollBar()->maximum());
    QTRY_VERIFY(sidebar.cache()->has(599) && !sidebar.cache()->isBusy());
    QVERIFY(!sidebar.cache()->has(300));
    // A rebuild keeps the place in the list.
    const int bottom = sidebar.list()->verticalScrollBar()->value();
    model_->markPageStructureChanged();
    QCOMPARE(sidebar.list()->verticalScrollBar()->value(), bottom);
    QTRY_VERIFY(sidebar.cache()->has(599) && !sidebar.cache()->isBusy());
    QCOMPARE(sidebar.list()->verticalScrollBar()->value(), bottom);
    const QImage last = sidebar.cache()->thumbnail(599);
    QVERIFY(last.height() > last.width());
    QVERIFY(last.deviceIndependentSize().height() <= ThumbnailSidebarView::frameSize.height());

    // A small limit keeps memory bounded: pictures far from sight go first.
    sidebar.cache()->setLimit(sidebar.cache()->bytesUsed() / 2);
    sidebar.list()->verticalScrollBar()->setValue(0);
    QTRY_VERIFY(sidebar.cache()->has(0) && !sidebar.cache()->isBusy());
    QVERIFY(sidebar.cache()->bytesUsed() <= sidebar.cache()->limit());
    QVERIFY(!sidebar.cache()->has(599));
}

// ---- Pages menu and the window ---------------------------------------------

void TestPages::pagesMenu()
{
    QList<QString> raised;
    auto flag = [&](const QString &name) { return [&raised, name](bool on) { raised.append(name + (on ? "" : " off")); }; };
    PagesMenu menu(model_.get(), {flag("merge"), flag("split"), flag("insert"), flag("extract")});
    QCOMPARE(menu.text(), QString("Pages"));
    QCOMPARE(menu.toolTip(), QString("Merge, split, insert, extract, rotate, delete pages"));
    QStringList titles;
    for (QAction *action : menu.menu()->actions())
        titles.append(action->isSeparator() ? QString("-") : action->text());
    QCOMPARE(titles, (QStringList{"Merge PDFs…", "Split…", "Insert Pages…", "Extract Selected Pages…", "-", "Rotate Left",
                                  "Rotate Right", "Delete Current Page"}));
    const QList<QAction *> items{menu.mergeAction(),      menu.splitAction(),       menu.insertAction(), menu.extractAction(),
                                 menu.rotateLeftAction(), menu.rotateRightAction(), menu.deleteAction()};
    auto enabled = [&] {
        QList<bool> result;
        for (QAction *action : items)
            result.append(action->isEnabled());
        return result;
    };
    QCOMPARE(enabled(), (QList<bool>{true, false, false, false, false, false, false}));

    openModel(numbered("three.pdf", 3));
    QCOMPARE(enabled(), (QList<bool>{true, true, true, false, true, true, true}));
    model_->setSelectedPageIndices({1});
    QCOMPARE(enabled(), (QList<bool>{true, true, true, true, true, true, true}));

    for (QAction *action : {menu.mergeAction(), menu.splitAction(), menu.insertAction(), menu.extractAction()})
        action->trigger();
    QCOMPARE(raised, (QList<QString>{"merge", "split", "insert", "extract"}));

    // Rotation is the model's: left from 0 gives 270.
    menu.rotateLeftAction()->trigger();
    QCOMPARE(model_->pdfDocument()->page(0)->rotation(), 270);
    menu.rotateRightAction()->trigger();
    menu.rotateRightAction()->trigger();
    QCOMPARE(model_->pdfDocument()->page(0)->rotation(), 90);

    // Deleting the last of three pages moves the current index back.
    model_->setIsDirty(false);
    model_->setCurrentPageIndex(2);
    menu.deleteAction()->trigger();
    QCOMPARE(labels(model_->pdfDocument()), (QStringList{"Page 1", "Page 2"}));
    QCOMPARE(model_->currentPageIndex(), 1);
    QVERIFY(model_->isDirty());
    // The selection is brought inside the page count too.
    model_->setSelectedPageIndices({1});
    menu.deleteAction()->trigger();
    QVERIFY(model_->selectedPageIndices().isEmpty());
    menu.deleteAction()->trigger();
    QCOMPARE(model_->pdfDocument()->pageCount(), 0);
    // A document without pages is still open.
    QCOMPARE(enabled(), (QList<bool>{true, true, true, false, true, true, true}));
    const int mutations = model_->pageMutationCount();
    menu.deleteAction()->trigger();
    QCOMPARE(model_->pageMutationCount(), mutations);
}

void TestPages::windowPresentsSheets()
{
    ContentView window(model_.get());
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QVERIFY(window.thumbnailSidebar()->showsEmptyState());
    QVERIFY(window.sidebarPlace()->isAncestorOf(window.thumbnailSidebar()));
    QCOMPARE(window.pagesMenu()->parentWidget(), window.pagesMenuPlace());
    QVERIFY(!window.pagesMenu()->icon().isNull());

    // Each flag shows its sheet, made afresh each time; closing it clears the flag.
    window.pagesMenu()->mergeAction()->trigger();
    QVERIFY(window.showMergeSheet());
    QPointer<MergeSheet> merge = qobject_cast<MergeSheet *>(window.mergeSheet());
    QVERIFY(merge && merge->isVisible());
    QCOMPARE(merge->windowModality(), Qt::WindowModal);
    panel_->openAnswers = {{numbered("added.pdf", 1)}};
    merge->addFiles();
    QCOMPARE(merge->sources().size(), 1);
    merge->cancelButton()->click();
    QVERIFY(!window.showMergeSheet());
    QTRY_VERIFY(!merge);
    window.setShowMergeSheet(true);
    merge = qobject_cast<MergeSheet *>(window.mergeSheet());
    QVERIFY(merge && merge->isVisible() && merge->sources().isEmpty());
    // A flag cleared from outside closes the sheet.
    window.setShowMergeSheet(false);
    QTRY_VERIFY(!merge);

    openModel(numbered("Report.pdf", 3));
    QCOMPARE(window.thumbnailSidebar()->list()->model()->rowCount(), 3);
    model_->setSelectedPageIndices({0});
    window.pagesMenu()->splitAction()->trigger();
    window.pagesMenu()->extractAction()->trigger();
    QVERIFY(qobject_cast<SplitSheet *>(window.splitSheet()));
    QVERIFY(qobject_cast<ExtractPagesSheet *>(window.extractSheet()));
    window.extractSheet()->reject();
    QVERIFY(!window.showExtractSheet());
    QVERIFY(window.showSplitSheet());

    // A failed split closes its sheet and the alert stands over the window.
    auto *split = qobject_cast<SplitSheet *>(window.splitSheet());
    const QString locked = folder("window-locked");
    QVERIFY(::chmod(QFile::encodeName(locked).constData(), 0755) == 0);
    panel_->folderAnswers = {locked};
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        split->performSplit();
    }
    QVERIFY(!window.showSplitSheet());
    QVERIFY(window.errorAlert());
    QCOMPARE(window.errorAlert()->text(),
             QString("Couldn't save the split files to that folder. Pick a different folder and try again."));
    QCOMPARE(window.errorAlert()->parentWidget(), &window);

    window.pagesMenu()->insertAction()->trigger();
    QVERIFY(qobject_cast<InsertPagesSheet *>(window.insertSheet()));
    window.setShowInsertSheet(false);
    QTRY_VERIFY(!window.insertSheet());
}

QTEST_MAIN(TestPages)
#include "tst_pages.moc"
