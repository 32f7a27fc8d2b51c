// Internal to the engine: reading and rewriting a bare CFF font program,
// just enough to learn its names, to give it another family name and to
// number the glyphs of a CID-keyed one by their ids.
#pragma once

#include <QByteArray>

#include <optional>
#include <vector>

namespace cff {

struct Index {
    int end = 0; // the first byte after the index
    std::vector<QByteArray> items;
};

// A DICT entry: its operator (12 x is 0x0c00 | x) and its operands as written.
struct Entry {
    int op = 0;
    std::vector<QByteArray> operands;
};

constexpr int FamilyName = 3;

struct Font {
    Index names, topDicts, strings;
    std::vector<Entry> top;

    // The string a top DICT entry names; empty when it names none.
    QByteArray string(const Entry *entry) const;
    Entry *entry(int op);
};

// A font program with one font that is not CID-keyed: the standard fonts are.
std::optional<Font> read(const QByteArray &d);

// The same font program with `prefix` put before its family and full names;
// empty when it cannot be rewritten.
QByteArray withFamilyPrefix(const QByteArray &d, const QByteArray &prefix);

// Gives each glyph of a CID-keyed font program the glyph's id as its CID, in
// place; a font that is not CID-keyed is left as it is. False when the
// program cannot be read.
bool numberCidsByGlyphId(QByteArray &d);

} // namespace cff
