#include "PdfFieldFormat.h"

#include <QDate>
#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>
#include <QTime>

#include <algorithm>
#include <cmath>

namespace {

// One call, "Name(arguments);", and nothing else.
struct Call {
    QString name;
    QStringList arguments; // as written, white space trimmed
};

std::optional<Call> readCall(const QString &script)
{
    static const QRegularExpression pattern(QStringLiteral("^\\s*(\\w+)\\s*\\((.*)\\)\\s*;?\\s*$"),
                                            QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = pattern.match(script);
    if (!match.hasMatch())
        return std::nullopt;
    Call call{match.captured(1), {}};
    const QString args = match.captured(2);
    // Commas split arguments only outside strings and brackets.
    int depth = 0;
    QChar quote;
    QString current;
    for (int i = 0; i < args.size(); ++i) {
        const QChar ch = args[i];
        if (!quote.isNull()) {
            if (ch == QLatin1Char('\\') && i + 1 < args.size()) {
                current += ch;
                current += args[++i];
                continue;
            }
            if (ch == quote)
                quote = QChar();
        } else if (ch == QLatin1Char('"') || ch == QLatin1Char('\'')) {
            quote = ch;
        } else if (ch == QLatin1Char('(') || ch == QLatin1Char('[')) {
            ++depth;
        } else if (ch == QLatin1Char(')') || ch == QLatin1Char(']')) {
            if (--depth < 0)
                return std::nullopt; // "a(1); b(2)" is two calls
        } else if (ch == QLatin1Char(',') && depth == 0) {
            call.arguments << current.trimmed();
            current.clear();
            continue;
        } else if (ch == QLatin1Char(';') && depth == 0) {
            return std::nullopt;
        }
        current += ch;
    }
    if (!quote.isNull() || depth != 0)
        return std::nullopt;
    if (!current.trimmed().isEmpty() || !call.arguments.isEmpty())
        call.arguments << current.trimmed();
    return call;
}

// A string literal's text, or none when `arg` is not one.
std::optional<QString> stringArgument(const QString &arg)
{
    if (arg.size() < 2 || (arg[0] != QLatin1Char('"') && arg[0] != QLatin1Char('\'')) || arg.back() != arg[0])
        return std::nullopt;
    QString out;
    for (int i = 1; i + 1 < arg.size(); ++i) {
        QChar ch = arg[i];
        if (ch == QLatin1Char('\\') && i + 2 < arg.size()) {
            ch = arg[++i];
            if (ch == QLatin1Char('u') && i + 4 < arg.size()) {
                bool ok = false;
                const int code = arg.mid(i + 1, 4).toInt(&ok, 16);
                if (ok) {
                    out += QChar(code);
                    i += 4;
                    continue;
                }
            }
        }
        out += ch;
    }
    return out;
}

std::optional<int> intArgument(const QStringList &args, int index, int fallback)
{
    if (index >= args.size())
        return fallback;
    bool ok = false;
    const int value = args[index].toInt(&ok);
    return ok ? std::optional<int>(value) : std::nullopt;
}

bool boolArgument(const QStringList &args, int index, bool fallback)
{
    if (index >= args.size())
        return fallback;
    const QString a = args[index];
    return a == QLatin1String("true") || (a != QLatin1String("false") && a.toInt() != 0);
}

// The groups of digits of `value`, with the grouping and decimal marks of `style`.
QString groupedNumber(double value, int decimals, int style)
{
    const QString fixed = QString::number(std::abs(value), 'f', std::clamp(decimals, 0, 10));
    const int point = fixed.indexOf(QLatin1Char('.'));
    const QString whole = point < 0 ? fixed : fixed.left(point);
    const QString fraction = point < 0 ? QString() : fixed.mid(point + 1);
    const QString group = style == 0   ? QStringLiteral(",")
                          : style == 2 ? QStringLiteral(".")
                          : style == 4 ? QStringLiteral("'")
                                       : QString();
    const QString mark = style == 2 || style == 3 ? QStringLiteral(",") : QStringLiteral(".");
    QString out;
    for (int i = 0; i < whole.size(); ++i) {
        if (i > 0 && (whole.size() - i) % 3 == 0)
            out += group;
        out += whole[i];
    }
    return fraction.isEmpty() ? out : out + mark + fraction;
}

const char *const monthNames[] = {"January", "February", "March",     "April",   "May",      "June",
                                  "July",    "August",   "September", "October", "November", "December"};
const char *const dayNames[] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};

// The tokens of a date format: runs of one letter among d m y H h M s t, or literal text.
QStringList dateTokens(const QString &format)
{
    QStringList tokens;
    for (int i = 0; i < format.size();) {
        const QChar ch = format[i];
        int j = i + 1;
        if (QStringLiteral("dmyHhMst").contains(ch))
            while (j < format.size() && format[j] == ch)
                ++j;
        else
            while (j < format.size() && !QStringLiteral("dmyHhMst").contains(format[j]))
                ++j;
        tokens << format.mid(i, j - i);
        i = j;
    }
    return tokens;
}

// Reads `value` by the fields of `format` in their order: numbers, or month
// names by their first three letters; what lies between them does not matter.
std::optional<QDateTime> readDate(const QString &value, const QString &format)
{
    static const QRegularExpression chunk(QStringLiteral("\\d+|[A-Za-z]+"));
    QStringList parts;
    for (auto it = chunk.globalMatch(value); it.hasNext();)
        parts << it.next().captured();
    int day = 1, month = 1, year = -1, hour = 0, minute = 0, second = 0;
    bool pm = false, hasDay = false, hasMonth = false;
    int next = 0;
    for (const QString &token : dateTokens(format)) {
        const QChar kind = token[0];
        if (!QStringLiteral("dmyHhMst").contains(kind))
            continue;
        if (kind == QLatin1Char('d') && token.size() >= 3) { // a weekday name: skip a word when there is one
            if (next < parts.size() && !parts[next][0].isDigit())
                ++next;
            continue;
        }
        if (next >= parts.size())
            break;
        const QString part = parts[next++];
        bool isNumber = false;
        const int n = part.toInt(&isNumber);
        if (kind == QLatin1Char('m')) {
            if (!isNumber) {
                for (int m = 0; m < 12; ++m)
                    if (part.size() >= 3 && QString::fromLatin1(monthNames[m]).startsWith(part, Qt::CaseInsensitive))
                        month = m + 1, hasMonth = true;
                if (!hasMonth)
                    return std::nullopt;
                continue;
            }
            month = n, hasMonth = true;
        } else if (kind == QLatin1Char('t')) {
            pm = part.startsWith(QLatin1Char('p'), Qt::CaseInsensitive);
            continue;
        } else if (!isNumber) {
            return std::nullopt;
        } else if (kind == QLatin1Char('d')) {
            day = n, hasDay = true;
        } else if (kind == QLatin1Char('y')) {
            year = part.size() <= 2 ? (n < 50 ? 2000 + n : 1900 + n) : n;
        } else if (kind == QLatin1Char('H') || kind == QLatin1Char('h')) {
            hour = n;
        } else if (kind == QLatin1Char('M')) {
            minute = n;
        } else if (kind == QLatin1Char('s')) {
            second = n;
        }
    }
    // Only an "am" or "pm" may be left over.
    if (next < parts.size()) {
        const QString rest = parts.back().toLower();
        if (next + 1 != parts.size() || (rest != QLatin1String("am") && rest != QLatin1String("pm")))
            return std::nullopt;
        pm = rest == QLatin1String("pm");
    }
    if (pm && hour < 12)
        hour += 12;
    const bool dated =
        format.contains(QLatin1Char('y')) || format.contains(QLatin1Char('m')) || format.contains(QLatin1Char('d'));
    if (dated && (year < 0 || (format.contains(QLatin1Char('m')) && !hasMonth) || (format.contains(QLatin1Char('d')) && !hasDay)))
        return std::nullopt;
    const QDate date = dated ? QDate(year, month, day) : QDate(2000, 1, 1);
    const QTime time(hour, minute, second);
    if (!date.isValid() || !time.isValid())
        return std::nullopt;
    return QDateTime(date, time);
}

std::optional<QDateTime> readAnyDate(const QString &value, const QString &format)
{
    for (const QString &f : {format, QStringLiteral("yyyy-mm-dd HH:MM:ss"), QStringLiteral("yyyy-mm-dd")})
        if (auto d = readDate(value, f))
            return d;
    return std::nullopt;
}

QString writeDate(const QDateTime &when, const QString &format)
{
    const QDate date = when.date();
    const QTime time = when.time();
    auto two = [](int n) { return QString::number(n).rightJustified(2, QLatin1Char('0')); };
    QString out;
    for (const QString &t : dateTokens(format)) {
        const int hour12 = time.hour() % 12 == 0 ? 12 : time.hour() % 12;
        if (t == QLatin1String("d"))
            out += QString::number(date.day());
        else if (t == QLatin1String("dd"))
            out += two(date.day());
        else if (t == QLatin1String("ddd"))
            out += QString::fromLatin1(dayNames[date.dayOfWeek() - 1]).left(3);
        else if (t.startsWith(QLatin1String("dddd")))
            out += QString::fromLatin1(dayNames[date.dayOfWeek() - 1]);
        else if (t == QLatin1String("m"))
            out += QString::number(date.month());
        else if (t == QLatin1String("mm"))
            out += two(date.month());
        else if (t == QLatin1String("mmm"))
            out += QString::fromLatin1(monthNames[date.month() - 1]).left(3);
        else if (t.startsWith(QLatin1String("mmmm")))
            out += QString::fromLatin1(monthNames[date.month() - 1]);
        else if (t == QLatin1String("yy"))
            out += two(date.year() % 100);
        else if (t.startsWith(QLatin1String("yyy")))
            out += QString::number(date.year());
        else if (t == QLatin1String("H"))
            out += QString::number(time.hour());
        else if (t == QLatin1String("HH"))
            out += two(time.hour());
        else if (t == QLatin1String("h"))
            out += QString::number(hour12);
        else if (t == QLatin1String("hh"))
            out += two(hour12);
        else if (t == QLatin1String("M"))
            out += QString::number(time.minute());
        else if (t == QLatin1String("MM"))
            out += two(time.minute());
        else if (t == QLatin1String("s"))
            out += QString::number(time.second());
        else if (t == QLatin1String("ss"))
            out += two(time.second());
        else if (t == QLatin1String("t"))
            out += time.hour() < 12 ? QStringLiteral("a") : QStringLiteral("p");
        else if (t == QLatin1String("tt"))
            out += time.hour() < 12 ? QStringLiteral("am") : QStringLiteral("pm");
        else
            out += t;
    }
    return out;
}

// The formats AFDate_Format's style numbers stand for.
QString dateStyle(int style)
{
    static const char *const styles[] = {"m/d",         "m/d/yy",       "mm/dd/yy",       "mm/yy",       "d-mmm",
                                         "d-mmm-yy",    "dd-mmm-yy",    "yy-mm-dd",       "mmm-yy",      "mmmm-yy",
                                         "mmm d, yyyy", "mmmm d, yyyy", "m/d/yy h:MM tt", "m/d/yy HH:MM"};
    return QString::fromLatin1(styles[std::clamp(style, 0, 13)]);
}

QString digitsOf(const QString &value)
{
    QString digits;
    for (QChar ch : value)
        if (ch.isDigit())
            digits += ch;
    return digits;
}

// The digit masks of the special formats, by the count of digits they take.
QString specialMask(int special, qsizetype digits)
{
    switch (special) {
    case 0:
        return digits == 5 ? QStringLiteral("99999") : QString();
    case 1:
        return digits == 9 ? QStringLiteral("99999-9999") : QString();
    case 2:
        return digits == 10 ? QStringLiteral("(999) 999-9999") : digits == 7 ? QStringLiteral("999-9999") : QString();
    case 3:
        return digits == 9 ? QStringLiteral("999-99-9999") : QString();
    default:
        return QString();
    }
}

} // namespace

