#pragma once

#include "FileSystemHost.h"
#include "MountSlot.h"

#include <QObject>

#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "RemoteFiles.h"

struct fuse_session;
struct fuse_req;

// The remote copies as a FUSE file system, read-only and seen by this user only. Requests
// are taken by a thread of the mount's own, which answers at once whatever needs no remote
// bytes (names, attributes, listings, opening and closing) from the copies' trees; reads
// go to the event loop, and are answered when their ranges have come. So the companion
// never waits on its own files: a stat of them from the event loop, through a link or any
// other path, is answered meanwhile. One mount a run, at a folder of its own beside those
// of the user's other companions (MountSlot).
class FuseMount : public QObject, public FileSystemHost
{
public:
    explicit FuseMount(QObject *parent = nullptr);
    ~FuseMount() override;

    bool serve(RemoteFiles &files, QString &whyNot) override;
    QString path() const override { return m_session ? m_path : QString(); }

    // $XDG_RUNTIME_DIR/kx-clipboard, else a private folder of this user's in /tmp.
    static QString place();

private:
    struct Ops;
    struct PendingRead
    {
        std::uint64_t id = 0; // 0 until the event loop has taken it
        bool interrupted = false;
    };
    void receive(); // on the mount's thread
    void startRead(fuse_req *req, std::uint64_t handle, std::uint64_t offset, std::size_t size);
    void stop();

    RemoteFiles *m_files = nullptr; // set while the mount's thread runs
    MountSlot m_slot; // its lock goes with this object, after the mount
    QString m_path;
    fuse_session *m_session = nullptr;
    std::thread m_thread;
    int m_wake = -1;               // tells the mount's thread to end
    void *m_buffer = nullptr;      // libfuse's request buffer, reused by the mount's thread
    std::mutex m_readsLock;
    std::map<fuse_req *, PendingRead> m_reads; // reads not answered yet
    // Listings of open folders: the mount's thread's alone.
    std::map<std::uint64_t, std::vector<RemoteFiles::Entry>> m_folders;
    std::uint64_t m_folderCounter = 0;
};
