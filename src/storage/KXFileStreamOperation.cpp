#include "KXFileStreamOperation.h"

#include <QCborArray>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include "StorageLog.h"
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUuid>

#include "PartialJournal.h"
#include "PasteTarget.h"
#include "RemotePath.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

Q_LOGGING_CATEGORY(lcStream, "kx.stream")

namespace {

// Renames unless the new name is taken. A system or file system without such a rename
// gets a hard link instead, which fails the same way on a taken name.
int renameNoReplace(int folder, const char *from, const char *to)
{
#if defined(__linux__) && defined(RENAME_NOREPLACE)
    if (::renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
#endif
    return ::linkat(folder, from, folder, to, 0) == 0 ? ::unlinkat(folder, from, 0) : -1;
}

// The remote side chooses how much it asks for; one answer never holds more than this,
// so a hostile request cannot make us allocate gigabytes. Shorter answers are legal.
constexpr std::uint64_t maxReadLength = 64ull * 1024 * 1024;

// A regular file on a local disk takes a write of up to 2 GiB whole, or stops short because
// it ran out of room or hit a size limit. A short write sets no error number: the write of
// the rest fails and tells which, so that a full disk is reported as one. What we write at
// once is one reply, at most a 64 MiB message.
bool writeAll(int fd, const char *data, std::uint64_t size, std::uint64_t offset)
{
    while (size > 0) {
        const ssize_t written = ::pwrite(fd, data, size, off_t(offset));
        if (written <= 0)
            return false;
        data += written, size -= std::uint64_t(written), offset += std::uint64_t(written);
    }
    return true;
}

// Into a QByteArray or a std::string: an answer to the remote side is read straight into
// the string its message keeps, rather than copied there.
template <typename Buffer>
bool readAt(int fd, std::uint64_t offset, std::uint64_t length, Buffer &data)
{
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    const std::uint64_t size = std::uint64_t(st.st_size);
    length = std::min({length, size - std::min(offset, size), maxReadLength});
    data.resize(decltype(data.size())(length));
    // A regular file gives all that was asked for in one read, short of its end only when
    // it shrank meanwhile; then what it still had is the answer.
    const ssize_t got = ::pread(fd, data.data(), length, off_t(offset));
    if (got < 0)
        return false;
    data.resize(decltype(data.size())(got));
    return true;
}

std::optional<QByteArray> readAt(int fd, std::uint64_t offset, std::uint64_t length)
{
    QByteArray data;
    if (!readAt(fd, offset, length, data))
        return std::nullopt;
    return data;
}

// Opening never waits: a FIFO or a device that took the place of an offered file would
// otherwise hold the event loop in open() until a writer came. Only regular files are read.
int openRegularForReading(const QString &path)
{
    UniqueFd fd(::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        qCInfo(lcStream).noquote().nospace() << "not a regular file, not read: " << path;
        return -1;
    }
    return fd.release();
}

constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// How far "name (k)" goes before a file is given up as not placeable.
constexpr int maxNumberedNames = 10000;

// The chosen folder itself may be a link: it was the user's choice, so it is followed.
UniqueFd openBase(const QString &base)
{
    return UniqueFd(::open(QFile::encodeName(base).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// A closed handle (-1) fails in lseek and reads as offset 0.
std::uint64_t offsetInFileOf(int fd)
{
    return std::uint64_t(std::max<off_t>(::lseek(fd, 0, SEEK_CUR), 0));
}

} // namespace

KXFileStreamOperation &KXFileStreamOperation::sharedOperation()
{
    static KXFileStreamOperation *instance = new KXFileStreamOperation;
    return *instance;
}

QString KXFileStreamOperation::fileKey()
{
    const QByteArray uuidText = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toLatin1();
    const QByteArray digest = QCryptographicHash::hash(uuidText, QCryptographicHash::Md5);
    return QString::fromLatin1(digest.toHex())
        + QStringLiteral("%1").arg(QRandomGenerator::global()->generate(), 8, 16, QLatin1Char('0'));
}

// Slashes at both ends, despite the name: the relative path is built with a leading one.
QString KXFileStreamOperation::removeTrailingSlash(const QString &string)
{
    static const QRegularExpression slashes(QStringLiteral("^/+|/+$"));
    return QString(string).remove(slashes);
}

QString KXFileStreamOperation::getFullPathWithWindowsPath(const QString &windowsPath, const QString &basePath)
{
    QString relative;
    for (const QString &component : windowsPath.split(QLatin1Char('\\')))
        relative += QLatin1Char('/') + component;
    return basePath + QLatin1Char('/') + removeTrailingSlash(relative);
}

QString KXFileStreamOperation::getMacPathFromWindowsPath(const QString &windowsPath, const QString &basePath)
{
    const QString base = basePath.isEmpty() ? downloadDirectory() : basePath;
    qCInfo(lcStream).noquote().nospace() << "cachesDirectory:" << base;
    return getFullPathWithWindowsPath(windowsPath, base);
}

UniqueFd KXFileStreamOperation::createFolder(const QString &windowsPath, const QString &basePath)
{
    const QStringList components = windowsPath.split(QLatin1Char('\\'));
    qCInfo(lcStream).noquote().nospace() << "windowsPath:" << windowsPath;
    qCInfo(lcStream).noquote().nospace() << "arr.clount:" << components.size();
    const QString base = kx::withoutTrailingSlashes(basePath);
    const QStringList parts = kx::remoteComponents(windowsPath);
    if (!kx::fitsFileSystem(base, parts) || parts.contains(QLatin1String(".."))) {
        qCInfo(lcStream).noquote().nospace() << "创建文件夹失败:" << "the name does not fit beneath the folder: " << windowsPath;
        return {};
    }
    UniqueFd folder = openBase(base);
    QString running;
    for (qsizetype i = 0; folder.valid() && i + 1 < parts.size(); ++i) {
        const QString &component = parts.at(i);
        qCInfo(lcStream).noquote().nospace() << "string:" << component;
        running += QLatin1Char('/') + component;
        qCInfo(lcStream).noquote().nospace() << "fullPath:" << running;
        const QString shown = base + running;
        const QByteArray name = QFile::encodeName(component);
        UniqueFd next(::openat(folder.get(), name.constData(), folderFlags));
        if (next.valid()) {
            qCInfo(lcStream).noquote().nospace() << "文件夹已经存在:" << shown;
        } else if (errno == ENOENT) {
            qCInfo(lcStream).noquote().nospace() << "文件夹不存在需要创建这个文件夹:" << shown;
            if (::mkdirat(folder.get(), name.constData(), 0755) != 0 && errno != EEXIST) {
                // The folder's own error is the reason: an open of what was not made would
                // only say that it is not there.
                const int error = errno;
                qCInfo(lcStream).noquote().nospace() << "创建文件夹失败:" << std::strerror(error) << ": " << shown;
                errno = error;
                return {};
            }
            next.reset(::openat(folder.get(), name.constData(), folderFlags));
        } else {
            // A link (to a folder or not) or a file: never walked through, never replaced.
            qCInfo(lcStream).noquote().nospace() << "创建文件夹失败:" << "not a folder of its own (a link or a file): " << shown;
        }
        folder = std::move(next);
    }
    return folder;
}

UniqueFd KXFileStreamOperation::openFolderBeneath(const QString &basePath, const QStringList &components)
{
    if (components.count(QStringLiteral(".")) == components.size())
        return {};
    UniqueFd folder = openBase(kx::withoutTrailingSlashes(basePath));
    for (const QString &component : components) {
        if (!folder.valid() || component == QLatin1String(".."))
            return {};
        folder.reset(::openat(folder.get(), QFile::encodeName(component).constData(), folderFlags));
    }
    return folder;
}

QString KXFileStreamOperation::cachesDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
}

QString KXFileStreamOperation::desktopDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::DesktopLocation);
}

QString KXFileStreamOperation::downloadDirectory()
{
    return QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
}

bool KXFileStreamOperation::getFileInfoAtPath(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcStream).noquote().nospace() << "文件不存在：" << path;
        return false;
    }
    filePath = path;
    fileSize = std::uint64_t(info.size());
    fileName = info.fileName();
    return true;
}

