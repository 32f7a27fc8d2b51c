#include "FormFieldsLayer.h"

#include "DocumentModel.h"
#include "PdfDocument.h"
#include "PdfPage.h"
#include "PdfView.h"

#include <QApplication>
#include <QComboBox>
#include <QFocusEvent>
#include <QFontDatabase>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QTimer>
#include <QToolTip>

#include <limits>

namespace {

using Type = PdfFormField::Type;

bool sameStop(const PdfForm::Stop &a, const PdfForm::Stop &b)
{
    return a.field == b.field && a.widget == b.widget;
}

bool isButton(Type type)
{
    return type == Type::CheckBox || type == Type::RadioButton;
}

// What a field is called for the user: its description, else its name.
QString labelOf(const PdfFormField &field)
{
    return field.toolTip().isEmpty() ? field.name() : field.toolTip();
}

bool isTabKey(const QKeyEvent *key)
{
    return (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) &&
           !(key->modifiers() & (Qt::ControlModifier | Qt::AltModifier));
}

// Whether the focus is in `editor` or in a popup it opened (its list).
bool holdsFocus(QWidget *editor)
{
    for (QWidget *w = QApplication::focusWidget(); w; w = w->parentWidget())
        if (w == editor)
            return true;
    return false;
}

bool isReturnKey(const QKeyEvent *key)
{
    return key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
}

} // namespace

FormFieldsLayer::FormFieldsLayer(DocumentModel *model, PdfView *view) : model_(model), view_(view)
{
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_NoSystemBackground);
    setMouseTracking(true);
    setFocusPolicy(Qt::ClickFocus);
    setAccessibleName(tr("Form fields"));
    view->setPriorityOverlay(this);
    view->addDecoration(this);
    connect(model_, &DocumentModel::pdfDocumentChanged, this, &FormFieldsLayer::documentChanged);
    connect(model_, &DocumentModel::historyVersionChanged, this, &FormFieldsLayer::historyChanged);
    connect(model_, &DocumentModel::pageMutationCountChanged, this, &FormFieldsLayer::historyChanged);
    connect(view, &PdfView::geometryChanged, this, &FormFieldsLayer::placeEditor);
    documentChanged();
}

FormFieldsLayer::~FormFieldsLayer()
{
    if (view_)
        view_->removeDecoration(this);
}

void FormFieldsLayer::documentChanged()
{
    dropEditor();
    current_.reset();
    const auto document = model_->pdfDocument();
    form_ = document && !document->isLocked() ? document->form() : nullptr;
    scriptsNotRun_.reset();
    historyChanged();
}

// Fields may have come or gone, moved or changed (undo, page work): they are
// read again; an edit open over them ends without its typing.
void FormFieldsLayer::historyChanged()
{
    if (committing_)
        return;
    dropEditor();
    stale_ = true;
    spots_.clear();
    order_.reset();
    if (current_ && (!form_ || !current_->field->form()))
        current_.reset();
    emit fieldsChanged();
    repaintFields();
}

bool FormFieldsLayer::hasFields()
{
    if (!form_)
        return false;
    for (const auto &field : form_->fields())
        if (field->isEditable())
            return true;
    return false;
}

bool FormFieldsLayer::hasScriptsNotRun()
{
    if (!scriptsNotRun_)
        scriptsNotRun_ = form_ && form_->hasScriptsNotRun();
    return *scriptsNotRun_;
}

void FormFieldsLayer::setHighlightsFields(bool highlight)
{
    highlight_ = highlight;
    repaintFields();
    emit highlightsFieldsChanged(highlight);
}

void FormFieldsLayer::setSuspended(bool suspended)
{
    suspended_ = suspended;
    if (suspended && editor_ && !commitEditor())
        dropEditor();
    if (suspended)
        current_.reset();
    repaintFields();
}

