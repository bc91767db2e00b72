#pragma once

#include "ConflictAsker.h"
#include "FolderChooser.h"
#include "KXFileManagerDelegate.h"

#include <QDateTime>
#include <QPointer>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

// Asks the user for a download's destination folder and reads the size and dates of
// local files for the transfer code. One shared instance for the process.
class KXFileManager
{
public:
    KXFileManager() = default;
    // The process-wide instance the companion uses; tests make their own.
    static KXFileManager *shared();

    // The delegate must be a QObject as well, so that a destroyed delegate is never called.
    void setDelegate(KXFileManagerDelegate *delegate);
    KXFileManagerDelegate *delegate() const;

    void setFolderChooser(std::unique_ptr<FolderChooser> chooser);
    void setConflictAsker(std::unique_ptr<ConflictAsker> asker);

    // The chooser opens in the folder chosen last in this run, else the user's downloads.
    void chooseDestinationFolder(const PasteContents &contents);
    // Asks once what to do with a paste's names that are taken; with nobody to ask, both
    // are kept, which loses nothing.
    ConflictChoice askAboutConflicts(const ConflictSummary &summary);
    std::uint64_t fileSizeAtPath(const QString &path) const;
    QDateTime creationDateAtPath(const QString &path) const;
    QDateTime modificationDateAtPath(const QString &path) const;
    // The bytes a new file beneath this folder can take; nothing when it cannot be told.
    std::optional<std::uint64_t> freeSpaceAtPath(const QString &path) const;
    // Stands in for the file system's answer (tests fill a disk this way).
    std::function<std::optional<std::uint64_t>(const QString &)> freeSpaceQuery;

    // The text form of a date in the log lines: "2020-01-01 00:00:00 +0000".
    static QString dateText(const QDateTime &date);

private:
    QString startFolder() const;

    KXFileManagerDelegate *m_delegate = nullptr;
    QPointer<QObject> m_delegateGuard;
    std::unique_ptr<FolderChooser> m_chooser;
    std::unique_ptr<ConflictAsker> m_conflictAsker;
    QString m_lastFolder;
};
