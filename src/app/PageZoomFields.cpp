#include "PageZoomFields.h"

#include "PdfChangeChannel.h"
#include "PdfDocument.h"
#include "PdfView.h"

#include <QApplication>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QRegularExpression>

#include <cmath>

namespace {

enum ZoomChoice { FitWidth, FitPage, ActualSize, FirstStep };
constexpr int zoomSteps[] = {50, 75, 100, 125, 150, 200, 300, 400};

QString percent(qreal scale)
{
    return QObject::tr("%1 %").arg(std::lround(scale * 100));
}

} // namespace

PageZoomFields::PageZoomFields(PdfView *view, QWidget *parent) : QWidget(parent), view_(view)
{
    page_ = new QLineEdit;
    page_->setAccessibleName(tr("Page"));
    page_->setToolTip(tr("Current page: type a page number and press Return to go there (Ctrl+Alt+G)"));
    page_->setAlignment(Qt::AlignRight);
    page_->setFixedWidth(page_->fontMetrics().horizontalAdvance(QStringLiteral("00000")) + 12);
    count_ = new QLabel;
    count_->setAccessibleName(tr("Page Count"));
    zoom_ = new QComboBox;
    zoom_->setEditable(true);
    zoom_->setInsertPolicy(QComboBox::NoInsert);
    // An editable box is read out by its text: the field inside it and the
    // description carry the name.
    zoom_->setAccessibleName(tr("Zoom"));
    zoom_->setAccessibleDescription(tr("Zoom"));
    zoom_->setToolTip(tr("Zoom: choose a size or type a percentage"));
    zoom_->addItems({tr("Fit Width"), tr("Fit Page"), tr("Actual Size")});
    for (int step : zoomSteps)
        zoom_->addItem(tr("%1 %").arg(step));
    zoom_->setMinimumContentsLength(5);
    zoom_->lineEdit()->setAccessibleName(tr("Zoom"));
    zoom_->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);

    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(page_);
    row->addWidget(count_);
    row->addSpacing(4);
    row->addWidget(zoom_);

    connect(page_, &QLineEdit::returnPressed, this, &PageZoomFields::goToTyped);
    connect(page_, &QLineEdit::editingFinished, this, &PageZoomFields::showPage);
    connect(zoom_, &QComboBox::activated, this, &PageZoomFields::zoomChosen);
    connect(zoom_->lineEdit(), &QLineEdit::returnPressed, this, &PageZoomFields::zoomTyped);
    connect(zoom_->lineEdit(), &QLineEdit::editingFinished, this, &PageZoomFields::showZoom);
    connect(view_, &PdfView::documentChanged, this, &PageZoomFields::documentChanged);
    connect(view_, &PdfView::currentPageChanged, this, &PageZoomFields::showPage);
    connect(view_, &PdfView::scaleChanged, this, &PageZoomFields::showZoom);
    documentChanged();
}

void PageZoomFields::focusPage()
{
    if (!isEnabled())
        return;
    page_->setFocus(Qt::ShortcutFocusReason);
    page_->selectAll();
}

void PageZoomFields::documentChanged()
{
    disconnect(listChanges_);
    const auto document = view_ ? view_->document() : nullptr;
    setEnabled(document != nullptr);
    labels_ = document ? document->pageLabels() : QStringList();
    if (document)
        listChanges_ = connect(document->changes(), &PdfChangeChannel::pageListChanged, this, [this] {
            labels_ = view_->document()->pageLabels();
            showPage();
        });
    showPage();
    showZoom();
}

// "4" and "of 120", or the page's own label and "(4 of 120)".
void PageZoomFields::showPage()
{
    const auto document = view_ ? view_->document() : nullptr;
    const int count = document ? document->pageCount() : 0;
    const int index = view_ ? view_->currentPageIndex() : -1;
    if (!document || index < 0) {
        page_->clear();
        count_->clear();
        return;
    }
    const QLocale locale;
    const QString label = index < labels_.size() ? labels_[index] : QString();
    if (!label.isEmpty() && label != QString::number(index + 1)) {
        page_->setText(label);
        count_->setText(tr("(%1 of %2)").arg(locale.toString(index + 1), locale.toString(count)));
    } else {
        page_->setText(QString::number(index + 1));
        count_->setText(tr("of %1").arg(locale.toString(count)));
    }
}

void PageZoomFields::showZoom()
{
    if (view_ && !zoom_->lineEdit()->hasFocus())
        zoom_->setEditText(percent(view_->scaleFactor()));
}

// A label of the document's own first, then a page number.
void PageZoomFields::goToTyped()
{
    const auto document = view_ ? view_->document() : nullptr;
    if (!document)
        return;
    const QString typed = page_->text().trimmed();
    qsizetype index = labels_.indexOf(typed);
    if (index < 0) {
        for (qsizetype i = 0; i < labels_.size() && index < 0; ++i)
            if (labels_[i].compare(typed, Qt::CaseInsensitive) == 0)
                index = i;
    }
    bool number = false;
    if (const int n = typed.toInt(&number); index < 0 && number)
        index = n - 1;
    if (index < 0 || index >= document->pageCount()) {
        QApplication::beep();
        showPage();
        page_->selectAll();
        return;
    }
    view_->goToPage(document->page(int(index)));
    view_->setFocus();
    showPage();
}

void PageZoomFields::zoomChosen(int index)
{
    if (!view_)
        return;
    switch (index) {
    case FitWidth:
        view_->setAutoScales(true);
        break;
    case FitPage:
        view_->fitPage();
        break;
    case ActualSize:
        view_->setScaleFactor(1.0);
        break;
    default:
        if (index >= FirstStep && index < FirstStep + int(std::size(zoomSteps)))
            view_->setScaleFactor(zoomSteps[index - FirstStep] / 100.0);
    }
    view_->setFocus();
    showZoom();
}

// "150", "150 %" or "150%".
void PageZoomFields::zoomTyped()
{
    if (!view_)
        return;
    static const QRegularExpression number(QStringLiteral("^\\s*(\\d+(?:[.,]\\d+)?)\\s*%?\\s*$"));
    const auto match = number.match(zoom_->currentText());
    if (match.hasMatch()) {
        const qreal value = QString(match.captured(1)).replace(u',', u'.').toDouble();
        if (value > 0) {
            view_->setScaleFactor(value / 100.0);
            view_->setFocus();
        }
    } else if (const int choice = zoom_->findText(zoom_->currentText(), Qt::MatchFixedString); choice >= 0) {
        zoomChosen(choice);
        return;
    }
    showZoom();
}
