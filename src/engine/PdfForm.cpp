// The form: its fields as the field tree and the pages give them, the order
// Tab and the calculations go in, reset, and the edits that change values.
#include "PdfFormField.h"

#include "DocCore.h"
#include "FormInternals.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <algorithm>
#include <functional>

using mu::Obj;
using namespace formnative;

// ---------------------------------------------------------------- PdfFieldEdit

PdfFieldEdit::PdfFieldEdit(std::weak_ptr<PdfForm> form, std::unique_ptr<Native> native)
    : form_(std::move(form)), native_(std::move(native))
{
}

PdfFieldEdit::~PdfFieldEdit() = default;

void PdfFieldEdit::undo()
{
    put(false);
}

void PdfFieldEdit::redo()
{
    put(true);
}

void PdfFieldEdit::put(bool after)
{
    auto form = form_.lock();
    if (!form)
        return;
    try {
        form->reattach();
        native_->put(after);
    } catch (const mu::Error &) {
    }
    form->state_->stale = true; // the list of fields may be as it was
    form->announce(*native_);
}

// ---------------------------------------------------------------- PdfForm

PdfForm::PdfForm(std::shared_ptr<DocCore> core, std::weak_ptr<PdfDocument> document)
    : core_(std::move(core)), document_(std::move(document)), state_(std::make_unique<State>())
{
    // Pages copied in bring fields; pages removed take theirs along.
    State *state = state_.get();
    state_->pageList = QObject::connect(&core_->changes, &PdfChangeChannel::pageListChanged, [state] { state->stale = true; });
}

PdfForm::~PdfForm()
{
    QObject::disconnect(state_->pageList);
}

