// Bookmarks: the outline read into the panel's model (nesting, where each
// destination leads, loops and broken destinations), edited one undoable
// step at a time and written so that another reader sees the edits, and the
// panel as a user works it.
#include "AnnotationFactory.h"
#include "BookmarksView.h"
#include "CommentsModel.h"
#include "CommentsView.h"
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "OutlineModel.h"
#include "PdfAnnotation.h"
#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfInspect.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QAction>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QTemporaryDir>
#include <QTimeZone>
#include <QToolButton>
#include <QtTest>

using fixtures::OutlineSpec;
using fixtures::StructuredSpec;

namespace {

// "title->page [children]", pages counted from 0 (-1: leads nowhere).
QString describe(const OutlineModel &model, const QModelIndex &parent = {})
{
    QStringList parts;
    for (int row = 0; row < model.rowCount(parent); ++row) {
        const QModelIndex index = model.index(row, 0, parent);
        const QString below = describe(model, index);
        parts << QString("%1->%2").arg(index.data().toString()).arg(index.data(OutlineModel::PageIndexRole).toInt()) +
                     (below.isEmpty() ? QString() : " [" + below + "]");
    }
    return parts.join(", ");
}

QString describe(const std::vector<inspect::OutlineItem> &outline)
{
    QStringList parts;
    for (const auto &item : outline)
        parts << QString("%1->%2").arg(item.title).arg(item.page) +
                     (item.children.empty() ? QString() : " [" + describe(item.children) + "]");
    return parts.join(", ");
}

QModelIndex find(const OutlineModel &model, const QString &title)
{
    const QModelIndexList found =
        model.match(model.index(0, 0), Qt::DisplayRole, title, 1, Qt::MatchExactly | Qt::MatchRecursive);
    return found.isEmpty() ? QModelIndex() : found.first();
}

// Changes `from` to `to` (of the same length, so the file's offsets hold)
// inside the object that holds `marker`.
void patch(QByteArray &file, const QByteArray &marker, const QByteArray &from, const QByteArray &to)
{
    const qsizetype at = file.indexOf(marker);
    const qsizetype start = file.lastIndexOf(" obj", at);
    const qsizetype hit = file.indexOf(from, start);
    QVERIFY(at >= 0 && hit >= 0 && hit < file.indexOf("endobj", at) && from.size() == to.size());
    file.replace(hit, from.size(), to);
}

// The title editor open in a view.
QLineEdit *editorOf(QAbstractItemView *view)
{
    for (QLineEdit *editor : view->viewport()->findChildren<QLineEdit *>())
        if (editor->isVisible())
            return editor;
    return nullptr;
}

// A panel beside the page view showing the model's document, in `window`.
template <class Panel> Panel *showPanel(QWidget &window, DocumentModel &model, PdfView *&pdfView)
{
    pdfView = new PdfView;
    auto *panel = new Panel(&model, pdfView);
    auto *layout = new QHBoxLayout(&window);
    layout->addWidget(panel);
    layout->addWidget(pdfView, 1);
    pdfView->setDocument(model.pdfDocument());
    window.resize(900, 600);
    window.show();
    return panel;
}

} // namespace

class TestNavigation : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString path(const QString &name) const { return dir_.filePath(name); }

    std::shared_ptr<PdfDocument> openBytes(const QString &name, const QByteArray &bytes)
    {
        const QString file = path(name);
        return fixtures::writeFile(file, bytes) ? PdfDocument::open(file) : nullptr;
    }

private slots:
    void readsTreeAndDestinations();
    void editsUndoRedoAndSave();
    void panelGoesMarksAddsAndEdits();
    void commentsListFilterFollowAndDelete();
};