namespace pdffieldformat {

QString numberText(double value)
{
    if (!std::isfinite(value))
        return QString();
    if (value == 0)
        return QStringLiteral("0");
    return QString::number(value, 'g', 15);
}

std::optional<double> readNumber(const QString &value, bool commaDecimal)
{
    QString kept;
    bool negative = false;
    for (QChar ch : value.trimmed()) {
        if (ch.isLetter() && ch != QLatin1Char('e') && ch != QLatin1Char('E'))
            continue; // a currency name or sign around the number
        if (ch == QLatin1Char('(') || ch == QLatin1Char('-'))
            negative = true;
        if (ch.isDigit() || ch == QLatin1Char('.') || ch == QLatin1Char(',') || ch == QLatin1Char('e') || ch == QLatin1Char('E'))
            kept += ch;
    }
    if (digitsOf(kept).isEmpty())
        return std::nullopt;
    const bool comma = commaDecimal || (!kept.contains(QLatin1Char('.')) && kept.count(QLatin1Char(',')) == 1 &&
                                        kept.size() - kept.indexOf(QLatin1Char(',')) - 1 != 3);
    if (comma) {
        kept.remove(QLatin1Char('.'));
        kept.replace(QLatin1Char(','), QLatin1Char('.'));
    } else {
        kept.remove(QLatin1Char(','));
    }
    bool ok = false;
    const double number = QLocale::c().toDouble(kept, &ok);
    if (!ok)
        return std::nullopt;
    return negative ? -number : number;
}

} // namespace pdffieldformat

