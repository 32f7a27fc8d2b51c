// A fuzzed document edited by a fuzzed script, as a user edits it: the input
// is a PDF file, the separator, and the script, a list of steps of 24 bytes
// each (a byte choosing the step, one choosing the page, then the step's own
// bytes, zeros when it needs more; fixed steps keep the later ones in place
// when a mutation changes one): rotate, delete, move, copy pages,
// put back a deleted one; add, change, move and delete annotations; retype a
// line of a page and undo and redo it; fill, toggle, pick and reset form
// fields and undo and redo that; print pages; save, also with a password,
// and continue with the file reopened.
#include "FuzzSupport.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfFormField.h"
#include "PdfPage.h"
#include "PdfPrintCopy.h"

#include <QImage>

#include <algorithm>

using namespace fuzzing;

namespace {

// Steps run per input, so an input stays fast whatever its script.
constexpr int StepLimit = 40;
constexpr int StepSize = 24;

QColor colorFrom(Script &script)
{
    if (script.below(8) == 0)
        return QColor(); // none
    return QColor(script.byte(), script.byte(), script.byte(), script.flag() ? 255 : script.byte());
}

std::shared_ptr<PdfAnnotation> newAnnotation(Script &script)
{
    static const QString *kinds[] = {&PdfAnnotation::Square,    &PdfAnnotation::Circle,    &PdfAnnotation::Ink,
                                     &PdfAnnotation::Highlight, &PdfAnnotation::Underline, &PdfAnnotation::StrikeOut,
                                     &PdfAnnotation::FreeText,  &PdfAnnotation::Stamp};
    const QString &kind = *kinds[script.below(8)];
    const QRectF bounds(script.coordinate(), script.coordinate(), script.byte() - 8, script.byte() - 8);
    auto a = PdfAnnotation::create(bounds, kind);
    a->setColor(colorFrom(script));
    if (kind == PdfAnnotation::Ink) {
        QPolygonF path;
        for (int n = script.below(6); n >= 0; --n)
            path << QPointF(script.byte() - 16, script.byte() - 16);
        a->addInkPath(path);
    } else if (kind == PdfAnnotation::Highlight || kind == PdfAnnotation::Underline || kind == PdfAnnotation::StrikeOut) {
        QVector<QPointF> quads;
        for (int n = 4 * (1 + script.below(2)); n > 0; --n)
            quads << QPointF(script.byte() - 16, script.byte() - 16);
        a->setQuadrilateralPoints(quads);
    } else if (kind == PdfAnnotation::FreeText) {
        static const char *fonts[] = {"Helvetica", "Times-Bold", "Courier", "DejaVu Sans", "ABCDEF+ArialMT,BoldItalic"};
        a->setFont(PdfFont{QString::fromLatin1(fonts[script.below(5)]), qreal(script.below(40) + 1)});
        a->setFontColor(colorFrom(script));
        static const char *texts[] = {"Hello", "Zürich — Ωμέγα\nline two", "", "\t tab \r\n crlf ﬁ 😀 ✓"};
        a->setContents(QString::fromUtf8(texts[script.below(4)]));
        a->setRotation(90 * script.below(4));
    } else if (kind == PdfAnnotation::Stamp) {
        QImage image(1 + script.below(16), 1 + script.below(16), QImage::Format_ARGB32);
        image.fill(QColor(script.byte(), 0, 0, script.byte()));
        a->setStampImage(image);
    } else {
        a->setInteriorColor(colorFrom(script));
    }
    return a;
}

void changeAnnotation(const std::shared_ptr<PdfAnnotation> &a, Script &script)
{
    switch (script.below(8)) {
    case 0:
        a->setBounds(a->bounds().translated(script.byte() - 128, script.byte() - 128));
        break;
    case 1:
        a->setBounds(QRectF(a->bounds().topLeft(), QSizeF(script.byte(), script.byte())));
        break;
    case 2:
        a->setColor(colorFrom(script));
        a->setInteriorColor(colorFrom(script));
        break;
    case 3:
        a->setBorderWidth(script.flag() ? std::optional<qreal>() : qreal(script.below(20)));
        break;
    case 4:
        a->setContents(QStringLiteral("Änderung %1").arg(script.byte()));
        break;
    case 5:
        a->setFont(script.flag() ? std::nullopt : std::optional<PdfFont>(PdfFont{QStringLiteral("Times-Italic"), 9}));
        a->setRotation(90 * script.below(4));
        break;
    case 6:
        a->addInkPath(QPolygonF({QPointF(0, 0), QPointF(script.byte(), script.byte())}));
        break;
    default:
        a->setQuadrilateralPoints({{0, 10}, {qreal(script.byte()), 10}, {0, 0}, {qreal(script.byte()), 0}});
        break;
    }
}

// The page the step names, or none in a document without pages.
std::shared_ptr<PdfPage> pageFrom(const std::shared_ptr<PdfDocument> &doc, Script &script)
{
    return doc->pageCount() > 0 ? doc->page(script.below(doc->pageCount())) : nullptr;
}

// A field of the document's form given a value from the script, its
// options, a toggle or a reset, and the change undone and done again.
void fillForm(const std::shared_ptr<PdfDocument> &doc, Script &script)
{
    const auto form = doc->form();
    const auto fields = form ? form->fields() : std::vector<std::shared_ptr<PdfFormField>>();
    if (fields.empty())
        return;
    const auto &field = fields[size_t(script.below(int(fields.size())))];
    static const char *values[] = {"1234.5", "-0,25", "3/7/2024",   "Zażółć Ёлка 漢字", "",
                                   "Off",    "Yes",   "12345-6789", "a\nb\rc",          "(555) 123-4567"};
    std::shared_ptr<PdfFieldEdit> edit;
    switch (script.below(5)) {
    case 0:
        edit = field->setValue(QString::fromUtf8(values[script.below(10)]).repeated(1 + script.below(3) * script.byte()));
        break;
    case 1:
        edit = field->setChecked(script.below(4), script.flag());
        break;
    case 2: {
        const auto options = field->choiceOptions();
        QStringList chosen;
        for (const auto &option : options)
            if (script.flag())
                chosen << option.exportValue;
        edit = field->setValues(chosen);
        break;
    }
    case 3:
        edit = form->reset();
        break;
    default:
        field->displayValue();
        form->calculationOrder();
        form->hasScriptsNotRun();
        if (const auto page = pageFrom(doc, script))
            form->tabOrder(page);
        break;
    }
    if (edit && script.flag()) {
        edit->undo();
        if (script.flag())
            edit->redo();
    }
}

void edit(std::shared_ptr<PdfDocument> doc, const QByteArray &steps)
{
    std::vector<std::shared_ptr<PdfPage>> removed;
    for (int step = 0; step < StepLimit && step * StepSize < steps.size(); ++step) {
        Script script(steps.mid(step * StepSize, StepSize));
        const int op = script.below(14);
        auto page = pageFrom(doc, script);
        switch (op) {
        case 0:
            if (page)
                page->setRotation(90 * script.below(8) - 180);
            break;
        case 1:
            if (page && doc->removePage(page->index()))
                removed.push_back(page);
            break;
        case 2:
            if (!removed.empty()) {
                doc->insert(removed.back(), script.below(doc->pageCount() + 1));
                removed.pop_back();
            }
            break;
        case 3:
            if (page) {
                // Moved: the page list written anew with it elsewhere.
                std::vector<std::shared_ptr<PdfPage>> order = doc->pages();
                order.erase(order.begin() + page->index());
                order.insert(order.begin() + script.below(int(order.size()) + 1), page);
                doc->setPages(order);
            }
            break;
        case 4:
            if (page)
                doc->insert(page->copy(), script.below(doc->pageCount() + 1));
            break;
        case 5:
            if (page)
                page->addAnnotation(newAnnotation(script));
            break;
        case 6:
        case 7:
        case 8:
            if (page) {
                const auto annotations = page->annotations();
                if (annotations.empty())
                    break;
                auto a = annotations[size_t(script.below(int(annotations.size())))];
                if (op == 8)
                    page->removeAnnotation(a);
                else if (op == 7)
                    a->setBounds(a->bounds().translated(script.coordinate() / 4, script.coordinate() / 4));
                else
                    changeAnnotation(a, script);
            }
            break;
        case 9:
            if (page) {
                page->render(0.05);
                page->text();
                page->annotation(QPointF(script.coordinate(), script.coordinate()));
                // A line of the page retyped in its content, undone and done again.
                const auto lines = page->selectionForAll().selectionsByLine();
                if (lines.empty())
                    break;
                const auto &line = lines[size_t(script.below(int(lines.size())))];
                const PdfRetype retyped = page->retype(line.bounds(page), QStringLiteral("Neu %1").arg(script.byte()));
                if (retyped.edit && script.flag()) {
                    retyped.edit->undo();
                    retyped.edit->redo();
                }
            }
            break;
        case 12:
            fillForm(doc, script);
            break;
        case 13: {
            // Printed: some pages on paper of some size, turned and scaled as the layout says.
            std::vector<int> pages;
            for (int n = script.below(4); n >= 0 && doc->pageCount() > 0; --n)
                pages.push_back(script.below(doc->pageCount()));
            PdfPrintLayout layout;
            layout.paper = QSizeF(script.byte() * 4 + 1, script.byte() * 4 + 1);
            layout.printable = QRectF(QPointF(script.below(40), script.below(40)), layout.paper).adjusted(0, 0, -40, -40);
            layout.scaling = PdfPrintLayout::Scaling(script.below(3));
            PdfPrintCopy::write(doc, pages, layout, scratch(QStringLiteral("print.pdf")),
                                [limit = script.byte()](int done, int) { return done < limit; });
            break;
        }
        default: {
            // Saved (with a password for some), then edited on as reopened.
            const bool encrypt = op == 11;
            const QString path = scratch(QStringLiteral("edited.pdf"));
            if (!doc->write(path, encrypt ? PdfWriteOptions{SeedPassword, QStringLiteral("owner")} : PdfWriteOptions{}))
                break;
            auto reopened = PdfDocument::open(path);
            if (!reopened || (reopened->isLocked() && !reopened->unlock(SeedPassword)))
                return;
            doc = reopened;
            removed.clear();
            break;
        }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::vector<QByteArray> parts = split(data, size);
    auto doc = openBytes(parts[0], QStringLiteral("in.pdf"));
    if (!doc)
        return 0;
    edit(doc, parts.size() > 1 ? parts[1] : QByteArray());
    return 0;
}
