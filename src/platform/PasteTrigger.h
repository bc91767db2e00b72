#pragma once

#include "CopySending.h"
#include "RemoteOffer.h"

#include <functional>

// A way to start a paste that needs no global keys (which a Wayland session does not
// allow): a desktop notification with a "Paste…" action, a tray menu item. Choosing it
// runs exactly the paste that Ctrl+V runs. A tray also tells the state of things and
// offers to quit.
class PasteTrigger
{
public:
    virtual ~PasteTrigger() = default;
    // Files copied on the remote side can be pasted (true), or no longer (false).
    virtual void setOffered(bool offered) = 0;
    virtual void onPaste(std::function<void()> paste) = 0;
    // The connection to the remote side is up, or being tried again.
    virtual void setConnected(bool connected) { (void)connected; }
    virtual void setRemoteOffer(const RemoteOffer &offer) { (void)offer; }
    virtual void onQuit(std::function<void()> quit) { (void)quit; }
    // What the remote side fetches of the local copy.
    virtual void setCopySending(const CopySending &sending) { (void)sending; }
    // The file manager pastes the remote files: this way offers the folder chooser.
    virtual void setFilesServed() {}
};
