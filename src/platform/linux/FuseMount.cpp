#include "FuseMount.h"

#include "PlatformLog.h"
#include "PrivateFolder.h"

#define FUSE_USE_VERSION 312
#include <fuse3/fuse_lowlevel.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <limits>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

FuseMount *mountOf(fuse_req_t req)
{
    return static_cast<FuseMount *>(fuse_req_userdata(req));
}

struct stat statOf(const RemoteFiles::Attributes &a)
{
    struct stat st {};
    st.st_ino = a.inode;
    st.st_mode = a.folder ? (S_IFDIR | 0755) : (S_IFREG | 0644);
    st.st_nlink = a.folder ? 2 : 1;
    st.st_size = off_t(std::min<std::uint64_t>(a.size, std::numeric_limits<off_t>::max()));
    st.st_blksize = 1 << 20; // copying programs size their buffers by it
    st.st_blocks = blkcnt_t((a.size + 511) / 512);
    st.st_atim = st.st_mtim = st.st_ctim = a.modified;
    st.st_uid = ::getuid();
    st.st_gid = ::getgid();
    return st;
}

// The remote copies change: what the kernel keeps of names and attributes is kept briefly.
constexpr double cacheSeconds = 1.0;

// SIGTERM, SIGINT and SIGHUP end the event loop, so that the mount is undone on the way
// out rather than left behind. Should the loop not end within seconds, whatever holds it,
// a guard thread undoes the mount and ends the process: asked to end, it always ends.
int quitPipe[2] = {-1, -1};
int guardPipe[2] = {-1, -1};
constexpr int quitGraceMs = 10000;

void quitOnSignal(int)
{
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(quitPipe[1], &byte, 1);
    [[maybe_unused]] const ssize_t guarded = ::write(guardPipe[1], &byte, 1);
}

void guardQuit(std::string path)
{
    char byte = 0;
    while (::read(guardPipe[0], &byte, 1) < 0 && errno == EINTR) {
    }
    ::poll(nullptr, 0, quitGraceMs);
    if (const pid_t child = ::fork(); child == 0) {
        ::execlp("fusermount3", "fusermount3", "-u", "-z", path.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    } else if (child > 0) {
        ::waitpid(child, nullptr, 0);
    }
    ::umount2(path.c_str(), MNT_DETACH); // as root, without the helper
    ::_exit(1);
}

void installQuitSignals(QObject *owner, const QString &mountPath)
{
    if (quitPipe[0] >= 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, quitPipe) != 0
        || ::pipe2(guardPipe, O_CLOEXEC) != 0)
        return;
    auto *notifier = new QSocketNotifier(quitPipe[0], QSocketNotifier::Read, owner);
    QObject::connect(notifier, &QSocketNotifier::activated, owner, [] {
        qCInfo(lcPlatform).noquote() << "asked to end: the remote files' mount is undone first";
        QCoreApplication::quit();
    });
    std::thread(guardQuit, QFile::encodeName(mountPath).toStdString()).detach();
    struct sigaction action {};
    action.sa_handler = quitOnSignal;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(signal, &action, nullptr);
}

} // namespace

struct FuseMount::Ops
{
    static void lookup(fuse_req_t req, fuse_ino_t parent, const char *name)
    {
        const auto found = mountOf(req)->m_files->lookup(parent, QByteArray(name));
        if (!found)
            return void(fuse_reply_err(req, ENOENT));
        fuse_entry_param entry{};
        entry.ino = found->inode;
        entry.attr = statOf(*found);
        entry.attr_timeout = entry.entry_timeout = cacheSeconds;
        fuse_reply_entry(req, &entry);
    }

    static void forget(fuse_req_t req, fuse_ino_t, uint64_t) { fuse_reply_none(req); }
    static void forgetMulti(fuse_req_t req, size_t, fuse_forget_data *) { fuse_reply_none(req); }

