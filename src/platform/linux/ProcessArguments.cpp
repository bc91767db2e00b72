#include "ProcessArguments.h"

#include <cstring>

namespace kx {

void blankArgumentValues(std::span<char *const> arguments)
{
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        char *argument = arguments[i];
        const std::size_t length = std::strlen(argument);
        // A key is a lowercase word before the first comma, with a value after it. Without
        // one, as in "tokenabc," whose value is the word itself, nothing is kept.
        std::size_t key = 0;
        while (key < length && argument[key] >= 'a' && argument[key] <= 'z')
            ++key;
        const bool keyed = key > 0 && key < length && argument[key] == ','
            && key + std::strspn(argument + key, ",") < length;
        const std::size_t kept = keyed ? key + 1 : 0;
        // The terminating zeros stay: the kernel then shows exactly this memory, no more.
        std::memset(argument + kept, 0, length - kept);
    }
}

} // namespace kx
