#include "RecentDocuments.h"

#include <QDateTime>
#include <QDir>
#include <QDomDocument>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QUrl>

#include <algorithm>

namespace {

const QString applicationName = QStringLiteral("Vellora");
const QString bookmarkNamespace = QStringLiteral("http://www.freedesktop.org/standards/desktop-bookmarks");
const QString mimeNamespace = QStringLiteral("http://www.freedesktop.org/standards/shared-mime-info");

QString defaultStorePath()
{
    QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (base.isEmpty() || !QDir::isAbsolutePath(base))
        base = QDir::homePath() + QStringLiteral("/.local/share");
    return base + QStringLiteral("/recently-used.xbel");
}

// Time stamps as the other writers of the store make them.
QString timeStamp(const QDateTime &time)
{
    return time.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzz000Z"));
}

QDomDocument load(const QString &path, bool *readable = nullptr)
{
    QDomDocument doc;
    QFile file(path);
    const bool ok =
        file.open(QIODevice::ReadOnly) && doc.setContent(&file, true) && doc.documentElement().tagName() == QLatin1String("xbel");
    if (readable)
        *readable = ok;
    return ok ? doc : QDomDocument();
}

QDomDocument emptyStore()
{
    QDomDocument doc;
    doc.appendChild(doc.createProcessingInstruction(QStringLiteral("xml"), QStringLiteral("version=\"1.0\" encoding=\"UTF-8\"")));
    QDomElement root = doc.createElement(QStringLiteral("xbel"));
    root.setAttribute(QStringLiteral("version"), QStringLiteral("1.0"));
    root.setAttribute(QStringLiteral("xmlns:bookmark"), bookmarkNamespace);
    root.setAttribute(QStringLiteral("xmlns:mime"), mimeNamespace);
    doc.appendChild(root);
    return doc;
}

bool save(const QString &path, const QDomDocument &doc)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    const QByteArray data = doc.toByteArray(2);
    return file.write(data) == data.size() && file.commit();
}

QList<QDomElement> children(const QDomElement &parent, const QString &ns, const QString &localName)
{
    QList<QDomElement> out;
    for (QDomElement e = parent.firstChildElement(); !e.isNull(); e = e.nextSiblingElement())
        // Elements made here without a namespace have no local name, only a tag name.
        if ((e.localName().isEmpty() ? e.tagName() : e.localName()) == localName && (ns.isEmpty() || e.namespaceURI() == ns))
            out << e;
    return out;
}

QDomElement applicationsOf(const QDomElement &bookmark)
{
    for (const QDomElement &info : children(bookmark, {}, QStringLiteral("info")))
        for (const QDomElement &metadata : children(info, {}, QStringLiteral("metadata")))
            for (const QDomElement &apps : children(metadata, bookmarkNamespace, QStringLiteral("applications")))
                return apps;
    return {};
}

QDomElement ourApplication(const QDomElement &bookmark)
{
    for (const QDomElement &app : children(applicationsOf(bookmark), bookmarkNamespace, QStringLiteral("application")))
        if (app.attribute(QStringLiteral("name")) == applicationName)
            return app;
    return {};
}

bool isPdf(const QDomElement &bookmark, const QString &localPath)
{
    for (const QDomElement &info : children(bookmark, {}, QStringLiteral("info")))
        for (const QDomElement &metadata : children(info, {}, QStringLiteral("metadata")))
            for (const QDomElement &mime : children(metadata, mimeNamespace, QStringLiteral("mime-type")))
                if (mime.attribute(QStringLiteral("type")) == QLatin1String("application/pdf"))
                    return true;
    return localPath.endsWith(QLatin1String(".pdf"), Qt::CaseInsensitive);
}

// Builds the entry of a file first opened with this application.
QDomElement newBookmark(QDomDocument &doc, const QString &href, const QString &now)
{
    QDomElement bookmark = doc.createElement(QStringLiteral("bookmark"));
    bookmark.setAttribute(QStringLiteral("href"), href);
    bookmark.setAttribute(QStringLiteral("added"), now);
    QDomElement info = doc.createElement(QStringLiteral("info"));
    QDomElement metadata = doc.createElement(QStringLiteral("metadata"));
    metadata.setAttribute(QStringLiteral("owner"), QStringLiteral("http://freedesktop.org"));
    QDomElement mime = doc.createElementNS(mimeNamespace, QStringLiteral("mime:mime-type"));
    mime.setAttribute(QStringLiteral("type"), QStringLiteral("application/pdf"));
    metadata.appendChild(mime);
    metadata.appendChild(doc.createElementNS(bookmarkNamespace, QStringLiteral("bookmark:applications")));
    info.appendChild(metadata);
    bookmark.appendChild(info);
    return bookmark;
}

} // namespace

