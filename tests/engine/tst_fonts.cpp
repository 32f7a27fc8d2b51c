// Engine tests of the fonts text boxes are drawn with: PDF font names are
// read as family and style, installed fonts are found as fontconfig finds
// them (checked against fc-match and the standard fonts' published widths),
// and saved text boxes embed only the glyphs they draw, which poppler and
// MuPDF's own tools show and give back as text.
#include "EngineTestHelpers.h"
#include "FixtureBuilder.h"
#include "FontService.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"
#include "SystemFonts.h"

#include <QFile>
#include <QFileInfo>
#include <QFontInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPainterPath>
#include <QProcess>
#include <QRawFont>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The file fontconfig's own tool picks for a pattern ("Arial:bold").
QString fcFile(const QString &pattern)
{
    return fixtures::toolOutput("fc-match", {"-f", "%{file}", pattern});
}
QString fcFamily(const QString &pattern)
{
    return fixtures::toolOutput("fc-match", {"-f", "%{family}", pattern});
}

// The advance of `text` in thousandths of the font size.
int width(const PdfFont &font, const QString &text)
{
    PdfFont thousand = font;
    thousand.size = 1000;
    return int(std::lround(FontService::instance().textWidth(thousand, text)));
}

QString folded(QString s)
{
    return s.remove(' ').toLower();
}

// Dark rows in a page-space rectangle of a page image rendered at `scale`.
int inkRows(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRectF shown = page->pageToDisplay().mapRect(pageRect);
    const QRect px = QRectF(shown.topLeft() * scale, shown.size() * scale).toAlignedRect().intersected(image.rect());
    int rows = 0;
    for (int y = px.top(); y <= px.bottom(); ++y)
        for (int x = px.left(); x <= px.right(); ++x)
            if (qGray(image.pixel(x, y)) < 100) {
                ++rows;
                break;
            }
    return rows;
}

// Dark pixels in a page-space rectangle of a page image rendered at `scale`.
int darkPixels(const QImage &image, const std::shared_ptr<PdfPage> &page, QRectF pageRect, qreal scale)
{
    const QRectF shown = page->pageToDisplay().mapRect(pageRect);
    const QRect px = QRectF(shown.topLeft() * scale, shown.size() * scale).toAlignedRect().intersected(image.rect());
    int dark = 0;
    for (int y = px.top(); y <= px.bottom(); ++y)
        for (int x = px.left(); x <= px.right(); ++x)
            dark += qGray(image.pixel(x, y)) < 128;
    return dark;
}

QImage popplerImage(const QString &path, const QString &dir)
{
    const QString prefix = dir + "/poppler";
    QProcess::execute("pdftoppm", {"-r", "144", "-f", "1", "-l", "1", "-singlefile", "-png", path, prefix});
    return QImage(prefix + ".png").convertToFormat(QImage::Format_ARGB32);
}

QImage mupdfImage(const QString &path, const QString &dir)
{
    const QString out = dir + "/mupdf.png";
    QProcess::execute("mutool", {"draw", "-q", "-r", "144", "-o", out, path, "1"});
    return QImage(out).convertToFormat(QImage::Format_ARGB32);
}

// One font of a saved file as qpdf and poppler's pdffonts describe it.
struct EmbeddedFont {
    QString baseFont;
    QByteArray program; // the decoded font file
    bool listedAsSubset = false;
};

// A value of a qpdf object, followed when it is a reference.
QJsonObject resolved(const inspect::PdfObjects &file, const QJsonValue &value)
{
    return value.isString() ? file.dict(value.toString()) : value.toObject();
}

