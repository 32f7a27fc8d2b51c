#include "InsertPagesSheet.h"

#include "DocumentModel.h"
#include "FilePanel.h"
#include "PageOperations.h"
#include "PageWorkProgress.h"
#include "PdfDocument.h"
#include "SheetStyle.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

namespace {

// A stepper whose text is the position it stands for; the value changes with
// the arrows (buttons, keys, wheel) only.
class PositionStepper : public QSpinBox {
public:
    PositionStepper()
    {
        lineEdit()->setReadOnly(true);
        setAccelerated(true);
    }

protected:
    QString textFromValue(int value) const override { return InsertPagesSheet::positionLabel(value); }
    int valueFromText(const QString &text) const override
    {
        for (int v : {minimum(), value(), maximum()})
            if (textFromValue(v) == text)
                return v;
        return value();
    }
    QValidator::State validate(QString &, int &) const override { return QValidator::Acceptable; }
};

} // namespace

InsertPagesSheet::InsertPagesSheet(DocumentModel *model, QWidget *parent) : QDialog(parent), model_(model)
{
    setWindowTitle(tr("Insert Pages"));
    auto *layout = SheetStyle::column(this, sheetWidth);
    layout->addWidget(SheetStyle::headline(tr("Insert Pages from Another PDF")));
    // By default the pages go after the page being viewed.
    insertAfter_ = model_->currentPageIndex() + 1;
    if (const auto document = model_->pdfDocument()) {
        stepper_ = new PositionStepper;
        stepper_->setRange(0, document->pageCount());
        stepper_->setValue(int(std::min<qint64>(insertAfter_, document->pageCount())));
        // Wide enough for the longest label of this document.
        stepper_->setMinimumWidth(stepper_->fontMetrics().horizontalAdvance(positionLabel(document->pageCount())) + 60);
        connect(stepper_, &QSpinBox::valueChanged, this, [this](int value) { insertAfter_ = value; });
        layout->addWidget(stepper_, 0, Qt::AlignLeft);
    }
    cancel_ = new QPushButton(tr("Cancel"));
    choose_ = new QPushButton(tr("Choose PDF..."));
    layout->addLayout(SheetStyle::buttonRow({cancel_, choose_}));
    connect(cancel_, &QPushButton::clicked, this, &InsertPagesSheet::reject);
    connect(choose_, &QPushButton::clicked, this, &InsertPagesSheet::chooseAndInsert);
}

QString InsertPagesSheet::positionLabel(qint64 insertAfter)
{
    return insertAfter == 0 ? tr("Insert at the beginning") : tr("Insert after page %1").arg(insertAfter);
}

void InsertPagesSheet::setInsertAfter(qint64 value)
{
    if (stepper_)
        stepper_->setValue(int(value));
    else
        insertAfter_ = value;
}

void InsertPagesSheet::chooseAndInsert()
{
    const auto document = model_->pdfDocument();
    if (!document)
        return;
    const auto panel = model_->filePanel();
    const QStringList chosen = panel ? panel->chooseFilesToOpen(FilePanel::Content::Pdf, false) : QStringList();
    if (chosen.isEmpty())
        return;
    // A file that is not a readable PDF is passed over in silence.
    const auto source = PdfDocument::open(chosen.first());
    if (!source)
        return;
    PageWorkProgress progress(this);
    progress.begin(tr("Inserting %1 pages…").arg(source->pageCount()), true);
    // A document without pages would start the stepper past its end.
    const qint64 at = std::clamp<qint64>(insertAfter_, 0, document->pageCount());
    bool finished = false;
    model_->changePages([&] { finished = PageOperations::insertPages(source, document, at, progress.callback()); });
    if (finished) // when cancelled, the pages already in were taken out again
        accept();
}
