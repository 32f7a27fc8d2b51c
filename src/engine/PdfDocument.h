// A PDF document, shared by reference. Open one from a file or start an
// empty one; pages are fetched, inserted and removed as page objects.
#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

struct DocCore;
class PdfChangeChannel;
class PdfForm;
class PdfFormField;
class PdfPage;

struct PdfWriteOptions {
    // When set, the file is written encrypted (AES-256) with these passwords;
    // otherwise an encrypted document stays encrypted as it was.
    QString userPassword;
    QString ownerPassword;
    // A signed document is written as its original bytes with the changes
    // appended, so every signature still covers the bytes it signed; when
    // false it is written anew (and its signatures no longer match it).
    bool keepSignatures = true;
};

class PdfDocument;

// While a batch is open, the pages copied into its document from one source
// share the copies of what they have in common (fonts, images), so a merge of
// many pages writes each shared resource once. Outside a batch every copy is
// made afresh from the source as it is at that moment (a batch of its own).
//
// Copied pages keep what leads from them within their document: a link to a
// page copied in the same batch leads to the copy; one to a page left behind
// is dropped when the document is written. Named destinations the copies use
// come along, and form widgets stay fields of the document's form; names
// already taken there get a suffix ("-2"). When the batch ends, each source's
// outline entries that lead to copied pages (or hold entries that do) come
// along, in their order and nesting, among the document's entries in page order.
class PdfCopyBatch {
public:
    explicit PdfCopyBatch(const std::shared_ptr<PdfDocument> &into);
    ~PdfCopyBatch();
    PdfCopyBatch(const PdfCopyBatch &) = delete;
    PdfCopyBatch &operator=(const PdfCopyBatch &) = delete;

    // Puts the outline entries brought from `source` under one new entry,
    // `title`, that leads to the first page copied from it.
    void groupOutline(const std::shared_ptr<PdfDocument> &source, const QString &title);

private:
    std::shared_ptr<PdfDocument> into_;
};

class PdfDocument : public std::enable_shared_from_this<PdfDocument> {
public:
    // None when the file is not a readable PDF.
    static std::shared_ptr<PdfDocument> open(const QString &path);
    static std::shared_ptr<PdfDocument> create();
    ~PdfDocument();
    PdfDocument(const PdfDocument &) = delete;
    PdfDocument &operator=(const PdfDocument &) = delete;

    // Where changes to the document's pages are announced.
    PdfChangeChannel *changes() const;

    // The file the document was read from, or last written to as a whole
    // (empty for a new document).
    QString path() const;

    bool isEncrypted() const;
    // True while an encrypted document waits for its password.
    bool isLocked() const;
    bool unlock(const QString &password);

    int pageCount() const;
    // Whether the document has bookmarks (outline entries).
    bool hasOutline() const;
    // The label of every page ("iv", "A-3") as the document numbers them,
    // in page order; empty when the document gives no labels.
    QStringList pageLabels() const;
    std::shared_ptr<PdfPage> page(int index);

    // What is read from pages (the engine's loaded page, the text layout) is
    // kept for the pages used most recently only, so memory does not grow
    // with the number of pages looked at.
    static constexpr int loadedPageBudget = 24;
    static constexpr int textLayoutBudget = 12;
    int loadedPageCount() const;
    int textLayoutCount() const;
    // Puts a page at `index` (later pages shift up). A page of this document
    // that was removed goes back as itself; any other page is copied in.
    bool insert(const std::shared_ptr<PdfPage> &page, int index);
    bool removePage(int index);
    // Makes the document's pages exactly `pages`, in this order. Each must be
    // a page of this document, in it now or removed from it before; those
    // left out are removed (and can be put back). The page tree is written
    // anew as one flat list, so any number of pages costs one pass. False,
    // with nothing changed, for a page of another document or a repeat.
    bool setPages(const std::vector<std::shared_ptr<PdfPage>> &pages);
    // The pages in order.
    std::vector<std::shared_ptr<PdfPage>> pages() const { return pages_; }

    // Writes the whole document: a temporary file next to `path`, synced and
    // renamed over it only when everything was written, so a failure, a crash
    // or a power cut leaves the old file or the new one, never a mix. Links,
    // bookmarks, named destinations and form fields that lead to pages no
    // longer in the document are left out of the file (and kept in memory,
    // so a page put back finds them again).
    bool write(const QString &path, const PdfWriteOptions &options = {});
    // Writes each document to its file as `write` does, all of them made
    // durable together (much faster than one save after another for many
    // small files). `step` is told how many are written so far; the answer
    // says, for each, whether it was written.
    static std::vector<bool> writeAll(const std::vector<std::pair<std::shared_ptr<PdfDocument>, QString>> &files,
                                      const std::function<void(qint64 done)> &step = {});
    // A write over the document's own file is refused when another file
    // stands at its path now (it was replaced, or a link put in its place),
    // and any write over a file the user may not change is refused. The old
    // file keeps its owner, group, permissions and hard links. After a write
    // the document's file is the one written.
    enum class WriteFailure { None, Failed, NotPermitted, Replaced };
    WriteFailure lastWriteFailure() const;

    // Whether a signature field of the document holds a signature.
    bool isSigned() const;
    // Whether changes can be written after the bytes the document was read
    // from (not for a new document, nor one whose file had to be repaired).
    bool canAppendChanges() const;
    // False when the document's author restricted changing it or adding
    // annotations (and it was not opened with the owner password).
    bool allowsChanges() const;

    // The document's form (PdfFormField.h), made on first use and kept.
    std::shared_ptr<PdfForm> form();
    // Its terminal fields, in the order of the form's field tree.
    std::vector<std::shared_ptr<PdfFormField>> formFields();

private:
    friend class PdfCopyBatch;
    friend class PdfForm;
    friend class PdfOutline;
    friend class PdfPage;
    PdfDocument() = default;
    bool loadPageList();
    // Remembers which file the document was opened from and clears what
    // killed saves of it left behind.
    void fileOpened();
    int indexOf(const PdfPage *page) const;
    // Makes the file's bytes and hands them to `sink`; false when either fails.
    bool serialize(const PdfWriteOptions &options, const std::function<bool(const char *, qint64)> &sink);
    // The object numbers of the pages, in order.
    std::vector<int> pageNumbers() const;
    // Ends a copy batch; the outermost one ties up what the copies brought.
    void endCopyBatch();

    std::shared_ptr<DocCore> core_;
    bool locked_ = false;
    // The pages in order.
    std::vector<std::shared_ptr<PdfPage>> pages_;
    std::shared_ptr<PdfForm> form_;
};
