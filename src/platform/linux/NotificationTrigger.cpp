#include "NotificationTrigger.h"

#include "PlatformLog.h"

#include <QDBusMessage>
#include <QVariantMap>

namespace {

const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
const QString interface = QStringLiteral("org.freedesktop.Notifications");
const QString pasteAction = QStringLiteral("paste");

} // namespace

NotificationTrigger::NotificationTrigger(QDBusConnection bus)
    : m_bus(bus)
{
    m_bus.connect(service, path, interface, QStringLiteral("ActionInvoked"), this, SLOT(actionInvoked(uint, QString)));
    m_bus.connect(service, path, interface, QStringLiteral("NotificationClosed"), this,
                  SLOT(notificationClosed(uint, uint)));
    if (m_bus.isConnected())
        qCInfo(lcPlatform).noquote() << "the notification's Paste… is offered through" << service;
    else
        qCInfo(lcPlatform).noquote() << "no session bus: the notification's Paste… cannot be offered";
}

void NotificationTrigger::setOffered(bool offered)
{
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
           << tr("Files copied on the remote desktop") << tr("Choose Paste… to save them in a folder of yours.")
           << QStringList{pasteAction, QStringLiteral("Paste…")}
           << QVariantMap{{QStringLiteral("resident"), true}, {QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)}}
           << 0;
    m_inFlight = m_bus.callWithCallback(message, this, SLOT(shown(uint)), SLOT(settle()));
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
