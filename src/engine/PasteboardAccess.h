#pragma once

// What the engine needs of the local pasteboard: a remote copy empties it, so that a
// local paste does not offer stale local content while remote files are announced.
class PasteboardAccess
{
public:
    virtual ~PasteboardAccess() = default;
    virtual void clearContents() = 0;
};

// For an engine with no desktop to clear: benchmarks, the soak, fuzzing.
class NoPasteboard : public PasteboardAccess
{
public:
    void clearContents() override {}
};
