#include "FindBar.h"

#include "DocumentSearch.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"
#include "SearchResultsModel.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPropertyAnimation>
#include <QStyle>
#include <QToolButton>

#include <algorithm>

namespace {

QToolButton *button(const QString &icon, QStyle::StandardPixmap fallback, const QString &name, const QString &tip)
{
    auto *b = new QToolButton;
    b->setIcon(QIcon::fromTheme(icon, b->style()->standardIcon(fallback)));
    b->setAccessibleName(name);
    b->setToolTip(tip);
    b->setAutoRaise(true);
    return b;
}

} // namespace

FindBar::FindBar(PdfView *view, QWidget *parent)
    : QWidget(parent), view_(view), search_(new DocumentSearch(this)), results_(new SearchResultsModel(search_, this))
{
    setAccessibleName(tr("Find Bar"));
    field_ = new QLineEdit;
    field_->setAccessibleName(tr("Find"));
    field_->setPlaceholderText(tr("Find in document"));
    field_->setClearButtonEnabled(true);
    field_->setMinimumWidth(220);
    field_->installEventFilter(this);
    previous_ = button(QStringLiteral("go-up"), QStyle::SP_ArrowUp, tr("Find Previous"), tr("Previous match (Shift+F3)"));
    next_ = button(QStringLiteral("go-down"), QStyle::SP_ArrowDown, tr("Find Next"), tr("Next match (F3)"));
    matchCase_ = new QCheckBox(tr("Match Case"));
    wholeWords_ = new QCheckBox(tr("Whole Words"));
    count_ = new QLabel;
    count_->setAccessibleName(tr("Match Count"));
    count_->setAccessibleDescription(tr("Match Count"));
    note_ = new QLabel;
    note_->setAccessibleName(tr("Find Note"));
    closeButton_ = button(QStringLiteral("window-close"), QStyle::SP_TitleBarCloseButton, tr("Close Find Bar"), tr("Close (Escape)"));

    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(8, 4, 8, 4);
    row->addWidget(field_);
    row->addWidget(previous_);
    row->addWidget(next_);
    row->addWidget(count_);
    row->addSpacing(12);
    row->addWidget(matchCase_);
    row->addWidget(wholeWords_);
    row->addSpacing(12);
    row->addWidget(note_, 1);
    row->addWidget(closeButton_);
    setAutoFillBackground(true);
    setMaximumHeight(0);
    hide();

    slide_ = new QPropertyAnimation(this, "maximumHeight", this);
    slide_->setDuration(120);
    connect(slide_, &QPropertyAnimation::finished, this, [this] {
        if (!open_)
            hide();
    });
    typingPause_.setSingleShot(true);
    typingPause_.setInterval(typingPauseMs);
    connect(&typingPause_, &QTimer::timeout, this, &FindBar::searchNow);
    noteTimer_.setSingleShot(true);
    noteTimer_.setInterval(3000);
    connect(&noteTimer_, &QTimer::timeout, note_, &QLabel::clear);

    connect(field_, &QLineEdit::textChanged, this, [this](const QString &text) {
        if (PdfSearchText::searchable(text).isEmpty())
            searchNow(); // an empty field clears everything at once
        else
            typingPause_.start();
    });
    connect(previous_, &QToolButton::clicked, this, &FindBar::findPrevious);
    connect(next_, &QToolButton::clicked, this, &FindBar::findNext);
    connect(closeButton_, &QToolButton::clicked, this, &FindBar::close);
    for (QCheckBox *option : {matchCase_, wholeWords_})
        connect(option, &QCheckBox::toggled, this, &FindBar::searchNow);

    connect(search_, &DocumentSearch::resultInserted, this, &FindBar::resultArrived);
    connect(search_, &DocumentSearch::resultChanged, this, &FindBar::resultChanged);
    connect(search_, &DocumentSearch::resultRemoved, this, [this] {
        view_->updateDecorations();
        updateCount();
    });
    connect(search_, &DocumentSearch::progressChanged, this, &FindBar::updateCount);
    view_->addDecoration(this);
}

FindBar::~FindBar()
{
    if (view_)
        view_->removeDecoration(this);
}

