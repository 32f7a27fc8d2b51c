#include "PdfFormField.h"

#include "Appearance.h"

#include "DocCore.h"
#include "FormInternals.h"
#include "PdfPage.h"

#include <algorithm>
#include <map>

using mu::Obj;
using namespace formnative;

namespace formnative {

int numberOf(pdf_document *doc, pdf_obj *obj)
{
    return mu::call([&](fz_context *c) {
        const int num = pdf_obj_parent_num(c, obj);
        if (num <= 0 || num >= pdf_xref_len(c, doc))
            return 0;
        pdf_obj *filed = pdf_load_object(c, doc, num);
        const bool own = filed == obj;
        pdf_drop_obj(c, filed);
        return own ? num : 0;
    });
}

QString text(pdf_obj *obj)
{
    return QString::fromUtf8(mu::call([&](fz_context *c) { return std::string(pdf_to_text_string(c, obj)); }));
}

QString nameOrText(pdf_obj *obj)
{
    return QString::fromUtf8(mu::call(
        [&](fz_context *c) { return std::string(pdf_is_name(c, obj) ? pdf_to_name(c, obj) : pdf_to_text_string(c, obj)); }));
}

pdf_obj *inherited(pdf_obj *field, pdf_obj *key)
{
    return mu::call([&](fz_context *c) {
        pdf_obj *node = field;
        for (int depth = 0; node && depth < maxDepth; ++depth, node = pdf_dict_get(c, node, PDF_NAME(Parent)))
            if (pdf_obj *value = pdf_dict_get(c, node, key))
                return value;
        return static_cast<pdf_obj *>(nullptr);
    });
}

pdf_obj *acroForm(DocCore &core)
{
    return mu::call([&](fz_context *c) { return pdf_dict_getp(c, pdf_trailer(c, core.doc), "Root/AcroForm"); });
}

QString actionScript(pdf_obj *action)
{
    if (!action)
        return QString();
    const bool script =
        mu::call([&](fz_context *c) { return pdf_name_eq(c, pdf_dict_get(c, action, PDF_NAME(S)), PDF_NAME(JavaScript)); });
    if (!script)
        return QString();
    char *utf8 = nullptr;
    mu::guard([&](fz_context *c) { utf8 = pdf_load_stream_or_string_as_utf8(c, pdf_dict_get(c, action, PDF_NAME(JS))); });
    const QString out = QString::fromUtf8(utf8);
    mu::release([&](fz_context *c) { fz_free(c, utf8); });
    return out;
}

DefaultAppearance readDefaultAppearance(const QByteArray &da)
{
    DefaultAppearance out;
    QList<QByteArray> operands;
    for (const QByteArray &token : da.simplified().split(' ')) {
        bool isNumber = false;
        token.toDouble(&isNumber);
        if (isNumber || token.startsWith('/')) {
            operands << token;
            continue;
        }
        auto num = [&](int fromEnd) { return std::clamp(operands[operands.size() - fromEnd].toDouble(), 0.0, 1.0); };
        if (token == "Tf" && operands.size() >= 2 && operands[operands.size() - 2].startsWith('/')) {
            out.font = operands[operands.size() - 2].mid(1);
            out.size = std::max(0.0, operands.back().toDouble());
        } else if (token == "g" && !operands.isEmpty()) {
            out.color = QColor::fromRgbF(num(1), num(1), num(1));
        } else if (token == "rg" && operands.size() >= 3) {
            out.color = QColor::fromRgbF(num(3), num(2), num(1));
        } else if (token == "k" && operands.size() >= 4) {
            out.color = QColor::fromRgbF((1 - num(4)) * (1 - num(1)), (1 - num(3)) * (1 - num(1)), (1 - num(2)) * (1 - num(1)));
        }
        operands.clear();
    }
    if (out.font.isEmpty())
        out.font = "Helv";
    return out;
}

QColor colorOf(pdf_obj *array)
{
    QColor color;
    mu::tryGuard([&](fz_context *c) { color = appearance::colorFromArray(c, array); });
    return color;
}

QRectF rectOf(pdf_obj *widget)
{
    fz_rect r{};
    mu::tryGuard([&](fz_context *c) { r = pdf_dict_get_rect(c, widget, PDF_NAME(Rect)); });
    return QRectF(QPointF(std::min(r.x0, r.x1), std::min(r.y0, r.y1)), QPointF(std::max(r.x0, r.x1), std::max(r.y0, r.y1)));
}

QString onStateOf(pdf_obj *widget)
{
    return QString::fromUtf8(mu::call([&](fz_context *c) {
        for (const char *kind : {"N", "D"}) {
            pdf_obj *states = pdf_dict_gets(c, pdf_dict_get(c, widget, PDF_NAME(AP)), kind);
            if (!pdf_is_dict(c, states))
                continue;
            for (int i = 0; i < pdf_dict_len(c, states); ++i) {
                pdf_obj *key = pdf_dict_get_key(c, states, i);
                if (!pdf_name_eq(c, key, PDF_NAME(Off)))
                    return std::string(pdf_to_name(c, key));
            }
        }
        return std::string();
    }));
}

bool hasLook(pdf_obj *widget)
{
    return mu::call([&](fz_context *c) { return pdf_dict_get(c, widget, PDF_NAME(AP)) != nullptr; });
}

QString stateOf(pdf_obj *widget)
{
    return QString::fromUtf8(mu::call([&](fz_context *c) { return std::string(pdf_dict_get_name(c, widget, PDF_NAME(AS))); }));
}

void putName(pdf_obj *dict, pdf_obj *key, const QString &name)
{
    const QByteArray utf8 = name.toUtf8();
    mu::guard([&](fz_context *c) { pdf_dict_put_drop(c, dict, key, pdf_new_name(c, utf8.constData())); });
}

void putText(pdf_obj *dict, pdf_obj *key, const QString &value)
{
    const QByteArray utf8 = value.toUtf8();
    mu::guard([&](fz_context *c) { pdf_dict_put_text_string(c, dict, key, utf8.constData()); });
}

QByteArray defaultAppearanceOf(DocCore &core, pdf_obj *field)
{
    pdf_obj *da = inherited(field, PDF_NAME(DA));
    if (!da)
        da = mu::call([&](fz_context *c) { return pdf_dict_get(c, acroForm(core), PDF_NAME(DA)); });
    return mu::call([&](fz_context *c) { return std::string(pdf_to_str_buf(c, da)); }).c_str();
}

} // namespace formnative