PdfFieldFormat PdfFieldFormat::parse(const QString &script)
{
    PdfFieldFormat out;
    if (script.trimmed().isEmpty())
        return out;
    out.kind = Kind::Other;
    const std::optional<Call> call = readCall(script);
    if (!call)
        return out;
    const QString &name = call->name;
    const QStringList &a = call->arguments;
    if (name == QLatin1String("AFNumber_Format") || name == QLatin1String("AFNumber_Keystroke")) {
        const auto dec = intArgument(a, 0, 2), sep = intArgument(a, 1, 0), neg = intArgument(a, 2, 0);
        const auto currency = a.size() > 4 ? stringArgument(a[4]) : std::optional<QString>(QString());
        if (!dec || !sep || !neg || !currency)
            return out;
        out.kind = Kind::Number;
        out.decimals = std::clamp(*dec, 0, 10);
        out.separatorStyle = std::clamp(*sep, 0, 4);
        out.negativeStyle = std::clamp(*neg, 0, 3);
        out.currency = *currency;
        out.currencyPrepend = boolArgument(a, 5, true);
    } else if (name == QLatin1String("AFPercent_Format") || name == QLatin1String("AFPercent_Keystroke")) {
        const auto dec = intArgument(a, 0, 2), sep = intArgument(a, 1, 0);
        if (!dec || !sep)
            return out;
        out.kind = Kind::Percent;
        out.decimals = std::clamp(*dec, 0, 10);
        out.separatorStyle = std::clamp(*sep, 0, 4);
    } else if (name == QLatin1String("AFDate_FormatEx") || name == QLatin1String("AFDate_KeystrokeEx")) {
        const auto format = a.isEmpty() ? std::nullopt : stringArgument(a[0]);
        if (!format || format->isEmpty())
            return out;
        out.kind = Kind::Date;
        out.dateFormat = *format;
    } else if (name == QLatin1String("AFDate_Format") || name == QLatin1String("AFDate_Keystroke")) {
        const auto style = intArgument(a, 0, 0);
        if (!style)
            return out;
        out.kind = Kind::Date;
        out.dateFormat = dateStyle(*style);
    } else if (name == QLatin1String("AFSpecial_Format") || name == QLatin1String("AFSpecial_Keystroke")) {
        const auto special = intArgument(a, 0, 0);
        if (!special || *special < 0 || *special > 3)
            return out;
        out.kind = Kind::Special;
        out.special = *special;
    }
    return out;
}