// Nested entries with explicit and named destinations (name tree and the
// older /Dests), go-to actions, places on the page, entries leading nowhere,
// and loops of /Next and /First, which are cut where they recur.
void TestNavigation::readsTreeAndDestinations()
{
    for (const bool legacy : {false, true}) {
        StructuredSpec structure;
        structure.pages = fixtures::numberedPages(4, 1);
        structure.namedDestinations = {{"chap2", 2}};
        structure.legacyDests = legacy;
        structure.outline = {{"Intro", 0},
                             {"Part", 1, {}, {{"Named", -1, "chap2"}, {"Action", 3, {}, {}, true}}},
                             {"Nowhere", -1},
                             {"Broken", -1, "nosuch"}};
        QByteArray bytes = fixtures::buildStructuredPdf(structure);
        patch(bytes, "/Title (Intro)", "/XYZ 0 792.00 0]", "/FitH 500      ]");
        const auto doc = openBytes("tree.pdf", bytes);
        QVERIFY(doc);
        DocumentModel model;
        model.setDocument(doc, doc->path());
        OutlineModel outline(&model);
        QCOMPARE(describe(outline), "Intro->0, Part->1 [Named->2, Action->3], Nowhere->-1, Broken->-1");
        QCOMPARE(outline.page(find(outline, "Named")), doc->page(2));
        QCOMPARE(outline.point(find(outline, "Named")), QPointF(0, 792));
        QCOMPARE(outline.point(find(outline, "Action")), QPointF(0, 792));
        QCOMPARE(outline.point(find(outline, "Intro")), QPointF(0, 500)); // FitH: the page's left edge
        QVERIFY(!outline.page(find(outline, "Broken")));
        // The section at a place: the last bookmark at or before it.
        QVERIFY(!outline.sectionAt(0, {0, 600}).isValid());
        QCOMPARE(outline.sectionAt(0, {0, 400}), find(outline, "Intro"));
        QCOMPARE(outline.sectionAt(1, {0, 792}), find(outline, "Part"));
        QCOMPARE(outline.sectionAt(2, {0, 300}), find(outline, "Named"));
        // Bookmarks follow their pages through page work.
        model.deletePages({1});
        QCoreApplication::processEvents();
        QCOMPARE(describe(outline), "Intro->0, Part->-1 [Named->1, Action->2], Nowhere->-1, Broken->-1");
        model.undo();
        QCoreApplication::processEvents();
        QCOMPARE(describe(outline), "Intro->0, Part->1 [Named->2, Action->3], Nowhere->-1, Broken->-1");
    }

    StructuredSpec structure;
    structure.pages = fixtures::numberedPages(3, 1);
    structure.outline = {{"A", 0}, {"B", 1, {}, {{"C", 2}}}};
    QByteArray bytes = fixtures::buildStructuredPdf(structure);
    patch(bytes, "/Title (B)", "/Prev", "/Next");     // B → A → B …
    patch(bytes, "/Title (C)", "/Parent", "/First "); // C's entries start at B
    const auto doc = openBytes("loops.pdf", bytes);
    QVERIFY(doc);
    DocumentModel model;
    model.setDocument(doc, doc->path());
    OutlineModel outline(&model);
    QCOMPARE(describe(outline), "A->0, B->1 [C->2]");
    // An edit relinks the damaged chains it touches clean.
    QVERIFY(outline.rename(find(outline, "A"), "A2"));
    QVERIFY(outline.move(find(outline, "C"), {}, 0));
    QVERIFY(doc->write(path("loops-saved.pdf")));
    const inspect::PdfObjects saved(path("loops-saved.pdf"));
    QCOMPARE(describe(saved.outline()), "C->2, A2->0, B->1");
    QCOMPARE(saved.outlineProblems(), QStringList());
}

