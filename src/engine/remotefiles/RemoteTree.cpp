#include "RemoteTree.h"

#include "FileTime.h"
#include "Messages.h"
#include "RemotePath.h"
#include "Wire.h"

#include <QElapsedTimer>
#include <QFile>

#include <climits>

RemoteTree::RemoteTree(DescriptorList list, timespec now, LeftOut leftOut)
    : m_list(std::move(list))
    , m_now(now)
    , m_leftOut(std::move(leftOut))
{
    m_nodes.push_back(Node{{}, 0, true, 0, now, 0, {}});
}

bool RemoteTree::build(int sliceMs)
{
    QElapsedTimer slice;
    slice.start();
    for (; m_read < m_list.size() && !m_built; ++m_read) {
        if (slice.elapsed() >= sliceMs)
            return false;
        if (const auto d = m_list.entry(m_read))
            place(m_read, *d);
        else
            m_leftOut(m_read, {}, "it does not decode");
    }
    m_built = true;
    return true;
}

std::optional<std::uint32_t> RemoteTree::child(std::uint32_t folder, const QByteArray &name) const
{
    const auto found = m_names.constFind(qMakePair(folder, name));
    if (found == m_names.cend())
        return std::nullopt;
    return *found;
}

// The same rules as a paste into a folder: no name that leaves it, either slash separates,
// empty components vanish; and a name the file system could not hold is left out too.
void RemoteTree::place(std::size_t entry, const FileSDK::FileDescriptorw &d)
{
    if (d.cfilename().size() > PATH_MAX) // split, a name of millions of parts costs gigabytes
        return m_leftOut(entry, QString::fromStdString(d.cfilename().substr(0, 64)), "its name is too long for a path");
    const QString name = QString::fromStdString(d.cfilename());
    if (!kx::isContainedRemotePath(name))
        return m_leftOut(entry, name, "its name would lead outside the copy's folder");
    const QStringList parts = kx::remoteComponents(name);
    if (parts.isEmpty() || parts.contains(QStringLiteral(".")))
        return m_leftOut(entry, name, "its name is empty or not a name");
    const bool folder = kx::wire::isFolderAttributes(d.dwfileattributes());
    std::vector<QByteArray> locals;
    qsizetype length = 0;
    for (const QString &part : parts) {
        locals.push_back(QFile::encodeName(part));
        if (locals.back().size() > NAME_MAX)
            return m_leftOut(entry, name, "a part of its name is too long for a file name");
        length += locals.back().size() + 1;
    }
    if (length > PATH_MAX - roomForMount)
        return m_leftOut(entry, name, "its name is too long for a path");
    if (m_nodes.size() + locals.size() > maxNodes)
        return m_leftOut(entry, name, "the copy holds too many files and folders");
    std::uint32_t at = 0;
    for (std::size_t i = 0; i < locals.size(); ++i) {
        const QByteArray &local = locals[i];
        const bool last = i == locals.size() - 1;
        const auto found = m_names.constFind(qMakePair(at, local));
        if (found == m_names.cend()) {
            at = add(at, local, folder || !last);
            continue;
        }
        if (!m_nodes[*found].folder || (last && !folder))
            return m_leftOut(entry, name, "an earlier entry has its name");
        at = *found;
    }
    Node &node = m_nodes[at];
    const std::uint64_t time = kx::joinHalves(d.ftlastwritetimehigh(), d.ftlastwritetimelow());
    if ((d.dwflags() & kx::wire::writeTimeFlag) && time >= kx::unixEpochFileTime)
        node.modified = kx::timespecFromFileTime(time);
    if (!folder) {
        node.size = kx::descriptorSize(d);
        node.listIndex = std::uint32_t(entry);
        m_bytes += node.size;
        ++m_files;
    }
}

std::uint32_t RemoteTree::add(std::uint32_t parent, const QByteArray &name, bool folder)
{
    const auto index = std::uint32_t(m_nodes.size());
    m_nodes.push_back(Node{name, parent, folder, 0, m_now, 0, {}});
    m_nodes[parent].children.push_back(index);
    m_names.insert(qMakePair(parent, name), index);
    return index;
}
