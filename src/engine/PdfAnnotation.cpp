#include "PdfAnnotation.h"

#include "Appearance.h"
#include "DocCore.h"
#include "Native.h"
#include "PdfPage.h"

#include <QTimeZone>
#include <QUuid>

#include <cctype>
#include <cmath>

const QString PdfAnnotation::Square = QStringLiteral("Square");
const QString PdfAnnotation::Circle = QStringLiteral("Circle");
const QString PdfAnnotation::Ink = QStringLiteral("Ink");
const QString PdfAnnotation::Highlight = QStringLiteral("Highlight");
const QString PdfAnnotation::Underline = QStringLiteral("Underline");
const QString PdfAnnotation::StrikeOut = QStringLiteral("StrikeOut");
const QString PdfAnnotation::FreeText = QStringLiteral("FreeText");
const QString PdfAnnotation::Stamp = QStringLiteral("Stamp");
const QString PdfAnnotation::Text = QStringLiteral("Text");

namespace {

// Kinds whose look the engine can draw from the annotation's properties.
bool drawnByUs(const QString &type)
{
    return type == PdfAnnotation::Square || type == PdfAnnotation::Circle || type == PdfAnnotation::Ink ||
           type == PdfAnnotation::Highlight || type == PdfAnnotation::Underline || type == PdfAnnotation::StrikeOut ||
           type == PdfAnnotation::FreeText || type == PdfAnnotation::Text;
}

void putColor(fz_context *c, pdf_obj *dict, pdf_obj *key, const QColor &color)
{
    if (!color.isValid()) {
        pdf_dict_del(c, dict, key);
        return;
    }
    pdf_obj *array = pdf_dict_put_array(c, dict, key, 3);
    pdf_array_push_real(c, array, color.redF());
    pdf_array_push_real(c, array, color.greenF());
    pdf_array_push_real(c, array, color.blueF());
}

void putAlpha(fz_context *c, pdf_obj *dict, pdf_obj *key, const QColor &color)
{
    if (color.isValid() && color.alpha() < 255)
        pdf_dict_put_real(c, dict, key, color.alphaF());
    else
        pdf_dict_del(c, dict, key);
}

// A turn in degrees as a quarter turn clockwise: 0, 90, 180 or 270.
int normalizedRotation(int degrees)
{
    return (degrees % 360 + 360) % 360 / 90 * 90;
}

struct DefaultAppearance {
    std::optional<PdfFont> font;
    QColor color;
};

// Reads "/Name size Tf r g b rg" (or g / k) from a default-appearance string.
DefaultAppearance parseDefaultAppearance(const QByteArray &da)
{
    DefaultAppearance out;
    const QList<QByteArray> tokens = da.simplified().split(' ');
    for (int i = 0; i < tokens.size(); ++i) {
        auto real = [&](int back) { return i - back >= 0 ? tokens[i - back].toDouble() : 0.0; };
        if (tokens[i] == "Tf" && i >= 2 && tokens[i - 2].startsWith('/')) {
            out.font = PdfFont{appearance::fontNameFromToken(tokens[i - 2].mid(1)), real(1)};
        } else if (tokens[i] == "rg" && i >= 3) {
            out.color =
                QColor::fromRgbF(std::clamp(real(3), 0.0, 1.0), std::clamp(real(2), 0.0, 1.0), std::clamp(real(1), 0.0, 1.0));
        } else if (tokens[i] == "g" && i >= 1) {
            const qreal g = std::clamp(real(1), 0.0, 1.0);
            out.color = QColor::fromRgbF(g, g, g);
        } else if (tokens[i] == "k" && i >= 4) {
            const qreal k = std::clamp(real(1), 0.0, 1.0);
            out.color = QColor::fromRgbF((1 - real(4)) * (1 - k), (1 - real(3)) * (1 - k), (1 - real(2)) * (1 - k));
        }
    }
    return out;
}

// A date as a PDF date string, in local time with its offset from UTC.
QByteArray pdfDate(const QDateTime &when)
{
    const QDateTime local = when.toLocalTime();
    const int offset = local.offsetFromUtc() / 60;
    const QByteArray zone = offset == 0 ? QByteArray("Z")
                                        : QByteArray(offset < 0 ? "-" : "+") +
                                              QByteArray::number(std::abs(offset) / 60).rightJustified(2, '0') + '\'' +
                                              QByteArray::number(std::abs(offset) % 60).rightJustified(2, '0') + '\'';
    return "D:" + local.toString(QStringLiteral("yyyyMMddHHmmss")).toLatin1() + zone;
}

} // namespace

