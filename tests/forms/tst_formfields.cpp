// Filling in a form in the window as a user does: clicks reach the fields
// under the annotation layer, editors open in place, keys type, Tab moves,
// values are kept or refused, each change is one undo step, Reset Form, and
// an annotation tool takes the clicks back.
#include "CommandMenu.h"
#include "ContentView.h"
#include "DocumentModel.h"
#include "FixtureBuilder.h"
#include "FormFieldsLayer.h"
#include "PdfDocument.h"
#include "PdfFormField.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "PdfViewBridge.h"
#include "ToolSettings.h"

#include <QAction>
#include <QHelpEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QMouseEvent>
#include <QTemporaryDir>
#include <QToolTip>
#include <QtTest>

class TestFormFields : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void fillingInPlace();

private:
    std::shared_ptr<PdfFormField> field(const QString &name) const { return model_->pdfDocument()->form()->field(name); }
    // A press and release where a user would click (or drag to `to`), on the top widget there.
    void click(QPointF pagePoint, std::optional<QPointF> to = std::nullopt);
    void key(int key, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        QTest::keyClick(window_->focusWidget(), Qt::Key(key), modifiers);
    }
    // Typing, in any script, as the keyboard sends it to the focused widget.
    void type(const QString &text)
    {
        for (QChar c : text) {
            QKeyEvent press(QEvent::KeyPress, 0, Qt::NoModifier, QString(c));
            QApplication::sendEvent(window_->focusWidget(), &press);
        }
    }
    int steps() const { return int(model_->history().undoStack().size()); }

    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::unique_ptr<ContentView> window_;
    PdfView *view_ = nullptr;
    FormFieldsLayer *layer_ = nullptr;
};

void TestFormFields::init()
{
    qputenv("XDG_DATA_HOME", dir_.filePath("data").toLocal8Bit());
    const QString path = dir_.filePath("form.pdf");
    QVERIFY(fixtures::writeFile(path, fixtures::formOfEveryKind()));
    model_ = std::make_unique<DocumentModel>();
    model_->open(path);
    QVERIFY(model_->pdfDocument());
    window_ = std::make_unique<ContentView>(model_.get());
    window_->resize(1000, 900);
    window_->show();
    QVERIFY(QTest::qWaitForWindowExposed(window_.get()));
    view_ = window_->bridge()->pdfView();
    layer_ = window_->formFields();
    QTest::qWait(50);
    view_->setAutoScales(false);
    view_->setScaleFactor(1.0);
    view_->goToPoint(model_->pdfDocument()->page(0), QPointF(0, 740));
}

void TestFormFields::cleanup()
{
    window_.reset();
    model_.reset();
}

