// The page view: every page of a document in one continuous, vertically
// scrolling column, zoomable, with text selection, link clicks and pages
// rendered off the user-interface thread.
//
// View space is the viewport's coordinate system (logical pixels, origin at
// the top left of the visible area, y down); an overlay laid over the viewport
// shares it. Page space is PDF points of one page (origin lower left, y up).
// At scale 1 one point is one logical pixel.
#pragma once

#include "PdfChangeChannel.h"
#include "PdfSelection.h"
#include "PdfTypes.h"
#include "PdfViewLayout.h"

#include <QAbstractScrollArea>
#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

class PageRenderCache;
class PdfDocument;
class PdfPageDecoration;
class PdfPage;

class PdfView : public QAbstractScrollArea {
    Q_OBJECT
    Q_PROPERTY(bool autoScales READ autoScales WRITE setAutoScales NOTIFY autoScalesChanged)
    Q_PROPERTY(qreal scaleFactor READ scaleFactor WRITE setScaleFactor NOTIFY scaleChanged)
    Q_PROPERTY(qreal minScaleFactor READ minScaleFactor WRITE setMinScaleFactor)
    Q_PROPERTY(qreal maxScaleFactor READ maxScaleFactor WRITE setMaxScaleFactor)

public:
    // Factor of one zoom step.
    static constexpr qreal zoomStep = 1.25;

    explicit PdfView(QWidget *parent = nullptr);
    ~PdfView() override;

    // Shows a document from its first page (none empties the view). Showing
    // the document already shown changes nothing.
    void setDocument(std::shared_ptr<PdfDocument> document);
    std::shared_ptr<PdfDocument> document() const { return document_; }
    // The page list changed (pages inserted, removed, moved or rotated): lays
    // the pages out again, keeping the zoom and, if it is still there, the
    // page at the top of the view (from its beginning when it turned).
    // Changes the engine announces are followed without being asked.
    void reloadPages();
    // The page's content changed (only `area`, in page space, when one is
    // given): it is rendered again. Changes the engine announces for the
    // document's pages are followed without being asked.
    void invalidatePage(const std::shared_ptr<PdfPage> &page, const QRectF &area = QRectF());

    // The page that takes up most of the view (or the one last gone to).
    std::shared_ptr<PdfPage> currentPage() const;
    int currentPageIndex() const { return current_; }
    // Scrolls so that the top of the page is at the top of the view and the
    // page is centred across it (shown from its left edge when it is wider).
    void goToPage(const std::shared_ptr<PdfPage> &page);
    // Scrolls so that a page-space point is at the top of the view (as far as
    // the scroll range allows). A page as narrow as the view or narrower is
    // centred across it; on a wider page the point is at the left edge.
    void goToPoint(const std::shared_ptr<PdfPage> &page, QPointF pagePoint);

    // Scrolls as little as needed to show a page-space rectangle with
    // `margin` pixels around it (across too, on a page wider than the view),
    // or puts it in the middle when it was out of sight; as much of it as
    // fits when it is larger than the view.
    void ensureVisible(const std::shared_ptr<PdfPage> &page, const QRectF &pageRect, int margin = 48);
    // The pages on screen now, top to bottom.
    std::vector<std::shared_ptr<PdfPage>> visiblePages() const;

    // Fit-to-width: the widest page fills the view's width, also after resizes.
    bool autoScales() const { return autoScales_; }
    void setAutoScales(bool enabled);
    // 1 is 100 %. Setting a scale switches fit-to-width off; the value is kept
    // within the bounds. The point at the centre of the view stays in place.
    qreal scaleFactor() const { return layout_.scale(); }
    void setScaleFactor(qreal scale);
    qreal minScaleFactor() const { return minScale_; }
    void setMinScaleFactor(qreal scale);
    qreal maxScaleFactor() const { return maxScale_; }
    void setMaxScaleFactor(qreal scale);
    // Zooms so that the current page fits the view whole, and shows it.
    void fitPage();
    bool canZoomIn() const;
    bool canZoomOut() const;

    // The page under a view point; with `nearest`, the closest page when the
    // point lies between or beside pages. None when no page is shown.
    std::shared_ptr<PdfPage> pageAt(QPointF viewPoint, bool nearest) const;
    QPointF convertToPage(QPointF viewPoint, const std::shared_ptr<PdfPage> &page) const;
    QPointF convertFromPage(QPointF pagePoint, const std::shared_ptr<PdfPage> &page) const;
    QRectF convertFromPage(const QRectF &pageRect, const std::shared_ptr<PdfPage> &page) const;
    QRectF convertToPage(const QRectF &viewRect, const std::shared_ptr<PdfPage> &page) const;

    // The text selection, none when nothing is selected.
    std::optional<PdfSelection> currentSelection() const { return selection_; }
    void setCurrentSelection(std::optional<PdfSelection> selection);

    // Lays `overlay` exactly over the visible area: it becomes a child of the
    // viewport (deleted with the view) and follows its size. If it implements
    // PdfViewOverlay it gets only the events it wants; a plain widget gets
    // every event first. Either way, what it ignores goes on to the view as
    // for any child widget. A replaced overlay is hidden and given back
    // without a parent; none removes the overlay.
    void setOverlay(QWidget *overlay);
    QWidget *overlay() const { return overlay_; }
    // A second overlay, for editors that come first where they want input
    // (the fields of a form): laid over the visible area under the overlay,
    // like it a child of the viewport, and asked first for each press and
    // pointer move, whichever of the two it reached; what it declines goes to
    // the overlay, then to the view. Keys go to the one that has the focus.
    // It is deleted with the view; none removes it.
    void setPriorityOverlay(QWidget *overlay);
    QWidget *priorityOverlay() const { return priorityOverlay_; }