QDateTime PdfAnnotation::dateFromString(const QByteArray &text)
{
    QByteArray s = text.trimmed();
    if (s.startsWith("D:"))
        s = s.mid(2);
    qsizetype at = 0;
    // The next `width` digits as a number, or `otherwise` when the string ends there.
    auto field = [&](int width, int otherwise) -> std::optional<int> {
        if (at >= s.size() || !std::isdigit(static_cast<unsigned char>(s[at])))
            return otherwise;
        if (at + width > s.size())
            return std::nullopt;
        int value = 0;
        for (int i = 0; i < width; ++i, ++at) {
            if (!std::isdigit(static_cast<unsigned char>(s[at])))
                return std::nullopt;
            value = value * 10 + (s[at] - '0');
        }
        return value;
    };
    if (s.size() < 4)
        return {};
    const auto year = field(4, -1), month = field(2, 1), day = field(2, 1), hour = field(2, 0), minute = field(2, 0),
               second = field(2, 0);
    if (!year || *year < 0 || !month || !day || !hour || !minute || !second)
        return {};
    const QDate date(*year, *month, *day);
    const QTime time(*hour, *minute, std::min(*second, 59));
    if (!date.isValid() || !time.isValid())
        return {};
    if (at >= s.size())
        return QDateTime(date, time); // no zone given: local time
    const char sign = s[at++];
    if (sign == 'Z')
        return QDateTime(date, time, QTimeZone::utc());
    if (sign != '+' && sign != '-')
        return QDateTime(date, time);
    const auto hours = field(2, 0);
    if (at < s.size() && s[at] == '\'')
        ++at;
    const auto minutes = field(2, 0);
    if (!hours || !minutes || *hours > 23 || *minutes > 59)
        return QDateTime(date, time);
    const int offset = (*hours * 60 + *minutes) * 60 * (sign == '-' ? -1 : 1);
    return QDateTime(date, time, QTimeZone(offset));
}

PdfAnnotation::PdfAnnotation(const QRectF &bounds, const QString &type)
    : type_(type), bounds_(bounds.normalized()), native_(std::make_unique<Native>())
{
}

std::shared_ptr<PdfAnnotation> PdfAnnotation::create(const QRectF &bounds, const QString &type)
{
    return std::shared_ptr<PdfAnnotation>(new PdfAnnotation(bounds, type));
}

std::shared_ptr<PdfAnnotation> PdfAnnotation::fromFile(const std::shared_ptr<DocCore> &core, std::unique_ptr<Native> native)
{
    std::shared_ptr<PdfAnnotation> annotation(new PdfAnnotation({}, {}));
    annotation->core_ = core;
    annotation->native_ = std::move(native);
    annotation->ownLook_ = false;
    annotation->readFromFile();
    return annotation;
}

PdfAnnotation::~PdfAnnotation()
{
    releaseObject();
}

void PdfAnnotation::releaseObject()
{
    if (native_->obj) {
        fz_context *c = mu::ctx();
        pdf_drop_obj(c, native_->appearance);
        pdf_drop_obj(c, native_->obj);
    }
    native_->appearance = nullptr;
    native_->obj = nullptr;
    core_.reset();
}

