// Signatures: the store's folder, naming and listing rules in a temporary
// data folder, typed rendering, the drawing canvas driven with the mouse, and
// the sheet's buttons with a scripted file chooser, also as the window shows it.
#include "ActAsNobody.h"
#include "ContentView.h"
#include "DocumentModel.h"
#include "ScriptedFilePanel.h"
#include "SignatureCanvasView.h"
#include "SignatureFonts.h"
#include "SignatureSheet.h"
#include "SignatureStore.h"

#include <QComboBox>
#include <QFontDatabase>
#include <QImageReader>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <sys/stat.h>

namespace {

const QColor darkBlue(16, 40, 128);

// How many pixels carry any ink, and whether all of it is of the ink colour.
int inkPixels(const QImage &image, bool *allInk = nullptr, const QColor &ink = Qt::black)
{
    const QImage argb = image.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    int count = 0;
    for (int y = 0; y < argb.height(); ++y)
        for (int x = 0; x < argb.width(); ++x)
            if (const QRgb pixel = argb.pixel(x, y); qAlpha(pixel) != 0) {
                ++count;
                auto off = [&](int channel, int inked) { return std::abs(channel - inked * qAlpha(pixel) / 255) > 1; };
                if (allInk && (off(qRed(pixel), ink.red()) || off(qGreen(pixel), ink.green()) || off(qBlue(pixel), ink.blue())))
                    *allInk = false;
            }
    return count;
}

QImage filled(QSize size, QColor color)
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(color);
    return image;
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

// A saved signature of the given name.
QString seed(const QString &name, QSize size = {50, 20})
{
    const QString path = QDir(SignatureStore::directory()).filePath(name);
    filled(size, QColor(0, 0, 255, 128)).save(path, "PNG");
    return path;
}

void click(QWidget *widget, QPoint at = {10, 10})
{
    QTest::mouseClick(widget, Qt::LeftButton, {}, at);
}

} // namespace

class TestSignatures : public QObject {
    Q_OBJECT
private slots:
    void initTestCase();
    void init();

    void storeFolderAndListing();
    void typedSignatures();
    void canvasStrokes();

    void sheetTextsAndEnabling();
    void drawingAndTypedButtons();
    void importAndSavedRow();
    void windowPresentsSheet();

private:
    QTemporaryDir dir_;
    std::unique_ptr<DocumentModel> model_;
    std::shared_ptr<ScriptedFilePanel> panel_;
};

void TestSignatures::initTestCase()
{
    // Readable by "nobody" for the test that gives up root.
    QVERIFY(::chmod(QFile::encodeName(dir_.path()).constData(), 0755) == 0);
    qputenv("XDG_DATA_HOME", dir_.filePath("data").toLocal8Bit());
}

void TestSignatures::init()
{
    QDir folder(SignatureStore::directory());
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden))
        QVERIFY(folder.remove(name));
    model_ = std::make_unique<DocumentModel>(RecentDocuments(dir_.filePath("recent.xbel")));
    panel_ = std::make_shared<ScriptedFilePanel>();
    model_->setFilePanel(panel_);
}

