#pragma once

#include "FolderChooser.h"

#include <QCoreApplication>

// A paste's contents in the words the tray menu and the folder chooser share.
class ContentsText
{
    Q_DECLARE_TR_FUNCTIONS(ContentsText)
public:
    // "1 item", "808 items"
    static QString items(std::size_t count);
    // "639.47 MiB"
    static QString size(std::uint64_t bytes);
};
