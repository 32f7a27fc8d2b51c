// A transparent layer over the page view that makes the editor's marks: it
// selects, moves, resizes, nudges and deletes annotations, draws rectangles,
// ellipses and ink, and paints previews and the selection frame. It takes the
// pointer and keys only when the tool or its state needs them; everything else
// goes on to the page view (text selection, links, scrolling).
//
// The selection is the document model's selectedAnnotation; the overlay draws
// and acts on whatever the model holds, so undoing a placement or deleting
// from the menu clears the frame at once. A drag leaves the document as it is
// until the release: the page is drawn without the annotation and the overlay
// draws the annotation's own picture where it goes; the release makes one change.
//
// Spaces: "PV" points are the page view's view space (logical pixels, y down),
// which is also the overlay's own space since it covers the view exactly.
// Bounds and every value handed to the document model are in page space.
#pragma once

#include "OverlayGeometry.h"
#include "PdfTypes.h"
#include "PdfViewOverlay.h"

#include <QElapsedTimer>
#include <QImage>
#include <QPointer>
#include <QWidget>

#include <memory>
#include <optional>
#include <variant>
#include <vector>

class DocumentModel;
class InlineTextView;
class NotePopup;
class PdfAnnotation;
class PdfPage;
class PdfView;
class ToolSettings;

class DrawingOverlayView : public QWidget, public PdfViewOverlay {
    Q_OBJECT
public:
    // What committing the text editor does: re-edit that free-text box,
    // retype a run of the page's text (page space) in the page's content
    // (covering it with a box where the content cannot be edited), or make a
    // new box.
    struct Existing {
        std::shared_ptr<PdfAnnotation> annotation;
        bool operator==(const Existing &) const = default;
    };
    struct Replacement {
        QRectF run;
        bool operator==(const Replacement &) const = default;
    };
    struct NewBox {
        bool operator==(const NewBox &) const = default;
    };
    using EditingMode = std::variant<Existing, Replacement, NewBox>;

    // Diameter of the drawn corner handles, in view points.
    static constexpr qreal handleSize = 9;
    static constexpr qreal handleHitRadius = overlayGeometry::handleHitRadius;

    DrawingOverlayView(ToolSettings *toolSettings, DocumentModel *documentModel, QWidget *parent = nullptr);
    ~DrawingOverlayView() override;

    // The page view underneath; set before attachObservers(). Without one the
    // overlay takes nothing and draws nothing.
    void setPdfView(PdfView *view);
    PdfView *pdfView() const;
    // Follows the view's scrolling and zooming; called once.
    void attachObservers();

    // PdfViewOverlay: which events the overlay takes.
    bool wantsEvent(const QEvent *event) override;

    // The selection's corner under a view point, or none.
    std::optional<Handle> handle(QPointF pv) const;
    // The editable annotation under a view point and its page, or none.
    std::pair<std::shared_ptr<PdfAnnotation>, std::shared_ptr<PdfPage>> annotationAt(QPointF pv) const;
    // Ends what the pointer or the keyboard is doing before the window closes:
    // the text being typed is committed, a drag is dropped.
    void finishInteraction();
    // Moves the selection by one arrow-key step; without a selection the key goes on.
    void nudge(QKeyEvent *event);

    // Makes the annotation the model's selection (and gives the overlay the keys).
    void select(const std::shared_ptr<PdfAnnotation> &annotation);
    void deselect();

    // Text editing. A press of the edit-text tool: re-edit a box, retype the
    // line under the point, or open a new box.
    void handleEditTextClick(QPointF pv);
    // A new one-line box whose top left corner is the page-space point.
    void beginNewTextBox(const std::shared_ptr<PdfPage> &page, QPointF pagePoint);
    void beginEditExisting(const std::shared_ptr<PdfAnnotation> &annotation);
    void beginTextEdit(const EditingMode &mode, const std::shared_ptr<PdfPage> &page, const QRectF &bounds, const QString &text,
                       const PdfFont &font, const QColor &fontColor, const QColor &editorBg);
    // Closes the editor and applies the edit; removeInlineEditor() only closes it.
    void commitInlineEdit();
    void removeInlineEditor();
    // The box a text turned by `rotation` gets, as it reads: as wide as its
    // widest line (up to 2 points before the page's right edge) and as high
    // as the lines it breaks into, never smaller than `base`; moved up (and
    // widened) to stay on the page.
    static QRectF fittedBounds(const QString &text, const QRectF &base, const PdfFont &font, const std::shared_ptr<PdfPage> &page,
                               int rotation = 0);
    // The same width for a cover over a line of the page, but only as high as its lines.
    static QRectF coverBounds(const QString &text, const QRectF &base, const PdfFont &font, const std::shared_ptr<PdfPage> &page,
                              int rotation = 0);
    // The font the page shows `text` in (its first occurrence on the page),
    // else the system font at `fallbackSize`.
    static PdfFont detectFont(const QString &text, const std::shared_ptr<PdfPage> &page, qreal fallbackSize);
    // The paper colour around a line (page-space box): the brightest of four
    // samples beside it, or white when the page is dark there.
    static QColor sampleBackgroundColor(const std::shared_ptr<PdfPage> &page, const QRectF &lineBox);
    // The system font at a size, as a page font.
    static PdfFont systemFont(qreal size);