void TestFormFields::click(QPointF pagePoint, std::optional<QPointF> to)
{
    QWidget *viewport = view_->viewport();
    auto inView = [&](QPointF p) { return view_->convertFromPage(p, model_->pdfDocument()->page(0)).toPoint(); };
    QWidget *target = viewport->childAt(inView(pagePoint));
    target = target ? target : viewport;
    const QPointF from = target->mapFrom(viewport, inView(pagePoint));
    const QPointF end = to ? target->mapFrom(viewport, inView(*to)) : from;
    for (auto [type, at] :
         {std::pair{QEvent::MouseButtonPress, from}, {QEvent::MouseMove, end}, {QEvent::MouseButtonRelease, end}}) {
        QMouseEvent event(type, at, target->mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                          type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(target, &event);
    }
}

void TestFormFields::fillingInPlace()
{
    QVERIFY(window_->bannerText().contains("fields you can fill in"));
    QVERIFY(window_->commands()->resetForm->isEnabled());
    const int start = steps();

    // Tab on the page enters the fields at the first one.
    click({550, 300});
    QVERIFY(!layer_->currentStop());
    key(Qt::Key_Tab);
    QVERIFY(layer_->currentStop() && layer_->currentStop()->field == field("name"));
    key(Qt::Key_Escape);

    // Hovering a field shows its description.
    const QPoint over = view_->convertFromPage(QPointF(100, 710), model_->pdfDocument()->page(0)).toPoint();
    QWidget *top = view_->viewport()->childAt(over);
    QHelpEvent help(QEvent::ToolTip, top->mapFrom(view_->viewport(), over), view_->viewport()->mapToGlobal(over));
    QApplication::sendEvent(top, &help);
    QTRY_COMPARE(QToolTip::text(), "Your full name");

    // Typed in place, in any script; Tab keeps it and moves on in the rows' order.
    click({100, 710});
    auto *line = qobject_cast<QLineEdit *>(layer_->editor());
    QVERIFY(line);
    QCOMPARE(QRectF(line->geometry()), view_->convertFromPage(QRectF(50, 700, 250, 20), model_->pdfDocument()->page(0)));
    type(QString::fromUtf8("Zażółć Ёлка"));
    key(Qt::Key_Tab);
    QCOMPARE(field("name")->value(), QString::fromUtf8("Zażółć Ёлка"));
    QCOMPARE(steps(), start + 1);
    QCOMPARE(layer_->currentStop()->field, field("amount1"));

    // A number field refuses letters with a message and keeps the editor;
    // Return keeps a number, the total follows in its currency format.
    line = qobject_cast<QLineEdit *>(layer_->editor());
    QVERIFY(line);
    line->clear();
    type("abc");
    key(Qt::Key_Return);
    QVERIFY(layer_->lastMessage().contains("number"));
    QCOMPARE(layer_->editor(), line);
    QCOMPARE(field("amount1")->value(), QString());
    line->clear();
    type("1234.5");
    key(Qt::Key_Return);
    QVERIFY(!layer_->editor());
    QCOMPARE(field("total")->displayValue(), QString("$1,234.50"));
    QCOMPARE(steps(), start + 2);
    // Shift+Tab goes back to the field above; Escape drops what was typed.
    key(Qt::Key_Backtab);
    QCOMPARE(layer_->currentStop()->field, field("name"));
    type("xyz");
    key(Qt::Key_Escape);
    QVERIFY(!layer_->editor());
    QCOMPARE(field("name")->value(), QString::fromUtf8("Zażółć Ёлка"));

    // Read-only: no editor, a message. Check box and radio buttons by click and Space.
    click({500, 660});
    QVERIFY(!layer_->editor());
    QVERIFY(layer_->lastMessage().contains("read-only"));
    click({357, 607});
    QCOMPARE(field("agree")->value(), QString("Ja"));
    key(Qt::Key_Space);
    QCOMPARE(field("agree")->value(), QString("Off"));
    click({387, 567});
    key(Qt::Key_Space); // an on radio button stays on
    QCOMPARE(field("choice")->value(), QString("B"));
    click({357, 567});
    const auto radios = field("choice")->widgets();
    QVERIFY(radios[0].on && !radios[1].on && radios[2].on);
    QCOMPARE(steps(), start + 6);

    // A list pick (the press that opens the list already picks the row under it), kept on Return.
    click({400, 440});
    auto *list = qobject_cast<QListWidget *>(layer_->editor());
    QVERIFY(list);
    QCOMPARE(list->selectedItems().size(), 1);
    const QString picked = list->selectedItems().first()->data(Qt::UserRole).toString();
    QVERIFY(picked != "three");
    QTest::mouseClick(list->viewport(), Qt::LeftButton, {}, list->visualItemRect(list->item(2)).center());
    key(Qt::Key_Return);
    QCOMPARE(field("list")->values(), QStringList({picked, "three"}));
    QCOMPARE(steps(), start + 7);

    // Undo takes back one field at a time; Reset Form is one step.
    model_->undo();
    QCOMPARE(field("list")->values(), QStringList());
    QCOMPARE(field("choice")->value(), QString("A"));
    window_->commands()->resetForm->trigger();
    QCOMPARE(steps(), start + 7);
    QCOMPARE(field("name")->value(), QString());
    QCOMPARE(field("amount1")->value(), QString("5"));
    QVERIFY(model_->isDirty());

    // With an annotation tool, a drag over a field draws instead.
    window_->toolSettings()->setCurrentTool(AnnotationTool::rectangle);
    const int annotations = int(model_->pdfDocument()->page(0)->annotations().size());
    click({100, 705}, QPointF(200, 715));
    QVERIFY(!layer_->editor());
    QTRY_COMPARE(int(model_->pdfDocument()->page(0)->annotations().size()), annotations + 1);
}

QTEST_MAIN(TestFormFields)
#include "tst_formfields.moc"
