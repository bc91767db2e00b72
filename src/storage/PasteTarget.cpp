#include "PasteTarget.h"

#include "UniqueFd.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kx {

const QString partialPrefix = QStringLiteral(".kx-clipboard-partial-");

FoundTarget existingTarget(const QString &base, const QStringList &components)
{
    UniqueFd folder(::open(QFile::encodeName(base).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (qsizetype i = 0; folder.valid() && i < components.size(); ++i) {
        const QByteArray name = QFile::encodeName(components.at(i));
        struct stat st {};
        if (::fstatat(folder.get(), name.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return {Existing::nothing, i};
        if (i + 1 == components.size())
            return {S_ISDIR(st.st_mode) ? Existing::folder : Existing::file, i};
        if (!S_ISDIR(st.st_mode))
            return {Existing::fileInTheWay, i};
        folder.reset(::openat(folder.get(), name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return {};
}

QString numberedName(const QString &name, int number, bool folder)
{
    const qsizetype dot = folder ? -1 : name.lastIndexOf(QLatin1Char('.'));
    QString stem = dot <= 0 ? name : name.left(dot);
    QString tail = QStringLiteral(" (%1)").arg(number) + (dot <= 0 ? QString() : name.mid(dot));
    // A name that already filled the file system's limit would not take the number: the
    // stem gives way, a whole character at a time. An extension too long to leave any
    // stem is taken as part of the stem.
    if (QFile::encodeName(tail).size() >= NAME_MAX) {
        stem = name;
        tail = QStringLiteral(" (%1)").arg(number);
    }
    const qsizetype room = NAME_MAX - QFile::encodeName(tail).size();
    while (!stem.isEmpty() && QFile::encodeName(stem).size() > room)
        stem.chop(stem.size() > 1 && stem.back().isLowSurrogate() && stem.at(stem.size() - 2).isHighSurrogate() ? 2 : 1);
    return stem + tail;
}

QString makePartialName()
{
    return partialPrefix + QString::number(::getpid()) + QLatin1Char('-')
        + QString::number(QRandomGenerator::global()->generate64(), 16);
}

} // namespace kx
