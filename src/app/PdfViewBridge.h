// Keeps the page view in step with the document model: a new document is
// shown fitted to the width and its zoom frozen shortly after; a changed page
// structure is laid out again; the current page follows the model and the
// page the user scrolls to becomes the model's current page.
#pragma once

#include <QPointer>
#include <QWidget>

class DocumentModel;
class DrawingOverlayView;
class PdfView;
class ToolSettings;

class PdfViewBridge : public QWidget {
    Q_OBJECT
public:
    static constexpr int lockDelayMs = 400;
    static constexpr qreal lockedMinScale = 0.1;
    static constexpr qreal lockedMaxScale = 6.0;

    PdfViewBridge(DocumentModel *model, ToolSettings *toolSettings, QWidget *parent = nullptr);
    PdfView *pdfView() const { return view_; }
    DrawingOverlayView *overlay() const { return overlay_; }

private:
    void refresh();
    void scrollToPage(int index);
    void lockScaleAfterFit();
    void pageChanged();

    DocumentModel *model_;
    ToolSettings *toolSettings_;
    PdfView *view_;
    DrawingOverlayView *overlay_;
    qint64 lastMutationCount_ = -1;
};
