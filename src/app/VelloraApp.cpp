#include "VelloraApp.h"

#include "ContentView.h"
#include "DocumentModel.h"
#include "QtFilePanel.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QFileOpenEvent>
#include <QGuiApplication>
#include <QSessionManager>

VelloraApp::VelloraApp(const QStringList &arguments, QObject *parent)
    : QObject(parent), arguments_(arguments), model_(new DocumentModel(this))
{
    model_->setFilePanel(std::make_shared<QtFilePanel>());
    if (QCoreApplication::instance())
        QCoreApplication::instance()->installEventFilter(this);
    // The user logging out: unsaved changes are settled, or the logout is cancelled.
    if (auto *gui = qobject_cast<QGuiApplication *>(QCoreApplication::instance()))
        connect(gui, &QGuiApplication::commitDataRequest, this, [this](QSessionManager &manager) {
            if (!manager.allowsInteraction())
                return;
            if (model_->resolveUnsavedChanges())
                ContentView::closeWindowsOf(model_);
            else
                manager.cancel();
            manager.release();
        });
}

VelloraApp::~VelloraApp() = default;

ContentView *VelloraApp::newWindow()
{
    auto *window = new ContentView(model_, [this] { newWindow()->show(); });
    window->setAttribute(Qt::WA_DeleteOnClose);
    // Each window shown opens the file named on the command line.
    connect(window, &ContentView::firstShown, this, [this] {
        // A file already shown (with its unsaved changes) is not read again.
        const QString path = pdfArgument(arguments_);
        if (!path.isEmpty() && path != model_->fileURL())
            model_->open(path);
    });
    return window;
}

void VelloraApp::openHandedFile(const QString &path)
{
    model_->open(path);
    model_->recentDocuments().add(path);
}

QString VelloraApp::pdfArgument(const QStringList &arguments)
{
    for (qsizetype i = arguments.size() - 1; i >= 1; --i)
        if (arguments[i].endsWith(QLatin1String(".pdf")))
            return QFileInfo(arguments[i]).absoluteFilePath();
    return {};
}

bool VelloraApp::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::FileOpen) {
        openHandedFile(static_cast<QFileOpenEvent *>(event)->file());
        return true;
    }
    return QObject::eventFilter(watched, event);
}
