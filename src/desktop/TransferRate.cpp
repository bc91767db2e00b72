#include "TransferRate.h"

#include <algorithm>

void TransferRate::add(std::int64_t ms, std::uint64_t bytes)
{
    m_samples.emplace_back(ms, bytes);
    // The oldest sample kept is the last one at least a span old.
    while (m_samples.size() > 2 && m_samples[1].first <= ms - spanMs)
        m_samples.pop_front();
}

std::optional<double> TransferRate::bytesPerSecond() const
{
    if (m_samples.size() < 2 || m_samples.back().first - m_samples.front().first < leastMs)
        return std::nullopt;
    const auto &[fromMs, fromBytes] = m_samples.front();
    const auto &[toMs, toBytes] = m_samples.back();
    return std::max(0.0, double(toBytes) - double(fromBytes)) * 1000.0 / double(toMs - fromMs);
}
