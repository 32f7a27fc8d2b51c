#include "SplitSheet.h"

#include "DocumentModel.h"
#include "FilePanel.h"
#include "PageWorkProgress.h"
#include "PdfDocument.h"
#include "SheetStyle.h"

#include <QButtonGroup>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <limits>

namespace {

// Tab and the Unicode space separators; line breaks are not among them.
bool isBlank(QChar c)
{
    return c == QLatin1Char('\t') || c.category() == QChar::Separator_Space;
}

QString trimmed(const QString &piece)
{
    qsizetype from = 0, to = piece.size();
    while (from < to && isBlank(piece[from]))
        ++from;
    while (to > from && isBlank(piece[to - 1]))
        --to;
    return piece.mid(from, to - from);
}

// An optional single "+" and ASCII digits, fitting 64 bits.
std::optional<qint64> number(const QString &piece)
{
    const qsizetype start = piece.startsWith(QLatin1Char('+')) ? 1 : 0;
    if (start == piece.size())
        return std::nullopt;
    qint64 value = 0;
    for (qsizetype i = start; i < piece.size(); ++i) {
        const char16_t c = piece[i].unicode();
        if (c < u'0' || c > u'9')
            return std::nullopt;
        const int digit = c - u'0';
        if (value > (std::numeric_limits<qint64>::max() - digit) / 10)
            return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

QStringList pieces(const QString &text, QChar separator)
{
    return text.split(separator, Qt::SkipEmptyParts);
}

} // namespace

QString SplitSheet::title(SplitMode mode)
{
    return mode == SplitMode::everyPage ? tr("Every page as its own file") : tr("Custom page ranges");
}

std::optional<std::vector<PageRange>> SplitSheet::parseRanges(const QString &text, qint64 pageCount)
{
    QStringList parts = pieces(text, QLatin1Char(','));
    if (parts.isEmpty())
        return std::nullopt;
    for (QString &part : parts) {
        part = trimmed(part);
        // A piece of blanks is an error, unlike an empty piece between commas.
        if (part.isEmpty())
            return std::nullopt;
    }
    std::vector<PageRange> ranges;
    for (const QString &part : parts) {
        if (part.contains(QLatin1Char('-'))) {
            const QStringList bounds = pieces(part, QLatin1Char('-'));
            if (bounds.size() != 2)
                return std::nullopt;
            const auto a = number(trimmed(bounds[0]));
            const auto b = number(trimmed(bounds[1]));
            if (!a || !b || *a < 1 || *b > pageCount || *a > *b)
                return std::nullopt;
            ranges.push_back({*a - 1, *b - 1});
        } else {
            const auto n = number(part);
            if (!n || *n < 1 || *n > pageCount)
                return std::nullopt;
            ranges.push_back({*n - 1, *n - 1});
        }
    }
    return ranges;
}

QString SplitSheet::rangesRejectedMessage(qint64 pageCount)
{
    return tr("Couldn't parse page ranges. Use formats like 1-3, 4, 5-10 (page numbers between 1 and %1).").arg(pageCount);
}

QString SplitSheet::fileSuffix(const PageRange &range)
{
    if (range.lower == range.upper)
        return QStringLiteral("page-%1").arg(range.lower + 1);
    return QStringLiteral("pages-%1-%2").arg(range.lower + 1).arg(range.upper + 1);
}

SplitSheet::SplitSheet(DocumentModel *model, QWidget *parent) : QDialog(parent), model_(model)
{
    setWindowTitle(tr("Split PDF"));
    auto *layout = SheetStyle::column(this, sheetWidth);
    layout->addWidget(SheetStyle::headline(tr("Split PDF")));

    everyPage_ = new QRadioButton(title(SplitMode::everyPage));
    ranges_ = new QRadioButton(title(SplitMode::ranges));
    auto *group = new QButtonGroup(this);
    group->addButton(everyPage_);
    group->addButton(ranges_);
    everyPage_->setChecked(true);
    auto *choice = new QVBoxLayout;
    choice->setSpacing(4);
    choice->addWidget(everyPage_);
    choice->addWidget(ranges_);
    layout->addLayout(choice);

    hint_ = SheetStyle::caption(tr("Enter page ranges separated by commas, e.g. 1-3, 4, 5-10"));
    layout->addWidget(hint_);
    rangesField_ = new QLineEdit;
    rangesField_->setPlaceholderText(tr("e.g. 1-3, 4-10"));
    layout->addWidget(rangesField_);
    error_ = SheetStyle::errorLine();
    layout->addWidget(error_);

    cancel_ = new QPushButton(tr("Cancel"));
    split_ = new QPushButton(tr("Split..."));
    layout->addLayout(SheetStyle::buttonRow({cancel_, split_}));

    connect(group, &QButtonGroup::buttonToggled, this, &SplitSheet::showMode);
    connect(cancel_, &QPushButton::clicked, this, &SplitSheet::reject);
    connect(split_, &QPushButton::clicked, this, &SplitSheet::performSplit);
    showMode();
    setErrorMessage({});
}

QRadioButton *SplitSheet::modeButton(SplitMode mode) const
{
    return mode == SplitMode::everyPage ? everyPage_ : ranges_;
}

SplitSheet::SplitMode SplitSheet::mode() const
{
    return ranges_->isChecked() ? SplitMode::ranges : SplitMode::everyPage;
}

void SplitSheet::setMode(SplitMode mode)
{
    modeButton(mode)->setChecked(true);
}

QString SplitSheet::rangesText() const
{
    return rangesField_->text();
}

void SplitSheet::setRangesText(const QString &text)
{
    rangesField_->setText(text);
}

QString SplitSheet::errorMessage() const
{
    return error_->isHidden() ? QString() : error_->text();
}

// The ranges row is there only in range mode; the text and the error line stay.
void SplitSheet::showMode()
{
    const bool ranges = mode() == SplitMode::ranges;
    hint_->setVisible(ranges);
    rangesField_->setVisible(ranges);
    if (ranges)
        rangesField_->setFocus();
}

void SplitSheet::setErrorMessage(const QString &message)
{
    error_->setText(message);
    error_->setVisible(!message.isEmpty());
}

void SplitSheet::performSplit()
{
    const auto document = model_->pdfDocument();
    if (!document || document->pageCount() < 1)
        return;
    const qint64 pageCount = document->pageCount();
    std::vector<PageRange> ranges;
    if (mode() == SplitMode::ranges) {
        const auto parsed = parseRanges(rangesText(), pageCount);
        if (!parsed || parsed->empty()) {
            setErrorMessage(rangesRejectedMessage(pageCount));
            return;
        }
        ranges = *parsed;
    }
    const auto panel = model_->filePanel();
    const QString folder = panel ? panel->chooseFolder() : QString();
    if (folder.isEmpty())
        return;

    PageWorkProgress progress(this);
    progress.begin(tr("Splitting %1 pages…").arg(pageCount), true);
    std::vector<std::pair<QString, std::shared_ptr<PdfDocument>>> outputs;
    if (mode() == SplitMode::everyPage) {
        const auto parts = PageOperations::splitEveryPage(document, progress.callback());
        for (size_t i = 0; i < parts.size(); ++i)
            outputs.emplace_back(QStringLiteral("page-%1").arg(i + 1), parts[i]);
    } else {
        const auto parts = PageOperations::splitByRanges(document, ranges, progress.callback());
        for (size_t i = 0; i < parts.size(); ++i)
            outputs.emplace_back(fileSuffix(ranges[i]), parts[i]);
    }
    // Cancelled while the new documents were built: nothing is written yet.
    if (progress.wasCancelled())
        return;

    const QString base =
        model_->fileURL().isEmpty() ? QStringLiteral("document") : QFileInfo(model_->fileURL()).completeBaseName();
    const QDir into(folder);
    const qint64 total = qint64(outputs.size());
    qint64 failures = 0;
    // Once files are being written the work runs to the end, so that no set
    // of outputs is left half-written.
    progress.begin(tr("Writing %1 files…").arg(total), false);
    std::vector<std::pair<std::shared_ptr<PdfDocument>, QString>> files;
    for (const auto &[suffix, part] : outputs)
        files.emplace_back(part, into.filePath(base + QLatin1Char('-') + suffix + QStringLiteral(".pdf")));
    for (bool written : PdfDocument::writeAll(files, [&](qint64 done) { progress.step(done, total); }))
        failures += written ? 0 : 1;

    QString message;
    if (failures > 0 && failures == total)
        message = tr("Couldn't save the split files to that folder. Pick a different folder and try again.");
    else if (failures > 0)
        message = tr("Only %1 of %2 files saved. The rest couldn't be written to that folder.").arg(total - failures).arg(total);
    // Closed before the alert shows, so that the alert stands over the window.
    accept();
    if (!message.isEmpty())
        model_->setErrorMessage(message);
}
