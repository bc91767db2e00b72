#include "LinuxSystemServices.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdlib>

void LinuxSystemServices::openUrl(const QUrl &url)
{
    QDesktopServices::openUrl(url);
}

bool LinuxSystemServices::isApplicationRunning(const QString &id)
{
    // Every folder of /proc: those that are no process have neither exe nor comm.
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &pid : pids) {
        // comm is cut at 15 characters; the executable's own name is the full one.
        const QString exe = QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
        if (!exe.isEmpty() && QFileInfo(exe).fileName() == id)
            return true;
        QFile comm(QStringLiteral("/proc/%1/comm").arg(pid));
        if (comm.open(QIODevice::ReadOnly) && QString::fromUtf8(comm.readAll()).trimmed() == id.left(15))
            return true;
    }
    return false;
}

QString LinuxSystemServices::applicationName() const
{
    return QStringLiteral(KX_APP_DISPLAY_NAME);
}

void LinuxSystemServices::exitProcess(int status)
{
    std::exit(status); // flushes what is still buffered for the log
}
