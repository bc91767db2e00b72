#include "RangeReads.h"

#include "EngineLog.h"
#include "LogText.h"

#include <QFile>

#include <algorithm>
#include <cerrno>

RangeReads::RangeReads(int window, Send send, QObject *parent)
    : QObject(parent)
    , m_window(std::max(window, 1))
    , m_send(std::move(send))
{
    setStallTimeout(defaultStallMs);
    connect(&m_stallCheck, &QTimer::timeout, this, &RangeReads::checkStalls);
    m_closedCheck.setInterval(1000);
    connect(&m_closedCheck, &QTimer::timeout, this, &RangeReads::dropClosed);
}

RangeReads::~RangeReads()
{
    failAll(EIO);
}

std::size_t RangeReads::aheadLimit() const
{
    return std::min<std::size_t>(std::size_t(m_window), 16);
}

void RangeReads::setStallTimeout(int ms)
{
    m_stallMs = ms;
    m_stallCheck.setInterval(std::clamp(ms / 4, 10, 1000));
}

std::uint64_t RangeReads::chunkLength(const File &file, std::uint64_t chunk) const
{
    return std::min<std::uint64_t>(chunkSize, file.ref.size - chunk * chunkSize);
}

std::uint64_t RangeReads::read(const FileRef &ref, std::uint64_t offset, std::size_t size, Reply reply, bool fetch)
{
    File &file = m_files[ref.key];
    file.ref = ref;
    if (offset >= ref.size || size == 0) {
        reply(0, {});
        return 0;
    }
    const std::uint64_t end = std::min<std::uint64_t>(ref.size, offset + std::min<std::uint64_t>(size, ref.size));
    if (file.failed || !fetch) {
        if (whole(file, offset, end))
            reply(0, pieces(file, offset, end));
        else
            reply(EIO, {});
        return 0;
    }
    // A file manager peeks at a file's first bytes to tell its type: only a large read, or
    // one that goes on where the last ended, is worth reading ahead of.
    file.streaming = size >= streamingReadSize || (offset > 0 && offset == file.furthest);
    file.furthest = std::max(file.furthest, end);
    file.closed = false;
    // Asked for ahead of everything else, in their order.
    bool ready = true;
    for (std::uint64_t chunk = (end - 1) / chunkSize + 1; chunk-- > offset / chunkSize;)
        ready = !want(file, chunk, true) && ready;
    if (ready) {
        reply(0, pieces(file, offset, end));
        readAhead(file);
        dispatch();
        return 0;
    }
    file.waiting.push_back(Waiting{++m_readCounter, offset, end, std::move(reply), QDeadlineTimer(m_stallMs)});
    m_stallCheck.start();
    readAhead(file);
    dispatch();
    return m_readCounter;
}

// Whether the chunk is still to come; asked for if it is not yet.
bool RangeReads::want(File &file, std::uint64_t chunk, bool first)
{
    if (!file.chunks.count(chunk) && first && m_chunkCount >= maxChunks)
        makeRoomAnywhere();
    const auto [at, added] = file.chunks.try_emplace(chunk);
    if (!added)
        return at->second.state != State::complete;
    ++m_chunkCount;
    if (first)
        m_queue.emplace_front(file.ref.key, chunk);
    else
        m_queue.emplace_back(file.ref.key, chunk);
    return true;
}

void RangeReads::readAhead(File &file)
{
    if (!file.streaming)
        return;
    const std::uint64_t next = (file.furthest + chunkSize - 1) / chunkSize;
    for (std::uint64_t chunk = next; chunk < next + aheadLimit() && chunk * chunkSize < file.ref.size; ++chunk) {
        if (file.chunks.count(chunk))
            continue;
        if (m_chunkCount >= maxChunks || !makeRoom(file))
            return;
        want(file, chunk, false);
    }
}