void PdfForm::read()
{
    State &s = *state_;
    s.stale = false;
    s.unlisted.clear();
    auto doc = document_.lock();
    if (!doc)
        return;
    // The page each widget is on, by the page's annotation list.
    std::unordered_map<pdf_obj *, std::shared_ptr<PdfPage>> pageOf;
    std::vector<pdf_obj *> listed; // in page order
    for (const std::shared_ptr<PdfPage> &page : doc->pages_) {
        pdf_obj *annots = mu::call([&](fz_context *c) { return pdf_dict_get(c, page->native_->obj, PDF_NAME(Annots)); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, annots); });
        for (int i = 0; i < n; ++i) {
            pdf_obj *annot = mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, pdf_array_get(c, annots, i)); });
            if (pageOf.emplace(annot, page).second)
                listed.push_back(annot);
        }
    }
    std::vector<std::shared_ptr<PdfFormField>> found;
    std::unordered_set<pdf_obj *> seen;
    auto self = weak_from_this();

    // Walks the field tree: a node with /T is a field; its kids without one
    // are its widgets (a field without kids is its own widget).
    std::function<void(pdf_obj *, const QString &, int)> walk = [&](pdf_obj *node, const QString &parentName, int depth) {
        pdf_obj *resolved = mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, node); });
        if (depth > maxDepth || !resolved || !seen.insert(resolved).second ||
            !mu::call([&](fz_context *c) { return pdf_is_dict(c, resolved); }))
            return;
        const QString part = text(mu::call([&](fz_context *c) { return pdf_dict_get(c, resolved, PDF_NAME(T)); }));
        const QString name = parentName.isEmpty() ? part : part.isEmpty() ? parentName : parentName + QLatin1Char('.') + part;
        pdf_obj *kids = mu::call([&](fz_context *c) { return pdf_dict_get(c, resolved, PDF_NAME(Kids)); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, kids); });
        std::vector<pdf_obj *> widgets, children;
        for (int i = 0; i < n; ++i) {
            pdf_obj *kid = mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, pdf_array_get(c, kids, i)); });
            const bool isField = mu::call([&](fz_context *c) { return pdf_dict_get(c, kid, PDF_NAME(T)) != nullptr; });
            (isField ? children : widgets).push_back(kid);
        }
        if (n == 0)
            widgets.push_back(resolved);
        if (!widgets.empty()) {
            const int num = numberOf(core_->doc, resolved);
            std::shared_ptr<PdfFormField> &field = s.byObject[num > 0 ? std::uintptr_t(num) : std::uintptr_t(resolved)];
            if (!field)
                field.reset(new PdfFormField(self, std::make_unique<PdfFormField::Native>()));
            field->native_->field = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, resolved); }));
            field->native_->fieldNum = num;
            field->name_ = name;
            field->native_->widgets.clear();
            for (pdf_obj *w : widgets) {
                PdfFormField::Native::WidgetObj widget;
                widget.obj = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, w); }));
                widget.num = numberOf(core_->doc, w);
                if (auto it = pageOf.find(w); it != pageOf.end())
                    widget.page = it->second;
                field->native_->widgets.push_back(std::move(widget));
            }
            const QByteArray type =
                mu::call([&](fz_context *c) { return std::string(pdf_to_name(c, inherited(resolved, PDF_NAME(FT)))); }).c_str();
            const PdfFormField::Flags flags = field->flags();
            field->type_ = type == "Tx"    ? PdfFormField::Type::Text
                           : type == "Sig" ? PdfFormField::Type::Signature
                           : type == "Ch"
                               ? ((flags & PdfFormField::Combo) ? PdfFormField::Type::ComboBox : PdfFormField::Type::ListBox)
                           : type == "Btn" ? ((flags & PdfFormField::PushButtonFlag) ? PdfFormField::Type::PushButton
                                              : (flags & PdfFormField::Radio)        ? PdfFormField::Type::RadioButton
                                                                                     : PdfFormField::Type::CheckBox)
                                           : PdfFormField::Type::Text;
            found.push_back(field);
        }
        for (pdf_obj *child : children)
            walk(child, name, depth + 1);
    };
    try {
        pdf_obj *fields = mu::call([&](fz_context *c) { return pdf_dict_get(c, acroForm(*core_), PDF_NAME(Fields)); });
        const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, fields); });
        for (int i = 0; i < n; ++i)
            walk(mu::call([&](fz_context *c) { return pdf_array_get(c, fields, i); }), QString(), 0);
        // Widgets of fields the form does not list (some producers leave the
        // list empty) are fields all the same, from their topmost field on.
        for (pdf_obj *annot : listed) {
            if (seen.count(annot) || !mu::call([&](fz_context *c) {
                    return pdf_name_eq(c, pdf_dict_get(c, annot, PDF_NAME(Subtype)), PDF_NAME(Widget)) &&
                           inherited(annot, PDF_NAME(FT)) != nullptr;
                }))
                continue;
            pdf_obj *top = mu::call([&](fz_context *c) {
                pdf_obj *node = annot;
                for (int depth = 0; depth < maxDepth && pdf_is_dict(c, pdf_dict_get(c, node, PDF_NAME(Parent))); ++depth)
                    node = pdf_resolve_indirect(c, pdf_dict_get(c, node, PDF_NAME(Parent)));
                return node;
            });
            if (seen.count(top))
                continue;
            s.unlisted.emplace_back(mu::call([&](fz_context *c) { return pdf_keep_obj(c, top); }));
            walk(top, QString(), 0);
        }
    } catch (const mu::Error &) {
    }
    s.fields = std::move(found);
}

std::vector<std::shared_ptr<PdfFormField>> PdfForm::fields()
{
    if (state_->stale)
        read();
    return state_->fields;
}

std::shared_ptr<PdfFormField> PdfForm::field(const QString &name)
{
    for (const auto &f : fields())
        if (f->name() == name)
            return f;
    return nullptr;
}

