#pragma once

#include "filesdk.pb.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <vector>

// Reads of remote files, answered from a small cache of ranges of one chunk each, which
// range queries fill through the window: at most `window` queries outstanding, the
// chunks a read waits for asked first, then up to `window` chunks beyond the furthest
// read (read-ahead). Memory stays bounded: a few MiB a file, 64 MiB in all. No read waits
// for ever: one not answered whole within the stall time fails with EIO, however many
// small replies came meanwhile.
//
// Replies are held to their own query and to the announced size, as in a paste: a reply
// longer than asked fails the file's reads; a short one is completed by asking for the
// rest; an empty one is asked again after a wait.
class RangeReads : public QObject
{
public:
    static constexpr std::uint32_t chunkSize = 262144;
    static constexpr std::size_t maxChunks = 256; // 64 MiB
    static constexpr int retryWaitMs = 600;
    static constexpr int defaultStallMs = 30000;
    static constexpr int defaultKeepClosedMs = 10000;
    static constexpr std::size_t streamingReadSize = 65536;
    // Stream ids of file reads have the top bit set; a paste's never do.
    static constexpr std::uint32_t streamBit = 0x80000000u;

    // The bytes of a read, as they lie in the cache: valid while the reply runs. Handed on
    // in pieces, a read of a MiB is not first copied into one array.
    using Pieces = std::vector<QByteArrayView>;
    using Reply = std::function<void(int error, const Pieces &data)>;
    using Send = std::function<void(std::uint32_t streamId, std::uint32_t listIndex, std::uint64_t offset,
                                    std::uint32_t length)>;
    struct FileRef
    {
        std::uint64_t key = 0; // one per file, whichever handle reads it
        std::uint32_t listIndex = 0;
        std::uint64_t size = 0;
        QByteArray name; // for the log
    };

    RangeReads(int window, Send send, QObject *parent = nullptr);
    ~RangeReads() override;

    // Answers now (and returns 0) when the cache holds the bytes; else later, and returns
    // the read's id, by which it can be cancelled.
    // fetch false: only what the cache holds whole is answered, anything else fails.
    std::uint64_t read(const FileRef &file, std::uint64_t offset, std::size_t size, Reply reply, bool fetch = true);
    void cancel(std::uint64_t readId, int error);
    // The file's last handle is closed: reads waiting fail, and its cache goes after a while.
    void forget(std::uint64_t key);
    // Every read waiting is answered with the error, and everything is dropped.
    void failAll(int error);
    // False if the reply is no file read's.
    bool handleReply(const FileSDK::CliprdrFileContentsResponse &reply);
    // Held, nothing is asked for and replies are kept aside, until it is known which files
    // are still the remote side's; those that are not fail for good, what they hold whole
    // stays readable.
    void setHeld(bool held);
    void failChanged(const std::function<bool(std::uint64_t key)> &changed);

    void setStallTimeout(int ms);
    void setKeepClosed(int ms) { m_keepClosedMs = ms; }
    std::size_t cachedChunks() const { return m_chunkCount; }
    std::size_t outstanding() const { return m_outstanding.size(); }
    std::size_t aheadLimit() const;
    std::size_t perFileLimit() const { return aheadLimit() + 8; }

private:
    enum class State { wanted, asked, complete };
    struct Chunk
    {
        State state = State::wanted;
        QByteArray data;
    };
    struct Waiting
    {
        std::uint64_t id = 0;
        std::uint64_t offset = 0;
        std::uint64_t end = 0;
        Reply reply;
        QDeadlineTimer due;
    };
    struct File
    {
        FileRef ref;
        std::map<std::uint64_t, Chunk> chunks;
        std::uint64_t furthest = 0; // the end of the furthest read
        std::vector<Waiting> waiting;
        bool failed = false;
        bool streaming = false; // read in large or consecutive pieces: worth reading ahead
        bool closed = false;
        QElapsedTimer closedSince;
    };
    struct Query
    {
        std::uint64_t key = 0;
        std::uint64_t chunk = 0;
        std::uint64_t offset = 0;
        std::uint32_t length = 0;
        bool retrying = false;
        bool keptAside = false;
    };

    std::uint64_t chunkLength(const File &file, std::uint64_t chunk) const;
    bool want(File &file, std::uint64_t chunk, bool first);
    void readAhead(File &file);
    bool makeRoom(File &file);
    void makeRoomAnywhere();
    bool isWaitedFor(const File &file, std::uint64_t chunk) const;
    void dispatch();
    void ask(std::uint32_t streamId, const Query &query);
    void serve(File &file);
    Pieces pieces(const File &file, std::uint64_t offset, std::uint64_t end) const;
    void failWaiting(File &file, int error, bool forGood);
    void abandon(std::uint64_t key);
    void dropChunk(File &file, std::map<std::uint64_t, Chunk>::iterator chunk);
    void checkStalls();
    void retryLater(std::uint32_t streamId);
    bool whole(const File &file, std::uint64_t offset, std::uint64_t end) const;
    void dropClosed();
    std::uint32_t nextStreamId();

    const int m_window;
    Send m_send;
    int m_stallMs = defaultStallMs;
    QTimer m_stallCheck;
    int m_keepClosedMs = defaultKeepClosedMs;
    QTimer m_closedCheck;
    std::map<std::uint64_t, File> m_files;
    std::deque<std::pair<std::uint64_t, std::uint64_t>> m_queue; // chunks to ask for, by file key
    std::map<std::uint32_t, Query> m_outstanding;
    std::set<std::uint32_t> m_abandoned; // their replies may still come; they are dropped
    std::size_t m_chunkCount = 0;
    bool m_held = false;
    std::vector<FileSDK::CliprdrFileContentsResponse> m_keptAside;
    std::uint64_t m_readCounter = 0;
    std::uint32_t m_streamCounter = 0;
};