const std::vector<FormFieldsLayer::Spot> &FormFieldsLayer::spotsOn(const PdfPage *page)
{
    if (stale_ && form_) {
        stale_ = false;
        for (const auto &field : form_->fields()) {
            if (field->type() == Type::PushButton || field->type() == Type::Signature)
                continue;
            const auto widgets = field->widgets();
            for (int i = 0; i < int(widgets.size()); ++i)
                if (widgets[size_t(i)].page)
                    spots_[widgets[size_t(i)].page.get()].push_back(
                        {field, i, widgets[size_t(i)].bounds, field->isEditable(), field->isRequired()});
        }
    }
    static const std::vector<Spot> none;
    const auto it = spots_.find(page);
    return it == spots_.end() ? none : it->second;
}

std::optional<FormFieldsLayer::Spot> FormFieldsLayer::spotAt(QPointF viewPoint)
{
    const auto page = view_ ? view_->pageAt(viewPoint, false) : nullptr;
    if (!page || !form_)
        return std::nullopt;
    const QPointF point = view_->convertToPage(viewPoint, page);
    const auto &spots = spotsOn(page.get());
    for (auto it = spots.rbegin(); it != spots.rend(); ++it)
        if (it->bounds.contains(point))
            return *it;
    return std::nullopt;
}

// Every fillable widget, page by page in each page's tab order.
const std::vector<PdfForm::Stop> &FormFieldsLayer::tabOrder()
{
    if (!order_) {
        order_.emplace();
        const auto document = model_->pdfDocument();
        if (form_ && document)
            for (const auto &page : document->pages()) {
                if (spotsOn(page.get()).empty())
                    continue;
                for (const PdfForm::Stop &stop : form_->tabOrder(page))
                    if (stop.field->isEditable())
                        order_->push_back(stop);
            }
    }
    return *order_;
}

// ---- Input ----------------------------------------------------------------------

bool FormFieldsLayer::wantsEvent(const QEvent *event)
{
    if (suspended_ || !form_ || !view_)
        return false;
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick: {
        const auto *mouse = static_cast<const QMouseEvent *>(event);
        if (mouse->button() == Qt::LeftButton && spotAt(mouse->position()))
            return true;
        // A press elsewhere ends the edit and leaves the fields.
        if (editor_ && !commitEditor())
            dropEditor();
        if (current_) {
            current_.reset();
            repaintFields();
        }
        return false;
    }
    case QEvent::ToolTip: {
        const auto spot = spotAt(static_cast<const QHelpEvent *>(event)->pos());
        return spot && !spot->field->toolTip().isEmpty();
    }
    case QEvent::MouseMove: {
        const auto spot = spotAt(static_cast<const QMouseEvent *>(event)->position());
        if (!spot) {
            unsetCursor();
            return false;
        }
        const Type type = spot->field->type();
        setCursor(!spot->editable ? Qt::ForbiddenCursor : type == Type::Text ? Qt::IBeamCursor : Qt::PointingHandCursor);
        return true;
    }
    case QEvent::KeyPress: {
        const auto *key = static_cast<const QKeyEvent *>(event);
        if (editor_)
            return false;
        // Tab from the page enters the fields.
        if (isTabKey(key))
            return current_ || !tabOrder().empty();
        return current_ && (isReturnKey(key) || key->key() == Qt::Key_Space || key->key() == Qt::Key_Escape);
    }
    default:
        return false;
    }
}

void FormFieldsLayer::mousePressEvent(QMouseEvent *event)
{
    const auto spot = spotAt(event->position());
    if (!spot)
        return;
    if (model_->selectedAnnotation())
        model_->setSelectedAnnotation(nullptr);
    const PdfForm::Stop stop{spot->field, spot->widget};
    activate(stop, false);
    if (spot->editable && isButton(spot->field->type()))
        toggle(stop);
    // The press that opens a list box also picks the row under it, as a click on an open list does.
    if (auto *list = qobject_cast<QListWidget *>(editor_); list && view_) {
        const QPoint at = list->viewport()->mapFromGlobal(event->globalPosition().toPoint());
        if (QListWidgetItem *row = list->itemAt(at)) {
            list->setCurrentItem(row, list->selectionMode() == QAbstractItemView::MultiSelection
                                          ? QItemSelectionModel::Toggle
                                          : QItemSelectionModel::ClearAndSelect);
        }
    }
}

