#pragma once

#include "PasteboardAccess.h"

class FakePasteboard : public PasteboardAccess
{
public:
    int clears = 0;
    void clearContents() override { ++clears; }
};
