#include "CopyOffer.h"

#include "EngineLog.h"
#include "FileTime.h"
#include "KXFileManager.h"
#include "Messages.h"
#include "RemotePath.h"
#include "Wire.h"

#include <QDir>
#include <QFileInfo>

#include <utility>

#include <sys/stat.h>

namespace {

QString joinPath(const QString &folder, const QString &name)
{
    return folder.endsWith(QLatin1Char('/')) ? folder + name : folder + QLatin1Char('/') + name;
}

// Only regular files and folders are offered: a FIFO, a socket or a device has no
// contents to serve, and opening one could wait for ever.
bool isSpecial(const QFileInfo &info, const QString &path)
{
    if (!info.exists() || info.isDir() || info.isFile())
        return false;
    qCInfo(lcEngine).noquote().nospace() << "Skipping " << path << ": not a regular file or folder";
    return true;
}

} // namespace

bool CopyOffer::describe()
{
    if (!std::exchange(m_walkDue, false))
        return false;
    m_uploadCopyQueue.clear();
    m_uploadCopyUrlList.clear();
    m_uploadQueueNum = 0;
    // One walk both counts and describes: an entry that vanished while the folder was
    // listed is counted but not described, so cItems may exceed the descriptors.
    for (const QUrl &url : std::as_const(m_fileList)) {
        m_rootDirectory = url;
        // What the user copied is what they meant, a link included: it is resolved here,
        // once, and everything below it is read from where it pointed then.
        const QFileInfo copied(url.toLocalFile());
        const bool link = copied.isSymLink();
        m_rootPath = link ? copied.canonicalFilePath() : url.toLocalFile();
        const QFileInfo item(m_rootPath);
        if (m_rootPath.isEmpty() || !item.exists() || isSpecial(item, m_rootPath) || isInMount(m_rootPath))
            continue;
        ++m_uploadQueueNum;
        const QUrl local = link ? QUrl::fromLocalFile(m_rootPath) : url;
        if (item.isDir()) {
            appendRootFolderDescriptor(local);
            appendDirectoryDescriptors(m_rootPath);
        } else {
            appendRootFileDescriptor(local);
        }
    }
    // Every descriptor of one offer carries the offer's total count.
    for (FileSDK::FileDescriptorw &descriptor : m_uploadCopyQueue)
        descriptor.set_citems(std::uint32_t(m_uploadQueueNum));
    return true;
}

std::optional<QStringList> CopyOffer::listFolder(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcEngine).noquote().nospace() << "Directory not found: " << path;
        return std::nullopt;
    }
    if (!info.isDir()) {
        qCInfo(lcEngine).noquote().nospace() << "Path is not a directory: " << path;
        return std::nullopt;
    }
    QDir folder(path);
    if (!folder.isReadable()) {
        qCInfo(lcEngine).noquote().nospace() << "Error listing contents of directory: " << "cannot read " << path;
        return std::nullopt;
    }
    return folder.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
}

bool CopyOffer::isInMount(const QString &path) const
{
    struct stat st {};
    if (!m_mountDevice || ::stat(QFile::encodeName(path).constData(), &st) != 0 || std::uint64_t(st.st_dev) != m_mountDevice)
        return false;
    qCInfo(lcEngine).noquote().nospace() << "Skipping " << path << ": one of the remote files themselves";
    return true;
}

QString CopyOffer::relativePath(const QString &from, const QString &to)
{
    const QStringList fromParts = from.split(QLatin1Char('/'));
    const QStringList toParts = to.split(QLatin1Char('/'));
    qsizetype common = 0;
    while (common < fromParts.size() && common < toParts.size() && fromParts.at(common) == toParts.at(common))
        ++common;
    QStringList result;
    for (qsizetype i = common; i < fromParts.size(); ++i)
        result.append(QStringLiteral(".."));
    result.append(toParts.mid(common));
    return result.join(QStringLiteral("//"));
}

QString CopyOffer::remoteName(const QString &itemPath) const
{
    const QString copied = kx::withoutTrailingSlashes(m_rootDirectory ? m_rootDirectory->toLocalFile() : QString());
    const QString relative = relativePath(kx::withoutTrailingSlashes(m_rootPath), kx::withoutTrailingSlashes(itemPath));
    qCInfo(lcEngine).noquote().nospace() << "Directoryrela:" << relative;
    QString name = QFileInfo(copied).fileName() + QStringLiteral("//") + relative;
    while (name.endsWith(QLatin1String("//")))
        name.chop(1);
    return name;
}

