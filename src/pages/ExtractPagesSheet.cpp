#include "ExtractPagesSheet.h"

#include "DocumentModel.h"
#include "FilePanel.h"
#include "PageOperations.h"
#include "PageWorkProgress.h"
#include "PdfDocument.h"
#include "SheetStyle.h"

#include <QFileInfo>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>

ExtractPagesSheet::ExtractPagesSheet(DocumentModel *model, QWidget *parent) : QDialog(parent), model_(model)
{
    setWindowTitle(tr("Extract Pages"));
    auto *layout = SheetStyle::column(this, sheetWidth);
    layout->addWidget(SheetStyle::headline(tr("Extract Pages")));
    selection_ = SheetStyle::caption(QString());
    layout->addWidget(selection_);
    cancel_ = new QPushButton(tr("Cancel"));
    // "&&" shows as "&" (a single one would mark a shortcut letter).
    extract_ = new QPushButton(tr("Extract && Save As..."));
    layout->addLayout(SheetStyle::buttonRow({cancel_, extract_}));

    connect(cancel_, &QPushButton::clicked, this, &ExtractPagesSheet::reject);
    connect(extract_, &QPushButton::clicked, this, &ExtractPagesSheet::performExtract);
    connect(model_, &DocumentModel::selectedPageIndicesChanged, this, &ExtractPagesSheet::selectionChanged);
    selectionChanged();
}

QString ExtractPagesSheet::selectionLine() const
{
    QList<int> indices = model_->selectedPageIndices().values();
    std::sort(indices.begin(), indices.end());
    QStringList numbers;
    for (int index : indices)
        numbers.append(QString::number(index + 1));
    return tr("Selected pages: ") + numbers.join(QStringLiteral(", "));
}

void ExtractPagesSheet::selectionChanged()
{
    selection_->setText(selectionLine());
    extract_->setEnabled(!model_->selectedPageIndices().isEmpty());
}

void ExtractPagesSheet::performExtract()
{
    const auto document = model_->pdfDocument();
    if (!document)
        return;
    const QSet<int> selected = model_->selectedPageIndices();
    if (selected.isEmpty())
        return;
    const auto panel = model_->filePanel();
    const QString target = panel ? panel->chooseFileToSave(tr("Extracted.pdf")) : QString();
    bool failed = false;
    if (!target.isEmpty()) {
        PageWorkProgress progress(this);
        progress.begin(tr("Copying %1 pages…").arg(selected.size()), false);
        const auto extracted =
            PageOperations::extractPages(document, std::vector<qint64>(selected.begin(), selected.end()), progress.callback());
        progress.busy(tr("Saving %1…").arg(QFileInfo(target).fileName()));
        failed = !extracted || !extracted->write(target);
    }
    // The sheet closes also when the save panel was cancelled.
    accept();
    if (failed)
        model_->setErrorMessage(tr("Couldn't save the extracted pages there. Pick a different folder and try again."));
}
