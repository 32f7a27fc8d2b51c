// The format, keystroke and calculation actions that form authors' tools
// write most often, carried out natively: the action's script text is read
// for the one call it makes (AFNumber_Format(2, 0, 0, 0, "$", true) and its
// kin) and never run. Pure: no document, no MuPDF, so it is tested alone.
#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

// A format or keystroke action as read from its script.
struct PdfFieldFormat {
    enum class Kind {
        None,    // no action
        Number,  // AFNumber_Format / AFNumber_Keystroke
        Percent, // AFPercent_Format / AFPercent_Keystroke
        Date,    // AFDate_FormatEx / AFDate_KeystrokeEx (and AFDate_Format with a style number)
        Special, // AFSpecial_Format / AFSpecial_Keystroke: 0 zip, 1 zip+4, 2 phone, 3 social security number
        Other,   // a script this system does not run
    };
    Kind kind = Kind::None;
    int decimals = 2;
    // 0 "1,234.56", 1 "1234.56", 2 "1.234,56", 3 "1234,56", 4 "1'234.56"
    int separatorStyle = 0;
    // 0 "-1,234.56", 1 red "1,234.56", 2 "(1,234.56)", 3 red "(1,234.56)"
    int negativeStyle = 0;
    QString currency;
    bool currencyPrepend = true;
    QString dateFormat; // "mm/dd/yyyy" and the like
    int special = 0;

    // Reads a format (/AA /F) or keystroke (/AA /K) script. An empty script
    // is None; one whose call is not among those above, or that does more
    // than that call, is Other.
    static PdfFieldFormat parse(const QString &script);

    // What a field whose value is `value` shows. Values that are not what
    // the format expects (not a number, not a date) are shown as they are.
    QString display(const QString &value) const;
    // Whether a number is shown in red (negative styles 1 and 3).
    bool showsRed(const QString &value) const;
    // Whether a value may be committed to the field: a number for Number and
    // Percent, a date the format (or a common date form) reads for Date, the
    // right count of digits for Special. Empty values are always accepted;
    // None and Other accept anything.
    bool accepts(const QString &value) const;
};

// A calculation action (/AA /C) as read from its script.
struct PdfFieldCalculation {
    enum class Kind { None, Sum, Average, Product, Minimum, Maximum, Other };
    Kind kind = Kind::None;
    // The fields it reads, by full name; a name of a field that has fields
    // below it stands for all of them.
    QStringList fields;

    // Reads AFSimple_Calculate("SUM", new Array("a", "b")) or
    // AFSimple_Calculate("SUM", "a, b"); other scripts are Other.
    static PdfFieldCalculation parse(const QString &script);
    // The result over the values of the fields read (empty values count as
    // 0), or none for None and Other.
    std::optional<double> calculate(const std::vector<QString> &values) const;
};

namespace pdffieldformat {
// A number as a field value holds it: "1234.5", "-3", "0.1".
QString numberText(double value);
// A value read as a number the way the scripts read it: white space, a
// currency sign and grouping are ignored; "," is the decimal mark when the
// value has no "." (or when `commaDecimal`). None when it is no number.
std::optional<double> readNumber(const QString &value, bool commaDecimal = false);
} // namespace pdffieldformat
