#include "QtPasteboard.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

QtPasteboard::QtPasteboard()
{
    connect(QGuiApplication::clipboard(), &QClipboard::dataChanged, this, [this] { ++m_changeCount; });
}

std::optional<QList<QUrl>> QtPasteboard::readUrls() const
{
    const QMimeData *data = QGuiApplication::clipboard()->mimeData(QClipboard::Clipboard);
    if (!data)
        return std::nullopt;
    return data->urls();
}

void QtPasteboard::clearContents()
{
    QGuiApplication::clipboard()->clear(QClipboard::Clipboard);
}