void PdfAnnotation::readFromFile()
{
    const char *subtype = "";
    const char *contents = "";
    const char *da = "";
    const char *author = "";
    const char *modified = "";
    fz_rect rect{};
    mu::tryGuard([&](fz_context *c) {
        pdf_obj *d = native_->obj;
        subtype = pdf_to_name(c, pdf_dict_get(c, d, PDF_NAME(Subtype)));
        contents = pdf_dict_get_text_string(c, d, PDF_NAME(Contents));
        da = pdf_to_str_buf(c, pdf_dict_get(c, d, PDF_NAME(DA)));
        author = pdf_dict_get_text_string(c, d, PDF_NAME(T));
        modified = pdf_to_str_buf(c, pdf_dict_get(c, d, PDF_NAME(M)));
        if (!*modified)
            modified = pdf_to_str_buf(c, pdf_dict_get(c, d, PDF_NAME(CreationDate)));
        rect = pdf_to_rect(c, pdf_dict_get(c, d, PDF_NAME(Rect)));
        pdf_obj *irt = pdf_dict_get(c, d, PDF_NAME(IRT));
        // A reply (/RT /R, the default), not a group member (/RT /Group).
        if (pdf_is_indirect(c, irt) && !pdf_name_eq(c, pdf_dict_gets(c, d, "RT"), PDF_NAME(Group)))
            replyToObject_ = pdf_to_num(c, irt);
        const bool freeText = !strcmp(subtype, "FreeText");
        pdf_obj *ca = pdf_dict_get(c, d, PDF_NAME(CA));
        const qreal strokeAlpha = pdf_is_number(c, ca) ? pdf_to_real(c, ca) : 1.0;
        pdf_obj *fillCa = pdf_dict_get(c, d, PDF_NAME(ca));
        const qreal fillAlpha = pdf_is_number(c, fillCa) ? pdf_to_real(c, fillCa) : strokeAlpha;
        color_ = appearance::colorFromArray(c, pdf_dict_get(c, d, PDF_NAME(C)), freeText ? fillAlpha : strokeAlpha);
        if (freeText && !color_.isValid())
            color_ = QColor(0, 0, 0, 0);
        interiorColor_ = appearance::colorFromArray(c, pdf_dict_get(c, d, PDF_NAME(IC)), fillAlpha);

        pdf_obj *bs = pdf_dict_get(c, d, PDF_NAME(BS));
        pdf_obj *border = pdf_dict_get(c, d, PDF_NAME(Border));
        if (pdf_is_number(c, pdf_dict_get(c, bs, PDF_NAME(W))))
            borderWidth_ = pdf_dict_get_real(c, bs, PDF_NAME(W));
        else if (pdf_array_len(c, border) >= 3)
            borderWidth_ = pdf_array_get_real(c, border, 2);

        if (freeText)
            rotation_ = normalizedRotation(pdf_dict_get_int(c, d, PDF_NAME(Rotate)));

        const qreal x0 = std::min(rect.x0, rect.x1), y0 = std::min(rect.y0, rect.y1);
        pdf_obj *quads = pdf_dict_get(c, d, PDF_NAME(QuadPoints));
        for (int i = 0; i + 1 < pdf_array_len(c, quads); i += 2)
            quadPoints_.append(QPointF(pdf_array_get_real(c, quads, i) - x0, pdf_array_get_real(c, quads, i + 1) - y0));
        pdf_obj *ink = pdf_dict_get(c, d, PDF_NAME(InkList));
        for (int i = 0; i < pdf_array_len(c, ink); ++i) {
            pdf_obj *path = pdf_array_get(c, ink, i);
            inkPaths_.append(QPolygonF());
            for (int j = 0; j + 1 < pdf_array_len(c, path); j += 2)
                inkPaths_.last().append(QPointF(pdf_array_get_real(c, path, j) - x0, pdf_array_get_real(c, path, j + 1) - y0));
        }
    });
    type_ = QString::fromLatin1(subtype);
    contents_ = QString::fromUtf8(contents);
    author_ = QString::fromUtf8(author);
    modified_ = dateFromString(QByteArray(modified));
    bounds_ = QRectF(QPointF(std::min(rect.x0, rect.x1), std::min(rect.y0, rect.y1)),
                     QPointF(std::max(rect.x0, rect.x1), std::max(rect.y0, rect.y1)));
    if (*da) {
        const DefaultAppearance parsed = parseDefaultAppearance(QByteArray(da));
        font_ = parsed.font;
        fontColor_ = parsed.color;
    }
}

void PdfAnnotation::materialize(const std::shared_ptr<DocCore> &core)
{
    if (native_->obj && core_ == core)
        return;
    if (native_->obj && !ownLook_) {
        // A file's annotation moving to another document takes its dictionary
        // (and its popup) along.
        pdf_obj *moved = nullptr;
        Graft graft(core_, core->doc);
        const bool copied = mu::tryGuard([&](fz_context *c) { moved = copyAnnotation(c, core->doc, &graft, native_->obj); });
        if (!copied)
            throw mu::Error("cannot copy the annotation");
        releaseObject();
        core_ = core;
        native_->obj = moved;
        return;
    }
    releaseObject();
    mu::guard([&](fz_context *c) { native_->obj = pdf_add_new_dict(c, core->doc, 16); });
    core_ = core;
    ownLook_ = true;
    writeDictionary();
    writeAppearance();
}

