// The state of the open document, shared by every window of the application:
// the document and its file, unsaved changes, the current and selected pages,
// the selected annotation, the undo history, the recent files, a document
// waiting for its password and the one error message the window shows. It
// holds no widget: each window keeps its own view and hands the model what a
// command needs from it.
//
// Each published value has a getter, a setter and a <name>Changed signal; a
// setter announces every write, also one that does not change the value.
// Operations report failures the user must know about through errorMessage.
#pragma once

#include "EditHistory.h"
#include "RecentDocuments.h"

#include <QColor>
#include <QImage>
#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QRectF>
#include <QSet>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

class FilePanel;
class PdfAnnotation;
class PdfOutline;
struct PdfOutlineChange;
class PdfDocument;
class PdfFieldEdit;
class PdfPage;
class PdfSelection;

class DocumentModel : public QObject {
    Q_OBJECT
public:
    explicit DocumentModel(QObject *parent = nullptr);
    DocumentModel(RecentDocuments recent, QObject *parent = nullptr);
    ~DocumentModel() override;

    // Published state.
    std::shared_ptr<PdfDocument> pdfDocument() const { return pdfDocument_; }
    void setPdfDocument(std::shared_ptr<PdfDocument> document);
    // The file the document is saved to; empty when there is none.
    QString fileURL() const { return fileURL_; }
    void setFileURL(const QString &path);
    // True when the document differs from its file: the history is away
    // from the point last saved, or a change was made outside the history.
    bool isDirty() const { return isDirty_; }
    void setIsDirty(bool dirty);
    int currentPageIndex() const { return currentPageIndex_; }
    void setCurrentPageIndex(int index);
    QSet<int> selectedPageIndices() const { return selectedPageIndices_; }
    void setSelectedPageIndices(const QSet<int> &indices);
    int pageMutationCount() const { return pageMutationCount_; }
    void setPageMutationCount(int count);
    bool hasTextSelection() const { return hasTextSelection_; }
    void setHasTextSelection(bool selection);
    QImage pendingSignatureImage() const { return pendingSignatureImage_; }
    void setPendingSignatureImage(const QImage &image);
    std::shared_ptr<PdfAnnotation> selectedAnnotation() const { return selectedAnnotation_; }
    void setSelectedAnnotation(std::shared_ptr<PdfAnnotation> annotation);
    int historyVersion() const { return historyVersion_; }
    void setHistoryVersion(int version);
    QStringList recentURLs() const { return recentURLs_; }
    void setRecentURLs(const QStringList &paths);
    // The message the window shows; empty when there is none.
    QString errorMessage() const { return errorMessage_; }
    void setErrorMessage(const QString &message);
    std::shared_ptr<PdfDocument> lockedDocument() const { return lockedDocument_; }
    void setLockedDocument(std::shared_ptr<PdfDocument> document);
    QString lockedURL() const { return lockedURL_; }
    void setLockedURL(const QString &path);
    // True while the document's author restricts changing it and the user
    // has not chosen to edit it anyway: every change is refused then.
    bool changesRestricted() const { return changesRestricted_; }
    void setChangesRestricted(bool restricted);
    // True while the document is signed and saves append the changes after
    // the signatures, so they stay valid. Page work gives that up (the user
    // is asked first); saves then write the document anew.
    bool keepsSignatures() const { return keepsSignatures_; }
    void setKeepsSignatures(bool keeps);
    // What retyping lines did to the document: some line's text was
    // replaced in the page's content, or some line could only be covered
    // (its old text stays in the file). Both start false with each document.
    bool retypedText() const { return retypedText_; }
    bool coveredLine() const { return coveredLine_; }
    void setCoveredLine(bool covered);

    // The file name of fileURL, or "Untitled".
    QString displayName() const;
    EditHistory &history() { return history_; }
    // The desktop's recent-files list the model reads and adds to.
    RecentDocuments &recentDocuments() { return recent_; }
    // Where the file choosers come from; the application sets the real one.
    void setFilePanel(std::shared_ptr<FilePanel> panel) { filePanel_ = std::move(panel); }
    std::shared_ptr<FilePanel> filePanel() const { return filePanel_; }

    // Document operations. Opening or setting another document first asks
    // about unsaved changes (see resolveUnsavedChanges).
    void open(const QString &path);
    void unlockPendingDocument(const QString &password);
    void setDocument(std::shared_ptr<PdfDocument> document, const QString &path);
    // Each answers whether the document was written.
    bool save();
    void promptOpen();
    bool promptSaveAs();
    // With unsaved changes, asks the user whether to save them: true when the
    // work may go on (saved, or the user chose not to save), false when the
    // user cancelled or the save failed. Without changes, true at once.
    bool resolveUnsavedChanges();
    // Undoes or redoes the most recent change of the history.
    void undo();
    void redo();
    // Empties this application's entries of the recent-files list ("Clear Menu").
    void clearRecentDocuments();