// The font named in each free text box's default appearance, box by box.
std::vector<EmbeddedFont> freeTextFonts(const QString &path)
{
    const inspect::PdfObjects file(path);
    const QString fonts = fixtures::toolOutput("pdffonts", {path});
    std::vector<EmbeddedFont> out;
    for (const QString &ref : file.annots(file.pages().value(0))) {
        const QJsonObject annot = file.dict(ref);
        if (annot["/Subtype"].toString() != "/FreeText")
            continue;
        const QString name = annot["/DA"].toString().section(' ', 0, 0).mid(3); // "u:/Name" less "u:/"
        const QJsonObject stream = resolved(file, resolved(file, annot["/AP"])["/N"]);
        const QJsonObject font = resolved(file, resolved(file, resolved(file, stream["/Resources"])["/Font"])["/" + name]);
        EmbeddedFont f;
        f.baseFont = font["/BaseFont"].toString().mid(1);
        const QJsonObject descendant = resolved(file, font["/DescendantFonts"].toArray().at(0));
        const QJsonObject descriptor = resolved(file, descendant["/FontDescriptor"]);
        const QString program =
            descriptor.contains("/FontFile2") ? descriptor["/FontFile2"].toString() : descriptor["/FontFile3"].toString();
        QProcess qpdf;
        qpdf.start("qpdf", {"--show-object=" + program.section(' ', 0, 0), "--filtered-stream-data", path});
        if (qpdf.waitForFinished(60000))
            f.program = qpdf.readAllStandardOutput();
        // pdffonts: name, type, encoding, then emb, sub and uni as yes or no.
        for (const QString &line : fonts.split('\n'))
            if (line.startsWith(f.baseFont + ' '))
                f.listedAsSubset = line.contains(QRegularExpression("\\byes\\s+yes\\s+yes\\s+\\d+\\s+\\d+\\s*$"));
        out.push_back(f);
    }
    return out;
}

// The font descriptors of a file that carry a font program.
int fontPrograms(const QString &path)
{
    const QJsonObject objects =
        QJsonDocument::fromJson(fixtures::toolOutput("qpdf", {"--json=2", "--json-key=qpdf", path}).toUtf8())["qpdf"]
            .toArray()
            .at(1)
            .toObject();
    int count = 0;
    for (const QJsonValue &value : objects) {
        const QJsonObject o = value.toObject()["value"].toObject();
        count += o.contains("/FontFile") || o.contains("/FontFile2") || o.contains("/FontFile3");
    }
    return count;
}

} // namespace

class TestFonts : public QObject {
    Q_OBJECT
private slots:
    void pdfFontNamesAreReadAsFamilyAndStyle();
    void installedFontsStandInForPdfFonts();
    void freeTextEmbedsOnlyTheGlyphsItDraws();
    void savingAgainLeavesNoOldSubsets();

private:
    QTemporaryDir dir_;
    QString path(const QString &name) const { return dir_.filePath(name); }
};

void TestFonts::pdfFontNamesAreReadAsFamilyAndStyle()
{
    struct Case {
        QString name;
        QString family; // one of the readings; blanks and case do not count
        int weight;
        bool italic;
        bool first; // the first reading
    };
    const std::vector<Case> cases{
        {"Helvetica", "Helvetica", 400, false, true},
        {"Times-Roman", "Times", 400, false, true},
        {"Times-BoldItalic", "Times", 700, true, true},
        {"Arial,Bold", "Arial", 700, false, true},
        {"Courier-Oblique", "Courier", 400, true, true},
        {"ABCDEF+ArialMT", "Arial", 400, false, false},
        {"ArialMT", "Arial MT", 400, false, true},
        {"TimesNewRomanPS-BoldMT", "Times New Roman", 700, false, false},
        {"TimesNewRomanPS-BoldItalicMT", "Times New Roman", 700, true, false},
        {"LiberationSerif-Italic", "Liberation Serif", 400, true, true},
        {"QRSTUV+DejaVuSans-BoldOblique", "DejaVu Sans", 700, true, true},
        {"MinionPro-SemiboldIt", "Minion Pro", 600, true, true},
        {"Arial Black", "Arial Black", 400, false, true},
        {"Arial Black", "Arial", 900, false, false},
        {"CMR10", "CMR10", 400, false, true},
        {"abcdef+Foo", "abcdef+Foo", 400, false, true},
    };
    for (const Case &c : cases) {
        const std::vector<systemfonts::Name> readings = systemfonts::readings(c.name);
        QVERIFY2(!readings.empty(), qPrintable(c.name));
        auto matches = [&](const systemfonts::Name &n) {
            return folded(n.family) == folded(c.family) && n.weight == c.weight && n.italic == c.italic;
        };
        const bool found = c.first ? matches(readings.front()) : std::any_of(readings.begin(), readings.end(), matches);
        QVERIFY2(found, qPrintable(c.name + " → " + readings.front().family));
    }
    // Run-together words are spaced as they would be written.
    const auto times = systemfonts::readings("TimesNewRomanPS-BoldMT");
    QVERIFY(std::any_of(times.begin(), times.end(), [](const auto &n) { return n.family == "Times New Roman"; }));
}

