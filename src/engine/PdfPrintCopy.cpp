// The print copy: a new document whose every page draws one source page's
// content as a form (its streams copied as they are stored, compressed) with
// one matrix, then the appearance of each annotation that prints. One graft
// map serves the whole copy, so fonts and images the pages share are copied
// once and the copy stays about the size of the pages themselves.
//
// An annotation another program wrote without an appearance is shown with
// one MuPDF makes when it loads the page, kept in a local section of the
// document's objects that never reaches the file and is seen only while that
// section is switched on. Such a page is loaded, and its annotations' looks
// are copied with that section on, through a graft map of the page's own: a
// map sizes itself by the objects there are when it is first used, and the
// local ones come after them.
#include "PdfPrintCopy.h"

#include "MuContext.h"
#include "Native.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <QFile>
#include <QTransform>

#include <algorithm>

namespace {

// The normal appearance an annotation is drawn with, or null.
pdf_obj *normalAppearance(fz_context *c, pdf_obj *annot)
{
    pdf_obj *n = pdf_dict_get(c, pdf_dict_get(c, annot, PDF_NAME(AP)), PDF_NAME(N));
    if (!pdf_is_stream(c, n) && pdf_is_dict(c, n))
        n = pdf_dict_get(c, n, pdf_dict_get(c, annot, PDF_NAME(AS)));
    return pdf_is_stream(c, n) ? n : nullptr;
}

// Whether an annotation goes on paper: it carries the Print flag, is not
// hidden, and is not a pop-up note window.
bool prints(fz_context *c, pdf_obj *annot)
{
    const int flags = pdf_dict_get_int(c, annot, PDF_NAME(F));
    return (flags & PDF_ANNOT_IS_PRINT) && !(flags & PDF_ANNOT_IS_HIDDEN) &&
           !pdf_name_eq(c, pdf_dict_get(c, annot, PDF_NAME(Subtype)), PDF_NAME(Popup));
}

// Whether a page has an annotation that prints but has no appearance in the file.
bool hasLooklessPrinting(fz_context *c, pdf_obj *page)
{
    pdf_obj *annots = pdf_dict_get(c, page, PDF_NAME(Annots));
    for (int i = 0; i < pdf_array_len(c, annots); ++i) {
        pdf_obj *annot = pdf_array_get(c, annots, i);
        if (prints(c, annot) && !normalAppearance(c, annot))
            return true;
    }
    return false;
}

// Any annotation of a loaded page, to switch its document's local objects on with.
pdf_annot *anyAnnotation(fz_context *c, pdf_page *page)
{
    if (!page)
        return nullptr;
    pdf_annot *annot = pdf_first_annot(c, page);
    return annot ? annot : pdf_first_widget(c, page);
}

void appendStream(fz_context *c, fz_buffer *data, pdf_obj *stream)
{
    fz_buffer *bytes = pdf_load_stream(c, stream);
    fz_try(c)
    {
        fz_append_buffer(c, data, bytes);
        fz_append_byte(c, data, '\n');
    }
    fz_always(c) fz_drop_buffer(c, bytes);
    fz_catch(c) fz_rethrow(c);
}

// The bytes of a page's content: a single stream as stored (`compressed`
// set, its filters copied to `dict`), several decoded and joined.
fz_buffer *contentBytes(fz_context *c, pdf_graft_map *map, pdf_obj *contents, pdf_obj *dict, int *compressed)
{
    if (pdf_is_stream(c, contents)) {
        for (pdf_obj *key : {PDF_NAME(Filter), PDF_NAME(DecodeParms)})
            if (pdf_obj *value = pdf_dict_get(c, contents, key))
                pdf_dict_put_drop(c, dict, key, pdf_graft_mapped_object(c, map, value));
        *compressed = 1;
        return pdf_load_raw_stream(c, contents);
    }
    *compressed = 0;
    fz_buffer *data = fz_new_buffer(c, 1024);
    fz_try(c)
    {
        for (int i = 0; i < pdf_array_len(c, contents); ++i) {
            pdf_obj *part = pdf_array_get(c, contents, i);
            if (!pdf_is_stream(c, part))
                continue;
            appendStream(c, data, part);
        }
    }
    fz_catch(c)
    {
        fz_drop_buffer(c, data);
        fz_rethrow(c);
    }
    return data;
}

// The page's content as one form XObject in `dst`, its resources grafted.
pdf_obj *contentForm(fz_context *c, pdf_graft_map *map, pdf_document *dst, pdf_obj *page, fz_rect crop)
{
    pdf_obj *dict = pdf_new_dict(c, dst, 6);
    fz_buffer *data = nullptr;
    pdf_obj *form = nullptr;
    fz_var(data);
    fz_try(c)
    {
        pdf_dict_put(c, dict, PDF_NAME(Type), PDF_NAME(XObject));
        pdf_dict_put(c, dict, PDF_NAME(Subtype), PDF_NAME(Form));
        pdf_dict_put_rect(c, dict, PDF_NAME(BBox), crop);
        pdf_obj *resources = pdf_dict_get_inheritable(c, page, PDF_NAME(Resources));
        if (pdf_is_dict(c, resources))
            pdf_dict_put_drop(c, dict, PDF_NAME(Resources), pdf_graft_mapped_object(c, map, resources));
        else
            pdf_dict_put_dict(c, dict, PDF_NAME(Resources), 0);
        int compressed = 0;
        data = contentBytes(c, map, pdf_dict_get(c, page, PDF_NAME(Contents)), dict, &compressed);
        form = pdf_add_stream(c, dst, data, dict, compressed);
    }
    fz_always(c)
    {
        fz_drop_buffer(c, data);
        pdf_drop_obj(c, dict);
    }
    fz_catch(c) fz_rethrow(c);
    return form;
}

// Appends "a b c d e f cm" for a matrix.
void appendMatrix(fz_context *c, fz_buffer *out, fz_matrix m)
{
    fz_append_printf(c, out, "%g %g %g %g %g %g cm\n", m.a, m.b, m.c, m.d, m.e, m.f);
}

// Adds one paper page to `dst`: the source page's form drawn with `place`
// (source page space to paper space) inside its crop box, then the
// appearance of each annotation that prints, fitted to its /Rect as
// readers do: the appearance box, through its own matrix, onto the rectangle.
// With `loaded` (the page as MuPDF loaded it), the appearances are read with
// the document's local objects on and copied through a map of their own.
void addPaperPage(fz_context *c, pdf_graft_map *map, pdf_document *dst, pdf_obj *page, pdf_page *loaded, fz_rect crop,
                  fz_matrix place, fz_rect paper)
{
    pdf_obj *resources = pdf_new_dict(c, dst, 1);
    fz_buffer *content = nullptr;
    pdf_obj *paperPage = nullptr;
    pdf_annot *local = anyAnnotation(c, loaded);
    pdf_graft_map *looks = nullptr;
    bool pushed = false;
    fz_var(content);
    fz_var(paperPage);
    fz_var(looks);
    fz_var(pushed);
    fz_try(c)
    {
        pdf_obj *xobjects = pdf_dict_put_dict(c, resources, PDF_NAME(XObject), 4);
        content = fz_new_buffer(c, 256);
        fz_append_string(c, content, "q\n");
        appendMatrix(c, content, place);
        fz_append_printf(c, content, "%g %g %g %g re W n\n", crop.x0, crop.y0, crop.x1 - crop.x0, crop.y1 - crop.y0);
        mu::putsDrop(c, xobjects, "P", contentForm(c, map, dst, page, crop));
        fz_append_string(c, content, "/P Do\n");
        if (local) {
            looks = pdf_new_graft_map(c, dst);
            pdf_annot_push_local_xref(c, local);
            pushed = true;
        }
        pdf_obj *annots = pdf_dict_get(c, page, PDF_NAME(Annots));
        for (int i = 0, n = 0; i < pdf_array_len(c, annots); ++i) {
            pdf_obj *annot = pdf_array_get(c, annots, i);
            pdf_obj *look = prints(c, annot) ? normalAppearance(c, annot) : nullptr;
            if (!look)
                continue;
            const fz_rect rect = pdf_dict_get_rect(c, annot, PDF_NAME(Rect));
            const fz_rect box =
                fz_transform_rect(pdf_dict_get_rect(c, look, PDF_NAME(BBox)), pdf_dict_get_matrix(c, look, PDF_NAME(Matrix)));
            if (fz_is_empty_rect(rect) || box.x1 - box.x0 <= 0 || box.y1 - box.y0 <= 0)
                continue;
            const float sx = (rect.x1 - rect.x0) / (box.x1 - box.x0);
            const float sy = (rect.y1 - rect.y0) / (box.y1 - box.y0);
            char name[16];
            fz_snprintf(name, sizeof name, "A%d", n++);
            pdf_obj *copy = pdf_graft_mapped_object(c, looks ? looks : map, look);
            mu::putsDrop(c, xobjects, name, copy);
            if (!pdf_dict_get(c, copy, PDF_NAME(Subtype)))
                pdf_dict_put(c, copy, PDF_NAME(Subtype), PDF_NAME(Form));
            fz_append_string(c, content, "q\n");
            appendMatrix(c, content, fz_matrix{sx, 0, 0, sy, rect.x0 - box.x0 * sx, rect.y0 - box.y0 * sy});
            fz_append_printf(c, content, "/%s Do\nQ\n", name);
        }
        if (pushed) {
            pushed = false;
            pdf_annot_pop_local_xref(c, local);
        }
        fz_append_string(c, content, "Q\n");
        paperPage = pdf_add_page(c, dst, paper, 0, resources, content);
        // Appended to the page tree's one list of kids directly: inserting at
        // the end walks the whole list each time.
        pdf_obj *tree = pdf_dict_getp(c, pdf_trailer(c, dst), "Root/Pages");
        pdf_array_push(c, pdf_dict_get(c, tree, PDF_NAME(Kids)), paperPage);
        pdf_dict_put(c, paperPage, PDF_NAME(Parent), tree);
        pdf_dict_put_int(c, tree, PDF_NAME(Count), pdf_array_len(c, pdf_dict_get(c, tree, PDF_NAME(Kids))));
    }
    fz_always(c)
    {
        if (pushed)
            pdf_annot_pop_local_xref(c, local);
        pdf_drop_graft_map(c, looks);
        pdf_drop_obj(c, paperPage);
        fz_drop_buffer(c, content);
        pdf_drop_obj(c, resources);
    }
    fz_catch(c) fz_rethrow(c);
}

} // namespace

