#pragma once

#include "UniqueFd.h"

#include <QString>

// The folder one companion mounts its remote files at. Each of this user's companions
// (one per remote desktop) takes its own, files-1, files-2, … in the runtime folder, and
// holds the lock file beside it (files-N.lock, flock'd) for as long as it runs. A mount
// whose lock is free is one a crashed run left; a mount whose lock is held belongs to a
// companion that runs, and is never touched, not even looked at: a stat of a hung mount
// would hang the one who asks.
class MountSlot
{
public:
    static constexpr int maxSlots = 64;

    // Takes the first folder whose lock is free and makes it, clearing first what crashed
    // runs left mounted there and at every other unlocked files-N; false, with the reason
    // in words, where none can be had. `folder` is already this user's alone.
    bool take(const QString &folder, QString &whyNot);
    void release();
    QString path() const { return m_path; }

    // Undoes a mount a crashed run left at the path, found in the mount table. No stat of
    // it: that would hang.
    static void clearStaleMount(const QString &path);

private:
    UniqueFd m_lock;
    QString m_path;
};