std::unique_ptr<KXFileStreamOperation> KXFileStreamOperation::initFileOperationAtPath(const QString &path, bool write,
                                                                                      const QString &basePath)
{
    auto operation = std::make_unique<KXFileStreamOperation>();
    if (!write) {
        if (!operation->getFileInfoAtPath(path))
            return nullptr;
        operation->m_readFd.reset(openRegularForReading(path));
        return operation->hasReadHandle() ? std::move(operation) : nullptr;
    }

    QString base = downloadDirectory();
    if (!basePath.isEmpty()) {
        operation->basePath = basePath;
        base = basePath;
    }
    qCInfo(lcStream).noquote().nospace() << "cachesDirectory:" << base;
    const QStringList parts = kx::remoteComponents(path);
    // Every folder of the path is opened beneath the base without following a link, so
    // a link already in the chosen folder can never carry a write outside it.
    UniqueFd folder = parts.isEmpty() ? UniqueFd() : createFolder(path, base);
    int error = errno; // what the caller is told: the log lines below may change errno
    const QString fullPath = getFullPathWithWindowsPath(path, base);
    qCInfo(lcStream).noquote().nospace() << "将要创建这个文件path：" << fullPath;
    if (!folder.valid()) {
        qCInfo(lcStream).noquote().nospace() << "文件不存在：" << fullPath;
        errno = error;
        return nullptr;
    }
    // Whatever has the name now stays as it is until the new file is complete.
    struct stat existing {};
    if (::fstatat(folder.get(), QFile::encodeName(parts.last()).constData(), &existing, AT_SYMLINK_NOFOLLOW) == 0)
        qCInfo(lcStream).noquote().nospace() << "fileMgr 创建path:" << fullPath;
    else
        qCInfo(lcStream).noquote().nospace() << "没有这个文件直接创建path:" << fullPath;
    const QString partial = kx::makePartialName();
    UniqueFd file(::openat(folder.get(), QFile::encodeName(partial).constData(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat made {};
    if (!file.valid() || ::fstat(file.get(), &made) != 0) {
        error = errno;
        qCInfo(lcStream).noquote().nospace() << "文件不存在：" << fullPath;
        errno = error;
        return nullptr;
    }
    // Journaled before its first byte: only a file the journal names is ever cleaned up.
    operation->m_device = std::uint64_t(made.st_dev), operation->m_inode = std::uint64_t(made.st_ino);
    PartialJournal::shared().add({::getpid(), operation->m_device, operation->m_inode, QFileInfo(fullPath).path(), partial});
    operation->filePath = fullPath;
    operation->fileName = parts.last();
    operation->fileSize = 0;
    qCInfo(lcStream).noquote().nospace() << "创建path成功：" << fullPath;
    operation->m_folderFd = std::move(folder);
    operation->m_partialName = partial;
    operation->m_writeFd = std::move(file);
    return operation;
}

std::unique_ptr<KXFileStreamOperation> KXFileStreamOperation::initFileOperationAtPath(const QString &path,
                                                                                      std::int64_t fileSegmentSize,
                                                                                      bool forReadOperation)
{
    auto operation = std::make_unique<KXFileStreamOperation>();
    operation->isReadOperation = forReadOperation;
    const QByteArray nativePath = QFile::encodeName(path);
    if (forReadOperation) {
        if (!operation->getFileInfoAtPath(path))
            return nullptr;
        operation->m_readFd.reset(openRegularForReading(path));
        if (!operation->hasReadHandle())
            return nullptr;
        operation->cutFileForFragments(fileSegmentSize);
        return operation;
    }
    // An existing file is kept as it is: this initializer resumes, it does not replace.
    operation->m_writeFd.reset(::open(nativePath.constData(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644));
    if (!operation->getFileInfoAtPath(path))
        return nullptr;
    return operation;
}

std::optional<QByteArray> KXFileStreamOperation::readDateOffSet(std::uint64_t offset, std::uint64_t length) const
{
    return readAt(m_readFd.get(), offset, length);
}

bool KXFileStreamOperation::readDateOffSet(std::uint64_t offset, std::uint64_t length, std::string &data) const
{
    return readAt(m_readFd.get(), offset, length, data);
}

bool KXFileStreamOperation::writeDateOffSet(std::uint64_t offset, const QByteArray &data)
{
    return hasWriteHandle() && writeAll(m_writeFd.get(), data.constData(), std::uint64_t(data.size()), offset);
}

void KXFileStreamOperation::cutFileForFragments(std::int64_t segmentSize)
{
    const std::uint64_t segment = std::uint64_t(segmentSize);
    QList<KXFileFragment> fragments;
    fragments.reserve(10);
    if (fileSize > 0) {
        const std::uint64_t count = segment == 0 ? 1 : fileSize / segment + (fileSize % segment ? 1 : 0);
        for (std::uint64_t i = 0; i < count; ++i) {
            KXFileFragment fragment;
            fragment.fragmentId = fileKey();
            fragment.fragementOffset = i * segment; // one fragment when the segment is 0
            fragment.fragmentSize = i + 1 == count ? fileSize - fragment.fragementOffset : segment;
            fragments.append(fragment);
        }
    }
    fileFragments = fragments;
}

std::optional<QByteArray> KXFileStreamOperation::readDateOfFragment(const std::optional<KXFileFragment> &fragment) const
{
    if (!fragment)
        return std::nullopt;
    return readDateOffSet(fragment->fragementOffset, fragment->fragmentSize);
}

std::optional<QByteArray> KXFileStreamOperation::readDataOfLength(std::uint64_t length)
{
    const auto data = readAt(m_readFd.get(), offsetInFileOf(m_readFd.get()), length);
    if (data)
        ::lseek(m_readFd.get(), off_t(data->size()), SEEK_CUR);
    return data;
}

std::optional<QByteArray> KXFileStreamOperation::readDataToEndOfFile()
{
    return readDataOfLength(std::numeric_limits<std::uint64_t>::max());
}

bool KXFileStreamOperation::writeData(const QByteArray &data)
{
    if (!hasWriteHandle())
        return false;
    const std::uint64_t at = offsetInFileOf(m_writeFd.get());
    if (!writeAll(m_writeFd.get(), data.constData(), std::uint64_t(data.size()), at))
        return false;
    ::lseek(m_writeFd.get(), off_t(at + std::uint64_t(data.size())), SEEK_SET);
    return true;
}

void KXFileStreamOperation::seekToFileOffset(std::uint64_t offset)
{
    ::lseek(m_readFd.get(), off_t(offset), SEEK_SET); // a closed handle: EBADF, nothing moves
}

std::uint64_t KXFileStreamOperation::offsetInFile() const
{
    return offsetInFileOf(isReadOperation ? m_readFd.get() : m_writeFd.get());
}

std::uint64_t KXFileStreamOperation::seekToEndOfFile()
{
    return std::uint64_t(std::max<off_t>(::lseek(isReadOperation ? m_readFd.get() : m_writeFd.get(), 0, SEEK_END), 0));
}

std::optional<QString> KXFileStreamOperation::commit(bool replace)
{
    if (m_partialName.isEmpty())
        return std::nullopt;
    const QByteArray from = QFile::encodeName(m_partialName);
    const int folder = m_folderFd.get();
    for (int number = 1; number <= maxNumberedNames; ++number) {
        const QString name = number == 1 ? fileName : kx::numberedName(fileName, number);
        const QByteArray to = QFile::encodeName(name);
        const int placed = replace && number == 1 ? ::renameat(folder, from.constData(), folder, to.constData())
                                                  : renameNoReplace(folder, from.constData(), to.constData());
        if (placed == 0) {
            PartialJournal::shared().remove(m_device, m_inode);
            m_partialName.clear();
            return QFileInfo(filePath).path() + QLatin1Char('/') + name;
        }
        if (errno != EEXIST && errno != EISDIR && errno != ENOTEMPTY && errno != ENOTDIR)
            break;
    }
    qCInfo(lcStream).noquote().nospace() << "could not put the file in place: " << std::strerror(errno) << ": " << filePath;
    return std::nullopt;
}

void KXFileStreamOperation::discard()
{
    if (!m_partialName.isEmpty() && m_folderFd.valid()) {
        ::unlinkat(m_folderFd.get(), QFile::encodeName(m_partialName).constData(), 0);
        PartialJournal::shared().remove(m_device, m_inode);
    }
    m_partialName.clear();
}

QString KXFileStreamOperation::partialPath() const
{
    return m_partialName.isEmpty() ? QString() : QFileInfo(filePath).path() + QLatin1Char('/') + m_partialName;
}

void KXFileStreamOperation::closeFile()
{
    m_readFd.reset();
    m_writeFd.reset();
}

QCborMap KXFileStreamOperation::encode() const
{
    QCborArray fragments;
    for (const KXFileFragment &fragment : fileFragments)
        fragments.append(fragment.encode());
    QCborMap archive;
    archive.insert(QStringLiteral("fileName"), fileName);
    archive.insert(QStringLiteral("fileSize"), qint64(fileSize));
    archive.insert(QStringLiteral("filePath"), filePath);
    archive.insert(QStringLiteral("fileFragments"), fragments);
    return archive;
}

std::unique_ptr<KXFileStreamOperation> KXFileStreamOperation::decode(const QCborMap &archive)
{
    auto operation = std::make_unique<KXFileStreamOperation>();
    operation->fileName = archive.value(QStringLiteral("fileName")).toString();
    operation->fileSize = std::uint64_t(archive.value(QStringLiteral("fileSize")).toInteger());
    operation->filePath = archive.value(QStringLiteral("filePath")).toString();
    for (const QCborValue &value : archive.value(QStringLiteral("fileFragments")).toArray())
        operation->fileFragments.append(KXFileFragment::decode(value.toMap()));
    return operation;
}