void FindBar::setDocument(std::shared_ptr<PdfDocument> document)
{
    setEnabled(document && !document->isLocked());
    if (!isEnabled())
        close();
    if (document == search_->document())
        return;
    search_->setDocument(document && !document->isLocked() ? document : nullptr);
    current_ = {};
    if (open_)
        searchNow();
}

void FindBar::open()
{
    if (!isEnabled())
        return;
    if (const auto selection = view_->currentSelection();
        selection && selection->lines().size() == 1 && selection->string().trimmed().size() < 100 &&
        !selection->string().trimmed().isEmpty())
        field_->setText(selection->string().trimmed());
    if (!open_) {
        open_ = true;
        show();
        animateTo(sizeHint().height());
        emit openChanged(true);
        if (search_->query().isEmpty() && !field_->text().isEmpty())
            searchNow();
    }
    field_->setFocus(Qt::ShortcutFocusReason);
    field_->selectAll();
}

void FindBar::close()
{
    if (!open_)
        return;
    open_ = false;
    typingPause_.stop();
    search_->clear();
    current_ = {};
    revealPending_ = false;
    setNote({});
    updateCount();
    view_->updateDecorations();
    animateTo(0);
    emit openChanged(false);
    emit currentRowChanged(-1);
    view_->setFocus();
}

void FindBar::animateTo(int height)
{
    slide_->stop();
    slide_->setStartValue(std::min(maximumHeight(), sizeHint().height()));
    slide_->setEndValue(height);
    slide_->start();
}

void FindBar::searchNow()
{
    typingPause_.stop();
    current_ = {};
    revealPending_ = false;
    setNote({});
    const QString text = field_->text();
    if (PdfSearchText::searchable(text).isEmpty() || !open_) {
        search_->clear();
    } else {
        jumpToFirst_ = true;
        search_->start(text, PdfSearchOptions{matchCase_->isChecked(), wholeWords_->isChecked()}, view_->currentPageIndex());
    }
    emit currentRowChanged(-1);
    updateCount();
    view_->updateDecorations();
}

void FindBar::findNext()
{
    step(1);
}

void FindBar::findPrevious()
{
    step(-1);
}

void FindBar::step(int direction)
{
    if (!open_) {
        open();
        return;
    }
    if (typingPause_.isActive() || (search_->query().isEmpty() && !field_->text().isEmpty())) {
        searchNow();
        return;
    }
    const auto &results = search_->results();
    if (results.empty())
        return;
    auto [row, match] = locateCurrent();
    if (row < 0) {
        // No match chosen yet: the first one from the page in view on.
        const int from = view_->currentPageIndex();
        auto it = std::find_if(results.begin(), results.end(), [&](const auto &h) { return h.page->index() >= from; });
        if (direction < 0) {
            row = int(it - results.begin()) - 1;
            if (row < 0)
                row = int(results.size()) - 1;
            match = int(results[size_t(row)].matches.size()) - 1;
        } else {
            row = it == results.end() ? 0 : int(it - results.begin());
            match = 0;
        }
        select(row, match, true);
        return;
    }
    match += direction;
    if (match < 0 || match >= int(results[size_t(row)].matches.size())) {
        row += direction;
        if (row < 0 || row >= int(results.size())) {
            row = direction > 0 ? 0 : int(results.size()) - 1;
            setNote(direction > 0 ? tr("Reached the end of the document, continued from the beginning")
                                  : tr("Reached the beginning of the document, continued from the end"));
        }
        match = direction > 0 ? 0 : int(results[size_t(row)].matches.size()) - 1;
    }
    select(row, match, true);
}

void FindBar::goToRow(int row)
{
    const auto [result, match] = results_->locate(row);
    if (result >= 0)
        select(result, match, true);
}

void FindBar::select(int resultRow, int match, bool revealIt)
{
    const auto &hits = search_->results()[size_t(resultRow)];
    current_ = {hits.page, hits.matches[size_t(match)].from};
    jumpToFirst_ = false;
    emit currentRowChanged(results_->rowOf(resultRow, match));
    updateCount();
    view_->updateDecorations();
    if (revealIt) {
        revealPending_ = true;
        reveal();
    }
}

