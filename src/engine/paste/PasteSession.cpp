#include "PasteSession.h"

#include "ClipBoardManager.h"
#include "EngineLog.h"
#include "FileTime.h"
#include "KXFileManager.h"
#include "LogText.h"
#include "Messages.h"
#include "PartialJournal.h"
#include "RangeReads.h"
#include "RemotePath.h"
#include "Wire.h"

#include <QFileInfo>
#include <QRandomGenerator>
#include <QUrl>

#include <algorithm>
#include <limits>
#include <cerrno>
#include <cstring>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int retryWaitMs = 600;

const char *const sizeQuerySent = "send requestContentRequestType success";
const char *const rangeQuerySent = "send requestContentRequestType2 success";
const char *const rangeRetrySent = "send requestContentRequestType3 success";

bool isFolder(const FileSDK::FileDescriptorw &d)
{
    return kx::wire::isFolderAttributes(d.dwfileattributes());
}

// The descriptor's last-write time, if it carries one a file can be given: a time of 0,
// or before 1970, would set files to 1901.
std::optional<std::uint64_t> lastWriteTime(const FileSDK::FileDescriptorw &d)
{
    const std::uint64_t time = kx::joinHalves(d.ftlastwritetimehigh(), d.ftlastwritetimelow());
    if (!(d.dwflags() & kx::wire::writeTimeFlag) || time < kx::unixEpochFileTime)
        return std::nullopt;
    return time;
}

// A time onto an open file or folder; its access time is left.
bool setModificationTime(int fd, std::uint64_t fileTime)
{
    timespec accessed{};
    accessed.tv_nsec = UTIME_OMIT;
    const timespec times[] = {accessed, kx::timespecFromFileTime(fileTime)};
    return ::futimens(fd, times) == 0;
}

} // namespace

PasteSession::PasteSession(ClipBoardManager &engine, const QString &basePath, DescriptorList list,
                           ProgressCallback progress, CompletionCallback completion)
    : m_engine(engine)
    , m_window(engine.window())
    , m_pasteBasePath(basePath)
    , m_originFileDescriptorwList(std::move(list))
    , m_pastedProgressCallback(std::move(progress))
    , m_callback(std::move(completion))
{
    m_replyTimer.setSingleShot(true);
    m_replyTimeoutMs = engine.replyTimeoutMs();
    m_clock.start();
    connect(&m_replyTimer, &QTimer::timeout, this, &PasteSession::replyTimedOut);
}

PasteSession::~PasteSession()
{
    *m_alive = false;
}

PasteFigures PasteSession::figures() const
{
    PasteFigures figures;
    figures.folder = m_pasteBasePath;
    figures.count = m_files.size();
    figures.saved = m_alreadySavedTotalSize, figures.total = m_downloadTotalSize;
    if (!m_ended && m_head < m_next) {
        figures.name = QString::fromStdString(m_active.front().descriptor.cfilename());
        figures.path = shownName(m_active.front());
        figures.number = m_head + 1;
    }
    return figures;
}

void PasteSession::start()
{
    m_slice.start();
    readList();
}

// Work that a slice could not finish goes on in a later turn of the event loop.
void PasteSession::continueLater(void (PasteSession::*step)())
{
    if (m_continuing)
        return;
    m_continuing = true;
    QTimer::singleShot(0, this, [this, step] {
        m_continuing = false;
        m_slice.start();
        if (!m_ended)
            (this->*step)();
    });
}