bool FormFieldsLayer::event(QEvent *event)
{
    // Hovering a field shows its description, while the pointer stays on it.
    if (event->type() == QEvent::ToolTip) {
        const auto *help = static_cast<QHelpEvent *>(event);
        // The tip follows the pointer over the layer that gets the moves (the
        // layers lie over the whole viewport, so the field's rectangle holds for it).
        QWidget *under = QApplication::widgetAt(help->globalPos());
        if (const auto spot = spotAt(help->pos()); spot && !spot->field->toolTip().isEmpty())
            QToolTip::showText(help->globalPos(), spot->field->toolTip(), under ? under : this,
                               viewRectOf({spot->field, spot->widget}).toAlignedRect());
        else
            QToolTip::hideText();
        return true;
    }
    // Tab moves through the fields, not through the window's controls.
    if (event->type() == QEvent::KeyPress && isTabKey(static_cast<QKeyEvent *>(event)) && (current_ || !tabOrder().empty())) {
        const auto *key = static_cast<QKeyEvent *>(event);
        moveFocus(key->key() == Qt::Key_Tab && !(key->modifiers() & Qt::ShiftModifier));
        return true;
    }
    return QWidget::event(event);
}

void FormFieldsLayer::keyPressEvent(QKeyEvent *event)
{
    if (!current_) {
        event->ignore();
        return;
    }
    if (event->key() == Qt::Key_Space && isButton(current_->field->type())) {
        toggle(*current_);
    } else if (isReturnKey(event) && !isButton(current_->field->type())) {
        activate(*current_, true);
    } else if (event->key() == Qt::Key_Escape) {
        current_.reset();
        repaintFields();
        if (view_)
            view_->setFocus(Qt::OtherFocusReason);
    } else {
        event->ignore();
    }
}

// Keys of the editor: Tab moves on, Return ends a single-line field, Escape
// drops the typing; leaving the editor keeps what it holds.
bool FormFieldsLayer::eventFilter(QObject *watched, QEvent *event)
{
    if (!editor_ || (watched != editor_ && watched->parent() != editor_))
        return QWidget::eventFilter(watched, event);
    if (event->type() == QEvent::KeyPress) {
        auto *key = static_cast<QKeyEvent *>(event);
        if (isTabKey(key)) {
            moveFocus(key->key() == Qt::Key_Tab && !(key->modifiers() & Qt::ShiftModifier));
            return true;
        }
        if (key->key() == Qt::Key_Escape) {
            dropEditor();
            setFocus(Qt::OtherFocusReason);
            return true;
        }
        if (isReturnKey(key) && !qobject_cast<QPlainTextEdit *>(editor_)) {
            if (commitEditor())
                setFocus(Qt::OtherFocusReason);
            return true;
        }
    } else if (event->type() == QEvent::FocusOut) {
        // Leaving the editor keeps its value; its own list popping up, or
        // the window losing the focus, does not.
        const auto reason = static_cast<QFocusEvent *>(event)->reason();
        if (reason != Qt::PopupFocusReason && reason != Qt::ActiveWindowFocusReason && !committing_)
            QTimer::singleShot(0, this, [this, editor = editor_] {
                if (editor_ == editor && !holdsFocus(editor) && !commitEditor())
                    dropEditor();
            });
    }
    return QWidget::eventFilter(watched, event);
}

