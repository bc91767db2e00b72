#pragma once

#include "RangeReads.h"
#include "RemoteTree.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QTimer>
#include <QUrl>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

// The remote copies as a read-only file system, whatever serves it to the desktop: a
// folder per remote copy beneath the root, the copy's tree beneath it, and reads that
// fetch the files' bytes through range queries as they are read.
//
// A newer copy gets a new folder. An older one stays readable while files of it are open,
// and for a while after its last read; then it goes. A lost connection takes every copy
// at once.
//
// The file system's questions that need no remote bytes (lookup, attributes, list, open,
// release) may be asked from a thread of its own: a process of this user's, this one
// included, that looks at the files never waits for the event loop. Everything else, reads
// included, runs on the thread the object lives on.
class RemoteFiles : public QObject
{
    Q_OBJECT
public:
    static constexpr std::uint64_t rootInode = 1;
    static constexpr int defaultLingerMs = 60000;
    static constexpr int sliceMs = 50;
    // More top-level entries than a clipboard sensibly carries: the copy's folder is offered.
    static constexpr std::size_t maxOfferedUrls = 10000;
    // Older copies kept at the most, however fast newer ones come.
    static constexpr std::size_t maxLingering = 4;

    struct Attributes
    {
        std::uint64_t inode = 0;
        bool folder = true;
        std::uint64_t size = 0;
        timespec modified{};
    };
    struct Entry
    {
        QByteArray name;
        Attributes attributes;
    };

    RemoteFiles(int window, RangeReads::Send send, QObject *parent = nullptr);
    ~RemoteFiles() override;

    // Where the desktop sees the root, and the device its files are on; the copies' URLs
    // are made from the path.
    void setMountPath(const QString &path, std::uint64_t device = 0) { m_mountPath = path, m_mountDevice = device; }
    const QString &mountPath() const { return m_mountPath; }
    std::uint64_t mountDevice() const { return m_mountDevice; }
    // Whether the file is one of these, however its path reaches it (a link, "/./", a bind
    // mount): such a file is never read by this thread, which would wait on itself.
    bool isUnderMount(const QUrl &url) const;

    // The engine's side.
    void addCopy(DescriptorList list);
    // The remote clipboard holds something else now: the current copy starts to linger.
    void retireCopy();
    void connectionLost();
    bool handleReply(const FileSDK::CliprdrFileContentsResponse &reply) { return m_reads.handleReply(reply); }
    // A newer remote copy was announced: nothing is fetched until its list is compared.
    void setHeld(bool held) { m_reads.setHeld(held); }
    // The files of every copy not the same in the newer list (all, without one) are read no
    // further: what the cache holds of them whole stays readable, the rest fails with EIO.
    void compareWith(const DescriptorList *newer);

    // The file system's side; errors are errno values.
    std::optional<Attributes> lookup(std::uint64_t parent, const QByteArray &name) const;
    std::optional<Attributes> attributes(std::uint64_t inode) const;
    int list(std::uint64_t inode, std::vector<Entry> &entries) const;
    int open(std::uint64_t inode, std::uint64_t &handle);
    // Answers now and returns 0, or later and returns an id that cancel() takes.
    std::uint64_t read(std::uint64_t handle, std::uint64_t offset, std::size_t size, RangeReads::Reply reply);
    void cancelRead(std::uint64_t readId, int error) { m_reads.cancel(readId, error); }
    void release(std::uint64_t handle);
    // Every read waiting is answered with the error: the file system is going.
    void failAllReads(int error) { m_reads.failAll(error); }

    void setLinger(int ms) { m_lingerMs = ms; }
    void setStallTimeout(int ms) { m_reads.setStallTimeout(ms); }
    std::size_t copies() const { return m_copies.size(); }
    const RangeReads &reads() const { return m_reads; }

signals:
    // A copy is laid out: its top-level entries, to be offered on the clipboard.
    void copyReady(const QList<QUrl> &topLevel);
    // The copies are gone: whatever the clipboard offers of them must go too.
    void copiesGone();
    // Told first thing when this object goes: no other thread may ask it anything after.
    void closing();

private:
    struct Copy
    {
        std::unique_ptr<RemoteTree> tree;
        int handles = 0;
        bool current = true;
        mutable bool used = false; // the file system has looked at it: it lingers longer when retired
        QElapsedTimer lastUse;
        std::vector<bool> changed; // by list entry, once a newer copy differs there
        bool allChanged = false;
    };
    struct Handle
    {
        std::uint64_t copy = 0;
        std::uint32_t node = 0;
    };

    static std::uint64_t inodeOf(std::uint64_t copy, std::uint32_t node) { return (copy << 32) | node; }
    bool isChanged(std::uint64_t inode) const;
    const Copy *copyOf(std::uint64_t inode) const;
    Attributes attributesOf(std::uint64_t copy, std::uint32_t node) const;
    void buildLater(std::uint64_t serial);
    void collect();

    RangeReads m_reads;
    // Held by the file system's thread while it answers, and by this one while it changes
    // what that thread reads; never while waiting on anything else.
    mutable std::recursive_mutex m_lock;
    QString m_mountPath;
    std::uint64_t m_mountDevice = 0;
    std::map<std::uint64_t, Copy> m_copies; // by serial, from 1
    std::uint64_t m_serial = 0;
    std::map<std::uint64_t, Handle> m_handles;
    std::uint64_t m_handleCounter = 0;
    int m_lingerMs = defaultLingerMs;
    QTimer m_collect;
    std::size_t m_leftOutLogged = 0;
};
