#pragma once

#include "paste/DescriptorList.h"

#include <QByteArray>
#include <QHash>
#include <QPair>
#include <QString>

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <vector>

// One remote copy laid out as a read-only tree: each name of its descriptor list mapped as
// a paste maps it, the folders of every path made, and whatever a paste would refuse left
// out. Built in slices, so that a long list does not hold up the event loop; read only
// once built.
class RemoteTree
{
public:
    struct Node
    {
        QByteArray name; // as the local file system spells it
        std::uint32_t parent = 0;
        bool folder = true;
        std::uint64_t size = 0;
        timespec modified{};
        std::uint32_t listIndex = 0;         // the entry a file's queries name
        std::vector<std::uint32_t> children; // in the list's order
    };
    // An entry that is not laid out, and why, in words for the log.
    using LeftOut = std::function<void(std::size_t entry, const QString &name, const char *why)>;

    // Folders a path implies count too: a list of deep, distinct paths is bounded all the same.
    static constexpr std::size_t maxNodes = 2 * DescriptorList::maxEntries;
    // What a path beneath the mount may take of PATH_MAX; the mount's own path takes the rest.
    static constexpr int roomForMount = 256;

    // now: the time of what carries none (folders a path implies, entries without one).
    RemoteTree(DescriptorList list, timespec now, LeftOut leftOut);

    // Goes on laying out entries until the slice is over; true once all are.
    bool build(int sliceMs);
    bool built() const { return m_built; }

    // Node 0 is the copy's own folder; its children are the copy's top-level entries.
    const Node &node(std::uint32_t index) const { return m_nodes[index]; }
    std::size_t size() const { return m_nodes.size(); }
    std::optional<std::uint32_t> child(std::uint32_t folder, const QByteArray &name) const;
    std::uint64_t bytes() const { return m_bytes; }
    // The list it was laid out from, kept to tell a newer copy's same files from the rest.
    const DescriptorList &list() const { return m_list; }
    std::size_t files() const { return m_files; }

private:
    void place(std::size_t entry, const FileSDK::FileDescriptorw &d);
    std::uint32_t add(std::uint32_t parent, const QByteArray &name, bool folder);

    DescriptorList m_list;
    timespec m_now;
    LeftOut m_leftOut;
    std::size_t m_read = 0;
    bool m_built = false;
    std::vector<Node> m_nodes;
    // Each folder's entries by name. Kept rather than sorted lists: sorting, or freeing, a
    // million names at the end would hold the event loop for a second.
    QHash<QPair<std::uint32_t, QByteArray>, std::uint32_t> m_names;
    std::uint64_t m_bytes = 0;
    std::size_t m_files = 0;
};