// Scrolls to the current match: to its page first while its quads are read,
// then to the match itself.
void FindBar::reveal()
{
    const auto [row, match] = locateCurrent();
    if (row < 0)
        return;
    const auto &hits = search_->results()[size_t(row)];
    if (hits.quads.size() == hits.matches.size()) {
        revealPending_ = false;
        view_->ensureVisible(hits.page, PdfSearchText::bounds(hits.quads[size_t(match)]));
        return;
    }
    const auto shown = view_->visiblePages();
    if (std::find(shown.begin(), shown.end(), hits.page) == shown.end())
        view_->goToPage(hits.page);
    search_->requestQuads(hits.page);
}

void FindBar::resultArrived(int resultRow)
{
    if (jumpToFirst_ && !current_.page.lock())
        select(resultRow, 0, true);
    view_->updateDecorations();
}

void FindBar::resultChanged(int resultRow)
{
    if (revealPending_ && search_->results()[size_t(resultRow)].page == current_.page.lock())
        reveal();
    view_->updateDecorations();
}

std::pair<int, int> FindBar::locateCurrent() const
{
    const auto page = current_.page.lock();
    const int row = page ? search_->rowOf(page.get()) : -1;
    if (row < 0)
        return {-1, -1};
    const auto &matches = search_->results()[size_t(row)].matches;
    auto it = std::lower_bound(matches.begin(), matches.end(), current_.from,
                               [](const PdfSearchText::Match &m, int from) { return m.from < from; });
    if (it == matches.end() || it->from != current_.from)
        return {-1, -1};
    return {row, int(it - matches.begin())};
}

int FindBar::currentRow() const
{
    const auto [row, match] = locateCurrent();
    return results_->rowOf(row, match);
}

std::vector<PdfSearchText::Quad> FindBar::currentQuads() const
{
    const auto [row, match] = locateCurrent();
    if (row < 0)
        return {};
    const auto &hits = search_->results()[size_t(row)];
    return size_t(match) < hits.quads.size() ? hits.quads[size_t(match)] : std::vector<PdfSearchText::Quad>{};
}

QString FindBar::countText() const
{
    if (search_->query().isEmpty())
        return {};
    if (search_->isSearching())
        return tr("Searching… %1 so far").arg(search_->hitCount());
    if (search_->hitCount() == 0)
        return tr("No matches");
    const int row = currentRow();
    if (row < 0)
        return tr("%n matches", nullptr, search_->hitCount());
    return tr("%1 of %2").arg(row + 1).arg(search_->hitCount());
}

QString FindBar::noteText() const
{
    return note_->text();
}

void FindBar::updateCount()
{
    // Screen readers read the count itself.
    const QString text = countText();
    count_->setText(text);
    count_->setAccessibleName(text.isEmpty() ? tr("Match Count") : text);
}

void FindBar::setNote(const QString &note)
{
    note_->setText(note);
    note_->setAccessibleName(note.isEmpty() ? tr("Find Note") : note);
    if (note.isEmpty())
        noteTimer_.stop();
    else
        noteTimer_.start();
}

void FindBar::paintPage(QPainter &painter, const std::shared_ptr<PdfPage> &page, const QTransform &pageToView)
{
    const int row = search_->rowOf(page.get());
    if (row < 0)
        return;
    const auto &hits = search_->results()[size_t(row)];
    if (hits.quads.size() != hits.matches.size()) {
        search_->requestQuads(page);
        return;
    }
    const QColor accent = palette().color(QPalette::Highlight);
    QColor fill = accent, strong = accent;
    fill.setAlpha(70);
    strong.setAlpha(150);
    const bool currentPage = page == current_.page.lock();
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    for (size_t i = 0; i < hits.matches.size(); ++i) {
        const bool current = currentPage && hits.matches[i].from == current_.from;
        painter.setPen(current ? QPen(accent.darker(130), 1.5) : Qt::NoPen);
        painter.setBrush(current ? strong : fill);
        for (const auto &q : hits.quads[i])
            painter.drawPolygon(pageToView.map(QPolygonF({q[0], q[1], q[2], q[3]})));
    }
    painter.restore();
}

bool FindBar::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == field_ && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
            if (key->modifiers() & Qt::ShiftModifier)
                findPrevious();
            else
                findNext();
            return true;
        }
        if (key->key() == Qt::Key_Escape) {
            close();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void FindBar::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape) {
        close();
        return;
    }
    QWidget::keyPressEvent(event);
}
