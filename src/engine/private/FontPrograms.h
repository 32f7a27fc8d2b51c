// Internal to the engine: reading and cutting down TrueType and OpenType font
// programs (also one face of a collection), with HarfBuzz.
#pragma once

#include <QByteArray>
#include <QString>

#include <map>
#include <optional>
#include <set>

namespace fontprograms {

// The names a face gives itself.
struct Names {
    QString family; // the family of up to four styles ("Liberation Sans")
    QString style;  // "Bold Italic"
    QString postScriptName;
};

// None when `program` is not a TrueType or OpenType font with that face.
std::optional<Names> names(const QByteArray &program, int index);

// The face on its own, with `family` as its family name and only the names
// that go with it, so that whoever is given it knows it by that name alone.
// Empty when the face cannot be read.
QByteArray renamed(const QByteArray &program, int index, const QString &family);

struct Subset {
    QByteArray program;                  // a TrueType or OpenType font
    bool cff = false;                    // its outlines are CFF (an OpenType font), else TrueType
    std::map<unsigned, unsigned> glyphs; // the listed glyphs' ids in the program, by their ids in the face
    qreal italicAngle = 0;
    qreal capHeight = 0; // in thousandths of the em
};

// The face with only the listed glyphs (and the empty glyph 0), numbered
// anew, and the characters that map to them; no layout tables. A CID-keyed
// CFF font's glyphs get their new ids as CIDs. None when the program cannot
// be cut down.
std::optional<Subset> subset(const QByteArray &program, int index, const std::set<unsigned> &glyphs,
                             const std::set<char32_t> &characters);

// Six capital letters that stand for a subset's content, written before the
// name of an embedded subset ("ABCDEF+").
QByteArray subsetTag(const QByteArray &program);

} // namespace fontprograms
