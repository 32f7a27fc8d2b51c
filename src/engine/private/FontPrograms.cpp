#include "FontPrograms.h"

#include "CffFont.h"

#include <QCryptographicHash>
#include <QtEndian>

#include <hb-ot.h>
#include <hb-subset.h>
#include <hb.h>

#include <memory>
#include <vector>

namespace fontprograms {

namespace {

template <class T, void (*Destroy)(T *)> struct Deleter {
    void operator()(T *p) const { Destroy(p); }
};
using Blob = std::unique_ptr<hb_blob_t, Deleter<hb_blob_t, hb_blob_destroy>>;
using Face = std::unique_ptr<hb_face_t, Deleter<hb_face_t, hb_face_destroy>>;
using Font = std::unique_ptr<hb_font_t, Deleter<hb_font_t, hb_font_destroy>>;
using Input = std::unique_ptr<hb_subset_input_t, Deleter<hb_subset_input_t, hb_subset_input_destroy>>;
using Plan = std::unique_ptr<hb_subset_plan_t, Deleter<hb_subset_plan_t, hb_subset_plan_destroy>>;

// The face, reading `program` in place; it must outlive the face. None when
// it is no TrueType or OpenType font or has no such face.
Face openFace(const QByteArray &program, int index)
{
    Blob blob(hb_blob_create(program.constData(), unsigned(program.size()), HB_MEMORY_MODE_READONLY, nullptr, nullptr));
    Face face(hb_face_create(blob.get(), unsigned(index)));
    if (hb_face_get_glyph_count(face.get()) == 0)
        return nullptr;
    return face;
}

QString name(hb_face_t *face, hb_ot_name_id_t id)
{
    unsigned length = hb_ot_name_get_utf16(face, id, HB_LANGUAGE_INVALID, nullptr, nullptr);
    if (length == 0)
        return {};
    std::vector<uint16_t> text(length + 1);
    unsigned size = length + 1;
    hb_ot_name_get_utf16(face, id, HB_LANGUAGE_INVALID, &size, text.data());
    return QString::fromUtf16(reinterpret_cast<const char16_t *>(text.data()), size);
}

bool hasTable(hb_face_t *face, hb_tag_t tag)
{
    Blob table(hb_face_reference_table(face, tag));
    return hb_blob_get_length(table.get()) > 0;
}

QByteArray bytesOf(hb_blob_t *blob)
{
    unsigned length = 0;
    const char *data = hb_blob_get_data(blob, &length);
    return QByteArray(data, qsizetype(length));
}

// A name table of Windows Unicode English names.
QByteArray nameTable(const std::vector<std::pair<int, QString>> &names)
{
    auto u16 = [](QByteArray &out, int value) {
        out += char((value >> 8) & 0xff);
        out += char(value & 0xff);
    };
    QByteArray records, strings;
    for (const auto &[id, text] : names) {
        QByteArray utf16(text.size() * 2, Qt::Uninitialized);
        qToBigEndian<char16_t>(text.utf16(), text.size(), utf16.data());
        u16(records, 3);     // Windows
        u16(records, 1);     // Unicode BMP
        u16(records, 0x409); // English
        u16(records, id);
        u16(records, int(utf16.size()));
        u16(records, int(strings.size()));
        strings += utf16;
    }
    QByteArray table;
    u16(table, 0);
    u16(table, int(names.size()));
    u16(table, int(6 + records.size()));
    return table + records + strings;
}

// The CFF table of an OpenType font given CIDs equal to glyph ids (see
// cff::numberCidsByGlyphId), with its checksum. False when it cannot be read.
bool numberCidsByGlyphId(QByteArray &font)
{
    auto u16 = [&](qsizetype at) { return qFromBigEndian<quint16>(font.constData() + at); };
    auto u32 = [&](qsizetype at) { return qFromBigEndian<quint32>(font.constData() + at); };
    if (font.size() < 12)
        return false;
    const int tables = u16(4);
    for (int i = 0; i < tables; ++i) {
        const qsizetype record = 12 + 16 * qsizetype(i);
        if (record + 16 > font.size())
            return false;
        if (u32(record) != HB_TAG('C', 'F', 'F', ' '))
            continue;
        const qsizetype offset = u32(record + 8), length = u32(record + 12);
        if (offset + length > font.size())
            return false;
        QByteArray table = font.mid(offset, length);
        if (!cff::numberCidsByGlyphId(table))
            return false;
        font.replace(offset, length, table);
        quint32 sum = 0;
        for (qsizetype k = 0; k < length; k += 4) {
            quint32 word = 0;
            for (qsizetype b = 0; b < 4; ++b)
                word = word << 8 | (k + b < length ? uchar(table[k + b]) : 0);
            sum += word;
        }
        qToBigEndian<quint32>(sum, font.data() + record + 4);
        return true;
    }
    return false;
}

} // namespace

std::optional<Names> names(const QByteArray &program, int index)
{
    Face face = openFace(program, index);
    if (!face)
        return std::nullopt;
    return Names{name(face.get(), HB_OT_NAME_ID_FONT_FAMILY), name(face.get(), HB_OT_NAME_ID_FONT_SUBFAMILY),
                 name(face.get(), HB_OT_NAME_ID_POSTSCRIPT_NAME)};
}

QByteArray renamed(const QByteArray &program, int index, const QString &family)
{
    Face face = openFace(program, index);
    if (!face)
        return {};
    unsigned count = hb_face_get_table_tags(face.get(), 0, nullptr, nullptr);
    std::vector<hb_tag_t> tags(count);
    hb_face_get_table_tags(face.get(), 0, &count, tags.data());
    Face builder(hb_face_builder_create());
    for (hb_tag_t tag : tags) {
        if (tag == HB_TAG('n', 'a', 'm', 'e'))
            continue;
        Blob table(hb_face_reference_table(face.get(), tag));
        hb_face_builder_add_table(builder.get(), tag, table.get());
    }
    const QString style = name(face.get(), HB_OT_NAME_ID_FONT_SUBFAMILY);
    const QString full = style.isEmpty() || style == QLatin1String("Regular") ? family : family + u' ' + style;
    QString postScript = full;
    postScript.remove(u' ');
    const QByteArray names = nameTable({{HB_OT_NAME_ID_FONT_FAMILY, family},
                                        {HB_OT_NAME_ID_FONT_SUBFAMILY, style.isEmpty() ? QStringLiteral("Regular") : style},
                                        {HB_OT_NAME_ID_FULL_NAME, full},
                                        {HB_OT_NAME_ID_POSTSCRIPT_NAME, postScript}});
    Blob table(hb_blob_create(names.constData(), unsigned(names.size()), HB_MEMORY_MODE_DUPLICATE, nullptr, nullptr));
    hb_face_builder_add_table(builder.get(), HB_TAG('n', 'a', 'm', 'e'), table.get());
    Blob out(hb_face_reference_blob(builder.get()));
    return bytesOf(out.get());
}

std::optional<Subset> subset(const QByteArray &program, int index, const std::set<unsigned> &glyphs,
                             const std::set<char32_t> &characters)
{
    Face face = openFace(program, index);
    if (!face)
        return std::nullopt;
    const bool cff = hasTable(face.get(), HB_TAG('C', 'F', 'F', ' '));
    if (!cff && !hasTable(face.get(), HB_TAG('g', 'l', 'y', 'f')))
        return std::nullopt;
    Input input(hb_subset_input_create_or_fail());
    if (!input)
        return std::nullopt;
    hb_set_t *glyphSet = hb_subset_input_glyph_set(input.get());
    hb_set_add(glyphSet, 0);
    for (unsigned g : glyphs)
        hb_set_add(glyphSet, g);
    hb_set_t *unicodes = hb_subset_input_unicode_set(input.get());
    for (char32_t ch : characters)
        hb_set_add(unicodes, ch);
    // Shaping is done: the file draws glyphs by id.
    hb_set_t *dropped = hb_subset_input_set(input.get(), HB_SUBSET_SETS_DROP_TABLE_TAG);
    for (const char *tag : {"GSUB", "GPOS", "GDEF", "BASE", "JSTF", "MATH", "kern", "morx", "mort", "kerx", "feat", "trak",
                            "DSIG", "vhea", "vmtx", "VORG", "hdmx", "VDMX", "LTSH"})
        hb_set_add(dropped, hb_tag_from_string(tag, 4));
    Plan plan(hb_subset_plan_create_or_fail(face.get(), input.get()));
    if (!plan)
        return std::nullopt;
    Subset s;
    const hb_map_t *renumbered = hb_subset_plan_old_to_new_glyph_mapping(plan.get());
    for (unsigned g : glyphs) {
        const hb_codepoint_t id = hb_map_get(renumbered, g);
        if (id == HB_MAP_VALUE_INVALID)
            return std::nullopt;
        s.glyphs[g] = id;
    }
    Face cut(hb_subset_plan_execute_or_fail(plan.get()));
    if (!cut)
        return std::nullopt;
    Blob out(hb_face_reference_blob(cut.get()));
    s.program = bytesOf(out.get());
    // A CID-keyed CFF keeps the CIDs its glyphs had, where readers of PDF
    // files disagree on whether a CID or a glyph id is meant: they are made the same.
    if (s.program.isEmpty() || (cff && !numberCidsByGlyphId(s.program)))
        return std::nullopt;
    s.cff = cff;
    Font font(hb_font_create(face.get()));
    s.italicAngle = hb_style_get_value(font.get(), HB_STYLE_TAG_SLANT_ANGLE);
    hb_position_t capHeight = 0;
    const unsigned upem = hb_face_get_upem(face.get());
    if (upem > 0 && hb_ot_metrics_get_position(font.get(), HB_OT_METRICS_TAG_CAP_HEIGHT, &capHeight))
        s.capHeight = capHeight * 1000.0 / upem;
    return s;
}

QByteArray subsetTag(const QByteArray &program)
{
    const QByteArray digest = QCryptographicHash::hash(program, QCryptographicHash::Sha1);
    QByteArray tag;
    for (int i = 0; i < 6; ++i)
        tag += char('A' + uchar(digest[i]) % 26);
    return tag;
}

} // namespace fontprograms
