#include "SearchResultsView.h"

#include "SearchResultsModel.h"

#include <QApplication>
#include <QPainter>
#include <QStyledItemDelegate>
#include <QTextLayout>

namespace {

// Two lines per match: "Page N" in the secondary colour, then the context,
// elided on the left so that the bold match stays in sight.
class ResultDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const override
    {
        const int line = option.fontMetrics.lineSpacing();
        return QSize(160, 2 * line + 8);
    }

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        QStyleOptionViewItem item = option;
        initStyleOption(&item, index);
        item.text.clear();
        const QWidget *widget = option.widget;
        QStyle *style = widget ? widget->style() : QApplication::style();
        style->drawControl(QStyle::CE_ItemViewItem, &item, painter, widget);

        const bool selected = option.state & QStyle::State_Selected;
        const QPalette::ColorRole text = selected ? QPalette::HighlightedText : QPalette::Text;
        const QRect box = option.rect.adjusted(6, 4, -6, -4);
        const int line = option.fontMetrics.lineSpacing();
        painter->save();
        QColor secondary = option.palette.color(text);
        secondary.setAlphaF(selected ? 0.85 : 0.6);
        painter->setPen(secondary);
        painter->drawText(QRect(box.left(), box.top(), box.width(), line), Qt::AlignLeft | Qt::AlignVCenter,
                          QObject::tr("Page %1").arg(index.data(SearchResultsModel::PageNumberRole).toInt()));

        QString context = index.data(SearchResultsModel::ContextRole).toString();
        int from = index.data(SearchResultsModel::HitFromRole).toInt();
        const int length = index.data(SearchResultsModel::HitLengthRole).toInt();
        // Cut from the left until the match's end fits, keeping some words before it.
        QFont bold = option.font;
        bold.setBold(true);
        const QFontMetrics plain(option.font), strong(bold);
        auto width = [&](int cut) {
            return plain.horizontalAdvance(context.mid(cut, from - cut)) + strong.horizontalAdvance(context.mid(from, length));
        };
        int cut = 0;
        while (cut < from && width(cut) > box.width() * 2 / 3)
            ++cut;
        // From the start of a word.
        if (cut > 0 && context[cut - 1] != u' ') {
            const int space = int(context.indexOf(u' ', cut));
            if (space >= 0 && space < from)
                cut = space + 1;
        }
        if (cut > 0) {
            context = QChar(0x2026) + context.mid(cut);
            from = from - cut + 1;
        }
        QTextLayout layout(context, option.font);
        QTextLayout::FormatRange range;
        range.start = from;
        range.length = length;
        range.format.setFontWeight(QFont::Bold);
        layout.setFormats({range});
        QTextOption wrap;
        wrap.setWrapMode(QTextOption::NoWrap);
        layout.setTextOption(wrap);
        layout.beginLayout();
        QTextLine textLine = layout.createLine();
        layout.endLayout();
        painter->setPen(option.palette.color(text));
        painter->setClipRect(box);
        if (textLine.isValid())
            layout.draw(painter, QPointF(box.left(), box.top() + line));
        painter->restore();
    }
};

} // namespace

SearchResultsView::SearchResultsView(SearchResultsModel *model, QWidget *parent) : QListView(parent)
{
    setModel(model);
    setItemDelegate(new ResultDelegate(this));
    setUniformItemSizes(true);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setAccessibleName(tr("Results"));
    connect(this, &QListView::activated, this, [this](const QModelIndex &index) { emit rowActivated(index.row()); });
    connect(this, &QListView::clicked, this, [this](const QModelIndex &index) { emit rowActivated(index.row()); });
}
