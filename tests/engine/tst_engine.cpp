#include "FixtureBuilder.h"
#include "PdfAnnotation.h"
#include "PdfDocument.h"
#include "PdfPage.h"

#include <QTemporaryDir>
#include <QtTest>

class TestEngine : public QObject {
    Q_OBJECT
private slots:
    void smoke();
};

void TestEngine::smoke()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("a.pdf");
    QVERIFY(fixtures::writePdf(path, fixtures::numberedPages(3)));
    auto doc = PdfDocument::open(path);
    QVERIFY(doc);
    QCOMPARE(doc->pageCount(), 3);
    auto page = doc->page(1);
    qDebug() << page->text().left(80) << page->bounds() << page->displaySize();
    QImage img = page->render(1.0);
    QCOMPARE(img.size(), QSize(612, 792));
    const QString annotated = "/tmp/annots.pdf";
    QVERIFY(fixtures::writeWithAnnotations(annotated));
    auto doc2 = PdfDocument::open(annotated);
    QVERIFY(doc2);
    for (auto &a : doc2->page(0)->annotations())
        qDebug() << a->type() << a->bounds() << a->color() << a->contents();
    doc2->page(0)->render(1.0).save("/tmp/annots.png");
}

QTEST_MAIN(TestEngine)
#include "tst_engine.moc"
