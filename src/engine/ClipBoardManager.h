#pragma once

#include "EngineContext.h"
#include "FrameHandler.h"
#include "FrameType.h"
#include "KXFileManagerDelegate.h"
#include "PastedError.h"
#include "SocketManagerDelegate.h"
#include "copy/CopyServer.h"
#include "filesdk.pb.h"

#include <QObject>
#include <QUrl>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

class PasteSession;

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

    // window: how many range queries a paste keeps outstanding; 1 is the one-at-a-time
    // exchange every agent understands.
    ClipBoardManager(const QString &ip, const QString &port, const QString &token, const QString &cid,
                     EngineContext context, int window = 1, QObject *parent = nullptr);
    ~ClipBoardManager() override;

    void startPaste(ProgressCallback progress, CompletionCallback completion);
    void copiedFiles(const QList<QUrl> &urls);

    PasteStatus pasteStatus() const { return m_pasteStatus; }
    // Setting cancel is the stop request; the paste ends at the next file-contents reply.
    void setPasteStatus(PasteStatus status) { m_pasteStatus = status; }
    bool hasFormList() const { return m_formList.has_value(); }
    const QString &urlText() const { return m_urlText; }
    int window() const { return m_window; }

    // What the progress window shows besides the bar.
    QString currentFileName() const;
    std::uint64_t savedBytes() const;
    std::uint64_t totalBytes() const;

signals:
    // Files copied on the remote side can be pasted now (true), or no longer (false: a
    // paste of them started, ended, or the copy is gone).
    void filesOffered(bool offered);

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
    void callCompletion(bool success, PastedError error);

    void setFormList(std::optional<FileSDK::CliprdrFormatList> list);
    void sendFormatDataRequest();
    void startDownload(const QUrl &url);

    // How the paste reports its course and its end.
    void reportProgress(double fraction);
    void downloadQueueEmptied();
    void finishPaste();
    void endPaste(PastedError error);
    void failSave();
    void stopTransfer();

    EngineContext m_context;
    int m_window = 1;
    QString m_urlText;

    std::optional<FileSDK::CliprdrFormatList> m_formList;
    bool m_filesOffered = false;
    CompletionCallback m_callback;
    ProgressCallback m_pastedProgressCallback;
    std::optional<FileSDK::MacCliprdrFormatDataResponse> m_formatDataResponse;
    PasteStatus m_pasteStatus = PasteStatus::start;
    // The running or last paste's transfer: its files, queries and per-file state.
    std::unique_ptr<PasteSession> m_paste;

    // Raised whenever a paste ends, so that a folder chosen in a nested event loop after
    // its paste was ended (a lost connection) starts nothing.
    std::uint64_t m_pasteSerial = 0;
    bool m_choosingFolder = false;
    std::uint64_t m_chooserPasteSerial = 0;

    CopyServer m_copy;
};
