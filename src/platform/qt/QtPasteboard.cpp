#include "QtPasteboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <QRegularExpression>

namespace {

const QString offeredMark = QStringLiteral("application/x-kx-remote-files");

QList<QUrl> fileUrlsIn(const QString &text)
{
    QList<QUrl> urls;
    for (const QString &line : text.split(QRegularExpression(QStringLiteral("[\r\n]+")), Qt::SkipEmptyParts)) {
        const QUrl url(line.trimmed(), QUrl::StrictMode);
        if (!url.isLocalFile())
            return {};
        urls.append(url);
    }
    return urls;
}

} // namespace

QtPasteboard::QtPasteboard(bool fileUrisInText)
    : m_fileUrisInText(fileUrisInText)
{
    connect(QGuiApplication::clipboard(), &QClipboard::dataChanged, this, [this] {
        // On X11 the board empties when the application that copied quits. A pasteboard
        // keeps its contents after its writer has gone, so that is no change: the last
        // local copy stays announced and served. Anything written, even our own clearing,
        // carries at least one format.
        const QMimeData *data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard);
        if (data && !data->formats().isEmpty())
            ++m_changeCount;
    });
}

std::optional<QList<QUrl>> QtPasteboard::readUrls() const
{
    const QMimeData *data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard);
    if (!data)
        return std::nullopt;
    const QList<QUrl> urls = data->urls();
    return urls.isEmpty() && m_fileUrisInText && data->hasText() ? fileUrlsIn(data->text()) : urls;
}

void QtPasteboard::clearContents()
{
    // On X11 clear() only drops our own ownership, and Qt treats empty data the same
    // way: owning the board with one private, empty format empties it for everyone.
    auto *empty = new QMimeData;
    empty->setData(QStringLiteral("application/x-kx-cleared"), QByteArray());
    QGuiApplication::clipboard()->setMimeData(empty, QClipboard::Clipboard);
}

// What file managers read of a copy of files: the URI list, GNOME's form ("copy" and the
// URIs, a line each), and KDE's mark that it is a copy, not a cut.
void QtPasteboard::offerFiles(const QList<QUrl> &urls)
{
    auto *data = new QMimeData;
    data->setUrls(urls);
    QByteArray gnome("copy");
    for (const QUrl &url : urls)
        gnome += '\n' + url.toEncoded();
    data->setData(QStringLiteral("x-special/gnome-copied-files"), gnome);
    data->setData(QStringLiteral("x-special/mate-copied-files"), gnome); // the MATE file manager reads only its own
    data->setData(QStringLiteral("application/x-kde-cutselection"), "0");
    data->setData(offeredMark, QByteArray());
    QGuiApplication::clipboard()->setMimeData(data, QClipboard::Clipboard);
}

void QtPasteboard::withdrawFiles()
{
    if (holdsOfferedFiles())
        clearContents();
}

bool QtPasteboard::holdsOfferedFiles() const
{
    const QClipboard *board = QGuiApplication::clipboard();
    return board->ownsClipboard() && board->mimeData(QClipboard::Clipboard)
        && board->mimeData(QClipboard::Clipboard)->hasFormat(offeredMark);
}