QString PdfFieldFormat::display(const QString &value) const
{
    if (value.isEmpty())
        return value;
    switch (kind) {
    case Kind::Number: {
        const auto number = pdffieldformat::readNumber(value, separatorStyle == 2 || separatorStyle == 3);
        if (!number)
            return value;
        const double rounded = std::round(*number * std::pow(10.0, decimals)) / std::pow(10.0, decimals);
        QString text = groupedNumber(rounded, decimals, separatorStyle);
        if (!currency.isEmpty())
            text = currencyPrepend ? currency + text : text + currency;
        if (rounded < 0)
            text = negativeStyle >= 2   ? QLatin1Char('(') + text + QLatin1Char(')')
                   : negativeStyle == 0 ? QLatin1Char('-') + text
                                        : text;
        return text;
    }
    case Kind::Percent: {
        const auto number = pdffieldformat::readNumber(value, separatorStyle == 2 || separatorStyle == 3);
        if (!number)
            return value;
        const double percent = std::round(*number * 100 * std::pow(10.0, decimals)) / std::pow(10.0, decimals);
        return (percent < 0 ? QStringLiteral("-") : QString()) + groupedNumber(percent, decimals, separatorStyle) +
               QLatin1Char('%');
    }
    case Kind::Date: {
        const auto when = readAnyDate(value, dateFormat);
        return when ? writeDate(*when, dateFormat) : value;
    }
    case Kind::Special: {
        const QString digits = digitsOf(value);
        const QString mask = specialMask(special, digits.size());
        if (mask.isEmpty())
            return value;
        QString out;
        int next = 0;
        for (QChar ch : mask)
            out += ch == QLatin1Char('9') ? digits[next++] : ch;
        return out;
    }
    default:
        return value;
    }
}

