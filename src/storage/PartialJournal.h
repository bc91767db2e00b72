#pragma once

#include "UniqueFd.h"

#include <QString>

#include <cstdint>
#include <vector>

// The hidden files pastes are writing, recorded before their first byte by every
// companion of the user, so that a clean-up removes only what a companion made and left
// behind: a file the user made is never removed, whatever its name, nor one that has
// since been replaced by another of the same name.
class PartialJournal
{
public:
    struct Entry
    {
        std::int64_t writer = 0; // the process writing it
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        QString folder;
        QString name;
    };

    // $XDG_STATE_HOME/kx-clipboard/partials, ~/.local/state/… without it.
    static QString defaultPath();
    static PartialJournal &shared();
    explicit PartialJournal(QString path) : m_path(std::move(path)) {}

    bool add(const Entry &entry);
    void remove(std::uint64_t device, std::uint64_t inode);
    // Removes the temporaries in the open folder (at `folder`) whose writer no longer
    // runs and that are still the files recorded; says how many.
    int removeLeftIn(int folderFd, const QString &folder);

private:
    // Reads, changes and writes the journal under a lock, as other companions may too.
    template<typename Change>
    bool edit(Change change);

    QString m_path;
    UniqueFd m_fd;
};
