// Any remote name the containment check lets through must map inside the base folder,
// whatever its separators, dots and characters.
#include "KXFileStreamOperation.h"
#include "RemotePath.h"

#include <QDir>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QString name = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    if (!kx::isContainedRemotePath(name))
        return 0;
    const QString base = QStringLiteral("/base/chosen");
    const QString mapped = QDir::cleanPath(KXFileStreamOperation::getFullPathWithWindowsPath(name, base));
    if (mapped != base && !mapped.startsWith(base + QLatin1Char('/')))
        std::abort();
    return 0;
}