// Room for one more chunk of this file: a complete one behind the furthest read, that no
// read waits for, is let go.
bool RangeReads::makeRoom(File &file)
{
    if (file.chunks.size() < perFileLimit())
        return true;
    for (auto chunk = file.chunks.begin(); chunk != file.chunks.end(); ++chunk) {
        const std::uint64_t end = chunk->first * chunkSize + chunkLength(file, chunk->first);
        if (chunk->second.state != State::complete || end > file.furthest)
            continue;
        if (!isWaitedFor(file, chunk->first)) {
            dropChunk(file, chunk);
            return true;
        }
    }
    return false;
}

// A chunk a read waits for is asked for whatever the total; room is made for it by letting
// go a chunk of any file that no read waits for: one read ahead, or one read already. The
// reply to one still asked for is then dropped when it comes.
void RangeReads::makeRoomAnywhere()
{
    for (auto &[key, file] : m_files) {
        for (auto chunk = file.chunks.begin(); chunk != file.chunks.end(); ++chunk) {
            if (!isWaitedFor(file, chunk->first))
                return dropChunk(file, chunk);
        }
    }
}

bool RangeReads::isWaitedFor(const File &file, std::uint64_t chunk) const
{
    const std::uint64_t start = chunk * chunkSize, end = start + chunkLength(file, chunk);
    return std::any_of(file.waiting.begin(), file.waiting.end(),
                       [&](const Waiting &w) { return w.offset < end && w.end > start; });
}

// A chunk let go while it is asked for: its query's reply, when it comes, must not fill the
// chunk made afresh in its place.
void RangeReads::dropChunk(File &file, std::map<std::uint64_t, Chunk>::iterator chunk)
{
    if (chunk->second.state == State::asked) {
        for (auto query = m_outstanding.begin(); query != m_outstanding.end();) {
            if (query->second.key == file.ref.key && query->second.chunk == chunk->first) {
                m_abandoned.insert(query->first);
                query = m_outstanding.erase(query);
            } else {
                ++query;
            }
        }
    }
    file.chunks.erase(chunk);
    --m_chunkCount;
}

void RangeReads::dispatch()
{
    while (!m_held && m_outstanding.size() < std::size_t(m_window) && !m_queue.empty()) {
        const auto [key, index] = m_queue.front();
        m_queue.pop_front();
        const auto file = m_files.find(key);
        if (file == m_files.end())
            continue;
        const auto chunk = file->second.chunks.find(index);
        if (chunk == file->second.chunks.end() || chunk->second.state != State::wanted)
            continue;
        chunk->second.state = State::asked;
        const std::uint64_t offset = index * chunkSize + std::uint64_t(chunk->second.data.size());
        ask(nextStreamId(), Query{key, index, offset,
                                  std::uint32_t(chunkLength(file->second, index) - chunk->second.data.size()), false});
    }
}

void RangeReads::ask(std::uint32_t streamId, const Query &query)
{
    m_outstanding[streamId] = query;
    m_send(streamId, m_files.at(query.key).ref.listIndex, query.offset, query.length);
}

