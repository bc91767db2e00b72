#pragma once

#include <QString>

#include <cstdint>

// What a paste did, for the words of its end. The described callbacks carry only a code;
// the shell reads this when the end comes, to say which file, why, and what is on disk.
struct PasteReport
{
    enum class Why {
        none,           // every file saved
        stopped,        // the user pressed Stop
        replaced,       // a newer paste took its place
        declined,       // Cancel, when asked about names already taken
        connectionLost,
        noAnswer,       // the remote side stopped answering
        notEnoughSpace, // found before the first byte: nothing written
        diskFull,
        noPermission,
        outsideFolder,  // a name that would land outside the chosen folder
        cannotWrite,    // any other local failure; detail says it
        unreadable,     // the remote side sent what could not be read
        tooManyFiles,
        remoteCopyChanged, // the remote side copied other files meanwhile
        insideRemoteFiles  // the folder chosen is one of the remote files served back; file names it
    };

    Why why = Why::none;
    QString folder; // the chosen folder; empty before one was chosen
    QString file;   // the file it ended on, below the folder, with "/"
    QString detail; // the system's own words for a failed write
    std::uint64_t filesSaved = 0, bytesSaved = 0;
    std::uint64_t filesSkipped = 0; // names taken, and the user's files kept
    std::uint64_t filesRenamed = 0; // names taken, and both kept
    std::uint64_t filesReplaced = 0; // names taken, and the user's files replaced
    std::uint64_t filesTotal = 0, bytesTotal = 0;
    std::uint64_t bytesNeeded = 0, bytesFree = 0;
};
