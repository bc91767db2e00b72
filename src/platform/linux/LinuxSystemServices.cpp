#include "LinuxSystemServices.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdlib>

namespace {

const QRegularExpression &deletedMark()
{
    static const QRegularExpression mark(QStringLiteral(" \\(deleted\\)$"));
    return mark;
}

} // namespace

void LinuxSystemServices::openUrl(const QUrl &url)
{
    QDesktopServices::openUrl(url);
}

bool LinuxSystemServices::isApplicationRunning(const QString &id)
{
    // Every folder of /proc: those that are no process have neither exe nor comm.
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &pid : pids) {
        // The executable's own name decides where it can be read; one replaced on disk while
        // it runs reads "<path> (deleted)" and is still that program.
        const QString exe = QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).symLinkTarget();
        if (!exe.isEmpty()) {
            if (QFileInfo(exe).fileName().remove(deletedMark()) == id)
                return true;
            continue;
        }
        // Where it cannot (another user's process), the name the kernel keeps, cut at 15
        // characters: another program that starts the same way would pass for the host.
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

void LinuxSystemServices::quit()
{
    QCoreApplication::exit(0);
}

void LinuxSystemServices::exitProcess(int status)
{
    std::exit(status); // flushes what is still buffered for the log
}
