#pragma once

#include <QString>
#include <QUrl>

#include <cstddef>
#include <cstdint>
#include <optional>

// The outcome of one run of a modal folder chooser: confirmed or not, and the chosen
// folder's URL if the dialog gave one.
struct FolderChoice
{
    bool confirmed = false;
    std::optional<QUrl> url;
};

// What a paste holds, as the remote side's list tells it: its entries, files and folders,
// and the sum of the files' sizes when it could be told in time.
struct PasteContents
{
    std::size_t items = 0;
    std::optional<std::uint64_t> bytes;
    bool operator==(const PasteContents &) const = default;
};

// What the chooser is opened for, and where it opens.
struct FolderRequest
{
    PasteContents contents;
    QString startFolder;
    bool operator==(const FolderRequest &) const = default;
};

// The destination-folder dialog. The desktop layer supplies the real one, tests a
// scripted one; storage never links a widget toolkit.
class FolderChooser
{
public:
    virtual ~FolderChooser() = default;
    virtual FolderChoice runModal(const FolderRequest &request) = 0;
};
