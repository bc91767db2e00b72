#include "TrayTrigger.h"

#include <QAction>
#include <QIcon>
#include <QSystemTrayIcon>

TrayTrigger::TrayTrigger()
    : m_menu(std::make_unique<QMenu>())
{
    m_action = m_menu->addAction(tr("Paste…"));
    m_action->setEnabled(false);
    connect(m_action, &QAction::triggered, this, [this] {
        if (m_paste)
            m_paste();
    });
    m_icon = new QSystemTrayIcon(QIcon(QStringLiteral(":/kx-clipboard.png")), this);
    m_icon->setToolTip(QStringLiteral(KX_APP_DISPLAY_NAME));
    m_icon->setContextMenu(m_menu.get());
    m_icon->show();
}

void TrayTrigger::setOffered(bool offered)
{
    m_action->setEnabled(offered);
    m_icon->setToolTip(offered ? tr("%1: files copied on the remote desktop can be pasted").arg(KX_APP_DISPLAY_NAME)
                               : QStringLiteral(KX_APP_DISPLAY_NAME));
}
