// Opening large files in the application window: a ~100 MB PDF whose pages
// carry big incompressible images, and the same file with a broken
// cross-reference table that must be rebuilt by scanning the whole file. Each
// is timed from the open command to the first paint of the page view with
// every visible page finished (median of a few rounds; the files stay in the
// page cache). `mutool draw` of the first page is the reference. The last line
// is a one-line summary.
#include "ContentView.h"
#include "DocumentModel.h"
#include "PdfView.h"
#include "PdfViewBridge.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

constexpr int pageCount = 48;
// 1024 x 680 RGB: about 2 MB of noise per page, 100 MB in all.
constexpr int imageWidth = 1024;
constexpr int imageHeight = 680;
constexpr int rounds = 3;
constexpr QSize windowSize(1000, 850);

// Writes the file object by object. Each image's /Length is an object of its
// own, as many producers write it, so rebuilding the cross-reference table
// cannot jump over the image data and must scan it.
bool writeLargeFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    std::vector<qint64> offsets(1, 0);
    auto object = [&](const QByteArray &body) {
        offsets.push_back(file.pos());
        file.write(QByteArray::number(qsizetype(offsets.size() - 1)) + " 0 obj\n" + body + "\nendobj\n");
    };
    file.write("%PDF-1.7\n%\xe2\xe3\xcf\xd3\n");
    object("<< /Type /Catalog /Pages 2 0 R >>");
    QByteArray kids;
    for (int i = 0; i < pageCount; ++i)
        kids += QByteArray::number(3 + 4 * i + 2) + " 0 R ";
    object("<< /Type /Pages /Count " + QByteArray::number(pageCount) + " /Kids [" + kids + "] >>");
    QByteArray noise(imageWidth * imageHeight * 3, Qt::Uninitialized);
    for (int i = 0; i < pageCount; ++i) {
        const int image = 3 + 4 * i, length = image + 3;
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(noise.data()), noise.size() / 4);
        object("<< /Type /XObject /Subtype /Image /Width " + QByteArray::number(imageWidth) + " /Height "
               + QByteArray::number(imageHeight) + " /ColorSpace /DeviceRGB /BitsPerComponent 8 /Length "
               + QByteArray::number(length) + " 0 R >>\nstream\n" + noise + "\nendstream");
        const QByteArray content = "q 612 0 0 792 0 0 cm /Im Do Q";
        object("<< /Length " + QByteArray::number(content.size()) + " >>\nstream\n" + content + "\nendstream");
        object("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Resources << /XObject << /Im "
               + QByteArray::number(image) + " 0 R >> >> /Contents " + QByteArray::number(image + 1) + " 0 R >>");
        object(QByteArray::number(noise.size()));
    }
    const qint64 xref = file.pos();
    file.write("xref\n0 " + QByteArray::number(qsizetype(offsets.size())) + "\n0000000000 65535 f \n");
    for (size_t i = 1; i < offsets.size(); ++i)
        file.write(QByteArray::number(offsets[i]).rightJustified(10, '0') + " 00000 n \n");
    file.write("trailer\n<< /Size " + QByteArray::number(qsizetype(offsets.size())) + " /Root 1 0 R >>\nstartxref\n"
               + QByteArray::number(xref) + "\n%%EOF\n");
    return file.error() == QFile::NoError;
}

// A copy whose "startxref" points nowhere and whose table has lost its keyword.
bool writeNeedingRepair(const QString &from, const QString &to)
{
    QFile in(from), out(to);
    if (!in.open(QIODevice::ReadOnly) || !out.open(QIODevice::WriteOnly))
        return false;
    QByteArray data = in.readAll();
    const qsizetype table = data.lastIndexOf("\nxref\n");
    const qsizetype start = data.lastIndexOf("startxref");
    if (table < 0 || start < 0)
        return false;
    data.replace(table + 1, 4, "XREF");
    data.truncate(start);
    data += "startxref\n999999999\n%%EOF\n";
    return out.write(data) == data.size();
}

