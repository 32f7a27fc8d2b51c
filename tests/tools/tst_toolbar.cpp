// The annotation toolbar group and its style popover, driven as a user would.
#include "AnnotationStylePopover.h"
#include "AnnotationToolbarItems.h"
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "ToolSettings.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QCheckBox>
#include <QDialog>
#include <QLabel>
#include <QLayout>
#include <QMenu>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QToolButton>
#include <QtTest>

namespace {

// The popover's controls as they would be on screen, in order: their
// accessible names, with the text of labels.
QStringList shown(const QWidget &popover)
{
    QStringList names;
    for (const QWidget *w : popover.findChildren<QWidget *>())
        if (w->isVisibleTo(&popover)) {
            if (const auto *label = qobject_cast<const QLabel *>(w))
                names << label->text();
            else if (!w->accessibleName().isEmpty())
                names << w->accessibleName();
        }
    return names;
}

template <typename T = QAbstractButton> T *control(const QWidget &popover, const QString &name)
{
    for (T *w : popover.findChildren<T *>())
        if (w->accessibleName() == name)
            return w;
    return nullptr;
}

// The swatches beside each colour well, by accessible name.
const QStringList presets{"Black", "Red", "Blue", "Green", "Yellow"};

// Whether assistive technology finds the popup among the application's children.
bool listedByApplication(QObject *popup)
{
    QAccessibleInterface *app = QAccessible::queryAccessibleInterface(qApp);
    for (int i = 0; i < app->childCount(); ++i)
        if (app->child(i)->object() == popup)
            return app->indexOfChild(app->child(i)) == i;
    return false;
}

} // namespace

class TestAnnotationToolbar : public QObject {
    Q_OBJECT
private slots:
    void init();
    void enablingFollowsTheDocumentAndTheSelection();
    void segmentsSetAndFollowTheTool();
    void stylePopoverOpensAndCloses();
    void popoverShowsTheControlsOfTheTool();
    void steppersStayInTheirRange();
    void colorWellsWriteTheChosenColor();
    void markupMenuMarksTheSelection();

private:
    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::unique_ptr<ToolSettings> settings_;
    int run_ = 0;
};

void TestAnnotationToolbar::init()
{
    model_ = std::make_unique<DocumentModel>(RecentDocuments(dir_.filePath(QString("recent-%1.xbel").arg(++run_))));
    settings_ = std::make_unique<ToolSettings>();
    // Never a real dialog: a test that clicks a colour well chooses its colour.
    AnnotationStylePopover::colorChooser = [](const QColor &, QWidget *, const QString &) { return QColor(); };
}

void TestAnnotationToolbar::enablingFollowsTheDocumentAndTheSelection()
{
    int signs = 0;
    AnnotationToolbarItems items(model_.get(), settings_.get(), [&] { ++signs; }, {});
    auto enabled = [&] {
        return QList<bool>{items.toolSelector()->isEnabled(), items.toolButton(AnnotationTool::ink)->isEnabled(),
                           items.styleButton()->isEnabled(), items.signButton()->isEnabled(), items.markupButton()->isEnabled()};
    };
    QCOMPARE(enabled(), QList<bool>({false, false, false, false, false}));
    model_->open(fixtures::numberedFile(dir_.path(), "enabling.pdf", 1));
    QCOMPARE(enabled(), QList<bool>({true, true, true, true, false}));
    model_->setHasTextSelection(true);
    QCOMPARE(enabled(), QList<bool>({true, true, true, true, true}));
    QTest::mouseClick(items.signButton(), Qt::LeftButton);
    QCOMPARE(signs, 1);
    model_->setHasTextSelection(false);
    model_->setPdfDocument(nullptr);
    QCOMPARE(enabled(), QList<bool>({false, false, false, false, false}));
}