namespace {

// The standard font names form authors' tools give the default resources.
QString standardFontName(const QString &resource)
{
    static const std::map<QString, QString> names{
        {QStringLiteral("Helv"), QStringLiteral("Helvetica")},   {QStringLiteral("HeBo"), QStringLiteral("Helvetica-Bold")},
        {QStringLiteral("TiRo"), QStringLiteral("Times-Roman")}, {QStringLiteral("TiBo"), QStringLiteral("Times-Bold")},
        {QStringLiteral("Cour"), QStringLiteral("Courier")},     {QStringLiteral("CoBo"), QStringLiteral("Courier-Bold")}};
    const auto it = names.find(resource);
    return it == names.end() ? QStringLiteral("Helvetica") : it->second;
}

} // namespace

// ---------------------------------------------------------------- PdfFormField

PdfFormField::PdfFormField(std::weak_ptr<PdfForm> form, std::unique_ptr<Native> native)
    : form_(std::move(form)), native_(std::move(native))
{
}

PdfFormField::~PdfFormField() = default;

QString PdfFormField::toolTip() const
{
    return text(mu::call([&](fz_context *c) { return pdf_dict_get(c, native_->field.get(), PDF_NAME(TU)); }));
}

PdfFormField::Flags PdfFormField::flags() const
{
    return Flags(mu::call([&](fz_context *c) { return pdf_to_int(c, inherited(native_->field.get(), PDF_NAME(Ff))); }));
}

bool PdfFormField::isEditable() const
{
    return !isReadOnly() && type_ != Type::PushButton && type_ != Type::Signature;
}

int PdfFormField::maxLength() const
{
    return std::max(0, mu::call([&](fz_context *c) { return pdf_to_int(c, inherited(native_->field.get(), PDF_NAME(MaxLen))); }));
}

