#include "PdfPage.h"

#include "PageInternals.h"
#include "PdfAnnotation.h"
#include "PdfDisplayList.h"
#include "PdfDocument.h"
#include "SearchTextBuilder.h"

#include <algorithm>
#include <cmath>

PdfPage::PdfPage(std::shared_ptr<DocCore> core, std::unique_ptr<Native> native)
    : core_(std::move(core)), native_(std::move(native))
{
}

PdfPage::~PdfPage()
{
    unload();
    dropText();
    mu::release([this](fz_context *c) { pdf_drop_obj(c, native_->obj); });
}

std::shared_ptr<PdfDocument> PdfPage::document() const
{
    return document_.lock();
}

int PdfPage::index() const
{
    auto doc = document_.lock();
    return doc ? doc->indexOf(this) : -1;
}

namespace {

// MuPDF makes an appearance for a free-text annotation that has none when it
// loads or draws the page, laying out the whole text in time that grows with
// the square of its length (10 MB of text take a minute), and keeps it only
// while the page is loaded. While the page loads, such a text is cut to what
// its box could show at the least size text is read at, the appearance of
// that is written into the document for good (so it is not made again), and
// the whole text is put back.
int shownLength(fz_context *c, pdf_obj *annot)
{
    const fz_rect r = pdf_to_rect(c, pdf_dict_get(c, annot, PDF_NAME(Rect)));
    const double size = 4, columns = (r.x1 - r.x0) / (size / 2) + 1, rows = (r.y1 - r.y0) / size + 1;
    constexpr double least = 256, most = 16384;
    return int(std::clamp(columns * rows, least, most));
}

pdf_page *loadBounded(fz_context *c, pdf_document *doc, int number)
{
    pdf_obj *annots = pdf_dict_get(c, pdf_lookup_page_obj(c, doc, number), PDF_NAME(Annots));
    const int count = pdf_array_len(c, annots);
    // Pairs of an annotation and its own text, while a shorter one stands in.
    pdf_obj **saved = static_cast<pdf_obj **>(fz_calloc(c, size_t(2 * count + 2), sizeof(pdf_obj *)));
    int cut = 0;
    pdf_page *page = nullptr;
    fz_var(cut);
    fz_var(page);
    fz_try(c)
    {
        for (int i = 0; i < count; ++i) {
            pdf_obj *annot = pdf_array_get(c, annots, i);
            pdf_obj *text = pdf_dict_get(c, annot, PDF_NAME(Contents));
            if (!pdf_name_eq(c, pdf_dict_get(c, annot, PDF_NAME(Subtype)), PDF_NAME(FreeText)) ||
                pdf_dict_get(c, annot, PDF_NAME(AP)) || !pdf_is_string(c, text))
                continue;
            const char *bytes = pdf_to_str_buf(c, text);
            const size_t length = pdf_to_str_len(c, text);
            const bool utf16 = length >= 2 && (uint8_t(bytes[0]) == 0xfe || uint8_t(bytes[0]) == 0xff);
            const size_t shown = size_t(shownLength(c, annot)) * (utf16 ? 2 : 1);
            if (length <= shown)
                continue;
            saved[2 * cut] = pdf_keep_obj(c, annot);
            saved[2 * cut + 1] = pdf_keep_obj(c, text);
            ++cut;
            pdf_dict_put_drop(c, annot, PDF_NAME(Contents), pdf_new_string(c, bytes, shown));
        }
        page = pdf_load_page(c, doc, number);
        for (int i = 0; i < cut; ++i)
            for (pdf_annot *a = pdf_first_annot(c, page); a; a = pdf_next_annot(c, a))
                if (!pdf_objcmp(c, pdf_annot_obj(c, a), saved[2 * i])) {
                    pdf_annot_request_resynthesis(c, a);
                    pdf_update_annot(c, a);
                }
    }
    fz_always(c)
    {
        // The entry is there already: putting it back allocates nothing.
        for (int i = 0; i < cut; ++i) {
            pdf_dict_put(c, saved[2 * i], PDF_NAME(Contents), saved[2 * i + 1]);
            pdf_drop_obj(c, saved[2 * i]);
            pdf_drop_obj(c, saved[2 * i + 1]);
        }
        fz_free(c, saved);
    }
    fz_catch(c)
    {
        if (page)
            fz_drop_page(c, &page->super);
        fz_rethrow(c);
    }
    return page;
}

// Records the page into a new list: its contents, then its annotations but
// `skip` (or `only` alone, without the contents). Runs inside a guard.
// Runs the page's content and, with `annotations`, its annotations and
// widgets (all but `skip`; only `only` when it is given) into `dev`.
void runPage(fz_context *c, pdf_page *page, fz_device *dev, bool annotations, pdf_obj *skip, pdf_obj *only, fz_cookie *cookie)
{
    auto drawn = [skip, only](fz_context *cc, pdf_annot *a) {
        pdf_obj *obj = pdf_annot_obj(cc, a);
        return only ? !pdf_objcmp(cc, obj, only) : !skip || pdf_objcmp(cc, obj, skip);
    };
    if (!only)
        pdf_run_page_contents(c, page, dev, fz_identity, cookie);
    if (annotations || only) {
        for (pdf_annot *a = pdf_first_annot(c, page); a; a = pdf_next_annot(c, a))
            if (drawn(c, a))
                pdf_run_annot(c, a, dev, fz_identity, cookie);
        for (pdf_annot *w = pdf_first_widget(c, page); w; w = pdf_next_widget(c, w))
            if (drawn(c, w))
                pdf_run_annot(c, w, dev, fz_identity, cookie);
    }
}

fz_display_list *recordList(fz_context *c, pdf_page *page, bool annotations, pdf_obj *skip, pdf_obj *only, fz_cookie *cookie,
                            fz_rect &bounds)
{
    bounds = fz_bound_page(c, &page->super);
    fz_display_list *list = fz_new_display_list(c, bounds);
    fz_device *dev = nullptr;
    fz_var(dev);
    fz_try(c)
    {
        dev = fz_new_list_device(c, list);
        runPage(c, page, dev, annotations, skip, only, cookie);
        fz_close_device(c, dev);
    }
    fz_always(c) fz_drop_device(c, dev);
    fz_catch(c)
    {
        fz_drop_display_list(c, list);
        fz_rethrow(c);
    }
    return list;
}

} // namespace

