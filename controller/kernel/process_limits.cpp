#include "kernel/process_limits.h"

#include <limits>

#include "kernel/text_words.h"

namespace vesk::controller {

std::optional<std::uint64_t> parseOpenFilesLimit(std::string_view text) {
    constexpr std::string_view name = "Max open files ";
    while (!text.empty()) {
        std::string_view line = takeLine(text);
        if (!line.starts_with(name)) {
            continue;
        }
        line.remove_prefix(name.size());
        const std::string_view soft = takeWord(line);
        if (soft == "unlimited") {
            return std::numeric_limits<std::uint64_t>::max();
        }
        return parseWord<std::uint64_t>(soft);
    }
    return std::nullopt;
}

}  // namespace vesk::controller
