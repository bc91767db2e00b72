#pragma once

#include "PasteboardAccess.h"

#include <QList>
#include <QUrl>

#include <cstdint>
#include <optional>

// The system-wide copy-and-paste board. The change count rises whenever any
// application, this one included, writes to it.
class Pasteboard : public PasteboardAccess
{
public:
    virtual std::int64_t changeCount() const = 0;
    // The URLs on the board in order; empty when it holds none; nothing on a read error.
    virtual std::optional<QList<QUrl>> readUrls() const = 0;
    // The board holds the remote files this process offers: no local copy to announce.
    virtual bool holdsOfferedFiles() const { return false; }
};
