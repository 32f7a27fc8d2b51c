#include "PrintCommand.h"

#include "CupsPrinting.h"
#include "DocumentModel.h"
#include "PageOperations.h"
#include "PageWorkProgress.h"
#include "PdfDocument.h"
#include "PdfView.h"
#include "SplitSheet.h"

#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFormLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPrintDialog>
#include <QPrinter>
#include <QPrinterInfo>
#include <QPushButton>
#include <QRadioButton>
#include <QTemporaryDir>

#include <algorithm>

namespace {

// Whether `target` is the file at one of `paths` (the open document's own file).
bool isOneOf(const QString &target, const QStringList &paths)
{
    const QString file = QFileInfo(target).canonicalFilePath();
    return !file.isEmpty() && std::any_of(paths.begin(), paths.end(),
                                          [&](const QString &path) { return QFileInfo(path).canonicalFilePath() == file; });
}

QString ownFileMessage(const QString &target)
{
    return PrintCommand::tr("“%1” is the open document itself. Print to another file.").arg(QFileInfo(target).fileName());
}

// The dialog's tab with the page-scaling choice.
QWidget *scalingTab(PdfPrintLayout::Scaling current, QComboBox **choice)
{
    auto *tab = new QWidget;
    tab->setWindowTitle(PrintCommand::tr("Page Scaling"));
    auto *form = new QFormLayout(tab);
    auto *box = new QComboBox;
    box->setAccessibleName(PrintCommand::tr("Page Scaling"));
    box->addItem(PrintCommand::tr("Fit to Printable Area"), int(PdfPrintLayout::Scaling::FitToPrintableArea));
    box->addItem(PrintCommand::tr("Actual Size"), int(PdfPrintLayout::Scaling::ActualSize));
    box->addItem(PrintCommand::tr("Shrink Oversized Pages"), int(PdfPrintLayout::Scaling::ShrinkOversized));
    box->setCurrentIndex(box->findData(int(current)));
    form->addRow(PrintCommand::tr("Scaling:"), box);
    *choice = box;
    return tab;
}

// The print dialog, reading its free-text "Pages" field ("2-4, 7") itself:
// the dialog's own check of that field refuses valid ranges, and what it
// accepts would only reach the scheduler as an option the copy ignores.
class PrintDialog : public QPrintDialog {
public:
    PrintDialog(QPrinter *printer, int pageCount, QStringList ownFiles, QWidget *parent)
        : QPrintDialog(printer, parent), pageCount_(pageCount), ownFiles_(std::move(ownFiles))
    {
    }

    // The pages typed there (0-based, in the order written), when that field was chosen.
    std::optional<std::vector<int>> typedPages;

    void accept() override
    {
        // The output file offered first is named after the document, so in
        // the document's folder it is the document: refused, and the dialog
        // stays open for another name.
        auto *output = findChild<QLineEdit *>(QStringLiteral("filename"));
        if (output && output->isEnabled() && isOneOf(output->text(), ownFiles_)) {
            QMessageBox::warning(this, PrintCommand::tr("Print"), ownFileMessage(output->text()));
            return;
        }
        typedPages.reset();
        auto *chosen = findChild<QRadioButton *>(QStringLiteral("pagesRadioButton"));
        auto *field = findChild<QLineEdit *>(QStringLiteral("pagesLineEdit"));
        auto *all = findChild<QRadioButton *>(QStringLiteral("printAll"));
        if (chosen && field && all && chosen->isChecked()) {
            const auto ranges = SplitSheet::parseRanges(field->text(), pageCount_);
            if (!ranges || ranges->empty()) {
                QMessageBox::warning(this, PrintCommand::tr("Print"), SplitSheet::rangesRejectedMessage(pageCount_));
                return;
            }
            std::vector<int> pages;
            for (const ::PageRange &range : *ranges)
                for (qint64 page = range.lower; page <= range.upper; ++page)
                    pages.push_back(int(page));
            typedPages = std::move(pages);
            all->setChecked(true);
        }
        QPrintDialog::accept();
    }

private:
    int pageCount_;
    QStringList ownFiles_;
};

QString sidesFor(const QPrinter &printer)
{
    switch (printer.duplex()) {
    case QPrinter::DuplexNone:
        return QStringLiteral("one-sided");
    case QPrinter::DuplexLongSide:
        return QStringLiteral("two-sided-long-edge");
    case QPrinter::DuplexShortSide:
        return QStringLiteral("two-sided-short-edge");
    case QPrinter::DuplexAuto:
        break;
    }
    return printer.pageLayout().orientation() == QPageLayout::Landscape ? QStringLiteral("two-sided-short-edge")
                                                                        : QStringLiteral("two-sided-long-edge");
}

} // namespace

