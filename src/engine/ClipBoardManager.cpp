#include "ClipBoardManager.h"

#include "Frame.h"
#include "KXFileManager.h"
#include "Messages.h"
#include "PasteboardAccess.h"
#include "SocketManager.h"

#include <QLoggingCategory>

Q_LOGGING_CATEGORY(lcEngine, "kx.engine")

ClipBoardManager::ClipBoardManager(const QString &ip, const QString &port, const QString &token,
                                   const QString &cid, PasteboardAccess *pasteboard, QObject *parent)
    : QObject(parent)
    , m_pasteboard(pasteboard)
{
    Q_UNUSED(cid); // accepted with the other launch values; the agent does not ask for it
    m_urlText = ip + QLatin1Char(':') + port + QLatin1Char('/') + token;
    qCInfo(lcEngine).noquote().nospace() << "开始连接url:" << m_urlText;
    SocketManager *socketManager = SocketManager::shared();
    socketManager->connect(m_urlText);
    socketManager->setDelegate(this);
    m_pasteStatus = PasteStatus::start;
    KXFileManager::shared()->setDelegate(this);
}

ClipBoardManager::~ClipBoardManager()
{
    if (SocketManager::shared()->delegate() == this)
        SocketManager::shared()->setDelegate(nullptr);
    if (KXFileManager::shared()->delegate() == this)
        KXFileManager::shared()->setDelegate(nullptr);
}

void ClipBoardManager::send(const google::protobuf::MessageLite &message, FrameType type,
                            const char *completionText)
{
    SocketManager *socketManager = SocketManager::shared();
    if (!socketManager->isConnected())
        return;
    socketManager->write(kx::encodeFrame(message, type),
                         [completionText] { qCInfo(lcEngine).noquote() << QString::fromUtf8(completionText); });
}

void ClipBoardManager::callCompletion(bool success, PastedError error)
{
    // Cleared before the call: a callback that starts another paste must not be wiped.
    CompletionCallback completion = std::move(m_callback);
    m_callback = nullptr;
    if (completion)
        completion(success, error);
}

void ClipBoardManager::socketDidConnect()
{
    qCInfo(lcEngine).noquote() << "websoket connect success";
    const QByteArray frame = kx::clientTypeFrame();
    qCInfo(lcEngine).noquote().nospace() << "data.count:" << frame.size();
    SocketManager *socketManager = SocketManager::shared();
    if (socketManager->isConnected())
        socketManager->write(frame, [] { qCInfo(lcEngine).noquote() << "send clienType success"; });
}

void ClipBoardManager::socketDidDisconnect()
{
    qCInfo(lcEngine).noquote() << "wewebsoketbsoket connect fail,重连websoket";
    if (m_pasteStatus != PasteStatus::start)
        callCompletion(false, PastedError::websoketDisconnect);
    m_formList.reset();
    m_pasteStatus = PasteStatus::complete;
    ++m_pasteSerial;
    SocketManager::shared()->reconnect();
    resetFileState();
}

void ClipBoardManager::socketDidReceive(const QByteArray &data)
{
    kx::dispatchFrame(data, *this);
}

void ClipBoardManager::socketDidReceive(const QString &text)
{
    Q_UNUSED(text);
    qCInfo(lcEngine).noquote() << "收到字符串数据";
}

void ClipBoardManager::startPaste(ProgressCallback progress, CompletionCallback completion)
{
    m_callback = std::move(completion);
    m_pastedProgressCallback = std::move(progress);
    if (!m_formList)
        return;
    if (m_pasteStatus == PasteStatus::start || m_pasteStatus == PasteStatus::complete)
        sendFormatDataRequest();
}

void ClipBoardManager::folderChosen(const QUrl &url)
{
    if (m_choosingFolder && m_chooserPasteSerial != m_pasteSerial) {
        qCInfo(lcEngine).noquote() << "paste ended while the folder was being chosen; nothing is downloaded";
        return;
    }
    startDownload(url);
}

void ClipBoardManager::folderChoiceCancelled()
{
    m_formList.reset();
    m_pasteStatus = PasteStatus::complete;
}
