#pragma once

#include "FrameHandler.h"
#include "FrameType.h"
#include "KXFileManagerDelegate.h"
#include "KXFileStreamOperation.h"
#include "PastedError.h"
#include "SocketManagerDelegate.h"
#include "filesdk.pb.h"

#include <QList>
#include <QMutex>
#include <QObject>
#include <QStringList>
#include <QUrl>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

class PasteboardAccess;

// The session engine: holds the clipboard session with the remote agent, dispatches
// every received frame, runs the remote-to-local paste and serves the local-to-remote
// copy. Everything runs on the main thread; no step blocks the event loop.
class ClipBoardManager : public QObject,
                         public SocketManagerDelegate,
                         public KXFileManagerDelegate,
                         public FrameHandler
{
    Q_OBJECT
public:
    enum class PasteStatus { start = 0, pasting = 1, downloading = 2, cancel = 3, complete = 4 };
    enum class RequestContentType { queryDefault, queryItemSize, queryItemFlags };

    using ProgressCallback = std::function<void(double)>;
    using CompletionCallback = std::function<void(bool, PastedError)>;

    static constexpr std::uint64_t chunkSize = 262144;
    static constexpr int retryWaitMs = 600;

    ClipBoardManager(const QString &ip, const QString &port, const QString &token, const QString &cid,
                     PasteboardAccess *pasteboard, QObject *parent = nullptr);
    ~ClipBoardManager() override;

    void startPaste(ProgressCallback progress, CompletionCallback completion);
    void copiedFiles(const QList<QUrl> &urls);

    // The path from one folder to an item, components joined with "//" as the remote
    // side expects them.
    static QString relativePath(const QString &from, const QString &to);

    PasteStatus pasteStatus() const { return m_pasteStatus; }
    // Setting cancel is the stop request; the paste ends at the next file-contents reply.
    void setPasteStatus(PasteStatus status) { m_pasteStatus = status; }
    bool hasFormList() const { return m_formList.has_value(); }
    const QString &urlText() const { return m_urlText; }

    // What the progress window shows besides the bar.
    QString currentFileName() const;
    std::uint64_t savedBytes() const { return m_alreadySavedTotalSize; }
    std::uint64_t totalBytes() const { return m_downloadTotalSize; }

    // SocketManagerDelegate
    void socketDidConnect() override;
    void socketDidDisconnect() override;
    void socketDidReceive(const QByteArray &data) override;
    void socketDidReceive(const QString &text) override;

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
    struct QueuedFile
    {
        FileSDK::FileDescriptorw descriptor;
        std::uint32_t listIndex = 0;
    };

    void send(const google::protobuf::MessageLite &message, FrameType type, const char *completionText);
    void callCompletion(bool success, PastedError error);

    // Remote-to-local paste.
    void sendFormatDataRequest();
    void startDownload(const QUrl &url);
    void removeFolderEntries();
    void computeDownloadTotals();
    void advanceDownload(bool fileJustFinished);
    enum class FileStart { requested, empty, failed };
    FileStart startCurrentFile();
    void sendContentRequest();
    void sendRangeQuery(const char *completionText);
    void saveContentData(const FileSDK::CliprdrFileContentsResponse &reply);
    void scheduleRangeRetry();
    void finishCurrentFile();
    void finishPaste();
    void endPaste(PastedError error);
    void failSave();
    void resetFileState();
    std::uint32_t descriptorListIndex() const;
    static std::uint32_t makeStreamId();

    // Local-to-remote copy.
    void appendRootFileDescriptor(const QUrl &url);
    void appendRootFolderDescriptor(const QUrl &url);
    void appendDirectoryDescriptors(const QString &path, QStringList &walk);
    bool enterFolder(const QString &path, QStringList &walk);
    std::optional<QStringList> listFolder(const QString &path);
    FileSDK::FileDescriptorw makeDescriptor(const QString &path, bool folder, bool topLevel);
    QString remoteName(const QString &itemPath) const;
    void sendContentsResponse(std::uint32_t streamId, const QByteArray &data, std::uint32_t msgFlags);
    KXFileStreamOperation *uploadStreamerFor(std::uint32_t listIndex);

    PasteboardAccess *m_pasteboard = nullptr;
    QString m_urlText;

    // Local-to-remote copy.
    QList<QUrl> m_fileList;
    QList<FileSDK::FileDescriptorw> m_uploadCopyQueue;
    std::optional<FileSDK::CliprdrFormatList> m_formList;

    // Remote-to-local paste.
    std::optional<QUrl> m_pastePathUrl;
    CompletionCallback m_callback;
    ProgressCallback m_pastedProgressCallback;
    std::optional<FileSDK::MacCliprdrFormatDataResponse> m_formatDataResponse;
    RequestContentType m_contentType = RequestContentType::queryDefault;
    QList<FileSDK::FileDescriptorw> m_originFileDescriptorwList;
    PasteStatus m_pasteStatus = PasteStatus::start;
    std::unique_ptr<KXFileStreamOperation> m_fileStreamer;
    std::int64_t m_downloadCurrentIndex = 0;
    std::uint64_t m_downloadOffset = 0;
    std::uint64_t m_chunks = 0;
    std::optional<QueuedFile> m_currentDescriptorw;
    QList<QueuedFile> m_downloadQueue;
    QMutex m_lock;
    std::int64_t m_uploadQueueNum = 0;
    std::optional<QUrl> m_rootDirectory;
    QList<QUrl> m_uploadCopyUrlList;
    std::uint64_t m_downloadTotalSize = 0;
    std::uint64_t m_alreadySavedTotalSize = 0;
    QString m_pasteBasePath;
    std::uint32_t m_streamId = 0;

    // Raised on every query sent and every reset of the file state, so that a delayed
    // retry can tell whether the query it repeats is still the one outstanding.
    std::uint64_t m_requestSerial = 0;
    // Raised whenever a paste ends, so that a folder chosen in a nested event loop after
    // its paste was ended (a lost connection) starts nothing.
    std::uint64_t m_pasteSerial = 0;
    bool m_choosingFolder = false;
    std::uint64_t m_chooserPasteSerial = 0;

    // The upload keeps its own reading file, apart from the download's fileStreamer, and
    // keeps it open across consecutive queries of the same entry.
    std::unique_ptr<KXFileStreamOperation> m_uploadStreamer;
    std::optional<std::uint32_t> m_uploadStreamerIndex;
};