// Milliseconds `mutool draw` takes for the first page at 72 dpi, or -1.
qint64 mutoolFirstPageMs(const QString &path)
{
    QProcess mutool;
    QElapsedTimer clock;
    clock.start();
    mutool.start(QStringLiteral("mutool"),
                 {QStringLiteral("draw"), QStringLiteral("-q"), QStringLiteral("-o"), QStringLiteral("/dev/null"),
                  QStringLiteral("-r"), QStringLiteral("72"), path, QStringLiteral("1")});
    if (!mutool.waitForFinished(120000) || mutool.exitStatus() != QProcess::NormalExit || mutool.exitCode() != 0)
        return -1;
    return clock.elapsed();
}

// Tells when the page view paints with every visible page finished.
class CompletePaintWatch : public QObject {
public:
    explicit CompletePaintWatch(PdfView *view) : view_(view) { view->viewport()->installEventFilter(this); }
    // Runs the open and the event loop until that paint; milliseconds, or -1.
    // `blockedMs` is how long the open call itself held the event loop.
    qint64 time(const std::function<void()> &open, qint64 &blockedMs)
    {
        QEventLoop loop;
        finished_ = [&] { loop.quit(); };
        QTimer::singleShot(120000, &loop, [&] { loop.exit(1); });
        QElapsedTimer clock;
        clock.start();
        open();
        blockedMs = clock.elapsed();
        const bool timedOut = loop.exec() != 0;
        finished_ = nullptr;
        return timedOut ? -1 : clock.elapsed();
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Paint && finished_ && view_->document() && view_->isRenderingComplete())
            QTimer::singleShot(0, this, [this] {
                if (finished_)
                    finished_();
            });
        return QObject::eventFilter(watched, event);
    }

private:
    PdfView *view_;
    std::function<void()> finished_;
};

qint64 median(std::vector<qint64> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QTemporaryDir dir;
    qputenv("XDG_DATA_HOME", dir.filePath(QStringLiteral("data")).toLocal8Bit());
    const QString large = dir.filePath(QStringLiteral("large.pdf")), repair = dir.filePath(QStringLiteral("repair.pdf"));
    QElapsedTimer making;
    making.start();
    if (!writeLargeFile(large) || !writeNeedingRepair(large, repair)) {
        std::fprintf(stderr, "cannot write the benchmark files\n");
        return 1;
    }
    std::printf("files: %d pages of %dx%d RGB noise, %.1f MB (made in %lld ms); window %dx%d\n", pageCount, imageWidth,
                imageHeight, double(QFileInfo(large).size()) / 1e6, making.elapsed(), windowSize.width(),
                windowSize.height());

    DocumentModel model;
    ContentView window(&model);
    window.resize(windowSize);
    window.show();
    app.processEvents();
    PdfView *view = window.bridge()->pdfView();
    CompletePaintWatch watch(view);

    struct Case {
        const char *name;
        QString path;
        qint64 ms = -1;
    };
    Case cases[] = {{"100 MB file", large}, {"100 MB file, cross-reference table rebuilt", repair}};
    for (Case &c : cases) {
        std::vector<qint64> times, blocked;
        for (int round = 0; round < rounds; ++round) {
            model.setDocument(nullptr, {});
            app.processEvents();
            qint64 blockedMs = -1;
            const qint64 ms = watch.time([&] { model.open(c.path); }, blockedMs);
            if (ms < 0 || model.fileURL() != c.path || !model.errorMessage().isEmpty()) {
                std::fprintf(stderr, "%s: not shown (%s)\n", c.name, qPrintable(model.errorMessage()));
                return 1;
            }
            times.push_back(ms);
            blocked.push_back(blockedMs);
        }
        c.ms = median(times);
        std::printf("open to first page painted, %s: %lld ms (rounds:", c.name, c.ms);
        for (qint64 t : times)
            std::printf(" %lld", t);
        std::printf("), of which the open call (the wait cursor up): %lld ms; mutool draw of page 1: %lld ms\n",
                    median(blocked), mutoolFirstPageMs(c.path));
    }
    std::printf("open_100mb_ms=%lld open_100mb_repair_ms=%lld\n", cases[0].ms, cases[1].ms);
    return 0;
}