void TestAnnotationToolbar::segmentsSetAndFollowTheTool()
{
    QStringList iconNames;
    auto icon = [&](const QString &name) {
        iconNames << name;
        QPixmap pixmap(16, 16);
        pixmap.fill(Qt::red);
        return QIcon(pixmap);
    };
    AnnotationToolbarItems items(model_.get(), settings_.get(), {}, icon);
    QCOMPARE(iconNames, QStringList({"edit-select", "edit-rename", "insert-text", "draw-freehand", "draw-rectangle",
                                     "draw-ellipse", "annotation-note", "color-management", "document-sign", "draw-highlight"}));
    model_->open(fixtures::numberedFile(dir_.path(), "segments.pdf", 1));
    QCOMPARE(items.toolSelector()->accessibleName(), QString("Tool"));
    QCOMPARE(items.toolSelector()->width(), 250);
    QStringList names;
    QLayout *segments = items.toolSelector()->layout();
    for (int i = 0; i < segments->count(); ++i) {
        auto *segment = qobject_cast<QToolButton *>(segments->itemAt(i)->widget());
        QVERIFY(segment && segment->isCheckable() && segment->text().isEmpty() && !segment->icon().isNull());
        names << segment->accessibleName();
    }
    QCOMPARE(names, QStringList({"Select", "Edit Text", "Add Text", "Draw", "Rectangle", "Circle", "Note"}));
    QCOMPARE(items.toolButton(AnnotationTool::ink)->toolTip(), QString("Draw freehand"));
    QCOMPARE(items.toolButton(AnnotationTool::none)->toolTip(),
             QString("Select, move, resize, or delete anything you've placed"));
    QVERIFY(items.toolButton(AnnotationTool::none)->isChecked());

    QTest::mouseClick(items.toolButton(AnnotationTool::rectangle), Qt::LeftButton);
    QCOMPARE(settings_->currentTool(), AnnotationTool::rectangle);
    settings_->setCurrentTool(AnnotationTool::editText); // set elsewhere
    QVERIFY(items.toolButton(AnnotationTool::editText)->isChecked());
    QVERIFY(!items.toolButton(AnnotationTool::rectangle)->isChecked());
    QTest::mouseClick(items.toolButton(AnnotationTool::editText), Qt::LeftButton); // again: stays
    QCOMPARE(settings_->currentTool(), AnnotationTool::editText);
}

void TestAnnotationToolbar::stylePopoverOpensAndCloses()
{
    AnnotationToolbarItems items(model_.get(), settings_.get(), {}, {});
    items.show();
    QVERIFY(QTest::qWaitForWindowExposed(&items));
    model_->open(fixtures::numberedFile(dir_.path(), "popover.pdf", 1));
    QCOMPARE(items.styleButton()->accessibleName(), QString("Style"));
    QCOMPARE(items.styleButton()->accessibleDescription(), QString("Style: color, size, line width"));
    QVERIFY(!items.showStylePopover() && !items.stylePopover());

    QTest::mouseClick(items.styleButton(), Qt::LeftButton);
    QPointer<AnnotationStylePopover> popover = items.stylePopover();
    QVERIFY(items.showStylePopover() && popover && popover->isVisible() && listedByApplication(popover));
    QCOMPARE(popover->windowType(), Qt::Popup);
    QAbstractButton *markupWell = control(*popover, "Highlight/Markup Color");
    QVERIFY(popover->width() >= 240 && markupWell->width() >= markupWell->sizeHint().width()); // the label is not cut
    QVERIFY(popover->y() >= items.styleButton()->mapToGlobal(QPoint(0, items.styleButton()->height())).y());

    // It follows the tool while open.
    QVERIFY(shown(*popover).contains("Select a drawing tool to configure its style."));
    settings_->setCurrentTool(AnnotationTool::ink);
    QVERIFY(shown(*popover).contains("Line Width: 2.0"));
    QVERIFY(!shown(*popover).contains("Select a drawing tool to configure its style."));

    QTest::keyClick(popover, Qt::Key_Escape);
    QVERIFY(!items.showStylePopover() && !popover->isVisible() && !listedByApplication(popover));

    // A click outside closes it; on the style button it does not reopen it.
    QTest::mouseClick(items.styleButton(), Qt::LeftButton);
    QVERIFY(items.showStylePopover() && popover->isVisible());
    QTest::mousePress(popover, Qt::LeftButton, {}, popover->mapFromGlobal(items.styleButton()->mapToGlobal(QPoint(4, 4))));
    QVERIFY(!items.showStylePopover() && !popover->isVisible());
    QVERIFY(popover->testAttribute(Qt::WA_NoMouseReplay));

    // A colour dialog closes it while it runs; the colour chosen is written and the popover comes back.
    QTest::mouseClick(items.styleButton(), Qt::LeftButton);
    QWidget *dialogParent = nullptr;
    AnnotationStylePopover::colorChooser = [&](const QColor &, QWidget *parent, const QString &) {
        QDialog dialog(parent);
        dialogParent = parent;
        QTimer::singleShot(0, &dialog, &QDialog::accept);
        dialog.exec();
        return QColor(Qt::green);
    };
    QTest::mouseClick(control(*popover, "Highlight/Markup Color"), Qt::LeftButton);
    QCOMPARE(settings_->markupColor(), QColor(Qt::green));
    QCOMPARE(dialogParent, items.window());
    QTRY_VERIFY(items.showStylePopover() && popover->isVisible());
    items.setShowStylePopover(false);
    QVERIFY(!popover->isVisible());
}

