#include "SignatureFonts.h"

#include <QCoreApplication>
#include <QFontDatabase>
#include <QHash>

#include <optional>

namespace SignatureFonts {
namespace {

// Stand-ins of the same character: a flowing round hand, a brush script, a
// bold casual hand and a calligraphic script.
const QHash<QString, QString> &substitutes()
{
    static const QHash<QString, QString> table{
        {QStringLiteral("SnellRoundhand"), QStringLiteral("DancingScript-Regular")},
        {QStringLiteral("SignPainter-HouseScript"), QStringLiteral("KaushanScript-Regular")},
        {QStringLiteral("BradleyHandITCTT-Bold"), QStringLiteral("DancingScript-Bold")},
        {QStringLiteral("Zapfino"), QStringLiteral("Kristi")},
    };
    return table;
}

QString squeezed(QString name)
{
    name.remove(QLatin1Char(' '));
    return name.toLower();
}

// A PostScript name is the family without spaces, then "-" and the style:
// "DancingScript-Bold" is "Dancing Script" in its "Bold" style. A plain
// family name is accepted as well.
std::optional<QFont> installedFont(const QString &fontName)
{
    const QString wanted = squeezed(fontName);
    const qsizetype dash = wanted.indexOf(QLatin1Char('-'));
    const QString family = dash < 0 ? wanted : wanted.left(dash);
    const QString style = dash < 0 ? QString() : wanted.mid(dash + 1);
    for (const QString &installed : QFontDatabase::families()) {
        const QString candidate = squeezed(installed);
        if (candidate == wanted)
            return QFont(installed);
        if (candidate != family)
            continue;
        for (const QString &installedStyle : QFontDatabase::styles(installed))
            if (squeezed(installedStyle) == style)
                return QFontDatabase::font(installed, installedStyle, 12);
        QFont font(installed);
        font.setBold(style.contains(QLatin1String("bold")));
        return font;
    }
    return std::nullopt;
}

} // namespace

const QList<Choice> &choices()
{
    static const QList<Choice> table{
        {QCoreApplication::translate("SignatureFonts", "Elegant"), QStringLiteral("SnellRoundhand")},
        {QCoreApplication::translate("SignatureFonts", "Signature"), QStringLiteral("SignPainter-HouseScript")},
        {QCoreApplication::translate("SignatureFonts", "Casual"), QStringLiteral("BradleyHandITCTT-Bold")},
        {QCoreApplication::translate("SignatureFonts", "Formal"), QStringLiteral("Zapfino")},
    };
    return table;
}

bool isInstalled(const QString &fontName)
{
    return installedFont(fontName).has_value();
}

QFont font(const QString &fontName, qreal size)
{
    std::optional<QFont> found = installedFont(fontName);
    if (!found && substitutes().contains(fontName))
        found = installedFont(substitutes().value(fontName));
    QFont result = found ? *found : QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    result.setPixelSize(qMax(1, qRound(size)));
    return result;
}

} // namespace SignatureFonts
