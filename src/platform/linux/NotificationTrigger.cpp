#include "NotificationTrigger.h"

#include "qt/ContentsText.h"
#include "PlatformLog.h"

#include <QDBusMessage>
#include <QVariantMap>

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString pasteAction = QStringLiteral("paste");

} // namespace

NotificationTrigger::NotificationTrigger(bool offersPaste, QDBusConnection bus)
    : m_bus(bus)
    , m_offersPaste(offersPaste)
{
    m_bus.connect(service, path, interface, QStringLiteral("ActionInvoked"), this, SLOT(actionInvoked(uint, QString)));
    m_bus.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                  SLOT(notificationClosed(uint, uint)));
    if (!offersPaste)
        return;
    if (m_bus.isConnected())
        qCInfo(lcPlatform).noquote() << "the notification's Paste… is offered through" << service;
    else
        qCInfo(lcPlatform).noquote() << "no session bus: the notification's Paste… cannot be offered";
}

void NotificationTrigger::setOffered(bool offered)
{
    if (!m_offersPaste)
        return;
    m_offered = offered;
    if (m_inFlight) // decided when the service has told the id of the one shown
        m_again = offered;
    else if (offered)
        notify();
    else
        withdraw();
}

void NotificationTrigger::notify()
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    message << QStringLiteral(KX_APP_DISPLAY_NAME) << m_id << QStringLiteral("edit-paste")
           << tr("Files copied on the remote desktop")
           << (m_filesServed ? tr("Press Ctrl+V in a folder of your file manager to paste them there, or choose “Paste to folder…” to pick one.")
                             : tr("Choose Paste… to save them in a folder of yours."))
           << QStringList{pasteAction, m_filesServed ? tr("Paste to folder…") : QStringLiteral("Paste…")}
           << QVariantMap{{QStringLiteral("resident"), true}, {QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)}}
           << 0;
    m_inFlight = m_bus.callWithCallback(message, this, SLOT(shown(uint)), SLOT(settle()));
}

// A copy's first bytes open a notification of its own; its last byte replaces it. The
// replacement needs the id the service gives the first, so the news goes out one at a
// time, in order, each after the service has answered the one before.
void NotificationTrigger::setCopySending(const CopySending &sending)
{
    m_sendings.push_back(sending);
    if (!m_sendingInFlight)
        sendNextSending();
}

void NotificationTrigger::sendNextSending()
{
    if (m_sendings.empty())
        return;
    const CopySending sending = m_sendings.front();
    m_sendings.pop_front();
    m_sendingInFlight = true;
    m_bus.callWithCallback(sendingMessage(sending, sending.done ? std::exchange(m_sendingId, 0) : 0u), this,
                           sending.done ? SLOT(sendingReplaced()) : SLOT(sendingShown(uint)), SLOT(sendingReplaced()));
}

QDBusMessage NotificationTrigger::sendingMessage(const CopySending &sending, uint replaces) const
{
    const QString what = ContentsText::itemsOfSize(sending.files, sending.bytes);
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    message << QStringLiteral(KX_APP_DISPLAY_NAME) << replaces << QStringLiteral("document-send")
            << (sending.done ? tr("Sent to the remote desktop") : tr("Sending to the remote desktop…"))
            << (sending.done ? tr("The remote desktop has received %1 of your copy.").arg(what)
                             : tr("The remote desktop is fetching %1 of your copy.").arg(what))
            << QStringList{} << QVariantMap{{QStringLiteral("urgency"), QVariant::fromValue<uchar>(0)}} << -1;
    return message;
}

void NotificationTrigger::sendingShown(uint id)
{
    m_sendingId = id;
    sendingReplaced();
}

void NotificationTrigger::sendingReplaced()
{
    m_sendingInFlight = false;
    sendNextSending();
}

void NotificationTrigger::shown(uint id)
{
    m_id = id;
    settle();
}

void NotificationTrigger::settle()
{
    m_inFlight = false;
    if (!m_offered)
        withdraw();
    else if (std::exchange(m_again, false)) // a newer copy came meanwhile: it replaces this one
        notify();
}

void NotificationTrigger::withdraw()
{
    if (!m_id)
        return;
    QDBusMessage close = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("CloseNotification"));
    close << m_id;
    m_bus.send(close);
    m_id = 0;
}

void NotificationTrigger::actionInvoked(uint id, const QString &action)
{
    if (id == m_id && id && action == pasteAction && m_paste)
        m_paste();
}

void NotificationTrigger::notificationClosed(uint id, uint reason)
{
    Q_UNUSED(reason);
    if (id == m_id)
        m_id = 0;
}
