// Printing: where pages land on the paper, which pages a range means, the
// Print flag on every kind of annotation Vellora makes, and jobs as a real
// print scheduler (a private cupsd with a queue whose device is a file)
// received them, cancelled ones included.
#include "AnnotationFactory.h"
#include "CupsPrinting.h"
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "ImageStampAnnotation.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"
#include "PdfPrintCopy.h"
#include "PrintCommand.h"

#include <QDialog>
#include <QLineEdit>
#include <QPrinter>
#include <QProcess>
#include <QRadioButton>
#include <QTemporaryDir>
#include <QtTest>

#include <numeric>

#include <cups/cups.h>
#include <signal.h>

namespace {

// What the scheduler recorded of the newest job on the test queue: its
// copies, sides and media, as "name=value" words.
QString recordedOptions()
{
    ipp_t *request = ippNewRequest(IPP_OP_GET_JOBS);
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_URI, "printer-uri", nullptr, "ipp://localhost/printers/Vellora-Test");
    ippAddString(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "which-jobs", nullptr, "all");
    static const char *const wanted[] = {"job-id", "copies", "sides", "media"};
    ippAddStrings(request, IPP_TAG_OPERATION, IPP_TAG_KEYWORD, "requested-attributes", 4, nullptr, wanted);
    ipp_t *response = cupsDoRequest(CUPS_HTTP_DEFAULT, request, "/");
    int newest = 0, id = 0;
    QStringList job, recorded;
    for (ipp_attribute_t *a = ippFirstAttribute(response);; a = ippNextAttribute(response)) {
        if (!a || !ippGetName(a)) { // the end of one job's attributes
            if (id > newest)
                newest = id, recorded = job;
            id = 0, job.clear();
            if (!a)
                break;
            continue;
        }
        if (ippGetGroupTag(a) != IPP_TAG_JOB)
            continue;
        char value[256];
        ippAttributeString(a, value, sizeof value);
        if (QByteArray(ippGetName(a)) == "job-id")
            id = ippGetInteger(a, 0);
        else
            job << QString("%1=%2").arg(ippGetName(a), value);
    }
    ippDelete(response);
    recorded.sort();
    return recorded.join(' ');
}

// The page sizes pdfinfo reports, "W x H", one per page.
QStringList pageSizes(const QString &path)
{
    QStringList sizes;
    const QString info = fixtures::toolOutput("pdfinfo", {"-f", "1", "-l", "99", path});
    static const QRegularExpression size(R"(Page\s+\d+ size:\s+([\d.]+) x ([\d.]+))");
    for (auto it = size.globalMatch(info); it.hasNext();) {
        const auto m = it.next();
        sizes << QString("%1 x %2").arg(qRound(m.captured(1).toDouble())).arg(qRound(m.captured(2).toDouble()));
    }
    return sizes;
}

QImage pagePicture(const QString &path, int page)
{
    QTemporaryDir dir;
    fixtures::toolOutput("pdftoppm", {"-r", "72", "-png", "-f", QString::number(page), "-l", QString::number(page), "-singlefile",
                                      path, dir.filePath("p")});
    return QImage(dir.filePath("p.png"));
}

int pixelsLike(const QImage &image, QColor colour)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            count +=
                qAbs(c.red() - colour.red()) < 40 && qAbs(c.green() - colour.green()) < 40 && qAbs(c.blue() - colour.blue()) < 40;
        }
    return count;
}

// Portrait "Alpha"; landscape "Bravo" (with a green square that prints but
// has no appearance, as other programs write them); portrait turned a quarter
// "Charlie" (with a blue square that does not print); a small crop box
// "Delta"; "Echo".
std::vector<fixtures::PageSpec> mixedPages()
{
    using fixtures::PageSpec;
    std::vector<PageSpec> pages(5);
    pages[0].text.push_back({"Alpha", {72, 700}, 24});
    pages[1].mediaBox = QRectF(0, 0, 792, 612);
    pages[1].text.push_back({"Bravo", {300, 300}, 24});
    pages[1].annotations.push_back(
        {"<< /Type /Annot /Subtype /Square /F 4 /C [0 1 0] /IC [0 1 0]", QRectF(500, 100, 100, 100), {}});
    pages[2].rotation = 90;
    pages[2].text.push_back({"Charlie", {72, 700}, 24});
    pages[2].annotations.push_back(
        {"<< /Type /Annot /Subtype /Square /C [0 0 1]", QRectF(300, 300, 100, 100), "0 0 1 rg 300 300 100 100 re f"});
    pages[3].cropBox = QRectF(100, 100, 300, 400);
    pages[3].text.push_back({"Delta", {150, 300}, 24});
    pages[4].text.push_back({"Echo", {72, 700}, 24});
    return pages;
}

} // namespace

