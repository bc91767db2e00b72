#pragma once

#include "Platform.h"
#include "linux/DesktopSession.h"

// The desktop backends of this machine: Qt clipboard and dialogs, X11 keys, /proc, and
// the ways to paste without keys where the session has them.
Platform makeLinuxPlatform(const DesktopSession &session = DesktopSession::detect());
// Hands the Qt folder dialog to the file manager.
void installQtFileDialogs();