QStringList PdfFormField::values() const
{
    pdf_obj *v = inherited(native_->field.get(), PDF_NAME(V));
    QStringList out;
    const int n = mu::call([&](fz_context *c) { return pdf_is_array(c, v) ? pdf_array_len(c, v) : -1; });
    if (n < 0) {
        if (v)
            out << nameOrText(v);
    } else {
        for (int i = 0; i < n; ++i)
            out << nameOrText(mu::call([&](fz_context *c) { return pdf_array_get(c, v, i); }));
    }
    out.removeAll(QString());
    return out;
}

QString PdfFormField::value() const
{
    const QStringList all = values();
    if (type_ == Type::CheckBox || type_ == Type::RadioButton)
        return all.isEmpty() ? QStringLiteral("Off") : all.first();
    return all.isEmpty() ? QString() : all.first();
}

QString PdfFormField::defaultValue() const
{
    pdf_obj *dv = inherited(native_->field.get(), PDF_NAME(DV));
    pdf_obj *first = mu::call([&](fz_context *c) { return pdf_is_array(c, dv) ? pdf_array_get(c, dv, 0) : dv; });
    const QString out = first ? nameOrText(first) : QString();
    if (out.isEmpty() && (type_ == Type::CheckBox || type_ == Type::RadioButton))
        return QStringLiteral("Off");
    return out;
}

std::vector<PdfFormField::Option> PdfFormField::choiceOptions() const
{
    pdf_obj *opt = inherited(native_->field.get(), PDF_NAME(Opt));
    std::vector<Option> out;
    const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, opt); });
    for (int i = 0; i < n; ++i) {
        pdf_obj *item = mu::call([&](fz_context *c) { return pdf_array_get(c, opt, i); });
        const bool pair = mu::call([&](fz_context *c) { return pdf_is_array(c, item); });
        if (pair) {
            const QString exported = text(mu::call([&](fz_context *c) { return pdf_array_get(c, item, 0); }));
            const QString shown = text(mu::call([&](fz_context *c) { return pdf_array_get(c, item, 1); }));
            out.push_back({exported, shown.isEmpty() ? exported : shown});
        } else {
            const QString t = text(item);
            out.push_back({t, t});
        }
    }
    return out;
}

QStringList PdfFormField::options() const
{
    QStringList out;
    for (const Option &o : choiceOptions())
        out << o.exportValue;
    return out;
}

QString PdfFormField::displayValue() const
{
    const QString v = value();
    if (type_ == Type::ComboBox || type_ == Type::ListBox) {
        for (const Option &o : choiceOptions())
            if (o.exportValue == v)
                return o.displayValue;
        return v;
    }
    return type_ == Type::Text ? format().display(v) : v;
}

std::vector<PdfFormField::Widget> PdfFormField::widgets() const
{
    std::vector<Widget> out;
    for (const Native::WidgetObj &w : native_->widgets) {
        Widget widget;
        widget.page = w.page.lock();
        widget.bounds = rectOf(w.obj.get());
        out.push_back(widget);
    }
    if (type_ == Type::CheckBox || type_ == Type::RadioButton) {
        const std::vector<QString> names = onStates();
        for (size_t i = 0; i < out.size(); ++i) {
            out[i].onState = names[i];
            out[i].on = !names[i].isEmpty() && stateOf(native_->widgets[i].obj.get()) == names[i];
        }
    }
    return out;
}

// From the widgets' looks. A field none of whose widgets has a look (its
// author left them to the reader) gets names of its own, which its looks
// take when they are written: "Yes" for a check box; for a radio button the
// export value /Opt gives it, else "Choice" and its number.
std::vector<QString> PdfFormField::onStates() const
{
    std::vector<QString> names;
    bool lookless = true;
    for (const Native::WidgetObj &w : native_->widgets) {
        names.push_back(onStateOf(w.obj.get()));
        lookless = lookless && !hasLook(w.obj.get());
    }
    if (!lookless)
        return names;
    const std::vector<Option> exported = type_ == Type::RadioButton ? choiceOptions() : std::vector<Option>();
    for (size_t i = 0; i < names.size(); ++i)
        names[i] = type_ == Type::CheckBox                                     ? QStringLiteral("Yes")
                   : i < exported.size() && !exported[i].exportValue.isEmpty() ? exported[i].exportValue
                                                                               : QStringLiteral("Choice%1").arg(i + 1);
    return names;
}