class TestPrint : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void placementAndRanges();
    void printFlagOnEveryKind();
    void jobsAsTheSchedulerReceivedThem();

private:
    QTemporaryDir cups_;
    qint64 cupsd_ = 0;
    QString server_;
    QString why_;
};

// A private scheduler on a socket in a temporary folder with one queue that writes
// what it gets, unchanged, to out.pdf (its one filter only passes data on).
void TestPrint::initTestCase()
{
    const QString t = cups_.path();
    for (const char *sub : {"state", "cache", "spool/tmp", "log"})
        QDir(t).mkpath(sub);
    server_ = t + "/cups.sock";
    fixtures::writeFile(t + "/cupsd.conf", QString("Listen %1\nLogLevel warn\nDefaultAuthType None\nWebInterface No\n"
                                                   "Browsing No\n<Location />\n  Order allow,deny\n  Allow all\n</Location>\n"
                                                   "<Policy default>\n  <Limit All>\n    Order deny,allow\n    Allow all\n"
                                                   "  </Limit>\n</Policy>\n")
                                               .arg(server_)
                                               .toUtf8());
    fixtures::writeFile(
        t + "/cups-files.conf",
        QString("ServerRoot %1\nStateDir %1/state\nCacheDir %1/cache\nRequestRoot %1/spool\nTempDir %1/spool/tmp\n"
                "AccessLog %1/log/access_log\nErrorLog %1/log/error_log\nPageLog %1/log/page_log\n"
                "Printcap %1/printcap\nFileDevice Yes\nSystemGroup root\nSandboxing Relaxed\n")
            .arg(t)
            .toUtf8());
    fixtures::writeFile(t + "/pass.ppd", "*PPD-Adobe: \"4.3\"\n*FormatVersion: \"4.3\"\n*FileVersion: \"1.0\"\n"
                                         "*LanguageVersion: English\n*LanguageEncoding: ISOLatin1\n*PCFileName: \"VTEST.PPD\"\n"
                                         "*Manufacturer: \"Test\"\n*Product: \"(Test)\"\n*ModelName: \"Test Queue\"\n"
                                         "*ShortNickName: \"Test Queue\"\n*NickName: \"Test Queue\"\n"
                                         "*cupsFilter: \"application/pdf 0 gziptoany\"\n"
                                         "*OpenUI *PageSize: PickOne\n*DefaultPageSize: A4\n*PageSize A4/A4: \"\"\n"
                                         "*PageSize Letter/Letter: \"\"\n*CloseUI: *PageSize\n*DefaultImageableArea: A4\n"
                                         "*ImageableArea A4: \"0 0 595 842\"\n*ImageableArea Letter: \"0 0 612 792\"\n"
                                         "*DefaultPaperDimension: A4\n*PaperDimension A4: \"595 842\"\n"
                                         "*PaperDimension Letter: \"612 792\"\n");
    if (QStandardPaths::findExecutable("cupsd", {"/usr/sbin", "/sbin"}).isEmpty() ||
        !QFile::exists("/usr/lib/cups/filter/gziptoany")) {
        why_ = "cupsd or its gziptoany filter is not installed (scripts/setup installs them)";
        return;
    }
    QProcess::startDetached(QStandardPaths::findExecutable("cupsd", {"/usr/sbin", "/sbin"}),
                            {"-f", "-c", t + "/cupsd.conf", "-s", t + "/cups-files.conf"}, t, &cupsd_);
    for (int i = 0; i < 50 && QProcess::execute("lpstat", {"-h", server_, "-r"}) != 0; ++i)
        QThread::msleep(100);
    // A scheduler that has just started may still turn a connection away: the queue is added with a few tries.
    bool added = false;
    for (int i = 0; i < 20 && !added; ++i) {
        added = QProcess::execute("lpadmin", {"-h", server_, "-p", "Vellora-Test", "-E", "-v", "file://" + t + "/out.pdf", "-P",
                                              t + "/pass.ppd"}) == 0;
        if (!added)
            QThread::msleep(250);
    }
    if (!added) {
        why_ = "cupsd did not start or took no queue (see " + t + "/log/error_log)";
        return;
    }
    qputenv("CUPS_SERVER", server_.toUtf8());
}

