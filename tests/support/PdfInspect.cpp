#include "PdfInspect.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>

namespace inspect {

PdfObjects::PdfObjects(const QString &path, const QString &password)
{
    QProcess qpdf;
    QStringList args{"--json=2", "--json-key=qpdf"};
    if (!password.isEmpty())
        args << "--password=" + password;
    qpdf.start("qpdf", args << path);
    if (!qpdf.waitForFinished(60000))
        return;
    const QJsonArray top = QJsonDocument::fromJson(qpdf.readAllStandardOutput()).object().value("qpdf").toArray();
    objects_ = top.at(1).toObject();
}

QJsonObject PdfObjects::dict(const QString &ref) const
{
    const QJsonObject entry = objects_.value("obj:" + ref).toObject();
    if (entry.contains("stream"))
        return entry.value("stream").toObject().value("dict").toObject();
    return entry.value("value").toObject();
}

void PdfObjects::collectPages(const QString &ref, QStringList &out, int depth) const
{
    const QJsonObject node = dict(ref);
    if (node.value("/Type").toString() == "/Page" || depth > 32) {
        out << ref;
        return;
    }
    for (const QJsonValue &kid : node.value("/Kids").toArray())
        collectPages(kid.toString(), out, depth + 1);
}

QStringList PdfObjects::pages() const
{
    const QString root = objects_.value("trailer").toObject().value("value").toObject().value("/Root").toString();
    QStringList out;
    collectPages(dict(root).value("/Pages").toString(), out, 0);
    return out;
}

QStringList PdfObjects::annots(const QString &pageRef) const
{
    QJsonValue annots = dict(pageRef).value("/Annots");
    if (annots.isString()) // an indirect array
        annots = objects_.value("obj:" + annots.toString()).toObject().value("value");
    QStringList out;
    for (const QJsonValue &ref : annots.toArray())
        out << ref.toString();
    return out;
}

QString qpdfProblems(const QString &path, const QString &password)
{
    QProcess qpdf;
    QStringList args{"--check"};
    if (!password.isEmpty())
        args << "--password=" + password;
    qpdf.start("qpdf", args << path);
    if (!qpdf.waitForFinished(60000))
        return "qpdf did not finish";
    if (qpdf.exitStatus() == QProcess::NormalExit && qpdf.exitCode() == 0)
        return {};
    return QString::fromLocal8Bit(qpdf.readAllStandardOutput() + qpdf.readAllStandardError());
}

} // namespace inspect
