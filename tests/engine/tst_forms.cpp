// Engine tests of filling in forms: the common format and calculation
// actions against known results, the fields of a form as the file has them
// (types, on-state names, tab order), and values written, calculated,
// undone and reset, read back by qpdf and shown by poppler in any script.
#include "FixtureBuilder.h"
#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfFieldFormat.h"
#include "PdfFormField.h"
#include "PdfInspect.h"
#include "PdfPage.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// The words poppler reads in a page-space rectangle of page 1 (612 × 792),
// with their boxes (x from the left, y from the top).
std::vector<std::pair<QString, QRectF>> wordsIn(const QString &file, const QRectF &pageRect)
{
    const QString html = fixtures::toolOutput("pdftotext", {"-bbox", "-enc", "UTF-8", file, "-"});
    static const QRegularExpression word(
        "<word xMin=\"([\\d.]+)\" yMin=\"([\\d.]+)\" xMax=\"([\\d.]+)\" yMax=\"([\\d.]+)\">([^<]*)</word>");
    const QRectF area(pageRect.left(), 792 - pageRect.bottom(), pageRect.width(), pageRect.height());
    std::vector<std::pair<QString, QRectF>> out;
    for (auto it = word.globalMatch(html); it.hasNext();) {
        const auto m = it.next();
        const QRectF box(QPointF(m.captured(1).toDouble(), m.captured(2).toDouble()),
                         QPointF(m.captured(3).toDouble(), m.captured(4).toDouble()));
        if (area.contains(box.center()))
            out.emplace_back(m.captured(5), box);
    }
    return out;
}

// Dark pixels poppler draws in a page-space rectangle of page 1, at 1 pixel per point.
int inkIn(const QString &file, const QRectF &pageRect)
{
    const QString base = QFileInfo(file).path() + "/ink";
    QProcess::execute("pdftoppm", {"-r", "72", "-singlefile", "-png", file, base});
    const QImage image(base + ".png");
    int dark = 0;
    for (int y = int(792 - pageRect.bottom()); y < int(792 - pageRect.top()); ++y)
        for (int x = int(pageRect.left()); x < int(pageRect.right()); ++x)
            dark += qGray(image.pixel(x, y)) < 160;
    return dark;
}

} // namespace

class TestForms : public QObject {
    Q_OBJECT
private slots:
    void formatsAndCalculationsGiveKnownResults();
    void fieldsAreReadAsTheFileHasThem();
    void filledFormsAreWrittenForEveryReader();
};

