// Builders of annotations, without state.
#pragma once

#include "PdfSelection.h"

#include <QColor>
#include <QString>

#include <functional>
#include <memory>

class ImageStampAnnotation;
class PdfAnnotation;
class PdfPage;
class QImage;

namespace AnnotationFactory {

using AddStep = std::function<void(const std::shared_ptr<PdfAnnotation> &, const std::shared_ptr<PdfPage> &)>;

// One markup annotation (Highlight, Underline or StrikeOut) per page the
// selection touches, covering the glyphs of each selected line of that page
// with four points (white space at a line's ends left out, a line of nothing
// else left alone); each is handed to `add` with its page.
void applyMarkup(const QString &subtype, const PdfSelection &selection, const QColor &color, const AddStep &add);

// True when the overlay may select, move, resize, nudge and delete the
// annotation: stamps, free text, ink, squares, circles, form fields and lines.
// Text markup, links, notes and every other kind are left alone.
bool isEditable(const std::shared_ptr<PdfAnnotation> &annotation);
// True when a click selects the annotation: the editable kinds, and text
// markup (highlight, underline, strike-out), which can be deleted but not
// moved or resized.
bool isSelectable(const std::shared_ptr<PdfAnnotation> &annotation);

// True when the overlay may also resize it: the editable kinds but notes,
// whose icon keeps its size.
bool isResizable(const std::shared_ptr<PdfAnnotation> &annotation);

// The name notes and replies are signed with: the account's full name, else
// its login name.
QString authorName();
// A note icon centred on a page-space point and kept on the page, with the
// user as its author and `text` as its contents, turned to read upright on
// the page as it is shown.
std::shared_ptr<PdfAnnotation> makeNote(const std::shared_ptr<PdfPage> &page, QPointF centre, const QString &text);
// Where a reply to `parent` is placed: beside it (right, else left) and
// below the replies it has.
QPointF replyPosition(const std::shared_ptr<PdfAnnotation> &parent);

// The width, in points, a signature is placed at.
constexpr qreal signatureWidth = 200;

// A stamp showing `image` stretched over `bounds`, without a border. Its saved
// look is drawn once, at the size it has when it is first put on a page.
std::shared_ptr<ImageStampAnnotation> makeImageStamp(const QImage &image, const QRectF &bounds);

} // namespace AnnotationFactory
