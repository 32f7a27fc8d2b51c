#include "PopupAccessibility.h"

#include <QAccessibleApplication>
#include <QGuiApplication>
#include <QWindow>

namespace {

class PopupListingApplication : public QAccessibleApplication {
public:
    int childCount() const override { return QAccessibleApplication::childCount() + int(shownPopups().size()); }

    int indexOfChild(const QAccessibleInterface *child) const override
    {
        const int index = QAccessibleApplication::indexOfChild(child);
        if (index >= 0 || !child)
            return index;
        const int popup = int(shownPopups().indexOf(child->object()));
        return popup < 0 ? -1 : QAccessibleApplication::childCount() + popup;
    }

    QAccessibleInterface *child(int index) const override
    {
        const int windows = QAccessibleApplication::childCount();
        if (index < windows)
            return QAccessibleApplication::child(index);
        return QAccessible::queryAccessibleInterface(shownPopups().value(index - windows));
    }

private:
    static QObjectList shownPopups()
    {
        QObjectList popups;
        for (QWindow *window : QGuiApplication::topLevelWindows())
            if (window->type() == Qt::Popup && window->isVisible())
                if (QAccessibleInterface *root = window->accessibleRoot(); root && root->object())
                    popups << root->object();
        return popups;
    }
};

QAccessibleInterface *applicationInterface(const QString &, QObject *object)
{
    return object && object == qApp ? new PopupListingApplication : nullptr;
}

} // namespace

void PopupAccessibility::install()
{
    static bool installed = false;
    if (installed || !qApp)
        return;
    installed = true;
    QAccessible::installFactory(applicationInterface);
    // One made before (the bridge to assistive technology asks early) is
    // dropped, so that the next asked for is ours.
    QAccessibleInterface *current = QAccessible::queryAccessibleInterface(qApp);
    if (current && !dynamic_cast<PopupListingApplication *>(current))
        QAccessible::deleteAccessibleInterface(QAccessible::uniqueId(current));
}