// Folders are not fetched (a file's folders are made when it is opened), and the sizes of
// the rest are summed; a sum past 2^64, which no real list reaches, stays at the top, so
// that the progress is still a fraction.
void PasteSession::readList()
{
    for (; m_listRead < m_originFileDescriptorwList.size(); ++m_listRead) {
        if (sliceOver())
            return continueLater(&PasteSession::readList);
        const auto d = m_originFileDescriptorwList.entry(m_listRead);
        if (!d) {
            qCInfo(lcEngine).noquote().nospace() << "the remote copy could not be read: its entry " << m_listRead
                                                 << " is not a file description; the paste ends";
            return end(false, PastedError::unKonwnError, PasteReport::Why::unreadable);
        }
        if (isFolder(*d)) {
            if (lastWriteTime(*d))
                m_timedFolders.push_back(std::uint32_t(m_listRead));
            continue;
        }
        const std::uint64_t size = kx::descriptorSize(*d);
        qCInfo(lcEngine).noquote().nospace() << "此文件大小:" << size;
        if (__builtin_add_overflow(m_downloadTotalSize, size, &m_downloadTotalSize))
            m_downloadTotalSize = std::numeric_limits<std::uint64_t>::max();
        m_entryHashes.emplace_back(std::hash<std::string>()(d->SerializeAsString()), std::uint32_t(m_files.size()));
        m_files.push_back(std::uint32_t(m_listRead));
    }
    indexDuplicates();
    qCInfo(lcEngine).noquote().nospace() << "下载文件总大小：" << m_downloadTotalSize;
    qCInfo(lcEngine).noquote().nospace() << "需要下载的文件总个数:" << m_files.size();
    checkTargets();
}

// Before the first byte: which names of the paste are taken beneath the chosen folder. A
// folder's name that a file has counts once, not once for each file the paste puts in it.
void PasteSession::checkTargets()
{
    for (; m_targetsChecked < m_files.size(); ++m_targetsChecked) {
        if (sliceOver())
            return continueLater(&PasteSession::checkTargets);
        const QString name = QString::fromStdString(m_originFileDescriptorwList.entry(m_files[m_targetsChecked])->cfilename());
        if (!kx::isContainedRemotePath(name))
            continue; // refused in its turn
        const QStringList parts = kx::remoteComponents(name);
        const kx::FoundTarget found = kx::existingTarget(m_pasteBasePath, parts);
        if (found.what == kx::Existing::nothing)
            continue;
        m_conflicts.push_back({std::uint32_t(m_targetsChecked), found.what, std::uint32_t(found.depth)});
        const QString taken = parts.first(found.depth + 1).join(QLatin1Char('/'));
        if (!m_takenNames.contains(taken) && m_firstTaken.size() < 5)
            m_firstTaken.append(taken);
        m_takenNames.insert(taken);
    }
    resolveConflicts();
}

// One question for the whole paste; whatever the answer, nothing the user has is lost
// but what they chose to replace, and a folder is never replaced.
void PasteSession::resolveConflicts()
{
    if (!m_conflicts.empty()) {
        const ConflictSummary summary{m_pasteBasePath, std::size_t(m_takenNames.size()), m_firstTaken};
        m_asking = true;
        const std::shared_ptr<bool> alive = m_alive;
        const ConflictChoice choice = m_engine.m_context.files.askAboutConflicts(summary);
        if (!*alive)
            return; // a newer paste took this one's place meanwhile
        m_asking = false;
        if (m_ended)
            return; // the connection was lost meanwhile
        m_slice.start();
        if (choice == ConflictChoice::cancel)
            return end(false, PastedError::cancelDownload, PasteReport::Why::declined);
        m_replaceExisting = choice == ConflictChoice::replace;
        std::vector<bool> skipped(choice == ConflictChoice::skip ? m_files.size() : 0);
        for (const Conflict &conflict : m_conflicts) {
            const auto d = m_originFileDescriptorwList.entry(m_files[conflict.file]);
            if (choice == ConflictChoice::skip) {
                skipped[conflict.file] = true;
                m_downloadTotalSize -= std::min(m_downloadTotalSize, kx::descriptorSize(*d));
                continue;
            }
            if (conflict.what != kx::Existing::fileInTheWay)
                continue; // the file itself gets a free name when it is complete, or replaces
            // A file or a link where the paste needs a folder: the paste's folder gets a free name.
            const QStringList parts = kx::remoteComponents(QString::fromStdString(d->cfilename()));
            const QString key = parts.first(conflict.depth + 1).join(QLatin1Char('/'));
            if (!m_renamedFolders.contains(key))
                m_renamedFolders.insert(key, freeName(parts.first(conflict.depth + 1), true));
        }
        if (!skipped.empty()) {
            std::size_t kept = 0;
            for (std::size_t i = 0; i < m_files.size(); ++i) {
                if (skipped[i])
                    continue;
                if (!m_queryIndexes.empty())
                    m_queryIndexes[kept] = m_queryIndexes[i];
                m_files[kept++] = m_files[i];
            }
            m_skipped = m_files.size() - kept;
            m_files.resize(kept);
            m_queryIndexes.resize(m_queryIndexes.empty() ? 0 : kept);
        }
    }
    std::vector<Conflict>().swap(m_conflicts);
    m_takenNames.clear();
    checkSpace();
}