PrintCommand::PrintCommand(DocumentModel *model, PdfView *view, QWidget *window)
    : QObject(window), model_(model), view_(view), window_(window)
{
}

QString PrintCommand::noPrinterMessage()
{
    return tr("No printer is set up on this computer. Add a printer in the system's printer settings, or print to a PDF file.");
}

QString PrintCommand::serviceGoneMessage()
{
    return tr("The print service stopped answering, so nothing was printed. Print again once it runs, or print to a PDF "
              "file.");
}

void PrintCommand::run()
{
    const auto document = model_->pdfDocument();
    if (!document || document->isLocked() || document->pageCount() == 0)
        return;
    if (QPrinterInfo::availablePrinterNames().isEmpty()) {
        QMessageBox box(QMessageBox::Information, tr("Print"), noPrinterMessage(), QMessageBox::Cancel, window_);
        QPushButton *toFile = box.addButton(tr("Print to File…"), QMessageBox::AcceptRole);
        box.exec();
        if (box.clickedButton() != toFile)
            return;
    }
    QPrinter printer(QPrinter::HighResolution);
    printer.setDocName(QFileInfo(document->path()).fileName());
    PrintDialog dialog(&printer, document->pageCount(), {document->path(), model_->fileURL()}, window_);
    dialog.setAccessibleName(tr("Print"));
    dialog.setOption(QAbstractPrintDialog::PrintCurrentPage, true);
    dialog.setOption(QAbstractPrintDialog::PrintSelection, !model_->selectedPageIndices().isEmpty());
    dialog.setOption(QAbstractPrintDialog::PrintPageRange, true);
    dialog.setOption(QAbstractPrintDialog::PrintCollateCopies, true);
    dialog.setMinMax(1, document->pageCount());
    QComboBox *choice = nullptr;
    dialog.setOptionTabs({scalingTab(scaling_, &choice)});
    if (dialog.exec() != QDialog::Accepted)
        return;
    scaling_ = PdfPrintLayout::Scaling(choice->currentData().toInt());
    print(printer, scaling_, dialog.typedPages);
}

std::optional<std::vector<int>> PrintCommand::pagesToPrint(const QPrinter &printer, int pageCount, int currentPage,
                                                           const QSet<int> &selected, QString *error)
{
    std::vector<int> pages;
    switch (printer.printRange()) {
    case QPrinter::AllPages:
        for (int i = 0; i < pageCount; ++i)
            pages.push_back(i);
        break;
    case QPrinter::CurrentPage:
        if (currentPage >= 0 && currentPage < pageCount)
            pages.push_back(currentPage);
        break;
    case QPrinter::Selection:
        pages.assign(selected.begin(), selected.end());
        std::sort(pages.begin(), pages.end());
        pages.erase(std::remove_if(pages.begin(), pages.end(), [&](int i) { return i < 0 || i >= pageCount; }), pages.end());
        if (pages.empty())
            *error = tr("No pages are selected in the thumbnails.");
        return pages.empty() ? std::nullopt : std::optional(pages);
    case QPrinter::PageRange:
        for (const QPageRanges::Range &range : printer.pageRanges().toRangeList()) {
            if (range.from < 1 || range.to > pageCount || range.from > range.to) {
                *error = tr("Pages %1–%2 are outside the document, which has %n page(s).", nullptr, pageCount)
                             .arg(range.from)
                             .arg(range.to);
                return std::nullopt;
            }
            for (int page = range.from; page <= range.to; ++page)
                pages.push_back(page - 1);
        }
        break;
    }
    if (pages.empty()) {
        *error = tr("There are no pages to print.");
        return std::nullopt;
    }
    return pages;
}

