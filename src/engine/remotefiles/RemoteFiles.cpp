#include "RemoteFiles.h"

#include "EngineLog.h"
#include "LogText.h"

#include <QDir>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>

#include <sys/stat.h>

namespace {

timespec now()
{
    timespec t{};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return t;
}

// Enough to see what a hostile list does without a line per entry of a million.
constexpr std::size_t leftOutLines = 20;

} // namespace

RemoteFiles::RemoteFiles(int window, RangeReads::Send send, QObject *parent)
    : QObject(parent)
    , m_reads(window, std::move(send))
{
    m_collect.setInterval(1000);
    connect(&m_collect, &QTimer::timeout, this, &RemoteFiles::collect);
}

// The reads' own end answers every read still waiting, after the file system has stopped.
RemoteFiles::~RemoteFiles()
{
    emit closing();
}

bool RemoteFiles::isUnderMount(const QUrl &url) const
{
    if (m_mountPath.isEmpty() || !url.isLocalFile())
        return false;
    const QString path = url.toLocalFile();
    if ((path + QLatin1Char('/')).startsWith(m_mountPath + QLatin1Char('/')))
        return true;
    struct stat st {};
    return m_mountDevice && ::stat(QFile::encodeName(path).constData(), &st) == 0 && std::uint64_t(st.st_dev) == m_mountDevice;
}

void RemoteFiles::addCopy(DescriptorList list)
{
    retireCopy();
    const std::lock_guard lock(m_lock);
    const std::uint64_t serial = ++m_serial;
    m_leftOutLogged = 0;
    auto leftOut = [this, serial](std::size_t entry, const QString &name, const char *why) {
        if (m_leftOutLogged++ < leftOutLines)
            qCInfo(lcEngine).noquote().nospace() << "entry " << entry << " of remote copy " << serial << " ("
                                                 << kx::escapedName(name) << ") is left out of its folder: " << why;
    };
    Copy &copy = m_copies[serial];
    copy.tree = std::make_unique<RemoteTree>(std::move(list), now(), leftOut);
    copy.lastUse.start();
    buildLater(serial);
}

// Laid out in slices; a newer copy or a lost connection may come meanwhile.
void RemoteFiles::buildLater(std::uint64_t serial)
{
    std::unique_lock lock(m_lock);
    const auto copy = m_copies.find(serial);
    if (copy == m_copies.end() || !copy->second.current)
        return;
    if (!copy->second.tree->build(sliceMs)) {
        QTimer::singleShot(0, this, [this, serial] { buildLater(serial); });
        return;
    }
    const RemoteTree &tree = *copy->second.tree;
    if (m_leftOutLogged > leftOutLines)
        qCInfo(lcEngine).noquote().nospace() << m_leftOutLogged << " entries of remote copy " << serial << " are left out in all";
    qCInfo(lcEngine).noquote().nospace() << "remote copy " << serial << " can be pasted from the file manager: "
                                         << tree.files() << " files, " << tree.bytes() << " bytes, in "
                                         << m_mountPath << '/' << serial;
    const QString folder = m_mountPath + QLatin1Char('/') + QString::number(serial);
    QList<QUrl> urls;
    const std::vector<std::uint32_t> &top = tree.node(0).children;
    if (top.size() > maxOfferedUrls) {
        qCInfo(lcEngine).noquote().nospace() << "remote copy " << serial << " has " << top.size()
                                             << " entries at its top; its folder is offered instead";
        urls.append(QUrl::fromLocalFile(folder));
    } else {
        for (const std::uint32_t node : top)
            urls.append(QUrl::fromLocalFile(folder + QLatin1Char('/') + QFile::decodeName(tree.node(node).name)));
    }
    lock.unlock();
    if (!top.empty())
        emit copyReady(urls);
}

void RemoteFiles::retireCopy()
{
    const std::lock_guard lock(m_lock);
    for (auto &[serial, copy] : m_copies) {
        if (copy.current) {
            copy.current = false;
            copy.lastUse.start();
        }
    }
    if (!m_copies.empty())
        m_collect.start();
    collect();
}