// A paste that cannot fit is not started: half a paste and a full disk help nobody.
void PasteSession::checkSpace()
{
    const auto free = m_engine.m_context.files.freeSpaceAtPath(m_pasteBasePath);
    if (free && m_downloadTotalSize > *free) {
        qCInfo(lcEngine).noquote().nospace() << "not enough space in " << m_pasteBasePath << ": the paste needs "
                                             << m_downloadTotalSize << " bytes and " << *free << " are free; nothing is written";
        m_bytesFree = *free;
        return end(false, PastedError::saveError, PasteReport::Why::notEnoughSpace);
    }
    downloadNextFile();
}

// "name (k)" for the last of the path beneath the chosen folder, with the first k from 2
// that nothing has there.
QString PasteSession::freeName(QStringList parts, bool folder) const
{
    const QString name = parts.last();
    for (int number = 2;; ++number) {
        parts.last() = kx::numberedName(name, number, folder);
        if (kx::existingTarget(m_pasteBasePath, parts).what == kx::Existing::nothing)
            return parts.last();
    }
}

// The remote name with the folders that had to be given free names renamed.
QString PasteSession::stagedName(const QString &remoteName) const
{
    if (m_renamedFolders.isEmpty())
        return remoteName;
    QStringList parts = kx::remoteComponents(remoteName);
    QString key;
    for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
        key += (i ? QStringLiteral("/") : QString()) + parts.at(i);
        parts[i] = m_renamedFolders.value(key, parts.at(i));
    }
    return parts.join(QLatin1Char('\\'));
}

// A file's queries carry the position of the first entry equal to it in every field: an
// entry that repeats an earlier one is asked for under the earlier one's position. Found
// once for the whole list, by sorting, rather than by a search of the list per file.
void PasteSession::indexDuplicates()
{
    std::sort(m_entryHashes.begin(), m_entryHashes.end());
    for (std::size_t i = 1; i < m_entryHashes.size(); ++i) {
        const auto &[hash, file] = m_entryHashes[i];
        if (hash != m_entryHashes[i - 1].first)
            continue;
        if (m_queryIndexes.empty())
            m_queryIndexes = m_files;
        m_queryIndexes[file] = m_queryIndexes[m_entryHashes[i - 1].second];
    }
    std::vector<std::pair<std::uint64_t, std::uint32_t>>().swap(m_entryHashes);
}

void PasteSession::downloadNextFile()
{
    qCInfo(lcEngine).noquote() << "开始启动下载loop";
    if (m_files.empty() && m_skipped) // every name taken, and kept: said, as any other end
        return finishPaste();
    if (m_files.empty()) {
        // Only folders: nothing to fetch, and nothing to report.
        qCInfo(lcEngine).noquote() << "所有文件下载完成";
        m_ended = true;
        m_originFileDescriptorwList.clear();
        m_engine.pasteEnded(*this);
        return;
    }
    pump();
}

