// Find: what a query matches in real pages (a groff document, checked
// against pdftotext), where its marks go, how results stream in and follow
// edits, and the find bar as the user drives it.
#include "DocumentSearch.h"
#include "FindBar.h"
#include "FixtureBuilder.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QVBoxLayout>
#include <QtTest>

namespace {

constexpr int waitMs = 60000;

const QByteArray groffDocument = R"(.PP
The office staff were fluent and efficient. Office hours differ.
The caf\['e] on the corner is not a cafe.
Word word WORD words wordy.
.nf
A carefully hyphen-
ated word and a well-
known phrase.
.fi
.bp
.PP
Second page: the office again, and the end of the text.
)";

// The page's text as a search reads it, with boxes.
std::shared_ptr<const PdfSearchText> searchText(const std::shared_ptr<PdfPage> &page)
{
    auto recording = page->recording();
    for (int tries = 0; recording && tries < 100; ++tries)
        if (recording->recordText(true) == PdfPageRecording::Result::Recorded)
            return recording->text();
    return nullptr;
}

int count(const std::shared_ptr<PdfDocument> &doc, const QString &query, PdfSearchOptions options = {})
{
    int n = 0;
    for (int i = 0; i < doc->pageCount(); ++i)
        n += int(searchText(doc->page(i))->find(PdfSearchText::searchable(query), options).size());
    return n;
}

} // namespace

class TestFind : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(dir_.isValid()); }
    void matchesWhatOtherReadersRead();
    void marksLieOnTheText();
    void resultsStreamFromTheCurrentPage();
    void editsUpdateTheResults();
    void findBarAsTheUserDrivesIt();

private:
    QString path(const QString &name) const { return dir_.filePath(name); }
    QTemporaryDir dir_;
};

// Ligatures, accents, case, whole words and a word hyphenated at a line end,
// in a file set by groff; the count of a common word agrees with pdftotext.
void TestFind::matchesWhatOtherReadersRead()
{
    QVERIFY(fixtures::writeFile(path("doc.ms"), groffDocument));
    QProcess groff;
    groff.setStandardOutputFile(path("groff.pdf"));
    groff.start("groff", {"-ms", "-Tpdf", path("doc.ms")});
    QVERIFY(groff.waitForFinished(waitMs) && groff.exitCode() == 0);
    auto doc = PdfDocument::open(path("groff.pdf"));
    QVERIFY(doc);

    const PdfSearchOptions plain, matchCase{true, false}, whole{false, true}, both{true, true};
    QCOMPARE(count(doc, "office"), 3);
    QCOMPARE(count(doc, "office", matchCase), 2);
    QCOMPARE(count(doc, "fluent"), 1);
    QCOMPARE(count(doc, "efficient"), 1);
    QCOMPARE(count(doc, "differ"), 1);
    QCOMPARE(count(doc, QString::fromUtf8("café")), 1);
    QCOMPARE(count(doc, QString::fromUtf8("cafe\u0301")), 1); // typed with a combining accent
    QCOMPARE(count(doc, "cafe"), 1);
    QCOMPARE(count(doc, "word", plain), 6);
    QCOMPARE(count(doc, "word", whole), 4);
    QCOMPARE(count(doc, "word", both), 2);
    QCOMPARE(count(doc, "hyphenated"), 1);
    QCOMPARE(count(doc, "well-known"), 1);
    QCOMPARE(count(doc, "  the   office "), 2);
    QCOMPARE(count(doc, "hyphen"), 1);
    QCOMPARE(count(doc, "hyphen", whole), 0);
    QCOMPARE(count(doc, QString(10000, 'a')), 0);

    QProcess pdftotext;
    pdftotext.start("pdftotext", {path("groff.pdf"), "-"});
    QVERIFY(pdftotext.waitForFinished(waitMs));
    const QString other = QString::fromUtf8(pdftotext.readAllStandardOutput());
    const auto theirs = other.count(QRegularExpression("\\bthe\\b", QRegularExpression::CaseInsensitiveOption));
    QVERIFY(theirs >= 4);
    QCOMPARE(count(doc, "the", whole), int(theirs));

    // A page with no text at all: no matches, no error.
    fixtures::PageSpec blank;
    QVERIFY(fixtures::writePdf(path("blank.pdf"), {blank}));
    QCOMPARE(count(PdfDocument::open(path("blank.pdf")), "office"), 0);
}

