// Page work keeps what ties a document together: links and named
// destinations, the outline and the form follow the pages they belong to in
// merged, split, extracted and inserted documents, after a page is deleted
// and after pages are moved; nothing of a page left behind is written.
#include "FixtureBuilder.h"
#include "PageOperations.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

using fixtures::StructuredSpec;
using inspect::OutlineItem;
using Outline = std::vector<OutlineItem>;

namespace {

struct Source {
    StructuredSpec spec;
    QString path;
};

// The source pages a result holds, in its page order.
using Origins = std::vector<std::pair<const Source *, int>>;

Origins originsOf(const Source &source, std::vector<int> pages)
{
    Origins out;
    for (int page : pages)
        out.emplace_back(&source, page);
    return out;
}

Origins operator+(Origins a, const Origins &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<int> span(int from, int to)
{
    std::vector<int> out;
    for (int i = from; i <= to; ++i)
        out.push_back(i);
    return out;
}

int namedPage(const StructuredSpec &spec, const QByteArray &name)
{
    for (const auto &[key, page] : spec.namedDestinations)
        if (key == name)
            return page;
    return -1;
}

Outline outlineOf(const StructuredSpec &spec, const std::vector<fixtures::OutlineSpec> &items)
{
    Outline out;
    for (const auto &item : items)
        out.push_back({item.title, item.name.isEmpty() ? item.page : namedPage(spec, item.name), outlineOf(spec, item.children)});
    return out;
}

QString describe(const Outline &outline)
{
    QStringList parts;
    for (const OutlineItem &item : outline)
        parts << QString("%1->%2").arg(item.title).arg(item.page) +
                     (item.children.empty() ? QString() : " [" + describe(item.children) + "]");
    return parts.join(", ");
}

#define COMPARE_OUTLINE(actual, expected) QCOMPARE(describe(actual), describe(expected))

QStringList titles(const Outline &outline)
{
    QStringList out;
    for (const OutlineItem &item : outline)
        out << item.title;
    return out;
}

// A page's boxes (the crop box defaulting to the media box), rotation and
// the kinds of its annotations other than links.
QString traits(const inspect::PdfObjects &pdf, int page)
{
    const QString ref = pdf.pages().value(page);
    const QJsonObject dict = pdf.dict(ref);
    auto box = [&](const char *key) {
        QStringList numbers;
        for (const QJsonValue &v : pdf.resolved(dict.value(key)).toArray())
            numbers << QString::number(pdf.resolved(v).toDouble());
        return numbers.join(' ');
    };
    const QString crop = dict.contains("/CropBox") ? box("/CropBox") : box("/MediaBox");
    QStringList kinds;
    for (const QString &annot : pdf.annots(ref))
        if (pdf.dict(annot).value("/Subtype").toString() != "/Link")
            kinds << pdf.dict(annot).value("/Subtype").toString();
    kinds.sort();
    return QString("media %1, crop %2, rotated %3, %4")
        .arg(box("/MediaBox"), crop)
        .arg(pdf.resolved(dict.value("/Rotate")).toInt())
        .arg(kinds.join(','));
}

// What every written result must be: sound for qpdf, every page object in
// the page tree (nothing of a page left behind), every annotation naming the
// page that lists it, the outline linked up both ways, every link, named
// destination and widget leading to a page of it, a form with its defaults.
QStringList soundness(const QString &path)
{
    QStringList problems;
    if (const QString qpdf = inspect::qpdfProblems(path); !qpdf.isEmpty())
        problems << "qpdf: " + qpdf.left(400);
    const inspect::PdfObjects pdf(path);
    for (const QString &page : pdf.refsOfType("/Page"))
        if (pdf.pageIndex(page) < 0)
            problems << "page object " + page + " outside the page tree";
    for (const QString &annot : pdf.misplacedAnnotations())
        problems << "annotation " + annot + " does not name the page listing it";
    problems << pdf.outlineProblems();
    for (int i = 0; i < pdf.pages().size(); ++i)
        for (const inspect::Link &link : pdf.links(i))
            if (link.target < 0)
                problems << QString("link %1 on page %2 leads nowhere").arg(link.ref).arg(i);
    for (const auto &[name, page] : pdf.namedDestinations())
        if (page < 0)
            problems << "named destination " + name + " leads nowhere";
    const auto fields = pdf.fields();
    for (const auto &[name, field] : fields)
        if (field.widgets.isEmpty() || field.pages.contains(-1))
            problems << "field " + name + " has a widget on no page";
    const QJsonObject form = pdf.acroForm();
    const QJsonObject fonts = pdf.resolved(pdf.resolved(form.value("/DR")).toObject().value("/Font")).toObject();
    if (!fields.empty() && (!fonts.contains("/Helv") || inspect::text(form.value("/DA")).isEmpty()))
        problems << "the form lacks the default font /Helv or its /DA";
    return problems;
}

// What a result must show of the source pages it holds: each page's words,
// boxes, rotation and annotations; of its links those whose target page the
// result holds too, going to that copy, in their order.
QStringList pageProblems(const QString &path, const Origins &origins)
{
    const inspect::PdfObjects result(path);
    auto document = PdfDocument::open(path);
    if (!document || document->pageCount() != int(origins.size()))
        return {QString("%1 does not hold %2 pages").arg(path).arg(origins.size())};
    QStringList problems;
    std::map<const Source *, inspect::PdfObjects> originals;
    for (int i = 0; i < int(origins.size()); ++i) {
        const auto [source, page] = origins[size_t(i)];
        const inspect::PdfObjects &original = originals.try_emplace(source, source->path).first->second;
        const QString label = source->spec.pages[size_t(page)].text.front().text;
        if (document->page(i)->text().section('\n', 0, 0).trimmed() != label)
            problems << QString("page %1 is not %2").arg(i).arg(label);
        if (traits(result, i) != traits(original, page))
            problems << QString("page %1: %2, not %3").arg(i).arg(traits(result, i), traits(original, page));
        QList<int> expected, actual;
        for (const fixtures::LinkSpec &link : source->spec.links) {
            if (link.fromPage != page)
                continue;
            const int target = link.name.isEmpty() ? link.toPage : namedPage(source->spec, link.name);
            const auto at = std::find(origins.begin(), origins.end(), std::make_pair(source, target));
            if (at != origins.end())
                expected << int(at - origins.begin());
        }
        for (const inspect::Link &link : result.links(i))
            actual << link.target;
        if (actual != expected)
            problems << QString("page %1 links to %2, not %3").arg(i).arg(QDebug::toString(actual), QDebug::toString(expected));
    }
    return problems;
}

#define VERIFY_NO_PROBLEMS(list)                                                                                                 \
    do {                                                                                                                         \
        const QStringList problems_ = (list);                                                                                    \
        QVERIFY2(problems_.isEmpty(), qPrintable(problems_.join('\n')));                                                         \
    } while (false)

// The page each of `names` leads to through the name tree (-2: not there).
QList<int> namedPages(const inspect::PdfObjects &pdf, const QStringList &names)
{
    const auto tree = pdf.namedDestinations();
    QList<int> out;
    for (const QString &name : names)
        out << (tree.count(name) ? tree.at(name) : -2);
    return out;
}

// The named destination the first link of a page goes through.
QString firstLinkName(const inspect::PdfObjects &pdf, int page)
{
    const auto links = pdf.links(page);
    return links.empty() ? QString() : links.front().name;
}

// Fields as "name=value@pages", to compare at a glance.
QStringList fieldSummary(const inspect::PdfObjects &pdf)
{
    QStringList out;
    for (const auto &[name, field] : pdf.fields()) {
        QStringList pages;
        for (int page : field.pages)
            pages << QString::number(page);
        out << name + '=' + field.value + '@' + pages.join(',');
    }
    return out;
}

} // namespace

class TestPageStructure : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void fixturesReadBack();
    void merge();
    void split();
    void extract();
    void insert();
    void deletePage();
    void movePages();

private:
    QString path(const QString &name) const { return dir_.filePath(name); }
    QString written(const std::shared_ptr<PdfDocument> &document, const QString &name) const
    {
        return document && document->write(path(name)) ? path(name) : QString();
    }

