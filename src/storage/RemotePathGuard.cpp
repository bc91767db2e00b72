#include "RemotePathGuard.h"

#include <QRegularExpression>

namespace kx {

bool isContainedRemotePath(const QString &windowsPath)
{
    if (windowsPath.contains(QChar(0)))
        return false;
    if (windowsPath.startsWith(QLatin1Char('/')) || windowsPath.startsWith(QLatin1String("\\\\")))
        return false;
    static const QRegularExpression drive(QStringLiteral("^[A-Za-z]:"));
    if (drive.match(windowsPath).hasMatch())
        return false;
    static const QRegularExpression separators(QStringLiteral("[\\\\/]"));
    const QStringList components = windowsPath.split(separators);
    return !components.contains(QLatin1String(".."));
}

} // namespace kx
