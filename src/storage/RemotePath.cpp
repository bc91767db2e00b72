#include "RemotePath.h"

#include <QFile>
#include <QRegularExpression>

#include <climits>

namespace kx {

namespace {

const QRegularExpression &separators()
{
    static const QRegularExpression any(QStringLiteral("[\\\\/]"));
    return any;
}

} // namespace

bool isContainedRemotePath(const QString &windowsPath)
{
    if (windowsPath.contains(QChar(0)))
        return false;
    if (windowsPath.startsWith(QLatin1Char('/')) || windowsPath.startsWith(QLatin1String("\\\\")))
        return false;
    static const QRegularExpression drive(QStringLiteral("^[A-Za-z]:"));
    if (drive.match(windowsPath).hasMatch())
        return false;
    return !windowsPath.split(separators()).contains(QLatin1String(".."));
}

QStringList remoteComponents(const QString &windowsPath)
{
    return windowsPath.split(separators(), Qt::SkipEmptyParts);
}

QString withoutTrailingSlashes(QString path)
{
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
        path.chop(1);
    return path;
}

bool fitsFileSystem(const QString &base, const QStringList &components)
{
    qsizetype total = QFile::encodeName(base).size();
    for (const QString &component : components) {
        const qsizetype length = QFile::encodeName(component).size();
        if (length > NAME_MAX)
            return false;
        total += 1 + length;
    }
    return total < PATH_MAX;
}

} // namespace kx