    static void getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info *)
    {
        const auto found = mountOf(req)->m_files->attributes(ino);
        if (!found)
            return void(fuse_reply_err(req, ENOENT));
        const struct stat st = statOf(*found);
        fuse_reply_attr(req, &st, cacheSeconds);
    }

    static void opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi)
    {
        FuseMount *self = mountOf(req);
        std::vector<RemoteFiles::Entry> entries{{".", {ino, true, 0, {}}}, {"..", {RemoteFiles::rootInode, true, 0, {}}}};
        if (const int error = self->m_files->list(ino, entries))
            return void(fuse_reply_err(req, error));
        // A listing is taken once, when the folder is opened: read piece by piece, it
        // would otherwise be made again for every piece.
        fi->fh = ++self->m_folderCounter;
        self->m_folders[fi->fh] = std::move(entries);
        fuse_reply_open(req, fi);
    }

    static void readdir(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info *fi)
    {
        const auto found = mountOf(req)->m_folders.find(fi->fh);
        if (found == mountOf(req)->m_folders.end())
            return void(fuse_reply_err(req, EBADF));
        std::vector<char> buffer(size);
        std::size_t used = 0;
        for (std::size_t i = std::size_t(std::max<off_t>(offset, 0)); i < found->second.size(); ++i) {
            const RemoteFiles::Entry &entry = found->second[i];
            struct stat st {};
            st.st_ino = entry.attributes.inode;
            st.st_mode = entry.attributes.folder ? S_IFDIR : S_IFREG;
            const std::size_t needed = fuse_add_direntry(req, buffer.data() + used, size - used, entry.name.constData(), &st,
                                                         off_t(i + 1));
            if (needed > size - used)
                break;
            used += needed;
        }
        fuse_reply_buf(req, buffer.data(), used);
    }

    static void releasedir(fuse_req_t req, fuse_ino_t, fuse_file_info *fi)
    {
        mountOf(req)->m_folders.erase(fi->fh);
        fuse_reply_err(req, 0);
    }

    static void open(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi)
    {
        if ((fi->flags & O_ACCMODE) != O_RDONLY)
            return void(fuse_reply_err(req, EROFS));
        std::uint64_t handle = 0;
        if (const int error = mountOf(req)->m_files->open(ino, handle))
            return void(fuse_reply_err(req, error));
        fi->fh = handle;
        fi->direct_io = 1; // every read reaches us: the kernel's cache would only hold a copy
        fi->keep_cache = 0;
        if (fuse_reply_open(req, fi) != 0)
            mountOf(req)->m_files->release(handle); // the opener is gone already
    }

    // The bytes come through the event loop; a reader that gives up is answered at once.
    static void read(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info *fi)
    {
        FuseMount *self = mountOf(req);
        {
            const std::lock_guard lock(self->m_readsLock);
            self->m_reads[req] = PendingRead();
        }
        fuse_req_interrupt_func(req, interrupted, self);
        QMetaObject::invokeMethod(self, [self, req, handle = fi->fh, at = std::uint64_t(std::max<off_t>(offset, 0)), size] {
            self->startRead(req, handle, at, size);
        }, Qt::QueuedConnection);
    }

    // Answered by the event loop, not here: libfuse may call this while it holds the
    // request, which an answer would free under it.
    static void interrupted(fuse_req_t req, void *data)
    {
        auto *self = static_cast<FuseMount *>(data);
        const std::lock_guard lock(self->m_readsLock);
        const auto found = self->m_reads.find(req);
        if (found == self->m_reads.end())
            return;
        found->second.interrupted = true;
        if (const std::uint64_t id = found->second.id)
            QMetaObject::invokeMethod(self, [self, id] {
                if (self->m_files)
                    self->m_files->cancelRead(id, EINTR);
            }, Qt::QueuedConnection);
    }

    static void release(fuse_req_t req, fuse_ino_t, fuse_file_info *fi)
    {
        mountOf(req)->m_files->release(fi->fh);
        fuse_reply_err(req, 0);
    }
};

FuseMount::FuseMount(QObject *parent)
    : QObject(parent)
{
}

// On the event loop. A read still waiting when the mount stops was answered by the stop.
void FuseMount::startRead(fuse_req *req, std::uint64_t handle, std::uint64_t offset, std::size_t size)
{
    {
        const std::lock_guard lock(m_readsLock);
        if (!m_files || !m_reads.count(req))
            return;
    }
    const std::uint64_t id = m_files->read(handle, offset, size, [this, req](int error, const RangeReads::Pieces &data) {
        {
            const std::lock_guard lock(m_readsLock);
            if (!m_reads.erase(req))
                return;
        }
        if (error)
            return void(fuse_reply_err(req, error));
        std::vector<iovec> iov;
        for (const QByteArrayView piece : data)
            iov.push_back({const_cast<char *>(piece.data()), std::size_t(piece.size())});
        fuse_reply_iov(req, iov.data(), int(iov.size()));
    });
    if (!id)
        return;
    std::unique_lock lock(m_readsLock);
    const auto found = m_reads.find(req);
    if (found == m_reads.end())
        return;
    found->second.id = id;
    if (found->second.interrupted) {
        lock.unlock();
        m_files->cancelRead(id, EINTR);
    }
}

FuseMount::~FuseMount()
{
    stop();
}

QString FuseMount::place()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QDir::isAbsolutePath(runtime))
        return runtime + QStringLiteral("/kx-clipboard");
    return QStringLiteral("/tmp/kx-clipboard-%1").arg(::getuid());
}

