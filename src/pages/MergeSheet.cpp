#include "MergeSheet.h"

#include "DocumentModel.h"
#include "FilePanel.h"
#include "PageOperations.h"
#include "PageWorkProgress.h"
#include "PdfDocument.h"
#include "ReorderableListView.h"
#include "SheetStyle.h"

#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QStackedWidget>
#include <QStringListModel>
#include <QStyledItemDelegate>
#include <QVBoxLayout>

namespace {

constexpr int rowHeight = 28;
constexpr int removeSize = 16;
constexpr int rowInset = 8;

QRect removeRect(const QRect &row)
{
    return QRect(row.right() - rowInset - removeSize + 1, row.center().y() - removeSize / 2, removeSize, removeSize);
}

// A row: "n." dimmed, the file's name, and a remove button (a circle with a
// minus) at the trailing edge.
class SourceDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const override
    {
        return QSize(option.rect.width(), rowHeight);
    }

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        painter->save();
        const QPalette &palette = option.palette;
        const QRect row = option.rect;
        QRect text = row.adjusted(rowInset, 0, -(2 * rowInset + removeSize), 0);
        const QString number = QStringLiteral("%1.").arg(index.row() + 1);
        painter->setFont(option.font);
        painter->setPen(palette.color(QPalette::PlaceholderText));
        painter->drawText(text, Qt::AlignVCenter | Qt::AlignLeft, number);
        text.setLeft(text.left() + option.fontMetrics.horizontalAdvance(number) + rowInset);
        painter->setPen(palette.color(QPalette::Text));
        const QString name = QFileInfo(index.data().toString()).fileName();
        painter->drawText(text, Qt::AlignVCenter | Qt::AlignLeft,
                          option.fontMetrics.elidedText(name, Qt::ElideMiddle, text.width()));

        const QRectF button = QRectF(removeRect(row)).adjusted(1.5, 1.5, -1.5, -1.5);
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(QPen(palette.color(QPalette::Text), 1.4));
        painter->drawEllipse(button);
        const qreal y = button.center().y();
        painter->drawLine(QPointF(button.left() + 4, y), QPointF(button.right() - 4, y));
        painter->restore();
    }
};

// The empty file area: a dim text centred on a faint rounded box.
class PlaceholderBox : public QLabel {
public:
    using QLabel::QLabel;

protected:
    void paintEvent(QPaintEvent *event) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(128, 128, 128, 20));
        painter.drawRoundedRect(QRectF(rect()), 6, 6);
        painter.end();
        QLabel::paintEvent(event);
    }
};

} // namespace

MergeSheet::MergeSheet(DocumentModel *model, QWidget *parent)
    : QDialog(parent), model_(model), sources_(new QStringListModel(this))
{
    setWindowModality(Qt::WindowModal);
    setWindowTitle(tr("Merge PDFs"));
    setFixedSize(sheetWidth, sheetHeight);
    auto *layout = new QVBoxLayout(this);
    layout->setSpacing(SheetStyle::rowSpacing);
    layout->setContentsMargins(SheetStyle::margin, SheetStyle::margin, SheetStyle::margin, SheetStyle::margin);
    layout->addWidget(SheetStyle::headline(tr("Merge PDFs")));
    layout->addWidget(SheetStyle::caption(tr("Add the PDFs you want to combine, then drag to set the order.")));

    placeholder_ = new PlaceholderBox(tr("No files added yet"));
    placeholder_->setAlignment(Qt::AlignCenter);
    placeholder_->setForegroundRole(QPalette::PlaceholderText);
    list_ = new ReorderableListView;
    list_->setModel(sources_);
    list_->setItemDelegate(new SourceDelegate(list_));
    list_->setUniformItemSizes(true);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    fileArea_ = new QStackedWidget;
    fileArea_->setMinimumHeight(160);
    fileArea_->addWidget(placeholder_);
    fileArea_->addWidget(list_);
    layout->addWidget(fileArea_, 1);

    add_ = new QPushButton(tr("Add Files..."));
    add_->setAutoDefault(false);
    cancel_ = new QPushButton(tr("Cancel"));
    // "&&" shows as "&" (a single one would mark a shortcut letter).
    merge_ = new QPushButton(tr("Merge && Save As..."));
    QHBoxLayout *buttons = SheetStyle::buttonRow({cancel_, merge_});
    buttons->insertWidget(0, add_);
    layout->addLayout(buttons);

    connect(add_, &QPushButton::clicked, this, &MergeSheet::addFiles);
    connect(cancel_, &QPushButton::clicked, this, &MergeSheet::reject);
    connect(merge_, &QPushButton::clicked, this, &MergeSheet::performMerge);
    connect(list_, &ReorderableListView::rowsMoved, this, &MergeSheet::moveSources);
    connect(list_, &ReorderableListView::rowClicked, this, [this](int row, QPoint point) {
        if (removeButtonRect(row).contains(point))
            removeSource(row);
    });
    sourcesChanged();
}

