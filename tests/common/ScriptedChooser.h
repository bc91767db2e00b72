#pragma once

#include "FolderChooser.h"

#include <QList>

#include <algorithm>
#include <functional>
#include <utility>

// A folder chooser whose answer the test sets; it counts how often it was opened and can
// run a hook while "open", as a real modal dialog runs a nested event loop.
class ScriptedChooser : public FolderChooser
{
public:
    FolderChoice answer;
    int runs = 0;
    int depth = 0;
    int maxDepth = 0;
    std::function<void()> whileOpen; // runs once, at the next opening
    QList<FolderChoice> laterAnswers; // answers for the openings after this one

    FolderChoice runModal() override
    {
        ++runs;
        maxDepth = std::max(maxDepth, ++depth);
        if (auto hook = std::exchange(whileOpen, nullptr))
            hook();
        --depth;
        const FolderChoice result = answer;
        if (!laterAnswers.isEmpty())
            answer = laterAnswers.takeFirst();
        return result;
    }

    static FolderChoice choose(const QString &folder) { return FolderChoice{true, QUrl::fromLocalFile(folder)}; }
};