// Fills the window: finished files are closed in list order, then queries are sent for
// the earliest files first, so that files complete in the order of the list.
void PasteSession::pump()
{
    while (!m_ended) {
        if (sliceOver())
            return continueLater(&PasteSession::pump);
        if (m_head < m_next && m_active.front().out && m_active.front().saved == m_active.front().size) {
            if (!finishCurrentFile(m_active.front()))
                return;
            m_active.pop_front();
            ++m_head;
            qCInfo(lcEngine).noquote() << "开始启动下载loop";
            continue;
        }
        if (m_head == m_files.size()) {
            qCInfo(lcEngine).noquote() << "所有文件下载完成";
            return setFolderTimes();
        }
        if (m_held || m_outstanding.size() >= std::size_t(m_window))
            break;
        if (requestNextRange())
            continue;
        if (m_next < m_files.size() && m_next - m_head < std::size_t(m_window)) {
            startCurrentFile(m_next++);
            continue;
        }
        break;
    }
    watchReplies();
}

// After the last file, when nothing more is written into them: a folder's time would
// move again with every file made inside it.
void PasteSession::setFolderTimes()
{
    for (; m_foldersTimed < m_timedFolders.size(); ++m_foldersTimed) {
        if (sliceOver())
            return continueLater(&PasteSession::setFolderTimes);
        const auto d = m_originFileDescriptorwList.entry(m_timedFolders[m_foldersTimed]);
        const UniqueFd folder = KXFileStreamOperation::openFolderBeneath(
            m_pasteBasePath, kx::remoteComponents(QString::fromStdString(d->cfilename())));
        if (folder.valid())
            setModificationTime(folder.get(), *lastWriteTime(*d));
    }
    finishPaste();
}

void PasteSession::finishPaste()
{
    if (ProgressCallback progress = std::exchange(m_pastedProgressCallback, nullptr))
        progress(1.0);
    end(true, PastedError::noError);
}

void PasteSession::endOnLocalError(int error, const QString &file)
{
    using Why = PasteReport::Why;
    const Why why = error == ENOSPC || error == EDQUOT                   ? Why::diskFull
        : error == EACCES || error == EPERM || error == EROFS ? Why::noPermission
                                                              : Why::cannotWrite;
    end(false, PastedError::saveError, why, file, QString::fromLocal8Bit(std::strerror(error)));
}

// The current file's name below the chosen folder, as the user finds it there.
QString PasteSession::shownName(const FileTask &file) const
{
    return kx::remoteComponents(stagedName(QString::fromStdString(file.descriptor.cfilename()))).join(QLatin1Char('/'));
}

void PasteSession::end(bool success, PastedError error, PasteReport::Why why, const QString &file, const QString &detail)
{
    if (m_ended)
        return;
    m_ended = true;
    PasteReport &report = m_engine.m_lastReport;
    report = PasteReport();
    // Whatever ended it, the file being received when it ended is the one to name.
    report.why = why, report.folder = m_pasteBasePath, report.detail = detail;
    report.file = file.isEmpty() && !m_active.empty() ? shownName(m_active.front()) : file;
    report.filesSaved = m_filesSaved, report.bytesSaved = m_bytesSaved;
    report.filesSkipped = m_skipped, report.filesRenamed = m_filesRenamed, report.filesReplaced = m_filesReplaced;
    report.filesTotal = m_files.size() + m_skipped, report.bytesTotal = m_downloadTotalSize;
    report.bytesNeeded = m_downloadTotalSize, report.bytesFree = m_bytesFree;
    m_replyTimer.stop();
    m_pastedProgressCallback = nullptr;
    const CompletionCallback completion = std::exchange(m_callback, nullptr);
    if (!success && completion)
        completion(false, error);
    m_active.clear(); // closes the files
    for (const auto &[streamId, query] : m_outstanding)
        m_engine.m_staleStreams.insert(streamId);
    m_outstanding.clear();
    m_keptAside.clear();
    m_originFileDescriptorwList.clear();
    std::vector<std::uint32_t>().swap(m_files);
    std::vector<std::uint32_t>().swap(m_queryIndexes);
    std::vector<std::uint32_t>().swap(m_timedFolders);
    m_engine.pasteEnded(*this);
    if (success && completion)
        completion(true, PastedError::noError);
}

