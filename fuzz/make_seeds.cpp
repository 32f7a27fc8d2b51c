// Writes the fuzzer's seed corpus with the test fixture builders: plain and
// rotated, cropped and offset pages, annotations of every kind (made here and
// "by another program", with popups and form fields), links, an encrypted
// file, damaged and truncated files. Kept small: a few kilobytes each.
#include "FixtureBuilder.h"
#include "PdfDocument.h"

#include <QCoreApplication>
#include <QDir>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds FOLDER\n");
        return 2;
    }
    const QDir out(QString::fromLocal8Bit(argv[1]));
    QDir().mkpath(out.path());
    auto at = [&](const char *name) { return out.filePath(QLatin1String(name)); };
    using namespace fixtures;

    std::vector<PageSpec> shapes = numberedPages(3, 2);
    shapes[1].rotation = 90;
    shapes[2].mediaBox = QRectF(100, 200, 400, 500);
    shapes[2].cropBox = QRectF(120, 220, 300, 400);
    shapes[2].rotation = 270;
    PageSpec links = numberedPages(1, 1)[0];
    links.annotations.push_back({"<< /Type /Annot /Subtype /Link /Border [0 0 0] /Dest [4 0 R /XYZ 72 700 0]", QRectF(72, 100, 128, 20), ""});
    links.annotations.push_back(
        {"<< /Type /Annot /Subtype /Link /A << /S /URI /URI (https://example.org/) >>", QRectF(300, 100, 100, 20), ""});
    bool ok = writePdf(at("pages.pdf"), shapes) && writePdf(at("foreign.pdf"), {pageWithForeignAnnotations(), links})
              && writePdf(at("popups.pdf"), {pageWithPopups()}) && writeWithAnnotations(at("annotated.pdf"))
              && writeEncrypted(at("encrypted.pdf"), numberedPages(1, 1), QStringLiteral("fuzz"))
              && writeDamaged(at("damaged.pdf")) && writeTruncated(at("truncated.pdf"), 0.8);
    // The same file written by the engine: compressed streams, its own xref.
    if (auto doc = PdfDocument::open(at("foreign.pdf")))
        ok = ok && doc->write(at("rewritten.pdf"));
    return ok ? 0 : 1;
}