void PdfAnnotation::writeDictionary()
{
    const QByteArray type = type_.toLatin1();
    const QByteArray id = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    const QByteArray contents = contents_.toUtf8();
    QByteArray da;
    if (type_ == FreeText) {
        const QColor text = fontColor_.isValid() ? fontColor_ : QColor(Qt::black);
        const PdfFont font = appearance::freeTextFont(font_);
        da = '/' + appearance::fontNameToken(font.name) + ' ' + appearance::number(font.size) + " Tf " +
             appearance::number(text.redF()) + ' ' + appearance::number(text.greenF()) + ' ' + appearance::number(text.blueF()) +
             " rg";
    }
    const bool freeText = type_ == FreeText;
    modified_ = QDateTime::currentDateTime();
    const QByteArray author = author_.toUtf8();
    const QByteArray modified = pdfDate(modified_);
    const auto parent = inReplyTo_.lock();
    mu::guard([&](fz_context *c) {
        pdf_obj *d = native_->obj;
        pdf_dict_put(c, d, PDF_NAME(Type), PDF_NAME(Annot));
        pdf_dict_put_drop(c, d, PDF_NAME(Subtype), pdf_new_name(c, type.constData()));
        pdf_dict_put_rect(c, d, PDF_NAME(Rect),
                          fz_rect{float(bounds_.left()), float(bounds_.top()), float(bounds_.right()), float(bounds_.bottom())});
        if (!pdf_dict_gets(c, d, "NM"))
            mu::putsDrop(c, d, "NM", pdf_new_text_string(c, id.constData()));
        pdf_dict_put_int(c, d, PDF_NAME(F), 4); // printable
        if (author.isEmpty())
            pdf_dict_del(c, d, PDF_NAME(T));
        else
            pdf_dict_put_text_string(c, d, PDF_NAME(T), author.constData());
        pdf_dict_put_string(c, d, PDF_NAME(M), modified.constData(), size_t(modified.size()));
        if (!pdf_dict_get(c, d, PDF_NAME(CreationDate)))
            pdf_dict_put_string(c, d, PDF_NAME(CreationDate), modified.constData(), size_t(modified.size()));
        if (type_ == Text) {
            if (!pdf_dict_get(c, d, PDF_NAME(Name)))
                pdf_dict_put_drop(c, d, PDF_NAME(Name), pdf_new_name(c, "Note"));
            pdf_dict_put_bool(c, d, PDF_NAME(Open), 0);
        }
        if (parent && parent->native_->obj && parent->core_ == core_) {
            pdf_dict_put(c, d, PDF_NAME(IRT), parent->native_->obj);
            mu::putsDrop(c, d, "RT", pdf_new_name(c, "R"));
        }
        if (freeText) {
            // A transparent background is written as no background.
            putColor(c, d, PDF_NAME(C), color_.isValid() && color_.alpha() > 0 ? color_ : QColor());
            pdf_dict_put_string(c, d, PDF_NAME(DA), da.constData(), size_t(da.size()));
            if (rotation_)
                pdf_dict_put_int(c, d, PDF_NAME(Rotate), rotation_);
            else
                pdf_dict_del(c, d, PDF_NAME(Rotate));
        } else {
            putColor(c, d, PDF_NAME(C), color_);
            putAlpha(c, d, PDF_NAME(CA), color_);
            putAlpha(c, d, PDF_NAME(ca), interiorColor_);
            putColor(c, d, PDF_NAME(IC), interiorColor_);
        }
        if (borderWidth_) {
            pdf_obj *bs = pdf_dict_put_dict(c, d, PDF_NAME(BS), 2);
            pdf_dict_put_real(c, bs, PDF_NAME(W), *borderWidth_);
            pdf_dict_put(c, bs, PDF_NAME(S), PDF_NAME(S));
            pdf_obj *border = pdf_dict_put_array(c, d, PDF_NAME(Border), 3);
            pdf_array_push_int(c, border, 0);
            pdf_array_push_int(c, border, 0);
            pdf_array_push_real(c, border, *borderWidth_);
        } else {
            pdf_dict_del(c, d, PDF_NAME(BS));
            pdf_dict_del(c, d, PDF_NAME(Border));
        }
        if (contents.isEmpty())
            pdf_dict_del(c, d, PDF_NAME(Contents));
        else
            pdf_dict_put_text_string(c, d, PDF_NAME(Contents), contents.constData());
        // Points are stored relative to the bounds here and absolute in the file.
        const qreal x0 = bounds_.left(), y0 = bounds_.top();
        if (quadPoints_.isEmpty()) {
            pdf_dict_del(c, d, PDF_NAME(QuadPoints));
        } else {
            pdf_obj *quads = pdf_dict_put_array(c, d, PDF_NAME(QuadPoints), int(quadPoints_.size()) * 2);
            for (const QPointF &p : quadPoints_) {
                pdf_array_push_real(c, quads, p.x() + x0);
                pdf_array_push_real(c, quads, p.y() + y0);
            }
        }
        if (inkPaths_.isEmpty()) {
            pdf_dict_del(c, d, PDF_NAME(InkList));
        } else {
            pdf_obj *ink = pdf_dict_put_array(c, d, PDF_NAME(InkList), int(inkPaths_.size()));
            for (const QPolygonF &path : inkPaths_) {
                pdf_obj *array = pdf_array_push_array(c, ink, int(path.size()) * 2);
                for (const QPointF &p : path) {
                    pdf_array_push_real(c, array, p.x() + x0);
                    pdf_array_push_real(c, array, p.y() + y0);
                }
            }
        }
    });
}