PdfPrintPlacement PdfPrintCopy::place(QSizeF displaySize, const PdfPrintLayout &layout)
{
    PdfPrintPlacement placement;
    const QSizeF paper = layout.paper;
    const QRectF printable = layout.printable.isEmpty() ? QRectF(QPointF(0, 0), paper) : layout.printable;
    const bool pageWide = displaySize.width() > displaySize.height();
    const bool paperWide = paper.width() > paper.height();
    placement.turned = displaySize.width() != displaySize.height() && paper.width() != paper.height() && pageWide != paperWide;
    const QSizeF size = placement.turned ? displaySize.transposed() : displaySize;
    if (size.isEmpty())
        return placement;
    const qreal fit = std::min(printable.width() / size.width(), printable.height() / size.height());
    switch (layout.scaling) {
    case PdfPrintLayout::Scaling::FitToPrintableArea:
        placement.scale = fit;
        break;
    case PdfPrintLayout::Scaling::ActualSize:
        placement.scale = 1;
        break;
    case PdfPrintLayout::Scaling::ShrinkOversized:
        placement.scale = std::min<qreal>(1, fit);
        break;
    }
    const QSizeF scaled = size * placement.scale;
    placement.area = QRectF(printable.center() - QPointF(scaled.width() / 2, scaled.height() / 2), scaled);
    return placement;
}

