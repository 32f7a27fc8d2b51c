#include "SystemFonts.h"

#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <array>

#if defined(__SANITIZE_ADDRESS__)
#define VELLORA_LEAK_CHECKER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELLORA_LEAK_CHECKER 1
#endif
#endif
#ifdef VELLORA_LEAK_CHECKER
#include <sanitizer/lsan_interface.h>
#endif

namespace systemfonts {

namespace {

struct Style {
    int weight = 400;
    bool italic = false;
    int width = 100;
};

// The words a style is written with, lower case, run together as in "BoldItalicMT".
struct StyleWord {
    const char *word;
    int weight; // 0: not a weight
    bool italic;
    int width; // 0: not a width
};

constexpr std::array<StyleWord, 32> StyleWords{{
    {"thin", 100, false, 0},       {"hairline", 100, false, 0},
    {"extralight", 200, false, 0}, {"ultralight", 200, false, 0},
    {"light", 300, false, 0},      {"regular", 400, false, 0},
    {"normal", 400, false, 0},     {"book", 400, false, 0},
    {"roman", 400, false, 0},      {"plain", 400, false, 0},
    {"medium", 500, false, 0},     {"semibold", 600, false, 0},
    {"demibold", 600, false, 0},   {"demi", 600, false, 0},
    {"bold", 700, false, 0},       {"extrabold", 800, false, 0},
    {"ultrabold", 800, false, 0},  {"heavy", 900, false, 0},
    {"black", 900, false, 0},      {"italic", 0, true, 0},
    {"oblique", 0, true, 0},       {"it", 0, true, 0},
    {"slanted", 0, true, 0},       {"inclined", 0, true, 0},
    {"condensed", 0, false, 75},   {"semicondensed", 0, false, 87},
    {"narrow", 0, false, 75},      {"expanded", 0, false, 125},
    {"extended", 0, false, 125},   {"semiexpanded", 0, false, 113},
    {"mt", 0, false, 0},           {"ps", 0, false, 0},
}};

// The style a suffix such as "BoldItalicMT" or "Semibold It" names; none when
// any part of it is not a style word.
std::optional<Style> parseStyle(const QString &text)
{
    const QString s = text.toLower().remove(u' ');
    if (s.isEmpty())
        return std::nullopt;
    Style style;
    for (qsizetype i = 0; i < s.size();) {
        const StyleWord *best = nullptr;
        for (const StyleWord &w : StyleWords) {
            const auto length = qsizetype(qstrlen(w.word));
            if ((!best || length > qsizetype(qstrlen(best->word))) && s.mid(i, length) == QLatin1String(w.word))
                best = &w;
        }
        if (!best)
            return std::nullopt;
        if (best->weight)
            style.weight = best->weight;
        style.italic = style.italic || best->italic;
        if (best->width)
            style.width = best->width;
        i += qsizetype(qstrlen(best->word));
    }
    return style;
}

// "TimesNewRoman" → "Times New Roman"; names already spaced stay as they are.
QString spaced(const QString &family)
{
    if (family.contains(u' '))
        return family;
    QString out;
    for (qsizetype i = 0; i < family.size(); ++i) {
        if (i > 0 && family[i].isUpper() && family[i - 1].isLower())
            out += u' ';
        out += family[i];
    }
    return out;
}

// "ArialMT" → "Arial", "TimesNewRomanPSMT" → "TimesNewRoman".
QString withoutVendorSuffix(QString family)
{
    for (const char *suffix : {"MT", "PS"})
        if (family.size() > 3 && family.endsWith(QLatin1String(suffix)) && !family.contains(u' '))
            family.chop(2);
    return family.trimmed();
}

// Family names compare as fontconfig compares them: without case or blanks.
QString folded(const QString &family)
{
    return family.toLower().remove(u' ');
}

QString string(FcPattern *p, const char *object, int n = 0)
{
    FcChar8 *value = nullptr;
    return FcPatternGetString(p, object, n, &value) == FcResultMatch ? QString::fromUtf8(reinterpret_cast<char *>(value))
                                                                     : QString();
}

int integer(FcPattern *p, const char *object, int fallback)
{
    int value = fallback;
    FcPatternGetInteger(p, object, 0, &value);
    return value;
}

struct Family {
    QString name; // folded
    bool strong = false;
};

// The families of a substituted pattern, best first.
std::vector<Family> families(FcPattern *p)
{
    std::vector<Family> out;
    FcPatternIter it;
    FcPatternIterStart(p, &it);
    if (!FcPatternFindIter(p, &it, FC_FAMILY))
        return out;
    for (int i = 0; i < FcPatternIterValueCount(p, &it); ++i) {
        FcValue value;
        FcValueBinding binding = FcValueBindingWeak;
        if (FcPatternIterGetValue(p, &it, i, &value, &binding) == FcResultMatch && value.type == FcTypeString)
            out.push_back({folded(QString::fromUtf8(reinterpret_cast<const char *>(value.u.s))), binding != FcValueBindingWeak});
    }
    return out;
}

// A pattern for a family and style with fontconfig's rules applied; the caller destroys it.
FcPattern *substituted(const Name &name)
{
    FcPattern *pattern = FcPatternCreate();
    if (!pattern)
        return nullptr;
    const QByteArray family = name.family.toUtf8();
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8 *>(family.constData()));
    FcPatternAddInteger(pattern, FC_WEIGHT, FcWeightFromOpenType(name.weight));
    FcPatternAddInteger(pattern, FC_SLANT, name.italic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
    FcPatternAddInteger(pattern, FC_WIDTH, name.width);
    FcPatternAddBool(pattern, FC_SCALABLE, FcTrue);
    FcConfigSubstitute(nullptr, pattern, FcMatchPattern);
    FcDefaultSubstitute(pattern);
    return pattern;
}

// Where fontconfig's fallbacks to a generic family begin in a substituted
// pattern: the generic names and the first family each stands for.
const QStringList &fallbackStarts()
{
    static const QStringList starts = [] {
        QStringList out;
        for (const char *generic : {"sans-serif", "serif", "monospace"}) {
            out << folded(QString::fromLatin1(generic));
            if (FcPattern *p = substituted(Name{QString::fromLatin1(generic)})) {
                const std::vector<Family> list = families(p);
                if (!list.empty())
                    out << list.front().name;
                FcPatternDestroy(p);
            }
        }
        return out;
    }();
    return starts;
}

// The families fontconfig's rules put in the place of the one asked for
// before they fall back to a generic family: the one asked for, those bound
// as strongly (its metric-compatible clones) and their aliases (Helvetica is
// aliased to Arial, and so to Liberation Sans). None for a generic name.
QStringList acceptedFamilies(FcPattern *p)
{
    QStringList accepted;
    bool aliases = true;
    for (const Family &f : families(p)) {
        aliases = aliases && !fallbackStarts().contains(f.name);
        if (f.strong || aliases)
            accepted << f.name;
    }
    return accepted;
}

// Loads fontconfig's configuration, once for the process (Qt shares it).
// fontconfig keeps parts of it where the leak checker cannot see them, so
// it would report them as lost while they are in use.
void loadConfiguration()
{
    static const bool loaded = [] {
#ifdef VELLORA_LEAK_CHECKER
        __lsan_disable();
#endif
        const bool ok = FcInit();
#ifdef VELLORA_LEAK_CHECKER
        __lsan_enable();
#endif
        return ok;
    }();
    Q_UNUSED(loaded);
}

std::optional<Face> match(const Name &name, bool anyFamily)
{
    FcPattern *pattern = substituted(name);
    if (!pattern)
        return std::nullopt;
    const QStringList accepted = acceptedFamilies(pattern);
    FcResult result = FcResultNoMatch;
    FcFontSet *sorted = FcFontSort(nullptr, pattern, FcFalse, nullptr, &result);
    FcPatternDestroy(pattern);
    if (!sorted)
        return std::nullopt;

    // The best face that appearances can embed (no bitmaps or Type 1, and no
    // instance of a variable font, which other readers would draw as its
    // default) of the family asked for or one fontconfig puts in its place.
    std::optional<Face> best;
    for (int i = 0; i < sorted->nfont && !best; ++i) {
        FcPattern *font = sorted->fonts[i];
        const QString format = string(font, FC_FONTFORMAT);
        FcBool variable = FcFalse;
        FcPatternGetBool(font, FC_VARIABLE, 0, &variable);
        const int index = integer(font, FC_INDEX, 0);
        if ((format != QLatin1String("TrueType") && format != QLatin1String("CFF")) || variable || index < 0 || index > 0xffff ||
            string(font, FC_FILE).isEmpty())
            continue;
        bool ok = anyFamily || accepted.isEmpty();
        for (int k = 0; !ok && !string(font, FC_FAMILY, k).isEmpty(); ++k)
            ok = accepted.contains(folded(string(font, FC_FAMILY, k)));
        if (ok)
            best = Face{string(font, FC_FILE),
                        index,
                        string(font, FC_FAMILY),
                        string(font, FC_POSTSCRIPT_NAME),
                        FcWeightToOpenType(integer(font, FC_WEIGHT, FC_WEIGHT_REGULAR)),
                        integer(font, FC_SLANT, FC_SLANT_ROMAN) != FC_SLANT_ROMAN};
    }
    FcFontSetDestroy(sorted);
    return best;
}

} // namespace

std::vector<Name> readings(const QString &text)
{
    QString name = text.trimmed();
    const bool tagged = name.size() > 7 && name[6] == u'+' &&
                        std::all_of(name.begin(), name.begin() + 6, [](QChar ch) { return ch >= u'A' && ch <= u'Z'; });
    if (tagged)
        name = name.mid(7);

    Style style;
    QString family = name;
    qsizetype cut = name.lastIndexOf(u',');
    if (cut < 0)
        cut = name.lastIndexOf(u'-');
    if (cut > 0) {
        if (const std::optional<Style> suffix = parseStyle(name.mid(cut + 1))) {
            style = *suffix;
            family = name.left(cut).trimmed();
        }
    }

    std::vector<Name> out;
    auto add = [&](const QString &f, const Style &s) {
        if (f.isEmpty())
            return;
        const Name n{f, s.weight, s.italic, s.width};
        const bool seen = std::any_of(out.begin(), out.end(), [&](const Name &o) {
            return folded(o.family) == folded(n.family) && o.weight == n.weight && o.italic == n.italic && o.width == n.width;
        });
        if (!seen)
            out.push_back(n);
    };
    add(spaced(family), style);
    const QString plain = spaced(withoutVendorSuffix(family));
    add(plain, style);

    // Style words at the end of the family: "Arial Bold", "HelveticaNarrow".
    QStringList words = plain.split(u' ', Qt::SkipEmptyParts);
    Style peeled = style;
    bool any = false;
    while (words.size() > 1) {
        const std::optional<Style> word = parseStyle(words.last());
        if (!word)
            break;
        if (word->weight != 400)
            peeled.weight = word->weight;
        peeled.italic = peeled.italic || word->italic;
        if (word->width != 100)
            peeled.width = word->width;
        words.removeLast();
        any = true;
    }
    if (any)
        add(words.join(u' '), peeled);
    return out;
}

std::optional<Face> find(const QString &name, bool bold, bool italic, const QStringList &generic)
{
    loadConfiguration();
    const bool isGeneric =
        std::any_of(generic.begin(), generic.end(), [&](const QString &g) { return folded(g) == folded(name.trimmed()); });
    std::vector<Name> names = isGeneric ? std::vector<Name>{Name{name.trimmed()}} : readings(name);
    for (Name &n : names) {
        if (bold)
            n.weight = std::max(n.weight, 700);
        n.italic = n.italic || italic;
        if (std::optional<Face> face = match(n, isGeneric))
            return face;
    }
    return std::nullopt;
}

} // namespace systemfonts
