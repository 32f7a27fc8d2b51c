// The page and zoom fields of the toolbar: the current page as an editable
// number (or the document's own page label) with "of N" beside it, and the
// zoom as an editable percentage with a menu of Fit Width, Fit Page, Actual
// Size and fixed steps. Typing a page number or label and Return goes there;
// typing a percentage and Return zooms.
#pragma once

#include <QPointer>
#include <QStringList>
#include <QWidget>

class PdfView;
class QComboBox;
class QLabel;
class QLineEdit;

class PageZoomFields : public QWidget {
    Q_OBJECT
public:
    explicit PageZoomFields(PdfView *view, QWidget *parent = nullptr);

    QLineEdit *pageField() const { return page_; }
    QLabel *pageCountLabel() const { return count_; }
    QComboBox *zoomField() const { return zoom_; }

public slots:
    // Puts the keyboard in the page field, its text selected (Go to Page).
    void focusPage();

private:
    // The document, its page count or its labels changed.
    void documentChanged();
    void showPage();
    void showZoom();
    void goToTyped();
    void zoomChosen(int index);
    void zoomTyped();

    QPointer<PdfView> view_;
    QLineEdit *page_;
    QLabel *count_;
    QComboBox *zoom_;
    QStringList labels_;
    QMetaObject::Connection listChanges_;
};
