#include "PdfInspect.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>

#include <cstdlib>

namespace inspect {
namespace {

// Deeper nesting than this is taken as a loop in a damaged file.
constexpr int maxDepth = 32;

// The entries an outline node shows when it is opened: its children and,
// below each open child, what that child shows.
int visibleBelow(const PdfObjects &pdf, const QString &node, int depth)
{
    int visible = 0;
    QString item = pdf.dict(node).value("/First").toString();
    for (int n = 0; !item.isEmpty() && n < 10000 && depth < maxDepth; ++n) {
        const QJsonObject entry = pdf.dict(item);
        visible += 1 + (entry.value("/Count").toInt() > 0 ? visibleBelow(pdf, item, depth + 1) : 0);
        item = entry.value("/Next").toString();
    }
    return visible;
}

} // namespace

PdfObjects::PdfObjects(const QString &path, const QString &password) : path_(path), password_(password)
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
    if (isValid())
        collectPages(root().value("/Pages").toString(), pages_, 0);
}

QJsonValue PdfObjects::resolved(const QJsonValue &value) const
{
    static const QRegularExpression reference("^\\d+ \\d+ R$");
    if (!value.isString() || !reference.match(value.toString()).hasMatch())
        return value;
    const QJsonObject entry = objects_.value("obj:" + value.toString()).toObject();
    if (entry.contains("stream"))
        return entry.value("stream").toObject().value("dict");
    return entry.value("value");
}

QJsonObject PdfObjects::dict(const QString &ref) const
{
    return resolved(ref).toObject();
}

QJsonObject PdfObjects::root() const
{
    return dict(objects_.value("trailer").toObject().value("value").toObject().value("/Root").toString());
}

void PdfObjects::collectPages(const QString &ref, QStringList &out, int depth) const
{
    const QJsonObject node = dict(ref);
    if (node.value("/Type").toString() == "/Page" || depth > maxDepth) {
        out << ref;
        return;
    }
    for (const QJsonValue &kid : resolved(node.value("/Kids")).toArray())
        collectPages(kid.toString(), out, depth + 1);
}

QStringList PdfObjects::annots(const QString &pageRef) const
{
    QStringList out;
    for (const QJsonValue &ref : resolved(dict(pageRef).value("/Annots")).toArray())
        out << ref.toString();
    return out;
}

QStringList PdfObjects::refsOfType(const QString &type) const
{
    QStringList out;
    for (auto it = objects_.begin(); it != objects_.end(); ++it)
        if (it.key().startsWith("obj:") && dict(it.key().mid(4)).value("/Type").toString() == type)
            out << it.key().mid(4);
    return out;
}

QByteArray PdfObjects::streamData(const QString &ref) const
{
    const QStringList parts = ref.split(' ');
    QProcess qpdf;
    QStringList args{"--show-object=" + parts.value(0) + ',' + parts.value(1), "--filtered-stream-data"};
    if (!password_.isEmpty())
        args << "--password=" + password_;
    qpdf.start("qpdf", args << path_);
    return qpdf.waitForFinished(60000) ? qpdf.readAllStandardOutput() : QByteArray();
}

int PdfObjects::destinationPage(const QJsonValue &destination) const
{
    QJsonValue dest = resolved(destination);
    for (int hop = 0; hop < 4; ++hop) {
        if (dest.isArray())
            return pageIndex(dest.toArray().at(0).toString());
        if (dest.isObject()) {
            dest = resolved(dest.toObject().value("/D"));
            continue;
        }
        const QString name = dest.toString();
        if (name.startsWith('/')) {
            dest = resolved(resolved(root().value("/Dests")).toObject().value(name));
        } else if (name.startsWith("u:") || name.startsWith("b:")) {
            QJsonValue found(QJsonValue::Undefined);
            QJsonValue node = resolved(root().value("/Names")).toObject().value("/Dests");
            // A descent by /Limits; a leaf is searched whole.
            for (int depth = 0; depth < maxDepth && found.isUndefined(); ++depth) {
                const QJsonObject tree = resolved(node).toObject();
                const QJsonArray names = resolved(tree.value("/Names")).toArray();
                for (qsizetype i = 0; i + 1 < names.size(); i += 2)
                    if (text(resolved(names.at(i))) == text(name))
                        found = names.at(i + 1);
                QJsonValue next(QJsonValue::Undefined);
                for (const QJsonValue &kid : resolved(tree.value("/Kids")).toArray()) {
                    const QJsonArray limits = resolved(resolved(kid).toObject().value("/Limits")).toArray();
                    if (limits.isEmpty() || (text(limits.at(0)) <= text(name) && text(name) <= text(limits.at(1))))
                        next = kid;
                }
                if (next.isUndefined())
                    break;
                node = next;
            }
            dest = found;
        } else {
            return -1;
        }
    }
    return -1;
}

std::map<QString, int> PdfObjects::namedDestinations() const
{
    std::map<QString, int> out;
    std::vector<std::pair<QJsonValue, int>> nodes{{resolved(root().value("/Names")).toObject().value("/Dests"), 0}};
    while (!nodes.empty()) {
        const auto [node, depth] = nodes.back();
        nodes.pop_back();
        const QJsonObject tree = resolved(node).toObject();
        const QJsonArray names = resolved(tree.value("/Names")).toArray();
        for (qsizetype i = 0; i + 1 < names.size(); i += 2)
            out[text(resolved(names.at(i)))] = destinationPage(names.at(i + 1));
        for (const QJsonValue &kid : resolved(tree.value("/Kids")).toArray())
            if (depth < maxDepth)
                nodes.emplace_back(kid, depth + 1);
    }
    return out;
}

