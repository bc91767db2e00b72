#include "LaunchArguments.h"

#include "ClipBoardManager.h"
#include "DesktopLog.h"
#include "SecretMask.h"

#include <QRegularExpression>

#include <optional>
#include <utility>

namespace {

// Tabs and space separators at either end; line breaks are kept, as the host never sends them.
const QRegularExpression &padding()
{
    static const QRegularExpression ends(QStringLiteral("^[\\t\\p{Zs}]+|[\\t\\p{Zs}]+\\z"));
    return ends;
}

// The last comma piece, trimmed; nothing when there is none.
std::optional<QString> lastPiece(const QString &argument)
{
    const QStringList pieces = argument.split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (pieces.isEmpty())
        return std::nullopt;
    return QString(pieces.last()).remove(padding());
}

// The argument as the log shows it: a token's value masked where it stands.
QString shown(const QString &argument)
{
    if (LaunchArguments::keyOf(argument) != LaunchArguments::Key::token)
        return argument;
    const QString value = lastPiece(argument).value_or(QString());
    const qsizetype at = value.isEmpty() ? -1 : argument.lastIndexOf(value);
    return at < 0 ? argument : argument.left(at) + kx::maskedSecret(value) + argument.mid(at + value.size());
}

} // namespace

LaunchArguments LaunchArguments::read(const QStringList &arguments)
{
    qCInfo(lcDesktop).noquote().nospace() << "Number of arguments: " << arguments.size();
    LaunchArguments result;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        qCInfo(lcDesktop).noquote().nospace() << "Argument " << i << ": " << shown(arguments.at(i));
        result.assignLaunchArgument(arguments.at(i));
    }
    return result;
}

// Keys are found anywhere in the argument, in this order: "token,zip9" sets the address.
// The pin alone must begin the argument: found anywhere, a program path such as
// /home/pinto/companion would pin a certificate nobody has, and nothing would connect.
LaunchArguments::Key LaunchArguments::keyOf(const QString &argument)
{
    if (argument.startsWith(QLatin1String("pin,")))
        return Key::pin;
    if (argument.startsWith(QLatin1String("paste,")))
        return Key::paste;
    static constexpr std::pair<const char *, Key> keys[] = {{"ip", Key::ip},   {"port", Key::port}, {"token", Key::token},
                                                            {"cid", Key::cid}, {"window", Key::window}};
    for (const auto &[name, key] : keys) {
        if (argument.contains(QLatin1String(name)))
            return key;
    }
    return Key::none;
}

void LaunchArguments::assignLaunchArgument(const QString &argument)
{
    switch (keyOf(argument)) {
    case Key::ip: ipAdress = valueAfterComma(argument); break;
    case Key::port: port = valueAfterComma(argument); break;
    case Key::token: token = valueAfterComma(argument, true); break;
    case Key::cid: cid = valueAfterComma(argument); break;
    case Key::window: window = windowValue(valueAfterComma(argument)); break;
    case Key::pin: pin = pinValue(valueAfterComma(argument)); break;
    case Key::paste: pasteFiles = valueAfterComma(argument) == QLatin1String("files"); break;
    case Key::none: break;
    }
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

// A pin that is no fingerprint (a typing slip, "pin," with nothing after it) refuses every
// certificate rather than none: the user asked for one agent only, and the log says why
// nothing connects.
CertificatePin LaunchArguments::pinValue(const QString &text)
{
    const CertificatePin pin(text);
    if (!pin.isValid())
        qCInfo(lcDesktop).noquote().nospace() << "pin must be the SHA-256 of the agent's certificate, 64 hex digits (colons allowed), not "
                                              << text << "; no certificate will be accepted";
    return pin;
}

QString LaunchArguments::valueAfterComma(const QString &argument, bool secret)
{
    const std::optional<QString> piece = lastPiece(argument);
    if (!piece) {
        qCInfo(lcDesktop).noquote() << "未找到逗号后面的内容";
        return QString();
    }
    const QString &value = *piece;
    qCInfo(lcDesktop).noquote().nospace() << "逗号后面的内容为: " << (secret ? kx::maskedSecret(value) : value);
    return value;
}
