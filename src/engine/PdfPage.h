// A page of a document. A page object follows its page through inserts,
// removals and moves: it is not "page number n". A page removed from its
// document stays valid and can be inserted again.
#pragma once

#include "PdfChangeChannel.h"
#include "PdfSearchText.h"
#include "PdfSelection.h"
#include "PdfTypes.h"

#include <QImage>
#include <QRectF>
#include <QTransform>

#include <memory>
#include <optional>
#include <vector>

struct DocCore;
class PdfContentEdit;
class PdfDisplayList;
class PdfDocument;
class PdfPageRecording;

// What retyping a run of a page's text came to.
struct PdfRetype {
    enum class Outcome {
        Done,
        NoText,      // no text of a line lies in the run
        Unsupported, // its glyphs are drawn with a Type 3 font or run along no line
        Unmatched,   // the page's content does not draw the glyphs the layout shows there
        Damaged,     // the page's content cannot be read whole
    };
    Outcome outcome = Outcome::NoText;
    // What undoes and redoes it, once done.
    std::shared_ptr<PdfContentEdit> edit;
    // Whether the new text is drawn with the page's own font for the run
    // (else with the font service's face for it, embedded as a subset).
    bool ownFont = false;
};

class PdfPage : public std::enable_shared_from_this<PdfPage> {
public:
    ~PdfPage();
    PdfPage(const PdfPage &) = delete;
    PdfPage &operator=(const PdfPage &) = delete;

    // The document the page is in, or none (removed, or a copy not yet placed).
    std::shared_ptr<PdfDocument> document() const;
    // The page's index in its document, or -1.
    int index() const;

    // The box in page space (points, origin lower left, y up).
    QRectF bounds(PdfBox box = PdfBox::Crop) const;
    // 0, 90, 180 or 270 degrees clockwise.
    int rotation() const;
    void setRotation(int degrees);

    // Display space: the page as shown, rotated, in points with the origin at
    // the top left of the crop box and y down.
    QSizeF displaySize() const;
    QTransform pageToDisplay() const;

    // Annotations, in drawing order (the last is drawn on top).
    std::vector<std::shared_ptr<PdfAnnotation>> annotations();
    void addAnnotation(const std::shared_ptr<PdfAnnotation> &annotation);
    void removeAnnotation(const std::shared_ptr<PdfAnnotation> &annotation);
    // The topmost annotation whose bounds contain a page-space point.
    std::shared_ptr<PdfAnnotation> annotation(QPointF point);

    // An independent copy, carrying annotations, rotation and boxes, that can be
    // inserted into any document. It is made when it is inserted.
    std::shared_ptr<PdfPage> copy();

    std::vector<PdfLink> links();

    // Pictures. `scale` is pixels per point.
    QImage render(qreal scale, const PdfRenderOptions &options = {});
    QImage render(qreal scale, QRectF displayRegion, const PdfRenderOptions &options);
    QImage thumbnail(QSize size, PdfBox box = PdfBox::Crop);
    std::shared_ptr<PdfDisplayList> displayList(const PdfRenderOptions &options = {});
    // The same list, to be recorded on another thread; none for a page
    // outside a document.
    std::shared_ptr<PdfPageRecording> recording(const PdfRenderOptions &options = {});

    // Text. The plain text has a line feed after every line.
    QString text();
    std::optional<PdfFont> fontAt(int textIndex);
    // The whole line under a page-space point, or none.
    std::optional<PdfSelection> selectionForLine(QPointF point);
    // The run of that line under the point: the line as far as it goes
    // without a gap wider than a word space ever is, so a table's cell and
    // not its whole row; none off the text.
    std::optional<PdfSelection> selectionForRun(QPointF point);
    // The baseline (page-space y) of that line when its text runs left to
    // right on the page, else none.
    std::optional<qreal> baselineAt(QPointF point);
    // The word under (or nearest to) a page-space point, or none.
    std::optional<PdfSelection> selectionForWord(QPointF point);
    // All text of the page.
    PdfSelection selectionForAll();

