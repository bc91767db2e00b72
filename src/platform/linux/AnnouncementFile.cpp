#include "AnnouncementFile.h"

#include "PlatformLog.h"
#include "PrivateFolder.h"

#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <limits>

#include <unistd.h>

AnnouncementFile::AnnouncementFile(const QString &folder, const QString &display)
    : m_folder(folder)
    , m_path(folder + QStringLiteral("/last-announced"))
    , m_identity(QByteArray::number(qint64(::getpid())) + ' '
                 + QByteArray::number(QRandomGenerator::system()->generate64(), 16))
{
    // ":0" and ":0.0" are one display: the keys are seen on all its screens.
    static const QRegularExpression screen(QStringLiteral("(:\\d+)\\.\\d+$"));
    if (!display.isEmpty())
        m_path += '-' + QString(display).replace(screen, QStringLiteral("\\1")).replace('/', '_');
}

void AnnouncementFile::claim()
{
    const QString temporary = path() + '.' + QString::fromLatin1(m_identity.split(' ').last());
    QFile file(temporary);
    file.remove(); // one a failed claim of this run left
    const bool written = kx::makePrivateFolder(m_folder) && file.open(QIODevice::WriteOnly | QIODevice::NewOnly)
        && file.write(m_identity + '\n') == m_identity.size() + 1 && file.flush();
    file.close();
    if (!written || std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path()).constData()) != 0) {
        file.remove();
        qCInfo(lcPlatform).noquote() << "the record of the last announced remote files cannot be written:" << path();
    }
}

// A record another user could have written is no record.
bool AnnouncementFile::isOurs() const
{
    QFile file(path());
    if (!kx::makePrivateFolder(m_folder) || !file.open(QIODevice::ReadOnly))
        return true;
    const QByteArray line = file.read(256).trimmed();
    bool number = false;
    const qint64 pid = line.split(' ').first().toLongLong(&number);
    if (line == m_identity || !number || pid <= 0 || pid > std::numeric_limits<pid_t>::max() || line.count(' ') != 1)
        return true;
    return ::kill(pid_t(pid), 0) != 0 && errno != EPERM;
}