// A retired copy lingers a minute after its last read, one the file system never looked
// at a few seconds; never more than a few at once, however fast newer copies come.
void RemoteFiles::collect()
{
    const std::lock_guard lock(m_lock);
    std::size_t lingering = std::count_if(m_copies.begin(), m_copies.end(), [](const auto &c) { return !c.second.current; });
    for (auto copy = m_copies.begin(); copy != m_copies.end();) {
        const Copy &c = copy->second;
        const bool tooMany = lingering > maxLingering;
        if (!c.current && c.handles == 0 && (tooMany || c.lastUse.hasExpired(c.used ? m_lingerMs : m_lingerMs / 12))) {
            --lingering;
            qCInfo(lcEngine).noquote().nospace() << "the folder of remote copy " << copy->first << " is gone";
            copy = m_copies.erase(copy);
        } else {
            ++copy;
        }
    }
    if (std::none_of(m_copies.begin(), m_copies.end(), [](const auto &c) { return !c.second.current; }))
        m_collect.stop();
}

void RemoteFiles::connectionLost()
{
    m_reads.failAll(EIO);
    std::unique_lock lock(m_lock);
    const bool had = !m_copies.empty();
    m_copies.clear();
    m_handles.clear();
    lock.unlock();
    m_collect.stop();
    if (had)
        emit copiesGone();
}

const RemoteFiles::Copy *RemoteFiles::copyOf(std::uint64_t inode) const
{
    const auto copy = m_copies.find(inode >> 32);
    if (copy == m_copies.end() || !copy->second.tree->built() || (inode & 0xffffffffu) >= copy->second.tree->size())
        return nullptr;
    copy->second.used = true;
    return &copy->second;
}

RemoteFiles::Attributes RemoteFiles::attributesOf(std::uint64_t copy, std::uint32_t node) const
{
    const RemoteTree::Node &n = m_copies.at(copy).tree->node(node);
    return Attributes{inodeOf(copy, node), n.folder, n.size, n.modified};
}

std::optional<RemoteFiles::Attributes> RemoteFiles::lookup(std::uint64_t parent, const QByteArray &name) const
{
    const std::lock_guard lock(m_lock);
    if (parent == rootInode) {
        bool ok = false;
        const std::uint64_t serial = name.toULongLong(&ok);
        if (!ok || QByteArray::number(serial) != name || !copyOf(inodeOf(serial, 0)))
            return std::nullopt;
        return attributesOf(serial, 0);
    }
    const Copy *copy = copyOf(parent);
    if (!copy)
        return std::nullopt;
    const auto child = copy->tree->child(std::uint32_t(parent), name);
    if (!child)
        return std::nullopt;
    return attributesOf(parent >> 32, *child);
}

std::optional<RemoteFiles::Attributes> RemoteFiles::attributes(std::uint64_t inode) const
{
    const std::lock_guard lock(m_lock);
    if (inode == rootInode)
        return Attributes{rootInode, true, 0, now()};
    if (!copyOf(inode))
        return std::nullopt;
    return attributesOf(inode >> 32, std::uint32_t(inode));
}

int RemoteFiles::list(std::uint64_t inode, std::vector<Entry> &entries) const
{
    const std::lock_guard lock(m_lock);
    if (inode == rootInode) {
        for (const auto &[serial, copy] : m_copies)
            if (copy.tree->built())
                entries.push_back(Entry{QByteArray::number(serial), attributesOf(serial, 0)});
        return 0;
    }
    const Copy *copy = copyOf(inode);
    if (!copy)
        return ENOENT;
    const RemoteTree::Node &folder = copy->tree->node(std::uint32_t(inode));
    if (!folder.folder)
        return ENOTDIR;
    for (const std::uint32_t child : folder.children)
        entries.push_back(Entry{copy->tree->node(child).name, attributesOf(inode >> 32, child)});
    return 0;
}

