#pragma once

#include <cstddef>
#include <cstdint>

// The remote side fetching a local copy: told once when its first bytes go, and once
// when the last byte of the offer has gone.
struct CopySending
{
    bool done = false;
    std::size_t files = 0;
    std::uint64_t bytes = 0;
};