    // Replaces a run of the page's text in its content: the glyphs of one
    // line whose middles lie in `run` (page space) are taken out and `text`
    // is drawn in their place. The words it starts with as the run did are
    // drawn again where they were, in their own faces and colours; the rest
    // starts where the first changed word did, on the baseline, at the size
    // and in the colour of the run it continues, with the page's font for
    // it when that is embedded and has every glyph, else with the font
    // service's face. Nothing changes unless the outcome is Done.
    PdfRetype retype(const QRectF &run, const QString &text);

private:
    friend class PdfDocument;
    friend struct DocCore;
    friend class PdfAnnotation;
    friend class PdfSelection;
    friend class PdfContentEdit;
    friend class PdfForm;
    friend class PdfPrintCopy;
    struct Text;

    struct Native;
    PdfPage(std::shared_ptr<DocCore> core, std::unique_ptr<Native> native);
    // MuPDF's page, loaded on first use; none for a page outside a document.
    bool load();
    void unload();
    void dropText();
    // Turns an unplaced copy into the page `ref` of `core`'s document.
    void place(std::shared_ptr<DocCore> core, std::unique_ptr<Native> native);
    // Drops what was read from the page and announces the change (of `area`
    // only, when one is given).
    void changed(PdfChangeChannel::Changes changes, const QRectF &area = QRectF());
    Text &textLayout();
    int caretAt(QPointF point);
    PdfSelection selectionForRange(int fromChar, int toChar);

    std::shared_ptr<DocCore> core_;
    std::weak_ptr<PdfDocument> document_;
    std::unique_ptr<Native> native_;
    bool isUnplacedCopy_ = false;
    bool annotationsRead_ = false;
    std::vector<std::shared_ptr<PdfAnnotation>> annotations_;
    std::unique_ptr<Text> text_;
};

// The content of a page before and after a retype: undo() puts back its
// /Contents and /Resources exactly as they were, redo() those the retype
// made. Each announces a Content change of the page.
class PdfContentEdit {
public:
    ~PdfContentEdit();
    PdfContentEdit(const PdfContentEdit &) = delete;
    PdfContentEdit &operator=(const PdfContentEdit &) = delete;
    void undo();
    void redo();

private:
    friend class PdfPage;
    struct Native;
    PdfContentEdit(std::weak_ptr<PdfPage> page, std::unique_ptr<Native> native);
    void put(bool after);

    std::weak_ptr<PdfPage> page_;
    std::unique_ptr<Native> native_;
};

// A display list of a page recorded away from the thread that owns the
// document: set up there (PdfPage::recording), recorded on a worker thread
// while the owner goes on using the document.
class PdfPageRecording {
public:
    enum class Result { Recorded, Failed, Interrupted };
    ~PdfPageRecording();
    PdfPageRecording(const PdfPageRecording &) = delete;
    PdfPageRecording &operator=(const PdfPageRecording &) = delete;

    // Records the page as it is now. Interrupted when another thread needed
    // the document meanwhile, the page is no longer where it was, or abort()
    // was called: nothing was recorded, and a new recording may be tried.
    Result record();
    // What record() made, once it answered Recorded.
    std::shared_ptr<PdfDisplayList> list() const { return list_; }
    // Reads the page's text as it is searched instead (with the boxes of its
    // characters when `boxes`), as background work: Interrupted also when
    // the document is busy. After an interruption either may be tried again.
    Result recordText(bool boxes);
    // What recordText() read, once it answered Recorded.
    std::shared_ptr<const PdfSearchText> text() const { return text_; }
    // Ends a recording under way soon, and any later try; any thread may call it.
    void abort();

private:
    friend class PdfPage;
    struct Native;
    explicit PdfPageRecording(std::unique_ptr<Native> native);
    // Loads the page under the document lock and hands it to `use`, unless
    // the recording was ended, the lock is wanted or the page moved.
    template <class F> Result withPage(bool background, F &&use);

    std::unique_ptr<Native> native_;
    std::shared_ptr<PdfDisplayList> list_;
    std::shared_ptr<const PdfSearchText> text_;
};