// A match's quads cover the word where the page's text layout has it, on
// turned pages and with a crop box away from the origin.
void TestFind::marksLieOnTheText()
{
    std::vector<fixtures::PageSpec> pages;
    for (int rotation : {0, 90, 180, 270}) {
        fixtures::PageSpec page;
        page.rotation = rotation;
        page.cropBox = QRectF(50, 60, 450, 650);
        page.text.push_back({"a needle in the stack", {150, 300}, 20});
        pages.push_back(page);
    }
    QVERIFY(fixtures::writePdf(path("turned.pdf"), pages));
    auto doc = PdfDocument::open(path("turned.pdf"));
    for (int i = 0; i < doc->pageCount(); ++i) {
        auto page = doc->page(i);
        const auto text = searchText(page);
        const auto matches = text->find("needle", {});
        QCOMPARE(matches.size(), size_t(1));
        const QRectF found = PdfSearchText::bounds(text->quads(matches.front()));
        const auto word = page->selectionForWord(QPointF(190, 305));
        QVERIFY(word);
        const QRectF expected = word->bounds(page);
        const QRectF common = found.intersected(expected);
        QVERIFY2(common.width() * common.height() > 0.8 * expected.width() * expected.height(),
                 qPrintable(QString("page %1").arg(i)));
        QVERIFY(found.width() < expected.width() * 1.2);
    }
}

// The first results come from the page the search starts on, then the pages
// after it, then those before; a new query or the end of the search object
// cancels at once; a second search reads no page again.
void TestFind::resultsStreamFromTheCurrentPage()
{
    QVERIFY(fixtures::writePdf(path("forty.pdf"), fixtures::numberedPages(40)));
    auto doc = PdfDocument::open(path("forty.pdf"));
    DocumentSearch search;
    search.setDocument(doc);
    std::vector<int> arrivals;
    connect(&search, &DocumentSearch::resultInserted, this,
            [&](int row) { arrivals.push_back(search.results()[size_t(row)].page->index()); });
    search.start("lazy", {}, 25);
    QTRY_VERIFY_WITH_TIMEOUT(!search.isSearching(), waitMs);
    std::vector<int> expected;
    for (int k = 0; k < 40; ++k)
        expected.push_back((25 + k) % 40);
    QCOMPARE(arrivals, expected);
    QCOMPARE(search.hitCount(), 40 * 3);
    QCOMPARE(search.pagesSearched(), 40);
    for (size_t i = 0; i < search.results().size(); ++i)
        QCOMPARE(search.results()[i].page->index(), int(i));
    QCOMPARE(search.indexedPages(), 40);

    // Replaced before it ends: only the new query's matches arrive.
    search.start("quick", {}, 0);
    search.start("brown fox", {}, 0);
    QTRY_VERIFY_WITH_TIMEOUT(!search.isSearching(), waitMs);
    QCOMPARE(search.hitCount(), 40 * 3);
    for (const auto &hits : search.results())
        for (const auto &match : hits.matches)
            QCOMPARE(hits.text->text().mid(match.from, match.to - match.from), QString("brown fox"));

    // A search object (and its thread) that goes mid-search.
    auto other = std::make_unique<DocumentSearch>();
    other->setDocument(PdfDocument::open(path("forty.pdf")));
    other->start("dog", {}, 0);
    other.reset();
}

