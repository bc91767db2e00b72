#pragma once

#include "PasteTrigger.h"

#include <QMenu>
#include <QObject>

#include <memory>

class QAction;
class QSystemTrayIcon;

// A tray icon whose menu offers "Paste…" while remote files are on offer.
class TrayTrigger : public QObject, public PasteTrigger
{
public:
    TrayTrigger();
    void setOffered(bool offered) override;
    void onPaste(std::function<void()> paste) override { m_paste = std::move(paste); }

private:
    std::unique_ptr<QMenu> m_menu; // a context menu has no parent
    QSystemTrayIcon *m_icon = nullptr;
    QAction *m_action = nullptr;
    std::function<void()> m_paste;
};
