#pragma once

// Which of this user's companions (one for each remote desktop) had remote files announced
// last. Every companion sees a global Ctrl+V; only that one answers it.
class LatestAnnouncement
{
public:
    virtual ~LatestAnnouncement() = default;
    // Remote files were announced to this companion: it is now the last.
    virtual void claim() = 0;
    // Whether this companion is the last; also where nothing readable says otherwise, or
    // the one it names has ended.
    virtual bool isOurs() const = 0;
};