    QTemporaryDir dir_;
    Source alpha_, beta_, gamma_;
};

void TestPageStructure::initTestCase()
{
    // Four pages: links within it (explicit, named, as actions; to itself,
    // forward, back), named destinations in a tree, a two-level outline
    // reaching a page by name, a form with a filled, an empty and a kid-widget
    // field, a rotated page, a cropped page and notes with popups.
    StructuredSpec &a = alpha_.spec;
    a.pages = fixtures::numberedPages(4, 1);
    a.pages[0].annotations = fixtures::pageWithPopups().annotations;
    a.pages[1].rotation = 90;
    a.pages[2].cropBox = QRectF(36, 36, 540, 720);
    a.links = {{0, 2}, {0, 0, "chap2"}, {1, 3, {}, true}, {1, 0, "shared"}, {2, 0, "end", true}, {3, 0}, {3, 3, {}, true}};
    a.namedDestinations = {{"chap2", 1}, {"end", 3}, {"shared", 2}, {"intro", 0}};
    a.outline = {{"Intro", 0}, {"Part", 1, {}, {{"Chapter 2", -1, "chap2"}, {"Chapter 3", 2}}}, {"End", -1, "end", {}, true}};
    a.fields = {{0, "name", "Alice"}, {2, "city", {}, {72, 400, 200, 24}}, {1, "shared", "A", {72, 300, 200, 24}, true}};
    alpha_.path = path("Alpha report.v2.pdf");
    // Two pages using the older /Dests dictionary, with a destination and a
    // field of the same names as the first one's, for other pages.
    StructuredSpec &b = beta_.spec;
    b.pages = fixtures::numberedPages(2, 1);
    for (int i = 0; i < 2; ++i)
        b.pages[size_t(i)].text.front().text = QString("Beta %1").arg(i + 1);
    b.links = {{0, 0, "shared"}, {1, 0}};
    b.namedDestinations = {{"shared", 1}};
    b.legacyDests = true;
    b.outline = {{"B one", 0}, {"B two", -1, "shared"}};
    b.fields = {{1, "shared", "B"}};
    beta_.path = path("beta.pdf");
    gamma_.spec.pages = fixtures::numberedPages(1, 1);
    gamma_.spec.pages[0].text.front().text = "Gamma 1";
    gamma_.path = path("gamma.pdf");
    for (const Source *source : {&alpha_, &beta_, &gamma_})
        QVERIFY(fixtures::writeStructuredPdf(source->path, source->spec));
}

