// The document model's operations that change annotations, pages, bookmarks and form fields.
#include "AnnotationFactory.h"
#include "DocumentModel.h"
#include "FilePanel.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfFormField.h"
#include "PdfOutline.h"
#include "PdfPage.h"
#include "PdfSelection.h"

#include <QScopedValueRollback>

#include <set>

void DocumentModel::record(EditHistory::Edit edit)
{
    history_.record(std::move(edit));
}

void DocumentModel::count()
{
    setHistoryVersion(historyVersion_ + 1);
}

// A change made now: recorded in the history or, when not, one that undoing
// cannot take back.
void DocumentModel::changed(bool recorded)
{
    if (!recorded)
        unrecordedChange_ = true;
    setHistoryVersion(historyVersion_ + 1);
    updateDirty();
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
    auto put = [annotation, page] { page->addAnnotation(annotation); };
    auto take = [model, annotation, page] {
        page->removeAnnotation(annotation);
        if (model)
            model->deselectIfSelected(annotation);
    };
    return {put, take};
}

void DocumentModel::addAnnotation(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page,
                                  bool recordUndo)
{
    if (!annotation || !page || changesRestricted_)
        return;
    page->addAnnotation(annotation);
    if (recordUndo) {
        auto [put, take] = placementActions(annotation, page);
        record({take, put});
    }
    changed(recordUndo);
}

void DocumentModel::removeAnnotation(const std::shared_ptr<PdfAnnotation> &annotation)
{
    removeAnnotations({annotation});
}

void DocumentModel::removeAnnotations(const std::vector<std::shared_ptr<PdfAnnotation>> &annotations)
{
    if (changesRestricted_)
        return;
    // The chosen annotations and, thread by thread, the replies to them.
    std::vector<std::pair<std::shared_ptr<PdfAnnotation>, std::shared_ptr<PdfPage>>> taken;
    std::set<const PdfAnnotation *> chosen;
    for (const auto &annotation : annotations)
        if (auto page = annotation ? annotation->page() : nullptr; page && chosen.insert(annotation.get()).second)
            taken.emplace_back(annotation, page);
    for (size_t i = 0; i < taken.size(); ++i)
        for (const auto &other : taken[i].second->annotations())
            if (other->isReply() && !chosen.contains(other.get()) && other->inReplyTo() == taken[i].first) {
                chosen.insert(other.get());
                taken.emplace_back(other, taken[i].second);
            }
    if (taken.empty())
        return;
    std::vector<std::function<void()>> puts, takes;
    for (const auto &[annotation, page] : taken) {
        auto [put, take] = placementActions(annotation, page);
        take();
        puts.push_back(std::move(put));
        takes.push_back(std::move(take));
    }
    // Put back in the order they were taken: a reply after the annotation it answers.
    record({[puts] {
                for (const auto &put : puts)
                    put();
            },
            [takes] {
                for (const auto &take : takes)
                    take();
            }});
    changed();
}

// The annotation keeps its page and its place among the page's annotations:
// only its bounds change, in one change the engine announces.
void DocumentModel::recordBoundsChange(const std::shared_ptr<PdfAnnotation> &annotation, const QRectF &newBounds,
                                       const QRectF &oldBounds)
{
    record({[annotation, oldBounds] { annotation->setBounds(oldBounds); },
            [annotation, newBounds] { annotation->setBounds(newBounds); }});
    changed();
}

void DocumentModel::setAnnotationBounds(const std::shared_ptr<PdfAnnotation> &annotation, const QRectF &newBounds,
                                        const QRectF &oldBounds)
{
    if (!annotation || changesRestricted_)
        return;
    annotation->setBounds(newBounds);
    recordBoundsChange(annotation, newBounds, oldBounds);
}

void DocumentModel::commitAnnotationDrag(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page,
                                         const QRectF &newBounds, const QRectF &oldBounds)
{
    if (!annotation || changesRestricted_)
        return;
    // An annotation that left its page meanwhile (its placement was undone) stays off it.
    if (!annotation->page() || (page && annotation->page() != page))
        return;
    annotation->setBounds(newBounds);
    recordBoundsChange(annotation, newBounds, oldBounds);
}

