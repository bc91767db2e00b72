#include "KXFileManager.h"

#include "StorageLog.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <sys/statvfs.h>

Q_LOGGING_CATEGORY(lcFileManager, "kx.storage")

KXFileManager *KXFileManager::shared()
{
    static KXFileManager *instance = new KXFileManager;
    return instance;
}

void KXFileManager::setDelegate(KXFileManagerDelegate *delegate)
{
    m_delegate = delegate;
    m_delegateGuard = dynamic_cast<QObject *>(delegate);
}

KXFileManagerDelegate *KXFileManager::delegate() const
{
    return m_delegateGuard ? m_delegate : nullptr;
}

void KXFileManager::setFolderChooser(std::unique_ptr<FolderChooser> chooser)
{
    m_chooser = std::move(chooser);
}

QString KXFileManager::startFolder() const
{
    if (!m_lastFolder.isEmpty())
        return m_lastFolder;
    const QString downloads = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    return QFileInfo(downloads).isDir() ? downloads : QDir::homePath();
}

void KXFileManager::chooseDestinationFolder(const PasteContents &contents)
{
    const FolderChoice choice = m_chooser ? m_chooser->runModal(FolderRequest{contents, startFolder()}) : FolderChoice{};
    if (!choice.confirmed) {
        qCInfo(lcFileManager).noquote() << "用户取消选择文件";
        if (auto *d = delegate())
            d->folderChoiceCancelled();
        return;
    }
    if (!choice.url) {
        if (auto *d = delegate())
            d->folderChoiceCancelled();
        return;
    }
    const QString path = choice.url->toLocalFile();
    qCInfo(lcFileManager).noquote().nospace() << "选择的文件路径：" << path;
    if (!path.isEmpty())
        m_lastFolder = path;
    auto *d = delegate();
    if (!d)
        return;
    if (path.isEmpty())
        d->folderChoiceCancelled();
    else
        d->folderChosen(*choice.url);
}

void KXFileManager::setConflictAsker(std::unique_ptr<ConflictAsker> asker)
{
    m_conflictAsker = std::move(asker);
}

ConflictChoice KXFileManager::askAboutConflicts(const ConflictSummary &summary)
{
    qCInfo(lcFileManager).noquote().nospace() << summary.count << " of the pasted names are taken in " << summary.folder
                                              << ": " << summary.firstNames.join(QStringLiteral(", "));
    const ConflictChoice choice = m_conflictAsker ? m_conflictAsker->ask(summary) : ConflictChoice::keepBoth;
    static const char *const names[] = {"keep both", "replace", "skip", "cancel"};
    qCInfo(lcFileManager).noquote().nospace() << "the user chose: " << names[int(choice)];
    return choice;
}

std::uint64_t KXFileManager::fileSizeAtPath(const QString &path) const
{
    if (path.isEmpty())
        return 0;
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcFileManager).noquote().nospace() << "Cannot read the attributes of " << path;
        return 0;
    }
    const std::uint64_t size = std::uint64_t(info.size());
    qCInfo(lcFileManager).noquote().nospace() << "File size: " << size << " bytes";
    return size;
}

std::optional<std::uint64_t> KXFileManager::freeSpaceAtPath(const QString &path) const
{
    if (freeSpaceQuery)
        return freeSpaceQuery(path);
    struct statvfs space {};
    if (::statvfs(QFile::encodeName(path).constData(), &space) != 0)
        return std::nullopt;
    return std::uint64_t(space.f_bavail) * space.f_frsize;
}

QString KXFileManager::dateText(const QDateTime &date)
{
    return date.toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss +0000"));
}

QDateTime KXFileManager::creationDateAtPath(const QString &path) const
{
    if (path.isEmpty())
        return QDateTime::currentDateTimeUtc();
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcFileManager).noquote().nospace() << "Cannot read the attributes of " << path;
        return QDateTime::currentDateTimeUtc();
    }
    // File systems without a birth time (tmpfs, some network mounts) get the
    // modification time: the nearest true date, where "now" would be a made-up one.
    QDateTime date = info.birthTime();
    if (!date.isValid())
        date = info.lastModified();
    qCInfo(lcFileManager).noquote().nospace() << "Creation date: " << dateText(date);
    return date;
}

QDateTime KXFileManager::modificationDateAtPath(const QString &path) const
{
    if (path.isEmpty())
        return QDateTime::currentDateTimeUtc();
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcFileManager).noquote().nospace() << "Cannot read the attributes of " << path;
        return QDateTime::currentDateTimeUtc();
    }
    const QDateTime date = info.lastModified();
    qCInfo(lcFileManager).noquote().nospace() << "modificationDate date: " << dateText(date);
    return date;
}