void TestForms::formatsAndCalculationsGiveKnownResults()
{
    struct Case {
        const char *script;
        const char *value;
        const char *shown;
    };
    const Case cases[] = {
        {"AFNumber_Format(2, 0, 0, 0, \"$\", true);", "1234.5", "$1,234.50"},
        {"AFNumber_Format(2,0,0,0,\"$\",true)", "-1234.5", "-$1,234.50"},
        {"AFNumber_Format(0, 1, 2, 0, \"\", false);", "-1234.5", "(1235)"},
        {"AFNumber_Format(2, 2, 0, 0, \" \\u20ac\", false);", "1234,5", "1.234,50 €"},
        {"AFNumber_Format(1, 0, 0, 0, \"\", true);", "abc", "abc"},
        {"AFPercent_Format(1, 0);", "0.125", "12.5%"},
        {"AFDate_FormatEx(\"mm/dd/yyyy\");", "3/7/2024", "03/07/2024"},
        {"AFDate_FormatEx(\"d mmmm yyyy\");", "2024-03-07", "7 March 2024"},
        {"AFDate_FormatEx(\"dd.mm.yy\");", "31/2/2024", "31/2/2024"},
        {"AFSpecial_Format(1);", "123456789", "12345-6789"},
        {"AFSpecial_Format(2);", "5551234567", "(555) 123-4567"},
        {"AFSpecial_Format(3);", "123 45 6789", "123-45-6789"},
        {"if (x) AFNumber_Format(2, 0, 0, 0, \"$\", true);", "1234.5", "1234.5"},
    };
    for (const Case &c : cases)
        QCOMPARE(PdfFieldFormat::parse(QString::fromUtf8(c.script)).display(c.value), QString::fromUtf8(c.shown));
    QCOMPARE(PdfFieldFormat::parse("if (x) AFNumber_Format(2, 0, 0, 0, \"$\", true);").kind, PdfFieldFormat::Kind::Other);
    QVERIFY(PdfFieldFormat::parse("AFNumber_Format(2, 0, 1, 0, \"\", true);").showsRed("-3"));

    // Keystroke checks accept or refuse what is committed.
    const PdfFieldFormat number = PdfFieldFormat::parse("AFNumber_Keystroke(2, 0, 0, 0, \"$\", true);");
    QVERIFY(number.accepts("-1234.5") && number.accepts("") && !number.accepts("12a") && !number.accepts("."));
    const PdfFieldFormat date = PdfFieldFormat::parse("AFDate_KeystrokeEx(\"mm/dd/yyyy\");");
    QVERIFY(date.accepts("12/31/2024") && !date.accepts("13/31/2024") && !date.accepts("soon"));
    const PdfFieldFormat zip = PdfFieldFormat::parse("AFSpecial_Keystroke(0);");
    QVERIFY(zip.accepts("12345") && !zip.accepts("1234") && !zip.accepts("1234x"));

    // Calculations: both ways of naming the fields, every operation.
    const PdfFieldCalculation sum = PdfFieldCalculation::parse("AFSimple_Calculate(\"SUM\", new Array (\"a\", \"b.c\"));");
    QCOMPARE(sum.fields, QStringList({"a", "b.c"}));
    QCOMPARE(*sum.calculate({"1234.5", "", "$1,000.25"}), 2234.75);
    const std::vector<QString> values{"2", "8", "-1"};
    const std::pair<const char *, double> results[] = {{"AVG", 3}, {"PRD", -16}, {"MIN", -1}, {"MAX", 8}};
    for (const auto &[op, result] : results) {
        const auto calc = PdfFieldCalculation::parse(QString("AFSimple_Calculate(\"%1\", \"x, y ,z\")").arg(op));
        QCOMPARE(calc.fields, QStringList({"x", "y", "z"}));
        QCOMPARE(*calc.calculate(values), result);
    }
    QCOMPARE(PdfFieldCalculation::parse("event.value = 3;").kind, PdfFieldCalculation::Kind::Other);
    QCOMPARE(pdffieldformat::numberText(2234.75), QString("2234.75"));
}

