#include "AnnotationTool.h"
#include "ToolSettings.h"

#include <QSignalSpy>
#include <QtTest>

class TestTools : public QObject {
    Q_OBJECT
private slots:
    void toolsAndTheirNames();
    void settingsStartFromDefaultsAndAnnounceEveryWrite();
};

void TestTools::toolsAndTheirNames()
{
    QStringList raw;
    for (AnnotationTool tool : annotationTool::allCases)
        raw << annotationTool::rawValue(tool);
    QCOMPARE(raw, QStringList({"none", "editText", "freeText", "ink", "rectangle", "circle", "note"}));
    for (AnnotationTool tool : annotationTool::allCases) {
        QCOMPARE(annotationTool::fromRawValue(annotationTool::rawValue(tool)), tool);
        QVERIFY(!annotationTool::title(tool).isEmpty());
        QVERIFY(!annotationTool::iconName(tool).isEmpty());
        QVERIFY(!annotationTool::helpText(tool).isEmpty());
    }
    QCOMPARE(annotationTool::fromRawValue("ink"), AnnotationTool::ink);
    QVERIFY(!annotationTool::fromRawValue("Ink"));
    QVERIFY(!annotationTool::fromRawValue("ink "));
    QVERIFY(!annotationTool::fromRawValue(""));
    QCOMPARE(annotationTool::title(AnnotationTool::none), QString("Select"));
    QCOMPARE(annotationTool::title(AnnotationTool::editText), QString("Edit Text"));
    QCOMPARE(annotationTool::helpText(AnnotationTool::circle), QString("Drag to draw an ellipse"));
}

void TestTools::settingsStartFromDefaultsAndAnnounceEveryWrite()
{
    ToolSettings settings;
    QCOMPARE(settings.currentTool(), AnnotationTool::none);
    QCOMPARE(settings.strokeColor(), QColor(Qt::red));
    QCOMPARE(settings.lineWidth(), 2.0);
    QCOMPARE(settings.hasFill(), false);
    QCOMPARE(settings.fillColor(), QColor(Qt::yellow));
    QCOMPARE(settings.fontSize(), 14.0);
    QCOMPARE(settings.fontColor(), QColor(Qt::black));
    QCOMPARE(settings.markupColor(), QColor(Qt::yellow));

    QSignalSpy tool(&settings, &ToolSettings::currentToolChanged);
    QSignalSpy fill(&settings, &ToolSettings::fillColorChanged);
    QSignalSpy markup(&settings, &ToolSettings::markupColorChanged);
    settings.setCurrentTool(AnnotationTool::none); // same value: still announced
    settings.setCurrentTool(AnnotationTool::ink);
    QCOMPARE(tool.count(), 2);
    settings.setFillColor(QColor(0, 0, 255, 100));
    QCOMPARE(fill.count(), 1);
    QCOMPARE(settings.fillColor().alpha(), 100); // alpha kept
    QCOMPARE(markup.count(), 0);                  // the two yellows are separate values
    QCOMPARE(settings.markupColor(), QColor(Qt::yellow));
}

int runToolsTests(int argc, char **argv)
{
    TestTools test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_tools.moc"
