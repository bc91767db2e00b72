#pragma once

#include <QUrl>

#include <optional>

// The outcome of one run of a modal folder chooser: confirmed or not, and the chosen
// folder's URL if the dialog gave one.
struct FolderChoice
{
    bool confirmed = false;
    std::optional<QUrl> url;
};

// The destination-folder dialog. The desktop layer supplies the real one, tests a
// scripted one; storage never links a widget toolkit.
class FolderChooser
{
public:
    virtual ~FolderChooser() = default;
    virtual FolderChoice runModal() = 0;
};
