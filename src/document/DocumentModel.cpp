#include "DocumentModel.h"

#include "FilePanel.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <QCursor>
#include <QFileInfo>
#include <QGuiApplication>
#include <QScopedValueRollback>

namespace {

// The wait cursor over every window while a file is read on this thread; the
// cursor comes back when the scope ends, whichever way it is left.
class BusyCursor {
public:
    BusyCursor() : shown_(qobject_cast<QGuiApplication *>(QCoreApplication::instance()) != nullptr)
    {
        if (shown_)
            QGuiApplication::setOverrideCursor(Qt::WaitCursor);
    }
    ~BusyCursor()
    {
        if (shown_)
            QGuiApplication::restoreOverrideCursor();
    }
    BusyCursor(const BusyCursor &) = delete;
    BusyCursor &operator=(const BusyCursor &) = delete;

private:
    bool shown_;
};

} // namespace

DocumentModel::DocumentModel(QObject *parent) : DocumentModel(RecentDocuments(), parent) {}

DocumentModel::DocumentModel(RecentDocuments recent, QObject *parent)
    : QObject(parent), recentURLs_(recent.list()), recent_(std::move(recent))
{
}

DocumentModel::~DocumentModel() = default;

QString DocumentModel::openFailedMessage(const QString &fileName)
{
    return tr("Couldn't open ") + fileName + tr(". It may not be a PDF, or the file may be damaged.");
}

QString DocumentModel::wrongPasswordMessage()
{
    return tr("That password didn't open the file. Check it and try again.");
}

QString DocumentModel::saveFailedMessage(const QString &fileName)
{
    return tr("Couldn't save changes to ") + fileName +
           tr(". The file may be locked, or in a folder you don't have permission to change. Use File > Save As to put a "
              "copy somewhere else.");
}

QString DocumentModel::saveAsFailedMessage()
{
    return tr("Couldn't save the PDF there. Pick a different folder and try again.");
}

QString DocumentModel::notPermittedMessage(const QString &fileName)
{
    return tr("You don't have permission to change ") + fileName +
           tr(". Nothing was changed. Use File > Save As to put a copy somewhere else.");
}

QString DocumentModel::fileReplacedMessage(const QString &fileName)
{
    return tr("The file ") + fileName +
           tr(" was replaced or moved since it was opened, so it was left as it is. Use File > Save As to keep your changes.");
}

// Setters: every write is announced.
void DocumentModel::setPdfDocument(std::shared_ptr<PdfDocument> document)
{
    pdfDocument_ = std::move(document);
    emit pdfDocumentChanged();
}

void DocumentModel::setFileURL(const QString &path)
{
    fileURL_ = path;
    emit fileURLChanged();
}

void DocumentModel::setIsDirty(bool dirty)
{
    isDirty_ = dirty;
    emit isDirtyChanged();
}

void DocumentModel::setCurrentPageIndex(int index)
{
    currentPageIndex_ = index;
    emit currentPageIndexChanged();
}

void DocumentModel::setSelectedPageIndices(const QSet<int> &indices)
{
    selectedPageIndices_ = indices;
    emit selectedPageIndicesChanged();
}

void DocumentModel::setPageMutationCount(int count)
{
    pageMutationCount_ = count;
    emit pageMutationCountChanged();
}

void DocumentModel::setHasTextSelection(bool selection)
{
    hasTextSelection_ = selection;
    emit hasTextSelectionChanged();
}

void DocumentModel::setPendingSignatureImage(const QImage &image)
{
    pendingSignatureImage_ = image;
    emit pendingSignatureImageChanged();
}

void DocumentModel::setSelectedAnnotation(std::shared_ptr<PdfAnnotation> annotation)
{
    selectedAnnotation_ = std::move(annotation);
    emit selectedAnnotationChanged();
}

void DocumentModel::setHistoryVersion(int version)
{
    historyVersion_ = version;
    emit historyVersionChanged();
}

void DocumentModel::setRecentURLs(const QStringList &paths)
{
    recentURLs_ = paths;
    emit recentURLsChanged();
}

void DocumentModel::setErrorMessage(const QString &message)
{
    errorMessage_ = message;
    emit errorMessageChanged();
}

void DocumentModel::setLockedDocument(std::shared_ptr<PdfDocument> document)
{
    lockedDocument_ = std::move(document);
    emit lockedDocumentChanged();
}

void DocumentModel::setLockedURL(const QString &path)
{
    lockedURL_ = path;
    emit lockedURLChanged();
}

void DocumentModel::setChangesRestricted(bool restricted)
{
    changesRestricted_ = restricted;
    emit changesRestrictedChanged();
}

void DocumentModel::setCoveredLine(bool covered)
{
    coveredLine_ = covered;
    emit coveredLineChanged();
}

void DocumentModel::setKeepsSignatures(bool keeps)
{
    keepsSignatures_ = keeps;
    emit keepsSignaturesChanged();
}

QString DocumentModel::displayName() const
{
    return fileURL_.isEmpty() ? tr("Untitled") : QFileInfo(fileURL_).fileName();
}

void DocumentModel::open(const QString &path)
{
    if (!resolveUnsavedChanges())
        return;
    BusyCursor busy;
    auto document = PdfDocument::open(path);
    if (!document) {
        setErrorMessage(openFailedMessage(QFileInfo(path).fileName()));
        return;
    }
    if (document->isLocked()) {
        setLockedDocument(document);
        setLockedURL(path);
        return;
    }
    finishOpen(document, path);
}