// Text typed into a text box is found; changing or removing it updates the
// results without a new search.
void TestFind::editsUpdateTheResults()
{
    QVERIFY(fixtures::writePdf(path("five.pdf"), fixtures::numberedPages(5)));
    auto doc = PdfDocument::open(path("five.pdf"));
    auto page = doc->page(3);
    auto box = PdfAnnotation::create(QRectF(100, 100, 200, 40), PdfAnnotation::FreeText);
    box->setContents("zebra crossing");
    page->addAnnotation(box);

    DocumentSearch search;
    search.setDocument(doc);
    search.start("zebra", {}, 0);
    QTRY_VERIFY_WITH_TIMEOUT(!search.isSearching(), waitMs);
    QCOMPARE(search.hitCount(), 1);
    QCOMPARE(search.results().front().page, page);
    const QRectF marked = PdfSearchText::bounds(search.results().front().quads.front());
    QVERIFY(QRectF(100, 100, 200, 40).contains(marked.center()));

    box->setContents("zebra zebra");
    QTRY_COMPARE_WITH_TIMEOUT(search.hitCount(), 2, waitMs);
    page->removeAnnotation(box);
    QTRY_COMPARE_WITH_TIMEOUT(search.hitCount(), 0, waitMs);
    QVERIFY(search.results().empty());
}

void TestFind::findBarAsTheUserDrivesIt()
{
    QVERIFY(fixtures::writePdf(path("six.pdf"), fixtures::numberedPages(6)));
    QWidget window;
    auto *layout = new QVBoxLayout(&window);
    auto *view = new PdfView;
    auto *bar = new FindBar(view);
    layout->addWidget(bar);
    layout->addWidget(view);
    window.resize(800, 600);
    window.show();
    view->setDocument(PdfDocument::open(path("six.pdf")));
    bar->setDocument(view->document());

    bar->open();
    QVERIFY(bar->isOpen());
    QTest::keyClicks(bar->field(), "LAZY");
    // The first match is chosen and shown as soon as it is found.
    QTRY_COMPARE_WITH_TIMEOUT(bar->countText(), QString("1 of 18"), waitMs);
    QTRY_VERIFY_WITH_TIMEOUT(!bar->currentQuads().empty(), waitMs);
    QTest::keyClick(bar->field(), Qt::Key_Return);
    QCOMPARE(bar->countText(), QString("2 of 18"));
    QTest::keyClick(bar->field(), Qt::Key_Return, Qt::ShiftModifier);
    QTest::keyClick(bar->field(), Qt::Key_Return, Qt::ShiftModifier);
    QCOMPARE(bar->countText(), QString("18 of 18"));
    QVERIFY(!bar->noteText().isEmpty());
    // The last page's match is scrolled into view.
    QTRY_VERIFY_WITH_TIMEOUT(!bar->currentQuads().empty(), waitMs);
    const QRectF shown = view->convertFromPage(PdfSearchText::bounds(bar->currentQuads()), bar->currentPage());
    QVERIFY(QRectF(view->viewport()->rect()).contains(shown));

    bar->matchCaseBox()->setChecked(true);
    QTRY_COMPARE_WITH_TIMEOUT(bar->countText(), QString("No matches"), waitMs);
    bar->field()->setText("   ");
    QCOMPARE(bar->countText(), QString());

    bar->field()->setText("lazy");
    QTRY_VERIFY_WITH_TIMEOUT(bar->countText().endsWith("of 18"), waitMs);
    QTest::keyClick(bar->field(), Qt::Key_Escape);
    QVERIFY(!bar->isOpen());
    QVERIFY(bar->search()->results().empty());
    QCOMPARE(bar->countText(), QString());

    // A locked document: the bar cannot be used until it is unlocked.
    QVERIFY(fixtures::writeEncrypted(path("locked.pdf"), fixtures::numberedPages(2), "secret"));
    bar->setDocument(PdfDocument::open(path("locked.pdf")));
    QVERIFY(!bar->isEnabled());
}

QTEST_MAIN(TestFind)
#include "tst_find.moc"
