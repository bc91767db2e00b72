#pragma once

#include "PasteTrigger.h"

#include <QDBusConnection>
#include <QObject>

// The freedesktop notification service: while remote files are on offer, a notification
// with a "Paste…" action. A newer remote copy replaces it; it is withdrawn when the paste
// starts or the offer is gone.
class NotificationTrigger : public QObject, public PasteTrigger
{
    Q_OBJECT
public:
    explicit NotificationTrigger(QDBusConnection bus = QDBusConnection::sessionBus());

    void setOffered(bool offered) override;
    void onPaste(std::function<void()> paste) override { m_paste = std::move(paste); }

private slots:
    void actionInvoked(uint id, const QString &action);
    void notificationClosed(uint id, uint reason);

private:
    void withdraw();

    QDBusConnection m_bus;
    std::function<void()> m_paste;
    bool m_offered = false;
    uint m_id = 0;         // the notification shown, 0 for none
    quint64 m_request = 0; // the latest Notify call; an older answer is withdrawn at once
};