void TestPageStructure::fixturesReadBack()
{
    // The sources are sound and read back as built, so the failures below are the operations'.
    for (const Source *source : {&alpha_, &beta_}) {
        VERIFY_NO_PROBLEMS(soundness(source->path));
        VERIFY_NO_PROBLEMS(pageProblems(source->path, originsOf(*source, span(0, int(source->spec.pages.size()) - 1))));
        COMPARE_OUTLINE(inspect::PdfObjects(source->path).outline(), outlineOf(source->spec, source->spec.outline));
    }
    const inspect::PdfObjects pdf(alpha_.path);
    QCOMPARE(pdf.namedDestinations(), (std::map<QString, int>{{"chap2", 1}, {"end", 3}, {"intro", 0}, {"shared", 2}}));
    QCOMPARE(fieldSummary(pdf), QStringList({"city=@2", "name=Alice@0", "shared=A@1"}));
    QCOMPARE(firstLinkName(pdf, 2), QString("end"));
    QCOMPARE(firstLinkName(inspect::PdfObjects(beta_.path), 0), QString("shared"));
}

void TestPageStructure::merge()
{
    auto alpha = PdfDocument::open(alpha_.path), beta = PdfDocument::open(beta_.path), gamma = PdfDocument::open(gamma_.path);
    auto untitled = PdfDocument::create();
    QVERIFY(alpha && beta && gamma && untitled && untitled->insert(gamma->page(0)->copy(), 0));

    const QString merged = written(PageOperations::merge({alpha, beta, untitled}), "merged.pdf");
    VERIFY_NO_PROBLEMS(soundness(merged));
    VERIFY_NO_PROBLEMS(pageProblems(merged, originsOf(alpha_, span(0, 3)) + originsOf(beta_, {0, 1}) + originsOf(gamma_, {0})));
    const inspect::PdfObjects pdf(merged);
    // One entry per source, titled after its file, holding the source's outline.
    COMPARE_OUTLINE(pdf.outline(), (Outline{{"Alpha report.v2", 0, outlineOf(alpha_.spec, alpha_.spec.outline)},
                                            {"beta", 4, {{"B one", 4, {}}, {"B two", 5, {}}}},
                                            {"Untitled", 6, {}}}));
    // The second source's clashing name is renamed, and its links follow.
    QCOMPARE(namedPages(pdf, {"chap2", "end", "shared", "shared-2"}), QList<int>({1, 3, 2, 5}));
    QCOMPARE(firstLinkName(pdf, 4), QString("shared-2"));
    // Both forms stay fields; the clashing field name is renamed.
    QCOMPARE(fieldSummary(pdf), QStringList({"city=@2", "name=Alice@0", "shared=A@1", "shared-2=B@5"}));
    const auto fields = pdf.fields();
    const QString widget = fields.count("name") ? fields.at("name").widgets.value(0) : QString();
    const QJsonObject appearance = pdf.resolved(pdf.dict(widget).value("/AP")).toObject();
    QVERIFY(pdf.streamData(appearance.value("/N").toString()).contains("(Alice)"));

    // One source keeps its outline as it is; sources without one give none.
    const QString single = written(PageOperations::merge({alpha}), "single.pdf");
    VERIFY_NO_PROBLEMS(soundness(single));
    COMPARE_OUTLINE(inspect::PdfObjects(single).outline(), outlineOf(alpha_.spec, alpha_.spec.outline));
    const QString plain = written(PageOperations::merge({gamma, untitled}), "plain.pdf");
    VERIFY_NO_PROBLEMS(soundness(plain));
    QVERIFY(inspect::PdfObjects(plain).outline().empty());
}