void PdfAnnotation::writeAppearance()
{
    if (!drawnByUs(type_) && !(type_ == Stamp && !stampImage_.isNull()))
        return;
    appearance::Input input{type_, bounds_.size(), color_,      interiorColor_, borderWidth_, contents_,
                            font_, fontColor_,     quadPoints_, inkPaths_,      stampImage_};
    if ((type_ == FreeText || type_ == Text) && rotation_) {
        // The text (or a note's icon) is set in its own upright box, which the appearance turns onto the bounds.
        input.rotation = rotation_;
        if (rotation_ % 180)
            input.size.transpose();
    }
    appearance::write(*core_, native_->obj, input, &native_->appearance);
}

QRectF PdfAnnotation::drawnArea(const QRectF &bounds) const
{
    const qreal margin = 3 + borderWidth_.value_or(1);
    return bounds.adjusted(-margin, -margin, margin, margin);
}

void PdfAnnotation::changed(bool lookChanged, const QRectF &before)
{
    if (!native_->obj)
        return;
    try {
        if (ownLook_ || (lookChanged && drawnByUs(type_))) {
            ownLook_ = true;
            writeDictionary();
            if (lookChanged)
                writeAppearance();
        }
    } catch (const mu::Error &) {
        // The in-memory properties stay; the file keeps its previous state.
    }
    announce(before);
}

// Tells the page where its look changed: where the annotation is and, when it
// moved, where it was (two announcements when the places are apart, so that
// what lies between is not drawn again).
void PdfAnnotation::announce(const QRectF &before)
{
    auto page = page_.lock();
    if (!page)
        return;
    const QRectF now = drawnArea();
    if (before.isNull())
        page->changed(PdfChangeChannel::Annotations, now);
    else if (drawnArea(before).intersects(now))
        page->changed(PdfChangeChannel::Annotations, now.united(drawnArea(before)));
    else {
        page->changed(PdfChangeChannel::Annotations, drawnArea(before));
        page->changed(PdfChangeChannel::Annotations, now);
    }
}

void PdfAnnotation::setBounds(const QRectF &bounds)
{
    const QRectF old = bounds_;
    bounds_ = bounds.normalized();
    const bool resized = old.size() != bounds_.size();
    if (resized && type_ == Ink && old.width() > 0 && old.height() > 0) {
        // An ink drawing stretches with its box.
        const qreal sx = bounds_.width() / old.width(), sy = bounds_.height() / old.height();
        for (QPolygonF &path : inkPaths_)
            for (QPointF &p : path)
                p = QPointF(p.x() * sx, p.y() * sy);
    }
    if (native_->obj && !ownLook_ && !(resized && drawnByUs(type_))) {
        // Another program's annotation keeps its look: only its place is written,
        // and readers fit its appearance into the new rectangle.
        const QPointF delta = bounds_.topLeft() - old.topLeft();
        mu::tryGuard([&](fz_context *c) {
            pdf_dict_put_rect(
                c, native_->obj, PDF_NAME(Rect),
                fz_rect{float(bounds_.left()), float(bounds_.top()), float(bounds_.right()), float(bounds_.bottom())});
            if (resized)
                return;
            const char *keys[] = {"QuadPoints", "L", "Vertices", "CL"};
            for (const char *key : keys) {
                pdf_obj *array = pdf_dict_gets(c, native_->obj, key);
                for (int i = 0; i + 1 < pdf_array_len(c, array); i += 2) {
                    pdf_array_put_drop(c, array, i, pdf_new_real(c, pdf_array_get_real(c, array, i) + delta.x()));
                    pdf_array_put_drop(c, array, i + 1, pdf_new_real(c, pdf_array_get_real(c, array, i + 1) + delta.y()));
                }
            }
            pdf_obj *ink = pdf_dict_get(c, native_->obj, PDF_NAME(InkList));
            for (int j = 0; j < pdf_array_len(c, ink); ++j) {
                pdf_obj *array = pdf_array_get(c, ink, j);
                for (int i = 0; i + 1 < pdf_array_len(c, array); i += 2) {
                    pdf_array_put_drop(c, array, i, pdf_new_real(c, pdf_array_get_real(c, array, i) + delta.x()));
                    pdf_array_put_drop(c, array, i + 1, pdf_new_real(c, pdf_array_get_real(c, array, i + 1) + delta.y()));
                }
            }
        });
        announce(old);
        return;
    }
    changed(resized && type_ != Stamp, old);
}