void TestForms::fieldsAreReadAsTheFileHasThem()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("form.pdf");
    QVERIFY(fixtures::writeFile(path, fixtures::formOfEveryKind()));
    auto doc = PdfDocument::open(path);
    QVERIFY(doc);
    const auto fields = doc->formFields();
    QStringList names;
    for (const auto &f : fields)
        names << f->name();
    QCOMPARE(names, QStringList({"total", "amount1", "amount2", "name", "comb", "plain", "small", "agree", "choice", "notes",
                                 "list", "sign", "date", "loopA", "loopB"}));
    QCOMPARE(doc->formFields()[0], fields[0]); // the same objects each time
    auto form = doc->form();
    QCOMPARE(form->field("agree")->type(), PdfFormField::Type::CheckBox);
    QCOMPARE(form->field("agree")->widgets()[0].onState, QString("Ja"));
    QCOMPARE(form->field("agree")->value(), QString("Off"));
    const auto radios = form->field("choice")->widgets();
    QCOMPARE(form->field("choice")->type(), PdfFormField::Type::RadioButton);
    QCOMPARE(radios.size(), size_t(4));
    QCOMPARE(radios[1].onState, QString("B"));
    QVERIFY(radios[3].onState.isEmpty());
    QCOMPARE(radios[0].page, doc->page(0));
    QCOMPARE(form->field("list")->type(), PdfFormField::Type::ListBox);
    QCOMPARE(form->field("list")->choiceOptions()[1].displayValue, QString("Two"));
    QCOMPARE(form->field("sign")->type(), PdfFormField::Type::Signature);
    QVERIFY(!form->field("sign")->isEditable() && !form->field("total")->isEditable());
    QVERIFY(form->field("comb")->isComb() && !form->field("plain")->isComb());
    QCOMPARE(form->field("name")->font().size, 12.0);
    QCOMPARE(form->field("name")->textColor(), QColor(Qt::blue));
    QCOMPARE(form->field("amount1")->format().kind, PdfFieldFormat::Kind::Number);
    QVERIFY(!form->hasScriptsNotRun());

    // Rows from the top, each left to right, whatever order the page lists them in.
    QStringList order;
    for (const auto &stop : form->tabOrder(doc->page(0)))
        order << stop.field->name() + QString::number(stop.widget);
    QCOMPARE(order, QStringList({"name0", "amount10", "amount20", "total0", "comb0", "plain0", "agree0", "small0", "choice0",
                                 "choice1", "choice2", "choice3", "notes0", "list0", "date0", "loopA0", "loopB0", "sign0"}));

    // 2,000 fields on one page, without a default appearance or with a font
    // the form does not have, one not in the form's list (as some producers
    // write them): listed, tabbed through and filled at once.
    std::vector<QByteArray> objects{"<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [" +
                                        [] {
                                            QByteArray refs;
                                            for (int i = 0; i < 1999; ++i) // one widget left out
                                                refs += QByteArray::number(i + 4) + " 0 R ";
                                            return refs;
                                        }() +
                                        "] /DR << >> >> >>",
                                    "<< /Type /Pages /Kids [3 0 R] /Count 1 >>", ""};
    QByteArray annots;
    for (int i = 0; i < 2000; ++i) {
        const QByteArray x = QByteArray::number(10 + (i % 40) * 15), y = QByteArray::number(770 - (i / 40) * 15);
        objects.push_back(fixtures::widgetObject(
            x + " " + y + " " + QByteArray::number(x.toInt() + 14) + " " + QByteArray::number(y.toInt() + 12),
            "/FT /Tx /T (f" + QByteArray::number(i) + ")" + (i % 2 ? " /DA (/Nope 0 Tf 0 g)" : "") +
                (i == 0 ? " /AA << /K " + fixtures::javaScript("event.rc = check(event.value);") + " >>" : "")));
        annots += QByteArray::number(i + 4) + " 0 R ";
    }
    objects[2] = "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Tabs /R /Annots [" + annots + "] >>";
    const QString many = dir.filePath("many.pdf");
    QVERIFY(fixtures::writeFile(many, fixtures::buildFromObjects(objects)));
    auto big = PdfDocument::open(many);
    QCOMPARE(big->formFields().size(), size_t(2000));
    const auto stops = big->form()->tabOrder(big->page(0));
    QCOMPARE(stops.size(), size_t(2000));
    QCOMPARE(stops[41].field->name(), QString("f41"));
    QCOMPARE(stops[1999].field->name(), QString("f1999"));
    QVERIFY(big->form()->hasScriptsNotRun());
    // Shown before it is filled, as in a window: the values still reach the file.
    QVERIFY(!big->page(0)->render(0.5).isNull());
    QVERIFY(stops[1].field->setValue("x") && stops[2].field->setValue("ž"));
    QVERIFY(big->write(dir.filePath("many-filled.pdf")));
    QCOMPARE(PdfDocument::open(dir.filePath("many-filled.pdf"))->form()->field("f2")->value(), QString("ž"));
}

