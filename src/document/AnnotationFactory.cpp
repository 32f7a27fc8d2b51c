#include "AnnotationFactory.h"

#include "ImageStampAnnotation.h"

#include "PdfAnnotation.h"
#include "PdfPage.h"

#include <QColor>

#include <algorithm>

#include <pwd.h>
#include <unistd.h>

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
        annotation->setAuthor(authorName());
        annotation->setColor(color);
        annotation->setQuadrilateralPoints(points);
        add(annotation, page);
    }
}

bool isEditable(const std::shared_ptr<PdfAnnotation> &annotation)
{
    static const QStringList editable{QStringLiteral("Stamp"),  QStringLiteral("FreeText"), QStringLiteral("Ink"),
                                      QStringLiteral("Square"), QStringLiteral("Circle"),   QStringLiteral("Widget"),
                                      QStringLiteral("Line"),   QStringLiteral("Text")};
    return annotation && editable.contains(annotation->type(), Qt::CaseSensitive);
}

bool isSelectable(const std::shared_ptr<PdfAnnotation> &annotation)
{
    if (isEditable(annotation))
        return true;
    const QString type = annotation ? annotation->type() : QString();
    return type == PdfAnnotation::Highlight || type == PdfAnnotation::Underline || type == PdfAnnotation::StrikeOut;
}

bool isResizable(const std::shared_ptr<PdfAnnotation> &annotation)
{
    return isEditable(annotation) && annotation->type() != PdfAnnotation::Text;
}

QString authorName()
{
    // The account's full name is the first field of its GECOS entry.
    if (const passwd *account = getpwuid(getuid()); account) {
        const QString full = QString::fromLocal8Bit(account->pw_gecos ? account->pw_gecos : "").section(QLatin1Char(','), 0, 0);
        if (!full.trimmed().isEmpty())
            return full.trimmed();
        if (account->pw_name && *account->pw_name)
            return QString::fromLocal8Bit(account->pw_name);
    }
    return qEnvironmentVariable("USER");
}

QRectF noteBounds(const std::shared_ptr<PdfPage> &page, QPointF centre)
{
    const qreal size = PdfAnnotation::noteIconSize;
    QRectF bounds(centre - QPointF(size / 2, size / 2), QSizeF(size, size));
    if (page) {
        const QRectF paper = page->bounds();
        bounds.moveLeft(std::clamp(bounds.left(), paper.left(), std::max(paper.left(), paper.right() - size)));
        bounds.moveTop(std::clamp(bounds.top(), paper.top(), std::max(paper.top(), paper.bottom() - size)));
    }
    return bounds;
}

std::shared_ptr<PdfAnnotation> makeNote(const std::shared_ptr<PdfPage> &page, QPointF centre, const QString &text)
{
    auto note = PdfAnnotation::create(noteBounds(page, centre), PdfAnnotation::Text);
    note->setColor(QColor(255, 213, 79));
    note->setAuthor(authorName());
    note->setContents(text);
    if (page)
        note->setRotation(page->rotation());
    return note;
}

QPointF replyPosition(const std::shared_ptr<PdfAnnotation> &parent)
{
    const auto page = parent ? parent->page() : nullptr;
    if (!page)
        return {};
    const qreal size = PdfAnnotation::noteIconSize, gap = 2;
    const QRectF of = parent->bounds();
    int replies = 0;
    for (const auto &annotation : page->annotations())
        if (annotation->inReplyTo() == parent)
            ++replies;
    const bool roomRight = of.right() + gap + size <= page->bounds().right();
    const qreal x = roomRight ? of.right() + gap + size / 2 : of.left() - gap - size / 2;
    // Page space has y up: the first reply is level with the parent's top, the next ones below.
    return {x, of.bottom() - size / 2 - replies * (size + gap)};
}

std::shared_ptr<ImageStampAnnotation> makeImageStamp(const QImage &image, const QRectF &bounds)
{
    auto stamp = ImageStampAnnotation::create(bounds);
    stamp->setAuthor(authorName());
    stamp->setStampImage(image);
    stamp->setBorderWidth(0);
    return stamp;
}

} // namespace AnnotationFactory