    // An annotation the pages are drawn without (the overlay draws it while
    // it is dragged); none draws every annotation again. Pictures already on
    // screen stay until their replacements arrive.
    void setHiddenAnnotation(const std::shared_ptr<PdfAnnotation> &annotation);
    std::shared_ptr<PdfAnnotation> hiddenAnnotation() const { return hidden_; }

    // Decorations paint over every page shown, in the order added; the view
    // does not own them. updateDecorations() paints them again.
    void addDecoration(PdfPageDecoration *decoration);
    void removeDecoration(PdfPageDecoration *decoration);
    void updateDecorations();

    // Bytes of page pictures kept (plus a few spare buffers and what is on screen).
    qint64 cacheLimit() const;
    void setCacheLimit(qint64 bytes);
    // True when every visible page shows its final picture; renderingComplete()
    // tells when that becomes so (a turn of the event loop later).
    bool isRenderingComplete() const;

public slots:
    void zoomIn();
    void zoomOut();
    // Copies the selected text to the clipboard.
    void copy();

signals:
    void documentChanged();
    void currentPageChanged(int pageIndex);
    void autoScalesChanged(bool autoScales);
    void scaleChanged(qreal scale);
    // Anything that moves pages on screen: scrolling, zooming, resizing, relayout.
    void geometryChanged();
    void selectionChanged();
    void renderingComplete();

protected:
    bool viewportEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    bool focusNextPrevChild(bool next) override;

private:
    // A page and a point of it in display space (points, y down): what must
    // stay in place at a view point while the layout changes.
    struct Anchor {
        int page = -1;
        QPointF displayPoint;
        QPointF viewPoint;
    };
    struct Press {
        std::shared_ptr<PdfPage> page;
        QPointF pagePoint;
        QPointF viewPoint;
        std::optional<PdfLink> link;
        bool dragging = false;
    };

    void pageChanged(const std::shared_ptr<PdfPage> &page, PdfChangeChannel::Changes changes, QRectF area);

    // Layout and scrolling.
    void loadPages();
    void relayout(const Anchor &anchor, std::optional<qreal> scale = std::nullopt);
    qreal fittedScale() const;
    void updateScrollBars();
    QPoint scrollOffset() const;
    QPointF contentOrigin() const;
    QRectF viewRect(int index) const;
    Anchor anchorAt(QPointF viewPoint) const;
    void restore(const Anchor &anchor);
    void scrollContentTo(QPointF contentPoint);
    qreal centredScroll(int index) const;
    void updateCurrentPage();
    void setCurrent(int index);
    int indexOf(const std::shared_ptr<PdfPage> &page) const;
    QTransform displayToView(int index) const;
    QSize pagePixels(int index, qreal scale) const;

    // Rendering.
    void requestPictures();
    void paintPage(QPainter &painter, int index, const QRectF &exposed);
    void paintSelection(QPainter &painter, int index);
    void paintDecorations(QPainter &painter, int index);
    void pictureArrived(const PdfPage *page);
    void updateCompleteness();

    // Input (PdfViewInput.cpp).
    enum class MouseOwner { None, View, Priority, Overlay };
    bool routeOverlayEvent(QWidget *watched, QEvent *event);
    MouseOwner takerOf(QEvent *event) const;
    bool forwardKey(QWidget *layer, QKeyEvent *event);
    // Puts `overlay` in `slot` over the pages; true when a new layer is now in place.
    bool attachOverlay(QPointer<QWidget> &slot, QWidget *overlay);
    void placeOverlays();
    void selectTo(QPointF viewPoint);
    void selectUnit(QPointF viewPoint, bool line);
    std::optional<PdfLink> linkAt(QPointF viewPoint);
    void activate(const PdfLink &link);
    void updateCursor(QPointF viewPoint);
    void autoScroll();
    void zoomAround(qreal scale, QPointF viewPoint);

    std::shared_ptr<PdfDocument> document_;
    QMetaObject::Connection changes_;
    std::vector<std::shared_ptr<PdfPage>> pages_;
    std::vector<QTransform> pageToDisplay_;
    std::unordered_map<const PdfPage *, int> indexOf_;
    PdfViewLayout layout_;
    int current_ = -1;
    // The page last gone to stays current while it is on screen, until the user scrolls.
    int pinned_ = -1;
    bool autoScales_ = true;
    qreal minScale_ = 0.1;
    qreal maxScale_ = 8.0;
    bool relayingOut_ = false;

    PageRenderCache *cache_;
    // 1 after scrolling down, -1 after scrolling up: where to render ahead.
    int scrollDirection_ = 1;
    QTimer pictureTimer_;
    qreal requestedRatio_ = 0; // device pixel ratio of the last request
    bool complete_ = true;

    std::optional<PdfSelection> selection_;
    std::optional<Press> press_;
    std::shared_ptr<PdfAnnotation> hidden_;
    QMetaObject::Connection pageListChanges_;
    // Where the last selection started, for extending it with Shift.
    std::shared_ptr<PdfPage> anchorPage_;
    QPointF anchorPoint_;
    QElapsedTimer lastDoubleClick_;
    QPointF lastDoubleClickPos_;
    QTimer autoScrollTimer_;
    QPointF lastMousePos_;
    std::unordered_map<const PdfPage *, std::vector<PdfLink>> links_;
    std::vector<PdfPageDecoration *> decorations_;

    QPointer<QWidget> overlay_;
    QPointer<QWidget> priorityOverlay_;
    MouseOwner mouseOwner_ = MouseOwner::None;
    bool forwarding_ = false;
};