    // Notes. The popup editor opens for a new note centred on a page-space
    // point, for a note on a page, or for a reply to any annotation (placed
    // beside it). Committing keeps a new note or reply that has text (one
    // undoable step) and changes an existing note's text (one step).
    void beginNewNote(const std::shared_ptr<PdfPage> &page, QPointF centre);
    void openNote(const std::shared_ptr<PdfAnnotation> &note);
    void beginReply(const std::shared_ptr<PdfAnnotation> &parent);
    void commitNote();
    void closeNote();
    NotePopup *notePopup() const;

    // Puts a signature image on the page as a stamp centred on the view point,
    // selected, with the select tool. It is 200 points wide, at most half the
    // page's width; its height follows the image, within 40 to 200 points and
    // at most half the page's height.
    void placeSignature(const QImage &image, QPointF pv, const std::shared_ptr<PdfPage> &page);
    // The page-space size of a stamp for `image` on `page` (see placeSignature).
    static QSizeF signatureSize(const QImage &image, const std::shared_ptr<PdfPage> &page);

    // State, for the window and for tests. The selection is the model's when
    // it is on a page of the document shown here.
    std::shared_ptr<PdfAnnotation> selection() const;
    std::shared_ptr<PdfPage> selectionPage() const;
    // True while a picture of a finished change stays on screen until the
    // page shows the change itself.
    bool isBridging() const { return bridge_.has_value(); }
    // The bounds of the selection being moved or resized (page space), and
    // whether the pointer has gone far enough for that drag to have begun.
    std::optional<QRectF> liveBounds() const;
    bool didBeginDrag() const;
    // The stroke or the corners of the shape being drawn (view points), and its page.
    const std::vector<QPointF> &inkPV() const;
    std::optional<QPointF> shapeStartPV() const;
    std::optional<QPointF> shapeCurrentPV() const;
    std::shared_ptr<PdfPage> activePage() const;
    std::optional<QPointF> pendingPreviewPoint() const { return pendingPreviewPoint_; }
    InlineTextView *inlineEditor() const;
    std::optional<EditingMode> editingMode() const { return editingMode_; }
    std::shared_ptr<PdfPage> editingPage() const { return editingPage_; }
    QRectF editingBounds() const { return editingBounds_; }
    QColor editingBg() const { return editingBg_; }
    PdfFont editingFont() const { return editingFont_; }
    QColor editingFontColor() const { return editingFontColor_; }
    QString editingOriginalText() const { return editingOriginalText_; }

protected:
    bool event(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    // The annotation alone, drawn at the view's resolution, and the page area it covers.
    struct Picture {
        std::shared_ptr<PdfPage> page;
        QImage image;
        QRectF area;
    };

    // What the pointer is doing, each with only the state it needs: nothing,
    // drawing a stroke or a shape (view points, kept on `page`), or dragging
    // the selection to move it or by a corner to resize it.
    struct Idle {};
    struct DrawingInk {
        std::shared_ptr<PdfPage> page;
        std::vector<QPointF> points;
        QRectF bounds;
        // The stroke drawn so far, kept as a picture that each move extends by
        // its new segment, so that a long stroke costs no more per move than a
        // short one; drawn anew when the colour, the width or the size changes.
        QImage cache;
        size_t cached = 0;
        QColor cacheColor;
        qreal cacheWidth = 0;
    };
    struct DrawingShape {
        std::shared_ptr<PdfPage> page;
        QPointF start;
        QPointF current;
        // Shift held: a square or a circle.
        bool squared = false;
    };
    // A drag leaves the document alone until the release: what is dragged,
    // where from (page space), where it goes, and its picture once begun.
    struct Drag {
        std::shared_ptr<PdfAnnotation> annotation;
        std::shared_ptr<PdfPage> page;
        QPointF startPage;
        QRectF originalBounds;
        QRectF liveBounds;
        // Past the drag threshold: the page hides the annotation and the overlay draws `picture`.
        bool begun = false;
        std::optional<Picture> picture;
    };
    struct Moving : Drag {};
    struct Resizing : Drag {
        Handle handle = Handle::topLeft;
    };
    using Gesture = std::variant<Idle, DrawingInk, DrawingShape, Moving, Resizing>;

    // The drag in progress (moving or resizing), or null.
    Drag *activeDrag();
    const Drag *activeDrag() const;

    bool takesPress(QPointF pv) const;
    bool takesKey(const QKeyEvent *event) const;
    void press(QMouseEvent *event, int clickCount);
    void handleSelectMouseDown(QPointF pv, int clickCount);
    // Starts moving or resizing the selection from a view point.
    void beginDrag(Gesture drag, QPointF pv);
    void updateDrag(Drag &drag, QPointF pv, Qt::KeyboardModifiers modifiers);
    void finishDrag();
    // Drops a drag without changing the document.
    void cancelManipulation();
    void extendInk(DrawingInk &ink, QPointF pv);
    void selectionChanged();
    std::optional<Picture> pictureOf(const std::shared_ptr<PdfAnnotation> &annotation) const;
    // Keeps `picture` on screen until the page's new picture shows the change.
    void bridgeUntilShown(std::optional<Picture> picture);
    void endBridge();
    // The view rectangle a picture of `original` bounds takes at `bounds`.
    QRectF placedPicture(const Picture &picture, const QRectF &original, const QRectF &bounds) const;
    // The shape being drawn, in view points, kept on the page and squared with Shift.
    static QRectF shapeRect(const DrawingShape &shape);
    // Keeps a view point on `page` (any point when there is none).
    QPointF onPage(QPointF pv, const std::shared_ptr<PdfPage> &page) const;
    bool pointerMoved(QPointF pv);
    void finishShape(const DrawingShape &shape, const QString &subtype);
    void finishInk(const DrawingInk &ink);
    // Ends a stroke or a shape being drawn without making it.
    void clearDrawing();
    void geometryChanged();
    // Repaints only what changed between two frames of a drag: the previous and
    // the new area of what the overlay draws.
    void refresh();
    QRectF paintedArea() const;
    std::optional<QRectF> signaturePreviewRect() const;
    // The icon of the note being typed, in view points: where it is or will go.
    QRectF noteIconRect() const;
    void placeNotePopup();
    void openNotePopup(const QString &heading, const QString &text);
    void drawPendingNote(QPainter &painter) const;

    void drawSelectionChrome(QPainter &painter, const QRectF &rect, bool handles) const;
    void drawShapePreview(QPainter &painter, const DrawingShape &shape) const;
    void drawSignaturePreview(QPainter &painter) const;
    void drawInkPreview(QPainter &painter, DrawingInk &ink);

    QPointer<PdfView> pdfView_;
    ToolSettings *const toolSettings_;
    DocumentModel *const documentModel_;
    Gesture gesture_;
    // A finished change shown by the overlay until the page shows it (no blink).
    std::optional<Picture> bridge_;
    QElapsedTimer bridgeAge_;
    std::optional<QPointF> pendingPreviewPoint_;
    QPointer<InlineTextView> inlineEditor_;
    std::optional<EditingMode> editingMode_;
    std::shared_ptr<PdfPage> editingPage_;
    QRectF editingBounds_;
    QColor editingBg_{Qt::transparent};
    PdfFont editingFont_;
    QColor editingFontColor_{Qt::black};
    QString editingOriginalText_;
    // The note whose popup is open: an existing one, or a new note or reply
    // (centred on `centre` of `page`) that is made on commit.
    struct NoteEdit {
        std::shared_ptr<PdfAnnotation> note;
        std::shared_ptr<PdfAnnotation> replyTo;
        std::shared_ptr<PdfPage> page;
        QPointF centre;
    };
    std::optional<NoteEdit> noteEdit_;
    QPointer<NotePopup> notePopup_;
    // What the last paint drew, so that the next frame repaints only around it.
    QRectF lastPainted_;
    bool observing_ = false;
};
