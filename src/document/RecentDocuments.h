// The desktop's shared list of recently used files (the freedesktop
// "recently-used.xbel" store that file dialogs and desktops read). This
// application reads and adds its own PDF entries and can clear them, leaving
// other applications' entries as they are.
#pragma once

#include <QString>
#include <QStringList>

class RecentDocuments {
public:
    static constexpr int maximumCount = 10;

    // The store under $XDG_DATA_HOME (by default ~/.local/share).
    RecentDocuments();
    explicit RecentDocuments(const QString &storePath);

    // This application's PDF files, most recent first; empty when the store is
    // missing or unreadable.
    QStringList list() const;
    // Notes that a file was opened now. False when the store could not be
    // written, or is there but cannot be read (it is then left untouched).
    bool add(const QString &filePath);
    // Removes this application from every entry, and entries it alone used.
    bool clear();

    QString storePath() const { return storePath_; }

private:
    QString storePath_;
};
