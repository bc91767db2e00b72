#pragma once

#include "FileSystemHost.h"
#include "MountSlot.h"

#include <QObject>
#include <QPointer>
#include <QSocketNotifier>

#include <map>
#include <memory>
#include <vector>

#include "RemoteFiles.h"

struct fuse_session;
struct fuse_req;

// The remote copies as a FUSE file system, read-only and seen by this user only, served
// on the main loop: the session's descriptor is non-blocking and watched, requests are
// taken until none waits, and a read is answered when its ranges have come. One mount a
// run, at a folder of its own beside those of the user's other companions (MountSlot).
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
    void receive();
    void stop();

    QPointer<RemoteFiles> m_files;
    MountSlot m_slot; // its lock goes with this object, after the mount
    QString m_path;
    fuse_session *m_session = nullptr;
    std::unique_ptr<QSocketNotifier> m_notifier;
    void *m_buffer = nullptr;      // libfuse's request buffer, reused
    std::map<fuse_req *, std::uint64_t> m_reads; // reads waiting for their ranges
    std::map<std::uint64_t, std::vector<RemoteFiles::Entry>> m_folders; // listings of open folders
    std::uint64_t m_folderCounter = 0;
};