int RemoteFiles::open(std::uint64_t inode, std::uint64_t &handle)
{
    const std::lock_guard lock(m_lock);
    if (!copyOf(inode))
        return ENOENT;
    Copy &copy = m_copies.at(inode >> 32);
    if (copy.tree->node(std::uint32_t(inode)).folder)
        return EISDIR;
    ++copy.handles;
    copy.lastUse.start();
    handle = ++m_handleCounter;
    m_handles[handle] = Handle{inode >> 32, std::uint32_t(inode)};
    return 0;
}

std::uint64_t RemoteFiles::read(std::uint64_t handle, std::uint64_t offset, std::size_t size, RangeReads::Reply reply)
{
    std::unique_lock lock(m_lock);
    const auto found = m_handles.find(handle);
    const auto copy = found == m_handles.end() ? m_copies.end() : m_copies.find(found->second.copy);
    if (copy == m_copies.end()) { // its copy went with the connection
        lock.unlock();
        reply(EIO, {});
        return 0;
    }
    copy->second.lastUse.start();
    const RemoteTree::Node &node = copy->second.tree->node(found->second.node);
    const std::uint64_t inode = inodeOf(copy->first, found->second.node);
    const RangeReads::FileRef file{inode, node.listIndex, node.size, node.name};
    const bool fetch = !isChanged(inode);
    lock.unlock(); // the reply may be given at once
    return m_reads.read(file, offset, size, std::move(reply), fetch);
}

bool RemoteFiles::isChanged(std::uint64_t inode) const
{
    const auto copy = m_copies.find(inode >> 32);
    if (copy == m_copies.end() || copy->second.allChanged)
        return true;
    const std::vector<bool> &changed = copy->second.changed;
    const std::uint32_t node = std::uint32_t(inode);
    if (changed.empty() || node >= copy->second.tree->size())
        return false;
    return changed[copy->second.tree->node(node).listIndex];
}

void RemoteFiles::compareWith(const DescriptorList *newer)
{
    std::unique_lock lock(m_lock);
    for (auto &[serial, copy] : m_copies) {
        if (copy.allChanged)
            continue;
        const DescriptorList &list = copy.tree->list();
        std::size_t differing = 0;
        copy.allChanged = !newer;
        for (std::size_t entry = 0; newer && entry < list.size(); ++entry) {
            if ((!copy.changed.empty() && copy.changed[entry]) || list.sameEntry(entry, *newer))
                continue;
            if (copy.changed.empty())
                copy.changed.resize(list.size());
            copy.changed[entry] = true;
            ++differing;
        }
        if (copy.allChanged)
            qCInfo(lcEngine).noquote().nospace() << "the remote side's newer file list could not be had: files of remote copy "
                                                 << serial << " are read no further than what came of them";
        else if (differing)
            qCInfo(lcEngine).noquote().nospace() << "the remote side copied something else: " << differing << " entries of remote copy "
                                                 << serial << " are no longer its own and are read no further than what came of them";
    }
    lock.unlock();
    m_reads.failChanged([this](std::uint64_t inode) { return isChanged(inode); });
}

// The cache is the event loop's: told there that the file's last handle is closed.
void RemoteFiles::release(std::uint64_t handle)
{
    const std::lock_guard lock(m_lock);
    const auto found = m_handles.find(handle);
    if (found == m_handles.end())
        return;
    const Handle h = found->second;
    m_handles.erase(found);
    const auto copy = m_copies.find(h.copy);
    if (copy == m_copies.end())
        return;
    copy->second.lastUse.start();
    --copy->second.handles;
    const std::uint64_t inode = inodeOf(h.copy, h.node);
    if (std::none_of(m_handles.begin(), m_handles.end(), [&](const auto &other) {
            return inodeOf(other.second.copy, other.second.node) == inode;
        }))
    {
        if (QThread::currentThread() == thread())
            m_reads.forget(inode);
        else
            QMetaObject::invokeMethod(this, [this, inode] { m_reads.forget(inode); }, Qt::QueuedConnection);
    }
}
