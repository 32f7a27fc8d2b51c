// The application: one document model for the whole process, its windows, and
// the files handed over on the command line.
#pragma once

#include <QObject>
#include <QPointer>
#include <QStringList>

#include <memory>

class ContentView;
class DocumentModel;

class VelloraApp : public QObject {
    Q_OBJECT
public:
    explicit VelloraApp(const QStringList &arguments, QObject *parent = nullptr);
    ~VelloraApp() override;

    DocumentModel *documentModel() const { return model_; }
    // A new window on the one model; its page view becomes the model's view.
    ContentView *newWindow();
    // A file the desktop hands over: opened, and noted among the recent files
    // whatever the outcome.
    void openHandedFile(const QString &path);

    // The last argument after the program's name that ends in ".pdf", as an
    // absolute path; empty when there is none.
    static QString pdfArgument(const QStringList &arguments);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QStringList arguments_;
    DocumentModel *model_;
};