void PasteSession::startCurrentFile(std::size_t index)
{
    FileTask &file = m_active.emplace_back();
    file.listIndex = m_files[index];
    file.queryIndex = m_queryIndexes.empty() ? file.listIndex : m_queryIndexes[index];
    file.descriptor = m_originFileDescriptorwList.entry(file.listIndex).value_or(FileSDK::FileDescriptorw());
    file.size = kx::descriptorSize(file.descriptor);
    const QString name = QString::fromStdString(file.descriptor.cfilename());
    qCInfo(lcEngine).noquote().nospace() << "正在下载的文件名：self.currentDescriptorw!.cFileName:" << name;
    qCInfo(lcEngine).noquote().nospace() << "将要存储的目录是:" << m_pasteBasePath;
    if (!kx::isContainedRemotePath(name)) {
        qCInfo(lcEngine).noquote().nospace() << "refused a remote name outside the chosen folder: " << name;
        return end(false, PastedError::saveError, PasteReport::Why::outsideFolder, name);
    }
    QString staged = stagedName(name);
    // A name of the form of our temporaries is given a free one: a temporary of this paste
    // could otherwise be replaced by it, or it taken for one.
    if (QStringList parts = kx::remoteComponents(staged); !parts.isEmpty() && parts.last().startsWith(kx::partialPrefix)) {
        parts.last() = freeName(parts, false);
        staged = parts.join(QLatin1Char('\\'));
        qCInfo(lcEngine).noquote().nospace() << "a remote name of the form of an unfinished file is saved as " << parts.last();
    }
    file.out = KXFileStreamOperation::initFileOperationAtPath(staged, true, m_pasteBasePath);
    qCInfo(lcEngine).noquote().nospace() << "文件总大小resultValue:" << file.size;
    if (!file.out)
        return endOnLocalError(errno, kx::remoteComponents(staged).join(QLatin1Char('/')));
    const QString folder = QFileInfo(file.out->filePath).path();
    if (!m_cleanedFolders.contains(folder)) {
        m_cleanedFolders.insert(folder);
        if (const int removed = PartialJournal::shared().removeLeftIn(file.out->folderDescriptor(), folder))
            qCInfo(lcEngine).noquote().nospace() << "removed " << removed << " unfinished files of an earlier paste from " << folder;
    }
    if (file.size == 0)
        return; // complete as it is; finished in its turn
    file.localPath = KXFileStreamOperation::getMacPathFromWindowsPath(staged, m_pasteBasePath);
    qCInfo(lcEngine).noquote().nospace() << "self.pasteBasePath:" << m_pasteBasePath << ' ' << m_pasteBasePath;
    qCInfo(lcEngine).noquote().nospace() << "windows转到mac的存储路径为:"
                                         << QUrl::toPercentEncoding(file.localPath, "!$&'()*+,/:;=@");
    file.chunks = file.size / kx::wire::chunkSize + (file.size % kx::wire::chunkSize ? 1 : 0);
    qCInfo(lcEngine).noquote().nospace() << "总chunks:" << file.chunks;
    sendContentRequest(index);
}

void PasteSession::sendContentRequest(std::size_t index)
{
    FileTask &file = task(index);
    qCInfo(lcEngine).noquote() << "sendContentRequest";
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << file.queryIndex;
    file.streamId = pipelined() ? nextStreamId() : makeStreamId();
    qCInfo(lcEngine).noquote().nospace() << "获取的streamid:" << file.streamId;
    sendQuery(file.streamId, Query{index, true, 0, kx::wire::sizeQueryLength}, sizeQuerySent);
}