void FormFieldsLayer::moveFocus(bool forward)
{
    const auto &order = tabOrder();
    if (order.empty() || (editor_ && !commitEditor()))
        return;
    int at = -1;
    for (int i = 0; current_ && i < int(order.size()); ++i)
        if (sameStop(order[size_t(i)], *current_))
            at = i;
    const int n = int(order.size());
    int next = ((at + (forward ? 1 : -1)) % n + n) % n;
    if (at < 0) {
        // Entering the fields: the first (or last) one from the page in view on.
        const int page = view_ ? view_->currentPageIndex() : 0;
        const auto pageOf = [&](int i) {
            const auto widgets = order[size_t(i)].field->widgets();
            const size_t widget = size_t(order[size_t(i)].widget);
            return widget < widgets.size() && widgets[widget].page ? widgets[widget].page->index() : -1;
        };
        next = forward ? 0 : n - 1;
        for (int i = 0; i < n; ++i) {
            const int candidate = forward ? i : n - 1 - i;
            if (forward ? pageOf(candidate) >= page : pageOf(candidate) <= page) {
                next = candidate;
                break;
            }
        }
    }
    activate(order[size_t(next)], true);
}

void FormFieldsLayer::activate(const PdfForm::Stop &stop, bool byKeyboard)
{
    if (editor_ && !(current_ && sameStop(*current_, stop)) && !commitEditor())
        return;
    current_ = stop;
    const auto widgets = stop.field->widgets();
    if (byKeyboard && view_ && stop.widget < int(widgets.size()) && widgets[size_t(stop.widget)].page)
        view_->ensureVisible(widgets[size_t(stop.widget)].page, widgets[size_t(stop.widget)].bounds);
    repaintFields();
    if (!stop.field->isEditable()) {
        setFocus(Qt::MouseFocusReason);
        refuse(*stop.field, QString());
        return;
    }
    if (isButton(stop.field->type()))
        setFocus(Qt::OtherFocusReason);
    else if (!editor_)
        openEditor(stop);
}

void FormFieldsLayer::toggle(const PdfForm::Stop &stop)
{
    const auto widgets = stop.field->widgets();
    if (stop.widget >= int(widgets.size()))
        return;
    const PdfFormField::Widget &widget = widgets[size_t(stop.widget)];
    // A radio button that is on stays on when clicked again.
    if (stop.field->type() == Type::RadioButton && widget.on)
        return;
    committing_ = true;
    model_->changeFields([&] { return stop.field->setChecked(stop.widget, !widget.on); });
    committing_ = false;
}

// ---- The editor ---------------------------------------------------------------------

QRectF FormFieldsLayer::viewRectOf(const PdfForm::Stop &stop) const
{
    const auto widgets = stop.field->widgets();
    if (!view_ || stop.widget >= int(widgets.size()) || !widgets[size_t(stop.widget)].page)
        return QRectF();
    return view_->convertFromPage(widgets[size_t(stop.widget)].bounds, widgets[size_t(stop.widget)].page);
}

