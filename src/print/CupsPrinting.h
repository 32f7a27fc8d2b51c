// The hand-off to the system's print scheduler (CUPS): which printers it
// has, and sending a PDF file to one of them as a job, with progress and
// cancel. A cancelled or failed job is cancelled on the scheduler too, so
// nothing is left queued.
#pragma once

#include <QString>
#include <QStringList>

#include <functional>

struct CupsJobOptions {
    QString title;
    int copies = 1;
    bool collate = true;
    // "one-sided", "two-sided-long-edge" or "two-sided-short-edge".
    QString sides = QStringLiteral("one-sided");
    // The paper's name ("A4", "Letter"), or empty for the printer's default.
    QString media;
};

struct CupsJobResult {
    enum class Outcome { Sent, Cancelled, Failed };
    Outcome outcome = Outcome::Failed;
    int jobId = 0;
    // Why it failed, for the user.
    QString message;
};

class CupsPrinting {
public:
    // Whether the scheduler answers.
    static bool serverReachable();
    // Whether the scheduler runs on this computer (a local socket or a
    // loopback address), so a file sent to it never crosses the network.
    static bool serverIsLocal();
    // The scheduler's printers, by name.
    static QStringList printers();
    // Sends the PDF file at `path` to `printer`. `step` is told the bytes
    // sent of the total and answers false to stop.
    static CupsJobResult send(const QString &printer, const QString &path, const CupsJobOptions &options,
                              const std::function<bool(qint64 done, qint64 total)> &step = {});
};
