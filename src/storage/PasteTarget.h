#pragma once

#include <QString>
#include <QStringList>

// Where a pasted file lands beneath the chosen folder, and what is there already. Nothing
// is followed: a link is something in the way, never a way through.
namespace kx {

enum class Existing {
    nothing,     // the name is free
    file,        // a file or a link has the file's name
    folder,      // a folder has the file's name
    fileInTheWay // a file or a link has the name of a folder the path needs
};

struct FoundTarget
{
    Existing what = Existing::nothing;
    qsizetype depth = 0; // the component where it was found
};

FoundTarget existingTarget(const QString &base, const QStringList &components);

// "report (2).pdf" for "report.pdf" and 2; a folder or a name without an extension gets
// the number at its end. Its stem is shortened as far as NAME_MAX needs.
QString numberedName(const QString &name, int number, bool folder = false);

// Hidden files in which a paste writes until a file is complete; PartialJournal knows
// which are ours.
extern const QString partialPrefix;
QString makePartialName();

} // namespace kx