void TestAnnotationToolbar::popoverShowsTheControlsOfTheTool()
{
    AnnotationStylePopover popover(settings_.get());
    // No tool: the hint, the divider and the markup colour, nothing else.
    const auto parts = popover.findChildren<QWidget *>(Qt::FindDirectChildrenOnly);
    QList<const QWidget *> visible;
    for (const QWidget *w : parts)
        if (w->isVisibleTo(&popover))
            visible << w;
    QCOMPARE(visible.size(), 3);
    QCOMPARE(qobject_cast<const QLabel *>(visible[0])->text(), QString("Select a drawing tool to configure its style."));
    QCOMPARE(qobject_cast<const QFrame *>(visible[1])->frameShape(), QFrame::HLine);
    QVERIFY(control(*visible[2], "Highlight/Markup Color"));

    settings_->setCurrentTool(AnnotationTool::freeText);
    const QStringList fontSize{"Font Size", "Font Size: 14", "Decrease Font Size", "Increase Font Size"};
    QCOMPARE(shown(popover), QStringList("Text Color") + presets + fontSize + QStringList("Highlight/Markup Color") + presets);
    settings_->setFontSize(14.7);
    QVERIFY(shown(popover).contains("Font Size: 14"));
    QCOMPARE(settings_->fontSize(), 14.7);

    settings_->setCurrentTool(AnnotationTool::ink);
    QCOMPARE(shown(popover).mid(0, 8), QStringList("Color") + presets + QStringList({"Line Width", "Line Width: 2.0"}));
    QVERIFY(!shown(popover).contains("Fill"));

    settings_->setCurrentTool(AnnotationTool::rectangle);
    QCOMPARE(shown(popover).first(), QString("Stroke Color"));
    QVERIFY(shown(popover).contains("Fill") && !shown(popover).contains("Fill Color"));
    settings_->setFillColor(QColor(10, 20, 30, 40));
    QTest::mouseClick(control<QCheckBox>(popover, "Fill"), Qt::LeftButton);
    QVERIFY(settings_->hasFill());
    QVERIFY(shown(popover).contains("Fill Color"));
    QTest::mouseClick(control<QCheckBox>(popover, "Fill"), Qt::LeftButton);
    QVERIFY(!settings_->hasFill() && !shown(popover).contains("Fill Color"));
    QCOMPARE(settings_->fillColor(), QColor(10, 20, 30, 40));
    settings_->setHasFill(true); // set elsewhere
    QVERIFY(control<QCheckBox>(popover, "Fill")->isChecked() && shown(popover).contains("Fill Color"));
}

void TestAnnotationToolbar::steppersStayInTheirRange()
{
    settings_->setCurrentTool(AnnotationTool::circle);
    AnnotationStylePopover popover(settings_.get());
    QAbstractButton *wider = control(popover, "Increase Line Width");
    for (int i = 0; i < 30; ++i)
        QTest::mouseClick(wider, Qt::LeftButton);
    QCOMPARE(settings_->lineWidth(), 12.0);
    QVERIFY(shown(popover).contains("Line Width: 12.0"));
    QCOMPARE(wider->accessibleDescription(), QString("Line Width 12 pt")); // what a screen reader tells
    settings_->setLineWidth(11.8);
    QTest::mouseClick(wider, Qt::LeftButton);
    QCOMPARE(settings_->lineWidth(), 12.0);
    settings_->setLineWidth(0.7);
    QTest::mouseClick(control(popover, "Decrease Line Width"), Qt::LeftButton);
    QCOMPARE(settings_->lineWidth(), 0.5);
    QVERIFY(shown(popover).contains("Line Width: 0.5"));

    settings_->setCurrentTool(AnnotationTool::editText);
    settings_->setFontSize(14.7);
    QTest::mouseClick(control(popover, "Increase Font Size"), Qt::LeftButton);
    QCOMPARE(settings_->fontSize(), 15.7); // the fraction is kept
    QVERIFY(shown(popover).contains("Font Size: 15"));
    settings_->setFontSize(8.4);
    QTest::mouseClick(control(popover, "Decrease Font Size"), Qt::LeftButton);
    QCOMPARE(settings_->fontSize(), 8.0);
}

