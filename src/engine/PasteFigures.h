#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

// Where a running paste is, for the progress window: the current file (its remote name,
// and its path below the chosen folder with "/"), its number among the files from 1 (0
// while none is current), and the bytes saved of the total.
struct PasteFigures
{
    QString name;
    QString path;
    QString folder;
    std::size_t number = 0;
    std::size_t count = 0;
    std::uint64_t saved = 0;
    std::uint64_t total = 0;
};