// The next range of the earliest file that has one to ask for: first what a short reply
// left out, then the bytes not asked for yet.
bool PasteSession::requestNextRange()
{
    for (std::size_t index = m_head; index < m_next; ++index) {
        FileTask &file = task(index);
        if (!file.sized)
            continue;
        Query query{index};
        query.askedAtMs = std::exchange(file.carriedAskedAtMs, 0);
        if (!file.gaps.empty()) {
            std::tie(query.offset, query.length) = file.gaps.front();
            file.gaps.erase(file.gaps.begin());
        } else if (file.requested < file.size) {
            // One at a time, every range asks for a whole chunk, the last one included.
            const std::uint64_t left = file.size - file.requested;
            query.offset = file.requested;
            query.length = pipelined() ? std::uint32_t(std::min<std::uint64_t>(kx::wire::chunkSize, left))
                                       : kx::wire::chunkSize;
            file.requested += std::min<std::uint64_t>(kx::wire::chunkSize, left);
        } else {
            continue;
        }
        sendQuery(pipelined() ? nextStreamId() : file.streamId, query, rangeQuerySent);
        return true;
    }
    return false;
}

void PasteSession::sendQuery(std::uint32_t streamId, const Query &query, const char *completionText)
{
    const FileTask &file = task(query.file);
    Query &sent = m_outstanding[streamId] = query;
    sent.serial = ++m_querySerial;
    sent.waiting = false;
    if (sent.askedAtMs == 0) // asked again after an empty reply: still due when it first was
        sent.askedAtMs = std::max<qint64>(m_clock.elapsed(), 1);
    const std::uint32_t flags = query.sizeQuery ? kx::wire::sizeQueryFlag : kx::wire::rangeQueryFlag;
    m_engine.send(kx::makeContentsQuery(streamId, file.queryIndex, flags, query.offset, query.length),
                  FrameType::fileContentsRequest, completionText);
}

void PasteSession::handleContentResponse(const FileSDK::CliprdrFileContentsResponse &reply)
{
    const auto found = m_outstanding.find(reply.streamid());
    if (m_ended || found == m_outstanding.end()) {
        qCInfo(lcEngine).noquote().nospace() << "ignored a reply of stream " << reply.streamid()
                                             << ", which no query outstanding carries";
        return;
    }
    if (m_held) {
        if (!std::exchange(found->second.keptAside, true))
            m_keptAside.push_back(reply);
        return;
    }
    m_slice.start();
    const Query query = found->second;
    FileTask &file = task(query.file);
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << file.queryIndex;
    if (query.sizeQuery) {
        // The size reply's bytes are not read: the descriptor list has told the size.
        m_outstanding.erase(found);
        file.sized = true;
    } else if (reply.cbrequested() == 0 || reply.requesteddata().empty()) {
        if (!query.waiting) {
            found->second.waiting = true;
            scheduleRangeRetry(found->first, query.serial);
        }
        return watchReplies();
    } else {
        m_outstanding.erase(found);
        saveContentData(file, query, reply);
    }
    pump();
}

// An empty reply: the same range is asked for again after a wait, on a timer so that the
// connection and the user are served meanwhile, whatever the status then (a new remote
// copy does not stop the download), as long as the query is still the one waiting.
void PasteSession::scheduleRangeRetry(std::uint32_t streamId, std::uint64_t serial)
{
    QTimer::singleShot(retryWaitMs, this, [this, streamId, serial] {
        const auto found = m_outstanding.find(streamId);
        if (m_ended || found == m_outstanding.end() || found->second.serial != serial)
            return;
        if (m_held)
            return scheduleRangeRetry(streamId, serial);
        sendQuery(streamId, found->second, rangeRetrySent);
    });
}

