#pragma once

#include "FolderChooser.h"

class QtFolderChooser : public FolderChooser
{
public:
    FolderChoice runModal(const FolderRequest &request) override;
};
