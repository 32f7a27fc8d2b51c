#include "PdfFormField.h"

#include "Appearance.h"
#include "DocCore.h"
#include "FontService.h"
#include "Native.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <unordered_map>
#include <unordered_set>

using mu::Obj;

struct PdfFormField::Native {
    Obj field; // the terminal field's dictionary
    struct WidgetObj {
        Obj obj;
        std::weak_ptr<PdfPage> page;
    };
    std::vector<WidgetObj> widgets;
};

// The dictionaries a change touched, as they were before it and after it.
struct PdfFieldEdit::Native {
    struct Entry {
        Obj live;
        Obj before;
        Obj after;
    };
    std::vector<Entry> entries;
    std::unordered_set<pdf_obj *> touched;
    // Where the look of pages changed.
    std::vector<std::pair<std::weak_ptr<PdfPage>, QRectF>> areas;

    // Keeps a copy of `dict` as it is, the first time the change touches it.
    void touch(pdf_obj *dict)
    {
        pdf_obj *resolved = mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, dict); });
        if (!resolved || touched.count(resolved))
            return;
        Entry entry;
        entry.live = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, resolved); }));
        entry.before = Obj(mu::call([&](fz_context *c) { return pdf_deep_copy_obj(c, resolved); }));
        touched.insert(resolved);
        entries.push_back(std::move(entry));
    }
    void finish()
    {
        for (Entry &e : entries)
            e.after = Obj(mu::call([&](fz_context *c) { return pdf_deep_copy_obj(c, e.live.get()); }));
    }
    // Makes each dictionary what it was before (or after) the change.
    void put(bool after)
    {
        mu::guard([&](fz_context *c) {
            for (const Entry &e : entries) {
                pdf_obj *live = e.live.get();
                pdf_obj *from = after ? e.after.get() : e.before.get();
                if (!from)
                    continue;
                for (int n = pdf_dict_len(c, live); n > 0; n = pdf_dict_len(c, live))
                    pdf_dict_del(c, live, pdf_dict_get_key(c, live, n - 1));
                for (int i = 0; i < pdf_dict_len(c, from); ++i)
                    pdf_dict_put_drop(c, live, pdf_dict_get_key(c, from, i), pdf_deep_copy_obj(c, pdf_dict_get_val(c, from, i)));
            }
        });
    }
};

struct PdfForm::State {
    bool stale = true;
    std::vector<std::shared_ptr<PdfFormField>> fields;
    // By the field dictionary (resolved), so a field keeps its object across readings.
    std::unordered_map<pdf_obj *, std::shared_ptr<PdfFormField>> byObject;
    // Topmost fields of widgets that the form's list of fields leaves out.
    std::vector<Obj> unlisted;
    QMetaObject::Connection pageList;
};

namespace {

constexpr int maxDepth = 32;

QString text(pdf_obj *obj)
{
    return QString::fromUtf8(mu::call([&](fz_context *c) { return std::string(pdf_to_text_string(c, obj)); }));
}

QString nameOrText(pdf_obj *obj)
{
    return QString::fromUtf8(mu::call(
        [&](fz_context *c) { return std::string(pdf_is_name(c, obj) ? pdf_to_name(c, obj) : pdf_to_text_string(c, obj)); }));
}

// An entry of a field, or of the nearest field above it that has one.
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

// The script an action runs, when it is a JavaScript action.
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

struct DefaultAppearance {
    QByteArray font = "Helv";
    qreal size = 0;
    QColor color = Qt::black;
};

// Reads "/Helv 0 Tf 0 g" and the like: the last font and fill colour set.
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
    mu::tryGuard([&](fz_context *c) {
        const int n = pdf_array_len(c, array);
        auto at = [&](int i) { return std::clamp<qreal>(pdf_array_get_real(c, array, i), 0, 1); };
        if (n == 1)
            color = QColor::fromRgbF(at(0), at(0), at(0));
        else if (n == 3)
            color = QColor::fromRgbF(at(0), at(1), at(2));
        else if (n == 4)
            color = QColor::fromRgbF((1 - at(0)) * (1 - at(3)), (1 - at(1)) * (1 - at(3)), (1 - at(2)) * (1 - at(3)));
    });
    return color;
}