bool RangeReads::handleReply(const FileSDK::CliprdrFileContentsResponse &reply)
{
    const std::uint32_t streamId = reply.streamid();
    if (!(streamId & streamBit))
        return false;
    const auto found = m_outstanding.find(streamId);
    if (found == m_outstanding.end()) {
        if (!m_abandoned.erase(streamId))
            qCInfo(lcEngine).noquote().nospace() << "ignored a reply of stream " << streamId << ", which no file read asked for";
        return true;
    }
    Query &query = found->second;
    if (m_held) {
        if (!std::exchange(query.keptAside, true))
            m_keptAside.push_back(reply);
        return true;
    }
    File &file = m_files.at(query.key);
    const std::string &data = reply.requesteddata();
    if (reply.cbrequested() == 0 || data.empty()) {
        // Asked again after a wait, as long as the query is still the one outstanding.
        if (!std::exchange(query.retrying, true))
            retryLater(streamId);
        return true;
    }
    const Query asked = query;
    m_outstanding.erase(found);
    if (data.size() > asked.length) {
        qCInfo(lcEngine).noquote().nospace() << "a reply of " << data.size() << " bytes where at most " << asked.length
                                             << " were asked for; reads of " << kx::escapedName(QFile::decodeName(file.ref.name))
                                             << " fail";
        failWaiting(file, EIO, true);
        dispatch();
        return true;
    }
    // A reply fills its chunk only where the chunk's bytes end; complete is exactly whole.
    auto chunk = file.chunks.find(asked.chunk);
    if (chunk != file.chunks.end() && chunk->second.state == State::asked
        && asked.offset == asked.chunk * chunkSize + std::uint64_t(chunk->second.data.size())) {
        chunk->second.data.append(data.data(), qsizetype(data.size()));
        if (std::uint64_t(chunk->second.data.size()) == chunkLength(file, asked.chunk))
            chunk->second.state = State::complete;
        else if (data.size() < asked.length) // the rest, before anything else
            ask(nextStreamId(), Query{asked.key, asked.chunk, asked.offset + data.size(),
                                      std::uint32_t(asked.length - data.size()), false});
    }
    serve(file);
    readAhead(file);
    dispatch();
    return true;
}

void RangeReads::retryLater(std::uint32_t streamId)
{
    const Query &query = m_outstanding.at(streamId);
    QTimer::singleShot(retryWaitMs, this, [this, streamId, key = query.key, offset = query.offset] {
        const auto again = m_outstanding.find(streamId);
        if (again == m_outstanding.end() || again->second.key != key || again->second.offset != offset)
            return;
        if (m_held)
            return retryLater(streamId);
        again->second.retrying = false;
        m_send(streamId, m_files.at(key).ref.listIndex, offset, again->second.length);
    });
}

bool RangeReads::whole(const File &file, std::uint64_t offset, std::uint64_t end) const
{
    for (std::uint64_t chunk = offset / chunkSize; chunk <= (end - 1) / chunkSize; ++chunk) {
        const auto found = file.chunks.find(chunk);
        if (found == file.chunks.end() || found->second.state != State::complete)
            return false;
    }
    return true;
}

void RangeReads::setHeld(bool held)
{
    m_held = held;
    if (held)
        return;
    for (const FileSDK::CliprdrFileContentsResponse &reply : std::exchange(m_keptAside, {})) {
        if (const auto found = m_outstanding.find(reply.streamid()); found != m_outstanding.end())
            found->second.keptAside = false;
        handleReply(reply);
    }
    dispatch();
}

void RangeReads::failChanged(const std::function<bool(std::uint64_t key)> &changed)
{
    for (auto &[key, file] : m_files) {
        if (!file.failed && changed(key))
            failWaiting(file, EIO, true);
    }
    // Replies kept aside for the queries abandoned with those files are theirs: they came.
    std::erase_if(m_keptAside, [this](const FileSDK::CliprdrFileContentsResponse &reply) {
        return !m_outstanding.count(reply.streamid()) && m_abandoned.erase(reply.streamid());
    });
}

void RangeReads::serve(File &file)
{
    std::vector<Waiting> answered;
    for (auto w = file.waiting.begin(); w != file.waiting.end();) {
        if (whole(file, w->offset, w->end)) {
            answered.push_back(std::move(*w));
            w = file.waiting.erase(w);
        } else {
            ++w;
        }
    }
    for (Waiting &w : answered)
        w.reply(0, pieces(file, w.offset, w.end));
}

RangeReads::Pieces RangeReads::pieces(const File &file, std::uint64_t offset, std::uint64_t end) const
{
    Pieces out;
    for (std::uint64_t at = offset; at < end;) {
        const std::uint64_t chunk = at / chunkSize, within = at - chunk * chunkSize;
        const QByteArray &data = file.chunks.at(chunk).data;
        if (std::uint64_t(data.size()) <= within) // never for a complete chunk; a short read, not a loop
            break;
        const std::uint64_t take = std::min<std::uint64_t>(end - at, std::uint64_t(data.size()) - within);
        out.emplace_back(data.constData() + within, qsizetype(take));
        at += take;
    }
    return out;
}

