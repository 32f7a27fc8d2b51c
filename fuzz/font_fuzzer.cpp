// Font programs and text from fuzzed bytes, through what the engine does with
// fonts: reading a bare CFF program's names, giving it a family prefix and
// numbering a CID-keyed one's glyphs; reading a TrueType or OpenType face's
// names, renaming it and cutting it down to a few glyphs (and reading the
// cut-down program again); and the font service's text functions (measuring,
// wrapping, ascent and descent, the Qt font) and the embedding of the glyphs
// a free text box draws, with the fuzzed text.
//
// Input: a flags byte, a glyph count n, n glyph ids (two bytes each), a text
// length and that many bytes of UTF-8 text, then the font program.
#include "CffFont.h"
#include "FontPrograms.h"
#include "FontService.h"
#include "FuzzSupport.h"
#include "PdfAnnotation.h"
#include "PdfPage.h"

#include <QGuiApplication>

using namespace fuzzing;

namespace {

void cffProgram(const QByteArray &program)
{
    if (std::optional<cff::Font> font = cff::read(program)) {
        font->string(font->entry(cff::FamilyName));
        const QByteArray prefixed = cff::withFamilyPrefix(program, "Vellora ");
        if (!prefixed.isEmpty())
            cff::read(prefixed);
    }
    QByteArray numbered = program;
    cff::numberCidsByGlyphId(numbered);
}

void openTypeProgram(const QByteArray &program, int index, const std::set<unsigned> &glyphs, const std::set<char32_t> &characters)
{
    if (!fontprograms::names(program, index))
        return;
    const QByteArray renamed = fontprograms::renamed(program, index, QStringLiteral("Vellora Fuzz"));
    fontprograms::names(renamed, 0);
    if (auto subset = fontprograms::subset(program, index, glyphs, characters)) {
        fontprograms::subsetTag(subset->program);
        fontprograms::names(subset->program, 0);
        // A subset is cut down again when a document is saved twice.
        fontprograms::subset(subset->program, 0, {1}, {});
    }
}

// A page of a new document, to put free text on.
std::shared_ptr<PdfPage> blankPage()
{
    static const QByteArray blank = "%PDF-1.7\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n"
                                    "2 0 obj << /Type /Pages /Kids [3 0 R] /Count 1 >> endobj\n"
                                    "3 0 obj << /Type /Page /Parent 2 0 R /MediaBox [0 0 400 300] >> endobj\n"
                                    "trailer << /Root 1 0 R >>\n%%EOF\n";
    static std::shared_ptr<PdfDocument> doc;
    doc = openBytes(blank, QStringLiteral("blank.pdf"));
    return doc ? doc->page(0) : nullptr;
}

void textFunctions(int flags, const QString &text)
{
    static const char *names[] = {"Helvetica",         "Times-BoldItalic",    "Courier", "DejaVu Sans",
                                  "DejaVu Serif Bold", "ABCDEF+Arial-BoldMT", "cmr10",   "NoSuchFamilyAtAll"};
    const PdfFont font{QString::fromLatin1(names[flags >> 1 & 7]), qreal(1 + (flags >> 4) * 3)};
    FontService &service = FontService::instance();
    service.resolve(font);
    service.qFont(font);
    service.textWidth(font, text);
    service.ascent(font);
    service.descent(font);
    service.lineAdvance(font);
    service.wrap(font, text, (flags & 1) ? 0 : 120);
    // Free text draws (and embeds the glyphs of) the fuzzed text.
    if (auto page = blankPage()) {
        auto box = PdfAnnotation::create(QRectF(20, 20, 200, 100), PdfAnnotation::FreeText);
        box->setFont(font);
        box->setContents(text);
        page->addAnnotation(box);
        page->removeAnnotation(box);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Qt is given the faces the service registers, as in the application. Its
    // own arguments, not libFuzzer's; kept to the end of the process, as Qt's
    // font database is torn down after the application would be.
    static int argc = 1;
    static char name[] = "font_fuzzer";
    static char *argv[] = {name, nullptr};
    new QGuiApplication(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Script header(QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size)));
    const int flags = header.byte();
    std::set<unsigned> glyphs;
    for (int n = header.byte(); n > 0; --n)
        glyphs.insert(unsigned(header.byte() << 8 | header.byte()));
    QByteArray utf8;
    for (int n = header.byte(); n > 0; --n)
        utf8 += char(header.byte());
    const QString text = QString::fromUtf8(utf8);
    const qsizetype used = header.used();
    const QByteArray program =
        used < qsizetype(size) ? QByteArray(reinterpret_cast<const char *>(data) + used, qsizetype(size) - used) : QByteArray();
    std::set<char32_t> characters;
    for (char32_t ch : text.toUcs4())
        characters.insert(ch);
    cffProgram(program);
    openTypeProgram(program, (flags >> 7) & 1, glyphs, characters);
    textFunctions(flags, text);
    return 0;
}
