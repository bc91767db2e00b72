#pragma once

#include <QString>
#include <QStringList>

#include <cstddef>

// What to do with the files of a paste whose names are already taken in the chosen
// folder: asked once for the whole paste.
enum class ConflictChoice { keepBoth, replace, skip, cancel };

struct ConflictSummary
{
    QString folder;         // the chosen folder
    std::size_t count = 0;  // how many names are taken
    QStringList firstNames; // the first few, as paths below the folder
};

// The question as a modal dialog. The desktop layer supplies the real one, tests a
// scripted one; storage never links a widget toolkit.
class ConflictAsker
{
public:
    virtual ~ConflictAsker() = default;
    virtual ConflictChoice ask(const ConflictSummary &summary) = 0;
};
