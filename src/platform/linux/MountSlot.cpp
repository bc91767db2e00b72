#include "MountSlot.h"

#include "PlatformLog.h"

#include <QFile>
#include <QProcess>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace {

// A path as the mount table writes it.
QByteArray escaped(const QString &path)
{
    QByteArray text = QFile::encodeName(path);
    return text.replace("\\", "\\134").replace(" ", "\\040").replace("\t", "\\011").replace("\n", "\\012");
}

// Every mount point, escaped; read from /proc, which never touches a mount itself.
QList<QByteArray> mountPoints()
{
    QList<QByteArray> points;
    QFile table(QStringLiteral("/proc/self/mountinfo"));
    if (!table.open(QIODevice::ReadOnly))
        return points;
    for (const QByteArray &line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 4)
            points.append(fields[4]);
    }
    return points;
}

bool isMountPoint(const QString &path)
{
    return mountPoints().contains(escaped(path));
}

// The slot's lock, taken without waiting; none, errno EWOULDBLOCK, while another holds it.
// Children never inherit it: a lock a child kept would outlive a crash of ours.
UniqueFd lockOf(const QString &slot)
{
    UniqueFd lock(::open(QFile::encodeName(slot + QStringLiteral(".lock")).constData(),
                         O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (lock.valid() && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        lock.reset();
        errno = error;
    }
    return lock;
}

QString systemError()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

} // namespace

bool MountSlot::take(const QString &folder, QString &whyNot)
{
    release();
    const QString stem = folder + QStringLiteral("/files-");
    // What crashed runs left, wherever it is; a slot whose lock is held is passed by.
    const QByteArray escapedStem = escaped(stem);
    for (const QByteArray &point : mountPoints()) {
        const QByteArray number = point.mid(escapedStem.size());
        if (!point.startsWith(escapedStem) || QByteArray::number(number.toInt()) != number)
            continue;
        const QString slot = stem + QString::fromLatin1(number);
        if (lockOf(slot).valid())
            clearStaleMount(slot);
    }
    for (int n = 1; n <= maxSlots; ++n) {
        const QString slot = stem + QString::number(n);
        UniqueFd lock = lockOf(slot);
        if (!lock.valid() && errno == EWOULDBLOCK)
            continue; // a companion that runs
        if (!lock.valid()) {
            whyNot = QStringLiteral("%1.lock cannot be made (%2)").arg(slot, systemError());
            return false;
        }
        clearStaleMount(slot); // left by a run that ended since the look above
        if (isMountPoint(slot))
            continue; // it could not be cleared; never mounted over
        if (::mkdir(QFile::encodeName(slot).constData(), 0700) != 0 && errno != EEXIST) {
            whyNot = QStringLiteral("%1 cannot be made (%2)").arg(slot, systemError());
            return false;
        }
        m_lock = std::move(lock);
        m_path = slot;
        return true;
    }
    whyNot = QStringLiteral("the %1 mount folders of %2 are all in use").arg(maxSlots).arg(folder);
    return false;
}

void MountSlot::release()
{
    m_lock.reset();
    m_path.clear();
}

void MountSlot::clearStaleMount(const QString &path)
{
    if (!isMountPoint(path))
        return;
    qCInfo(lcPlatform).noquote() << "a mount an earlier run left is cleared:" << path;
    QProcess unmount;
    unmount.start(QStringLiteral("fusermount3"), {QStringLiteral("-u"), QStringLiteral("-z"), path});
    if (!unmount.waitForFinished(5000) || unmount.exitCode() != 0) {
        unmount.kill();
        ::umount2(QFile::encodeName(path).constData(), MNT_DETACH); // as root, without the helper
    }
}