PdfFont PdfFormField::font() const
{
    auto form = form_.lock();
    if (!form)
        return PdfFont{QStringLiteral("Helvetica"), 0};
    const DefaultAppearance da = readDefaultAppearance(defaultAppearanceOf(*form->core_, native_->field.get()));
    // The font the form's resources give that name, by its base font name.
    const QString base = QString::fromUtf8(mu::call([&](fz_context *c) {
        pdf_obj *fonts = pdf_dict_getp(c, acroForm(*form->core_), "DR/Font");
        pdf_obj *font = pdf_dict_gets(c, fonts, da.font.constData());
        return std::string(pdf_dict_get_name(c, font, PDF_NAME(BaseFont)));
    }));
    PdfFont font{base.isEmpty() ? standardFontName(QString::fromUtf8(da.font)) : base, da.size};
    return font;
}

QColor PdfFormField::textColor() const
{
    auto form = form_.lock();
    return form ? readDefaultAppearance(defaultAppearanceOf(*form->core_, native_->field.get())).color : QColor(Qt::black);
}

PdfFormField::Alignment PdfFormField::alignment() const
{
    pdf_obj *q = inherited(native_->field.get(), PDF_NAME(Q));
    auto form = form_.lock();
    if (!q && form)
        q = mu::call([&](fz_context *c) { return pdf_dict_get(c, acroForm(*form->core_), PDF_NAME(Q)); });
    const int value = mu::call([&](fz_context *c) { return pdf_to_int(c, q); });
    return value == 1 ? Alignment::Center : value == 2 ? Alignment::Right : Alignment::Left;
}

namespace {

QString fieldScript(pdf_obj *field, const char *key)
{
    pdf_obj *action = mu::call([&](fz_context *c) { return pdf_dict_getp(c, field, key); });
    return actionScript(action);
}

} // namespace

QString PdfFormField::formatScript() const
{
    return fieldScript(native_->field.get(), "AA/F");
}

QString PdfFormField::keystrokeScript() const
{
    return fieldScript(native_->field.get(), "AA/K");
}

QString PdfFormField::calculateScript() const
{
    return fieldScript(native_->field.get(), "AA/C");
}

QString PdfFormField::validateScript() const
{
    return fieldScript(native_->field.get(), "AA/V");
}

bool PdfFormField::accepts(const QString &value) const
{
    if (!isEditable())
        return false;
    switch (type_) {
    case Type::Text:
        return (maxLength() == 0 || value.size() <= maxLength()) && PdfFieldFormat::parse(keystrokeScript()).accepts(value);
    case Type::ComboBox:
    case Type::ListBox:
        return value.isEmpty() || ((flags() & Edit) && type_ == Type::ComboBox) || options().contains(value);
    case Type::CheckBox:
    case Type::RadioButton:
        if (value == QLatin1String("Off"))
            return true;
        for (const Widget &w : widgets())
            if (w.onState == value)
                return true;
        return false;
    default:
        return false;
    }
}

std::shared_ptr<PdfFieldEdit> PdfFormField::setValue(const QString &value)
{
    if (type_ == Type::ListBox)
        return setValues(value.isEmpty() ? QStringList() : QStringList{value});
    if (!accepts(value))
        return nullptr;
    if (type_ == Type::CheckBox || type_ == Type::RadioButton) {
        const std::vector<Widget> all = widgets();
        if (value == QLatin1String("Off")) {
            for (int i = 0; i < int(all.size()); ++i)
                if (all[size_t(i)].on)
                    return setChecked(i, false);
            return nullptr;
        }
        for (int i = 0; i < int(all.size()); ++i)
            if (all[size_t(i)].onState == value)
                return setChecked(i, true);
        return nullptr;
    }
    if (value == this->value())
        return nullptr;
    auto form = form_.lock();
    return form ? form->change([&](PdfFieldEdit::Native &edit) { writeValue(edit, {value}); }) : nullptr;
}

std::shared_ptr<PdfFieldEdit> PdfFormField::setValues(const QStringList &chosen)
{
    if (type_ != Type::ListBox && chosen.size() == 1)
        return setValue(chosen.first());
    if (type_ != Type::ListBox || !isEditable() || (chosen.size() > 1 && !(flags() & MultiSelect)))
        return nullptr;
    for (const QString &v : chosen)
        if (!accepts(v))
            return nullptr;
    if (chosen == values())
        return nullptr;
    auto form = form_.lock();
    return form ? form->change([&](PdfFieldEdit::Native &edit) { writeValue(edit, chosen); }) : nullptr;
}

