// Feeds bytes to the engine as a PDF file and does with it what the
// application does with a file: open, unlock (wrong passwords, then the
// seeds' ones), page count, geometry, tiny renderings (whole, a region, a
// thumbnail, a display list, without annotations, one annotation alone or
// left out), text, annotations and their properties, the line and word under
// a point, links; for one input in sixteen also adding an annotation of each
// kind, writing and reopening.
#include "FuzzSupport.h"
#include "PdfAnnotation.h"
#include "PdfDisplayList.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfSelection.h"

#include <QFile>
#include <QImage>
#include <QString>

#include <cstddef>
#include <cstdint>

namespace {

void readPage(const std::shared_ptr<PdfPage> &page)
{
    const QRectF crop = page->bounds(PdfBox::Crop);
    page->bounds(PdfBox::Media);
    page->rotation();
    page->displaySize();
    page->render(0.03);
    page->render(0.05, QRectF(QPointF(10, 10), crop.size() / 3), PdfRenderOptions{false, nullptr, nullptr});
    page->thumbnail(QSize(12, 16), PdfBox::Media);
    if (auto list = page->displayList()) {
        list->render(0.02);
        QImage target(6, 6, QImage::Format_ARGB32_Premultiplied);
        list->renderInto(target, 0.05, QPointF(20, 20));
    }
    page->pageToDisplay();
    page->baselineAt(crop.center());
    const QString text = page->text();
    page->fontAt(0);
    page->fontAt(int(text.size()) / 2);
    page->selectionForLine(crop.center());
    page->selectionForWord(crop.center());
    page->selectionForAll().string();
    PdfSelection::between(page, crop.topLeft(), page, crop.center()).string();
    // The text as find reads it, matched with the page's own words.
    if (auto recording = page->recording();
        recording && recording->recordText(true) == PdfPageRecording::Result::Recorded) {
        const auto searched = recording->text();
        const QString query = PdfSearchText::searchable(text.left(8));
        for (const auto &match : searched->find(query, PdfSearchOptions{false, true})) {
            searched->quads(match);
            searched->context(match);
        }
    }
    page->links();
    for (const auto &annotation : page->annotations()) {
        annotation->type();
        annotation->contents();
        annotation->font();
        annotation->quadrilateralPoints();
        annotation->inkPaths();
        annotation->borderWidth();
        page->annotation(annotation->bounds().center());
    }
    if (const auto annotations = page->annotations(); !annotations.empty()) {
        page->render(0.02, PdfRenderOptions{true, annotations.front(), nullptr});
        page->render(0.02, PdfRenderOptions{true, nullptr, annotations.back()});
    }
}

void editAndSave(const std::shared_ptr<PdfDocument> &doc, const std::shared_ptr<PdfPage> &page)
{
    const QRectF crop = page->bounds(PdfBox::Crop);
    const QPointF at = crop.topLeft() + QPointF(10, 10);
    auto make = [&](const QString &type) {
        auto a = PdfAnnotation::create(QRectF(at, QSizeF(40, 30)), type);
        a->setColor(Qt::red);
        return a;
    };
    auto square = make(PdfAnnotation::Square);
    square->setInteriorColor(QColor(0, 0, 255, 128));
    auto ink = make(PdfAnnotation::Ink);
    ink->addInkPath(QPolygonF({QPointF(0, 0), QPointF(20, 25), QPointF(40, 5)}));
    auto highlight = make(PdfAnnotation::Highlight);
    highlight->setQuadrilateralPoints({{0, 30}, {40, 30}, {0, 0}, {40, 0}});
    auto text = make(PdfAnnotation::FreeText);
    text->setFont(PdfFont{QStringLiteral("Times-Roman"), 11});
    text->setContents(QStringLiteral("Fuzz żółw Ωμέγα"));
    QImage image(8, 4, QImage::Format_ARGB32);
    image.fill(Qt::black);
    auto stamp = make(PdfAnnotation::Stamp);
    stamp->setStampImage(image);
    for (const auto &a : {square, make(PdfAnnotation::Circle), ink, highlight, make(PdfAnnotation::StrikeOut), text, stamp})
        page->addAnnotation(a);
    square->setBounds(square->bounds().translated(5, 5));
    page->removeAnnotation(ink);
    if (doc->pageCount() > 1)
        doc->insert(page->copy(), doc->pageCount());
    const QString out = fuzzing::scratch(QStringLiteral("out.pdf"));
    if (doc->write(out)) {
        if (auto reopened = PdfDocument::open(out)) {
            fuzzing::unlockSeed(*reopened);
            if (auto first = reopened->page(0))
                first->annotations();
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString in = fuzzing::scratch(QStringLiteral("in.pdf"));
    {
        QFile file(in);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        file.write(reinterpret_cast<const char *>(data), qint64(size));
    }
    auto doc = PdfDocument::open(in);
    if (!doc || !fuzzing::unlockSeed(*doc))
        return 0;
    doc->isEncrypted();
    const int count = doc->pageCount();
    for (int i = 0; i < std::min(count, 3); ++i)
        if (auto page = doc->page(i))
            readPage(page);
    if (count > 1) {
        // A selection dragged from the first page onto the second.
        auto first = doc->page(0), second = doc->page(1);
        const auto across = PdfSelection::between(first, first->bounds().center(), second, second->bounds().center());
        across.string();
        across.pages();
        for (const auto &line : across.selectionsByLine())
            line.bounds(first);
    }
    // The heavier half for a few inputs: which ones depends on the bytes, so a
    // crash found there reproduces.
    uint8_t mix = 0;
    for (size_t i = 0; i < size; i += 97)
        mix = uint8_t(mix * 31 + data[i]);
    if (count > 0 && mix % 16 == 0)
        editAndSave(doc, doc->page(0));
    return 0;
}