void RangeReads::cancel(std::uint64_t readId, int error)
{
    for (auto &[key, file] : m_files) {
        for (auto w = file.waiting.begin(); w != file.waiting.end(); ++w) {
            if (w->id == readId) {
                const Reply reply = std::move(w->reply);
                file.waiting.erase(w);
                reply(error, {});
                return;
            }
        }
    }
}

// The file's reads that wait fail; its queries are abandoned and what they would have
// filled is let go, so that a later read asks afresh.
void RangeReads::failWaiting(File &file, int error, bool forGood)
{
    const std::uint64_t key = file.ref.key;
    file.failed = file.failed || forGood;
    std::vector<Waiting> waiting = std::move(file.waiting);
    file.waiting.clear();
    abandon(key);
    for (Waiting &w : waiting)
        w.reply(error, {});
}

// Every query outstanding fills a chunk not yet whole: letting those chunks go abandons
// the queries with them.
void RangeReads::abandon(std::uint64_t key)
{
    const auto file = m_files.find(key);
    if (file == m_files.end())
        return;
    for (auto chunk = file->second.chunks.begin(); chunk != file->second.chunks.end();) {
        if (chunk->second.state != State::complete) {
            auto gone = chunk++;
            dropChunk(file->second, gone);
        } else {
            ++chunk;
        }
    }
}

// The file's last handle is closed. Its cache is kept a little while: a file manager opens
// a file once to tell its type and again to copy it.
void RangeReads::forget(std::uint64_t key)
{
    const auto file = m_files.find(key);
    if (file == m_files.end())
        return;
    failWaiting(file->second, EIO, false);
    file->second.closed = true;
    file->second.closedSince.start();
    if (m_keepClosedMs <= 0)
        dropClosed();
    else if (!m_closedCheck.isActive())
        m_closedCheck.start();
    dispatch();
}

void RangeReads::dropClosed()
{
    bool any = false;
    for (auto file = m_files.begin(); file != m_files.end();) {
        if (file->second.closed && (m_keepClosedMs <= 0 || file->second.closedSince.hasExpired(m_keepClosedMs))) {
            m_chunkCount -= file->second.chunks.size();
            file = m_files.erase(file);
        } else {
            any = any || file->second.closed;
            ++file;
        }
    }
    if (!any)
        m_closedCheck.stop();
}

void RangeReads::failAll(int error)
{
    std::vector<Reply> replies;
    for (auto &[key, file] : m_files)
        for (Waiting &w : file.waiting)
            replies.push_back(std::move(w.reply));
    m_files.clear();
    m_queue.clear();
    m_outstanding.clear();
    m_abandoned.clear();
    m_keptAside.clear();
    m_held = false;
    m_chunkCount = 0;
    m_stallCheck.stop();
    m_closedCheck.stop();
    for (Reply &reply : replies)
        reply(error, {});
}

void RangeReads::checkStalls()
{
    bool any = false;
    for (auto &[key, file] : m_files) {
        if (file.waiting.empty())
            continue;
        const auto late = [](const Waiting &read) { return read.due.hasExpired(); };
        if (std::none_of(file.waiting.cbegin(), file.waiting.cend(), late)) {
            any = true;
            continue;
        }
        qCInfo(lcEngine).noquote().nospace() << "a read of " << kx::escapedName(QFile::decodeName(file.ref.name))
                                             << " was not answered in full in " << QString::number(m_stallMs / 1000.0)
                                             << " seconds; its reads fail";
        failWaiting(file, EIO, false);
    }
    if (!any)
        m_stallCheck.stop();
    dispatch();
}

std::uint32_t RangeReads::nextStreamId()
{
    std::uint32_t id;
    do
        id = streamBit | (m_streamCounter++ & ~streamBit);
    while (m_outstanding.count(id) || m_abandoned.count(id));
    return id;
}
