#pragma once

#include "FolderChooser.h"

#include <optional>

// The remote clipboard as this side knows it: whether it holds files, and, once a paste
// of them has read their list, how many and how big. The announcement of a copy carries
// no count.
struct RemoteOffer
{
    bool files = false;
    std::optional<PasteContents> contents;
    bool operator==(const RemoteOffer &) const = default;
};