fz_stext_page *readText(fz_context *c, pdf_page *page, bool annotations, pdf_obj *skip, fz_cookie *cookie, fz_matrix &ctm,
                        int flags)
{
    fz_rect box{};
    pdf_page_transform(c, page, &box, &ctm);
    fz_stext_page *stext = fz_new_stext_page(c, fz_bound_page(c, &page->super));
    fz_device *dev = nullptr;
    fz_var(dev);
    fz_try(c)
    {
        fz_stext_options options{};
        options.flags = flags;
        dev = fz_new_stext_device(c, stext, &options);
        runPage(c, page, dev, annotations, skip, nullptr, cookie);
        fz_close_device(c, dev);
    }
    fz_always(c) fz_drop_device(c, dev);
    fz_catch(c)
    {
        fz_drop_stext_page(c, stext);
        fz_rethrow(c);
    }
    return stext;
}

bool PdfPage::load()
{
    if (native_->loaded) {
        touch(core_->loadedPages, this);
        return true;
    }
    const int at = index();
    if (at < 0 || isUnplacedCopy_)
        return false;
    if (!mu::tryGuard([&](fz_context *c) { native_->loaded = loadBounded(c, core_->doc, at); }))
        return false;
    touch(core_->loadedPages, this);
    while (int(core_->loadedPages.size()) > PdfDocument::loadedPageBudget)
        core_->loadedPages.front()->unload();
    return true;
}

