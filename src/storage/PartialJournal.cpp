#include "PartialJournal.h"

#include "StorageLog.h"
#include "UniqueFd.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool writerRuns(std::int64_t pid)
{
    return pid > 0 && (pid == ::getpid() || ::kill(pid_t(pid), 0) == 0 || errno == EPERM);
}

// One line an entry: writer, device, inode, then the folder and the name in base64, as
// either may hold a tab or a line break.
QByteArray encode(const std::vector<PartialJournal::Entry> &entries)
{
    QByteArray out;
    for (const auto &e : entries)
        out += QByteArray::number(qint64(e.writer)) + '\t' + QByteArray::number(quint64(e.device)) + '\t'
            + QByteArray::number(quint64(e.inode)) + '\t' + e.folder.toUtf8().toBase64() + '\t' + e.name.toUtf8().toBase64() + '\n';
    return out;
}

std::vector<PartialJournal::Entry> decode(const QByteArray &text)
{
    std::vector<PartialJournal::Entry> entries;
    for (const QByteArray &line : text.split('\n')) {
        const QList<QByteArray> f = line.split('\t');
        if (f.size() != 5)
            continue;
        entries.push_back({f[0].toLongLong(), f[1].toULongLong(), f[2].toULongLong(),
                           QString::fromUtf8(QByteArray::fromBase64(f[3])), QString::fromUtf8(QByteArray::fromBase64(f[4]))});
    }
    return entries;
}

QByteArray readAll(int fd)
{
    QByteArray text;
    char buffer[65536];
    for (ssize_t n; (n = ::pread(fd, buffer, sizeof buffer, off_t(text.size()))) > 0;)
        text.append(buffer, qsizetype(n));
    return text;
}

} // namespace

QString PartialJournal::defaultPath()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || !QDir::isAbsolutePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/kx-clipboard/partials");
}

PartialJournal &PartialJournal::shared()
{
    static PartialJournal journal(defaultPath());
    return journal;
}

template<typename Change>
bool PartialJournal::edit(Change change)
{
    // Kept open: a paste of many small files edits the journal twice a file.
    UniqueFd &fd = m_fd;
    if (!fd.valid()) {
        const QByteArray path = QFile::encodeName(m_path);
        fd.reset(::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd.valid() && errno == ENOENT && QDir().mkpath(QFileInfo(m_path).path()))
            fd.reset(::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd.valid()) {
            qCInfo(lcStream).noquote().nospace() << "cannot open the journal of unfinished files " << m_path << ": "
                                                 << std::strerror(errno);
            return false;
        }
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    while (::fcntl(fd.get(), F_SETLKW, &lock) != 0 && errno == EINTR) {
    }
    const auto unlock = qScopeGuard([&] {
        lock.l_type = F_UNLCK;
        ::fcntl(fd.get(), F_SETLK, &lock);
    });
    std::vector<Entry> entries = decode(readAll(fd.get()));
    if (!change(entries))
        return true;
    const QByteArray text = encode(entries);
    return ::ftruncate(fd.get(), 0) == 0 && ::pwrite(fd.get(), text.constData(), size_t(text.size()), 0) == ssize_t(text.size());
}

bool PartialJournal::add(const Entry &entry)
{
    return edit([&](std::vector<Entry> &entries) {
        entries.push_back(entry);
        return true;
    });
}

void PartialJournal::remove(std::uint64_t device, std::uint64_t inode)
{
    edit([&](std::vector<Entry> &entries) {
        return std::erase_if(entries, [&](const Entry &e) { return e.device == device && e.inode == inode; }) > 0;
    });
}

int PartialJournal::removeLeftIn(int folderFd, const QString &folder)
{
    int removed = 0;
    edit([&](std::vector<Entry> &entries) {
        return std::erase_if(entries, [&](const Entry &e) {
            if (e.folder != folder || writerRuns(e.writer))
                return false;
            const QByteArray name = QFile::encodeName(e.name);
            struct stat st {};
            if (::fstatat(folderFd, name.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)
                && std::uint64_t(st.st_dev) == e.device && std::uint64_t(st.st_ino) == e.inode)
                removed += ::unlinkat(folderFd, name.constData(), 0) == 0;
            return true; // gone, or no longer the file it was: forgotten either way
        }) > 0;
    });
    return removed;
}
