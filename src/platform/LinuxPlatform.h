#pragma once

#include "Platform.h"

// The desktop backends of this machine: Qt clipboard and dialogs, X11 keys, /proc.
Platform makeLinuxPlatform();
// Hands the Qt folder dialog to the file manager.
void installQtFolderChooser();
