// A document's form: its fields, their values, and what filling them in
// changes. One PdfForm per document (PdfDocument::form()); one PdfFormField
// per terminal field (the field that holds a value and has the widgets the
// page shows), kept for the document's life, so editors compare fields by
// identity like annotations.
//
// Setting a value writes the field's /V, each widget's /AS, and each
// widget's appearance (/AP /N) with the font service's faces, embedded as
// subsets, so every reader shows the value in any script; it runs the
// form's calculations, announces the pages whose look changed on the
// document's change channel, and returns a PdfFieldEdit that undoes and
// redoes all of it as one step. Format, keystroke and calculation scripts
// are never run: the common ones are carried out natively (PdfFieldFormat.h).
#pragma once

#include "PdfFieldFormat.h"
#include "PdfTypes.h"

#include <QColor>
#include <QFlags>
#include <QRectF>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

struct DocCore;
class PdfDocument;
class PdfFieldEdit;
class PdfForm;
class PdfPage;

// A change of one or more fields (a value, the calculations it set off, a
// reset): undo() puts back every dictionary it touched exactly as it was,
// redo() as the change left them. Each announces the pages whose look changed.
// Edits are undone in the reverse order they were made (a history), as each
// puts back whole dictionaries.
class PdfFieldEdit {
public:
    ~PdfFieldEdit();
    PdfFieldEdit(const PdfFieldEdit &) = delete;
    PdfFieldEdit &operator=(const PdfFieldEdit &) = delete;
    void undo();
    void redo();

private:
    friend class PdfForm;
    friend class PdfFormField;
    struct Native;
    PdfFieldEdit(std::weak_ptr<PdfForm> form, std::unique_ptr<Native> native);
    void put(bool after);

    std::weak_ptr<PdfForm> form_;
    std::unique_ptr<Native> native_;
};

class PdfFormField : public std::enable_shared_from_this<PdfFormField> {
public:
    enum class Type { Text, CheckBox, RadioButton, ComboBox, ListBox, PushButton, Signature };
    enum Flag {
        ReadOnly = 1 << 0,
        Required = 1 << 1,
        NoExport = 1 << 2,
        MultiLine = 1 << 12,       // text
        NoToggleToOff = 1 << 14,   // radio buttons: one of them is always on
        Password = 1 << 13,        // text
        Radio = 1 << 15,           // (how the file tells radio buttons from check boxes)
        PushButtonFlag = 1 << 16,  // (how the file tells push buttons)
        Combo = 1 << 17,           // choice: a combo box, else a list box
        Edit = 1 << 18,            // combo box: takes typed text too
        Sort = 1 << 19,            // choice
        FileSelect = 1 << 20,      // text
        MultiSelect = 1 << 21,     // list box
        DoNotSpellCheck = 1 << 22, // text, combo box
        DoNotScroll = 1 << 23,     // text
        Comb = 1 << 24,            // text: one character per cell, maxLength() cells
        RadiosInUnison = 1 << 25,  // radio buttons with one on-state turn on and off together
        CommitOnSelChange = 1 << 26,
    };
    Q_DECLARE_FLAGS(Flags, Flag)

    // One choice of a combo or list box: the value written to /V and the
    // text shown (the same when the file gives one only).
    struct Option {
        QString exportValue;
        QString displayValue;
    };

    // One place on a page where the field shows.
    struct Widget {
        std::shared_ptr<PdfPage> page; // none when the widget is on no page of the document
        QRectF bounds;                 // page space
        // Check boxes and radio buttons: the name of the widget's on state,
        // read from its appearance (/AP /N), empty when it has none; and
        // whether it is on now (/AS).
        QString onState;
        bool on = false;
    };

    enum class Alignment { Left, Center, Right };

    ~PdfFormField();
    PdfFormField(const PdfFormField &) = delete;
    PdfFormField &operator=(const PdfFormField &) = delete;

    // The full name, "parent.child".
    QString name() const { return name_; }
    // The short description for users (/TU), else empty.
    QString toolTip() const;
    Type type() const { return type_; }
    Flags flags() const;
    bool isReadOnly() const { return flags() & ReadOnly; }
    bool isRequired() const { return flags() & Required; }
    // Whether the user may change the value here: not read-only, not a push
    // button or signature field.
    bool isEditable() const;
    // Text: the most characters the value holds (/MaxLen), 0 for no limit.
    int maxLength() const;
    // Text: whether the field is laid out as a comb (it needs a maximum length).
    bool isComb() const { return (flags() & Comb) && maxLength() > 0; }

    // The value (/V): text, the chosen option's export value, the on state
    // of a check box or radio group ("Off" when none is on). Empty when unset.
    QString value() const;
    // All chosen values (several for a multi-select list box).
    QStringList values() const;
    // What the field shows for its value: formatted by its format action
    // when this system carries that out (value() keeps what was typed).
    QString displayValue() const;
    QString defaultValue() const;
    QStringList options() const; // export values, for convenience
    std::vector<Option> choiceOptions() const;

    std::vector<Widget> widgets() const;

