#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

// How fast a transfer goes, from the bytes done at moments of the last few seconds: it
// follows a change of pace within seconds, yet does not jump with every report.
class TransferRate
{
public:
    static constexpr std::int64_t spanMs = 5000;   // how far back the rate looks
    static constexpr std::int64_t leastMs = 1000;  // no rate from less than this

    void clear() { m_samples.clear(); }
    // ms: when, on any steady clock; bytes: done so far.
    void add(std::int64_t ms, std::uint64_t bytes);
    std::optional<double> bytesPerSecond() const;

private:
    std::deque<std::pair<std::int64_t, std::uint64_t>> m_samples;
};