bool FuseMount::serve(RemoteFiles &files, QString &whyNot)
{
    if (m_session)
        return true;
    const int device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) {
        whyNot = QStringLiteral("/dev/fuse cannot be opened (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    ::close(device);
    if (::getuid() != 0 && QStandardPaths::findExecutable(QStringLiteral("fusermount3")).isEmpty()) {
        whyNot = QStringLiteral("fusermount3 is not installed (the package fuse3)");
        return false;
    }
    // The folder is this user's alone: made so, or found so; never followed if a link.
    // Each companion of the user's mounts a folder of its own in it.
    const QString folder = place();
    if (!kx::makePrivateFolder(folder)) {
        whyNot = QStringLiteral("%1 is not a private folder of this user's").arg(folder);
        return false;
    }
    if (!m_slot.take(folder, whyNot))
        return false;
    m_path = m_slot.path();

    static fuse_lowlevel_ops ops = [] {
        fuse_lowlevel_ops o{};
        o.lookup = Ops::lookup;
        o.forget = Ops::forget;
        o.forget_multi = Ops::forgetMulti;
        o.getattr = Ops::getattr;
        o.opendir = Ops::opendir;
        o.readdir = Ops::readdir;
        o.releasedir = Ops::releasedir;
        o.open = Ops::open;
        o.read = Ops::read;
        o.release = Ops::release;
        return o;
    }();
    const char *argv[] = {"kx-clipboard", "-o", "ro,nosuid,nodev,noexec,default_permissions,fsname=kx-clipboard,subtype=kx-clipboard"};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char **>(argv));
    m_session = fuse_session_new(&args, &ops, sizeof ops, this);
    fuse_opt_free_args(&args); // the parser keeps a copy of what it did not take
    if (!m_session) {
        m_slot.release();
        whyNot = QStringLiteral("the FUSE session could not be made");
        return false;
    }
    if (fuse_session_mount(m_session, QFile::encodeName(m_path).constData()) != 0) {
        fuse_session_destroy(m_session);
        m_session = nullptr;
        m_slot.release();
        whyNot = QStringLiteral("%1 could not be mounted").arg(m_path);
        return false;
    }
    const int fd = fuse_session_fd(m_session);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    m_wake = ::eventfd(0, EFD_CLOEXEC);
    m_files = &files;
    connect(&files, &RemoteFiles::closing, this, &FuseMount::stop, Qt::DirectConnection);
    m_thread = std::thread([this] { receive(); });
    // Asked of the mount's thread, which answers it: the device tells our files however
    // their path is written.
    struct stat root {};
    files.setMountPath(m_path, ::stat(QFile::encodeName(m_path).constData(), &root) == 0 ? std::uint64_t(root.st_dev) : 0);
    installQuitSignals(this, m_path);
    qCInfo(lcPlatform).noquote() << "the remote files are served at" << m_path;
    return true;
}

// The mount's thread: requests are taken as they come until the mount stops, or is
// undone from outside, which the event loop is then told.
void FuseMount::receive()
{
    pollfd watched[] = {{fuse_session_fd(m_session), POLLIN, 0}, {m_wake, POLLIN, 0}};
    for (;;) {
        if (::poll(watched, 2, -1) < 0 && errno != EINTR)
            break;
        if (watched[1].revents)
            return;
        fuse_buf buffer{};
        buffer.mem = m_buffer;
        const int received = fuse_session_receive_buf(m_session, &buffer);
        m_buffer = buffer.mem;
        if (received == -EAGAIN || received == -EINTR)
            continue;
        if (received <= 0 || fuse_session_exited(m_session))
            break;
        fuse_session_process_buf(m_session, &buffer);
    }
    QMetaObject::invokeMethod(this, [this] {
        qCInfo(lcPlatform).noquote() << "the remote files' mount was undone from outside";
        stop();
    }, Qt::QueuedConnection);
}

void FuseMount::stop()
{
    if (!m_session)
        return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t woken = ::write(m_wake, &one, sizeof one);
    m_thread.join();
    ::close(std::exchange(m_wake, -1));
    // No reader is left waiting on a mount that goes.
    m_files->failAllReads(EIO);
    std::map<fuse_req *, PendingRead> untaken;
    {
        const std::lock_guard lock(m_readsLock);
        untaken.swap(m_reads);
    }
    for (const auto &[req, read] : untaken)
        fuse_reply_err(req, EIO);
    fuse_session_unmount(m_session);
    fuse_session_destroy(m_session);
    m_session = nullptr;
    ::free(m_buffer);
    m_buffer = nullptr;
    m_folders.clear();
    m_files->setMountPath({});
    disconnect(m_files, nullptr, this, nullptr);
    m_files = nullptr;
    qCInfo(lcPlatform).noquote() << "the remote files' mount is undone:" << m_path;
}
