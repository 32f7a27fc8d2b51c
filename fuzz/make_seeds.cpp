// Writes the fuzz targets' seed corpora, one folder each, by code:
//   engine/  PDF files: plain and rotated, cropped and offset pages,
//            annotations of every kind (made here and "by another program",
//            with popups and form fields), links, encrypted files (by the
//            engine, and the older ways by qpdf), damaged and truncated
//            files; documents with outlines (nested, leading by
//            name, by action, nowhere), named destinations (UTF-16 and
//            non-ASCII names, in the name tree and the older dictionary),
//            forms (fields with widgets on several pages, hierarchical names,
//            radio buttons); damaged page trees, outlines and name trees.
//   pages/   two of those files and a script of choices (some with memory
//            running out part way).
//   edit/    one of those files and an edit script that takes every step.
//   font/    small fonts: TrueType and OpenType subsets of installed faces
//            made with the engine's own subsetter, bare CFF programs (two
//            plain, two CID-keyed with different charsets), with text.
// Kept small: a few kilobytes each.
#include "FixtureBuilder.h"
#include "FontPrograms.h"
#include "FontService.h"
#include "FuzzSupport.h"
#include "PdfDocument.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>

#include <cstdio>
#include <map>

using namespace fixtures;

namespace {

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A file of the given objects (object 1 the catalog), with a correct
// cross-reference table, so that only what the objects say is damaged.
QByteArray rawPdf(const std::vector<QByteArray> &objects)
{
    QByteArray out = "%PDF-1.7\n";
    std::vector<qsizetype> offsets;
    for (size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(out.size());
        out += QByteArray::number(qulonglong(i + 1)) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    const qsizetype xref = out.size();
    out += "xref\n0 " + QByteArray::number(qulonglong(objects.size() + 1)) + "\n0000000000 65535 f \n";
    for (qsizetype offset : offsets)
        out += QByteArray::number(offset).rightJustified(10, '0') + " 00000 n \n";
    out += "trailer\n<< /Size " + QByteArray::number(qulonglong(objects.size() + 1)) + " /Root 1 0 R >>\nstartxref\n" +
           QByteArray::number(xref) + "\n%%EOF\n";
    return out;
}

QByteArray contentStream(const QByteArray &text)
{
    const QByteArray content = "BT /F1 24 Tf 72 700 Td (" + text + ") Tj ET";
    return "<< /Length " + QByteArray::number(content.size()) + " >>\nstream\n" + content + "\nendstream";
}

// Damaged page trees: objects 1 catalog, 2 the root node, 3 a page, 4 its
// contents, 5 the font, 6 an outline entry and 7 the outline, 8 a link on
// the page; `pagesNode` and `extra` (objects 9 on) make the damage.
QByteArray damagedTree(const QByteArray &pagesNode, const std::vector<QByteArray> &extra = {},
                       const QByteArray &pageParent = "2 0 R", const QByteArray &catalogMore = " /OpenAction [3 0 R /Fit]",
                       const QByteArray &entryMore = "")
{
    std::vector<QByteArray> objects{
        "<< /Type /Catalog /Pages 2 0 R /Outlines 7 0 R" + catalogMore + " >>",
        pagesNode,
        "<< /Type /Page /Parent " + pageParent +
            " /MediaBox [0 0 300 300] /Resources << /Font << /F1 5 0 R >> >> /Contents 4 0 R /Annots [8 0 R] >>",
        contentStream("Tree"),
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        "<< /Title (Page) /Parent 7 0 R /Dest [3 0 R /Fit]" + entryMore + " >>",
        "<< /Type /Outlines /First 6 0 R /Last 6 0 R /Count 1 >>",
        "<< /Type /Annot /Subtype /Link /Rect [0 0 100 100] /P 3 0 R /Dest [3 0 R /XYZ 0 0 0] >>",
    };
    objects.insert(objects.end(), extra.begin(), extra.end());
    return rawPdf(objects);
}

// A form whose fields are a tree: "person" holds "name" (a text field with
// a widget on each page) and "address", which holds "city"; a radio button
// group with a button on each page; a field whose widget is on no page.
QByteArray formTree()
{
    auto page = [](int contents, const QByteArray &annots) {
        return "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 400 400] /Resources << /Font << /Helv 5 0 R >> >> /Contents " +
               QByteArray::number(contents) + " 0 R /Annots [" + annots + "] >>";
    };
    auto widget = [](int page, int parent, const QByteArray &more) {
        return "<< /Type /Annot /Subtype /Widget /Rect [50 50 200 80] /F 4 /P " + QByteArray::number(page) + " 0 R /Parent " +
               QByteArray::number(parent) + " 0 R" + more + " >>";
    };
    return rawPdf({
        "<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [6 0 R 14 0 R 17 0 R] /DA (/Helv 0 Tf 0 g) /NeedAppearances true "
        "/DR << /Font << /Helv 5 0 R >> >> >> >>",
        "<< /Type /Pages /Kids [3 0 R 4 0 R] /Count 2 >>", page(12, "8 0 R 15 0 R"), page(13, "9 0 R 11 0 R 16 0 R"),
        "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
        "<< /T (person) /Kids [7 0 R 10 0 R] >>",                                                                         // 6
        "<< /T <FEFF006E0061006D00E9> /FT /Tx /V (Zoë) /Parent 6 0 R /Kids [8 0 R 9 0 R] /DA (/Helv 12 Tf 0 g) >>",       // 7
        widget(3, 7, ""),                                                                                                 // 8
        widget(4, 7, ""),                                                                                                 // 9
        "<< /T (address) /Parent 6 0 R /Kids [11 0 R] >>",                                                                // 10
        "<< /Type /Annot /Subtype /Widget /Rect [50 100 200 130] /P 4 0 R /Parent 10 0 R /T (city) /FT /Tx /V (Łódź) >>", // 11
        contentStream("Form one"),                                                                                        // 12
        contentStream("Form two"),                                                                                        // 13
        "<< /T (choice) /FT /Btn /Ff 49152 /V /B /Kids [15 0 R 16 0 R] >>",                                               // 14
        widget(3, 14, " /AS /Off /AP << /N << /A 5 0 R /Off 5 0 R >> >>"),                                                // 15
        widget(4, 14, " /AS /B /AP << /N << /B 5 0 R /Off 5 0 R >> >>"),                                                  // 16
        "<< /Type /Annot /Subtype /Widget /Rect [0 0 10 10] /T (orphan) /FT /Tx >>",                                      // 17
    });
}

// A bare CFF program with three empty glyphs: a plain font with family and
// full names, or a CID-keyed one whose charset is of the given format. The
// top DICT's numbers take five bytes each, or, when `compact`, the charset's
// offset takes one (so that a mutation removing one byte leaves its entry
// without operands).
QByteArray cffProgram(bool cid, int charsetFormat = 0, bool compact = false)
{
    auto index = [](const std::vector<QByteArray> &items) {
        QByteArray out;
        out += char(0);
        out += char(items.size());
        if (items.empty())
            return out;
        out += char(1);
        int offset = 1;
        out += char(offset);
        for (const QByteArray &item : items)
            out += char(offset += int(item.size()));
        for (const QByteArray &item : items)
            out += item;
        return out;
    };
    auto number = [](int value) { // five bytes, so the top DICT's size is known before its offsets
        QByteArray out(1, char(29));
        for (int k = 3; k >= 0; --k)
            out += char((value >> (8 * k)) & 0xff);
        return out;
    };
    const QByteArray header("\x01\x00\x04\x01", 4);
    const QByteArray names = index({"FuzzFont"});
    const QByteArray strings =
        index(cid ? std::vector<QByteArray>{"Adobe", "Identity"} : std::vector<QByteArray>{"Fuzz Sans", "Fuzz Sans Regular"});
    const QByteArray globalSubrs = index({});
    QByteArray charset(1, char(cid ? charsetFormat : 0));
    if (charsetFormat == 2)
        charset += QByteArray("\x00\x05\x00\x01", 4); // CIDs 5 and 6
    else
        charset += QByteArray("\x00\x22\x00\x23", 4); // 34, 35
    const QByteArray charStrings = index({"\x0e", "\x0e", "\x0e"});
    const QByteArray privateDict("\x8b\x14", 2); // defaultWidthX 0
    auto topDict = [&](int charsetAt, int charStringsAt, int privateAt, int fdSelectAt, int fdArrayAt) {
        if (cid)
            return number(391) + number(392) + number(0) + "\x0c\x1e" + number(charsetAt) + "\x0f" + number(charStringsAt) +
                   "\x11" + number(fdSelectAt) + "\x0c\x25" + number(fdArrayAt) + "\x0c\x24";
        const QByteArray charsetOffset = compact ? QByteArray(1, char(charsetAt + 139)) : number(charsetAt);
        return number(392) + "\x02" + number(391) + "\x03" + charsetOffset + "\x0f" + number(charStringsAt) + "\x11" +
               number(int(privateDict.size())) + number(privateAt) + "\x12";
    };
    const int top = int(index({topDict(0, 0, 0, 0, 0)}).size());
    const int charsetAt = int(header.size() + names.size()) + top + int(strings.size() + globalSubrs.size());
    const int charStringsAt = charsetAt + int(charset.size());
    const int privateAt = charStringsAt + int(charStrings.size());
    const QByteArray fdSelect("\x00\x00\x00\x00", 4); // format 0, each glyph in font DICT 0
    const int fdSelectAt = privateAt + int(privateDict.size());
    const int fdArrayAt = fdSelectAt + int(fdSelect.size());
    QByteArray out = header + names + index({topDict(charsetAt, charStringsAt, privateAt, fdSelectAt, fdArrayAt)}) + strings +
                     globalSubrs + charset + charStrings + privateDict;
    if (cid)
        out += fdSelect + index({number(int(privateDict.size())) + number(privateAt) + "\x12"});
    return out;
}

// A font fuzzer input: flags, glyph ids, text, then the program.
QByteArray fontInput(int flags, const std::vector<unsigned> &glyphs, const QByteArray &utf8, const QByteArray &program)
{
    QByteArray out;
    out += char(flags);
    out += char(glyphs.size());
    for (unsigned g : glyphs) {
        out += char(g >> 8);
        out += char(g & 0xff);
    }
    out += char(utf8.size());
    return out + utf8 + program;
}

// `in` encrypted by qpdf with the given arguments (the older methods too,
// which the engine never writes).
bool qpdfEncrypt(const QString &in, const QString &out, const QStringList &arguments, bool passwordAsBytes = false)
{
    QProcess qpdf;
    QStringList all{QStringLiteral("--allow-weak-crypto")};
    if (passwordAsBytes)
        all << QStringLiteral("--password-mode=bytes");
    qpdf.start(QStringLiteral("qpdf"),
               all + QStringList{QStringLiteral("--encrypt")} + arguments + QStringList{QStringLiteral("--"), in, out});
    return qpdf.waitForFinished() && qpdf.exitStatus() == QProcess::NormalExit && qpdf.exitCode() == 0;
}

// An edit script step: what it does, to which page, and its bytes.
QByteArray step(int op, int page, const QByteArray &bytes)
{
    return (QByteArray(1, char(op)) + char(page) + bytes).leftJustified(24, '\0', true);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds FOLDER\n");
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    for (const char *folder : {"engine", "pages", "edit", "font"})
        QDir().mkpath(out.filePath(QLatin1String(folder)));
    auto at = [&](const char *name) { return out.filePath(QLatin1String("engine/") + QLatin1String(name)); };
    bool ok = true;

    // --- Documents ---
    std::vector<PageSpec> shapes = numberedPages(3, 2);
    shapes[1].rotation = 90;
    shapes[2].mediaBox = QRectF(100, 200, 400, 500);
    shapes[2].cropBox = QRectF(120, 220, 300, 400);
    shapes[2].rotation = 270;
    PageSpec links = numberedPages(1, 1)[0];
    links.annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0] /Dest [4 0 R /XYZ 72 700 0]", QRectF(72, 100, 128, 20), ""});
    links.annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /A << /S /URI /URI (https://example.org/) >>", QRectF(300, 100, 100, 20), ""});
    ok = ok && writePdf(at("pages.pdf"), shapes) && writePdf(at("foreign.pdf"), {pageWithForeignAnnotations(), links}) &&
         writePdf(at("popups.pdf"), {pageWithPopups()}) && writeWithAnnotations(at("annotated.pdf")) &&
         writeEncrypted(at("encrypted.pdf"), numberedPages(1, 1), fuzzing::SeedPassword) && writeDamaged(at("damaged.pdf")) &&
         writeTruncated(at("truncated.pdf"), 0.8);
    // Encrypted the older ways: RC4 with 40 and 128-bit keys (this one with a
    // password outside PDFDocEncoding, as its UTF-8 bytes), AES with 128.
    const QString password = fuzzing::SeedPassword, owner = QStringLiteral("owner");
    ok = ok && qpdfEncrypt(at("pages.pdf"), at("encrypted-rc4-40.pdf"), {password, owner, QStringLiteral("40")}) &&
         qpdfEncrypt(at("foreign.pdf"), at("encrypted-rc4-128.pdf"),
                     {fuzzing::SeedUnicodePassword, owner, QStringLiteral("128"), QStringLiteral("--use-aes=n")}, true) &&
         qpdfEncrypt(at("popups.pdf"), at("encrypted-aes-128.pdf"),
                     {password, owner, QStringLiteral("128"), QStringLiteral("--use-aes=y")});
    // The same file written by the engine: compressed streams, its own xref.
    if (auto doc = PdfDocument::open(at("foreign.pdf")))
        ok = ok && doc->write(at("rewritten.pdf"));

    // An outline three levels deep, leading to pages, by name, by action and
    // nowhere; named destinations with UTF-16 and UTF-8 names; links by name.
    const QByteArray utf16Name("\xfe\xff\x00K\x00\xe4\x03\xa9", 8), utf8Name("Kapitel-\xc3\xa4");
    StructuredSpec outlined{numberedPages(4, 1)};
    outlined.outline = {
        {"Part one",
         0,
         {},
         {{"Chapter 1", 1, {}, {{"Section 1.1", 1}, {"Section 1.2", -1, utf8Name}}}, {"Chapter 2", 2, {}, {}, true}}},
        {QStringLiteral("Zweiter Teil – ä"), -1, {}, {{"By name", -1, utf16Name, {}, true}, {"Last", 3}}},
        {"Nowhere"},
    };
    outlined.namedDestinations = {{utf16Name, 2}, {utf8Name, 3}, {"plain", 0}};
    outlined.links = {{0, 0, utf16Name}, {1, 0, utf8Name, true}, {2, 3}, {3, 0, {}, true}};
    // A link whose action goes on to further actions, and with additional actions.
    outlined.pages[1].annotations.push_back({"<< /Type /Annot /Subtype /Link /A << /S /GoTo /D (plain) /Next [<< /S /GoTo /D (" +
                                                 utf8Name +
                                                 ") >> << /S /URI /URI (https://example.org/) >>] >> /AA << /E << /S "
                                                 "/GoTo /D (plain) >> >>",
                                             QRectF(300, 300, 50, 20), ""});
    ok = ok && writeStructuredPdf(at("outline.pdf"), outlined);
    StructuredSpec legacy{numberedPages(2, 1)};
    legacy.legacyDests = true;
    legacy.namedDestinations = {{"Caf#C3#A9", 1}, {"plain", 0}};
    legacy.links = {{0, 1, "Caf#C3#A9"}, {1, 0, "plain", true}};
    legacy.outline = {{"Café", -1, "Caf#C3#A9"}, {"Start", -1, "plain", {{"Down", 1}}}};
    ok = ok && writeStructuredPdf(at("legacy-dests.pdf"), legacy);
    StructuredSpec form{numberedPages(3, 1)};
    form.fields = {{0, "name", "Ada"},
                   {1, "email"},
                   {1, "sign", "x", {72, 400, 100, 20}, true},
                   {2, "sign", {}, {72, 300, 100, 20}, true},
                   {2, QStringLiteral("città"), QStringLiteral("Genève")}};
    form.links = {{0, 2}};
    form.outline = {{"Form", 1}};
    ok = ok && writeStructuredPdf(at("form.pdf"), form) && fixtures::writeFile(at("form-tree.pdf"), formTree()) &&
         fixtures::writeFile(at("form-every-kind.pdf"), fixtures::formOfEveryKind());

    // Damaged structure.
    const QByteArray onePage = "<< /Type /Pages /Kids [3 0 R] /Count 1";
    std::vector<QByteArray> deep;
    for (int level = 0; level < 200; ++level) // object 9 + level holds the next level
        deep.push_back("<< /Type /Pages /Parent " + QByteArray::number(level ? 8 + level : 2) + " 0 R /Kids [" +
                       (level < 199 ? QByteArray::number(10 + level) + " 0 R" : QByteArray("3 0 R")) + "] /Count 1 >>");
    ok = ok && fixtures::writeFile(at("tree-own-parent.pdf"), damagedTree(onePage + " /Parent 2 0 R >>")) &&
         fixtures::writeFile(at("tree-root-in-kids.pdf"), damagedTree("<< /Type /Pages /Kids [3 0 R 2 0 R] /Count 2 >>")) &&
         fixtures::writeFile(at("tree-kids-loop.pdf"),
                             damagedTree("<< /Type /Pages /Kids [9 0 R] /Count 1 >>",
                                         {"<< /Type /Pages /Parent 2 0 R /Kids [2 0 R 3 0 R] /Count 1 >>"}, "9 0 R")) &&
         fixtures::writeFile(at("tree-huge-count.pdf"), damagedTree("<< /Type /Pages /Kids [3 0 R] /Count 2147483647 >>")) &&
         fixtures::writeFile(at("tree-deep.pdf"), damagedTree("<< /Type /Pages /Kids [9 0 R] /Count 1 >>", deep, "208 0 R")) &&
         fixtures::writeFile(at("outline-loop.pdf"),
                             damagedTree(onePage + " >>",
                                         {"<< /Title (Loop) /Parent 7 0 R /Prev 6 0 R /Next 6 0 R /First 9 0 R /Last 9 0 R "
                                          "/Count 2147483647 /A << /S /GoTo /D (loop) /Next << /S /GoTo /D (loop) >> >> >>",
                                          "<< /Dests 11 0 R >>", "<< /Kids [11 0 R] /Names [(loop) [3 0 R /Fit]] >>"},
                                         "2 0 R", " /Names 10 0 R /OpenAction (loop)", " /Next 9 0 R /First 9 0 R /Count -3"));

    // --- Page work: pairs of documents, with two scripts ---
    const std::vector<std::pair<const char *, const char *>> pairs{
        {"outline.pdf", "form.pdf"},
        {"form.pdf", "form.pdf"},
        {"outline.pdf", "outline.pdf"},
        {"legacy-dests.pdf", "outline.pdf"},
        {"form-tree.pdf", "form.pdf"},
        {"pages.pdf", "foreign.pdf"},
        {"popups.pdf", "legacy-dests.pdf"},
        {"encrypted-rc4-128.pdf", "outline.pdf"},
        {"tree-own-parent.pdf", "form-tree.pdf"},
        {"tree-root-in-kids.pdf", "outline.pdf"},
        {"tree-kids-loop.pdf", "form.pdf"},
        {"tree-huge-count.pdf", "outline.pdf"},
        {"tree-deep.pdf", "legacy-dests.pdf"},
        {"outline-loop.pdf", "outline.pdf"},
    };
    // The first byte makes memory run out during the merge when it is 7 modulo 8.
    const QByteArray scripts[] = {QByteArray("\x01\x01\x03\x00\x02\x01\x00\x01\x01\x01\x01\x01\x01\x01\x01\x01", 16),
                                  QByteArray("\x00\x00\x06\x01\x03\x03\x02\x00\x01\x01\x02\x00\x00\x03\x01\x00", 16),
                                  QByteArray("\x2f\x01\x02\x01\x03\x01\x01\x01\x00\x01\x01\x00\x01\x02\x00\x01", 16)};
    for (size_t i = 0; i < pairs.size(); ++i) {
        const QByteArray input = readFile(at(pairs[i].first)) + fuzzing::Separator + readFile(at(pairs[i].second)) +
                                 fuzzing::Separator + scripts[i % 3];
        ok = ok &&
             fixtures::writeFile(out.filePath(QStringLiteral("pages/pair-%1.bin").arg(i + 1, 2, 10, QLatin1Char('0'))), input);
    }

    // --- Edits: every step once, on documents of each kind ---
    QByteArray script;
    for (int kind = 0; kind < 8; ++kind) // an annotation of each kind
        script += step(5, 0, QByteArray(1, char(kind)) + "\x20\x20\x30\x28\x01\x80\x40\x20\x01\x03\x10\x10\x30\x20\x40\x08");
    script += step(6, 0, "\x01\x02\x40\x40") + step(6, 0, "\x02\x02\x04\x01\x80\x80\x01") + step(6, 0, "\x04\x05\x00\x01");
    script += step(6, 0, "\x06\x06\x20\x20") + step(6, 0, "\x07\x07\x30\x30") + step(6, 0, "\x03\x00\x03");
    script += step(7, 0, "\x02\x60\x60") + step(8, 0, "\x00") + step(9, 0, "\x20\x20") + step(0, 0, "\x01");
    script += step(4, 0, "\x00") + step(1, 1, "") + step(10, 0, "") + step(1, 0, "") + step(3, 0, "\x01");
    script += step(2, 0, "\x00") + step(11, 0, "") + step(6, 0, "\x00\x01\x40\x40") + step(8, 0, "\x01");
    // Form fields filled, toggled, picked, reset and looked at, with undo; pages printed.
    for (char field = 0; field < 20; field += 3)
        script += step(12, 0, QByteArray(1, field) + QByteArray(1, char(field % 5)) + "\x03\x01\x01\x01\x01\x01");
    script += step(13, 0, "\x02\x00\x01\x99\xc6\x09\x09\x01\xff");
    for (const char *name : {"pages.pdf", "foreign.pdf", "popups.pdf", "annotated.pdf", "encrypted.pdf", "encrypted-rc4-40.pdf",
                             "outline.pdf", "form-tree.pdf", "form-every-kind.pdf", "tree-deep.pdf"})
        ok = ok && fixtures::writeFile(out.filePath(QLatin1String("edit/") + QLatin1String(name) + ".bin"),
                                       readFile(at(name)) + fuzzing::Separator + script);

    // --- Fonts ---
    const QByteArray text = "Fuzz \xc3\xbc \xef\xac\x81 \xce\xa9\n\xf0\x9f\x98\x80 wrap\tthese words";
    const std::set<char32_t> characters{U'F', U'u', U'z', U' ', U'\u00fc', U'\u03a9'};
    const std::map<const char *, QString> installed{
        {"dejavu-sans.bin", QStringLiteral("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf")},
        {"nimbus-sans.bin", QStringLiteral("/usr/share/fonts/opentype/urw-base35/NimbusSans-Regular.otf")},
    };
    int flags = 0;
    for (const auto &[name, path] : installed) {
        const std::optional<fontprograms::Subset> subset = fontprograms::subset(readFile(path), 0, {}, characters);
        if (!subset) {
            std::fprintf(stderr, "make_seeds: cannot cut down %s\n", qPrintable(path));
            return 1;
        }
        ok = ok && fixtures::writeFile(out.filePath(QLatin1String("font/") + QLatin1String(name)),
                                       fontInput(flags += 0x12, {1, 2, 3}, text, subset->program));
    }
    ok = ok && fixtures::writeFile(out.filePath(QStringLiteral("font/cff.bin")), fontInput(0x24, {1}, text, cffProgram(false))) &&
         fixtures::writeFile(out.filePath(QStringLiteral("font/cff-compact.bin")),
                             fontInput(0x02, {}, "a", cffProgram(false, 0, true))) &&
         fixtures::writeFile(out.filePath(QStringLiteral("font/cff-cid.bin")), fontInput(0x36, {2}, "", cffProgram(true, 0))) &&
         fixtures::writeFile(out.filePath(QStringLiteral("font/cff-cid-ranges.bin")),
                             fontInput(0x0d, {1, 900}, text, cffProgram(true, 2)));
    return ok ? 0 : 1;
}