// Each edit is one step of the history: undo and redo walk through them all;
// an empty /Outlines takes a new entry; the saved file shows the edits to qpdf.
void TestNavigation::editsUndoRedoAndSave()
{
    StructuredSpec structure;
    structure.pages = fixtures::numberedPages(4, 1);
    structure.outline = {{"A", 0}, {"B", 1, {}, {{"C", 2}}}};
    QVERIFY(fixtures::writeStructuredPdf(path("edits.pdf"), structure));
    const auto doc = PdfDocument::open(path("edits.pdf"));
    DocumentModel model;
    model.setDocument(doc, path("edits.pdf"));
    OutlineModel outline(&model);
    QSignalSpy announced(doc->changes(), &PdfChangeChannel::outlineChanged);

    QStringList states{describe(outline)};
    auto step = [&](bool done, const QString &expected) {
        QVERIFY(done);
        QCoreApplication::processEvents();
        QCOMPARE(describe(outline), expected);
        states << expected;
    };
    step(outline.rename(find(outline, "A"), "Alpha"), "Alpha->0, B->1 [C->2]");
    step(outline.move(find(outline, "C"), {}, 0), "C->2, Alpha->0, B->1");
    step(outline.move(find(outline, "Alpha"), find(outline, "B"), 0), "C->2, B->1 [Alpha->0]");
    const QModelIndex made = outline.addBookmark("New", doc->page(3), QPointF(50, 400), find(outline, "B"), -1);
    step(made.isValid(), "C->2, B->1 [Alpha->0, New->3]");
    QCOMPARE(outline.point(made), QPointF(50, 400));
    QVERIFY(model.isDirty());
    QVERIFY(doc->write(path("nested.pdf")));
    const inspect::PdfObjects nested(path("nested.pdf"));
    QCOMPARE(describe(nested.outline()), "C->2, B->1 [Alpha->0, New->3]");
    QCOMPARE(nested.outlineProblems(), QStringList());

    // Refused: into itself or below itself, and a move to where it is.
    QVERIFY(!outline.move(find(outline, "B"), find(outline, "Alpha"), 0));
    QVERIFY(!outline.move(find(outline, "B"), find(outline, "B"), 0));
    QVERIFY(!outline.move(find(outline, "C"), {}, 1));
    // A drop moves what was dragged.
    std::unique_ptr<QMimeData> dragged(outline.mimeData({find(outline, "New")}));
    QVERIFY(!outline.dropMimeData(dragged.get(), Qt::MoveAction, -1, 0, find(outline, "C")));
    QCoreApplication::processEvents();
    QCOMPARE(describe(outline), "C->2 [New->3], B->1 [Alpha->0]");
    states << describe(outline);
    step(outline.remove(find(outline, "B")), "C->2 [New->3]");
    step(outline.remove(find(outline, "C")), "");
    step(outline.addBookmark("Only", doc->page(0), std::nullopt, {}, 0).isValid(), "Only->0");
    QCOMPARE(announced.count(), 8);

    for (qsizetype at = states.size() - 2; at >= 0; --at) {
        model.undo();
        QCoreApplication::processEvents();
        QCOMPARE(describe(outline), states[at]);
    }
    QVERIFY(!model.isDirty());
    for (qsizetype at = 1; at < states.size(); ++at) {
        model.redo();
        QCoreApplication::processEvents();
        QCOMPARE(describe(outline), states[at]);
    }
    QVERIFY(model.save());
    const inspect::PdfObjects saved(path("edits.pdf"));
    QCOMPARE(describe(saved.outline()), "Only->0");
    QCOMPARE(saved.outlineProblems(), QStringList());
    // Reopened, the entry leads to the whole page as it is shown.
    DocumentModel reopened;
    reopened.setDocument(PdfDocument::open(path("edits.pdf")), path("edits.pdf"));
    OutlineModel again(&reopened);
    QCOMPARE(describe(again), "Only->0");
    QCOMPARE(again.point(again.index(0, 0)), std::nullopt);
}