void TestPageStructure::split()
{
    auto alpha = PdfDocument::open(alpha_.path);
    const auto parts = PageOperations::splitByRanges(alpha, {{0, 1}, {2, 3}});
    QCOMPARE(parts.size(), size_t(2));
    const QString first = written(parts[0], "part-1.pdf"), second = written(parts[1], "part-2.pdf");
    VERIFY_NO_PROBLEMS(soundness(first) + soundness(second));
    VERIFY_NO_PROBLEMS(pageProblems(first, originsOf(alpha_, {0, 1})) + pageProblems(second, originsOf(alpha_, {2, 3})));
    // Entries into the range stay; one outside it with an entry inside stays without a destination.
    COMPARE_OUTLINE(inspect::PdfObjects(first).outline(), (Outline{{"Intro", 0, {}}, {"Part", 1, {{"Chapter 2", 1, {}}}}}));
    COMPARE_OUTLINE(inspect::PdfObjects(second).outline(), (Outline{{"Part", -1, {{"Chapter 3", 0, {}}}}, {"End", 1, {}}}));
    QCOMPARE(namedPages(inspect::PdfObjects(first), {"chap2"}), QList<int>{1});
    QCOMPARE(namedPages(inspect::PdfObjects(second), {"end"}), QList<int>{1});
    QCOMPARE(fieldSummary(inspect::PdfObjects(first)), QStringList({"name=Alice@0", "shared=A@1"}));
    QCOMPARE(fieldSummary(inspect::PdfObjects(second)), QStringList({"city=@0"}));

    const auto singles = PageOperations::splitEveryPage(alpha);
    QCOMPARE(singles.size(), size_t(4));
    const Outline outlines[] = {
        {{"Intro", 0, {}}}, {{"Part", 0, {{"Chapter 2", 0, {}}}}}, {{"Part", -1, {{"Chapter 3", 0, {}}}}}, {{"End", 0, {}}}};
    const QStringList fields[] = {{"name=Alice@0"}, {"shared=A@0"}, {"city=@0"}, {}};
    for (int i = 0; i < 4; ++i) {
        const QString single = written(singles[size_t(i)], QString("single-%1.pdf").arg(i));
        VERIFY_NO_PROBLEMS(soundness(single) + pageProblems(single, originsOf(alpha_, {i})));
        COMPARE_OUTLINE(inspect::PdfObjects(single).outline(), outlines[i]);
        QCOMPARE(fieldSummary(inspect::PdfObjects(single)), fields[i]);
    }
}

