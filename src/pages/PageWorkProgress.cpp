#include "PageWorkProgress.h"

#include <QApplication>
#include <QCloseEvent>
#include <QProgressDialog>

namespace {

// A progress dialog that cannot be closed (Escape, the window's close
// button) while its step cannot be cancelled, so that it stays in view.
class WorkDialog : public QProgressDialog {
public:
    WorkDialog(const QString &label, QWidget *parent) : QProgressDialog(label, QString(), 0, 0, parent) {}
    bool cancellable = false;

    void reject() override
    {
        if (cancellable)
            cancel();
    }

protected:
    void closeEvent(QCloseEvent *event) override
    {
        if (cancellable)
            QProgressDialog::closeEvent(event);
        else
            event->ignore();
    }
};

// How often the event loop runs while work goes on: often enough to repaint
// and to see Cancel, rarely enough to cost nothing.
constexpr int pumpEveryMs = 40;

} // namespace

PageWorkProgress::PageWorkProgress(QWidget *parent, bool showAtOnce) : parent_(parent), showAtOnce_(showAtOnce)
{
    started_.start();
    lastPump_.start();
    QApplication::setOverrideCursor(Qt::WaitCursor);
}

PageWorkProgress::~PageWorkProgress()
{
    QApplication::restoreOverrideCursor();
    delete dialog_;
}

void PageWorkProgress::begin(const QString &label, bool cancellable)
{
    label_ = label;
    cancellable_ = cancellable;
    if (dialog_) {
        static_cast<WorkDialog *>(dialog_.data())->cancellable = cancellable;
        dialog_->setLabelText(label);
        dialog_->setCancelButtonText(cancellable ? QObject::tr("Cancel") : QString());
        dialog_->setRange(0, 0);
    }
}

PageOperations::Progress PageWorkProgress::callback()
{
    return [this](qint64 done, qint64 total) { return step(done, total); };
}

void PageWorkProgress::ensureDialog()
{
    if (dialog_ || (!showAtOnce_ && started_.elapsed() < showAfterMs))
        return;
    auto *dialog = new WorkDialog(label_, parent_);
    dialog->cancellable = cancellable_;
    dialog_ = dialog;
    // Application-modal: while the document is half-changed, no window of the
    // program takes a click, a key or a close; only this dialog does (Cancel).
    dialog_->setWindowModality(Qt::ApplicationModal);
    dialog_->setMinimumDuration(0);
    dialog_->setAutoClose(false);
    dialog_->setAutoReset(false);
    dialog_->setMinimumWidth(320);
    if (cancellable_)
        dialog_->setCancelButtonText(QObject::tr("Cancel"));
    dialog_->show();
}

// The window repaints, but no user action runs on the document while it is
// half-changed. Before the dialog shows, input stays queued until the work is
// done; once it shows, input reaches the dialog alone (modality drops the
// rest). Timers still run: those of the views and the thumbnails only read the
// pages, which are whole between two reports.
void PageWorkProgress::pump()
{
    lastPump_.restart();
    QApplication::processEvents(dialog_ ? QEventLoop::AllEvents : QEventLoop::ExcludeUserInputEvents);
}

bool PageWorkProgress::step(qint64 done, qint64 total)
{
    if (lastPump_.elapsed() < pumpEveryMs)
        return !cancelled_;
    ensureDialog();
    if (dialog_ && total > 0) {
        // The dialog counts in int; page numbers are scaled down if they ever exceed it.
        const qint64 scale = total / 1'000'000 + 1;
        dialog_->setRange(0, int(total / scale));
        dialog_->setValue(int(done / scale));
    }
    pump();
    // Cancel pressed, Escape, or the dialog closed: all of them count.
    if (cancellable_ && dialog_ && dialog_->wasCanceled())
        cancelled_ = true;
    return !cancelled_;
}

void PageWorkProgress::busy(const QString &label)
{
    begin(label, false);
    ensureDialog();
    if (dialog_)
        pump();
}
