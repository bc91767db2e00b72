#include "LinuxPlatform.h"
#include "PlatformLog.h"

#include "KXFileManager.h"
#include "linux/AnnouncementFile.h"
#include "linux/FuseMount.h"
#include "linux/LinuxSystemServices.h"
#include "linux/NotificationTrigger.h"
#include "qt/QtAlerts.h"
#include "qt/QtConflictAsker.h"
#include "qt/QtFolderChooser.h"
#include "qt/QtPasteboard.h"
#include "qt/TrayTrigger.h"
#include "x11/X11Accessibility.h"
#include "x11/X11KeyMonitor.h"

#include <QSystemTrayIcon>

Q_LOGGING_CATEGORY(lcPlatform, "kx.platform")

Platform makeLinuxPlatform(const DesktopSession &session)
{
    Platform platform;
    platform.pasteboard = std::make_unique<QtPasteboard>(session.kind == DesktopSession::Kind::wayland);
    platform.keyMonitor = std::make_unique<X11KeyMonitor>();
    platform.accessibility = std::make_unique<X11Accessibility>();
    platform.alerts = std::make_unique<QtAlerts>();
    platform.services = std::make_unique<LinuxSystemServices>();
    platform.fileSystem = std::make_unique<FuseMount>();
    platform.latestAnnouncement = std::make_unique<AnnouncementFile>(FuseMount::place(), qEnvironmentVariable("DISPLAY"));
    if (QSystemTrayIcon::isSystemTrayAvailable())
        platform.pasteTriggers.push_back(std::make_unique<TrayTrigger>());
    // Ctrl+V cannot be seen in Wayland applications: the notification offers the paste there.
    platform.pasteTriggers.push_back(std::make_unique<NotificationTrigger>(session.kind == DesktopSession::Kind::wayland));
    return platform;
}

void installQtFileDialogs()
{
    KXFileManager::shared()->setFolderChooser(std::make_unique<QtFolderChooser>());
    KXFileManager::shared()->setConflictAsker(std::make_unique<QtConflictAsker>());
}