std::vector<PdfForm::Stop> PdfForm::tabOrder(const std::shared_ptr<PdfPage> &page)
{
    if (!page)
        return {};
    struct Placed {
        Stop stop;
        QRectF bounds;
        int listed;
    };
    // Each widget's place in the page's list, by its object number (its
    // address when it has none), which holds while MuPDF shows it from a copy.
    std::unordered_map<std::uintptr_t, int> listed;
    pdf_obj *annots = mu::call([&](fz_context *c) { return pdf_dict_get(c, page->native_->obj, PDF_NAME(Annots)); });
    const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, annots); });
    for (int i = 0; i < n; ++i) {
        pdf_obj *ref = mu::call([&](fz_context *c) { return pdf_array_get(c, annots, i); });
        const int num = mu::call([&](fz_context *c) { return pdf_is_indirect(c, ref) ? pdf_to_num(c, ref) : 0; });
        listed.emplace(num > 0 ? std::uintptr_t(num)
                               : std::uintptr_t(mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, ref); })),
                       i);
    }
    std::vector<Placed> placed;
    for (const auto &field : fields())
        for (size_t i = 0; i < field->native_->widgets.size(); ++i) {
            const auto &w = field->native_->widgets[i];
            if (w.page.lock() != page)
                continue;
            const auto at = listed.find(w.num > 0 ? std::uintptr_t(w.num) : std::uintptr_t(w.obj.get()));
            placed.push_back({{field, int(i)}, rectOf(w.obj.get()), at == listed.end() ? n : at->second});
        }
    const QByteArray tabs = mu::call([&](fz_context *c) {
                                return std::string(pdf_to_name(c, pdf_dict_gets(c, page->native_->obj, "Tabs")));
                            }).c_str();
    // Rows: the widgets by their top edge, a widget whose top lies above the
    // middle of a row's first one joining that row, each row left to right.
    // Columns the same way across.
    auto lines = [&](auto lead, auto middle, auto across) {
        std::stable_sort(placed.begin(), placed.end(), [&](const Placed &a, const Placed &b) { return lead(a) < lead(b); });
        for (size_t first = 0; first < placed.size();) {
            size_t end = first + 1;
            while (end < placed.size() && lead(placed[end]) < middle(placed[first]))
                ++end;
            std::stable_sort(placed.begin() + long(first), placed.begin() + long(end),
                             [&](const Placed &a, const Placed &b) { return across(a) < across(b); });
            first = end;
        }
    };
    if (tabs == "R")
        lines([](const Placed &p) { return -p.bounds.bottom(); }, [](const Placed &p) { return -p.bounds.center().y(); },
              [](const Placed &p) { return p.bounds.left(); });
    else if (tabs == "C")
        lines([](const Placed &p) { return p.bounds.left(); }, [](const Placed &p) { return p.bounds.center().x(); },
              [](const Placed &p) { return -p.bounds.bottom(); });
    else
        std::stable_sort(placed.begin(), placed.end(), [](const Placed &a, const Placed &b) { return a.listed < b.listed; });
    std::vector<Stop> out;
    for (const Placed &p : placed)
        out.push_back(p.stop);
    return out;
}

std::vector<std::shared_ptr<PdfFormField>> PdfForm::calculationOrder()
{
    const std::vector<std::shared_ptr<PdfFormField>> all = fields();
    std::vector<std::shared_ptr<PdfFormField>> out;
    std::unordered_set<PdfFormField *> taken;
    pdf_obj *order = mu::call([&](fz_context *c) { return pdf_dict_gets(c, acroForm(*core_), "CO"); });
    const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, order); });
    for (int i = 0; i < n; ++i) {
        pdf_obj *entry = mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, pdf_array_get(c, order, i)); });
        const int num = numberOf(core_->doc, entry);
        const auto it = state_->byObject.find(num > 0 ? std::uintptr_t(num) : std::uintptr_t(entry));
        if (it != state_->byObject.end() && taken.insert(it->second.get()).second)
            out.push_back(it->second);
    }
    for (const auto &field : all)
        if (!taken.count(field.get()) && !field->calculateScript().isEmpty())
            out.push_back(field);
    return out;
}

