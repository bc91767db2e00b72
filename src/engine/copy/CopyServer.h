#pragma once

#include "CopyOffer.h"
#include "CopySending.h"
#include "KXFileStreamOperation.h"
#include "filesdk.pb.h"

#include <QByteArray>

#include <deque>
#include <functional>
#include <memory>
#include <optional>

class FrameSink;

// The local-to-remote copy: announces a local copy, describes it when the remote side
// pastes, and answers every size and range query from the local files. The remote side
// drives it all; this side only keeps it from costing unbounded memory: while answers
// already queued on the connection exceed a few MiB (a peer that does not read), further
// requests wait in order, and a peer that piles up too many of them is dropped.
class CopyServer
{
public:
    static constexpr qint64 queuedBytesLimit = 4 * 1024 * 1024;
    static constexpr std::size_t maxWaitingRequests = 10000;

    CopyServer(FrameSink &connection, KXFileManager &files);

    void copiedFiles(const QList<QUrl> &urls);
    // Files on this device are the remote copies served back as files: never offered.
    void setMountDevice(std::uint64_t device) { m_offer.setMountDevice(device); }
    void handleDataRequest(const QByteArray &payload);
    void handleContentRequest(const QByteArray &payload);
    // The connection took some of what was queued: serve what waits, while there is room.
    void drained();
    void connectionLost();

    const CopyOffer &offer() const { return m_offer; }

    std::function<void(const CopySending &)> sendingChanged;

private:
    // A file-contents query, or (no value) a request for the file list.
    using Request = std::optional<FileSDK::CliprdrFileContentsRequest>;

    void admit(Request request);
    void serve(const Request &request);
    void answerDataRequest();
    void answerContentRequest(const FileSDK::CliprdrFileContentsRequest &request);
    void sendAnswer(std::uint32_t streamId, std::string data, std::uint32_t msgFlags,
                    std::optional<std::uint32_t> cbRequested = std::nullopt);
    KXFileStreamOperation *uploadStreamerFor(std::uint32_t listIndex);
    void countServed(std::uint32_t listIndex, std::uint64_t bytes);

    FrameSink &m_connection;
    CopyOffer m_offer;
    std::deque<Request> m_waiting;
    // The upload's own reading file, apart from the download's, kept open across the
    // queries of one entry.
    std::unique_ptr<KXFileStreamOperation> m_uploadStreamer;
    std::uint32_t m_uploadStreamerIndex = 0; // of the open file; nothing without one
    // What the remote side has fetched of the list last described, by entry.
    std::vector<std::uint64_t> m_served;
    CopySending m_sending;
    std::uint64_t m_servedBytes = 0;
    bool m_started = false;
};
