// A recorded picture of a page that any thread may render: recorded on the
// thread that owns the document, played back on workers.
#pragma once

#include <QImage>
#include <QRectF>
#include <QSizeF>

#include <memory>

class PdfDisplayList {
public:
    struct Native;
    // A transparent list is drawn on a transparent background, others on white.
    PdfDisplayList(std::unique_ptr<Native> native, QSizeF size, bool transparent = false);
    ~PdfDisplayList();
    PdfDisplayList(const PdfDisplayList &) = delete;
    PdfDisplayList &operator=(const PdfDisplayList &) = delete;

    // Size of the page as shown (rotation applied), in points.
    QSizeF size() const { return size_; }

    // Renders `region` (display points, origin top left; the whole page when
    // empty) at `scale` pixels per point on its background. Thread-safe.
    // Null when the picture would be larger than 32767 pixels a side or 64
    // million pixels in all.
    QImage render(qreal scale, QRectF region = {}) const;
    // Renders into an existing image (reused buffers avoid page faults); the
    // image's top left shows the display point `origin`. False on failure.
    bool renderInto(QImage &target, qreal scale, QPointF origin) const;

private:
    std::unique_ptr<Native> native_;
    QSizeF size_;
    bool transparent_;
};
