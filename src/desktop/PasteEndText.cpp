#include "PasteEndText.h"

#include <QDir>
#include <QLocale>

namespace {

QString size(std::uint64_t bytes)
{
    return QLocale().formattedDataSize(qint64(bytes));
}

QString quoted(const QString &name)
{
    return QStringLiteral("“%1”").arg(name);
}

} // namespace

// Why it ended, naming the file it was on where there was one.
QString PasteEndText::reason(const PasteReport &r)
{
    using Why = PasteReport::Why;
    const QString file = quoted(r.file), folder = quoted(QDir(r.folder).dirName());
    switch (r.why) {
    case Why::none:
        break;
    case Why::stopped:
        return r.file.isEmpty() ? tr("You stopped the paste.") : tr("You stopped the paste while %1 was being received.").arg(file);
    case Why::replaced:
        return tr("A newer paste took its place while %1 was being received.").arg(file);
    case Why::declined:
        return tr("You chose Cancel when asked about names that were already taken.");
    case Why::connectionLost:
        return tr("The connection to the remote desktop was lost. It comes back by itself: paste again once "
                  "the remote desktop offers the files again.");
    case Why::noAnswer:
        return tr("The remote desktop stopped answering for a minute while %1 was being received.").arg(file);
    case Why::notEnoughSpace:
        return tr("The paste needs %1, and only %2 are free on the disk of %3. Free some space, or choose "
                  "another folder.").arg(size(r.bytesNeeded), size(r.bytesFree), folder);
    case Why::diskFull:
        return tr("The disk of %1 became full while %2 was being written.").arg(folder, file);
    case Why::noPermission:
        return tr("%1 could not be written: you have no permission to write there.").arg(file);
    case Why::outsideFolder:
        return tr("The remote copy holds a name that would land outside the chosen folder (%1): it was "
                  "not written.").arg(file);
    case Why::cannotWrite:
        return tr("%1 could not be written: %2.").arg(file, r.detail);
    case Why::unreadable:
        return tr("The remote desktop sent data that could not be read.");
    case Why::remoteCopyChanged:
        return r.file.isEmpty() ? tr("Something else was copied on the remote desktop while you chose the folder, so "
                                     "nothing was pasted. Paste again to get what is copied now.")
                                : tr("Something else was copied on the remote desktop while %1 was being received, so "
                                     "the paste stopped rather than mix the two copies.").arg(file);
    case Why::insideRemoteFiles:
        return tr("%1 shows the files of the remote desktop themselves, and nothing can be pasted there. Choose "
                  "another folder.").arg(quoted(QDir(r.file).dirName()));
    case Why::tooManyFiles:
        return tr("The remote copy has more than 1,000,000 files: it is too large to paste.");
    }
    return QString();
}

QString PasteEndText::text(bool success, const PasteReport &r)
{
    const QString folder = quoted(QDir(r.folder).dirName());
    QStringList lines;
    if (success && r.filesSaved == 0 && r.filesSkipped) {
        lines << tr("Nothing new was saved in %1: every name was already taken there.").arg(folder);
    } else if (success) {
        lines << (r.filesSaved == 1 ? tr("1 file (%1) was saved in %2.").arg(size(r.bytesSaved), folder)
                                    : tr("%1 files (%2) were saved in %3.").arg(r.filesSaved).arg(size(r.bytesSaved), folder));
        if (r.filesReplaced)
            lines << (r.filesReplaced == 1 ? tr("One replaced the file of the same name that was there.")
                                           : tr("%1 replaced the files of the same names that were there.").arg(r.filesReplaced));
        if (r.filesRenamed)
            lines << (r.filesRenamed == 1 ? tr("One got a new name, as a file of the same name was already there.")
                                          : tr("%1 got new names, as files of the same names were already there.").arg(r.filesRenamed));
    } else {
        lines << reason(r);
        if (!r.folder.isEmpty() && r.why != PasteReport::Why::notEnoughSpace)
            lines << (r.filesSaved == 0 ? tr("No file was saved, and no half-written file was left.")
                      : r.filesSaved == 1 ? tr("1 file was saved in %1 before the paste ended; no half-written file was left.").arg(folder)
                                          : tr("%1 files were saved in %2 before the paste ended; no half-written file was left.")
                                                .arg(r.filesSaved).arg(folder));
    }
    if (r.filesSkipped)
        lines << (r.filesSkipped == 1 ? tr("1 file was skipped: the one you had stays as it was.")
                                      : tr("%1 files were skipped: the ones you had stay as they were.").arg(r.filesSkipped));
    return lines.join(QLatin1Char('\n'));
}