RecentDocuments::RecentDocuments() : storePath_(defaultStorePath()) {}

RecentDocuments::RecentDocuments(const QString &storePath) : storePath_(storePath) {}

QStringList RecentDocuments::list() const
{
    const QDomDocument doc = load(storePath_);
    std::vector<std::pair<QString, QString>> entries; // (time, path)
    // Entries are kept in the order they were last used, so on equal time
    // stamps the later one is the more recent.
    QList<QDomElement> bookmarks = children(doc.documentElement(), {}, QStringLiteral("bookmark"));
    std::reverse(bookmarks.begin(), bookmarks.end());
    for (const QDomElement &bookmark : bookmarks) {
        const QUrl url(bookmark.attribute(QStringLiteral("href")));
        const QDomElement app = ourApplication(bookmark);
        if (!url.isLocalFile() || app.isNull() || !isPdf(bookmark, url.toLocalFile()))
            continue;
        const QString when = app.attribute(QStringLiteral("modified"), bookmark.attribute(QStringLiteral("visited")));
        entries.emplace_back(when, url.toLocalFile());
    }
    std::stable_sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    QStringList paths;
    for (const auto &[when, path] : entries)
        if (paths.size() < maximumCount && !paths.contains(path))
            paths << path;
    return paths;
}

bool RecentDocuments::add(const QString &filePath)
{
    // The store belongs to every program on the desktop: one that is there but
    // cannot be read is left as it is (the file is just not noted), never
    // replaced by one holding only this entry. A missing or empty one starts afresh.
    bool readable = false;
    QDomDocument doc = load(storePath_, &readable);
    if (!readable) {
        if (QFileInfo(storePath_).size() > 0)
            return false;
        doc = emptyStore();
    }
    const QString href = QUrl::fromLocalFile(QFileInfo(filePath).absoluteFilePath()).toString(QUrl::FullyEncoded);
    const QString now = timeStamp(QDateTime::currentDateTimeUtc());

    QDomElement bookmark;
    for (const QDomElement &b : children(doc.documentElement(), {}, QStringLiteral("bookmark")))
        if (QUrl(b.attribute(QStringLiteral("href"))) == QUrl(href))
            bookmark = b;
    if (bookmark.isNull())
        bookmark = newBookmark(doc, href, now);
    doc.documentElement().appendChild(bookmark); // new, or moved to the end
    bookmark.setAttribute(QStringLiteral("modified"), now);
    bookmark.setAttribute(QStringLiteral("visited"), now);

    QDomElement apps = applicationsOf(bookmark);
    if (apps.isNull()) {
        QDomElement replacement = newBookmark(doc, href, bookmark.attribute(QStringLiteral("added"), now));
        for (const QDomNode &attribute :
             {bookmark.attributeNode(QStringLiteral("modified")), bookmark.attributeNode(QStringLiteral("visited"))})
            replacement.setAttribute(attribute.nodeName(), attribute.nodeValue());
        doc.documentElement().replaceChild(replacement, bookmark);
        bookmark = replacement;
        apps = applicationsOf(bookmark);
    }
    QDomElement app = ourApplication(bookmark);
    if (app.isNull()) {
        app = doc.createElementNS(bookmarkNamespace, QStringLiteral("bookmark:application"));
        app.setAttribute(QStringLiteral("name"), applicationName);
        app.setAttribute(QStringLiteral("exec"), QStringLiteral("'vellora %u'"));
        app.setAttribute(QStringLiteral("count"), 0);
        apps.appendChild(app);
    }
    app.setAttribute(QStringLiteral("modified"), now);
    app.setAttribute(QStringLiteral("count"), app.attribute(QStringLiteral("count")).toInt() + 1);
    return save(storePath_, doc);
}

bool RecentDocuments::clear()
{
    bool readable = false;
    QDomDocument doc = load(storePath_, &readable);
    if (!readable)
        return !QFile::exists(storePath_);
    bool changed = false;
    for (QDomElement bookmark : children(doc.documentElement(), {}, QStringLiteral("bookmark"))) {
        QDomElement app = ourApplication(bookmark);
        if (app.isNull())
            continue;
        QDomElement apps = applicationsOf(bookmark);
        apps.removeChild(app);
        if (children(apps, bookmarkNamespace, QStringLiteral("application")).isEmpty())
            doc.documentElement().removeChild(bookmark);
        changed = true;
    }
    return !changed || save(storePath_, doc);
}