void TestPrint::cleanupTestCase()
{
    if (cupsd_ <= 0)
        return;
    ::kill(pid_t(cupsd_), SIGTERM);
    // Gone before its folder is removed.
    for (int i = 0; i < 50 && ::kill(pid_t(cupsd_), 0) == 0; ++i)
        QThread::msleep(100);
}

void TestPrint::placementAndRanges()
{
    PdfPrintLayout a4;
    a4.paper = QSizeF(595, 842);
    a4.printable = QRectF(20, 20, 555, 802);
    // A landscape page on portrait paper is turned and fills the width of the printable area, centred.
    auto placed = PdfPrintCopy::place(QSizeF(792, 612), a4);
    QVERIFY(placed.turned);
    QCOMPARE(placed.area.width(), 555.0);
    QCOMPARE(placed.area.center(), QPointF(297.5, 421));
    // A portrait page is not turned; on landscape paper it is.
    QVERIFY(!PdfPrintCopy::place(QSizeF(612, 792), a4).turned);
    PdfPrintLayout wide = a4;
    wide.paper = QSizeF(842, 595);
    wide.printable = {};
    QVERIFY(PdfPrintCopy::place(QSizeF(612, 792), wide).turned);
    // Actual size keeps 1:1; shrinking leaves small pages alone and shrinks big ones.
    a4.scaling = PdfPrintLayout::Scaling::ActualSize;
    QCOMPARE(PdfPrintCopy::place(QSizeF(1224, 1584), a4).scale, 1.0);
    a4.scaling = PdfPrintLayout::Scaling::ShrinkOversized;
    QCOMPARE(PdfPrintCopy::place(QSizeF(200, 300), a4).scale, 1.0);
    QVERIFY(PdfPrintCopy::place(QSizeF(1224, 1584), a4).scale < 0.5);

    QPrinter printer(QPrinter::PrinterResolution);
    QString error;
    printer.setPrintRange(QPrinter::PageRange);
    printer.setPageRanges(QPageRanges());
    printer.setFromTo(2, 4);
    QCOMPARE(*PrintCommand::pagesToPrint(printer, 5, 0, {}, &error), (std::vector<int>{1, 2, 3}));
    printer.setFromTo(4, 9);
    QVERIFY(!PrintCommand::pagesToPrint(printer, 5, 0, {}, &error));
    QVERIFY2(error.contains("outside"), qPrintable(error));
    printer.setPrintRange(QPrinter::CurrentPage);
    QCOMPARE(*PrintCommand::pagesToPrint(printer, 5, 3, {}, &error), std::vector<int>{3});
    printer.setPrintRange(QPrinter::Selection);
    QCOMPARE(*PrintCommand::pagesToPrint(printer, 5, 0, {4, 0, 7}, &error), (std::vector<int>{0, 4}));
    QVERIFY(!PrintCommand::pagesToPrint(printer, 5, 0, {}, &error));
}

// Every kind Vellora makes carries the Print flag in the file, also after a
// reopen; a foreign annotation taken away and put back by undo keeps its flags.
void TestPrint::printFlagOnEveryKind()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("kinds.pdf");
    QVERIFY(fixtures::writePdf(path, {fixtures::pageWithForeignAnnotations()}));
    DocumentModel model;
    model.open(path);
    auto page = model.pdfDocument()->page(0);
    const auto foreign = page->annotations();
    QCOMPARE(foreign.size(), size_t(2));
    model.removeAnnotation(foreign.front());
    model.undo();
    QRectF rect(50, 50, 60, 40);
    for (const QString &kind : {PdfAnnotation::Square, PdfAnnotation::Circle, PdfAnnotation::Ink, PdfAnnotation::Highlight,
                                PdfAnnotation::Underline, PdfAnnotation::StrikeOut, PdfAnnotation::FreeText}) {
        auto annotation = PdfAnnotation::create(rect, kind);
        if (kind == PdfAnnotation::Ink)
            annotation->addInkPath(QPolygonF({rect.topLeft(), rect.bottomRight()}));
        if (kind == PdfAnnotation::FreeText)
            annotation->setContents("Note");
        model.addAnnotation(annotation, page, true);
        rect.translate(0, 60);
    }
    QImage signature(40, 20, QImage::Format_ARGB32);
    signature.fill(Qt::black);
    model.addAnnotation(AnnotationFactory::makeImageStamp(signature, rect), page, true);
    model.save();
    inspect::PdfObjects file(path);
    QVERIFY(file.isValid());
    const QStringList annots = file.annots(file.pages().front());
    QCOMPARE(annots.size(), 10);
    for (const QString &ref : annots)
        QVERIFY2(file.dict(ref).value("/F").toInt() & 4, qPrintable(file.dict(ref).value("/Subtype").toString()));
    DocumentModel reopened;
    reopened.open(path);
    for (const auto &annotation : reopened.pdfDocument()->page(0)->annotations())
        annotation->setColor(Qt::green);
    reopened.save();
    inspect::PdfObjects again(path);
    for (const QString &ref : again.annots(again.pages().front()))
        QVERIFY(again.dict(ref).value("/F").toInt() & 4);
}