PdfPrintCopy::Result PdfPrintCopy::write(const std::shared_ptr<PdfDocument> &document, const std::vector<int> &pages,
                                         const PdfPrintLayout &layout, const QString &path,
                                         const std::function<bool(int done, int total)> &step)
{
    if (!document || document->isLocked() || pages.empty() || layout.paper.isEmpty())
        return Result::Failed;
    for (int index : pages)
        if (index < 0 || index >= document->pageCount())
            return Result::Failed;
    const int total = int(pages.size()) + 1;
    pdf_document *dst = nullptr;
    pdf_graft_map *map = nullptr;
    auto cleanUp = [&] {
        mu::release([&](fz_context *c) {
            pdf_drop_graft_map(c, map);
            pdf_drop_document(c, dst);
        });
    };
    if (!mu::tryGuard([&](fz_context *c) {
            dst = pdf_create_document(c);
            map = pdf_new_graft_map(c, dst);
        })) {
        cleanUp();
        return Result::Failed;
    }
    const fz_rect paper{0, 0, float(layout.paper.width()), float(layout.paper.height())};
    for (size_t i = 0; i < pages.size(); ++i) {
        if (step && !step(int(i), total)) {
            cleanUp();
            return Result::Cancelled;
        }
        const std::shared_ptr<PdfPage> page = document->page(pages[i]);
        const QRectF cropRect = page->bounds(PdfBox::Crop);
        const QTransform toDisplay = page->pageToDisplay();
        const QSizeF shown = toDisplay.mapRect(cropRect).size();
        const PdfPrintPlacement placement = place(shown, layout);
        // Page space → display space (y down) → turned → scaled onto its area → paper space (y up).
        QTransform m = toDisplay;
        if (placement.turned)
            m *= QTransform(0, -1, 1, 0, 0, shown.width());
        m *= QTransform::fromScale(placement.scale, placement.scale);
        m *= QTransform::fromTranslate(placement.area.left(), placement.area.top());
        m *= QTransform(1, 0, 0, -1, 0, layout.paper.height());
        const fz_matrix matrix{float(m.m11()), float(m.m12()), float(m.m21()), float(m.m22()), float(m.dx()), float(m.dy())};
        const fz_rect crop{float(cropRect.left()), float(cropRect.top()), float(cropRect.right()), float(cropRect.bottom())};
        pdf_obj *source = page->native_->obj;
        // A page whose printing annotations lack appearances is loaded, so
        // that MuPDF makes them as it does to show the page.
        bool lookless = false;
        mu::tryGuard([&](fz_context *c) { lookless = hasLooklessPrinting(c, source); });
        pdf_page *loaded = lookless && page->load() ? page->native_->loaded : nullptr;
        if (!mu::tryGuard([&](fz_context *c) { addPaperPage(c, map, dst, source, loaded, crop, matrix, paper); })) {
            cleanUp();
            return Result::Failed;
        }
    }
    if (step && !step(total - 1, total)) {
        cleanUp();
        return Result::Cancelled;
    }
    const QByteArray file = QFile::encodeName(path);
    const bool written = mu::tryGuard(
        [&](fz_context *c) {
            pdf_write_options opts = pdf_default_write_options;
            opts.do_compress = 1;
            pdf_save_document(c, dst, file.constData(), &opts);
        },
        mu::Lock::None);
    cleanUp();
    if (!written) {
        QFile::remove(path);
        return Result::Failed;
    }
    if (step)
        step(total, total);
    return Result::Written;
}