void PdfPage::unload()
{
    if (!native_->loaded)
        return;
    mu::release([this](fz_context *c) { fz_drop_page(c, &native_->loaded->super); });
    native_->loaded = nullptr;
    auto &list = core_->loadedPages;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

void PdfPage::dropText()
{
    text_.reset();
    auto &list = core_->textPages;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

void PdfPage::place(std::shared_ptr<DocCore> core, std::unique_ptr<Native> native)
{
    unload();
    dropText();
    pdf_drop_obj(mu::ctx(), native_->obj);
    native_ = std::move(native);
    core_ = std::move(core);
    isUnplacedCopy_ = false;
    annotations_.clear();
    annotationsRead_ = false;
}

// MuPDF reads a page's annotations when it loads the page; the next picture
// loads it again.
void PdfPage::changed(PdfChangeChannel::Changes changes, const QRectF &area)
{
    unload();
    if (changes & PdfChangeChannel::Content)
        dropText();
    if (auto self = weak_from_this().lock())
        emit core_->changes.pageChanged(self, changes, area);
}

QRectF PdfPage::bounds(PdfBox box) const
{
    fz_rect media{0, 0, 612, 792}, crop{};
    bool hasCrop = false;
    mu::tryGuard([&](fz_context *c) {
        pdf_obj *m = pdf_dict_get_inheritable(c, native_->obj, PDF_NAME(MediaBox));
        if (pdf_is_array(c, m))
            media = pdf_to_rect(c, m);
        pdf_obj *cb = pdf_dict_get_inheritable(c, native_->obj, PDF_NAME(CropBox));
        if (pdf_is_array(c, cb)) {
            crop = pdf_to_rect(c, cb);
            hasCrop = true;
        }
    });
    const QRectF mediaRect = toQt(media);
    if (box == PdfBox::Media || !hasCrop)
        return mediaRect;
    const QRectF cropRect = toQt(crop).intersected(mediaRect);
    return cropRect.isEmpty() ? mediaRect : cropRect;
}

int PdfPage::rotation() const
{
    int degrees = 0;
    mu::tryGuard([&](fz_context *c) { degrees = pdf_to_int(c, pdf_dict_get_inheritable(c, native_->obj, PDF_NAME(Rotate))); });
    degrees = ((degrees % 360) + 360) % 360;
    return degrees - degrees % 90;
}

void PdfPage::setRotation(int degrees)
{
    const int normalized = (((degrees % 360) + 360) % 360) / 90 * 90;
    if (mu::tryGuard([&](fz_context *c) { pdf_dict_put_int(c, native_->obj, PDF_NAME(Rotate), normalized); }))
        changed(PdfChangeChannel::Rotation);
}

QTransform PdfPage::pageToDisplay() const
{
    fz_matrix ctm = fz_identity;
    fz_rect box{};
    mu::tryGuard([&](fz_context *c) { pdf_page_obj_transform(c, native_->obj, &box, &ctm); });
    return toQt(ctm);
}

QSizeF PdfPage::displaySize() const
{
    return pageToDisplay().mapRect(bounds(PdfBox::Crop)).size();
}

std::vector<std::shared_ptr<PdfAnnotation>> PdfPage::annotations()
{
    if (annotationsRead_)
        return annotations_;
    annotationsRead_ = true;
    if (isUnplacedCopy_)
        return annotations_;
    std::vector<pdf_obj *> refs;
    mu::tryGuard([&](fz_context *c) {
        pdf_obj *annots = pdf_dict_get(c, native_->obj, PDF_NAME(Annots));
        for (int i = 0; i < pdf_array_len(c, annots); ++i) {
            pdf_obj *entry = pdf_array_get(c, annots, i);
            if (!pdf_is_dict(c, entry) || pdf_name_eq(c, pdf_dict_get(c, entry, PDF_NAME(Subtype)), PDF_NAME(Popup)))
                continue;
            if (!pdf_is_indirect(c, entry)) {
                // A direct dictionary gets an object number so it can be referred to.
                pdf_obj *ref = pdf_add_object(c, core_->doc, entry);
                pdf_array_put_drop(c, annots, i, ref);
                entry = ref;
            }
            refs.push_back(pdf_keep_obj(c, entry));
        }
    });
    for (pdf_obj *ref : refs) {
        auto annotation = PdfAnnotation::fromFile(core_, std::make_unique<PdfAnnotation::Native>(ref));
        annotation->page_ = weak_from_this();
        annotations_.push_back(annotation);
    }
    return annotations_;
}

// Takes an annotation dictionary and its popup out of the page's /Annots; the
// popup stays linked to the annotation, so that adding it back restores both.
static void detach(pdf_obj *page, pdf_obj *annotation)
{
    mu::tryGuard([&](fz_context *c) {
        pdf_obj *annots = pdf_dict_get(c, page, PDF_NAME(Annots));
        pdf_obj *popup = pdf_dict_get(c, annotation, PDF_NAME(Popup));
        for (int i = pdf_array_len(c, annots) - 1; i >= 0; --i) {
            pdf_obj *entry = pdf_array_get(c, annots, i);
            if (!pdf_objcmp(c, entry, annotation) || (popup && !pdf_objcmp(c, entry, popup)))
                pdf_array_delete(c, annots, i);
        }
    });
}

void PdfPage::addAnnotation(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (!annotation || isUnplacedCopy_)
        return;
    if (auto current = annotation->page()) {
        if (current.get() == this)
            return;
        current->removeAnnotation(annotation);
    }
    annotations();
    try {
        annotation->materialize(core_);
    } catch (const mu::Error &) {
        return;
    }
    // The annotation goes on top, followed by its popup (a note made by another
    // program), which is linked to it and to this page again.
    pdf_obj *obj = annotation->native_->obj;
    const bool added = mu::tryGuard([&](fz_context *c) {
        pdf_obj *annots = pdf_dict_get(c, native_->obj, PDF_NAME(Annots));
        if (!pdf_is_array(c, annots))
            annots = pdf_dict_put_array(c, native_->obj, PDF_NAME(Annots), 4);
        pdf_array_push(c, annots, obj);
        pdf_dict_put(c, obj, PDF_NAME(P), native_->obj);
        pdf_obj *popup = pdf_dict_get(c, obj, PDF_NAME(Popup));
        if (!pdf_is_dict(c, popup))
            return;
        if (!pdf_is_indirect(c, popup)) {
            pdf_dict_put_drop(c, obj, PDF_NAME(Popup), pdf_add_object(c, core_->doc, popup));
            popup = pdf_dict_get(c, obj, PDF_NAME(Popup));
        }
        pdf_array_push(c, annots, popup);
        pdf_dict_put(c, popup, PDF_NAME(P), native_->obj);
        pdf_dict_put(c, popup, PDF_NAME(Parent), obj);
    });
    if (!added) {
        detach(native_->obj, obj);
        return;
    }
    annotations_.push_back(annotation);
    annotation->page_ = weak_from_this();
    changed(PdfChangeChannel::Annotations, annotation->drawnArea());
}

void PdfPage::removeAnnotation(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (!annotation || annotation->page().get() != this)
        return;
    detach(native_->obj, annotation->native_->obj);
    annotations_.erase(std::remove(annotations_.begin(), annotations_.end(), annotation), annotations_.end());
    annotation->page_.reset();
    changed(PdfChangeChannel::Annotations, annotation->drawnArea());
}

std::shared_ptr<PdfAnnotation> PdfPage::annotation(QPointF point)
{
    const auto list = annotations();
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        const QRectF r = (*it)->bounds();
        if (point.x() >= r.left() && point.x() <= r.right() && point.y() >= r.top() && point.y() <= r.bottom())
            return *it;
    }
    return nullptr;
}

std::shared_ptr<PdfPage> PdfPage::copy()
{
    try {
        std::shared_ptr<PdfPage> copy(new PdfPage(core_, std::make_unique<Native>()));
        copy->native_->obj = pdf_keep_obj(mu::ctx(), native_->obj);
        copy->isUnplacedCopy_ = true;
        return copy;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

std::vector<PdfLink> PdfPage::links()
{
    std::vector<PdfLink> result;
    pdf_page *page = load() ? native_->loaded : nullptr;
    auto doc = document();
    if (!page || !doc)
        return result;
    struct Raw {
        fz_rect rect;
        QString url;
        int page;
        float x, y;
    };
    std::vector<Raw> raw;
    fz_link *links = nullptr;
    mu::tryGuard([&](fz_context *c) { links = fz_load_links(c, &page->super); });
    fz_context *c = mu::ctx();
    for (fz_link *link = links; link; link = link->next) {
        Raw r{link->rect, {}, -1, NAN, NAN};
        if (!link->uri)
            continue;
        if (fz_is_external_link(c, link->uri))
            r.url = QString::fromUtf8(link->uri);
        else
            mu::tryGuard([&](fz_context *cc) {
                const fz_location loc = fz_resolve_link(cc, &core_->doc->super, link->uri, &r.x, &r.y);
                r.page = fz_page_number_from_location(cc, &core_->doc->super, loc);
            });
        raw.push_back(r);
    }
    fz_drop_link(c, links);
    const QTransform toPage = pageToDisplay().inverted();
    for (const Raw &r : raw) {
        PdfLink link{toPage.mapRect(toQt(r.rect)), r.url, r.page, std::nullopt};
        if (r.page >= 0 && !std::isnan(r.x) && !std::isnan(r.y))
            if (auto target = doc->page(r.page))
                link.point = target->pageToDisplay().inverted().map(QPointF(r.x, r.y));
        if (!link.url.isEmpty() || link.page >= 0)
            result.push_back(link);
    }
    return result;
}

std::shared_ptr<PdfDisplayList> PdfPage::displayList(const PdfRenderOptions &options)
{
    pdf_page *page = load() ? native_->loaded : nullptr;
    if (!page)
        return nullptr;
    pdf_obj *skip = options.skip && options.skip->page().get() == this ? options.skip->native_->obj : nullptr;
    pdf_obj *only = options.only && options.only->page().get() == this ? options.only->native_->obj : nullptr;
    if (options.only && !only)
        return nullptr;
    fz_display_list *list = nullptr;
    fz_rect bounds{};
    const bool ok =
        mu::tryGuard([&](fz_context *c) { list = recordList(c, page, options.annotations, skip, only, nullptr, bounds); });
    if (!ok)
        return nullptr;
    return std::make_shared<PdfDisplayList>(std::make_unique<PdfDisplayList::Native>(list),
                                            QSizeF(bounds.x1 - bounds.x0, bounds.y1 - bounds.y0), only != nullptr);
}

std::shared_ptr<PdfPageRecording> PdfPage::recording(const PdfRenderOptions &options)
{
    const int at = index();
    if (at < 0 || isUnplacedCopy_)
        return nullptr;
    auto native = std::make_unique<PdfPageRecording::Native>();
    fz_context *c = mu::ctx();
    native->doc = pdf_keep_document(c, core_->doc);
    native->page = pdf_keep_obj(c, native_->obj);
    if (options.skip && options.skip->page().get() == this)
        native->skip = pdf_keep_obj(c, options.skip->native_->obj);
    native->number = at;
    native->annotations = options.annotations;
    return std::shared_ptr<PdfPageRecording>(new PdfPageRecording(std::move(native)));
}

PdfPageRecording::PdfPageRecording(std::unique_ptr<Native> native) : native_(std::move(native)) {}

PdfPageRecording::~PdfPageRecording()
{
    // The last reference to a document closed meanwhile frees it: under the lock.
    mu::tryGuard([this](fz_context *c) {
        pdf_drop_obj(c, native_->skip);
        pdf_drop_obj(c, native_->page);
        pdf_drop_document(c, native_->doc);
    });
}

void PdfPageRecording::abort()
{
    native_->cancelled = true;
    mu::abort(&native_->cookie);
}

template <class F> PdfPageRecording::Result PdfPageRecording::withPage(bool background, F &&use)
{
    Native &n = *native_;
    if (n.cancelled)
        return Result::Interrupted;
    // A thread that needed the document stopped the last try; the owner's
    // abort() is seen through `cancelled`.
    mu::clearAbort(&n.cookie);
    mu::RecordingHold hold(&n.cookie, background);
    if (!hold.held() || n.cancelled)
        return Result::Interrupted;
    bool moved = false;
    const bool ok = mu::tryGuard([&](fz_context *c) {
        // Pages moved since it was set up: another page has this number now, or none.
        moved = n.number >= pdf_count_pages(c, n.doc) ||
                pdf_resolve_indirect(c, pdf_lookup_page_obj(c, n.doc, n.number)) != pdf_resolve_indirect(c, n.page);
        if (moved)
            return;
        pdf_page *page = loadBounded(c, n.doc, n.number);
        fz_try(c)
        {
            // MuPDF may still hold the page that had this number before.
            moved = pdf_resolve_indirect(c, page->obj) != pdf_resolve_indirect(c, n.page);
            if (!moved)
                use(c, page);
        }
        fz_always(c) fz_drop_page(c, &page->super);
        fz_catch(c) fz_rethrow(c);
    });
    if (ok && !moved && !mu::aborted(&n.cookie))
        return Result::Recorded;
    // A recording aborted half-way fails in MuPDF too: it is tried again, not given up.
    return ok || mu::aborted(&n.cookie) || moved ? Result::Interrupted : Result::Failed;
}

PdfPageRecording::Result PdfPageRecording::record()
{
    Native &n = *native_;
    fz_display_list *list = nullptr;
    fz_rect bounds{};
    const Result result = withPage(false, [&](fz_context *c, pdf_page *page) {
        list = recordList(c, page, n.annotations, n.skip, nullptr, &n.cookie, bounds);
    });
    if (result == Result::Recorded) {
        list_ = std::make_shared<PdfDisplayList>(std::make_unique<PdfDisplayList::Native>(list),
                                                 QSizeF(bounds.x1 - bounds.x0, bounds.y1 - bounds.y0));
        return result;
    }
    mu::release([list](fz_context *c) { fz_drop_display_list(c, list); });
    return result;
}

PdfPageRecording::Result PdfPageRecording::recordText(bool boxes)
{
    Native &n = *native_;
    fz_stext_page *stext = nullptr;
    fz_matrix ctm = fz_identity;
    Result result =
        withPage(true, [&](fz_context *c, pdf_page *page) { stext = readText(c, page, n.annotations, n.skip, &n.cookie, ctm); });
    if (result == Result::Recorded) {
        try {
            text_ = std::make_shared<const PdfSearchText>(PdfSearchTextBuilder::build(stext, toQt(ctm).inverted(), boxes));
        } catch (const std::bad_alloc &) {
            result = Result::Failed;
        }
    }
    mu::release([stext](fz_context *c) { fz_drop_stext_page(c, stext); });
    return result;
}

QImage PdfPage::render(qreal scale, const PdfRenderOptions &options)
{
    return render(scale, QRectF(), options);
}

QImage PdfPage::render(qreal scale, QRectF displayRegion, const PdfRenderOptions &options)
{
    auto list = displayList(options);
    return list ? list->render(scale, displayRegion) : QImage();
}

QImage PdfPage::thumbnail(QSize size, PdfBox box)
{
    const QRectF region = pageToDisplay().mapRect(bounds(box));
    if (size.isEmpty() || region.isEmpty())
        return QImage();
    const qreal scale = std::min(size.width() / region.width(), size.height() / region.height());
    return render(scale, region, PdfRenderOptions{});
}
