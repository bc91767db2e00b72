#pragma once

#include "ConflictAsker.h"

// The question about a paste's taken names, as a dialog: keep both is the default, and
// Escape cancels the paste.
class QtConflictAsker : public ConflictAsker
{
public:
    ConflictChoice ask(const ConflictSummary &summary) override;
};