namespace {

// Where a link annotation or an outline entry goes, by /Dest or GoTo action.
QJsonValue destinationOf(const PdfObjects &pdf, const QJsonObject &entry)
{
    if (entry.contains("/Dest"))
        return pdf.resolved(entry.value("/Dest"));
    const QJsonObject action = pdf.resolved(entry.value("/A")).toObject();
    return action.value("/S").toString() == "/GoTo" ? pdf.resolved(action.value("/D")) : QJsonValue();
}

} // namespace

std::vector<OutlineItem> PdfObjects::outline() const
{
    const QString outlines = root().value("/Outlines").toString();
    return outlineLevel(dict(outlines).value("/First").toString(), outlines, nullptr, 0);
}

QStringList PdfObjects::outlineProblems() const
{
    QStringList problems;
    const QString outlines = root().value("/Outlines").toString();
    outlineLevel(dict(outlines).value("/First").toString(), outlines, &problems, 0);
    return problems;
}

std::vector<OutlineItem> PdfObjects::outlineLevel(const QString &first, const QString &parent, QStringList *problems,
                                                  int depth) const
{
    std::vector<OutlineItem> items;
    if (problems) {
        const int count = std::abs(dict(parent).value("/Count").toInt());
        const int visible = visibleBelow(*this, parent, depth);
        if (!first.isEmpty() && count != visible)
            *problems << parent + QString(" has /Count %1 for %2 entries shown").arg(count).arg(visible);
        if (first.isEmpty() && count != 0)
            *problems << parent + " has a /Count without entries";
    }
    QString item = first, previous;
    for (int n = 0; !item.isEmpty() && n < 10000 && depth < maxDepth; ++n) {
        const QJsonObject entry = dict(item);
        if (problems && entry.value("/Parent").toString() != parent)
            *problems << item + " does not name its parent " + parent;
        if (problems && entry.value("/Prev").toString() != previous)
            *problems << item + " does not name its previous entry " + previous;
        items.push_back({text(resolved(entry.value("/Title"))), destinationPage(destinationOf(*this, entry)),
                         outlineLevel(entry.value("/First").toString(), item, problems, depth + 1)});
        previous = item;
        item = entry.value("/Next").toString();
    }
    if (problems && dict(parent).value("/Last").toString() != previous)
        *problems << parent + " does not name its last entry " + previous;
    return items;
}

std::vector<Link> PdfObjects::links(int page) const
{
    std::vector<Link> out;
    for (const QString &ref : annots(pages_.value(page))) {
        const QJsonObject annot = dict(ref);
        if (annot.value("/Subtype").toString() != "/Link")
            continue;
        const QJsonValue dest = destinationOf(*this, annot);
        out.push_back({ref, destinationPage(dest), dest.isString() ? text(dest) : QString()});
    }
    return out;
}

int PdfObjects::annotationPage(const QString &ref) const
{
    for (int i = 0; i < pages_.size(); ++i)
        if (annots(pages_.at(i)).contains(ref))
            return i;
    return -1;
}

void PdfObjects::collectFields(const QJsonValue &node, const QString &prefix, std::map<QString, Field> &out, int depth) const
{
    const QJsonObject field = resolved(node).toObject();
    const QString partial = text(resolved(field.value("/T")));
    const QString name = !field.contains("/T") ? prefix : prefix.isEmpty() ? partial : prefix + '.' + partial;
    // Kids with a name are fields of their own; the others are this field's widgets.
    QStringList widgets;
    if (field.value("/Subtype").toString() == "/Widget")
        widgets << node.toString();
    bool terminal = true;
    for (const QJsonValue &kid : resolved(field.value("/Kids")).toArray()) {
        if (resolved(kid).toObject().contains("/T")) {
            terminal = false;
            if (depth < maxDepth)
                collectFields(kid, name, out, depth + 1);
        } else {
            widgets << kid.toString();
        }
    }
    if (!terminal && widgets.isEmpty())
        return;
    Field &entry = out[name];
    entry.value = text(resolved(field.value("/V")));
    entry.widgets += widgets;
    for (const QString &widget : widgets)
        entry.pages << annotationPage(widget);
}

std::map<QString, Field> PdfObjects::fields() const
{
    std::map<QString, Field> out;
    for (const QJsonValue &field : resolved(acroForm().value("/Fields")).toArray())
        collectFields(field, {}, out, 0);
    return out;
}

QStringList PdfObjects::misplacedAnnotations() const
{
    QStringList out;
    for (const QString &page : pages_)
        for (const QString &annot : annots(page))
            if (dict(annot).value("/P").toString() != page)
                out << annot;
    return out;
}

QString text(const QJsonValue &value)
{
    const QString s = value.toString();
    if (s.startsWith("u:"))
        return s.mid(2);
    if (s.startsWith('/'))
        return s.mid(1);
    if (!s.startsWith("b:"))
        return s;
    const QByteArray bytes = QByteArray::fromHex(s.mid(2).toLatin1());
    if (!bytes.startsWith("\xfe\xff"))
        return QString::fromLatin1(bytes);
    QString out;
    for (qsizetype i = 2; i + 1 < bytes.size(); i += 2)
        out += QChar(ushort(uchar(bytes[i]) << 8 | uchar(bytes[i + 1])));
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