void DocumentModel::setAnnotationContents(const std::shared_ptr<PdfAnnotation> &annotation, const QString &newText,
                                          const QString &oldText, std::optional<std::pair<QRectF, QRectF>> bounds)
{
    if (!annotation || changesRestricted_)
        return;
    const std::optional<QRectF> newBounds = bounds ? std::optional(bounds->first) : std::nullopt;
    const std::optional<QRectF> oldBounds = bounds ? std::optional(bounds->second) : std::nullopt;
    if (newBounds)
        annotation->setBounds(*newBounds);
    annotation->setContents(newText);
    record({[annotation, oldText, oldBounds] {
                if (oldBounds)
                    annotation->setBounds(*oldBounds);
                annotation->setContents(oldText);
            },
            [annotation, newText, newBounds] {
                if (newBounds)
                    annotation->setBounds(*newBounds);
                annotation->setContents(newText);
            }});
    changed();
}

void DocumentModel::applyMarkup(const QString &subtype, const QColor &color, const PdfSelection &selection)
{
    if (selection.string().isEmpty() || changesRestricted_)
        return;
    QPointer<DocumentModel> model(this);
    AnnotationFactory::applyMarkup(
        subtype, selection, color,
        [model](const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page) {
            if (model)
                model->addAnnotation(annotation, page, true);
        });
}

void DocumentModel::rotateCurrentPage(int degrees)
{
    if (!pdfDocument_ || pdfDocument_->pageCount() == 0)
        return;
    auto page = pdfDocument_->page(currentPageIndex_);
    if (!page || !mayChangePages())
        return;
    const int before = page->rotation();
    const int after = (((before + degrees) % 360) + 360) % 360;
    page->setRotation(after);
    record({[page, before] { page->setRotation(before); }, [page, after] { page->setRotation(after); }});
    changed();
}

bool DocumentModel::retypeText(const std::shared_ptr<PdfPage> &page, const QRectF &run, const QString &text)
{
    if (!page || changesRestricted_)
        return false;
    const PdfRetype retyped = page->retype(run, text);
    if (retyped.outcome != PdfRetype::Outcome::Done)
        return false;
    const auto edit = retyped.edit;
    record({[edit] { edit->undo(); }, [edit] { edit->redo(); }});
    if (!retypedText_) {
        retypedText_ = true;
        emit retypedTextChanged();
    }
    changed();
    return true;
}

bool DocumentModel::changeFields(const std::function<std::shared_ptr<PdfFieldEdit>()> &edit)
{
    if (!pdfDocument_ || !edit || changesRestricted_)
        return false;
    const std::shared_ptr<PdfFieldEdit> made = edit();
    if (!made)
        return false;
    record({[made] { made->undo(); }, [made] { made->redo(); }});
    changed();
    return true;
}

void DocumentModel::resetForm()
{
    changeFields([this] { return pdfDocument_->form()->reset(); });
}

bool DocumentModel::hasFormFields() const
{
    return pdfDocument_ && !pdfDocument_->isLocked() && !pdfDocument_->formFields().empty();
}

bool DocumentModel::mayChangePages()
{
    if (changesRestricted_)
        return false;
    if (!keepsSignatures_)
        return true;
    if (!filePanel_ || !filePanel_->confirmChangingSignedPages())
        return false;
    setKeepsSignatures(false);
    return true;
}

void DocumentModel::changePages(const std::function<void()> &operation)
{
    if (!pdfDocument_ || !operation || !mayChangePages())
        return;
    const auto document = pdfDocument_;
    const auto before = document->pages();
    {
        const QScopedValueRollback expected(expectingPageChanges_, true);
        operation();
    }
    const auto after = document->pages();
    if (after == before)
        return;
    record({[document, before] { document->setPages(before); }, [document, after] { document->setPages(after); }});
    changed();
}

void DocumentModel::deletePages(const std::set<int> &indices)
{
    changePages([this, &indices] {
        std::vector<std::shared_ptr<PdfPage>> kept;
        const auto pages = pdfDocument_->pages();
        for (size_t i = 0; i < pages.size(); ++i)
            if (!indices.count(int(i)))
                kept.push_back(pages[i]);
        pdfDocument_->setPages(kept);
    });
}

bool DocumentModel::changeOutline(const std::function<PdfOutlineChange(PdfOutline &)> &edit)
{
    if (!pdfDocument_ || !edit || changesRestricted_)
        return false;
    PdfOutline outline(pdfDocument_);
    PdfOutlineChange change = edit(outline);
    if (!change)
        return false;
    record({std::move(change.undo), std::move(change.redo)});
    changed();
    return true;
}

void DocumentModel::markPageStructureChanged()
{
    // Page work that went around the model and its history still leaves the document changed.
    if (!expectingPageChanges_)
        changed(false);
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
    // An annotation whose page left the document can no longer be selected.
    if (selectedAnnotation_) {
        const auto page = selectedAnnotation_->page();
        if (!page || page->document() != pdfDocument_)
            setSelectedAnnotation(nullptr);
    }
}
