#include "Graft.h"

#include "DocCore.h"

#include <algorithm>

Graft::Graft(std::shared_ptr<DocCore> source, pdf_document *dst) : source_(std::move(source)), dst_(dst) {}

int Graft::copyOf(int sourceNum) const
{
    auto found = numbers_.find(sourceNum);
    return found == numbers_.end() ? 0 : found->second;
}

int Graft::copyOfPage(int sourcePage) const
{
    if (!filled_.count(sourcePage))
        return 0;
    return slots_.at(sourcePage);
}

void Graft::setCopy(fz_context *c, int sourceNum, int dstNum)
{
    mu::cxx(c, [&] {
        recorded_.push_back(sourceNum);
        numbers_[sourceNum] = dstNum;
    });
}

void Graft::forget(size_t mark)
{
    for (size_t i = mark; i < recorded_.size(); ++i)
        numbers_.erase(recorded_[i]);
    recorded_.resize(std::min(mark, recorded_.size()));
}

int Graft::slotFor(fz_context *c, int sourcePage)
{
    auto found = slots_.find(sourcePage);
    if (found != slots_.end())
        return found->second;
    const int num = pdf_create_object(c, dst_);
    mu::cxx(c, [&] { slots_.emplace(sourcePage, num); });
    return num;
}

int Graft::pageNumber(fz_context *c, int sourcePage)
{
    return filled_.count(sourcePage) ? pdf_create_object(c, dst_) : slotFor(c, sourcePage);
}

void Graft::notePlaced(int sourcePage, int num)
{
    placed.reserve(placed.size() + 1);
    filled_.insert(sourcePage);
    placed.push_back(num);
}

pdf_obj *Graft::bring(fz_context *c, pdf_obj *obj)
{
    if (!pdf_is_indirect(c, obj))
        return bringDirect(c, obj);
    const int num = pdf_to_num(c, obj);
    if (const int known = copyOf(num))
        return pdf_new_indirect(c, dst_, known, 0);
    pdf_obj *value = pdf_resolve_indirect(c, obj);
    pdf_obj *type = pdf_dict_get(c, value, PDF_NAME(Type));
    if (pdf_name_eq(c, type, PDF_NAME(Page)))
        return pdf_new_indirect(c, dst_, slotFor(c, num), 0);
    if (pdf_name_eq(c, type, PDF_NAME(Pages)) || pdf_name_eq(c, type, PDF_NAME(Catalog)))
        return PDF_NULL;
    // The copy is recorded before its value is copied (what it holds may lead
    // back to it), and taken back with whatever its value recorded when the
    // copy fails, so a later copy never leads to a half-made object.
    const size_t before = mark();
    const int copyNum = pdf_create_object(c, dst_);
    setCopy(c, num, copyNum);
    pdf_obj *copy = nullptr;
    pdf_obj *ref = nullptr;
    fz_buffer *data = nullptr;
    fz_var(copy);
    fz_var(ref);
    fz_var(data);
    fz_try(c)
    {
        copy = bringDirect(c, value);
        pdf_update_object(c, dst_, copyNum, copy);
        ref = pdf_new_indirect(c, dst_, copyNum, 0);
        if (pdf_is_stream(c, obj)) {
            data = pdf_load_raw_stream(c, obj);
            pdf_update_stream(c, dst_, ref, data, 1);
        }
    }
    fz_always(c)
    {
        pdf_drop_obj(c, copy);
        fz_drop_buffer(c, data);
    }
    fz_catch(c)
    {
        pdf_drop_obj(c, ref);
        forget(before);
        fz_rethrow(c);
    }
    return ref;
}

pdf_obj *Graft::bringDirect(fz_context *c, pdf_obj *obj)
{
    const bool dict = pdf_is_dict(c, obj);
    if (!dict && !pdf_is_array(c, obj))
        return pdf_keep_obj(c, obj);
    const int n = dict ? pdf_dict_len(c, obj) : pdf_array_len(c, obj);
    pdf_obj *copy = dict ? pdf_new_dict(c, dst_, n) : pdf_new_array(c, dst_, n);
    fz_try(c)
    {
        for (int i = 0; i < n; ++i) {
            if (dict)
                pdf_dict_put_drop(c, copy, pdf_dict_get_key(c, obj, i), bring(c, pdf_dict_get_val(c, obj, i)));
            else
                pdf_array_push_drop(c, copy, bring(c, pdf_array_get(c, obj, i)));
        }
    }
    fz_catch(c)
    {
        pdf_drop_obj(c, copy);
        fz_rethrow(c);
    }
    return copy;
}

CopyState::~CopyState()
{
    for (auto &[name, destination] : carriedDestinations)
        pdf_drop_obj(mu::ctx(), destination);
}

Graft &CopyState::graftFor(const std::shared_ptr<DocCore> &source, pdf_document *dst)
{
    for (auto &graft : grafts)
        if (graft->source() == source)
            return *graft;
    grafts.push_back(std::make_unique<Graft>(source, dst));
    return *grafts.back();
}