void TestSignatures::storeFolderAndListing()
{
    // Made on first use, the application's folder included.
    const QString store = SignatureStore::directory();
    QCOMPARE(store, dir_.filePath("data/Vellora/Signatures"));
    QVERIFY(QFileInfo(store).isDir());
    QVERIFY(SignatureStore::load().isEmpty());

    const QString later = seed("sig_1700000100.png");
    const QString earlier = seed("sig_1700000000.png");
    for (const char *left : {"SIG.PNG", ".sig_1.png", "sig_1700000050.PNG"})
        seed(left);
    writeFile(QDir(store).filePath("notes.txt"), "not a signature");
    QCOMPARE(SignatureStore::load(), QStringList({earlier, later}));

    // Deleting: gone from the list; a file already gone is no error.
    SignatureStore::deleteSignature(earlier);
    SignatureStore::deleteSignature(earlier);
    QCOMPARE(SignatureStore::load(), QStringList({later}));

    // A folder that cannot be read lists nothing; a write into it fails quietly.
    QVERIFY(::chmod(QFile::encodeName(store).constData(), 0) == 0);
    QStringList listed{"unchanged"};
    QString written, error;
    {
        ActAsNobody nobody;
        QVERIFY(nobody.ok());
        listed = SignatureStore::load();
        written = SignatureStore::save(filled({10, 10}, Qt::black), &error);
    }
    QVERIFY(::chmod(QFile::encodeName(store).constData(), 0755) == 0);
    QVERIFY(listed.isEmpty());
    QVERIFY(written.startsWith(store + "/sig_") && !error.isEmpty());
    QCOMPARE(SignatureStore::load(), QStringList({later}));

    // An image that cannot be encoded gives no file.
    QVERIFY(SignatureStore::save(QImage()).isEmpty());
    SignatureStore::deleteSignature(later);

    // Two saves in a row (within one second or not) keep both, listed in the order saved.
    const qint64 before = QDateTime::currentSecsSinceEpoch();
    const QString first = SignatureStore::save(filled({30, 10}, Qt::red));
    const QString second = SignatureStore::save(filled({60, 25}, Qt::transparent));
    const QString name = QFileInfo(first).fileName();
    QVERIFY2(name.startsWith("sig_") && name.endsWith(".png"), qPrintable(name));
    const qint64 seconds = name.mid(4, name.size() - 8).toLongLong();
    QVERIFY(seconds >= before && seconds <= QDateTime::currentSecsSinceEpoch());
    QCOMPARE(SignatureStore::load(), QStringList({first, second}));
    QCOMPARE(QImage(first).size(), QSize(30, 10));
    QImageReader reader(second);
    QCOMPARE(reader.format(), QByteArray("png"));
    const QImage stored = reader.read();
    QVERIFY(stored.size() == QSize(60, 25) && stored.hasAlphaChannel() && inkPixels(stored) == 0);
}

void TestSignatures::typedSignatures()
{
    for (const QString &blank : {QString(), QString("   "), QString(" \t\n ")})
        QVERIFY(SignatureStore::renderTypedSignature(blank, "SnellRoundhand").isNull());

    const QString elegant = SignatureFonts::choices().first().fontName;
    const QImage ada = SignatureStore::renderTypedSignature("Ada", elegant);
    QCOMPARE(SignatureStore::renderTypedSignature("  Ada \n", elegant), ada);
    const QSizeF measured = QFontMetricsF(SignatureFonts::font(elegant, 96)).size(0, "Ada");
    QCOMPARE(ada.size(), QSize(qCeil(measured.width() + 56), qCeil(measured.height() + 56)));
    bool black = true;
    QVERIFY(inkPixels(ada, &black) > 500 && black);
    QCOMPARE(inkPixels(ada.copy(0, 0, 14, ada.height())) + inkPixels(ada.copy(0, 0, ada.width(), 14)), 0);
    QVERIFY(SignatureStore::renderTypedSignature("Ada Lovelace", elegant).width() > ada.width() + 100);
    QVERIFY(inkPixels(SignatureStore::renderTypedSignature("Ada", elegant, darkBlue), &black, darkBlue) > 500 && black);

    // An unknown font is the system font; the four choices are faces of their
    // own (the free stand-ins here), none of them the system font.
    const QString system = QFontDatabase::systemFont(QFontDatabase::GeneralFont).family();
    QVERIFY(!SignatureFonts::isInstalled("NoSuchFont-Regular"));
    QList<QImage> faces{SignatureStore::renderTypedSignature("Ada", system)};
    QCOMPARE(SignatureStore::renderTypedSignature("Ada", "NoSuchFont-Regular"), faces.first());
    for (const SignatureFonts::Choice &choice : SignatureFonts::choices()) {
        faces.append(SignatureStore::renderTypedSignature("Ada", choice.fontName));
        QVERIFY2(faces.count(faces.last()) == 1, qPrintable(choice.label));
    }
    const QFontInfo casual(SignatureFonts::font("BradleyHandITCTT-Bold", 34));
    QCOMPARE(casual.family(), QString("Dancing Script"));
    QVERIFY(casual.bold() && casual.pixelSize() == 34);
}