void DocumentModel::finishOpen(std::shared_ptr<PdfDocument> document, const QString &path)
{
    show(std::move(document), path, false);
    recent_.add(path);
    setRecentURLs(recent_.list());
}

// The common start of every document shown: its state begins afresh.
void DocumentModel::show(std::shared_ptr<PdfDocument> document, const QString &path, bool dirty)
{
    setChangesRestricted(document && !document->allowsChanges());
    setKeepsSignatures(document && document->isSigned() && document->canAppendChanges());
    retypedText_ = false;
    emit retypedTextChanged();
    setCoveredLine(false);
    setPdfDocument(std::move(document));
    watchPageList();
    setFileURL(path);
    history_.clear();
    unrecordedChange_ = dirty;
    setIsDirty(dirty);
    setCurrentPageIndex(0);
    setSelectedPageIndices({});
    setSelectedAnnotation(nullptr);
    setHistoryVersion(historyVersion_ + 1);
    setPageMutationCount(pageMutationCount_ + 1);
}

// Every change of the page list, whoever makes it, reaches the model.
void DocumentModel::watchPageList()
{
    disconnect(pageListObserver_);
    if (pdfDocument_)
        pageListObserver_ =
            connect(pdfDocument_->changes(), &PdfChangeChannel::pageListChanged, this, &DocumentModel::markPageStructureChanged);
}

void DocumentModel::updateDirty()
{
    setIsDirty(unrecordedChange_ || !history_.isAtSavePoint());
}

bool DocumentModel::resolveUnsavedChanges()
{
    if (!isDirty_ || !pdfDocument_ || !filePanel_)
        return true;
    switch (filePanel_->askToSaveChanges(displayName())) {
    case FilePanel::SaveAnswer::Save:
        return fileURL_.isEmpty() ? promptSaveAs() : save();
    case FilePanel::SaveAnswer::DontSave:
        return true;
    case FilePanel::SaveAnswer::Cancel:
        break;
    }
    return false;
}

void DocumentModel::undo()
{
    const QScopedValueRollback expected(expectingPageChanges_, true);
    history_.performUndo();
    setHistoryVersion(historyVersion_ + 1);
    updateDirty();
}

void DocumentModel::redo()
{
    const QScopedValueRollback expected(expectingPageChanges_, true);
    history_.performRedo();
    setHistoryVersion(historyVersion_ + 1);
    updateDirty();
}

void DocumentModel::unlockPendingDocument(const QString &password)
{
    if (!lockedDocument_ || lockedURL_.isEmpty())
        return;
    BusyCursor busy;
    if (!lockedDocument_->unlock(password)) {
        setErrorMessage(wrongPasswordMessage());
        return;
    }
    auto document = lockedDocument_;
    const QString path = lockedURL_;
    setLockedDocument(nullptr);
    setLockedURL({});
    finishOpen(document, path);
}

void DocumentModel::setDocument(std::shared_ptr<PdfDocument> document, const QString &path)
{
    if (!resolveUnsavedChanges())
        return;
    // A document that exists only in memory counts as unsaved.
    show(std::move(document), path, path.isEmpty());
}

QString DocumentModel::writeFailedMessage(const QString &path, bool saveAs) const
{
    const QString name = QFileInfo(path).fileName();
    switch (pdfDocument_->lastWriteFailure()) {
    case PdfDocument::WriteFailure::None:
        return {};
    case PdfDocument::WriteFailure::NotPermitted:
        return notPermittedMessage(name);
    case PdfDocument::WriteFailure::Replaced:
        return fileReplacedMessage(name);
    case PdfDocument::WriteFailure::Failed:
        break;
    }
    return saveAs ? saveAsFailedMessage() : saveFailedMessage(name);
}

bool DocumentModel::save()
{
    if (!pdfDocument_ || fileURL_.isEmpty())
        return false;
    PdfWriteOptions options;
    options.keepSignatures = keepsSignatures_;
    if (!pdfDocument_->write(fileURL_, options)) {
        setErrorMessage(writeFailedMessage(fileURL_, false));
        return false;
    }
    history_.markSaved();
    unrecordedChange_ = false;
    updateDirty();
    return true;
}

void DocumentModel::promptOpen()
{
    if (!filePanel_)
        return;
    const QStringList chosen = filePanel_->chooseFilesToOpen(FilePanel::Content::Pdf, false);
    if (!chosen.isEmpty())
        open(chosen.first());
}

bool DocumentModel::promptSaveAs()
{
    if (!pdfDocument_ || !filePanel_)
        return false;
    const QString proposed = fileURL_.isEmpty() ? tr("Untitled.pdf") : QFileInfo(fileURL_).fileName();
    const QString chosen = filePanel_->chooseFileToSave(proposed);
    if (chosen.isEmpty())
        return false;
    PdfWriteOptions options;
    options.keepSignatures = keepsSignatures_;
    if (!pdfDocument_->write(chosen, options)) {
        setErrorMessage(writeFailedMessage(chosen, true));
        return false;
    }
    setFileURL(chosen);
    history_.markSaved();
    unrecordedChange_ = false;
    updateDirty();
    return true;
}

void DocumentModel::clearRecentDocuments()
{
    recent_.clear();
    setRecentURLs({});
}
