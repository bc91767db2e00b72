#pragma once

#include <QString>

class RemoteFiles;

// Serves the remote copies as files the desktop's file manager can paste: a file system
// of the companion's own, at a folder of its own.
class FileSystemHost
{
public:
    virtual ~FileSystemHost() = default;
    // Starts serving; false, with the reason in words for the log, where it cannot.
    virtual bool serve(RemoteFiles &files, QString &whyNot) = 0;
    // Where the files are seen; empty while nothing is served.
    virtual QString path() const = 0;
};
