// The fields of a form come alive on the page view: a tint on the fields one
// can fill in and a red frame on required ones (a page decoration), and the
// in-place editors. A click on a text field opens an editor laid over it at
// the view's zoom; Tab and Shift+Tab move through the fields in the form's
// order across pages; check boxes and radio buttons turn on a click or
// Space; combo and list boxes open a list. Each change of a field is one
// step of the document's history (DocumentModel::changeFields).
//
// The layer is the view's priority overlay: it takes presses on fields
// before the annotation layer, except while suspended (an annotation tool is
// active), and lets every other event go on.
#pragma once

#include "PdfFormField.h"
#include "PdfPageDecoration.h"
#include "PdfViewOverlay.h"

#include <QPointer>
#include <QWidget>

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

class DocumentModel;
class PdfView;

class FormFieldsLayer : public QWidget, public PdfViewOverlay, public PdfPageDecoration {
    Q_OBJECT
public:
    // Lays itself over `view` and decorates its pages.
    FormFieldsLayer(DocumentModel *model, PdfView *view);
    ~FormFieldsLayer() override;

    // Whether the document shown has fields one can fill in.
    bool hasFields();
    // Whether its form has scripts this program does not run.
    bool hasScriptsNotRun();
    // The tint over fillable fields and the frame of required ones.
    bool highlightsFields() const { return highlight_; }
    void setHighlightsFields(bool highlight);
    // While suspended the layer takes no input (an annotation tool is at
    // work); an open editor keeps what was typed.
    void setSuspended(bool suspended);

    // The field and widget the keyboard is on, and the editor open over it.
    std::optional<PdfForm::Stop> currentStop() const { return current_; }
    QWidget *editor() const { return editor_; }
    // The last refusal shown (a value the field does not take), for the window and tests.
    QString lastMessage() const { return lastMessage_; }

    // Moves to the next (or previous) field in tab order, keeping what was typed.
    void moveFocus(bool forward);
    // Ends the edit under way: keeps its value (when the field takes it) or drops it.
    bool commitEditor();
    void dropEditor();

    bool wantsEvent(const QEvent *event) override;
    void paintPage(QPainter &painter, const std::shared_ptr<PdfPage> &page, const QTransform &pageToView) override;

signals:
    void highlightsFieldsChanged(bool highlight);
    void fieldsChanged();

protected:
    bool event(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    // One widget of a field on a page.
    struct Spot {
        std::shared_ptr<PdfFormField> field;
        int widget = 0;
        QRectF bounds; // page space
        bool editable = false;
        bool required = false;
    };

    void documentChanged();
    void historyChanged();
    const std::vector<Spot> &spotsOn(const PdfPage *page);
    std::optional<Spot> spotAt(QPointF viewPoint);
    const std::vector<PdfForm::Stop> &tabOrder();
    void activate(const PdfForm::Stop &stop, bool byKeyboard);
    void toggle(const PdfForm::Stop &stop);
    void openEditor(const PdfForm::Stop &stop);
    void placeEditor();
    QRectF viewRectOf(const PdfForm::Stop &stop) const;
    QString editorText() const;
    QStringList editorChoices() const;
    void refuse(const PdfFormField &field, const QString &value);
    void repaintFields();

    DocumentModel *model_;
    QPointer<PdfView> view_;
    std::shared_ptr<PdfForm> form_;
    bool highlight_ = true;
    bool suspended_ = false;
    bool committing_ = false;
    std::optional<bool> scriptsNotRun_;
    // Read once per document and after changes the layer did not make.
    bool stale_ = true;
    std::unordered_map<const PdfPage *, std::vector<Spot>> spots_;
    std::optional<std::vector<PdfForm::Stop>> order_;
    std::optional<PdfForm::Stop> current_;
    QPointer<QWidget> editor_;
    QString lastMessage_;
};