void TestForms::filledFormsAreWrittenForEveryReader()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("form.pdf");
    QVERIFY(fixtures::writeFile(path, fixtures::formOfEveryKind()));
    auto doc = PdfDocument::open(path);
    auto form = doc->form();
    int announced = 0;
    QObject::connect(doc->changes(), &PdfChangeChannel::pageChanged, [&] { ++announced; });

    // Values the keystroke actions refuse, and unchanged values, change nothing.
    QVERIFY(!form->field("amount1")->setValue("12a"));
    QVERIFY(!form->field("total")->setValue("3"));
    QVERIFY(!form->field("sign")->setValue("x"));
    QCOMPARE(announced, 0);

    const QString polish = QString::fromUtf8("Zażółć gęślą jaźń Привет");
    QVERIFY(form->field("name")->setValue(polish));
    QVERIFY(announced > 0);
    QVERIFY(form->field("amount1")->setValue("1234.5"));
    QCOMPARE(form->field("total")->value(), QString("1234.5")); // /V keeps the number
    QCOMPARE(form->field("total")->displayValue(), QString("$1,234.50"));
    QCOMPARE(form->field("loopB")->value(), QString("1234.5")); // the loop ran once and ended
    const auto second = form->field("amount2")->setValue("-0.25");
    QCOMPARE(form->field("total")->value(), QString("1234.25"));
    // Undo and redo of one change put back everything it did, the total too.
    second->undo();
    QCOMPARE(form->field("amount2")->value(), QString());
    QCOMPARE(form->field("total")->value(), QString("1234.5"));
    second->redo();
    QCOMPARE(form->field("total")->value(), QString("1234.25"));

    // Check boxes and radio buttons: on-state names, exclusivity, unison.
    QVERIFY(form->field("agree")->setChecked(0, true));
    QCOMPARE(form->field("agree")->value(), QString("Ja"));
    auto choice = form->field("choice");
    QVERIFY(choice->setValue("B"));
    QVERIFY(choice->setChecked(0, true));
    auto states = choice->widgets();
    QVERIFY(states[0].on && !states[1].on && states[2].on && !states[3].on);
    QVERIFY(!choice->setChecked(3, true));  // it has no on state
    QVERIFY(!choice->setChecked(0, false)); // no toggle to off
    QCOMPARE(choice->value(), QString("A"));

    QVERIFY(form->field("list")->setValues({"two", "three"}));
    QVERIFY(!form->field("list")->setValues({"four"}));
    QVERIFY(form->field("comb")->setValue("12345"));
    QVERIFY(form->field("plain")->setValue("67890"));
    QVERIFY(form->field("small")->setValue("A longer line than the box"));
    QVERIFY(form->field("date")->setValue("3/7/2024"));
    QVERIFY(form->field("notes")->setValue(QString("Line one and more words.\n").repeated(4000).left(100000)));

    const QString saved = dir.filePath("saved.pdf");
    QVERIFY(doc->write(saved));
    const inspect::PdfObjects objects(saved);
    auto fields = objects.fields();
    QCOMPARE(fields["name"].value, polish);
    QCOMPARE(fields["total"].value, QString("1234.25"));
    QCOMPARE(fields["agree"].value, QString("Ja"));
    QCOMPARE(fields["choice"].value, QString("A"));
    QCOMPARE(objects.dict(fields["choice"].widgets[2]).value("/AS").toString(), QString("/A"));
    QCOMPARE(objects.dict(fields["choice"].widgets[1]).value("/AS").toString(), QString("/Off"));
    QVERIFY(!objects.resolved(objects.root().value("/AcroForm")).toObject().contains("/NeedAppearances"));
    // Text the form's font can show is written in it; the Polish and Cyrillic
    // value brings the glyphs it needs.
    const auto fontsOf = [&](const QString &field) {
        const QJsonObject look =
            objects.dict(objects.dict(fields[field].widgets[0]).value("/AP").toObject().value("/N").toString());
        QJsonArray out;
        for (const QJsonValue font : objects.resolved(look.value("/Resources").toObject().value("/Font")).toObject())
            out.append(objects.resolved(font));
        return out;
    };
    const QJsonValue formFont =
        objects.resolved(objects.acroForm().value("/DR").toObject().value("/Font").toObject().value("/Helv"));
    QCOMPARE(fontsOf("total"), QJsonArray({formFont}));
    QVERIFY(!fontsOf("name").isEmpty() && !fontsOf("name").contains(formFont));

    // Poppler shows the values as formatted, in their fields, any script not as boxes.
    const QString text = fixtures::toolOutput("pdftotext", {"-enc", "UTF-8", saved, "-"});
    for (const QString &shown : {polish, QString("$1,234.50"), QString("$1,234.25"), QString("-$0.25"), QString("03/07/2024"),
                                 QString("Two"), QString("Line one")})
        QVERIFY2(text.contains(shown), qPrintable(shown));
    QVERIFY(inkIn(saved, QRectF(50, 700, 250, 20)) > 200);
    // The check box and radio buttons keep their own on looks (filled squares).
    QVERIFY(inkIn(saved, QRectF(350, 600, 15, 15)) > 100);
    QVERIFY(inkIn(saved, QRectF(380, 560, 15, 15)) < 5 && inkIn(saved, QRectF(410, 560, 15, 15)) > 100);
    QVERIFY(fixtures::toolOutput("mutool", {"draw", "-F", "txt", saved, "1"}).contains(polish));
    // Comb: one digit in the middle of each of its five cells; a plain field
    // without a length keeps them in a row; auto-size fits the box.
    const auto comb = wordsIn(saved, QRectF(50, 600, 100, 20));
    QCOMPARE(int(comb.size()), 5);
    for (int i = 0; i < 5; ++i)
        QVERIFY(qAbs(comb[size_t(i)].second.center().x() - (60 + 20 * i)) < 3);
    QCOMPARE(int(wordsIn(saved, QRectF(200, 600, 100, 20)).size()), 1);
    const auto small = wordsIn(saved, QRectF(50, 560, 70, 15));
    QCOMPARE(int(small.size()), 6);
    QVERIFY(small.front().second.left() >= 50 && small.back().second.right() <= 120);

    // Reset: every field back to its default, as one step.
    const auto reset = form->reset();
    QVERIFY(reset);
    QCOMPARE(form->field("amount1")->value(), QString("5"));
    QCOMPARE(form->field("total")->value(), QString("5"));
    QCOMPARE(form->field("agree")->value(), QString("Off"));
    QVERIFY(form->field("list")->values().isEmpty());
    reset->undo();
    QCOMPARE(form->field("name")->value(), polish);
    QCOMPARE(form->field("choice")->value(), QString("A"));

    // Reopened, the values and states are there and MuPDF draws the values.
    auto again = PdfDocument::open(saved);
    QCOMPARE(again->form()->field("list")->values(), QStringList({"two", "three"}));
    QVERIFY(again->form()->field("choice")->widgets()[2].on);
    const QImage page = again->page(0)->render(1);
    int dark = 0;
    for (int y = 792 - 720; y < 792 - 700; ++y)
        for (int x = 50; x < 300; ++x)
            dark += qGray(page.pixel(x, y)) < 160;
    QVERIFY(dark > 200);

    // Check boxes and radio buttons whose author left their looks to the
    // reader: named "Yes" and by /Opt, they get looks of their own when set,
    // the group stays exclusive, and poppler draws the marks.
    const QString lookless = dir.filePath("lookless.pdf");
    QVERIFY(fixtures::writeFile(
        lookless, fixtures::buildFromObjects(
                      {"<< /Type /Catalog /Pages 2 0 R /AcroForm << /Fields [4 0 R 5 0 R] /NeedAppearances true >> >>",
                       "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
                       "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Annots [4 0 R 6 0 R 7 0 R] >>",
                       fixtures::widgetObject("50 700 70 720", "/FT /Btn /T (cross) /MK << /BC [0 0 0] /CA (8) >>"),
                       "<< /FT /Btn /T (size) /Ff 49152 /Opt [(S) (L)] /Kids [6 0 R 7 0 R] >>",
                       fixtures::widgetObject("100 700 120 720", "/Parent 5 0 R /MK << /BC [0 0 0] >>"),
                       fixtures::widgetObject("150 700 170 720", "/Parent 5 0 R /MK << /BC [0 0 0] >>")})));
    auto plain = PdfDocument::open(lookless);
    QCOMPARE(plain->form()->field("cross")->widgets()[0].onState, QString("Yes"));
    QVERIFY(plain->form()->field("cross")->setChecked(0, true));
    auto size = plain->form()->field("size");
    QVERIFY(size->setValue("S") && size->setChecked(1, true));
    QCOMPARE(size->value(), QString("L"));
    QVERIFY(plain->write(saved));
    const inspect::PdfObjects written(saved);
    const auto kids = written.fields()["size"].widgets;
    QCOMPARE(written.dict(kids[0]).value("/AS").toString(), QString("/Off"));
    QVERIFY(written.dict(kids[0]).value("/AP").toObject().value("/N").toObject().contains("/S"));
    QCOMPARE(written.dict(kids[1]).value("/AS").toString(), QString("/L"));
    QVERIFY(inkIn(saved, QRectF(52, 702, 16, 16)) > 20 && inkIn(saved, QRectF(152, 702, 16, 16)) > 20);
    QVERIFY(inkIn(saved, QRectF(104, 704, 12, 12)) < 5);
}

int runFormTests(int argc, char **argv)
{
    TestForms tests;
    return QTest::qExec(&tests, argc, argv);
}

#include "tst_forms.moc"
