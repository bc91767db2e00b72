#pragma once

// The application's lifecycle hooks. Nothing is restored or saved: the companion keeps
// no state between runs.
class AppDelegate
{
public:
    void applicationDidFinishLaunching() {}
    void applicationWillTerminate() {}
    bool applicationSupportsSecureRestorableState() const { return true; }
};
