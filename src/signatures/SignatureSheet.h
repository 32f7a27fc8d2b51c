// The dialog in which the user gets a signature to place on a page: drawn on
// a canvas, typed in one of four script fonts, or picked from the saved ones
// (which an image file can be imported into), in black or dark blue ink.
// Placing hands the image to the document model as the pending signature and
// closes the dialog; the page overlay then lets the user drop it on a page.
// An import or a save that fails says why in the sheet.
#pragma once

#include <QDialog>
#include <QImage>
#include <QStringList>

class DocumentModel;
class QButtonGroup;
class QComboBox;
class QHBoxLayout;
class QLabel;
class QLineEdit;
class QPushButton;
class QScrollArea;
class SignatureCanvasView;

class SignatureSheet : public QDialog {
    Q_OBJECT
public:
    static constexpr int sheetWidth = 480;
    static constexpr int canvasHeight = 120;
    static constexpr int previewFontSize = 34;

    explicit SignatureSheet(DocumentModel *model, QWidget *parent = nullptr);

    // The saved signatures as last read from the store, and the one picked
    // (empty while none is).
    QStringList savedPaths() const { return savedPaths_; }
    QString selectedPath() const { return selectedPath_; }

    // What the typed preview shows, in which font, and whether it is the
    // placeholder (the name is blank).
    QString previewText() const;
    QFont previewFont() const;
    bool previewShowsPlaceholder() const;

    // The ink drawn and typed signatures take.
    QColor inkColor() const;

    SignatureCanvasView *canvas() const { return canvas_; }
    QLineEdit *nameField() const { return nameField_; }
    QComboBox *fontPicker() const { return fontPicker_; }
    QPushButton *clearButton() const { return clear_; }
    QPushButton *saveDrawingButton() const { return saveDrawing_; }
    QPushButton *placeDrawingButton() const { return placeDrawing_; }
    QPushButton *saveTypedButton() const { return saveTyped_; }
    QPushButton *placeTypedButton() const { return placeTyped_; }
    QPushButton *importButton() const { return import_; }
    QPushButton *deleteSelectedButton() const { return deleteSelected_; }
    QPushButton *placeSelectedButton() const { return placeSelected_; }
    QPushButton *cancelButton() const { return cancel_; }
    QLabel *noSavedLabel() const { return noSaved_; }
    // Why the last import or save failed; hidden while nothing did.
    QLabel *messageLabel() const { return message_; }
    QScrollArea *savedRow() const { return savedRow_; }
    // The cell showing a saved signature; null when it has none (the file is
    // not listed or cannot be read as an image).
    QWidget *thumbnail(const QString &path) const;

protected:
    void showEvent(QShowEvent *event) override;

private:
    QWidget *buildInkChoice();
    QWidget *buildDrawingSection();
    QWidget *buildTypedSection();
    QWidget *buildSavedSection();
    void setSelectedPath(const QString &path);
    void typedChanged();
    void savedChanged();
    void reloadSaved();
    void inkChanged();
    void showMessage(const QString &text);
    QImage typedImage() const;
    QString typedFontName() const;
    void saveImage(const QImage &image);
    void place(const QImage &image);
    void importPNG();
    void deleteSelected();
    void placeSelected();

    DocumentModel *model_;
    QStringList savedPaths_;
    QString selectedPath_;

    QButtonGroup *ink_ = nullptr;
    SignatureCanvasView *canvas_ = nullptr;
    QLineEdit *nameField_ = nullptr;
    QComboBox *fontPicker_ = nullptr;
    QWidget *preview_ = nullptr;
    QPushButton *clear_ = nullptr;
    QPushButton *saveDrawing_ = nullptr;
    QPushButton *placeDrawing_ = nullptr;
    QPushButton *saveTyped_ = nullptr;
    QPushButton *placeTyped_ = nullptr;
    QPushButton *import_ = nullptr;
    QLabel *noSaved_ = nullptr;
    QScrollArea *savedRow_ = nullptr;
    QHBoxLayout *thumbnails_ = nullptr;
    QPushButton *deleteSelected_ = nullptr;
    QPushButton *placeSelected_ = nullptr;
    QPushButton *cancel_ = nullptr;
    QLabel *message_ = nullptr;
};