void TestPageStructure::extract()
{
    auto alpha = PdfDocument::open(alpha_.path);
    const QString extracted = written(PageOperations::extractPages(alpha, {3, 0}), "extracted.pdf");
    VERIFY_NO_PROBLEMS(soundness(extracted));
    VERIFY_NO_PROBLEMS(pageProblems(extracted, originsOf(alpha_, {0, 3})));
    const inspect::PdfObjects pdf(extracted);
    COMPARE_OUTLINE(pdf.outline(), (Outline{{"Intro", 0, {}}, {"End", 1, {}}}));
    QCOMPARE(namedPages(pdf, {"end"}), QList<int>{1});
    QCOMPARE(fieldSummary(pdf), QStringList({"name=Alice@0"}));

    // Entries that lead nowhere stay only for the entries below them that stay.
    StructuredSpec headings;
    headings.pages = fixtures::numberedPages(2, 1);
    headings.outline = {{"Heading", -1, {}, {{"Two", 1}}}, {"Loose", -1}, {"One", 0}};
    QVERIFY(fixtures::writeStructuredPdf(path("headings.pdf"), headings));
    auto source = PdfDocument::open(path("headings.pdf"));
    COMPARE_OUTLINE(inspect::PdfObjects(written(PageOperations::extractPages(source, {0}), "one.pdf")).outline(),
                    (Outline{{"One", 0, {}}}));
    COMPARE_OUTLINE(inspect::PdfObjects(written(PageOperations::extractPages(source, {1}), "two.pdf")).outline(),
                    (Outline{{"Heading", -1, {{"Two", 0, {}}}}}));
}

void TestPageStructure::insert()
{
    // The source's entries go among the destination's top-level entries, in page order.
    const std::pair<int, QStringList> placements[] = {{0, {"B one", "B two", "Intro", "Part", "End"}},
                                                      {4, {"Intro", "Part", "End", "B one", "B two"}}};
    for (const auto &[at, expected] : placements) {
        auto alpha = PdfDocument::open(alpha_.path);
        QVERIFY(PageOperations::insertPages(PdfDocument::open(beta_.path), alpha, at));
        const QString out = written(alpha, QString("inserted-at-%1.pdf").arg(at));
        VERIFY_NO_PROBLEMS(soundness(out));
        QCOMPARE(titles(inspect::PdfObjects(out).outline()), expected);
    }

    auto alpha = PdfDocument::open(alpha_.path);
    QVERIFY(PageOperations::insertPages(PdfDocument::open(beta_.path), alpha, 2));
    const QString out = written(alpha, "inserted.pdf");
    VERIFY_NO_PROBLEMS(soundness(out));
    VERIFY_NO_PROBLEMS(pageProblems(out, originsOf(alpha_, {0, 1}) + originsOf(beta_, {0, 1}) + originsOf(alpha_, {2, 3})));
    const inspect::PdfObjects pdf(out);
    COMPARE_OUTLINE(pdf.outline(), (Outline{{"Intro", 0, {}},
                                            {"Part", 1, {{"Chapter 2", 1, {}}, {"Chapter 3", 4, {}}}},
                                            {"B one", 2, {}},
                                            {"B two", 3, {}},
                                            {"End", 5, {}}}));
    // The destination keeps its names; the source's clashing one leads to its own page.
    QCOMPARE(namedPages(pdf, {"shared", "end", firstLinkName(pdf, 2)}), QList<int>({4, 5, 3}));
    // Both fields named "shared" stay, as two fields.
    const QStringList fields = fieldSummary(pdf);
    QCOMPARE(fields.size(), 4);
    QVERIFY(fields.contains("shared=A@1") && fields.contains("name=Alice@0") && fields.contains("city=@4"));
    QVERIFY(fields.filter(QRegularExpression("^shared.+=B@3$")).size() == 1);

    // Names written in UTF-16 (these two agree up to their first zero byte)
    // stay as they are written when pages with names of their own come in.
    StructuredSpec wide;
    wide.pages = fixtures::numberedPages(2, 1);
    const QByteArray ueb = QByteArray::fromHex("FEFF00DC0062"), et = QByteArray::fromHex("FEFF00C90074");
    wide.links = {{0, 1, ueb}, {1, 0, et}};
    wide.namedDestinations = {{ueb, 1}, {et, 0}};
    QVERIFY(fixtures::writeStructuredPdf(path("wide names.pdf"), wide));
    auto wideDoc = PdfDocument::open(path("wide names.pdf"));
    QVERIFY(PageOperations::insertPages(PdfDocument::open(alpha_.path), wideDoc, 2));
    const inspect::PdfObjects widePdf(written(wideDoc, "wide-inserted.pdf"));
    QCOMPARE(QStringList({firstLinkName(widePdf, 0), firstLinkName(widePdf, 1)}), QStringList({"Üb", "Ét"}));
    QCOMPARE(namedPages(widePdf, {"Üb", "Ét", "shared"}), QList<int>({1, 0, 4}));
}

