#pragma once

#include "FolderChooser.h"

#include <QCoreApplication>

// A paste's or a copy's contents in the words the tray menu, the notifications and the
// folder chooser share.
class ContentsText
{
    Q_DECLARE_TR_FUNCTIONS(ContentsText)
public:
    // "1 item", "808 items"
    static QString items(std::size_t count);
    // "639.47 MiB"
    static QString size(std::uint64_t bytes);
    // "3 items (12 MiB)"
    static QString itemsOfSize(std::size_t count, std::uint64_t bytes);
};