bool PdfForm::hasScriptsNotRun()
{
    try {
        const bool documentScripts = mu::call([&](fz_context *c) {
            pdf_obj *root = pdf_dict_get(c, pdf_trailer(c, core_->doc), PDF_NAME(Root));
            pdf_obj *open = pdf_dict_gets(c, root, "OpenAction");
            return pdf_dict_getp(c, root, "Names/JavaScript") != nullptr ||
                   pdf_name_eq(c, pdf_dict_get(c, open, PDF_NAME(S)), PDF_NAME(JavaScript)) ||
                   pdf_dict_get(c, root, PDF_NAME(AA)) != nullptr;
        });
        if (documentScripts)
            return true;
        for (const auto &field : fields()) {
            if (PdfFieldFormat::parse(field->formatScript()).kind == PdfFieldFormat::Kind::Other ||
                PdfFieldFormat::parse(field->keystrokeScript()).kind == PdfFieldFormat::Kind::Other ||
                field->calculation().kind == PdfFieldCalculation::Kind::Other || !field->validateScript().isEmpty())
                return true;
            // Any other action of the field or its widgets that runs a script.
            std::vector<pdf_obj *> holders{field->native_->field.get()};
            for (const auto &w : field->native_->widgets)
                holders.push_back(w.obj.get());
            for (pdf_obj *holder : holders) {
                if (!actionScript(mu::call([&](fz_context *c) { return pdf_dict_get(c, holder, PDF_NAME(A)); })).isEmpty())
                    return true;
                pdf_obj *aa = mu::call([&](fz_context *c) { return pdf_dict_get(c, holder, PDF_NAME(AA)); });
                const int n = mu::call([&](fz_context *c) { return pdf_dict_len(c, aa); });
                for (int i = 0; i < n; ++i) {
                    const QByteArray key =
                        mu::call([&](fz_context *c) { return std::string(pdf_to_name(c, pdf_dict_get_key(c, aa, i))); }).c_str();
                    if (key != "F" && key != "K" && key != "C" &&
                        !actionScript(mu::call([&](fz_context *c) { return pdf_dict_get_val(c, aa, i); })).isEmpty())
                        return true;
                }
            }
        }
    } catch (const mu::Error &) {
    }
    return false;
}

std::shared_ptr<PdfFieldEdit> PdfForm::reset()
{
    return change([&](PdfFieldEdit::Native &edit) {
        for (const auto &field : fields()) {
            switch (field->type()) {
            case PdfFormField::Type::PushButton:
            case PdfFormField::Type::Signature:
                break;
            case PdfFormField::Type::CheckBox:
            case PdfFormField::Type::RadioButton: {
                const QString dv = field->defaultValue();
                std::vector<bool> states;
                bool same = field->value() == dv;
                for (const PdfFormField::Widget &w : field->widgets()) {
                    states.push_back(!w.onState.isEmpty() && w.onState == dv);
                    same = same && states.back() == w.on;
                }
                if (!same)
                    field->writeStates(edit, states, dv);
                break;
            }
            default: {
                pdf_obj *dv = inherited(field->native_->field.get(), PDF_NAME(DV));
                QStringList values;
                const int n = mu::call([&](fz_context *c) { return pdf_is_array(c, dv) ? pdf_array_len(c, dv) : -1; });
                if (n < 0 && dv)
                    values << nameOrText(dv);
                for (int i = 0; i < n; ++i)
                    values << nameOrText(mu::call([&](fz_context *c) { return pdf_array_get(c, dv, i); }));
                values.removeAll(QString());
                if (values != field->values())
                    field->writeValue(edit, values);
            }
            }
        }
    });
}

std::shared_ptr<PdfFieldEdit> PdfForm::change(const std::function<void(PdfFieldEdit::Native &)> &make)
{
    auto native = std::make_unique<PdfFieldEdit::Native>();
    native->doc = core_->doc;
    try {
        reattach();
        make(*native);
        if (native->entries.empty())
            return nullptr;
        recalculate(*native);
        settle(*native);
        native->finish();
    } catch (const mu::Error &) {
        try {
            native->put(false);
        } catch (const mu::Error &) {
        }
        announce(*native);
        return nullptr;
    }
    announce(*native);
    return std::shared_ptr<PdfFieldEdit>(new PdfFieldEdit(weak_from_this(), std::move(native)));
}

void PdfForm::recalculate(PdfFieldEdit::Native &edit)
{
    const std::vector<std::shared_ptr<PdfFormField>> all = fields();
    // One pass in calculation order: a loop in the order ends with it.
    for (const auto &target : calculationOrder()) {
        const PdfFieldCalculation calc = target->calculation();
        std::vector<QString> values;
        for (const QString &name : calc.fields)
            for (const auto &source : all)
                if (source->name() == name || source->name().startsWith(name + QLatin1Char('.')))
                    values.push_back(source->value());
        const std::optional<double> result = calc.calculate(values);
        if (!result)
            continue;
        const QString text = pdffieldformat::numberText(*result);
        if (text != target->value())
            target->writeValue(edit, {text});
    }
}