void TestSignatures::canvasStrokes()
{
    SignatureCanvasView canvas;
    canvas.resize(300, 120);
    canvas.show();
    QVERIFY(QTest::qWaitForWindowExposed(&canvas));
    QVERIFY(canvas.renderImage().isNull());

    // Clicks are strokes of one point: they count, but leave no ink.
    click(&canvas, {40, 40});
    click(&canvas, {80, 60});
    QCOMPARE(canvas.strokes(), QList<SignatureCanvasView::Stroke>({{QPointF(40, 40)}, {QPointF(80, 60)}}));
    QImage image = canvas.renderImage();
    QCOMPARE(image.deviceIndependentSize(), QSizeF(300, 120));
    QCOMPARE(image.size(), QSize(300, 120) * SignatureCanvasView::inkScale);
    QVERIFY(image.hasAlphaChannel() && inkPixels(image) == 0);

    // A drag: the points as they came, not the release point. Unfinished, it
    // is on screen (over the grey guide line) but not in the image.
    QTest::mousePress(&canvas, Qt::LeftButton, {}, {20, 30});
    QTest::mouseMove(&canvas, {60, 40});
    QTest::mouseMove(&canvas, {100, 80});
    QVERIFY(canvas.currentStroke().size() == 3 && inkPixels(canvas.renderImage()) == 0);
    const QImage screen = canvas.grab().toImage().convertToFormat(QImage::Format_RGB32);
    QCOMPARE(screen.pixelColor(80, 60), QColor(Qt::black));
    QCOMPARE(screen.pixelColor(5, 5), QColor(Qt::white));
    QVERIFY(screen.pixelColor(150, 84) != QColor(Qt::white) && screen.pixelColor(150, 84) != QColor(Qt::black));
    QTest::mouseRelease(&canvas, Qt::LeftButton, {}, {140, 100});
    QCOMPARE(canvas.strokes().last(), SignatureCanvasView::Stroke({QPointF(20, 30), QPointF(60, 40), QPointF(100, 80)}));
    image = canvas.renderImage();
    const int s = SignatureCanvasView::inkScale;
    QCOMPARE(image.pixelColor(80 * s, 60 * s), QColor(Qt::black));
    QVERIFY(qAlpha(image.pixel(130 * s, 94 * s)) == 0 && qAlpha(image.pixel(150 * s, 84 * s)) == 0);
    bool black = true;
    QVERIFY(inkPixels(image, &black) > 100 && black);
    canvas.setInkColor(darkBlue); // the strokes drawn already too
    QVERIFY(inkPixels(canvas.renderImage(), &black, darkBlue) > 100 && black);

    canvas.clear();
    QVERIFY(canvas.strokes().isEmpty() && canvas.renderImage().isNull());
}

