#include "LaunchArguments.h"

#include "ClipBoardManager.h"
#include "DesktopLog.h"

#include <QRegularExpression>

namespace {

// Tabs and space separators at either end; line breaks are kept, as the host never sends them.
const QRegularExpression &padding()
{
    static const QRegularExpression ends(QStringLiteral("^[\\t\\p{Zs}]+|[\\t\\p{Zs}]+\\z"));
    return ends;
}

} // namespace

LaunchArguments LaunchArguments::read(const QStringList &arguments)
{
    qCInfo(lcDesktop).noquote().nospace() << "Number of arguments: " << arguments.size();
    LaunchArguments result;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        qCInfo(lcDesktop).noquote().nospace() << "Argument " << i << ": " << arguments.at(i);
        result.assignLaunchArgument(arguments.at(i));
    }
    return result;
}

void LaunchArguments::assignLaunchArgument(const QString &argument)
{
    // Keys are found anywhere in the argument, in this order: "token,zip9" sets the address.
    if (argument.contains(QLatin1String("ip")))
        ipAdress = valueAfterComma(argument);
    else if (argument.contains(QLatin1String("port")))
        port = valueAfterComma(argument);
    else if (argument.contains(QLatin1String("token")))
        token = valueAfterComma(argument);
    else if (argument.contains(QLatin1String("cid")))
        cid = valueAfterComma(argument);
    else if (argument.contains(QLatin1String("window")))
        window = windowValue(valueAfterComma(argument));
}

// Anything but a number from 1 to 64 keeps the one-at-a-time exchange.
int LaunchArguments::windowValue(const QString &text)
{
    bool ok = false;
    const int value = text.toInt(&ok);
    if (ok && value >= 1 && value <= ClipBoardManager::maxWindow)
        return value;
    qCInfo(lcDesktop).noquote().nospace() << "window must be a number from 1 to " << ClipBoardManager::maxWindow << ", not " << text
                                          << "; queries go one at a time";
    return 1;
}

QString LaunchArguments::valueAfterComma(const QString &argument)
{
    const QStringList pieces = argument.split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (pieces.isEmpty()) {
        qCInfo(lcDesktop).noquote() << "未找到逗号后面的内容";
        return QString();
    }
    const QString value = QString(pieces.last()).remove(padding());
    qCInfo(lcDesktop).noquote().nospace() << "逗号后面的内容为: " << value;
    return value;
}
