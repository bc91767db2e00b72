#pragma once

#include <QString>
#include <QUrl>

#include <functional>

// The permission that global key monitoring needs, its prompt, and the notification
// that it changed.
class Accessibility
{
public:
    virtual ~Accessibility() = default;
    virtual bool isProcessTrusted(bool prompt) = 0;
    virtual void onPermissionChanged(std::function<void()> handler) = 0;
    // A passive event tap; where the platform has none this does nothing.
    virtual bool createEventTap() = 0;
    // What is missing, for a plain message to the user, when not trusted.
    virtual QString missingCapability() const { return {}; }
    // The settings page where the user grants the permission; empty where there is none.
    virtual QUrl settingsUrl() const { return {}; }
    // Whether the user could grant it at all; where not, nobody is asked.
    virtual bool canBeGranted() const { return true; }
};