void TestPrint::jobsAsTheSchedulerReceivedThem()
{
    if (!why_.isEmpty())
        QSKIP(qPrintable(why_));
    QTemporaryDir dir;
    const QString path = dir.filePath("mixed.pdf");
    QVERIFY(fixtures::writePdf(path, mixedPages()));
    DocumentModel model;
    model.open(path);
    // An unsaved red square in the top left corner of the landscape page.
    auto square = PdfAnnotation::create(QRectF(20, 512, 80, 80), PdfAnnotation::Square);
    square->setColor(Qt::red);
    square->setInteriorColor(Qt::red);
    model.addAnnotation(square, model.pdfDocument()->page(1), true);

    QVERIFY(CupsPrinting::serverReachable());
    QVERIFY(CupsPrinting::printers().contains("Vellora-Test"));
    QPrinter printer(QPrinter::HighResolution);
    printer.setPrinterName("Vellora-Test");
    printer.setPageSize(QPageSize(QPageSize::A4));
    printer.setFullPage(true);
    printer.setPrintRange(QPrinter::PageRange);
    printer.setFromTo(2, 4);
    printer.setCopyCount(2);
    PrintCommand command(&model, nullptr, nullptr);
    QVERIFY2(command.print(printer, PdfPrintLayout::Scaling::FitToPrintableArea), qPrintable(model.errorMessage()));
    const QString out = cups_.filePath("out.pdf");
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(out) && !fixtures::toolOutput("pdfinfo", {out}).isEmpty(), 15000);

    QCOMPARE(recordedOptions(), "copies=2 media=A4 sides=one-sided");
    // Three A4 pages, the text of pages 2-4, sent as vector text.
    QCOMPARE(pageSizes(out), QStringList({"595 x 842", "595 x 842", "595 x 842"}));
    const QString text = fixtures::toolOutput("pdftotext", {out, "-"});
    for (const char *word : {"Bravo", "Charlie", "Delta"})
        QVERIFY2(text.contains(word), qPrintable(text));
    QVERIFY(!text.contains("Alpha") && !text.contains("Echo"));
    // The landscape page is turned with its top to the paper's left edge:
    // its top left corner (the red square) lands at the paper's bottom left.
    const QImage turned = pagePicture(out, 1);
    QCOMPARE(turned.pixelColor(58, 748).red(), 255);
    QVERIFY(turned.pixelColor(58, 748).green() < 60);
    QCOMPARE(pixelsLike(turned.copy(0, 0, 595, 421), Qt::red), 0);
    QVERIFY(pixelsLike(turned, Qt::green) > 3000);
    // The square without the Print flag stays off the paper.
    QCOMPARE(pixelsLike(pagePicture(out, 2), Qt::blue), 0);

    // Printing to a file writes the same pages.
    const QString file = dir.filePath("printed.pdf");
    printer.setOutputFileName(file);
    QVERIFY(command.print(printer, PdfPrintLayout::Scaling::FitToPrintableArea));
    QCOMPARE(pageSizes(file), pageSizes(out));
    QCOMPARE(fixtures::toolOutput("pdftotext", {file, "-"}), text);
    // Never over the open document's own file.
    printer.setOutputFileName(path);
    QVERIFY(!command.print(printer, PdfPrintLayout::Scaling::FitToPrintableArea));
    QCOMPARE(pageSizes(path).size(), 5);

    // A range outside the document prints nothing and says why.
    printer.setOutputFileName({});
    printer.setFromTo(4, 9);
    QVERIFY(!command.print(printer, PdfPrintLayout::Scaling::FitToPrintableArea));
    QVERIFY(model.errorMessage().contains("outside"));

    // Cancelled while the copy is made: no file; while it is sent: no job left queued.
    const QString spool = dir.filePath("spool.pdf");
    std::vector<int> all(5);
    std::iota(all.begin(), all.end(), 0);
    QCOMPARE(PdfPrintCopy::write(model.pdfDocument(), all, {}, spool, [](int done, int) { return done < 2; }),
             PdfPrintCopy::Result::Cancelled);
    QVERIFY(!QFile::exists(spool));
    QCOMPARE(PdfPrintCopy::write(model.pdfDocument(), all, {}, spool), PdfPrintCopy::Result::Written);
    QFile grow(spool);
    QVERIFY(grow.open(QIODevice::Append));
    grow.write(QByteArray(1 << 20, '\n'));
    grow.close();
    int calls = 0;
    const CupsJobResult cancelled = CupsPrinting::send("Vellora-Test", spool, {}, [&](qint64, qint64) { return ++calls < 3; });
    QCOMPARE(cancelled.outcome, CupsJobResult::Outcome::Cancelled);
    QVERIFY(cancelled.jobId > 0);
    QTRY_COMPARE_WITH_TIMEOUT(fixtures::toolOutput("lpstat", {"-h", server_, "-o"}).trimmed(), QString(), 10000);
    // An encrypted document goes to the local scheduler as a plain copy.
    const QString locked = dir.filePath("locked.pdf");
    QVERIFY(fixtures::writeEncrypted(locked, mixedPages(), "secret"));
    auto encrypted = PdfDocument::open(locked);
    QVERIFY(encrypted && encrypted->unlock("secret"));
    model.setDocument(encrypted, locked);
    QFile::remove(out);
    printer.setPrintRange(QPrinter::AllPages);
    QVERIFY(command.print(printer, PdfPrintLayout::Scaling::ShrinkOversized));
    QTRY_VERIFY_WITH_TIMEOUT(fixtures::toolOutput("pdfinfo", {out}).contains("Pages:           5"), 15000);
    QVERIFY(fixtures::toolOutput("pdfinfo", {out}).contains(QRegularExpression("Encrypted:\\s+no")));
    QVERIFY(fixtures::toolOutput("pdftotext", {out, "-"}).contains("Echo"));

    // A printer that is gone by the time the job is sent.
    const CupsJobResult gone = CupsPrinting::send("No-Such-Printer", spool, {});
    QCOMPARE(gone.outcome, CupsJobResult::Outcome::Failed);
    QVERIFY(gone.message.contains("No-Such-Printer"));

    // File > Print… with pages typed in the dialog's Pages field, in the order typed.
    QFile::remove(out);
    QWidget window;
    PrintCommand fromMenu(&model, nullptr, &window);
    QTimer::singleShot(200, [] {
        auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        QVERIFY(dialog);
        dialog->findChild<QRadioButton *>("pagesRadioButton")->setChecked(true);
        dialog->findChild<QLineEdit *>("pagesLineEdit")->setText("4, 2");
        dialog->accept();
    });
    fromMenu.run();
    QTRY_VERIFY_WITH_TIMEOUT(fixtures::toolOutput("pdfinfo", {out}).contains("Pages:           2"), 15000);
    const QString typed = fixtures::toolOutput("pdftotext", {out, "-"});
    QVERIFY2(typed.indexOf("Delta") >= 0 && typed.indexOf("Delta") < typed.indexOf("Bravo"), qPrintable(typed));

    // The scheduler stopping between the dialog and the job: nothing printed, and the user is told.
    ::kill(pid_t(std::exchange(cupsd_, 0)), SIGTERM);
    QTRY_VERIFY(!CupsPrinting::serverReachable());
    QVERIFY(!command.print(printer, PdfPrintLayout::Scaling::FitToPrintableArea));
    QCOMPARE(model.errorMessage(), PrintCommand::serviceGoneMessage());
}

QTEST_MAIN(TestPrint)
#include "tst_print.moc"