void PasteSession::saveContentData(FileTask &file, const Query &query, const FileSDK::CliprdrFileContentsResponse &reply)
{
    const std::string &bytes = reply.requesteddata();
    const std::uint64_t size = bytes.size();
    // A reply never writes more than its own query asked for, nor past the announced size.
    const std::uint64_t expected = std::min<std::uint64_t>(query.length, file.size - query.offset);
    if (size > expected) {
        qCInfo(lcEngine).noquote().nospace() << "a reply of " << size << " bytes where at most " << expected
                                             << " were asked for; the paste ends";
        return end(false, PastedError::unKonwnError, PasteReport::Why::unreadable, shownName(file));
    }
    qCInfo(lcEngine).noquote().nospace() << "downloadCurrentIndex:" << file.downloadCurrentIndex << "chunks:" << file.chunks;
    qCInfo(lcEngine).noquote().nospace() << "这一次存储downloadOffset:" << query.offset;
    qCInfo(lcEngine).noquote().nospace() << "这一次写入数据大小:" << size << " bytes";
    if (!file.out->writeDateOffSet(query.offset, QByteArray::fromRawData(bytes.data(), qsizetype(size)))) {
        qCInfo(lcEngine).noquote().nospace() << "writing at " << query.offset << " failed: "
                                             << (errno == ENOSPC ? "the disk is full" : std::strerror(errno));
        return endOnLocalError(errno, shownName(file));
    }
    // The log tells the chunk after this one, as the one-at-a-time exchange counts; what
    // is asked for next starts where the bytes written end.
    const std::uint64_t following = query.offset + kx::wire::chunkSize;
    qCInfo(lcEngine).noquote().nospace() << "将要请求的deoffset:" << following;
    qCInfo(lcEngine).noquote().nospace() << "Low Value: " << kx::lowHalf(following);
    qCInfo(lcEngine).noquote().nospace() << "High Value: " << kx::highHalf(following);
    qCInfo(lcEngine).noquote().nospace() << "当前文件index:" << file.queryIndex;
    ++file.downloadCurrentIndex;
    file.saved += size;
    m_alreadySavedTotalSize += size;
    if (size < expected) {
        // A short reply: no gap is ever left in a file, and the rest is due with the range.
        file.carriedAskedAtMs = file.carriedAskedAtMs ? std::min(file.carriedAskedAtMs, query.askedAtMs) : query.askedAtMs;
        if (pipelined())
            file.gaps.emplace_back(query.offset + size, std::uint32_t(expected - size));
        else
            file.requested = query.offset + size;
    }
    struct stat written {};
    if (::fstat(file.out->writeDescriptor(), &written) != 0 || written.st_nlink == 0) {
        qCInfo(lcEngine).noquote().nospace() << "the file being written has disappeared: " << file.localPath;
        return end(false, PastedError::saveError, PasteReport::Why::cannotWrite, shownName(file),
                   QStringLiteral("removed while it was being written"));
    }
    const std::uint64_t savedSize = m_engine.m_context.files.fileSizeAtPath(file.out->partialPath());
    qCInfo(lcEngine).noquote().nospace() << "当前已经存储了" << savedSize << "大小";
    if (m_pastedProgressCallback)
        m_pastedProgressCallback(double(m_alreadySavedTotalSize) / double(m_downloadTotalSize));
    qCInfo(lcEngine).noquote().nospace() << "已经存储的总大小：" << m_alreadySavedTotalSize
                                         << "文件总大小：" << m_downloadTotalSize;
    if (file.saved == file.size)
        qCInfo(lcEngine).noquote() << "这个文件大小正确下载完成了";
}

// A complete file, its time set, takes its place; until then whatever had its name was
// left as it was.
bool PasteSession::finishCurrentFile(FileTask &file)
{
    const auto time = lastWriteTime(file.descriptor);
    if (time && !setModificationTime(file.out->writeDescriptor(), *time))
        qCInfo(lcEngine).noquote().nospace() << "could not set the modification time of " << file.out->filePath;
    struct stat taken {};
    const bool replacing = m_replaceExisting
        && ::fstatat(file.out->folderDescriptor(), QFile::encodeName(file.out->fileName).constData(), &taken, AT_SYMLINK_NOFOLLOW) == 0;
    const std::optional<QString> placed = file.out->commit(m_replaceExisting);
    if (!placed) {
        endOnLocalError(errno, shownName(file));
        return false;
    }
    if (*placed != file.out->filePath) {
        qCInfo(lcEngine).noquote().nospace() << "the name was taken, both are kept: " << *placed;
        ++m_filesRenamed;
    }
    ++m_filesSaved;
    m_filesReplaced += replacing && *placed == file.out->filePath;
    m_bytesSaved += file.size;
    file.out.reset(); // closes the file
    return true;
}

