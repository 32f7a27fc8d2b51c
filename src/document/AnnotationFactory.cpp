#include "AnnotationFactory.h"

#include "ImageStampAnnotation.h"

#include "PdfAnnotation.h"
#include "PdfPage.h"

namespace AnnotationFactory {

void applyMarkup(const QString &subtype, const PdfSelection &selection, const QColor &color, const AddStep &add)
{
    for (const auto &page : selection.pages()) {
        // From the first glyph of each line to its last: white space at the
        // ends (a selection that stops after a space) is not marked.
        std::vector<QRectF> boxes;
        for (const auto &line : selection.lines())
            if (line.page == page && !line.markBounds.isEmpty())
                boxes.push_back(line.markBounds);
        if (boxes.empty())
            continue;
        QRectF united;
        for (const QRectF &r : boxes)
            united = united.united(r);
        // Upper left, upper right, lower left, lower right of each line, from
        // the union's lower left corner (page space has y up).
        QVector<QPointF> points;
        const QPointF origin = united.topLeft();
        for (const QRectF &r : boxes)
            points << QPointF(r.left(), r.bottom()) - origin << QPointF(r.right(), r.bottom()) - origin
                   << QPointF(r.left(), r.top()) - origin << QPointF(r.right(), r.top()) - origin;
        auto annotation = PdfAnnotation::create(united, subtype);
        annotation->setColor(color);
        annotation->setQuadrilateralPoints(points);
        add(annotation, page);
    }
}

bool isEditable(const std::shared_ptr<PdfAnnotation> &annotation)
{
    static const QStringList editable{QStringLiteral("Stamp"),  QStringLiteral("FreeText"), QStringLiteral("Ink"),
                                      QStringLiteral("Square"), QStringLiteral("Circle"),   QStringLiteral("Widget"),
                                      QStringLiteral("Line")};
    return annotation && editable.contains(annotation->type(), Qt::CaseSensitive);
}

bool isSelectable(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (isEditable(annotation))
        return true;
    const QString type = annotation ? annotation->type() : QString();
    return type == PdfAnnotation::Highlight || type == PdfAnnotation::Underline || type == PdfAnnotation::StrikeOut;
}

std::shared_ptr<ImageStampAnnotation> makeImageStamp(const QImage &image, const QRectF &bounds)
{
    auto stamp = ImageStampAnnotation::create(bounds);
    stamp->setStampImage(image);
    stamp->setBorderWidth(0);
    return stamp;
}

} // namespace AnnotationFactory