void TestFonts::installedFontsStandInForPdfFonts()
{
    FontService &fonts = FontService::instance();
    // The published widths of the standard fonts, which their metric-compatible
    // stand-ins share: "Arial" in Helvetica, "Times" in Times-Roman and Times-Bold.
    const int helveticaArial = 667 + 333 + 222 + 556 + 222;
    const int timesTimes = 611 + 278 + 778 + 444 + 389;
    const int timesBoldTimes = 667 + 278 + 833 + 444 + 389;

    // A PDF name finds the file fontconfig picks for its family and style.
    struct Installed {
        PdfFont font;
        QString pattern; // for fc-match
        bool bold;
        bool italic;
    };
    const std::vector<Installed> installed{
        {{"Arial", 12}, "Arial", false, false},
        {{"ArialMT", 12}, "Arial", false, false},
        {{"ABCDEF+Arial-BoldMT", 12}, "Arial:bold", true, false},
        {{"Arial", 12, true, true}, "Arial:bold:italic", true, true},
        {{"Helvetica", 12}, "Helvetica", false, false},
        {{"Times-Roman", 12}, "Times", false, false},
        {{"Times-Bold", 12}, "Times:bold", true, false},
        {{"TimesNewRomanPS-BoldMT", 12}, "Times New Roman:bold", true, false},
        {{"Courier", 12}, "Courier", false, false},
        {{"LiberationSerif-Italic", 12}, "Liberation Serif:italic", false, true},
        {{"DejaVuSans", 12}, "DejaVu Sans", false, false},
        {{"sans-serif", 12}, "sans-serif", false, false},
        {{"serif", 12}, "serif", false, false},
        {{"monospace", 12}, "monospace", false, false},
    };
    for (const Installed &c : installed) {
        const FontFace &face = fonts.resolve(c.font);
        const QString file = fcFile(c.pattern);
        QVERIFY2(face.isValid() && !file.isEmpty(), qPrintable(c.font.name));
        QVERIFY2(face.data == readAll(file), qPrintable(c.font.name + " is not " + file));
        QCOMPARE(face.bold, c.bold);
        QCOMPARE(face.italic, c.italic);
    }
    // Qt draws with the very face resolved, also one between regular and bold.
    const PdfFont demi{"URWGothic-Demi", 20};
    const FontFace &demiFace = fonts.resolve(demi);
    QVERIFY(demiFace.data == readAll(fcFile("URW Gothic:demibold")));
    QVERIFY(demiFace.weight > 500 && demiFace.weight < 700);
    const QFont q = fonts.qFont(demi);
    QCOMPARE(QFontInfo(q).family(), demiFace.family);
    QVERIFY(sameOutlines(QRawFont::fromFont(q), QRawFont(demiFace.data, 20, QFont::PreferNoHinting), "Gothic Demi"));

    // The stand-ins fontconfig gives here are metric-compatible: Arial is as
    // wide as Helvetica, Times-Bold as Times-Bold, Courier is monospaced.
    QVERIFY(std::abs(width({"ArialMT", 12}, "Arial") - helveticaArial) <= 3);
    QVERIFY(std::abs(width({"Helvetica", 12}, "Arial") - helveticaArial) <= 3);
    QVERIFY(std::abs(width({"Times-Roman", 12}, "Times") - timesTimes) <= 3);
    QVERIFY(std::abs(width({"Times-Bold", 12}, "Times") - timesBoldTimes) <= 3);
    QCOMPARE(width({"Courier", 12}, "iiii"), 2400);
    QCOMPARE(width({"Courier", 12}, "MMMM"), 2400);
    QVERIFY(fonts.resolve({"Times-Bold", 12}).weight >= 700);

    // Names fontconfig has no family for fall back to the standard face of
    // their kind, not to fontconfig's default face.
    struct Unknown {
        QString name;
        QString text;
        int width;
    };
    std::vector<Unknown> unknown{{"Qzxv Serif", "Times", timesTimes},
                                 {"Qzxv-Bold", "Arial", 722 + 389 + 278 + 556 + 278},
                                 {"F1", "Arial", helveticaArial},
                                 {"Qzxv Mono", "MMii", 2400}};
    if (!folded(fcFamily("CMR10")).contains("cmr"))
        unknown.push_back({"CMR10", "Times", timesTimes});
    for (const Unknown &c : unknown) {
        const FontFace &face = fonts.resolve({c.name, 12});
        QVERIFY2(face.isValid() && face.data != readAll(fcFile(c.name)), qPrintable(c.name));
        QVERIFY2(std::abs(width({c.name, 12}, c.text) - c.width) <= 3, qPrintable(c.name));
    }
}

