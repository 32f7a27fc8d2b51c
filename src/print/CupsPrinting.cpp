#include "CupsPrinting.h"

#include <QCoreApplication>
#include <QFile>

#include <cups/cups.h>

#include <memory>

namespace {

struct HttpClose {
    void operator()(http_t *http) const { httpClose(http); }
};
using Connection = std::unique_ptr<http_t, HttpClose>;

Connection connectToServer()
{
    return Connection(httpConnect2(cupsServer(), ippPort(), nullptr, AF_UNSPEC, cupsEncryption(), 1, 5000, nullptr));
}

QString tr(const char *text)
{
    return QCoreApplication::translate("CupsPrinting", text);
}

QString lastError()
{
    return QString::fromUtf8(cupsLastErrorString());
}

} // namespace

bool CupsPrinting::serverReachable()
{
    return connectToServer() != nullptr;
}

bool CupsPrinting::serverIsLocal()
{
    const QString server = QString::fromUtf8(cupsServer());
    return server.startsWith(u'/') || server == QLatin1String("localhost") || server.startsWith(QLatin1String("127.")) ||
           server == QLatin1String("::1") || server == QLatin1String("[::1]");
}

QStringList CupsPrinting::printers()
{
    QStringList names;
    Connection http = connectToServer();
    if (!http)
        return names;
    cups_dest_t *dests = nullptr;
    const int count = cupsGetDests2(http.get(), &dests);
    for (int i = 0; i < count; ++i)
        if (!dests[i].instance)
            names << QString::fromUtf8(dests[i].name);
    cupsFreeDests(count, dests);
    return names;
}

CupsJobResult CupsPrinting::send(const QString &printer, const QString &path, const CupsJobOptions &options,
                                 const std::function<bool(qint64 done, qint64 total)> &step)
{
    CupsJobResult result;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        result.message = tr("The print file could not be read.");
        return result;
    }
    Connection http = connectToServer();
    if (!http) {
        result.message = tr("The print service cannot be reached.");
        return result;
    }
    const QByteArray name = printer.toUtf8();
    cups_dest_t *dest = cupsGetNamedDest(http.get(), name.constData(), nullptr);
    if (!dest) {
        result.message = tr("The printer “%1” is no longer available.").arg(printer);
        return result;
    }
    cupsFreeDests(1, dest);

    cups_option_t *list = nullptr;
    int count = 0;
    count = cupsAddIntegerOption("copies", std::max(1, options.copies), count, &list);
    count = cupsAddOption("collate", options.collate ? "true" : "false", count, &list);
    count = cupsAddOption("sides", options.sides.toUtf8().constData(), count, &list);
    if (!options.media.isEmpty())
        count = cupsAddOption("media", options.media.toUtf8().constData(), count, &list);
    const QByteArray title = options.title.toUtf8();
    result.jobId = cupsCreateJob(http.get(), name.constData(), title.constData(), count, list);
    cupsFreeOptions(count, list);
    if (result.jobId <= 0) {
        result.jobId = 0;
        result.message = tr("The printer “%1” did not take the job: %2").arg(printer, lastError());
        return result;
    }

    auto cancelJob = [&] {
        // The connection may be half-way through a request: cancel on a fresh one.
        http.reset();
        if (Connection other = connectToServer())
            cupsCancelJob2(other.get(), name.constData(), result.jobId, 0);
    };
    if (cupsStartDocument(http.get(), name.constData(), result.jobId, title.constData(), CUPS_FORMAT_PDF, 1) !=
        HTTP_STATUS_CONTINUE) {
        result.message = tr("The printer “%1” did not take the job: %2").arg(printer, lastError());
        cancelJob();
        return result;
    }
    const qint64 total = file.size();
    qint64 done = 0;
    QByteArray chunk(1 << 16, Qt::Uninitialized);
    while (!file.atEnd()) {
        if (step && !step(done, total)) {
            cancelJob();
            result.outcome = CupsJobResult::Outcome::Cancelled;
            return result;
        }
        const qint64 read = file.read(chunk.data(), chunk.size());
        if (read < 0 || cupsWriteRequestData(http.get(), chunk.constData(), size_t(read)) != HTTP_STATUS_CONTINUE) {
            result.message = tr("The job could not be sent to “%1”: %2").arg(printer, lastError());
            cancelJob();
            return result;
        }
        done += read;
    }
    if (cupsFinishDocument(http.get(), name.constData()) > IPP_STATUS_OK_CONFLICTING) {
        result.message = tr("The printer “%1” did not take the job: %2").arg(printer, lastError());
        cancelJob();
        return result;
    }
    if (step)
        step(total, total);
    result.outcome = CupsJobResult::Outcome::Sent;
    return result;
}