PdfPrintLayout PrintCommand::layoutFor(const QPrinter &printer, PdfPrintLayout::Scaling scaling)
{
    const QPageLayout layout = printer.pageLayout();
    PdfPrintLayout print;
    print.paper = layout.fullRectPoints().size();
    print.printable = layout.paintRectPoints();
    print.scaling = scaling;
    return print;
}

bool PrintCommand::print(QPrinter &printer, PdfPrintLayout::Scaling scaling, const std::optional<std::vector<int>> &typedPages)
{
    const auto document = model_->pdfDocument();
    if (!document || document->isLocked())
        return false;
    QString error;
    const int current = view_ ? view_->currentPageIndex() : 0;
    const auto pages =
        typedPages ? typedPages : pagesToPrint(printer, document->pageCount(), current, model_->selectedPageIndices(), &error);
    if (!pages) {
        model_->setErrorMessage(error);
        return false;
    }
    const PdfPrintLayout layout = layoutFor(printer, scaling);
    if (printer.outputFormat() == QPrinter::PdfFormat && !printer.outputFileName().isEmpty())
        return printToFile(*pages, layout, printer.outputFileName());
    // The system's printers are the scheduler's: when it is gone, so is
    // every way to them (the toolkit's own printing goes through it too and
    // drops a job it cannot hand over without a word).
    if (!CupsPrinting::serverReachable()) {
        model_->setErrorMessage(serviceGoneMessage());
        return false;
    }
    return printThroughScheduler(printer, *pages, layout);
}

bool PrintCommand::printToFile(const std::vector<int> &pages, const PdfPrintLayout &layout, const QString &target)
{
    if (isOneOf(target, {model_->pdfDocument()->path(), model_->fileURL()})) {
        model_->setErrorMessage(ownFileMessage(target));
        return false;
    }
    // Written beside the target and put in its place only when whole.
    const QString part = target + QStringLiteral(".part");
    PageWorkProgress progress(window_);
    progress.begin(tr("Writing the pages…"), true);
    const auto result = PdfPrintCopy::write(model_->pdfDocument(), pages, layout, part,
                                            [&](int done, int total) { return progress.step(done, total); });
    if (result == PdfPrintCopy::Result::Cancelled)
        return false;
    if (result != PdfPrintCopy::Result::Written || (QFile::exists(target) && !QFile::remove(target)) ||
        !QFile::rename(part, target)) {
        QFile::remove(part);
        model_->setErrorMessage(tr("The file “%1” could not be written.").arg(QFileInfo(target).fileName()));
        return false;
    }
    return true;
}

bool PrintCommand::printThroughScheduler(QPrinter &printer, const std::vector<int> &pages, const PdfPrintLayout &layout)
{
    const auto document = model_->pdfDocument();
    // The copy for the printer carries no password: it goes to a scheduler on
    // this computer only, never across the network.
    if (document->isEncrypted() && !CupsPrinting::serverIsLocal()) {
        model_->setErrorMessage(
            tr("This document is encrypted, so it is printed only through a print service on this computer."));
        return false;
    }
    QTemporaryDir spool;
    const QString path = spool.filePath(QStringLiteral("print.pdf"));
    PageWorkProgress progress(window_);
    progress.begin(tr("Preparing the pages for printing…"), true);
    const auto written =
        PdfPrintCopy::write(document, pages, layout, path, [&](int done, int total) { return progress.step(done, total); });
    if (written == PdfPrintCopy::Result::Cancelled)
        return false;
    if (!spool.isValid() || written != PdfPrintCopy::Result::Written) {
        model_->setErrorMessage(tr("The pages could not be prepared for printing."));
        return false;
    }
    CupsJobOptions options;
    options.title = printer.docName().isEmpty() ? QFileInfo(document->path()).fileName() : printer.docName();
    options.copies = printer.copyCount();
    options.collate = printer.collateCopies();
    options.sides = sidesFor(printer);
    options.media = printer.pageLayout().pageSize().key();
    progress.begin(tr("Sending the pages to “%1”…").arg(printer.printerName()), true);
    const CupsJobResult sent = CupsPrinting::send(printer.printerName(), path, options,
                                                  [&](qint64 done, qint64 total) { return progress.step(done, total); });
    if (sent.outcome == CupsJobResult::Outcome::Failed)
        model_->setErrorMessage(sent.message);
    return sent.outcome == CupsJobResult::Outcome::Sent;
}
