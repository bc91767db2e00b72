#include "NotificationTrigger.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
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
}

void NotificationTrigger::setOffered(bool offered)
{
    m_offered = offered;
    if (!offered) {
        withdraw();
        return;
    }
    QDBusMessage notify = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("Notify"));
    notify << QStringLiteral(KX_APP_DISPLAY_NAME) << m_id << QStringLiteral("edit-paste")
           << tr("Files copied on the remote desktop") << tr("Choose Paste… to save them in a folder of yours.")
           << QStringList{pasteAction, QStringLiteral("Paste…")}
           << QVariantMap{{QStringLiteral("resident"), true}, {QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)}}
           << 0;
    const quint64 request = ++m_request;
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(notify), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, request] {
        watcher->deleteLater();
        const QDBusPendingReply<uint> reply = *watcher;
        if (reply.isError())
            return;
        m_id = reply.value();
        if (!m_offered || request != m_request) // gone, or replaced, while the call was out
            withdraw();
    });
}

void NotificationTrigger::withdraw()
{
    if (!m_id)
        return;
    QDBusMessage close = QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("CloseNotification"));
    close << m_id;
    m_bus.asyncCall(close);
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
