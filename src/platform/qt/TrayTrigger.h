#pragma once

#include "PasteTrigger.h"

#include <QMenu>
#include <QObject>

#include <memory>

class QAction;
class QSystemTrayIcon;

// A tray icon whose menu tells whether the remote side is connected and what its
// clipboard holds, offers "Paste to folder…" while remote files are on offer, and Quit.
// Its tooltip tells the same.
class TrayTrigger : public QObject, public PasteTrigger
{
public:
    TrayTrigger();
    void setOffered(bool offered) override;
    void onPaste(std::function<void()> paste) override { m_paste = std::move(paste); }
    void setConnected(bool connected) override;
    void setRemoteOffer(const RemoteOffer &offer) override;
    void onQuit(std::function<void()> quit) override { m_quit = std::move(quit); }
    void setCopySending(const CopySending &sending) override;

private:
    void update();

    std::unique_ptr<QMenu> m_menu; // a context menu has no parent
    QSystemTrayIcon *m_icon = nullptr;
    QAction *m_connection = nullptr;
    QAction *m_offer = nullptr;
    QAction *m_sending = nullptr; // shown once the remote side fetches a local copy
    QAction *m_pasteAction = nullptr;
    bool m_connected = false;
    bool m_wasConnected = false; // failed attempts before the first connection lose nothing
    RemoteOffer m_remoteOffer;
    std::function<void()> m_paste;
    std::function<void()> m_quit;
};
