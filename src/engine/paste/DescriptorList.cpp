#include "DescriptorList.h"

#include "Messages.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

using google::protobuf::internal::WireFormatLite;

namespace {

constexpr int headerField = 1;
constexpr int descriptorField = 2;

} // namespace

DescriptorList::Scan DescriptorList::scan(const QByteArray &payload, DescriptorList &out)
{
    out.clear();
    // Scanned in place: a list refused costs no copy of what may be 64 MiB.
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(payload.constData());
    google::protobuf::io::CodedInputStream in(bytes, int(payload.size()));
    while (const std::uint32_t tag = in.ReadTag()) {
        const int field = WireFormatLite::GetTagFieldNumber(tag);
        const bool delimited = WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_LENGTH_DELIMITED;
        if ((field == headerField || field == descriptorField) && !delimited)
            return out.clear(), Scan::undecodable;
        if (field == descriptorField) {
            std::uint32_t length = 0;
            if (!in.ReadVarint32(&length) || std::int64_t(length) > payload.size() - in.CurrentPosition())
                return out.clear(), Scan::undecodable;
            if (out.m_offsets.size() == maxEntries)
                return out.clear(), Scan::tooLong;
            out.m_offsets.push_back(std::uint32_t(in.CurrentPosition()));
            out.m_lengths.push_back(length);
            if (!in.Skip(int(length)))
                return out.clear(), Scan::undecodable;
        } else if (field == headerField) {
            std::uint32_t length = 0;
            FileSDK::CliprdrHeader header;
            if (!in.ReadVarint32(&length) || std::int64_t(length) > payload.size() - in.CurrentPosition()
                || !header.ParseFromArray(bytes + in.CurrentPosition(), int(length)) || !in.Skip(int(length)))
                return out.clear(), Scan::undecodable;
        } else if (field == 0 || !WireFormatLite::SkipField(&in, tag)) {
            return out.clear(), Scan::undecodable;
        }
    }
    if (!in.ConsumedEntireMessage() || in.CurrentPosition() != payload.size())
        return out.clear(), Scan::undecodable;
    // The bytes are kept as they came (the payload may be a view of a frame that goes);
    // the entries point into them.
    out.m_payload = QByteArray(payload.constData(), payload.size());
    out.m_offsets.shrink_to_fit();
    out.m_lengths.shrink_to_fit();
    return Scan::ok;
}

std::optional<FileSDK::FileDescriptorw> DescriptorList::entry(std::size_t index) const
{
    FileSDK::FileDescriptorw d;
    if (index >= m_offsets.size() || !d.ParseFromArray(m_payload.constData() + m_offsets[index], int(m_lengths[index])))
        return std::nullopt;
    return d;
}

bool DescriptorList::sameEntry(std::size_t index, const DescriptorList &newer) const
{
    if (index >= m_offsets.size() || index >= newer.m_offsets.size())
        return false;
    // Most lists repeat entries byte for byte: nothing is decoded for those.
    if (QByteArrayView(m_payload.constData() + m_offsets[index], m_lengths[index])
        == QByteArrayView(newer.m_payload.constData() + newer.m_offsets[index], newer.m_lengths[index]))
        return true;
    const auto older = entry(index), now = newer.entry(index);
    return older && now && older->cfilename() == now->cfilename() && kx::descriptorSize(*older) == kx::descriptorSize(*now)
        && older->ftlastwritetimehigh() == now->ftlastwritetimehigh()
        && older->ftlastwritetimelow() == now->ftlastwritetimelow();
}

void DescriptorList::clear()
{
    m_payload = QByteArray();
    std::vector<std::uint32_t>().swap(m_offsets);
    std::vector<std::uint32_t>().swap(m_lengths);
}