void TestSignatures::sheetTextsAndEnabling()
{
    SignatureSheet sheet(model_.get());
    sheet.open();
    QVERIFY(QTest::qWaitForWindowExposed(&sheet));
    QVERIFY(sheet.width() == SignatureSheet::sheetWidth && sheet.canvas()->height() == SignatureSheet::canvasHeight);

    QStringList texts;
    for (QLabel *label : sheet.findChildren<QLabel *>())
        if (label->isVisibleTo(&sheet))
            texts.append(label->text());
    for (QPushButton *button : sheet.findChildren<QPushButton *>())
        texts.append(button->text());
    for (int i = 0; i < sheet.fontPicker()->count(); ++i)
        texts.append(sheet.fontPicker()->itemText(i));
    QCOMPARE(texts, QStringList({"Place Signature", "Ink", "Draw Signature", "Type Signature", "Saved Signatures",
                                 "No saved signatures.", "Clear", "Save Drawing", "Place Drawing", "Save Typed", "Place Typed",
                                 QString::fromUtf8("Import PNG\u2026"), "Delete Selected", "Place Selected", "Cancel", "Elegant",
                                 "Signature", "Casual", "Formal"}));
    QCOMPARE(sheet.nameField()->placeholderText(), QString("Your name"));
    for (QWidget *control : sheet.findChildren<QWidget *>())
        if (control->focusPolicy() != Qt::NoFocus || control == sheet.canvas() || control == sheet.savedRow())
            QVERIFY2(!control->accessibleName().isEmpty(), control->metaObject()->className());

    // Drawing buttons are always on; the others wait for a name and a pick.
    auto enabled = [&] {
        QString states;
        for (QPushButton *button :
             {sheet.clearButton(), sheet.saveDrawingButton(), sheet.placeDrawingButton(), sheet.saveTypedButton(),
              sheet.placeTypedButton(), sheet.deleteSelectedButton(), sheet.placeSelectedButton()})
            states += button->isEnabled() ? '1' : '0';
        return states;
    };
    QTest::keyClicks(sheet.nameField(), "   ");
    QCOMPARE(enabled(), QString("1110000"));
    QVERIFY(sheet.previewShowsPlaceholder());
    QCOMPARE(sheet.previewText(), QString("Your signature"));
    QTest::keyClicks(sheet.nameField(), "Ada  ");
    QCOMPARE(enabled(), QString("1111100"));
    QVERIFY(!sheet.previewShowsPlaceholder());
    QCOMPARE(sheet.previewText(), QString("Ada"));

    // The preview takes the chosen face at 34 points.
    sheet.fontPicker()->setCurrentIndex(3);
    const QFontInfo formal(SignatureFonts::font(SignatureFonts::choices()[3].fontName, 34));
    QCOMPARE(QFontInfo(sheet.previewFont()).family(), formal.family());
    QCOMPARE(sheet.previewFont().pixelSize(), 34);
}

void TestSignatures::drawingAndTypedButtons()
{
    SignatureSheet sheet(model_.get());
    sheet.open();
    SignatureCanvasView *canvas = sheet.canvas();

    // Nothing drawn, or a stroke still being drawn: nothing saved or placed.
    sheet.saveDrawingButton()->click();
    QTest::mousePress(canvas, Qt::LeftButton, {}, {30, 30});
    QTest::mouseMove(canvas, {90, 60});
    sheet.placeDrawingButton()->click();
    QVERIFY(sheet.isVisible() && model_->pendingSignatureImage().isNull() && SignatureStore::load().isEmpty());
    QTest::mouseRelease(canvas, Qt::LeftButton, {}, {90, 60});

    // Saving keeps the drawing and picks nothing.
    sheet.saveDrawingButton()->click();
    QCOMPARE(sheet.savedPaths(), SignatureStore::load());
    QCOMPARE(QImage(sheet.savedPaths().value(0)).size(), canvas->size() * SignatureCanvasView::inkScale);
    QVERIFY(sheet.selectedPath().isEmpty() && !sheet.placeSelectedButton()->isEnabled());
    QVERIFY(sheet.noSavedLabel()->isHidden() && sheet.thumbnail(sheet.savedPaths().first())->isVisible());
    QCOMPARE(canvas->strokes().size(), 1);

    // A folder that cannot be written: the sheet says so, and the drawing stays.
    const QByteArray store = QFile::encodeName(SignatureStore::directory());
    QVERIFY(sheet.messageLabel()->isHidden() && ::chmod(store.constData(), 0555) == 0);
    {
        ActAsNobody nobody;
        sheet.saveDrawingButton()->click();
    }
    QVERIFY(::chmod(store.constData(), 0755) == 0);
    QVERIFY(sheet.messageLabel()->isVisible() && canvas->strokes().size() == 1 && sheet.savedPaths().size() == 1);
    QCOMPARE(sheet.messageLabel()->text(),
             "The signature couldn't be saved in " + SignatureStore::directory() + ": Permission denied.");

    // Typed in dark blue ink (drawings take it too): saved as rendered (the
    // newest file); Return places nothing.
    QTest::keyClicks(sheet.nameField(), " Ada Lovelace ");
    sheet.fontPicker()->setCurrentIndex(2);
    for (QToolButton *ink : sheet.findChildren<QToolButton *>())
        if (ink->accessibleName() == "Dark Blue Ink")
            click(ink, {7, 7});
    QCOMPARE(canvas->inkColor(), darkBlue);
    const QImage typed = SignatureStore::renderTypedSignature("Ada Lovelace", SignatureFonts::choices()[2].fontName, darkBlue);
    sheet.saveTypedButton()->click();
    QCOMPARE(QImage(sheet.savedPaths().last()).convertToFormat(typed.format()), typed);
    QTest::keyClick(sheet.nameField(), Qt::Key_Return);
    QVERIFY(sheet.isVisible() && model_->pendingSignatureImage().isNull());

    // Single clicks place a clear image the canvas's size, and close the sheet.
    sheet.clearButton()->click();
    sheet.placeDrawingButton()->click();
    QVERIFY(sheet.isVisible() && canvas->strokes().isEmpty());
    click(canvas, {50, 50});
    sheet.placeDrawingButton()->click();
    QVERIFY(!sheet.isVisible() && sheet.result() == QDialog::Accepted);
    QCOMPARE(model_->pendingSignatureImage().deviceIndependentSize(), QSizeF(canvas->width(), SignatureSheet::canvasHeight));
    QCOMPARE(inkPixels(model_->pendingSignatureImage()), 0);
}

