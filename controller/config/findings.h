// Collects what a warning is about: how many there are, and the names of the first few. Used by
// config/configuration_warnings, config/key_warnings and service/supervisor. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vesk::controller {

/// The findings of one kind: their number, and the names of the first few.
class Findings {
 public:
    static constexpr std::size_t mostExamples = 3;

    void add(std::string name) {
        if (count_ < mostExamples) {
            names_.push_back(std::move(name));
        }
        ++count_;
    }

    void addUnnamed(std::uint64_t count) { count_ += count; }

    bool any() const { return count_ != 0; }

    /// "1 flow has" or "7 flows have", from "flow has" and "flows have".
    std::string counted(const char* one, const char* several) const {
        return std::to_string(count_) + " " + (count_ == 1 ? one : several);
    }

    /// "alice, bob, carol and 4 more".
    std::string examples() const {
        std::string text;
        for (const std::string& name : names_) {
            text += (text.empty() ? "" : ", ") + name;
        }
        const std::uint64_t more = count_ - names_.size();
        return more == 0 ? text : text + " and " + std::to_string(more) + " more";
    }

 private:
    std::uint64_t count_ = 0;
    std::vector<std::string> names_;
};

}  // namespace vesk::controller