void FormFieldsLayer::openEditor(const PdfForm::Stop &stop)
{
    dropEditor();
    if (!view_)
        return;
    PdfFormField &field = *stop.field;
    const QRectF rect = viewRectOf(stop);
    const qreal scale = view_->scaleFactor();
    const PdfFormField::Flags flags = field.flags();
    const bool multiLine = field.type() == Type::Text && (flags & PdfFormField::MultiLine);
    // The value's own size at this zoom; "fit the box" takes most of a line's height.
    const qreal size = field.font().size > 0 ? field.font().size * scale : multiLine ? 12 * scale : rect.height() * 0.6;
    QFont font = field.isComb() ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : QFont();
    font.setPixelSize(std::max(6, int(size)));
    const Qt::Alignment align = field.alignment() == PdfFormField::Alignment::Center  ? Qt::AlignHCenter
                                : field.alignment() == PdfFormField::Alignment::Right ? Qt::AlignRight
                                                                                      : Qt::AlignLeft;
    QWidget *editor = nullptr;
    if (field.type() == Type::Text && multiLine) {
        auto *text = new QPlainTextEdit;
        text->setPlainText(field.value());
        text->moveCursor(QTextCursor::End);
        if (const int most = field.maxLength(); most > 0)
            connect(text, &QPlainTextEdit::textChanged, text, [text, most] {
                if (text->toPlainText().size() > most) {
                    text->setPlainText(text->toPlainText().left(most));
                    text->moveCursor(QTextCursor::End);
                }
            });
        editor = text;
    } else if (field.type() == Type::Text) {
        auto *line = new QLineEdit;
        line->setMaxLength(field.maxLength() > 0 ? field.maxLength() : std::numeric_limits<int>::max());
        line->setText(field.value());
        line->setAlignment(align | Qt::AlignVCenter);
        if (flags & PdfFormField::Password)
            line->setEchoMode(QLineEdit::Password);
        if (field.isComb()) {
            // One character to a cell, as the field shows its value.
            const qreal cell = rect.width() / field.maxLength();
            const qreal advance = QFontMetricsF(font).horizontalAdvance(QLatin1Char('M'));
            font.setLetterSpacing(QFont::AbsoluteSpacing, std::max<qreal>(0, cell - advance));
            line->setTextMargins(int(std::max<qreal>(0, (cell - advance) / 2)), 0, 0, 0);
            line->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
        }
        editor = line;
    } else if (field.type() == Type::ComboBox) {
        auto *combo = new QComboBox;
        for (const PdfFormField::Option &option : field.choiceOptions())
            combo->addItem(option.displayValue, option.exportValue);
        combo->setEditable(flags & PdfFormField::Edit);
        const int at = combo->findData(field.value());
        combo->setCurrentIndex(at);
        if (combo->isEditable()) {
            if (at < 0)
                combo->setEditText(field.value());
            combo->lineEdit()->installEventFilter(this);
        } else {
            connect(combo, &QComboBox::activated, this, [this] {
                if (commitEditor())
                    setFocus(Qt::OtherFocusReason);
            });
            QTimer::singleShot(0, combo, [combo] { combo->showPopup(); });
        }
        editor = combo;
    } else if (field.type() == Type::ListBox) {
        auto *list = new QListWidget;
        list->setSelectionMode((flags & PdfFormField::MultiSelect) ? QAbstractItemView::MultiSelection
                                                                   : QAbstractItemView::SingleSelection);
        const QStringList chosen = field.values();
        for (const PdfFormField::Option &option : field.choiceOptions()) {
            auto *item = new QListWidgetItem(option.displayValue, list);
            item->setData(Qt::UserRole, option.exportValue);
            item->setSelected(chosen.contains(option.exportValue));
        }
        editor = list;
    }
    if (!editor)
        return;
    editor->setFont(font);
    editor->setAccessibleName(labelOf(field));
    editor->setToolTip(field.toolTip());
    editor->setParent(view_->viewport());
    editor->installEventFilter(this);
    editor_ = editor;
    placeEditor();
    editor->show();
    editor->raise();
    editor->setFocus(Qt::OtherFocusReason);
}

// The editor stays over its widget as the pages scroll and zoom.
void FormFieldsLayer::placeEditor()
{
    if (!editor_ || !current_)
        return;
    QRect rect = viewRectOf(*current_).toAlignedRect();
    if (qobject_cast<QComboBox *>(editor_))
        rect.setHeight(std::max(rect.height(), editor_->minimumSizeHint().height()));
    editor_->setGeometry(rect);
}

QString FormFieldsLayer::editorText() const
{
    if (auto *line = qobject_cast<QLineEdit *>(editor_))
        return line->text();
    if (auto *text = qobject_cast<QPlainTextEdit *>(editor_))
        return text->toPlainText();
    if (auto *combo = qobject_cast<QComboBox *>(editor_)) {
        // Typed text that is an option's shown text stands for that option.
        const int at = combo->isEditable() ? combo->findText(combo->currentText()) : combo->currentIndex();
        return at >= 0 ? combo->itemData(at).toString() : combo->currentText();
    }
    return QString();
}

QStringList FormFieldsLayer::editorChoices() const
{
    QStringList out;
    if (auto *list = qobject_cast<QListWidget *>(editor_))
        for (int i = 0; i < list->count(); ++i)
            if (list->item(i)->isSelected())
                out << list->item(i)->data(Qt::UserRole).toString();
    return out;
}

