// A widget laid over a PdfView (see PdfView::setOverlay) implements this to
// choose, event by event, what it handles itself. Declined events go to the
// view, which keeps text selection, link clicks, scrolling and zooming. The
// pointer shape shown is the overlay's: left unset, it is the view's (an
// I-beam over text, a hand over links).
#pragma once

class QEvent;

class PdfViewOverlay {
public:
    virtual ~PdfViewOverlay() = default;

    // Asked for every press, double click, pointer move without a pressed
    // button, wheel turn and key press that reaches the overlay. Moves and the
    // release that follow a press go where the press went. Positions are in
    // the overlay's coordinates, which are the view's.
    virtual bool wantsEvent(const QEvent *event) = 0;
};