void TestNavigation::panelGoesMarksAddsAndEdits()
{
    StructuredSpec structure;
    structure.pages = fixtures::numberedPages(6, 3);
    structure.outline = {{"One", 0}, {"Two", 2, {}, {{"Two A", 3}}}, {"Three", 5}};
    QVERIFY(fixtures::writeStructuredPdf(path("panel.pdf"), structure));
    DocumentModel model;
    model.setDocument(PdfDocument::open(path("panel.pdf")), path("panel.pdf"));
    QWidget window;
    PdfView *pdfView = nullptr;
    auto *panel = showPanel<BookmarksView>(window, model, pdfView);
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    OutlineModel &outline = *panel->outlineModel();
    // Hidden, the panel reads nothing; shown, it reads the outline (after a note).
    panel->hide();
    model.setDocument(PdfDocument::open(path("panel.pdf")), path("panel.pdf"));
    pdfView->setDocument(model.pdfDocument());
    QVERIFY(outline.rowCount() == 0 && outline.isStale());
    panel->show();
    QTRY_COMPARE(describe(outline), "One->0, Two->2 [Two A->3], Three->5");
    QCOMPARE(panel->accessibleName(), "Bookmarks");
    QVERIFY(panel->isExpanded(find(outline, "Two"))); // as the file says

    // A click goes to the bookmark, which is marked as the section read.
    const QModelIndex two = find(outline, "Two");
    QTest::mouseClick(panel->viewport(), Qt::LeftButton, {}, panel->visualRect(two).center());
    QCOMPARE(pdfView->currentPageIndex(), 2);
    QVERIFY(two.data(OutlineModel::ReadingRole).toBool());
    // Scrolling on marks the bookmark of the section; inside a collapsed
    // bookmark, that bookmark.
    pdfView->goToPoint(pdfView->document()->page(4), {0, 400});
    QVERIFY(find(outline, "Two A").data(OutlineModel::ReadingRole).toBool());
    panel->collapse(find(outline, "Two"));
    QVERIFY(find(outline, "Two").data(OutlineModel::ReadingRole).toBool());
    QVERIFY(panel->deleteBookmarkAction()->isEnabled());

    // Add Bookmark at the place read: named after the first line there,
    // placed after the section's bookmark, and renamed in place.
    pdfView->goToPoint(pdfView->document()->page(1), {0, 700});
    QVERIFY(find(outline, "One").data(OutlineModel::ReadingRole).toBool());
    panel->addBookmarkAction()->trigger();
    const QModelIndex added = outline.index(1, 0);
    QCOMPARE(added.data().toString(), "The quick brown fox jumps over the lazy dog, line 1 of page 2.");
    QVERIFY(qAbs(outline.point(added)->y() - 700) < 1);
    QLineEdit *editor = editorOf(panel);
    QVERIFY(editor);
    QCOMPARE(editor->accessibleName(), "Bookmark Title");
    QTest::keyClick(editor, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(editor, "Mine");
    QTest::keyClick(editor, Qt::Key_Return);
    QTRY_COMPARE(describe(outline), "One->0, Mine->1, Two->2 [Two A->3], Three->5");
    // The expanded state outlives the edits' reloads; Two stays collapsed.
    QVERIFY(!panel->isExpanded(find(outline, "Two")));
    QCOMPARE(panel->currentIndex(), find(outline, "Mine"));

    // F2 renames, Delete removes; each one step of the history.
    QTest::keyClick(panel, Qt::Key_F2);
    QVERIFY(editorOf(panel));
    QTest::keyClicks(editorOf(panel), "Renamed");
    QTest::keyClick(editorOf(panel), Qt::Key_Return);
    QTRY_VERIFY(find(outline, "Renamed").isValid());
    panel->setCurrentIndex(find(outline, "Three"));
    QTest::keyClick(panel, Qt::Key_Delete);
    QTRY_COMPARE(describe(outline), "One->0, Renamed->1, Two->2 [Two A->3]");
    for (int edit = 0; edit < 4; ++edit)
        model.undo();
    QTRY_COMPARE(describe(outline), "One->0, Two->2 [Two A->3], Three->5");

    // A document whose author restricted changes shows its bookmarks only.
    model.setChangesRestricted(true);
    QCoreApplication::processEvents();
    QVERIFY(!panel->addBookmarkAction()->isEnabled() && !panel->deleteBookmarkAction()->isEnabled());
    QVERIFY(!(outline.flags(find(outline, "One")) & Qt::ItemIsEditable));
}

// The Comments panel: every annotation but links in page order, down each
// page, with author and date as the file has them; a highlight without
// contents shows the text it marks, a huge note its first line cut; a reply
// under what it answers, written so that qpdf reads it as one. It follows
// changes page by page, filters, selects and deletes undoably, replies along.
void TestNavigation::commentsListFilterFollowAndDelete()
{
    std::vector<fixtures::PageSpec> pages = fixtures::numberedPages(2, 2);
    const QByteArray huge = "Huge " + QByteArray(100000, 'w') + "\\nSecond line";
    pages[0].annotations = {
        {"<< /Type /Annot /Subtype /Square /Contents (A square) /T (Ann) /M (D:20240102030405+02'00')", {200, 300, 100, 60}, {}},
        {"<< /Type /Annot /Subtype /Highlight /T (Bob) /QuadPoints [60 678 560 678 60 660 560 660]", {60, 660, 500, 18}, {}},
        {"<< /Type /Annot /Subtype /Text /T (Ann) /CreationDate (D:2023050607Z) /Contents (" + huge + ")",
         {100, 730, 20, 20},
         {}},
        {"<< /Type /Annot /Subtype /Link /Border [0 0 0]", {72, 100, 50, 20}, {}}};
    pages[1].annotations = {
        {"<< /Type /Annot /Subtype /FreeText /T (Bob) /Contents (Free words\\nmore)", {72, 400, 200, 40}, {}}};
    QVERIFY(fixtures::writePdf(path("comments.pdf"), pages));
    DocumentModel model;
    model.setDocument(PdfDocument::open(path("comments.pdf")), path("comments.pdf"));
    QWidget window;
    PdfView *pdfView = nullptr;
    auto *panel = showPanel<CommentsView>(window, model, pdfView);
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const CommentsModel &comments = *panel->commentsModel();
    const QAbstractItemModel &shown = *panel->list()->model();
    auto describe = [](const QAbstractItemModel &list) {
        QStringList rows;
        for (int row = 0; row < list.rowCount(); ++row) {
            const QModelIndex index = list.index(row, 0);
            rows << QString("%1@%2 %3: %4")
                        .arg(index.data(CommentsModel::KindRole).toString())
                        .arg(index.data(CommentsModel::PageIndexRole).toInt())
                        .arg(index.data(CommentsModel::AuthorRole).toString(), index.data().toString().left(12));
        }
        return rows.join(" | ");
    };
    // Hidden, the panel reads nothing; shown, it lists the document.
    panel->hide();
    model.setDocument(PdfDocument::open(path("comments.pdf")), path("comments.pdf"));
    QCOMPARE(comments.rowCount(), 0);
    panel->show();
    QCOMPARE(describe(comments), "Text@0 Ann: Huge wwwwwww | Highlight@0 Bob: The quick br | Square@0 Ann: A square | "
                                 "FreeText@1 Bob: Free words");
    QCOMPARE(panel->accessibleName(), "Comments");
    QCOMPARE(panel->kindBox()->accessibleName(), "Kind");
    QCOMPARE(panel->authorBox()->accessibleName(), "Author");
    QCOMPARE(comments.index(1).data().toString(), "The quick brown fox jumps over the lazy dog, line 2 of page 1.");
    const QString cut = comments.index(0).data().toString();
    QVERIFY(cut.size() <= CommentsModel::longestLine + 1 && cut.endsWith(QChar(0x2026)));
    QCOMPARE(comments.index(0).data(CommentsModel::DateRole).toDateTime(), QDateTime({2023, 5, 6}, {7, 0}, QTimeZone::utc()));
    QCOMPARE(comments.index(2).data(CommentsModel::DateRole).toDateTime(), QDateTime({2024, 1, 2}, {3, 4, 5}, QTimeZone(7200)));

    // The boxes filter by kind and by author.
    panel->authorBox()->setCurrentIndex(panel->authorBox()->findData("Bob"));
    QCOMPARE(describe(shown), "Highlight@0 Bob: The quick br | FreeText@1 Bob: Free words");
    panel->kindBox()->setCurrentIndex(panel->kindBox()->findData("FreeText"));
    QCOMPARE(describe(shown), "FreeText@1 Bob: Free words");
    panel->kindBox()->setCurrentIndex(0);
    panel->authorBox()->setCurrentIndex(0);

    // A change on one page reads that page only; ours carry author and date.
    QSignalSpy resets(&comments, &QAbstractItemModel::modelReset);
    const auto square = comments.annotation(comments.index(2));
    model.setAnnotationContents(square, "Changed\nmore", "A square");
    auto mine = PdfAnnotation::create({300, 500, 50, 50}, PdfAnnotation::Circle);
    mine->setAuthor("Cy");
    model.addAnnotation(mine, model.pdfDocument()->page(1), true);
    QTRY_COMPARE(describe(comments), "Text@0 Ann: Huge wwwwwww | Highlight@0 Bob: The quick br | Square@0 Ann: Changed | "
                                     "Circle@1 Cy: (Circle) | FreeText@1 Bob: Free words");
    QCOMPARE(resets.count(), 0);
    QVERIFY(mine->modified().isValid() && panel->authorBox()->findData("Cy") > 0);

    // A reply (here one naming no author) follows what it answers, one level in.
    const auto page0 = model.pdfDocument()->page(0);
    auto reply = AnnotationFactory::makeNote(page0, AnnotationFactory::replyPosition(square), "Agreed");
    reply->setAuthor({});
    reply->setInReplyTo(square);
    model.addAnnotation(reply, page0, true);
    QTRY_COMPARE(describe(comments), "Text@0 Ann: Huge wwwwwww | Highlight@0 Bob: The quick br | Square@0 Ann: Changed | "
                                     "Text@0 : Agreed | Circle@1 Cy: (Circle) | FreeText@1 Bob: Free words");
    QCOMPARE(comments.index(3).data(CommentsModel::DepthRole).toInt(), 1);
    panel->authorBox()->setCurrentIndex(panel->authorBox()->findText("No Author"));
    QCOMPARE(describe(shown), "Text@0 : Agreed");
    panel->authorBox()->setCurrentIndex(0);

    QVERIFY(model.pdfDocument()->write(path("comments-saved.pdf")));
    const inspect::PdfObjects saved(path("comments-saved.pdf"));
    QJsonObject written, answered;
    for (const QString &ref : saved.annots(saved.pages().at(0)))
        if (inspect::text(saved.dict(ref).value("/Contents")) == "Agreed")
            written = saved.dict(ref);
    answered = saved.dict(written.value("/IRT").toString());
    QCOMPARE(inspect::text(written.value("/Subtype")), "Text");
    QCOMPARE(inspect::text(written.value("/RT")), "R");
    QCOMPARE(inspect::text(answered.value("/Contents")), "Changed\nmore");
    QVERIFY(written.contains("/CreationDate") && written.contains("/AP") && written.value("/F").toInt() & 4);
    DocumentModel reopened;
    reopened.setDocument(PdfDocument::open(path("comments-saved.pdf")), path("comments-saved.pdf"));
    const CommentsModel again(&reopened);
    QCOMPARE(describe(again), describe(comments));
    QCOMPARE(again.index(3).data(CommentsModel::DepthRole).toInt(), 1);
    QCOMPARE(again.index(4).data(CommentsModel::DateRole).toDateTime().toSecsSinceEpoch(), mine->modified().toSecsSinceEpoch());

    // A click selects the annotation; the list follows the selection; Delete removes, undo brings back.
    const QModelIndex highlight = shown.index(1, 0);
    QTest::mouseClick(panel->list()->viewport(), Qt::LeftButton, {}, panel->list()->visualRect(highlight).center());
    QCOMPARE(model.selectedAnnotation(), comments.annotation(comments.index(1)));
    model.setSelectedAnnotation(mine);
    QCOMPARE(panel->list()->currentIndex().row(), 4);
    QTest::keyClick(panel->list(), Qt::Key_Delete);
    QTRY_COMPARE(comments.rowCount(), 5);
    QVERIFY(!comments.indexOf(mine).isValid());
    model.undo();
    QTRY_COMPARE(comments.indexOf(mine).row(), 4);
    // Two chosen, and the reply to one of them, go in one step.
    panel->list()->selectionModel()->select(shown.index(2, 0), QItemSelectionModel::ClearAndSelect);
    panel->list()->selectionModel()->select(shown.index(4, 0), QItemSelectionModel::Select);
    panel->deleteButton()->click();
    QTRY_COMPARE(describe(comments), "Text@0 Ann: Huge wwwwwww | Highlight@0 Bob: The quick br | FreeText@1 Bob: Free words");
    model.undo();
    QTRY_COMPARE(comments.rowCount(), 6);
    QCOMPARE(comments.index(3).data(CommentsModel::DepthRole).toInt(), 1);
    // Pages removed: the rest is read again, with new page numbers.
    model.deletePages({0});
    QTRY_COMPARE(describe(comments), "Circle@0 Cy: (Circle) | FreeText@0 Bob: Free words");
    QVERIFY(!panel->replyButton()->isEnabled());
}

QTEST_MAIN(TestNavigation)
#include "tst_navigation.moc"