void TestPageStructure::deletePage()
{
    auto alpha = PdfDocument::open(alpha_.path);
    QVERIFY(alpha->removePage(2));
    const QString out = written(alpha, "deleted.pdf");
    VERIFY_NO_PROBLEMS(soundness(out));
    VERIFY_NO_PROBLEMS(pageProblems(out, originsOf(alpha_, {0, 1, 3})));
    const inspect::PdfObjects pdf(out);
    COMPARE_OUTLINE(pdf.outline(), (Outline{{"Intro", 0, {}}, {"Part", 1, {{"Chapter 2", 1, {}}}}, {"End", 2, {}}}));
    QCOMPARE(namedPages(pdf, {"chap2", "end", "shared"}), QList<int>({1, 2, -2}));
    QCOMPARE(fieldSummary(pdf), QStringList({"name=Alice@0", "shared=A@1"}));

    // The page put back (as undo does) finds everything that led to it again.
    auto restored = PdfDocument::open(alpha_.path);
    auto third = restored->page(2);
    QVERIFY(restored->removePage(2));
    written(restored, "deleted-again.pdf");
    QVERIFY(restored->insert(third, 2));
    const QString back = written(restored, "restored.pdf");
    VERIFY_NO_PROBLEMS(soundness(back));
    VERIFY_NO_PROBLEMS(pageProblems(back, originsOf(alpha_, {0, 1, 2, 3})));
    const inspect::PdfObjects again(back);
    COMPARE_OUTLINE(again.outline(), outlineOf(alpha_.spec, alpha_.spec.outline));
    QCOMPARE(fieldSummary(again), QStringList({"city=@2", "name=Alice@0", "shared=A@1"}));
}

void TestPageStructure::movePages()
{
    auto alpha = PdfDocument::open(alpha_.path);
    PageOperations::movePages(alpha, {3}, 0);
    const QString out = written(alpha, "moved.pdf");
    VERIFY_NO_PROBLEMS(soundness(out));
    VERIFY_NO_PROBLEMS(pageProblems(out, originsOf(alpha_, {3, 0, 1, 2})));
    const inspect::PdfObjects pdf(out);
    COMPARE_OUTLINE(pdf.outline(),
                    (Outline{{"Intro", 1, {}}, {"Part", 2, {{"Chapter 2", 2, {}}, {"Chapter 3", 3, {}}}}, {"End", 0, {}}}));
    QCOMPARE(pdf.namedDestinations(), (std::map<QString, int>{{"chap2", 2}, {"end", 0}, {"intro", 1}, {"shared", 3}}));
    QCOMPARE(fieldSummary(pdf), QStringList({"city=@3", "name=Alice@1", "shared=A@2"}));
}

QTEST_MAIN(TestPageStructure)
#include "tst_structure.moc"