    // Annotation and page mutations; each annotation change is one undoable step.
    void addAnnotation(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page, bool recordUndo);
    void removeAnnotation(const std::shared_ptr<PdfAnnotation> &annotation);
    // Removes these annotations and the replies to them in one step.
    void removeAnnotations(const std::vector<std::shared_ptr<PdfAnnotation>> &annotations);
    void setAnnotationBounds(const std::shared_ptr<PdfAnnotation> &annotation, const QRectF &newBounds, const QRectF &oldBounds);
    void commitAnnotationDrag(const std::shared_ptr<PdfAnnotation> &annotation, const std::shared_ptr<PdfPage> &page,
                              const QRectF &newBounds, const QRectF &oldBounds);
    // With `bounds` (new, old), the box changes in the same step as its text.
    void setAnnotationContents(const std::shared_ptr<PdfAnnotation> &annotation, const QString &newText, const QString &oldText,
                               std::optional<std::pair<QRectF, QRectF>> bounds = std::nullopt);
    // Replaces a run of a page's text (page space) in the page's content, one
    // undoable step; false, with nothing changed, where the content cannot be
    // edited there (the caller covers the line instead) or changes are refused.
    bool retypeText(const std::shared_ptr<PdfPage> &page, const QRectF &run, const QString &text);
    // Runs `edit`, a change of form fields (PdfFormField::setValue and its
    // kin), and records the change it answers as one undoable step; false,
    // with nothing changed, when it answers none (the value was refused or
    // is the same) or changes are refused.
    bool changeFields(const std::function<std::shared_ptr<PdfFieldEdit>()> &edit);
    // Sets every field of the form back to its default, one undoable step.
    void resetForm();
    // Whether the document has form fields (Reset Form is offered then).
    bool hasFormFields() const;
    // Marks the selected text with one markup annotation per page, one undoable step each.
    void applyMarkup(const QString &subtype, const QColor &color, const PdfSelection &selection);

    // Page work, each one undoable step however many pages it touches.
    void rotateCurrentPage(int degrees);
    // Runs `operation`, which changes the order or the set of the document's
    // pages (insert, remove, move), and records it as one undoable step.
    void changePages(const std::function<void()> &operation);
    void deletePages(const std::set<int> &indices);
    // Runs an edit of the bookmarks and records what it answers as one
    // undoable step; false when the edit was refused (or changes are).
    bool changeOutline(const std::function<PdfOutlineChange(PdfOutline &)> &edit);
    // The page list changed (the engine announces it): the current page, the
    // page selection and the selected annotation are brought back inside it.
    void markPageStructureChanged();

    // The user-visible messages.
    static QString openFailedMessage(const QString &fileName);
    static QString wrongPasswordMessage();
    static QString saveFailedMessage(const QString &fileName);
    static QString saveAsFailedMessage();
    static QString notPermittedMessage(const QString &fileName);
    static QString fileReplacedMessage(const QString &fileName);

signals:
    void pdfDocumentChanged();
    void fileURLChanged();
    void isDirtyChanged();
    void currentPageIndexChanged();
    void selectedPageIndicesChanged();
    void pageMutationCountChanged();
    void hasTextSelectionChanged();
    void pendingSignatureImageChanged();
    void selectedAnnotationChanged();
    void historyVersionChanged();
    void recentURLsChanged();
    void errorMessageChanged();
    void lockedDocumentChanged();
    void lockedURLChanged();
    void changesRestrictedChanged();
    void keepsSignaturesChanged();
    void retypedTextChanged();
    void coveredLineChanged();

private:
    void finishOpen(std::shared_ptr<PdfDocument> document, const QString &path);
    void show(std::shared_ptr<PdfDocument> document, const QString &path, bool dirty);
    void deselectIfSelected(const std::shared_ptr<PdfAnnotation> &annotation);
    void record(EditHistory::Edit edit);
    void reseat(const std::shared_ptr<PdfAnnotation> &annotation);
    void count();
    std::pair<std::function<void()>, std::function<void()>> placementActions(const std::shared_ptr<PdfAnnotation> &annotation,
                                                                             const std::shared_ptr<PdfPage> &page);
    void recordBoundsChange(const std::shared_ptr<PdfAnnotation> &annotation, const QRectF &newBounds, const QRectF &oldBounds);
    void changed(bool recorded = true);
    void updateDirty();
    void watchPageList();
    // The message for a write of `path` that failed; empty when it did not.
    QString writeFailedMessage(const QString &path, bool saveAs) const;
    // Whether page work may go ahead: not while changes are restricted, and
    // in a signed document only once the user agreed to give up the signatures.
    bool mayChangePages();

    std::shared_ptr<PdfDocument> pdfDocument_;
    QString fileURL_;
    bool isDirty_ = false;
    int currentPageIndex_ = 0;
    QSet<int> selectedPageIndices_;
    int pageMutationCount_ = 0;
    bool hasTextSelection_ = false;
    QImage pendingSignatureImage_;
    std::shared_ptr<PdfAnnotation> selectedAnnotation_;
    int historyVersion_ = 0;
    QStringList recentURLs_;
    QString errorMessage_;
    std::shared_ptr<PdfDocument> lockedDocument_;
    QString lockedURL_;
    bool changesRestricted_ = false;
    bool keepsSignatures_ = false;
    bool retypedText_ = false;
    bool coveredLine_ = false;

    QMetaObject::Connection pageListObserver_;
    // A change was made that the history does not hold (or the document was
    // never saved), so undoing cannot lead back to the file.
    bool unrecordedChange_ = false;
    // Set while the model itself changes the page list (page work, undo, redo).
    bool expectingPageChanges_ = false;
    EditHistory history_;
    RecentDocuments recent_;
    std::shared_ptr<FilePanel> filePanel_;
};
