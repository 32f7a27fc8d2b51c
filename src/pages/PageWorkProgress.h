// Feedback for page work that can take a while (thousands of pages, a hundred
// files): a progress dialog that appears only when the work is not done within
// a moment, keeps the windows painted while it runs without letting any user
// action reach them, and offers Cancel only where stopping leaves nothing
// half-written.
#pragma once

#include "PageOperations.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QString>

class QProgressDialog;
class QWidget;

class PageWorkProgress {
public:
    // How long work may run before the dialog shows.
    static constexpr int showAfterMs = 350;

    // `showAtOnce`: the dialog shows with the first report (work that follows
    // other work the user already saw progress for).
    explicit PageWorkProgress(QWidget *parent, bool showAtOnce = false);
    ~PageWorkProgress();
    PageWorkProgress(const PageWorkProgress &) = delete;
    PageWorkProgress &operator=(const PageWorkProgress &) = delete;

    // Starts a step of the work, described by `label`.
    void begin(const QString &label, bool cancellable);
    // A progress report for the page operations; answers false once the user cancelled.
    PageOperations::Progress callback();
    // Reports `done` of `total`; false once the user cancelled.
    bool step(qint64 done, qint64 total);
    // A step that cannot report progress (one large write): shown as busy.
    void busy(const QString &label);
    bool wasCancelled() const { return cancelled_; }
    bool wasShown() const { return !dialog_.isNull(); }

private:
    void ensureDialog();
    void pump();

    QWidget *parent_;
    QPointer<QProgressDialog> dialog_;
    QElapsedTimer started_;
    QElapsedTimer lastPump_;
    QString label_;
    bool cancellable_ = false;
    bool cancelled_ = false;
    bool showAtOnce_ = false;
};