    // The default appearance: font (size 0 means "fit the box") and colour.
    PdfFont font() const;
    QColor textColor() const;
    Alignment alignment() const;

    // The scripts of the field's actions, as written: format (/AA /F),
    // keystroke (/AA /K), calculation (/AA /C), validation (/AA /V).
    QString formatScript() const;
    QString keystrokeScript() const;
    QString calculateScript() const;
    QString validateScript() const;
    PdfFieldFormat format() const { return PdfFieldFormat::parse(formatScript()); }
    PdfFieldCalculation calculation() const { return PdfFieldCalculation::parse(calculateScript()); }

    // Whether `value` may be committed: the field is editable, the value fits
    // the maximum length, the keystroke action accepts it, and, for choices
    // that are not editable, it is one of the options.
    bool accepts(const QString &value) const;

    // Sets the value: text fields and combo boxes take text, list boxes an
    // option's export value, check boxes and radio groups an on-state name
    // (or "Off"). Null, and nothing changed, when the value is refused
    // (see accepts) or is already the value.
    std::shared_ptr<PdfFieldEdit> setValue(const QString &value);
    // Multi-select list boxes: several export values.
    std::shared_ptr<PdfFieldEdit> setValues(const QStringList &values);
    // Check boxes and radio buttons: turns widget `widget` on or off. A
    // radio group stays exclusive (radios in unison turn on together); an
    // on radio button of a no-toggle-to-off group stays on (null); a widget
    // without an on state cannot be turned on (null).
    std::shared_ptr<PdfFieldEdit> setChecked(int widget, bool on);

    // The document's form, while the document lives.
    std::shared_ptr<PdfForm> form() const { return form_.lock(); }

private:
    friend class PdfForm;
    struct Native;
    PdfFormField(std::weak_ptr<PdfForm> form, std::unique_ptr<Native> native);
    // The parts of a change, recorded in `edit`: the value (and each
    // widget's look), the widgets' on/off states, one widget's look.
    void writeValue(PdfFieldEdit::Native &edit, const QStringList &values);
    void writeStates(PdfFieldEdit::Native &edit, const std::vector<bool> &states, const QString &value);
    void writeLook(PdfFieldEdit::Native &edit, size_t widget);
    // Check boxes and radio buttons without looks: their looks written.
    void writeButtonLooks(PdfFieldEdit::Native &edit);
    void writeButtonLook(PdfFieldEdit::Native &edit, size_t widget, const QString &onState);
    // Check boxes and radio buttons: each widget's on-state name.
    std::vector<QString> onStates() const;

    std::weak_ptr<PdfForm> form_;
    std::unique_ptr<Native> native_;
    QString name_;
    Type type_ = Type::Text;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(PdfFormField::Flags)

class PdfForm : public std::enable_shared_from_this<PdfForm> {
public:
    ~PdfForm();
    PdfForm(const PdfForm &) = delete;
    PdfForm &operator=(const PdfForm &) = delete;

    // The terminal fields, in the order of the form's field tree. Read anew
    // when the fields changed (pages copied in); a field keeps its object.
    std::vector<std::shared_ptr<PdfFormField>> fields();
    // The field of that full name, or none.
    std::shared_ptr<PdfFormField> field(const QString &name);

    // A widget of a field, as editors move from one to the next.
    struct Stop {
        std::shared_ptr<PdfFormField> field;
        int widget = 0;
    };
    // The order Tab moves through the widgets of `page`: by rows (/Tabs /R),
    // by columns (/Tabs /C), else the order the page lists them in.
    std::vector<Stop> tabOrder(const std::shared_ptr<PdfPage> &page);

    // The fields whose calculation runs, in calculation order (/CO, then the
    // other fields with a calculation).
    std::vector<std::shared_ptr<PdfFormField>> calculationOrder();
    // Whether the form has scripts this system does not carry out (format,
    // keystroke, calculation or validation scripts it cannot read, other
    // field actions, document scripts), so the user can be told once.
    bool hasScriptsNotRun();

    // Sets every field to its default value (/DV, else empty or off), as one step.
    std::shared_ptr<PdfFieldEdit> reset();

private:
    friend class PdfDocument;
    friend class PdfFormField;
    friend class PdfFieldEdit;
    struct State;
    PdfForm(std::shared_ptr<DocCore> core, std::weak_ptr<PdfDocument> document);
    void read();
    // Makes a change with `make`, then the calculations it sets off and the
    // looks the form needs; none when nothing changed or it failed (then
    // whatever it had changed is put back).
    std::shared_ptr<PdfFieldEdit> change(const std::function<void(PdfFieldEdit::Native &)> &make);
    void recalculate(PdfFieldEdit::Native &edit);
    void settle(PdfFieldEdit::Native &edit);
    void announce(const PdfFieldEdit::Native &edit);
    // Before a change: the form holds the file's own dictionaries (see PdfForm.cpp).
    void reattach();

    std::shared_ptr<DocCore> core_;
    std::weak_ptr<PdfDocument> document_;
    std::unique_ptr<State> state_;
};
