#include "PdfViewBridge.h"

#include "DocumentModel.h"
#include "DrawingOverlayView.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QTimer>
#include <QVBoxLayout>

PdfViewBridge::PdfViewBridge(DocumentModel *model, ToolSettings *toolSettings, QWidget *parent)
    : QWidget(parent), model_(model), toolSettings_(toolSettings), view_(new PdfView(this)),
      overlay_(new DrawingOverlayView(toolSettings, model))
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(view_);
    view_->setAutoScales(true);
    view_->setDocument(model_->pdfDocument());
    // The text selected in this window reaches hasTextSelection one turn of the event loop later.
    connect(view_, &PdfView::selectionChanged, this, [this] {
        QTimer::singleShot(0, this, [this] {
            const auto selection = view_->currentSelection();
            model_->setHasTextSelection(selection && !selection->string().isEmpty());
        });
    });
    // The marks layer lies over the pages and follows their scrolling and zooming.
    overlay_->setPdfView(view_);
    view_->setOverlay(overlay_);
    overlay_->attachObservers();
    connect(view_, &PdfView::currentPageChanged, this, &PdfViewBridge::pageChanged);

    // Every change of the model is a refresh; most find nothing to do.
    for (auto signal :
         {&DocumentModel::pdfDocumentChanged, &DocumentModel::currentPageIndexChanged, &DocumentModel::pageMutationCountChanged})
        connect(model_, signal, this, &PdfViewBridge::refresh);
    refresh();
}

void PdfViewBridge::refresh()
{
    const int wanted = model_->currentPageIndex();
    if (view_->document() != model_->pdfDocument()) {
        view_->setDocument(model_->pdfDocument());
        lastMutationCount_ = model_->pageMutationCount();
        view_->setAutoScales(true);
        scrollToPage(wanted);
        lockScaleAfterFit();
        return;
    }
    // The view has laid out the new page list itself (the engine told it).
    if (lastMutationCount_ != model_->pageMutationCount()) {
        lastMutationCount_ = model_->pageMutationCount();
        scrollToPage(wanted);
        return;
    }
    auto document = view_->document();
    auto page = document ? document->page(wanted) : nullptr;
    if (page && view_->currentPage() != page)
        view_->goToPage(page);
}

// On the next turn of the event loop, once the view has laid out its pages:
// the top edge of the page at the top of the view, whatever the origin of its
// box, and the page centred across the view.
void PdfViewBridge::scrollToPage(int index)
{
    auto document = view_->document();
    if (!document || !document->page(index))
        return;
    QTimer::singleShot(0, this, [this, index] {
        auto document = view_->document();
        auto page = document ? document->page(index) : nullptr;
        if (page)
            view_->goToPage(page);
    });
}

// Fit first, then freeze: later resizes of the window or the sidebar must not
// rescale the document behind the user's back.
void PdfViewBridge::lockScaleAfterFit()
{
    QTimer::singleShot(lockDelayMs, view_, [view = QPointer<PdfView>(view_)] {
        if (!view || !view->autoScales())
            return;
        const qreal fitted = view->scaleFactor();
        view->setAutoScales(false);
        view->setMinScaleFactor(lockedMinScale);
        view->setMaxScaleFactor(lockedMaxScale);
        view->setScaleFactor(fitted);
    });
}

void PdfViewBridge::pageChanged()
{
    auto page = view_->currentPage();
    if (!page || !view_->document())
        return;
    const int index = page->index();
    if (index >= 0 && model_->currentPageIndex() != index)
        model_->setCurrentPageIndex(index);
}
