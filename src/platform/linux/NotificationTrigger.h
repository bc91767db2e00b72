#pragma once

#include "PasteTrigger.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>

#include <deque>

// The freedesktop notification service. Where the paste needs a way other than Ctrl+V
// (offersPaste): while remote files are on offer, a notification with a "Paste…" action;
// a newer remote copy replaces it, and it is withdrawn when the paste starts or the offer
// is gone. Everywhere: one notification per local copy the remote side fetches, saying
// it is being sent, then replaced by one saying it was sent.
class NotificationTrigger : public QObject, public PasteTrigger
{
    Q_OBJECT
public:
    explicit NotificationTrigger(bool offersPaste, QDBusConnection bus = QDBusConnection::sessionBus());

    void setOffered(bool offered) override;
    void onPaste(std::function<void()> paste) override { m_paste = std::move(paste); }
    void setCopySending(const CopySending &sending) override;
    void setFilesServed() override { m_offersPaste = m_filesServed = true; }

private slots:
    void sendingShown(uint id);
    void sendingReplaced();
    void actionInvoked(uint id, const QString &action);
    void notificationClosed(uint id, uint reason);
    void shown(uint id);
    void settle();

private:
    void notify();
    QDBusMessage sendingMessage(const CopySending &sending, uint replaces) const;
    void sendNextSending();
    void withdraw();

    QDBusConnection m_bus;
    bool m_offersPaste;
    bool m_filesServed = false;
    std::function<void()> m_paste;
    uint m_sendingId = 0; // the notification of the copy being fetched
    bool m_sendingInFlight = false;           // a Notify whose answer has not come yet
    std::deque<CopySending> m_sendings;       // news of copies, waiting for it
    bool m_offered = false;
    uint m_id = 0;          // the notification shown, 0 for none
    bool m_inFlight = false; // a Notify call whose answer (the id) has not come yet
    bool m_again = false;    // a newer copy came while it was out
};