QRectF rectOf(pdf_obj *widget)
{
    fz_rect r{};
    mu::tryGuard([&](fz_context *c) { r = pdf_dict_get_rect(c, widget, PDF_NAME(Rect)); });
    return QRectF(QPointF(std::min(r.x0, r.x1), std::min(r.y0, r.y1)), QPointF(std::max(r.x0, r.x1), std::max(r.y0, r.y1)));
}

// The name of a widget's on state: a key of its normal (else down)
// appearances other than Off.
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

// Where the lines of a text field's value go.
struct TextLayout {
    qreal size = 12;
    QVector<appearance::Input::PlacedText> lines;
};

qreal alignedX(PdfFormField::Alignment align, qreal width, qreal pad, qreal textWidth)
{
    switch (align) {
    case PdfFormField::Alignment::Center:
        return (width - textWidth) / 2;
    case PdfFormField::Alignment::Right:
        return width - pad - textWidth;
    default:
        return pad;
    }
}

// The size that fits one line of `shown` in a box `width` × `height` (inside
// its padding): as high as the box allows, as narrow as the text needs.
qreal fittedSize(PdfFont font, const QString &shown, qreal width, qreal height)
{
    FontService &fs = FontService::instance();
    font.size = 1;
    const qreal unitHeight = std::max<qreal>(0.5, fs.ascent(font) + fs.descent(font));
    qreal size = height / unitHeight;
    const qreal unitWidth = fs.textWidth(font, shown);
    if (unitWidth > 0)
        size = std::min(size, width / unitWidth);
    return std::clamp<qreal>(size, 2, 72);
}

TextLayout layoutText(PdfFont font, const QString &shown, QSizeF box, qreal border, PdfFormField::Alignment align, bool multiLine,
                      int combCells)
{
    FontService &fs = FontService::instance();
    const qreal w = box.width(), h = box.height();
    const qreal pad = border + FontService::TextInset;
    TextLayout out;
    if (combCells > 0) {
        const QString cells = shown.left(combCells);
        const qreal cell = w / combCells;
        if (font.size <= 0) {
            QString widest; // the size is fitted so the widest character fills a cell
            qreal most = -1;
            PdfFont unit = font;
            unit.size = 1;
            for (QChar ch : cells)
                if (const qreal cw = fs.textWidth(unit, QString(ch)); cw > most)
                    most = cw, widest = QString(ch);
            font.size = std::min<qreal>(12, fittedSize(font, widest, cell - 1, h - 2 * border - 2));
        }
        const qreal baseline = (h - (fs.ascent(font) + fs.descent(font))) / 2 + fs.descent(font);
        for (int i = 0; i < cells.size(); ++i) {
            const QString ch = cells.mid(i, 1);
            out.lines.push_back({QPointF(i * cell + (cell - fs.textWidth(font, ch)) / 2, baseline), ch});
        }
        out.size = font.size;
        return out;
    }
    if (!multiLine) {
        const QString line =
            QString(shown).replace(QLatin1Char('\n'), QLatin1Char(' ')).replace(QLatin1Char('\r'), QLatin1Char(' '));
        // Long values: only what the box can show is measured.
        const QString visible = line.left(2000);
        if (font.size <= 0)
            font.size = fittedSize(font, visible, w - 2 * pad, h - 2 * border - 2);
        const qreal baseline = (h - (fs.ascent(font) + fs.descent(font))) / 2 + fs.descent(font);
        out.lines.push_back({QPointF(alignedX(align, w, pad, fs.textWidth(font, visible)), baseline), visible});
        out.size = font.size;
        return out;
    }
    // Only what the box can show is laid out: the lines that start in it,
    // from no more text than fills them with the narrowest glyphs.
    auto wrapped = [&](const PdfFont &f) {
        const int shownLines = int(std::clamp(std::floor((h - pad) / fs.lineAdvance(f)) + 1, 1.0, 10000.0));
        const qreal perLine = std::clamp((w - 2 * pad) / (f.size * 0.1) + 2, 2.0, 10000.0);
        QStringList lines = fs.wrap(f, shown.left(qsizetype(shownLines * perLine)), w - 2 * pad);
        return lines;
    };
    QStringList lines;
    if (font.size <= 0) {
        for (font.size = 12; font.size > 4; font.size -= 0.5) {
            lines = wrapped(font);
            if (lines.size() * fs.lineAdvance(font) <= h - 2 * pad)
                break;
        }
        if (font.size <= 4)
            font.size = 4;
    }
    lines = wrapped(font);
    const qreal top = h - pad - fs.ascent(font);
    for (int i = 0; i < lines.size(); ++i) {
        const qreal baseline = top - i * fs.lineAdvance(font);
        if (baseline + fs.ascent(font) < 0)
            break;
        out.lines.push_back({QPointF(alignedX(align, w, pad, fs.textWidth(font, lines[i].trimmed())), baseline), lines[i]});
    }
    out.size = font.size;
    return out;
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
        if (type_ == Type::CheckBox || type_ == Type::RadioButton) {
            widget.onState = onStateOf(w.obj.get());
            widget.on = !widget.onState.isEmpty() && stateOf(w.obj.get()) == widget.onState;
        }
        out.push_back(widget);
    }
    return out;
}

