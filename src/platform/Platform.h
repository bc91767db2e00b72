#pragma once

#include "Accessibility.h"
#include "FileSystemHost.h"
#include "KeyMonitor.h"
#include "LatestAnnouncement.h"
#include "PasteTrigger.h"
#include "Pasteboard.h"
#include "SystemServices.h"

#include <memory>
#include <vector>

// Every platform call of the desktop layer, behind one set of interfaces: the X11
// backend here, a scripted one in tests.
struct Platform
{
    std::unique_ptr<Pasteboard> pasteboard;
    std::unique_ptr<KeyMonitor> keyMonitor;
    std::unique_ptr<Accessibility> accessibility;
    std::unique_ptr<Alerts> alerts;
    std::unique_ptr<SystemServices> services;
    std::vector<std::unique_ptr<PasteTrigger>> pasteTriggers;
    std::unique_ptr<FileSystemHost> fileSystem; // none where remote files cannot be served
    std::unique_ptr<LatestAnnouncement> latestAnnouncement; // none: every Ctrl+V is this companion's
};
