// Internal to the engine: the installed font that best stands for a font
// named the way PDF files and the user name fonts, found through fontconfig.
#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace systemfonts {

// A family to ask for and the style to ask it in.
struct Name {
    QString family;
    int weight = 400; // OpenType weight class: 400 regular, 700 bold
    bool italic = false;
    int width = 100; // percent of the normal width
};

// The readings of a font name, the most literal first. A subset tag
// ("ABCDEF+") is dropped and a style after a comma or hyphen is read
// ("Arial,Bold", "Times-Roman", "TimesNewRomanPS-BoldMT"); run-together words
// are spaced ("TimesNewRoman" is "Times New Roman"). Further readings drop a
// vendor suffix ("ArialMT" is also "Arial") and style words that end the
// family ("Arial Black" is also Arial in black).
std::vector<Name> readings(const QString &name);

// An installed face, as fontconfig describes it.
struct Face {
    QString file;
    int index = 0;
    QString family;
    QString postScriptName;
    int weight = 400;
    bool italic = false;
};

// The installed face for a font name and style: the best face fontconfig
// sorts first for one of the name's readings whose family is the one asked
// for or one fontconfig's own rules put in its place before they fall back
// to a generic family (the metric-compatible faces it knows for the common
// fonts). A name in `generic` ("sans-serif", the desktop's font) takes
// fontconfig's default for it. Only TrueType and OpenType faces that are not
// variable are found.
std::optional<Face> find(const QString &name, bool bold, bool italic, const QStringList &generic);

} // namespace systemfonts
