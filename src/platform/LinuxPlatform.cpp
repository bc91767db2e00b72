#include "LinuxPlatform.h"

#include "KXFileManager.h"
#include "linux/LinuxSystemServices.h"
#include "qt/QtAlerts.h"
#include "qt/QtFolderChooser.h"
#include "qt/QtPasteboard.h"
#include "x11/X11Accessibility.h"
#include "x11/X11KeyMonitor.h"

Platform makeLinuxPlatform()
{
    Platform platform;
    platform.pasteboard = std::make_unique<QtPasteboard>();
    platform.keyMonitor = std::make_unique<X11KeyMonitor>();
    platform.accessibility = std::make_unique<X11Accessibility>();
    platform.alerts = std::make_unique<QtAlerts>();
    platform.services = std::make_unique<LinuxSystemServices>();
    return platform;
}

void installQtFolderChooser()
{
    KXFileManager::shared()->setFolderChooser(std::make_unique<QtFolderChooser>());
}