std::shared_ptr<PdfFieldEdit> PdfFormField::setChecked(int widget, bool on)
{
    const std::vector<Widget> all = widgets();
    if ((type_ != Type::CheckBox && type_ != Type::RadioButton) || !isEditable() || widget < 0 || widget >= int(all.size()))
        return nullptr;
    const QString onState = all[size_t(widget)].onState;
    if (on && onState.isEmpty())
        return nullptr;
    if (!on && type_ == Type::RadioButton && (flags() & NoToggleToOff))
        return nullptr;
    // Check boxes that share a field turn on together; radio buttons only
    // when the group says so, else just the one.
    const bool together = type_ == Type::CheckBox || (flags() & RadiosInUnison);
    std::vector<bool> states;
    for (int i = 0; i < int(all.size()); ++i)
        states.push_back(on && (i == widget || (together && all[size_t(i)].onState == onState)));
    bool same = true;
    for (size_t i = 0; i < all.size(); ++i)
        same = same && states[i] == all[i].on;
    if (same)
        return nullptr;
    auto form = form_.lock();
    return form ? form->change(
                      [&](PdfFieldEdit::Native &edit) { writeStates(edit, states, on ? onState : QStringLiteral("Off")); })
                : nullptr;
}

void PdfFormField::writeStates(PdfFieldEdit::Native &edit, const std::vector<bool> &states, const QString &value)
{
    // Names as the file's own objects give them (what was read before the
    // change may have been a look MuPDF made only to draw the widget).
    const std::vector<QString> names = onStates();
    const auto on = std::find(states.begin(), states.end(), true);
    edit.touch(native_->field.get());
    putName(native_->field.get(), PDF_NAME(V),
            on != states.end() && size_t(on - states.begin()) < names.size() ? names[size_t(on - states.begin())] : value);
    // Widgets without looks get them, so every reader shows the state.
    writeButtonLooks(edit);
    for (size_t i = 0; i < native_->widgets.size() && i < states.size(); ++i) {
        pdf_obj *w = native_->widgets[i].obj.get();
        const QString state = states[i] ? names[i] : QStringLiteral("Off");
        if (stateOf(w) == state)
            continue;
        edit.touch(w);
        putName(w, PDF_NAME(AS), state);
        edit.areas.emplace_back(native_->widgets[i].page, rectOf(w));
    }
}

void PdfFormField::writeValue(PdfFieldEdit::Native &edit, const QStringList &chosen)
{
    pdf_obj *field = native_->field.get();
    edit.touch(field);
    if (chosen.isEmpty()) {
        mu::guard([&](fz_context *c) { pdf_dict_del(c, field, PDF_NAME(V)); });
    } else if (chosen.size() == 1) {
        putText(field, PDF_NAME(V), chosen.first());
    } else {
        mu::guard([&](fz_context *c) { pdf_dict_put_array(c, field, PDF_NAME(V), int(chosen.size())); });
        pdf_obj *array = mu::call([&](fz_context *c) { return pdf_dict_get(c, field, PDF_NAME(V)); });
        for (const QString &v : chosen) {
            const QByteArray utf8 = v.toUtf8();
            mu::guard([&](fz_context *c) { pdf_array_push_drop(c, array, pdf_new_text_string(c, utf8.constData())); });
        }
    }
    if (type_ == Type::ListBox) {
        // The chosen options' indices, for readers that go by them.
        const QStringList all = options();
        mu::guard([&](fz_context *c) { pdf_dict_put_array(c, field, PDF_NAME(I), int(chosen.size())); });
        pdf_obj *indices = mu::call([&](fz_context *c) { return pdf_dict_get(c, field, PDF_NAME(I)); });
        std::vector<int> rows;
        for (int i = 0; i < all.size(); ++i)
            if (chosen.contains(all[i]))
                rows.push_back(i);
        for (int row : rows)
            mu::guard([&](fz_context *c) { pdf_array_push_int(c, indices, row); });
    }
    for (size_t i = 0; i < native_->widgets.size(); ++i)
        writeLook(edit, i);
}
