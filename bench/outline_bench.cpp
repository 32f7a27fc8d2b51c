// Bookmarks benchmark: opening a file with 6,000 outline entries (on 1,000
// pages, two levels, every third entry through a named destination) and
// building the Bookmarks panel's model of it, best of three; then the same
// for 100,000 entries, with the peak memory. The last line is the 6,000-entry time.
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "OutlineModel.h"
#include "PdfDocument.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>

namespace {

// `chapters` entries of `perChapter` entries each (the chapter counted).
QString outlineFile(const QTemporaryDir &dir, int pages, int chapters, int perChapter)
{
    fixtures::StructuredSpec spec;
    spec.pages = fixtures::numberedPages(pages, 0);
    int made = 0;
    auto next = [&] {
        const int at = made++;
        fixtures::OutlineSpec entry{QStringLiteral("Entry %1").arg(at), at % pages};
        if (at % 3 == 0) {
            entry.name = "dest" + QByteArray::number(at);
            spec.namedDestinations.emplace_back(entry.name, at % pages);
        }
        return entry;
    };
    for (int chapter = 0; chapter < chapters; ++chapter) {
        spec.outline.push_back(next());
        for (int k = 1; k < perChapter; ++k)
            spec.outline.back().children.push_back(next());
    }
    const QString path = dir.filePath(QStringLiteral("outline-%1.pdf").arg(made));
    return fixtures::writeStructuredPdf(path, spec) ? path : QString();
}

// Milliseconds to open the file and build the panel's model; -1 on failure.
qint64 openAndModel(const QString &path, int *rows)
{
    QElapsedTimer clock;
    clock.start();
    DocumentModel model;
    model.setDocument(PdfDocument::open(path), path);
    OutlineModel outline(&model);
    const qint64 ms = clock.elapsed();
    *rows = 0;
    for (int row = 0; row < outline.rowCount(); ++row)
        *rows += 1 + outline.rowCount(outline.index(row, 0));
    return model.pdfDocument() ? ms : -1;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    const QString small = outlineFile(dir, 1000, 1000, 6);
    const QString large = outlineFile(dir, 2000, 10000, 10);
    if (small.isEmpty() || large.isEmpty())
        return 1;
    int rows = 0;
    const qint64 largeMs = openAndModel(large, &rows);
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("outline_100000_ms=%lld entries=%d peak_rss_mb=%ld\n", static_cast<long long>(largeMs), rows,
                usage.ru_maxrss / 1024);
    qint64 best = -1;
    for (int run = 0; run < 3; ++run) {
        const qint64 ms = openAndModel(small, &rows);
        best = best < 0 ? ms : std::min(best, ms);
    }
    std::printf("entries=%d\n", rows);
    std::printf("outline_open_ms=%lld\n", static_cast<long long>(best));
    return rows == 6000 ? 0 : 1;
}
