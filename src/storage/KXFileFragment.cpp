#include "KXFileFragment.h"

QCborMap KXFileFragment::encode() const
{
    QCborMap archive;
    archive.insert(QStringLiteral("fragmentId"), fragmentId);
    archive.insert(QStringLiteral("fragmentSize"), qint64(fragmentSize));
    archive.insert(QStringLiteral("fragementOffset"), qint64(fragementOffset));
    archive.insert(QStringLiteral("fragmentStatus"), qint64(fragmentStatus));
    return archive;
}

KXFileFragment KXFileFragment::decode(const QCborMap &archive)
{
    KXFileFragment fragment;
    fragment.fragmentId = archive.value(QStringLiteral("fragmentId")).toString();
    fragment.fragmentSize = std::uint64_t(archive.value(QStringLiteral("fragmentSize")).toInteger());
    fragment.fragementOffset = std::uint64_t(archive.value(QStringLiteral("fragementOffset")).toInteger());
    fragment.fragmentStatus = archive.value(QStringLiteral("fragmentStatus")).toInteger();
    return fragment;
}
