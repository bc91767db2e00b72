#pragma once

class FrameSink;
class KXFileManager;
class PasteboardAccess;

// What the session engine talks to, handed in rather than reached through singletons:
// the connection, the file manager (folder chooser, attributes) and the local pasteboard.
struct EngineContext
{
    FrameSink &connection;
    KXFileManager &files;
    PasteboardAccess &pasteboard;

    // The companion's own: the shared socket manager and file manager.
    static EngineContext shared(PasteboardAccess &pasteboard);
};