void PdfForm::settle(PdfFieldEdit::Native &edit)
{
    pdf_obj *form = acroForm(*core_);
    if (!state_->unlisted.empty()) {
        // Fields the form does not list are listed, so other readers fill them too.
        pdf_obj *root = mu::call([&](fz_context *c) { return pdf_dict_get(c, pdf_trailer(c, core_->doc), PDF_NAME(Root)); });
        if (!form) {
            edit.touch(root);
            mu::guard([&](fz_context *c) { pdf_dict_put_drop(c, root, PDF_NAME(AcroForm), pdf_add_new_dict(c, core_->doc, 4)); });
            form = acroForm(*core_);
        }
        edit.touch(form);
        mu::guard([&](fz_context *c) {
            if (!pdf_is_array(c, pdf_dict_get(c, form, PDF_NAME(Fields))))
                pdf_dict_put_array(c, form, PDF_NAME(Fields), int(state_->unlisted.size()));
        });
        pdf_obj *list = mu::call([&](fz_context *c) { return pdf_dict_get(c, form, PDF_NAME(Fields)); });
        for (const Obj &top : state_->unlisted)
            mu::guard([&](fz_context *c) { pdf_array_push_drop(c, list, core_->reference(c, top.get())); });
        state_->unlisted.clear();
    }
    const bool needed = mu::call([&](fz_context *c) { return pdf_dict_gets(c, form, "NeedAppearances") != nullptr; });
    if (!needed)
        return;
    // Readers are no longer asked to make the looks: every field gets its own.
    for (const auto &field : fields())
        for (size_t i = 0; i < field->native_->widgets.size(); ++i)
            if (!edit.touched.count(field->native_->widgets[i].obj.get()))
                field->writeLook(edit, i);
    edit.touch(form);
    mu::guard([&](fz_context *c) { pdf_dict_dels(c, form, "NeedAppearances"); });
}

// MuPDF makes a look for a widget that has none only to show it, in a local
// section of the document's objects that the file never gets: the widget's
// dictionary moves there (the file keeps a copy) and is dropped with the
// page. A change made to it would reach neither the file nor the page. So
// before a change that section is dropped, with the pages loaded from it,
// and the form reads the file's own dictionaries anew where it held others.
void PdfForm::reattach()
{
    pdf_document *doc = core_->doc;
    bool moved = doc->local_xref != nullptr;
    if (moved) {
        mu::guard([&](fz_context *c) { pdf_drop_local_xref_and_resources(c, doc); });
        core_->unloadPages();
    }
    auto detached = [&](const Obj &held, int num) { return num > 0 && numberOf(doc, held.get()) != num; };
    for (size_t f = 0; !moved && !state_->stale && f < state_->fields.size(); ++f) {
        const PdfFormField::Native &n = *state_->fields[f]->native_;
        moved = detached(n.field, n.fieldNum);
        for (size_t w = 0; !moved && w < n.widgets.size(); ++w)
            moved = detached(n.widgets[w].obj, n.widgets[w].num);
    }
    if (moved || state_->stale)
        read();
}

void PdfForm::announce(const PdfFieldEdit::Native &edit)
{
    std::vector<std::pair<std::shared_ptr<PdfPage>, QRectF>> pages;
    for (const auto &[weak, area] : edit.areas) {
        auto page = weak.lock();
        if (!page)
            continue;
        auto it = std::find_if(pages.begin(), pages.end(), [&](const auto &p) { return p.first == page; });
        if (it == pages.end())
            pages.emplace_back(page, area);
        else
            it->second |= area;
    }
    for (const auto &[page, area] : pages)
        page->changed(PdfChangeChannel::Annotations, area);
}

// ---------------------------------------------------------------- PdfDocument

std::shared_ptr<PdfForm> PdfDocument::form()
{
    if (!form_)
        form_.reset(new PdfForm(core_, weak_from_this()));
    return form_;
}

std::vector<std::shared_ptr<PdfFormField>> PdfDocument::formFields()
{
    return form()->fields();
}