// Each range is answered whole within the time-out of its first query, however many
// replies it takes (one byte every few seconds would otherwise keep a paste alive for
// ever), or the paste ends.
void PasteSession::watchReplies()
{
    if (m_ended || m_held || m_outstanding.empty())
        return m_replyTimer.stop();
    qint64 earliest = std::numeric_limits<qint64>::max();
    for (const auto &[streamId, query] : m_outstanding)
        earliest = std::min(earliest, query.askedAtMs);
    m_replyTimer.start(int(std::clamp<qint64>(earliest + m_replyTimeoutMs - m_clock.elapsed(), 0, m_replyTimeoutMs)));
}

// The time held is not the remote side's: what is due moves on by as much.
void PasteSession::setHeld(bool held)
{
    if (m_held == held || m_ended)
        return;
    m_held = held;
    const qint64 now = m_clock.elapsed();
    if (held) {
        m_heldSinceMs = now;
        return watchReplies();
    }
    for (auto &[streamId, query] : m_outstanding)
        query.askedAtMs += now - m_heldSinceMs;
    for (FileSDK::CliprdrFileContentsResponse &reply : std::exchange(m_keptAside, {})) {
        const auto found = m_outstanding.find(reply.streamid());
        if (m_ended || found == m_outstanding.end())
            continue;
        found->second.keptAside = false;
        handleContentResponse(reply);
    }
    if (!m_ended)
        pump();
}

void PasteSession::compareWith(const DescriptorList *newer)
{
    if (m_ended)
        return;
    // Files finish in list order: those before the head are complete. While the list is
    // still being read, every entry counts.
    const bool listRead = m_listRead == m_originFileDescriptorwList.size();
    const std::size_t first = listRead ? m_head : 0, last = listRead ? m_files.size() : m_originFileDescriptorwList.size();
    for (std::size_t i = first; i < last; ++i) {
        const std::uint32_t entry = listRead ? m_files[i] : std::uint32_t(i);
        if (newer && m_originFileDescriptorwList.sameEntry(entry, *newer))
            continue;
        const auto d = m_originFileDescriptorwList.entry(entry);
        qCInfo(lcEngine).noquote().nospace()
            << "the remote side copied something else meanwhile: "
            << (newer ? "entry " + QString::number(entry) + " (" + kx::escapedName(QString::fromStdString(d ? d->cfilename() : std::string())) + ") is not the same"
                      : QStringLiteral("its new file list could not be had"))
            << "; the paste ends, keeping the files it completed";
        return end(false, PastedError::cancelDownload, PasteReport::Why::remoteCopyChanged);
    }
}

void PasteSession::replyTimedOut()
{
    qCInfo(lcEngine).noquote().nospace() << "the remote side has not answered for "
                                         << QString::number(m_replyTimeoutMs / 1000.0) << " seconds; the paste ends";
    end(false, PastedError::websoketDisconnect, PasteReport::Why::noAnswer);
}

// Stream ids whose replies may still come for an ended paste are never reused: such a
// late reply would otherwise be taken, and written, as this paste's.
std::uint32_t PasteSession::nextStreamId()
{
    // Ids with the top bit set belong to the file system's reads.
    while (m_outstanding.count(m_streamCounter &= ~RangeReads::streamBit)
           || m_engine.m_staleStreams.count(m_streamCounter))
        ++m_streamCounter;
    return m_streamCounter++;
}

std::uint32_t PasteSession::makeStreamId()
{
    std::vector<std::uint32_t> free;
    for (std::uint32_t id = 0; id < 10; ++id) {
        if (!m_engine.m_staleStreams.count(id))
            free.push_back(id);
    }
    return free.empty() ? QRandomGenerator::global()->bounded(10u)
                        : free[QRandomGenerator::global()->bounded(std::uint32_t(free.size()))];
}