namespace {

QByteArray defaultAppearanceOf(DocCore &core, pdf_obj *field)
{
    pdf_obj *da = inherited(field, PDF_NAME(DA));
    if (!da)
        da = mu::call([&](fz_context *c) { return pdf_dict_get(c, acroForm(core), PDF_NAME(DA)); });
    return mu::call([&](fz_context *c) { return std::string(pdf_to_str_buf(c, da)); }).c_str();
}

} // namespace

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
    edit.touch(native_->field.get());
    putName(native_->field.get(), PDF_NAME(V), value);
    for (size_t i = 0; i < native_->widgets.size() && i < states.size(); ++i) {
        pdf_obj *w = native_->widgets[i].obj.get();
        const QString state = states[i] ? onStateOf(w) : QStringLiteral("Off");
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

void PdfFormField::writeLook(PdfFieldEdit::Native &edit, size_t index)
{
    auto form = form_.lock();
    if (!form || index >= native_->widgets.size() || type_ == Type::CheckBox || type_ == Type::RadioButton ||
        type_ == Type::PushButton || type_ == Type::Signature)
        return;
    pdf_obj *widget = native_->widgets[index].obj.get();
    const QRectF rect = rectOf(widget);
    appearance::Input in;
    in.type = QStringLiteral("Widget");
    pdf_obj *mk = mu::call([&](fz_context *c) { return pdf_dict_get(c, widget, PDF_NAME(MK)); });
    // A turned widget (/MK /R, counterclockwise) lays its text out in its own
    // upright box, which the appearance's matrix turns onto the rectangle.
    in.rotation = ((mu::call([&](fz_context *c) { return pdf_dict_get_int(c, mk, PDF_NAME(R)); }) % 360) + 360) % 360 / 90 * 90;
    in.size = in.rotation % 180 ? rect.size().transposed() : rect.size();
    const QSizeF box = in.size;
    in.interiorColor = colorOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(BG)); }));
    in.color = colorOf(mu::call([&](fz_context *c) { return pdf_dict_get(c, mk, PDF_NAME(BC)); }));
    const qreal border = in.color.isValid() ? mu::call([&](fz_context *c) {
        pdf_obj *bs = pdf_dict_get(c, widget, PDF_NAME(BS));
        pdf_obj *width = pdf_dict_get(c, bs, PDF_NAME(W));
        return width ? pdf_to_real(c, width) : 1.0f;
    })
                                            : 0;
    in.borderWidth = border;
    const DefaultAppearance da = readDefaultAppearance(defaultAppearanceOf(*form->core_, native_->field.get()));
    in.fontResource = da.font;
    PdfFont font = this->font();
    const Flags f = flags();
    const QString value = this->value();
    in.fontColor = format().showsRed(value) ? QColor(Qt::red) : da.color;

    if (type_ == Type::ListBox) {
        if (font.size <= 0)
            font.size = 12;
        FontService &fs = FontService::instance();
        const qreal pad = border + FontService::TextInset;
        const qreal advance = fs.lineAdvance(font);
        const std::vector<Option> all = choiceOptions();
        const QStringList chosen = values();
        const int top =
            std::clamp(mu::call([&](fz_context *c) { return pdf_dict_get_int(c, native_->field.get(), PDF_NAME(TI)); }), 0,
                       std::max(0, int(all.size()) - 1));
        for (int row = top; row < int(all.size()); ++row) {
            const qreal rowTop = box.height() - border - (row - top) * advance;
            if (rowTop < 0)
                break;
            if (chosen.contains(all[size_t(row)].exportValue))
                in.markedRows.push_back(QRectF(border, rowTop - advance, box.width() - 2 * border, advance));
            in.placedText.push_back({QPointF(pad, rowTop - fs.ascent(font) - (advance - fs.ascent(font) - fs.descent(font)) / 2),
                                     all[size_t(row)].displayValue});
        }
    } else {
        QString shown = displayValue();
        if (f & Password)
            shown = QString(shown.size(), QLatin1Char('*'));
        const bool comb = type_ == Type::Text && (f & Comb) && !(f & (MultiLine | Password)) && maxLength() > 0;
        const TextLayout layout =
            layoutText(font, shown, box, border, alignment(), type_ == Type::Text && (f & MultiLine), comb ? maxLength() : 0);
        font.size = layout.size;
        in.placedText = layout.lines;
    }
    in.font = font;
    edit.touch(widget);
    pdf_obj *stream = nullptr;
    appearance::write(*form->core_, widget, in, &stream);
    mu::release([&](fz_context *c) { pdf_drop_obj(c, stream); });
    edit.areas.emplace_back(native_->widgets[index].page, rect);
}

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
            std::shared_ptr<PdfFormField> &field = s.byObject[resolved];
            if (!field) {
                auto native = std::make_unique<PdfFormField::Native>();
                native->field = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, resolved); }));
                field.reset(new PdfFormField(self, std::move(native)));
            }
            field->name_ = name;
            field->native_->widgets.clear();
            for (pdf_obj *w : widgets) {
                PdfFormField::Native::WidgetObj widget;
                widget.obj = Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, w); }));
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
    std::unordered_map<pdf_obj *, int> listed; // each widget's place in the page's list
    pdf_obj *annots = mu::call([&](fz_context *c) { return pdf_dict_get(c, page->native_->obj, PDF_NAME(Annots)); });
    const int n = mu::call([&](fz_context *c) { return pdf_array_len(c, annots); });
    for (int i = 0; i < n; ++i)
        listed.emplace(mu::call([&](fz_context *c) { return pdf_resolve_indirect(c, pdf_array_get(c, annots, i)); }), i);
    std::vector<Placed> placed;
    for (const auto &field : fields())
        for (size_t i = 0; i < field->native_->widgets.size(); ++i) {
            const auto &w = field->native_->widgets[i];
            if (w.page.lock() != page)
                continue;
            const auto at = listed.find(w.obj.get());
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
        const auto it = state_->byObject.find(entry);
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
    try {
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