FileSDK::FileDescriptorw CopyOffer::makeDescriptor(const QString &path, bool folder, bool topLevel)
{
    const std::uint64_t size = folder ? 0 : m_files.fileSizeAtPath(path);
    const QDateTime createdDate = m_files.creationDateAtPath(path);
    const QDateTime modifiedDate = m_files.modificationDateAtPath(path);
    const std::uint64_t created = kx::fileTime(createdDate);
    const std::uint64_t modified = kx::fileTime(modifiedDate);

    FileSDK::FileDescriptorw descriptor;
    descriptor.set_dwflags(kx::wire::descriptorFlags);
    descriptor.set_clsid(kx::wire::zeroClsid);
    descriptor.set_dwfileattributes(folder ? kx::wire::folderAttributes : kx::wire::normalAttributes);
    descriptor.set_ftcreationtimelow(kx::lowHalf(created));
    descriptor.set_ftcreationtimehigh(kx::highHalf(created));
    descriptor.set_ftlastaccesstimelow(kx::lowHalf(modified));
    descriptor.set_ftlastaccesstimehigh(kx::highHalf(modified));
    descriptor.set_ftlastwritetimelow(kx::lowHalf(modified));
    descriptor.set_ftlastwritetimehigh(kx::highHalf(modified));
    if (folder) {
        descriptor.set_nfilesizehigh(kx::wire::folderSizeHigh);
        descriptor.set_nfilesizelow(topLevel ? kx::wire::topFolderSizeLow : 0);
    } else {
        descriptor.set_nfilesizehigh(kx::highHalf(size));
        descriptor.set_nfilesizelow(kx::lowHalf(size));
        qCInfo(lcEngine).noquote().nospace() << "fileSize:" << size;
        qCInfo(lcEngine).noquote().nospace() << "fileName:" << QFileInfo(path).fileName();
        qCInfo(lcEngine).noquote().nospace() << "fileCreateTime:" << KXFileManager::dateText(createdDate);
        qCInfo(lcEngine).noquote().nospace() << "fileCreateTime:" << KXFileManager::dateText(modifiedDate);
        qCInfo(lcEngine).noquote().nospace() << "lowSize:" << descriptor.nfilesizelow();
        qCInfo(lcEngine).noquote().nospace() << "highSize:" << descriptor.nfilesizehigh();
    }
    qCInfo(lcEngine).noquote().nospace() << "createTimeLow:" << descriptor.ftcreationtimelow();
    qCInfo(lcEngine).noquote().nospace() << "createTimeHigh:" << descriptor.ftcreationtimehigh();
    if (folder)
        qCInfo(lcEngine).noquote().nospace() << "self.rootDirectory?.path:"
                                             << (m_rootDirectory ? m_rootDirectory->toLocalFile() : QString());
    const QString name = remoteName(path);
    qCInfo(lcEngine).noquote().nospace() << "finalName:" << name;
    descriptor.set_cfilename(name.toStdString());
    return descriptor;
}

void CopyOffer::appendRootFileDescriptor(const QUrl &url)
{
    m_uploadCopyQueue.append(makeDescriptor(url.toLocalFile(), false));
    m_uploadCopyUrlList.append(url);
}

void CopyOffer::appendRootFolderDescriptor(const QUrl &url)
{
    m_uploadCopyQueue.append(makeDescriptor(url.toLocalFile(), true, true));
    m_uploadCopyUrlList.append(url);
}

void CopyOffer::appendDirectoryDescriptors(const QString &path)
{
    const auto names = listFolder(path);
    if (!names)
        return;
    for (const QString &name : *names) {
        const QString full = joinPath(path, name);
        const QFileInfo info(full);
        // A link inside a copied folder may lead anywhere, the user's keys included, or
        // back up the tree: only what the folder itself holds is offered.
        if (info.isSymLink()) {
            qCInfo(lcEngine).noquote().nospace() << "Skipping " << full << ": a symbolic link, not followed";
            continue;
        }
        if (isSpecial(info, full) || isInMount(full))
            continue;
        ++m_uploadQueueNum;
        if (!info.exists())
            continue;
        const bool folder = info.isDir();
        qCInfo(lcEngine).noquote().nospace() << (folder ? "Directory: " : "File: ") << full;
        m_uploadCopyQueue.append(makeDescriptor(full, folder));
        m_uploadCopyUrlList.append(QUrl::fromLocalFile(full));
        if (folder)
            appendDirectoryDescriptors(full);
    }
}