void PdfAnnotation::setColor(const QColor &color)
{
    color_ = color;
    changed(true);
}

void PdfAnnotation::setInteriorColor(const QColor &color)
{
    interiorColor_ = color;
    changed(true);
}

void PdfAnnotation::setBorderWidth(std::optional<qreal> width)
{
    borderWidth_ = width;
    changed(true);
}

void PdfAnnotation::setContents(const QString &text)
{
    contents_ = text;
    if (native_->obj && !ownLook_ && type_ != FreeText) {
        const QByteArray utf8 = text.toUtf8();
        modified_ = QDateTime::currentDateTime();
        const QByteArray date = pdfDate(modified_);
        mu::tryGuard([&](fz_context *c) {
            pdf_dict_put_text_string(c, native_->obj, PDF_NAME(Contents), utf8.constData());
            pdf_dict_put_string(c, native_->obj, PDF_NAME(M), date.constData(), size_t(date.size()));
        });
        announce({});
        return;
    }
    changed(type_ == FreeText);
}

void PdfAnnotation::setAuthor(const QString &author)
{
    author_ = author;
    if (native_->obj && !ownLook_) {
        // Another program's annotation keeps its look: only the entries change.
        const QByteArray utf8 = author.toUtf8();
        modified_ = QDateTime::currentDateTime();
        const QByteArray date = pdfDate(modified_);
        mu::tryGuard([&](fz_context *c) {
            pdf_dict_put_text_string(c, native_->obj, PDF_NAME(T), utf8.constData());
            pdf_dict_put_string(c, native_->obj, PDF_NAME(M), date.constData(), size_t(date.size()));
        });
        announce({});
        return;
    }
    changed(false);
}

void PdfAnnotation::setFont(const std::optional<PdfFont> &font)
{
    font_ = font;
    changed(true);
}

void PdfAnnotation::setFontColor(const QColor &color)
{
    fontColor_ = color;
    changed(true);
}

void PdfAnnotation::setRotation(int degrees)
{
    rotation_ = normalizedRotation(degrees);
    changed(type_ == FreeText);
}

void PdfAnnotation::setQuadrilateralPoints(const QVector<QPointF> &points)
{
    quadPoints_ = points;
    changed(true);
}

void PdfAnnotation::addInkPath(const QPolygonF &path)
{
    inkPaths_.append(path);
    changed(true);
}

std::shared_ptr<PdfAnnotation> PdfAnnotation::inReplyTo() const
{
    if (auto parent = inReplyTo_.lock())
        return parent;
    const auto page = page_.lock();
    if (replyToObject_ <= 0 || !page)
        return nullptr;
    const auto candidates = page->annotations();
    size_t found = candidates.size();
    mu::tryGuard([&](fz_context *c) {
        for (size_t i = 0; i < candidates.size() && found == candidates.size(); ++i)
            if (candidates[i].get() != this && candidates[i]->native_->obj &&
                pdf_to_num(c, candidates[i]->native_->obj) == replyToObject_)
                found = i;
    });
    if (found == candidates.size())
        return nullptr;
    inReplyTo_ = candidates[found];
    return candidates[found];
}

void PdfAnnotation::setInReplyTo(const std::shared_ptr<PdfAnnotation> &annotation)
{
    inReplyTo_ = annotation;
    replyToObject_ = 0;
    changed(false);
}

void PdfAnnotation::setStampImage(const QImage &image)
{
    stampImage_ = image;
    changed(true);
}
