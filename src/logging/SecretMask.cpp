#include "SecretMask.h"

#include <QRegularExpression>

namespace kx {

namespace {

constexpr qsizetype shownLength = 4;
constexpr qsizetype shortestShown = 2 * shownLength; // at least as much stays hidden as is shown
const QChar ellipsis(0x2026);

// Where the token starts in a URL text, or -1.
qsizetype secretStart(const QString &url)
{
    const qsizetype scheme = url.indexOf(QLatin1String("://"));
    const qsizetype slash = url.indexOf(QLatin1Char('/'), scheme < 0 ? 0 : scheme + 3);
    return slash < 0 ? -1 : slash + 1;
}

} // namespace

QString maskedSecret(const QString &secret)
{
    if (secret.isEmpty())
        return QString();
    if (secret.size() < shortestShown)
        return QString(ellipsis);
    // Never half a character: a pair of surrogates stays whole or goes.
    const qsizetype shown = secret.at(shownLength - 1).isHighSurrogate() ? shownLength - 1 : shownLength;
    return secret.left(shown) + ellipsis;
}

QString urlSecret(const QString &url)
{
    const qsizetype start = secretStart(url);
    return start < 0 ? QString() : url.mid(start);
}

QString maskedUrl(const QString &url)
{
    const qsizetype start = secretStart(url);
    return start < 0 ? url : url.left(start) + maskedSecret(url.mid(start));
}

// Only where it stands as a token of its own: a short token ("x") must not mask every
// letter of that kind in a message ("Ma…imum framesize").
QString maskedWithin(QString text, const QString &secret)
{
    if (secret.isEmpty())
        return text;
    const QRegularExpression standalone(QStringLiteral("(?<![A-Za-z0-9])") + QRegularExpression::escape(secret)
                                        + QStringLiteral("(?![A-Za-z0-9])"));
    return text.replace(standalone, maskedSecret(secret));
}

} // namespace kx