void TestAnnotationToolbar::colorWellsWriteTheChosenColor()
{
    settings_->setCurrentTool(AnnotationTool::rectangle);
    AnnotationStylePopover popover(settings_.get());
    QColor offered;
    QString title;
    AnnotationStylePopover::colorChooser = [&](const QColor &initial, QWidget *, const QString &t) {
        offered = initial;
        title = t;
        return QColor(0, 0, 255, 128);
    };
    QAbstractButton *markup = control(popover, "Highlight/Markup Color");
    QTest::mouseClick(markup, Qt::LeftButton);
    QCOMPARE(offered, QColor(Qt::yellow));
    QCOMPARE(title, QString("Highlight/Markup Color"));
    QCOMPARE(settings_->markupColor(), QColor(0, 0, 255, 128));
    // The swatch shows the translucent blue over its checkerboard.
    const QColor swatch = markup->icon().pixmap(markup->iconSize()).toImage().pixelColor(14, 9);
    QVERIFY(swatch.blue() > 200 && swatch.red() > 60 && swatch.red() < 200);

    QTest::mouseClick(control(popover, "Stroke Color"), Qt::LeftButton);
    QCOMPARE(settings_->strokeColor(), QColor(0, 0, 255, 128));
    QCOMPARE(settings_->markupColor(), QColor(0, 0, 255, 128));

    // A preset beside the well writes its colour at the opacity the colour had.
    QAbstractButton *red = control(*control(popover, "Stroke Color")->parentWidget(), "Red");
    QCOMPARE(red->accessibleDescription(), QString("Stroke Color"));
    QTest::mouseClick(red, Qt::LeftButton);
    QCOMPARE(settings_->strokeColor(), QColor(255, 0, 0, 128));

    // Cancelled: nothing is written.
    AnnotationStylePopover::colorChooser = [](const QColor &, QWidget *, const QString &) { return QColor(); };
    QSignalSpy writes(settings_.get(), &ToolSettings::strokeColorChanged);
    QTest::mouseClick(control(popover, "Stroke Color"), Qt::LeftButton);
    QCOMPARE(writes.count(), 0);
}

void TestAnnotationToolbar::markupMenuMarksTheSelection()
{
    AnnotationToolbarItems items(model_.get(), settings_.get(), {}, {});
    model_->open(fixtures::numberedFile(dir_.path(), "markup.pdf", 1));
    PdfView view;
    view.resize(600, 800);
    view.setDocument(model_->pdfDocument());
    items.setPdfView(&view);
    const auto page = model_->pdfDocument()->page(0);
    const QList<QAction *> actions = items.markupMenu()->actions();
    QCOMPARE(actions.size(), 3);
    items.markupMenu()->popup(QPoint(0, 0)); // while shown, assistive technology finds it and its items
    QVERIFY(listedByApplication(items.markupMenu()));
    QCOMPARE(QAccessible::queryAccessibleInterface(items.markupMenu())->child(1)->text(QAccessible::Name), QString("Underline"));
    items.markupMenu()->hide();
    const QStringList subtypes{PdfAnnotation::Highlight, PdfAnnotation::Underline, PdfAnnotation::StrikeOut};
    // Each kind in its own colour that shows on white, until a markup colour is set.
    const QList<QColor> defaults{Qt::yellow, Qt::blue, Qt::red};
    for (int i = 0; i < 6; ++i) {
        view.setCurrentSelection(PdfSelection::between(page, {71, 683}, page, {300, 667}));
        model_->setHasTextSelection(true); // what the window's bridge tells the model
        QVERIFY(items.markupButton()->isEnabled());
        if (i >= 3)
            settings_->setMarkupColor(QColor(0, 160, 0, 90 + i)); // read when the item is chosen
        actions[i % 3]->trigger();
        QCOMPARE(page->annotations().size(), size_t(i + 1));
        QCOMPARE(page->annotations().back()->type(), subtypes[i % 3]);
        QCOMPARE(page->annotations().back()->color(), i < 3 ? defaults[i] : QColor(0, 160, 0, 90 + i));
        QVERIFY(!items.markupButton()->isEnabled()); // the selection is used up
    }
    QCOMPARE(actions[0]->text(), QString("Highlight"));
    QCOMPARE(actions[2]->text(), QString("Strikethrough"));
}

int runToolbarTests(int argc, char **argv)
{
    TestAnnotationToolbar test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_toolbar.moc"
