#pragma once

#include <QCborMap>
#include <QString>

#include <cstdint>

// One fixed-size piece of a file, as cut by KXFileStreamOperation::cutFileForFragments.
class KXFileFragment
{
public:
    QString fragmentId;
    std::uint64_t fragmentSize = 0;
    std::uint64_t fragementOffset = 0;
    std::int64_t fragmentStatus = 0;

    QCborMap encode() const;
    static KXFileFragment decode(const QCborMap &archive);

    bool operator==(const KXFileFragment &) const = default;
};
