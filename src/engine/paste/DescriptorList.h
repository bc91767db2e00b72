#pragma once

#include "filesdk.pb.h"

#include <QByteArray>

#include <cstdint>
#include <optional>
#include <vector>

// The descriptor list of one paste, held once as it came: the encoded message and where
// each entry lies in it. Decoded whole, a list of millions of two-byte entries costs a
// hundred times its size and seconds of work before anything is shown; here an entry is
// decoded when it is needed, and the list costs its own bytes and eight more an entry.
class DescriptorList
{
public:
    // More entries than any real copy holds: a longer list is refused, not worked on.
    static constexpr std::size_t maxEntries = 1000000;

    enum class Scan { ok, undecodable, tooLong };

    // Finds the entries of an encoded MacCliprdrFormatDataResponse without decoding them.
    // An entry that does not decode is found when it is read.
    static Scan scan(const QByteArray &payload, DescriptorList &out);

    std::size_t size() const { return m_offsets.size(); }
    bool empty() const { return m_offsets.empty(); }
    // Nothing if the entry does not decode.
    std::optional<FileSDK::FileDescriptorw> entry(std::size_t index) const;
    // Whether the newer list holds the same file at the same place: same name, size and
    // last-write time. A remote side answers from its newest copy, so only such an entry's
    // bytes may still be asked for.
    bool sameEntry(std::size_t index, const DescriptorList &newer) const;
    // Lets the list's memory go.
    void clear();

private:
    QByteArray m_payload;
    std::vector<std::uint32_t> m_offsets;
    std::vector<std::uint32_t> m_lengths;
};