QStringList MergeSheet::sources() const
{
    return sources_->stringList();
}

QRect MergeSheet::removeButtonRect(int row) const
{
    return removeRect(list_->visualRect(sources_->index(row)));
}

void MergeSheet::sourcesChanged()
{
    const int count = sources_->rowCount();
    fileArea_->setCurrentWidget(count == 0 ? static_cast<QWidget *>(placeholder_) : list_);
    merge_->setEnabled(count >= 2);
    list_->viewport()->update();
}

void MergeSheet::addFiles()
{
    const auto panel = model_->filePanel();
    if (!panel)
        return;
    const QStringList chosen = panel->chooseFilesToOpen(FilePanel::Content::Pdf, true);
    if (chosen.isEmpty())
        return;
    sources_->setStringList(sources() + chosen);
    sourcesChanged();
}

void MergeSheet::removeSource(int row)
{
    if (row < 0 || row >= sources_->rowCount())
        return;
    sources_->removeRows(row, 1);
    sourcesChanged();
}

void MergeSheet::moveSources(const std::set<qint64> &rows, int gap)
{
    const QStringList before = sources();
    QStringList after;
    for (qint64 index : PageOperations::movedOrder(before.size(), rows, gap))
        after.append(before[index]);
    sources_->setStringList(after);
    sourcesChanged();
}

void MergeSheet::performMerge()
{
    const QStringList paths = sources();
    std::vector<std::shared_ptr<PdfDocument>> documents;
    bool shown = false;
    {
        PageWorkProgress progress(this);
        progress.begin(tr("Opening %1 files…").arg(paths.size()), true);
        qint64 done = 0;
        for (const QString &path : paths) {
            // Files that cannot be opened are left out without a word.
            if (auto document = PdfDocument::open(path))
                documents.push_back(document);
            if (!progress.step(++done, paths.size()))
                return;
        }
        shown = progress.wasShown();
    }
    if (documents.size() < 2)
        return;
    const auto panel = model_->filePanel();
    const QString target = panel ? panel->chooseFileToSave(tr("Merged.pdf")) : QString();
    if (target.isEmpty())
        return;

    // The save panel comes between the two steps, without a busy cursor.
    PageWorkProgress progress(this, shown);
    progress.begin(tr("Combining %1 files…").arg(documents.size()), true);
    const auto merged = PageOperations::merge(documents, progress.callback());
    // Cancelled before anything was written: the sheet stays as it was.
    if (!merged)
        return;
    documents.clear();
    progress.busy(tr("Saving %1…").arg(QFileInfo(target).fileName()));
    const bool written = merged->write(target);
    accept();
    if (written)
        model_->setDocument(merged, target);
    else
        model_->setErrorMessage(tr("Couldn't save the combined PDF there. Pick a different folder and try again."));
}
