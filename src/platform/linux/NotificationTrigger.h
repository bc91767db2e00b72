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
    void shown(uint id);
    void settle();

private:
    void notify();
    void withdraw();

    QDBusConnection m_bus;
    std::function<void()> m_paste;
    bool m_offered = false;
    uint m_id = 0;          // the notification shown, 0 for none
    bool m_inFlight = false; // a Notify call whose answer (the id) has not come yet
    bool m_again = false;    // a newer copy came while it was out
};
