#include "TrayTrigger.h"

#include "ContentsText.h"

#include <QAction>
#include <QIcon>
#include <QSystemTrayIcon>

TrayTrigger::TrayTrigger()
    : m_menu(std::make_unique<QMenu>())
{
    // The first two items only inform: they are disabled, so a click does nothing.
    m_connection = m_menu->addAction(QString());
    m_connection->setEnabled(false);
    m_offer = m_menu->addAction(QString());
    m_sending = m_menu->addAction(QString());
    m_sending->setEnabled(false);
    m_sending->setVisible(false);
    m_offer->setEnabled(false);
    m_menu->addSeparator();
    m_pasteAction = m_menu->addAction(tr("Paste to folder…"));
    m_pasteAction->setEnabled(false);
    connect(m_pasteAction, &QAction::triggered, this, [this] {
        if (m_paste)
            m_paste();
    });
    m_menu->addSeparator();
    connect(m_menu->addAction(tr("Quit")), &QAction::triggered, this, [this] {
        if (m_quit)
            m_quit();
    });
    m_icon = new QSystemTrayIcon(QIcon(QStringLiteral(":/kx-clipboard.png")), this);
    m_icon->setContextMenu(m_menu.get());
    update();
    m_icon->show();
}

void TrayTrigger::setOffered(bool offered)
{
    m_pasteAction->setEnabled(offered);
}

void TrayTrigger::setConnected(bool connected)
{
    m_connected = connected;
    m_wasConnected = m_wasConnected || connected;
    update();
}

void TrayTrigger::setRemoteOffer(const RemoteOffer &offer)
{
    m_remoteOffer = offer;
    update();
}

void TrayTrigger::setCopySending(const CopySending &sending)
{
    const QString what = ContentsText::itemsOfSize(sending.files, sending.bytes);
    m_sending->setText(sending.done ? tr("%1 sent to the remote desktop").arg(what)
                                    : tr("Sending %1 to the remote desktop…").arg(what));
    m_sending->setVisible(true);
    update();
}

void TrayTrigger::update()
{
    m_connection->setText(m_connected      ? tr("Connected to the remote desktop")
                          : m_wasConnected ? tr("Connection lost; reconnecting…")
                                           : tr("Connecting to the remote desktop…"));
    const std::optional<PasteContents> &contents = m_remoteOffer.contents;
    if (!m_remoteOffer.files)
        m_offer->setText(tr("No files on the remote clipboard"));
    else if (!contents)
        m_offer->setText(tr("Files on the remote clipboard"));
    else if (contents->bytes)
        m_offer->setText(tr("%1, %2 on the remote clipboard")
                             .arg(ContentsText::items(contents->items), ContentsText::size(*contents->bytes)));
    else
        m_offer->setText(tr("%1 on the remote clipboard").arg(ContentsText::items(contents->items)));
    m_icon->setToolTip(QStringLiteral(KX_APP_DISPLAY_NAME "\n") + m_connection->text() + QLatin1Char('\n')
                       + m_offer->text() + (m_sending->isVisible() ? QLatin1Char('\n') + m_sending->text() : QString()));
}
