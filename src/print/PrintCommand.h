// File > Print…: the system's print dialog (printers, copies, page range with
// the current page and the pages selected in the thumbnails, collate, duplex,
// paper) with a page-scaling tab, then the job. The pages are written as a
// vector PDF by the engine and handed to the print scheduler; printing to a
// file writes that PDF there.
#pragma once

#include "PdfPrintCopy.h"

#include <QObject>
#include <QPointer>
#include <QSet>

#include <optional>
#include <vector>

class DocumentModel;
class PdfView;
class QPrinter;
class QWidget;

class PrintCommand : public QObject {
    Q_OBJECT
public:
    PrintCommand(DocumentModel *model, PdfView *view, QWidget *window);

    // Shows the dialog and prints what it asks for.
    void run();
    // Prints with the printer's settings as they are (or the pages typed in
    // the dialog's "Pages" field, 0-based, when given); false (with the
    // model's error message set, unless cancelled) when nothing was printed.
    bool print(QPrinter &printer, PdfPrintLayout::Scaling scaling, const std::optional<std::vector<int>> &typedPages = {});

    // The page indexes the printer's range asks for, or none with `error`
    // set when the range lies outside the document or nothing is selected.
    static std::optional<std::vector<int>> pagesToPrint(const QPrinter &printer, int pageCount, int currentPage,
                                                        const QSet<int> &selected, QString *error);
    // The paper and its printable area as the printer has them now.
    static PdfPrintLayout layoutFor(const QPrinter &printer, PdfPrintLayout::Scaling scaling);

    static QString noPrinterMessage();
    static QString serviceGoneMessage();

private:
    bool printToFile(const std::vector<int> &pages, const PdfPrintLayout &layout, const QString &target);
    bool printThroughScheduler(QPrinter &printer, const std::vector<int> &pages, const PdfPrintLayout &layout);

    DocumentModel *model_;
    QPointer<PdfView> view_;
    QWidget *window_;
    PdfPrintLayout::Scaling scaling_ = PdfPrintLayout::Scaling::FitToPrintableArea;
};