void TestFonts::freeTextEmbedsOnlyTheGlyphsItDraws()
{
    QVERIFY(fixtures::writePdf(path("blank.pdf"), {fixtures::PageSpec{}}));
    const QStringList samples{QString::fromUtf8("Zażółć gęślą jaźń"), QString::fromUtf8("Καλημέρα κόσμε"),
                              QString::fromUtf8("Съешь же ещё этих мягких французских булок")};
    const QStringList names{"LiberationSans", "Arial", "ArialMT"};
    auto doc = PdfDocument::open(path("blank.pdf"));
    auto page = doc->page(0);
    std::vector<std::shared_ptr<PdfAnnotation>> boxes;
    for (int i = 0; i < samples.size(); ++i) {
        boxes.push_back(plainTextBox({72, 650.0 - 80 * i, 470, 40}, PdfFont{names[i], 18}, samples[i]));
        page->addAnnotation(boxes.back());
    }
    // Characters the face lacks come from fallback faces, here a collection
    // whose glyphs are addressed by CID.
    const QString cjk = QString::fromUtf8("中文字体 日本語 한국어");
    auto cjkBox = plainTextBox({72, 330, 470, 40}, PdfFont{"Arial", 18}, cjk);
    page->addAnnotation(cjkBox);
    const QString saved = path("scripts.pdf");
    QVERIFY(doc->write(saved));
    QCOMPARE(inspect::qpdfProblems(saved), QString());

    // Both readers give the text back and draw it, in letters about as tall as
    // the font (18 pt is 36 px here; a missing glyph drawn as a dot or a box
    // would be a few pixels or the full height of a line).
    const QString text = fixtures::toolOutput("pdftotext", {"-enc", "UTF-8", saved, "-"}).simplified();
    const QString mupdfText = fixtures::toolOutput("mutool", {"draw", "-q", "-F", "txt", "-o", "-", saved, "1"}).simplified();
    const QImage poppler = popplerImage(saved, dir_.path());
    const QImage mupdf = mupdfImage(saved, dir_.path());
    QVERIFY(!poppler.isNull() && !mupdf.isNull());
    for (int i = 0; i < samples.size(); ++i) {
        QVERIFY2(text.contains(samples[i]), qPrintable(text));
        QVERIFY2(mupdfText.contains(samples[i]), qPrintable(mupdfText));
        for (const QImage &image : {poppler, mupdf}) {
            const int rows = inkRows(image, page, boxes[size_t(i)]->bounds(), 2);
            QVERIFY2(rows > 24 && rows < 60, qPrintable(QString("%1: %2 rows").arg(samples[i]).arg(rows)));
        }
    }

    QVERIFY2(text.contains(cjk), qPrintable(text));
    QVERIFY2(mupdfText.contains(cjk), qPrintable(mupdfText));
    // Both readers find the same glyphs for the codes the text is drawn with.
    const int popplerInk = darkPixels(poppler, page, cjkBox->bounds(), 2),
              mupdfInk = darkPixels(mupdf, page, cjkBox->bounds(), 2);
    QVERIFY2(popplerInk > 500 && std::abs(popplerInk - mupdfInk) < popplerInk / 5,
             qPrintable(QString("%1 %2").arg(popplerInk).arg(mupdfInk)));

    // Each box's font is a subset of Liberation Sans (or whatever this machine
    // has for Arial) holding the characters the box draws and no others.
    std::vector<EmbeddedFont> fonts = freeTextFonts(saved);
    QCOMPARE(fonts.size(), size_t(samples.size() + 1));
    fonts.pop_back();
    const FontFace &face = FontService::instance().resolve({"Arial", 18});
    for (size_t i = 0; i < fonts.size(); ++i) {
        const EmbeddedFont &f = fonts[i];
        QVERIFY2(QRegularExpression("^[A-Z]{6}\\+" + QRegularExpression::escape(face.postScriptName) + "$")
                     .match(f.baseFont)
                     .hasMatch(),
                 qPrintable(f.baseFont));
        QVERIFY2(f.listedAsSubset, qPrintable(f.baseFont));
        QVERIFY2(f.program.size() > 0 && f.program.size() < face.data.size() / 4,
                 qPrintable(QString("%1 of %2 bytes").arg(f.program.size()).arg(face.data.size())));
        const QRawFont program(f.program, 18);
        QVERIFY(program.isValid());
        for (QChar ch : samples[int(i)])
            QVERIFY2(program.supportsCharacter(ch), qPrintable(samples[int(i)]));
        for (QChar absent : QString::fromUtf8("QЖΩ"))
            QVERIFY(!samples[int(i)].contains(absent) && !program.supportsCharacter(absent));
    }
    QCOMPARE(QSet<QString>({fonts[0].baseFont, fonts[1].baseFont, fonts[2].baseFont}).size(), 3);

    // A ten-word box adds only its glyphs to the file.
    auto small = PdfDocument::open(path("blank.pdf"));
    QVERIFY(small->write(path("plain.pdf")));
    small->page(0)->addAnnotation(
        plainTextBox({72, 600, 400, 60}, PdfFont{"Arial", 12}, "The quick brown fox jumps over the lazy sleeping dog"));
    QVERIFY(small->write(path("ten-words.pdf")));
    const qint64 added = QFileInfo(path("ten-words.pdf")).size() - QFileInfo(path("plain.pdf")).size();
    qInfo("A ten-word text box adds %lld bytes", added);
    QVERIFY2(added > 0 && added < 20000, qPrintable(QString::number(added)));
}

