#pragma once

#include "FolderChooser.h"

#include <functional>

// A folder chooser whose answer the test sets; it counts how often it was opened and can
// run a hook while "open", as a real modal dialog runs a nested event loop.
class ScriptedChooser : public FolderChooser
{
public:
    FolderChoice answer;
    int runs = 0;
    std::function<void()> whileOpen;

    FolderChoice runModal() override
    {
        ++runs;
        if (whileOpen)
            whileOpen();
        return answer;
    }

    static FolderChoice choose(const QString &folder) { return FolderChoice{true, QUrl::fromLocalFile(folder)}; }
};