void TestSignatures::importAndSavedRow()
{
    const QString older = seed("sig_1000000000.png", {80, 40});
    const QString victim = seed("sig_1000000001.png");
    writeFile(QDir(SignatureStore::directory()).filePath("sig_1000000002.png"), "not an image");
    const QString broken = dir_.filePath("broken.png");
    writeFile(broken, QByteArray("\x89PNG\r\n\x1a\n", 8) + QByteArray(64, 'x'));

    SignatureSheet sheet(model_.get());
    sheet.open();
    // A file that is no image is listed but shows no cell.
    QCOMPARE(sheet.savedPaths().size(), 3);
    QVERIFY(sheet.thumbnail(older) && !sheet.thumbnail(sheet.savedPaths()[2]));

    // A click picks, a second keeps the pick; the frame shows it.
    QWidget *cell = sheet.thumbnail(older);
    click(cell);
    click(cell);
    QCOMPARE(sheet.selectedPath(), older);
    QVERIFY(sheet.deleteSelectedButton()->isEnabled() && sheet.placeSelectedButton()->isEnabled());
    QCOMPARE(cell->grab().toImage().pixelColor(0, 35), cell->palette().color(QPalette::Highlight));

    // Each import is a PNG at the end of the row; the pick stays. A cancelled
    // chooser and a file that is no image change nothing.
    const QList<std::pair<const char *, QSize>> formats{{"PNG", {40, 20}}, {"JPEG", {33, 17}}, {"TIFF", {21, 13}}};
    for (const auto &[format, size] : formats) {
        const QString source = dir_.filePath(QString("fixture.") + format);
        QVERIFY2(filled(size, QColor(255, 0, 0, 128)).save(source, format), format);
        panel_->openAnswers = {{}, {broken}, {source}};
        for (int i = 0; i < 3; ++i)
            sheet.importButton()->click();
        QVERIFY(panel_->requests.back().content == FilePanel::Content::Image && !panel_->requests.back().multiple);
        QCOMPARE(sheet.savedPaths().size(), 4);
        QImageReader added(sheet.savedPaths().last());
        QCOMPARE(added.format(), QByteArray("png"));
        QCOMPARE(added.read().size(), size);
        QVERIFY(sheet.thumbnail(sheet.savedPaths().last()) && sheet.selectedPath() == older);
        // Gone again, so that the next import has the place at the end.
        SignatureStore::deleteSignature(sheet.savedPaths().last());
    }
    QVERIFY(model_->errorMessage().isEmpty());

    // What cannot be used says why in the sheet. A 600-dpi A4 scan (over Qt's
    // allocation limit whole) is read scaled to a placed signature's width at
    // the drawing's pixels per point.
    const QString oneByte = dir_.filePath("one.png"), svg = dir_.filePath("drawing.svg"), scan = dir_.filePath("scan.png"),
                  grey = dir_.filePath("grey.png");
    writeFile(oneByte, "x");
    writeFile(svg, R"(<svg xmlns="http://www.w3.org/2000/svg" width="90" height="30"><path d="M0 0L90 30"/></svg>)");
    QVERIFY(filled({4960, 7016}, Qt::darkBlue).convertToFormat(QImage::Format_RGB888).save(scan));
    QVERIFY(filled({4960, 7016}, Qt::black).convertToFormat(QImage::Format_Grayscale8).save(grey)); // Qt decodes it only whole
    const QList<std::pair<QString, QString>> refused{
        {oneByte, "it isn't a picture in a format Vellora reads."},
        {svg, "SVG drawings aren't supported; save it as a PNG first."},
        {broken, "the file is damaged or incomplete."},
        {grey, "the file is damaged or incomplete, or at 4960 × 7016 pixels too large to read."}};
    for (const auto &[file, reason] : refused) {
        panel_->openAnswers = {{file}};
        sheet.importButton()->click();
        QCOMPARE(sheet.messageLabel()->text(), "This image can't be used as a signature: " + reason);
        QVERIFY(sheet.messageLabel()->isVisible() && SignatureStore::load().size() == 3);
    }
    panel_->openAnswers = {{scan}};
    sheet.importButton()->click();
    const QImage stored(sheet.savedPaths().last());
    QCOMPARE(stored.size(), QSize(200 * SignatureCanvasView::inkScale, 1132));
    QVERIFY(sheet.messageLabel()->isHidden() && stored.pixelColor(400, 566) == QColor(Qt::darkBlue));

    // A pick that no longer reads as an image is not placed; deleting it
    // takes it from disk and row and leaves nothing picked.
    click(sheet.thumbnail(victim));
    writeFile(victim, "damaged");
    sheet.placeSelectedButton()->click();
    QVERIFY(sheet.isVisible() && model_->pendingSignatureImage().isNull());
    sheet.deleteSelectedButton()->click();
    QVERIFY(!QFile::exists(victim) && !sheet.savedPaths().contains(victim) && !sheet.thumbnail(victim));
    QVERIFY(sheet.selectedPath().isEmpty());
    QVERIFY(!sheet.deleteSelectedButton()->isEnabled() && !sheet.placeSelectedButton()->isEnabled());

    click(sheet.thumbnail(older));
    sheet.placeSelectedButton()->click();
    QVERIFY(!sheet.isVisible());
    QCOMPARE(model_->pendingSignatureImage().size(), QSize(80, 40));
}

void TestSignatures::windowPresentsSheet()
{
    ContentView window(model_.get());
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const QImage waiting = filled({5, 5}, Qt::black);
    model_->setPendingSignatureImage(waiting);

    // Made afresh each time; closing it, by Cancel (the model left alone) or by
    // placing, clears the flag; clearing the flag closes it.
    for (int step = 0; step < 3; ++step) {
        window.setShowSignatureSheet(true);
        QPointer<SignatureSheet> sheet = qobject_cast<SignatureSheet *>(window.signatureSheet());
        QVERIFY(sheet && sheet->isVisible() && sheet->parentWidget() == &window);
        QVERIFY(sheet->windowModality() == Qt::WindowModal && sheet->canvas()->strokes().isEmpty());
        QVERIFY(sheet->nameField()->text().isEmpty());
        click(sheet->canvas());
        QTest::keyClicks(sheet->nameField(), "Ada");
        if (step == 0)
            sheet->cancelButton()->click();
        else if (step == 1)
            sheet->placeTypedButton()->click();
        else
            window.setShowSignatureSheet(false);
        QVERIFY(!window.showSignatureSheet());
        QCOMPARE(model_->pendingSignatureImage(),
                 step == 1 ? SignatureStore::renderTypedSignature("Ada", SignatureFonts::choices()[0].fontName) : waiting);
        QTRY_VERIFY(!sheet);
        model_->setPendingSignatureImage(waiting);
    }
}

QTEST_MAIN(TestSignatures)
#include "tst_signatures.moc"