bool PdfFieldFormat::showsRed(const QString &value) const
{
    if (kind != Kind::Number || (negativeStyle != 1 && negativeStyle != 3))
        return false;
    const auto number = pdffieldformat::readNumber(value, separatorStyle == 2 || separatorStyle == 3);
    return number && *number < 0;
}

bool PdfFieldFormat::accepts(const QString &value) const
{
    if (value.trimmed().isEmpty())
        return true;
    switch (kind) {
    case Kind::Number:
    case Kind::Percent: {
        static const QRegularExpression number(QStringLiteral("^\\s*[-+]?(\\d[\\d,.' ]*)?([.,]\\d*)?\\s*$"));
        return number.match(value).hasMatch() && !digitsOf(value).isEmpty();
    }
    case Kind::Date:
        return readAnyDate(value, dateFormat).has_value();
    case Kind::Special: {
        for (QChar ch : value)
            if (!ch.isDigit() && !QStringLiteral(" -().").contains(ch))
                return false;
        return !specialMask(special, digitsOf(value).size()).isEmpty();
    }
    default:
        return true;
    }
}

PdfFieldCalculation PdfFieldCalculation::parse(const QString &script)
{
    PdfFieldCalculation out;
    if (script.trimmed().isEmpty())
        return out;
    out.kind = Kind::Other;
    const std::optional<Call> call = readCall(script);
    if (!call || call->name != QLatin1String("AFSimple_Calculate") || call->arguments.size() != 2)
        return out;
    const auto op = stringArgument(call->arguments[0]);
    if (!op)
        return out;
    QString list = call->arguments[1];
    QStringList names;
    static const QRegularExpression array(QStringLiteral("^new\\s+Array\\s*\\((.*)\\)$"),
                                          QRegularExpression::DotMatchesEverythingOption);
    if (const auto m = array.match(list); m.hasMatch()) {
        const auto inner = readCall(QStringLiteral("f(") + m.captured(1) + QLatin1Char(')'));
        if (!inner)
            return out;
        for (const QString &arg : inner->arguments) {
            const auto name = stringArgument(arg);
            if (!name)
                return out;
            names << *name;
        }
    } else if (const auto text = stringArgument(list)) {
        for (const QString &name : text->split(QLatin1Char(','), Qt::SkipEmptyParts))
            names << name.trimmed();
    } else {
        return out;
    }
    const QString o = op->toUpper();
    const Kind kind = o == QLatin1String("SUM")   ? Kind::Sum
                      : o == QLatin1String("AVG") ? Kind::Average
                      : o == QLatin1String("PRD") ? Kind::Product
                      : o == QLatin1String("MIN") ? Kind::Minimum
                      : o == QLatin1String("MAX") ? Kind::Maximum
                                                  : Kind::Other;
    if (kind == Kind::Other)
        return out;
    out.kind = kind;
    names.removeAll(QString());
    out.fields = names;
    return out;
}

std::optional<double> PdfFieldCalculation::calculate(const std::vector<QString> &values) const
{
    if (kind == Kind::None || kind == Kind::Other)
        return std::nullopt;
    if (values.empty())
        return 0.0;
    double result = kind == Kind::Product ? 1 : 0;
    bool first = true;
    for (const QString &text : values) {
        const double v = pdffieldformat::readNumber(text).value_or(0);
        switch (kind) {
        case Kind::Sum:
        case Kind::Average:
            result += v;
            break;
        case Kind::Product:
            result *= v;
            break;
        case Kind::Minimum:
            result = first ? v : std::min(result, v);
            break;
        case Kind::Maximum:
            result = first ? v : std::max(result, v);
            break;
        default:
            break;
        }
        first = false;
    }
    if (kind == Kind::Average)
        result /= double(values.size());
    return result;
}
