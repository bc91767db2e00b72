#pragma once

#include "Accessibility.h"

// On X11 any client may watch the keyboard: the "permission" is simply an X11 display
// with XInput2. There is no change notification and no event tap to make.
class X11Accessibility : public Accessibility
{
public:
    bool isProcessTrusted(bool prompt) override;
    void onPermissionChanged(std::function<void()> handler) override { Q_UNUSED(handler); }
    bool createEventTap() override { return false; }
    QString missingCapability() const override;
    // X11 either has XInput2 or not; there is nothing the user could grant.
    bool canBeGranted() const override { return false; }
};
