// An annotation on a page: the engine's counterpart of a PDF annotation
// dictionary. It keeps its identity for its whole life: taken off its page
// and put back (undo, redo) it is the same object, and the overlay and the
// document model compare annotations by identity.
#pragma once

#include "PdfTypes.h"

#include <QDateTime>
#include <QImage>
#include <QPointF>
#include <QPolygonF>
#include <QRectF>
#include <QVector>

#include <memory>
#include <optional>

struct DocCore;
class PdfPage;

class PdfAnnotation : public std::enable_shared_from_this<PdfAnnotation> {
public:
    // Subtype names of the kinds the system creates.
    static const QString Square, Circle, Ink, Highlight, Underline, StrikeOut, FreeText, Stamp;
    // A note: an icon on the page whose contents open in a popup ("Text").
    static const QString Text;
    // The size of a note's icon, in points.
    static constexpr qreal noteIconSize = 20;

    // A new annotation that is on no page yet. `type` is a subtype name such as "Square".
    static std::shared_ptr<PdfAnnotation> create(const QRectF &bounds, const QString &type);
    virtual ~PdfAnnotation();

    PdfAnnotation(const PdfAnnotation &) = delete;
    PdfAnnotation &operator=(const PdfAnnotation &) = delete;

    QString type() const { return type_; }
    // Page space: points, origin at the lower left, y up.
    QRectF bounds() const { return bounds_; }
    void setBounds(const QRectF &bounds);

    // Stroke colour (the background for free text); invalid when not set.
    QColor color() const { return color_; }
    void setColor(const QColor &color);
    // Fill of squares and circles; invalid when there is none.
    QColor interiorColor() const { return interiorColor_; }
    void setInteriorColor(const QColor &color);
    // Border line width; none when the annotation has no border entry.
    std::optional<qreal> borderWidth() const { return borderWidth_; }
    void setBorderWidth(std::optional<qreal> width);

    QString contents() const { return contents_; }
    void setContents(const QString &text);
    // Who wrote it (/T); empty when the file does not say.
    QString author() const { return author_; }
    void setAuthor(const QString &author);
    // When it was last changed (/M, else /CreationDate); invalid when the
    // file does not say. Each change of it written by us sets it to now.
    QDateTime modified() const { return modified_; }
    // A PDF date ("D:YYYYMMDDHHmmSS+HH'mm'", its tail from the month on
    // optional) as a date and time; invalid when it is not one.
    static QDateTime dateFromString(const QByteArray &text);
    // Font and text colour of free text.
    std::optional<PdfFont> font() const { return font_; }
    void setFont(const std::optional<PdfFont> &font);
    QColor fontColor() const { return fontColor_; }
    void setFontColor(const QColor &color);
    // How far free text (or a note's icon) is turned, in degrees clockwise (0, 90, 180 or 270):
    // on a page shown turned as far, it reads upright. Free text writes it as /Rotate.
    int rotation() const { return rotation_; }
    void setRotation(int degrees);

    // Text markup: four points per line (upper left, upper right, lower left,
    // lower right), relative to the bounds' origin.
    QVector<QPointF> quadrilateralPoints() const { return quadPoints_; }
    void setQuadrilateralPoints(const QVector<QPointF> &points);
    // Ink: paths relative to the bounds' origin.
    QVector<QPolygonF> inkPaths() const { return inkPaths_; }
    void addInkPath(const QPolygonF &path);

    // The annotation this one answers (/IRT, a reply to it): a reply is a
    // note on the same page. Set before the reply is put on a page; read back
    // from the file as the annotation of its page it refers to, or none.
    std::shared_ptr<PdfAnnotation> inReplyTo() const;
    void setInReplyTo(const std::shared_ptr<PdfAnnotation> &annotation);
    bool isReply() const { return !inReplyTo_.expired() || replyToObject_ > 0; }

    // The image a stamp shows; its saved look is made once, at the size the
    // stamp has when it is first put on a page, and scaled when it is resized.
    QImage stampImage() const { return stampImage_; }
    void setStampImage(const QImage &image);

    // The page the annotation is on, or none.
    std::shared_ptr<PdfPage> page() const { return page_.lock(); }

    // The part of the page its look can cover: the bounds and a little more
    // for the stroke and smoothed edges; with `bounds` another place of it.
    QRectF drawnArea(const QRectF &bounds) const;
    QRectF drawnArea() const { return drawnArea(bounds_); }

protected:
    PdfAnnotation(const QRectF &bounds, const QString &type);

private:
    friend class PdfPage;
    struct Native;
    static std::shared_ptr<PdfAnnotation> fromFile(const std::shared_ptr<DocCore> &core, std::unique_ptr<Native> native);

    void readFromFile();
    // Puts the annotation's dictionary into `core` (making it on first use).
    void materialize(const std::shared_ptr<DocCore> &core);
    // Writes the changed state to the file and refreshes the page's picture.
    void changed(bool lookChanged, const QRectF &before = QRectF());
    void announce(const QRectF &before);
    void writeDictionary();
    void writeAppearance();
    void releaseObject();

    QString type_;
    QRectF bounds_;
    QColor color_;
    QColor interiorColor_;
    std::optional<qreal> borderWidth_;
    QString contents_;
    QString author_;
    QDateTime modified_;
    std::optional<PdfFont> font_;
    QColor fontColor_;
    int rotation_ = 0;
    QVector<QPointF> quadPoints_;
    QVector<QPolygonF> inkPaths_;
    QImage stampImage_;
    mutable std::weak_ptr<PdfAnnotation> inReplyTo_;
    // The object number /IRT names in the file, until it is matched to an annotation.
    mutable int replyToObject_ = 0;

    // The look of an annotation read from a file is its own until a change
    // asks for a new one; annotations made here always get their look from us.
    bool ownLook_ = true;
    std::shared_ptr<DocCore> core_;
    std::unique_ptr<Native> native_;
    std::weak_ptr<PdfPage> page_;
};
