// The document model's operations that change annotations and pages.
#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"

void DocumentModel::record(EditHistory::Edit edit) { history_.record(std::move(edit)); }

// Takes the annotation off its page and puts it back, on top. The engine
// announces the change, so every view draws the page again.
void DocumentModel::reseat(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (auto page = annotation->page()) {
        page->removeAnnotation(annotation);
        page->addAnnotation(annotation);
    }
}

void DocumentModel::count() { setHistoryVersion(historyVersion_ + 1); }

void DocumentModel::changed()
{
    setIsDirty(true);
    setHistoryVersion(historyVersion_ + 1);
}

void DocumentModel::deselectIfSelected(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (selectedAnnotation_ == annotation)
        setSelectedAnnotation(nullptr);
}

// The two actions of adding an annotation to a page: `put` adds it back,
// `take` removes it and drops it from the selection. An addition is undone by
// taking, a removal by putting.
std::pair<std::function<void()>, std::function<void()>>
DocumentModel::placementActions(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page)
{
    QPointer<DocumentModel> model(this);
    auto put = [model, annotation, page] {
        page->addAnnotation(annotation);
        if (model)
            model->count();
    };
    auto take = [model, annotation, page] {
        page->removeAnnotation(annotation);
        if (model) {
            model->deselectIfSelected(annotation);
            model->count();
        }
    };
    return {put, take};
}

void DocumentModel::addAnnotation(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page,
                                  bool recordUndo)
{
    if (!annotation || !page)
        return;
    page->addAnnotation(annotation);
    if (recordUndo) {
        auto [put, take] = placementActions(annotation, page);
        record({take, put});
    }
    changed();
}

void DocumentModel::removeAnnotation(const std::shared_ptr<PdfAnnotation> &annotation)
{
    auto page = annotation ? annotation->page() : nullptr;
    if (!page)
        return;
    page->removeAnnotation(annotation);
    deselectIfSelected(annotation);
    auto [put, take] = placementActions(annotation, page);
    record({put, take});
    changed();
}

void DocumentModel::recordBoundsChange(const std::shared_ptr<PdfAnnotation> &annotation, const QRectF &newBounds,
                                       const QRectF &oldBounds)
{
    QPointer<DocumentModel> model(this);
    auto setBounds = [model, annotation](const QRectF &bounds) {
        annotation->setBounds(bounds);
        if (model) {
            model->reseat(annotation);
            model->count();
        }
    };
    record({[setBounds, oldBounds] { setBounds(oldBounds); }, [setBounds, newBounds] { setBounds(newBounds); }});
    changed();
}

void DocumentModel::setAnnotationBounds(const std::shared_ptr<PdfAnnotation> &annotation, const QRectF &newBounds,
                                        const QRectF &oldBounds)
{
    if (!annotation)
        return;
    annotation->setBounds(newBounds);
    reseat(annotation);
    recordBoundsChange(annotation, newBounds, oldBounds);
}

void DocumentModel::commitAnnotationDrag(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page,
                                         const QRectF &newBounds, const QRectF &oldBounds)
{
    if (!annotation)
        return;
    annotation->setBounds(newBounds);
    if (annotation->page()) {
        reseat(annotation);
    } else if (page) {
        page->addAnnotation(annotation); // the overlay took it off its page during the drag
    }
    recordBoundsChange(annotation, newBounds, oldBounds);
}

void DocumentModel::setAnnotationContents(const std::shared_ptr<PdfAnnotation> &annotation, const QString &newText,
                                          const QString &oldText, std::optional<std::pair<QRectF, QRectF>> bounds)
{
    if (!annotation)
        return;
    const std::optional<QRectF> newBounds = bounds ? std::optional(bounds->first) : std::nullopt;
    const std::optional<QRectF> oldBounds = bounds ? std::optional(bounds->second) : std::nullopt;
    if (newBounds)
        annotation->setBounds(*newBounds);
    annotation->setContents(newText);
    reseat(annotation);
    QPointer<DocumentModel> model(this);
    auto setContents = [model, annotation](const QString &text, const std::optional<QRectF> &box) {
        if (box)
            annotation->setBounds(*box);
        annotation->setContents(text);
        if (model) {
            model->reseat(annotation);
            model->count();
        }
    };
    record({[setContents, oldText, oldBounds] { setContents(oldText, oldBounds); },
            [setContents, newText, newBounds] { setContents(newText, newBounds); }});
    changed();
}

void DocumentModel::applyMarkup(const QString &subtype, const QColor &color)
{
    PdfView *view = activePDFView_;
    if (!view)
        return;
    const auto selection = view->currentSelection();
    if (!selection || selection->string().isEmpty())
        return;
    QPointer<DocumentModel> model(this);
    AnnotationFactory::applyMarkup(subtype, *selection, color,
                                   [model](const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page) {
                                       if (model)
                                           model->addAnnotation(annotation, page, true);
                                   });
    view->setCurrentSelection(std::nullopt);
    setHasTextSelection(false);
}

void DocumentModel::rotateCurrentPage(int degrees)
{
    if (!pdfDocument_ || pdfDocument_->pageCount() == 0)
        return;
    if (auto page = pdfDocument_->page(currentPageIndex_)) {
        int rotation = (page->rotation() + degrees) % 360;
        if (rotation < 0)
            rotation += 360;
        page->setRotation(rotation);
    }
    markPageStructureChanged();
}

void DocumentModel::markPageStructureChanged()
{
    setIsDirty(true);
    setPageMutationCount(pageMutationCount_ + 1);
    if (!pdfDocument_)
        return;
    const int pageCount = pdfDocument_->pageCount();
    setCurrentPageIndex(std::min(currentPageIndex_, std::max(pageCount - 1, 0)));
    QSet<int> kept;
    for (int index : selectedPageIndices_)
        if (index < pageCount)
            kept.insert(index);
    setSelectedPageIndices(kept);
}
