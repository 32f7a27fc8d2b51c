// Comments benchmark: opening a file with 5,000 annotations (500 pages of
// ten: notes with long contents, squares, ink, free text and a highlight
// without contents, whose marked text is read from the page) and listing
// them all in the Comments panel's model, every row's text read; best of
// three. The last line is the time.
#include "CommentsModel.h"
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "PdfDocument.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

QString commentsFile(const QTemporaryDir &dir, int pages)
{
    std::vector<fixtures::PageSpec> spec = fixtures::numberedPages(pages, 2);
    const QByteArray words = QByteArray("A reviewer's remark on this paragraph. ").repeated(20);
    for (auto &page : spec) {
        for (int k = 0; k < 9; ++k) {
            const qreal y = 100 + 50 * k;
            const QByteArray at = QByteArray::number(k);
            switch (k % 3) {
            case 0:
                page.annotations.push_back(
                    {"<< /Type /Annot /Subtype /Text /T (Ann) /M (D:20240102030405Z) /Contents (" + at + " " + words + ")",
                     {72, y, 20, 20},
                     {}});
                break;
            case 1:
                page.annotations.push_back(
                    {"<< /Type /Annot /Subtype /Square /T (Bob) /C [1 0 0] /Contents (Box " + at + ")", {200, y, 80, 40}, {}});
                break;
            default:
                page.annotations.push_back(
                    {"<< /Type /Annot /Subtype /FreeText /T (Cy) /Contents (Free " + at + ")", {320, y, 120, 30}, {}});
            }
        }
        page.annotations.push_back(
            {"<< /Type /Annot /Subtype /Highlight /T (Bob) /QuadPoints [60 694 560 694 60 676 560 676]", {60, 676, 500, 18}, {}});
    }
    const QString path = dir.filePath(QStringLiteral("comments.pdf"));
    return fixtures::writePdf(path, spec) ? path : QString();
}

// Milliseconds to open the file and list its annotations; -1 on failure.
qint64 openAndList(const QString &path, int *rows)
{
    QElapsedTimer clock;
    clock.start();
    DocumentModel model;
    model.setDocument(PdfDocument::open(path), path);
    CommentsModel comments(&model);
    qsizetype characters = 0;
    for (int row = 0; row < comments.rowCount(); ++row)
        characters += comments.index(row).data().toString().size();
    const qint64 ms = clock.elapsed();
    *rows = comments.rowCount();
    return model.pdfDocument() && characters > 0 ? ms : -1;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    const QString file = commentsFile(dir, 500);
    if (file.isEmpty())
        return 1;
    int rows = 0;
    qint64 best = -1;
    for (int run = 0; run < 3; ++run) {
        const qint64 ms = openAndList(file, &rows);
        if (ms < 0)
            return 1;
        best = best < 0 ? ms : std::min(best, ms);
    }
    std::printf("annotations=%d\n", rows);
    std::printf("comments_list_ms=%lld\n", static_cast<long long>(best));
    return rows == 5000 ? 0 : 1;
}