void TestFonts::savingAgainLeavesNoOldSubsets()
{
    QVERIFY(fixtures::writePdf(path("edits.pdf"), {fixtures::PageSpec{}}));
    auto doc = PdfDocument::open(path("edits.pdf"));
    auto box = plainTextBox({72, 600, 400, 60}, PdfFont{"Arial", 14}, "First words of a note");
    doc->page(0)->addAnnotation(box);
    const QStringList edits{"First words of a note", QString::fromUtf8("Zweite Fassung, größer"),
                            QString::fromUtf8("Τρίτη εκδοχή του σημειώματος"), "First words of a note"};
    std::vector<qint64> sizes;
    QStringList baseFonts;
    for (int i = 0; i < edits.size(); ++i) {
        box->setContents(edits[i]);
        const QString file = path(QString("edit-%1.pdf").arg(i));
        QVERIFY(doc->write(file));
        QCOMPARE(inspect::qpdfProblems(file), QString());
        // One font program in the file, holding the text as it is now.
        QCOMPARE(fontPrograms(file), 1);
        QVERIFY(fixtures::toolOutput("pdftotext", {"-enc", "UTF-8", file, "-"}).simplified().contains(edits[i]));
        const std::vector<EmbeddedFont> fonts = freeTextFonts(file);
        QCOMPARE(fonts.size(), size_t(1));
        baseFonts << fonts[0].baseFont;
        sizes.push_back(QFileInfo(file).size());
    }
    // A new text makes a new subset, the same text the same one again, and the
    // file stays as large as it was: only the cross-reference table lists the
    // numbers of the objects left out (20 bytes each), where a font would add
    // kilobytes.
    QCOMPARE(QSet<QString>(baseFonts.begin(), baseFonts.end()).size(), 3);
    QCOMPARE(baseFonts[3], baseFonts[0]);
    QVERIFY2(sizes[3] - sizes[0] < 1000, qPrintable(QString("%1 %2").arg(sizes[0]).arg(sizes[3])));
}

int runFontTests(int argc, char **argv)
{
    TestFonts tests;
    return QTest::qExec(&tests, argc, argv);
}

#include "tst_fonts.moc"
