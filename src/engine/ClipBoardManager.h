#pragma once

#include "EngineContext.h"
#include "FrameHandler.h"
#include "FrameType.h"
#include "KXFileManagerDelegate.h"
#include "PasteFigures.h"
#include "PasteReport.h"
#include "PastedError.h"
#include "RemoteOffer.h"
#include "SocketManagerDelegate.h"
#include "copy/CopyServer.h"
#include "filesdk.pb.h"
#include "paste/DescriptorList.h"
#include "remotefiles/RemoteFiles.h"

#include <QObject>
#include <QTimer>
#include <QUrl>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>

class PasteSession;

// A paste between Ctrl+V and the chosen folder: its callbacks, and the list once it came.
struct PendingPaste
{
    std::function<void(double)> progress;
    std::function<void(bool, PastedError)> completion;
    bool choosing = false; // the list came; the folder chooser is open
    bool changed = false;  // the remote side copied something else meanwhile
    std::uint64_t copy = 0; // which remote copy of files it pastes
    DescriptorList list;
};

// The session engine: holds the clipboard session with the remote agent, dispatches
// every received frame, runs the remote-to-local paste (paste/) and serves the
// local-to-remote copy (copy/). Everything runs on the main thread; no step blocks it.
class ClipBoardManager : public QObject,
                         public SocketManagerDelegate,
                         public KXFileManagerDelegate,
                         public FrameHandler
{
    Q_OBJECT
public:
    enum class PasteStatus { start = 0, pasting = 1, downloading = 2, cancel = 3, complete = 4 };

    using ProgressCallback = std::function<void(double)>;
    using CompletionCallback = std::function<void(bool, PastedError)>;

    static constexpr int maxWindow = 64;
    // A paste whose remote side answers nothing for this long ends as a lost connection does.
    static constexpr int defaultReplyTimeoutMs = 60000;

    // window: how many range queries a paste keeps outstanding; 1 is the one-at-a-time
    // exchange every agent understands.
    ClipBoardManager(const QString &ip, const QString &port, const QString &token, const QString &cid,
                     EngineContext context, int window = 1, QObject *parent = nullptr);
    ~ClipBoardManager() override;

    void startPaste(ProgressCallback progress, CompletionCallback completion);
    void copiedFiles(const QList<QUrl> &urls);

    PasteStatus pasteStatus() const { return m_pasteStatus; }
    // A download that runs, of the remote copy on offer now or of an older one.
    enum class RunningPaste { none, sameCopy, olderCopy };
    RunningPaste runningPaste() const;
    // Setting cancel is the stop request: the running paste ends at once, and for good.
    void setPasteStatus(PasteStatus status);
    bool hasFormList() const { return m_formList.has_value(); }
    const QString &urlText() const { return m_urlText; }
    int window() const { return m_window; }
    int replyTimeoutMs() const { return m_replyTimeoutMs; }
    // What the last paste that ended did: read when its completion is called.
    const PasteReport &lastPasteReport() const { return m_lastReport; }
    void setReplyTimeout(int ms);

    // What the progress window shows besides the bar; nothing before the first paste.
    PasteFigures pasteFigures() const;

    // The remote copies as files, for a file system to serve. Once it has a mount path,
    // every remote copy of files is laid out there as it comes and offered on the local
    // clipboard, as a file manager's copy is.
    RemoteFiles &remoteFiles();
    bool servesFiles() const { return m_files && !m_files->mountPath().isEmpty(); }

signals:
    // Files copied on the remote side can be pasted now (true), or no longer (false: a
    // paste of them started, ended, or the copy is gone).
    void filesOffered(bool offered);
    // The remote side fetches the local copy (done false), or has fetched all of it.
    void copySending(const CopySending &sending);
    // What the remote clipboard holds: a new copy, a copy gone, or the list of one read.
    void offerChanged(const RemoteOffer &offer);
    // The connection to the remote side is up (true), or lost and being tried again.
    void connectionChanged(bool connected);
    // The remote side announced a copy that offers files.
    void remoteFilesAnnounced();

public:
    // SocketManagerDelegate
    void socketDidConnect() override;
    void socketDidDisconnect() override;
    void socketDidReceive(const QByteArray &data) override;
    void socketDidReceive(const QString &text) override;
    void socketDidDrain() override;

    // KXFileManagerDelegate
    void folderChosen(const QUrl &url) override;
    void folderChoiceCancelled() override;

    // FrameHandler
    void handleFormListRespose(const QByteArray &payload) override;
    void handleDataRequest(const QByteArray &payload) override;
    void handleContentRequest(const QByteArray &payload) override;
    void handleContentResponse(const QByteArray &payload) override;
    void handleFormatDataResponse(const QByteArray &payload) override;

private:
    friend class PasteSession;

    void send(const google::protobuf::MessageLite &message, FrameType type, const char *completionText);

    void setFormList(std::optional<FileSDK::CliprdrFormatList> list);
    void offerAgain();
    void sendFormatDataRequest(ProgressCallback progress, CompletionCallback completion);
    void requestList(unsigned use);
    void takeListForFiles(DescriptorList list, const QByteArray &payload);
    // A newer remote copy: what older ones still hold is compared with its list (nothing,
    // when it cannot be had); once the last list awaited came, fetching goes on.
    void holdForComparison();
    void compareWith(const DescriptorList *newer);
    static void logRefusedList(DescriptorList::Scan scan, const char *what);
    void startDownload(const QUrl &url);
    bool pasteRunning() const;
    // Ends the paste that waits for its list, or the download that runs, with its own
    // callbacks.
    void endPendingPaste(PastedError error, PasteReport::Why why, const QString &folder = {});
    void endRunningPaste(PastedError error, PasteReport::Why why);
    void listTimedOut();
    // A download has ended, whichever way.
    void pasteEnded(PasteSession &session);

    EngineContext m_context;
    int m_window = 1;
    QString m_urlText;

    std::optional<FileSDK::CliprdrFormatList> m_formList;
    std::uint64_t m_copySerial = 0; // counts the remote copies of files announced
    std::uint64_t m_pasteCopy = 0;  // the one the running download pastes
    bool m_filesOffered = false;
    PasteStatus m_pasteStatus = PasteStatus::start;
    std::optional<PendingPaste> m_pending;
    // The running or last download: its files, queries and per-file state.
    std::unique_ptr<PasteSession> m_paste;
    int m_replyTimeoutMs = defaultReplyTimeoutMs;
    // Queries of ended pastes whose replies may still come: their ids are not reused, and
    // their replies are dropped, until they come or the connection goes.
    std::set<std::uint32_t> m_staleStreams;
    PasteReport m_lastReport;
    QTimer *m_listTimer = nullptr; // the list asked for must come within the time-out

    CopyServer m_copy;
    std::unique_ptr<RemoteFiles> m_files;
    // What each list still to come is for, in order: a paste, the file system, and, for a
    // newer remote copy, to tell which files of the older ones are still the same.
    enum ListUse : unsigned { forPaste = 1, forFiles = 2, forComparison = 4 };
    std::deque<unsigned> m_listRequests;
    int m_comparisonsAwaited = 0; // while any is, nothing more is fetched of an older copy
};
