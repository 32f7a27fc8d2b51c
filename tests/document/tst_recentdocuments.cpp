#include "RecentDocuments.h"

#include <QDomDocument>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// A store as another application leaves it: one PDF and one text file of its own.
const char *foreignStore = R"(<?xml version="1.0" encoding="UTF-8"?>
<xbel version="1.0" xmlns:bookmark="http://www.freedesktop.org/standards/desktop-bookmarks" xmlns:mime="http://www.freedesktop.org/standards/shared-mime-info">
  <bookmark href="file:///home/someone/shared.pdf" added="2026-01-01T10:00:00.000000Z" modified="2026-01-01T10:00:00.000000Z" visited="2026-01-01T10:00:00.000000Z">
    <info><metadata owner="http://freedesktop.org"><mime:mime-type type="application/pdf"/>
      <bookmark:applications><bookmark:application name="Other Viewer" exec="'other %u'" modified="2026-01-01T10:00:00.000000Z" count="3"/></bookmark:applications>
    </metadata></info>
  </bookmark>
  <bookmark href="file:///home/someone/notes.txt" added="2026-01-02T10:00:00.000000Z" modified="2026-01-02T10:00:00.000000Z" visited="2026-01-02T10:00:00.000000Z">
    <info><metadata owner="http://freedesktop.org"><mime:mime-type type="text/plain"/>
      <bookmark:applications><bookmark:application name="Text Editor" exec="'edit %u'" modified="2026-01-02T10:00:00.000000Z" count="1"/></bookmark:applications>
    </metadata></info>
  </bookmark>
</xbel>
)";

QStringList applicationsIn(const QString &store, const QString &href)
{
    QFile file(store);
    QDomDocument doc;
    if (!file.open(QIODevice::ReadOnly) || !doc.setContent(&file, true))
        return {"unreadable"};
    QStringList names;
    const QDomNodeList bookmarks = doc.elementsByTagName("bookmark");
    for (int i = 0; i < bookmarks.size(); ++i) {
        const QDomElement b = bookmarks.at(i).toElement();
        if (b.attribute("href") != href)
            continue;
        const QDomNodeList apps = b.elementsByTagNameNS("http://www.freedesktop.org/standards/desktop-bookmarks", "application");
        for (int j = 0; j < apps.size(); ++j)
            names << apps.at(j).toElement().attribute("name") + ":" + apps.at(j).toElement().attribute("count");
    }
    return names;
}

} // namespace

class TestRecentDocuments : public QObject {
    Q_OBJECT
private slots:
    void roundTripKeepsOtherApplicationsEntries();
    void missingOrDamagedStoreIsAnEmptyList();
};

void TestRecentDocuments::roundTripKeepsOtherApplicationsEntries()
{
    QTemporaryDir dir;
    const QString store = dir.filePath("share/recently-used.xbel");
    QVERIFY(QDir().mkpath(dir.filePath("share")));
    QFile file(store);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(foreignStore);
    file.close();

    RecentDocuments recent(store);
    QVERIFY(recent.list().isEmpty()); // only this application's files are listed
    QVERIFY(recent.add(dir.filePath("a.pdf")));
    QVERIFY(recent.add(dir.filePath("b.pdf")));
    QVERIFY(recent.add("/home/someone/shared.pdf"));
    QCOMPARE(recent.list(), QStringList({"/home/someone/shared.pdf", dir.filePath("b.pdf"), dir.filePath("a.pdf")}));
    QVERIFY(recent.add(dir.filePath("a.pdf")));
    QCOMPARE(recent.list().first(), dir.filePath("a.pdf"));
    QCOMPARE(recent.list().size(), 3);

    const QString shared = "file:///home/someone/shared.pdf";
    QCOMPARE(applicationsIn(store, shared), QStringList({"Other Viewer:3", "Vellora:1"}));
    QCOMPARE(applicationsIn(store, QUrl::fromLocalFile(dir.filePath("a.pdf")).toString()), QStringList({"Vellora:2"}));
    QCOMPARE(applicationsIn(store, "file:///home/someone/notes.txt"), QStringList({"Text Editor:1"}));
    QVERIFY(QFile(store).open(QIODevice::ReadOnly));
    const QByteArray written = [&] {
        QFile f(store);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();
    QVERIFY(written.contains("application/pdf"));
    QVERIFY(written.contains("exec=\"'vellora %u'\""));

    // Clearing removes this application only; the other entries stay whole.
    QVERIFY(recent.clear());
    QVERIFY(recent.list().isEmpty());
    QCOMPARE(applicationsIn(store, shared), QStringList({"Other Viewer:3"}));
    QCOMPARE(applicationsIn(store, "file:///home/someone/notes.txt"), QStringList({"Text Editor:1"}));
    QCOMPARE(applicationsIn(store, QUrl::fromLocalFile(dir.filePath("a.pdf")).toString()), QStringList());

    // The list is capped; the most recent stay.
    for (int i = 0; i < RecentDocuments::maximumCount + 3; ++i)
        QVERIFY(recent.add(dir.filePath(QString("f%1.pdf").arg(i))));
    QCOMPARE(recent.list().size(), RecentDocuments::maximumCount);
    QCOMPARE(recent.list().first(), dir.filePath(QString("f%1.pdf").arg(RecentDocuments::maximumCount + 2)));
}

void TestRecentDocuments::missingOrDamagedStoreIsAnEmptyList()
{
    QTemporaryDir dir;
    RecentDocuments missing(dir.filePath("nowhere/recently-used.xbel"));
    QVERIFY(missing.list().isEmpty());
    QVERIFY(missing.clear());
    QVERIFY(missing.add(dir.filePath("first.pdf"))); // makes the folder and the file
    QCOMPARE(missing.list(), QStringList{dir.filePath("first.pdf")});

    const QString damaged = dir.filePath("damaged.xbel");
    const QByteArray damagedBytes = "<xbel version=\"1.0\"><bookmark href=\"file:///x.pdf\"><info>";
    QFile file(damaged);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(damagedBytes);
    file.close();
    // Other programs' entries are never lost: the store stays as it is and the file is not noted.
    RecentDocuments recent(damaged);
    QVERIFY(recent.list().isEmpty());
    QVERIFY(!recent.add(dir.filePath("next.pdf")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), damagedBytes);
    QVERIFY(recent.list().isEmpty());

    // The default store follows XDG_DATA_HOME.
    QCOMPARE(RecentDocuments().storePath(), qEnvironmentVariable("XDG_DATA_HOME") + "/recently-used.xbel");
}

int runRecentDocumentsTests(int argc, char **argv)
{
    TestRecentDocuments test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_recentdocuments.moc"