bool FormFieldsLayer::commitEditor()
{
    if (!editor_ || !current_)
        return true;
    const std::shared_ptr<PdfFormField> field = current_->field;
    const bool list = qobject_cast<QListWidget *>(editor_) != nullptr;
    const QStringList chosen = list ? editorChoices() : QStringList{editorText()};
    if (!list && chosen.first() != field->value() && !field->accepts(chosen.first())) {
        refuse(*field, chosen.first());
        return false;
    }
    dropEditor();
    committing_ = true;
    if (list)
        model_->changeFields([&] { return field->setValues(chosen); });
    else
        model_->changeFields([&] { return field->setValue(chosen.first()); });
    committing_ = false;
    return true;
}

void FormFieldsLayer::dropEditor()
{
    QWidget *editor = editor_;
    if (!editor)
        return;
    editor_ = nullptr;
    editor->removeEventFilter(this);
    const bool hadFocus = holdsFocus(editor);
    editor->hide();
    editor->deleteLater();
    if (hadFocus && current_)
        setFocus(Qt::OtherFocusReason);
}

// Tells why a value was not taken, beside the field.
void FormFieldsLayer::refuse(const PdfFormField &field, const QString &value)
{
    const QString label = labelOf(field);
    const PdfFieldFormat keystroke = PdfFieldFormat::parse(field.keystrokeScript());
    QString message;
    if (!field.isEditable())
        message = tr("“%1” is read-only.").arg(label);
    else if (field.maxLength() > 0 && value.size() > field.maxLength())
        message = tr("“%1” takes at most %n characters.", nullptr, field.maxLength()).arg(label);
    else if (keystroke.kind == PdfFieldFormat::Kind::Number || keystroke.kind == PdfFieldFormat::Kind::Percent)
        message = tr("“%1” takes a number; “%2” is not one.").arg(label, value);
    else if (keystroke.kind == PdfFieldFormat::Kind::Date)
        message = tr("“%1” takes a date like %2.").arg(label, keystroke.dateFormat);
    else if (keystroke.kind == PdfFieldFormat::Kind::Special)
        message = tr("“%1” takes %2.")
                      .arg(label, keystroke.special == 0   ? tr("a ZIP code of 5 digits")
                                  : keystroke.special == 1 ? tr("a ZIP code of 9 digits")
                                  : keystroke.special == 2 ? tr("a phone number")
                                                           : tr("a social security number of 9 digits"));
    else
        message = tr("“%1” does not take “%2”.").arg(label, value);
    lastMessage_ = message;
    const QRect rect = current_ ? viewRectOf(*current_).toAlignedRect() : QRect();
    if (view_)
        QToolTip::showText(view_->viewport()->mapToGlobal(rect.bottomLeft()), message, view_->viewport());
}

// ---- Painting ----------------------------------------------------------------------

void FormFieldsLayer::repaintFields()
{
    if (view_)
        view_->updateDecorations();
}

void FormFieldsLayer::paintPage(QPainter &painter, const std::shared_ptr<PdfPage> &page, const QTransform &pageToView)
{
    if (!form_ || suspended_)
        return;
    const auto &spots = spotsOn(page.get());
    QColor tint = palette().color(QPalette::Highlight);
    tint.setAlpha(40);
    const QRectF clip = painter.clipBoundingRect();
    painter.save();
    for (const Spot &spot : spots) {
        const QRectF rect = pageToView.mapRect(spot.bounds);
        if (!clip.isEmpty() && !clip.intersects(rect.adjusted(-3, -3, 3, 3)))
            continue;
        if (highlight_ && spot.editable) {
            painter.fillRect(rect, tint);
            if (spot.required) {
                painter.setPen(QPen(Qt::red, 1.5));
                painter.setBrush(Qt::NoBrush);
                painter.drawRect(rect);
            }
        }
        if (current_ && sameStop(*current_, {spot.field, spot.widget})) {
            painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
            painter.setBrush(Qt::NoBrush);
            painter.drawRect(rect.adjusted(-2, -2, 2, 2));
        }
    }
    painter.restore();
}
