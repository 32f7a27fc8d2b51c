// Internal to the engine: the MuPDF objects behind the form classes and the
// small readers and writers of field dictionaries they share.
#pragma once

#include "Native.h"
#include "PdfFormField.h"

#include <QByteArray>
#include <QMetaObject>

#include <unordered_map>
#include <unordered_set>

namespace formnative {
// The object number of `obj` when it is an object of the file's own (not
// one inside another), else 0.
int numberOf(pdf_document *doc, pdf_obj *obj);
} // namespace formnative

struct PdfFormField::Native {
    mu::Obj field;    // the terminal field's dictionary
    int fieldNum = 0; // its object number, 0 when it is not an object of its own
    struct WidgetObj {
        mu::Obj obj;
        int num = 0;
        std::weak_ptr<PdfPage> page;
    };
    std::vector<WidgetObj> widgets;
};

// The dictionaries a change touched, as they were before it and after it.
struct PdfFieldEdit::Native {
    pdf_document *doc = nullptr;
    struct Entry {
        mu::Obj live;
        int num = 0; // its object number, when it is an object of its own
        mu::Obj before;
        mu::Obj after;
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
        entry.live = mu::Obj(mu::call([&](fz_context *c) { return pdf_keep_obj(c, resolved); }));
        entry.num = formnative::numberOf(doc, resolved);
        entry.before = mu::Obj(mu::call([&](fz_context *c) { return pdf_deep_copy_obj(c, resolved); }));
        touched.insert(resolved);
        entries.push_back(std::move(entry));
    }
    void finish()
    {
        for (Entry &e : entries)
            e.after = mu::Obj(mu::call([&](fz_context *c) { return pdf_deep_copy_obj(c, e.live.get()); }));
    }
    // Makes each dictionary what it was before (or after) the change.
    void put(bool after)
    {
        mu::guard([&](fz_context *c) {
            for (const Entry &e : entries) {
                pdf_obj *from = after ? e.after.get() : e.before.get();
                if (!from)
                    continue;
                // The file's own object of that number, should MuPDF have replaced it since.
                pdf_obj *live = e.num > 0 ? pdf_load_object(c, doc, e.num) : pdf_keep_obj(c, e.live.get());
                for (int n = pdf_dict_len(c, live); n > 0; n = pdf_dict_len(c, live))
                    pdf_dict_del(c, live, pdf_dict_get_key(c, live, n - 1));
                for (int i = 0; i < pdf_dict_len(c, from); ++i)
                    pdf_dict_put_drop(c, live, pdf_dict_get_key(c, from, i), pdf_deep_copy_obj(c, pdf_dict_get_val(c, from, i)));
                pdf_drop_obj(c, live);
            }
        });
    }
};

struct PdfForm::State {
    bool stale = true;
    std::vector<std::shared_ptr<PdfFormField>> fields;
    // By the field dictionary (resolved), so a field keeps its object across readings.
    // By the field's object number (its dictionary's address when it has none).
    std::unordered_map<std::uintptr_t, std::shared_ptr<PdfFormField>> byObject;
    // Topmost fields of widgets that the form's list of fields leaves out.
    std::vector<mu::Obj> unlisted;
    QMetaObject::Connection pageList;
};

namespace formnative {

constexpr int maxDepth = 32;

QString text(pdf_obj *obj);
QString nameOrText(pdf_obj *obj);
// An entry of a field, or of the nearest field above it that has one.
pdf_obj *inherited(pdf_obj *field, pdf_obj *key);
pdf_obj *acroForm(DocCore &core);
// The script an action runs, when it is a JavaScript action.
QString actionScript(pdf_obj *action);

struct DefaultAppearance {
    QByteArray font = "Helv";
    qreal size = 0;
    QColor color = Qt::black;
};
// Reads "/Helv 0 Tf 0 g" and the like: the last font and fill colour set.
DefaultAppearance readDefaultAppearance(const QByteArray &da);
// The field's /DA, else the form's.
QByteArray defaultAppearanceOf(DocCore &core, pdf_obj *field);

QColor colorOf(pdf_obj *array);
QRectF rectOf(pdf_obj *widget);
// The name of a widget's on state: a key of its normal (else down)
// appearances other than Off.
QString onStateOf(pdf_obj *widget);
QString stateOf(pdf_obj *widget);
void putName(pdf_obj *dict, pdf_obj *key, const QString &name);
// Whether a widget has appearances of its own.
bool hasLook(pdf_obj *widget);
void putText(pdf_obj *dict, pdf_obj *key, const QString &value);

} // namespace formnative
