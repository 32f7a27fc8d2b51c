#include "CffFont.h"

#include <algorithm>
#include <map>

namespace cff {

namespace {

bool readIndex(const QByteArray &d, int pos, Index &out)
{
    auto byte = [&](qsizetype i) { return i < d.size() ? int(uchar(d[i])) : -1; };
    if (pos + 2 > d.size())
        return false;
    const int count = byte(pos) << 8 | byte(pos + 1);
    if (count == 0) {
        out.end = pos + 2;
        return true;
    }
    const int offSize = byte(pos + 2);
    if (offSize < 1 || offSize > 4 || pos + 3 + qsizetype(count + 1) * offSize > d.size())
        return false;
    std::vector<qint64> offsets;
    for (int i = 0; i <= count; ++i) {
        qint64 offset = 0;
        for (int k = 0; k < offSize; ++k)
            offset = offset << 8 | byte(pos + 3 + i * offSize + k);
        offsets.push_back(offset);
    }
    const qint64 base = pos + 3 + qint64(count + 1) * offSize - 1;
    for (int i = 0; i < count; ++i) {
        if (offsets[i] < 1 || offsets[i + 1] < offsets[i] || base + offsets[i + 1] > d.size())
            return false;
        out.items.push_back(d.mid(base + offsets[i], offsets[i + 1] - offsets[i]));
    }
    out.end = int(base + offsets[count]);
    return true;
}

QByteArray writeIndex(const std::vector<QByteArray> &items)
{
    QByteArray out;
    out += char(items.size() >> 8);
    out += char(items.size() & 0xff);
    if (items.empty())
        return out;
    qint64 total = 1;
    for (const QByteArray &item : items)
        total += item.size();
    const int offSize = total < 0x100 ? 1 : total < 0x10000 ? 2 : total < 0x1000000 ? 3 : 4;
    out += char(offSize);
    qint64 offset = 1;
    auto putOffset = [&](qint64 value) {
        for (int k = offSize - 1; k >= 0; --k)
            out += char((value >> (8 * k)) & 0xff);
    };
    putOffset(offset);
    for (const QByteArray &item : items)
        putOffset(offset += item.size());
    for (const QByteArray &item : items)
        out += item;
    return out;
}

bool readDict(const QByteArray &d, std::vector<Entry> &out)
{
    std::vector<QByteArray> operands;
    for (qsizetype i = 0; i < d.size();) {
        const int b = uchar(d[i]);
        qsizetype length = 0;
        if (b <= 21) {
            const bool escaped = b == 12;
            if (escaped && i + 1 >= d.size())
                return false;
            out.push_back({escaped ? 0x0c00 | uchar(d[i + 1]) : b, std::move(operands)});
            operands.clear();
            i += escaped ? 2 : 1;
            continue;
        }
        if (b == 28)
            length = 3;
        else if (b == 29)
            length = 5;
        else if (b == 30) {
            length = 1;
            while (i + length < d.size() && (uchar(d[i + length]) & 0x0f) != 0x0f && (uchar(d[i + length]) >> 4) != 0x0f)
                ++length;
            ++length;
        } else if (b >= 32 && b <= 246)
            length = 1;
        else if (b >= 247 && b <= 254)
            length = 2;
        else
            return false;
        if (i + length > d.size())
            return false;
        operands.push_back(d.mid(i, length));
        i += length;
    }
    return operands.empty();
}

std::optional<qint64> intOperand(const QByteArray &o)
{
    const int b0 = uchar(o[0]);
    if (b0 >= 32 && b0 <= 246)
        return b0 - 139;
    if (b0 >= 247 && b0 <= 250)
        return (b0 - 247) * 256 + uchar(o[1]) + 108;
    if (b0 >= 251 && b0 <= 254)
        return -(b0 - 251) * 256 - uchar(o[1]) - 108;
    if (b0 == 28)
        return qint16(uchar(o[1]) << 8 | uchar(o[2]));
    if (b0 == 29)
        return qint32(quint32(uchar(o[1])) << 24 | quint32(uchar(o[2])) << 16 | quint32(uchar(o[3])) << 8 | uchar(o[4]));
    return std::nullopt;
}

// Always five bytes, so a DICT's size does not depend on the values it holds.
QByteArray fixedInt(qint64 value)
{
    QByteArray out(1, char(29));
    for (int k = 3; k >= 0; --k)
        out += char((value >> (8 * k)) & 0xff);
    return out;
}

constexpr int FullName = 2, Charset = 15, Encoding = 16, CharStrings = 17, Private = 18;
constexpr int Ros = 0x0c00 | 30, FdArray = 0x0c00 | 36, FdSelect = 0x0c00 | 37;
constexpr int StandardStrings = 391;

// A font program with one font, CID-keyed or not.
std::optional<Font> readAny(const QByteArray &d)
{
    Font f;
    if (d.size() < 4 || d[0] != 1 || !readIndex(d, uchar(d[2]), f.names) || !readIndex(d, f.names.end, f.topDicts) ||
        !readIndex(d, f.topDicts.end, f.strings) || f.names.items.size() != 1 || f.topDicts.items.size() != 1 ||
        !readDict(f.topDicts.items[0], f.top))
        return std::nullopt;
    return f;
}

} // namespace

QByteArray Font::string(const Entry *entry) const
{
    const auto sid = entry && entry->operands.size() == 1 ? intOperand(entry->operands[0]) : std::nullopt;
    if (!sid || *sid < StandardStrings || *sid - StandardStrings >= qint64(strings.items.size()))
        return {};
    return strings.items[size_t(*sid - StandardStrings)];
}

Entry *Font::entry(int op)
{
    for (Entry &e : top)
        if (e.op == op)
            return &e;
    return nullptr;
}

std::optional<Font> read(const QByteArray &d)
{
    std::optional<Font> f = readAny(d);
    if (f && f->entry(Ros))
        return std::nullopt;
    return f;
}

// The same font program with `prefix` put before its family and full names.
// Everything after the strings moves by the same amount, so only the offsets
// in the top DICT change.
QByteArray withFamilyPrefix(const QByteArray &d, const QByteArray &prefix)
{
    std::optional<Font> f = read(d);
    if (!f)
        return {};
    std::map<qint64, qint64> renamed;
    for (int op : {FamilyName, FullName}) {
        Entry *e = f->entry(op);
        const QByteArray old = f->string(e);
        if (old.isEmpty())
            return {};
        const qint64 sid = *intOperand(e->operands[0]);
        if (!renamed.count(sid)) {
            renamed[sid] = StandardStrings + qint64(f->strings.items.size());
            f->strings.items.push_back(prefix + old);
        }
        e->operands[0] = fixedInt(renamed[sid]);
    }
    const int oldRest = f->strings.end;
    auto offsetOperand = [](const Entry &e) -> int {
        if (e.operands.empty()) // a damaged entry: no offset to move
            return -1;
        if (e.op == Charset || e.op == Encoding)
            return intOperand(e.operands.back()).value_or(0) > 2 ? int(e.operands.size()) - 1 : -1;
        return e.op == CharStrings || e.op == Private || e.op == FdArray || e.op == FdSelect ? int(e.operands.size()) - 1 : -1;
    };
    std::vector<qint64> offsets(f->top.size(), -1);
    for (size_t i = 0; i < f->top.size(); ++i) {
        const int k = offsetOperand(f->top[i]);
        if (k < 0)
            continue;
        offsets[i] = intOperand(f->top[i].operands[size_t(k)]).value_or(-1);
        if (offsets[i] < oldRest)
            return {};
        f->top[i].operands[size_t(k)] = fixedInt(0);
    }
    auto dict = [&] {
        QByteArray out;
        for (const Entry &e : f->top) {
            for (const QByteArray &o : e.operands)
                out += o;
            if (e.op >= 0x0c00)
                out += char(12);
            out += char(e.op & 0xff);
        }
        return out;
    };
    const qint64 delta = f->names.end + writeIndex({dict()}).size() + writeIndex(f->strings.items).size() - oldRest;
    for (size_t i = 0; i < f->top.size(); ++i)
        if (offsets[i] >= 0)
            f->top[i].operands.back() = fixedInt(offsets[i] + delta);
    return d.left(f->names.end) + writeIndex({dict()}) + writeIndex(f->strings.items) + d.mid(oldRest);
}

bool numberCidsByGlyphId(QByteArray &d)
{
    std::optional<Font> f = readAny(d);
    if (!f)
        return false;
    if (!f->entry(Ros))
        return true;
    const Entry *charStrings = f->entry(CharStrings);
    const Entry *charset = f->entry(Charset);
    if (!charStrings || charStrings->operands.empty() || !charset || charset->operands.empty())
        return false;
    const qint64 charStringsAt = intOperand(charStrings->operands.back()).value_or(-1);
    const qint64 at = intOperand(charset->operands.back()).value_or(-1);
    if (charStringsAt < 4 || charStringsAt + 2 > d.size() || at < 4 || at >= d.size())
        return false;
    const int glyphs = int(uchar(d[charStringsAt])) << 8 | int(uchar(d[charStringsAt + 1]));
    if (glyphs < 2)
        return true;
    // The charset as written: its format and the bytes it takes.
    const int format = uchar(d[at]);
    qint64 length = 1;
    if (format == 0) {
        length += 2 * qint64(glyphs - 1);
    } else if (format == 1 || format == 2) {
        for (int covered = 0; covered < glyphs - 1;) {
            const qint64 range = at + length;
            if (range + (format == 1 ? 3 : 4) > d.size())
                return false;
            covered += 1 + (format == 1 ? int(uchar(d[range + 2])) : int(uchar(d[range + 2])) << 8 | int(uchar(d[range + 3])));
            length += format == 1 ? 3 : 4;
        }
    } else {
        return false;
    }
    if (at + length > d.size())
        return false;
    // The same format again, now counting CIDs up from 1 with the glyphs: never
    // longer than what it replaces, so nothing else moves.
    QByteArray identity(1, char(format));
    auto u16 = [&](int v) {
        identity += char((v >> 8) & 0xff);
        identity += char(v & 0xff);
    };
    if (format == 0) {
        for (int gid = 1; gid < glyphs; ++gid)
            u16(gid);
    } else {
        const int span = format == 1 ? 256 : 65536;
        for (int first = 1; first < glyphs; first += span) {
            const int left = std::min(span, glyphs - first) - 1;
            u16(first);
            if (format == 1)
                identity += char(left);
            else
                u16(left);
        }
    }
    if (identity.size() > length)
        return false;
    d.replace(at, identity.size(), identity);
    return true;
}

} // namespace cff
