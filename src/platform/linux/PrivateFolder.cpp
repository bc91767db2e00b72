#include "PrivateFolder.h"

#include <QFile>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

bool kx::makePrivateFolder(const QString &path)
{
    const QByteArray encoded = QFile::encodeName(path);
    struct stat st {};
    return (::mkdir(encoded.constData(), 0700) == 0 || errno == EEXIST) && ::lstat(encoded.constData(), &st) == 0
        && S_ISDIR(st.st_mode) && st.st_uid == ::getuid() && !(st.st_mode & 0077);
}
