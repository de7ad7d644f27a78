#include "service/log_limit.h"

#include <algorithm>
#include <utility>

namespace vesk::controller {

namespace {

constexpr std::chrono::seconds silence{1};
constexpr std::size_t longestExample = 200;

std::optional<LeftOut> takeFrom(LeftOut& leftOut) {
    return leftOut.lines > 0 ? std::optional(std::exchange(leftOut, {})) : std::nullopt;
}

}  // namespace

std::string describe(const LeftOut& leftOut) {
    const bool one = leftOut.lines == 1;
    const std::string what =
        leftOut.like.empty() ? (one ? " that names a label" : " that name a label") : " like this";
    return std::to_string(leftOut.lines) + (one ? " more line" : " more lines") + what +
           (one ? " was left out" : " were left out") +
           (leftOut.like.empty() ? "" : ": " + leftOut.like);
}

double LineBudget::leftAt(Clock::time_point now) const {
    const std::chrono::duration<double> passed = now - spentAt_.value_or(now);
    return std::min(most_, left_ + passed.count() * perSecond_);
}

void LineBudget::spend(Clock::time_point now) {
    left_ = leftAt(now) - 1;
    spentAt_ = now;
}

LogLimit::Kind* LogLimit::find(const LogKind& kind) {
    const auto found = kinds_.find(kind.name);
    return found == kinds_.end() ? nullptr : &found->second;
}

/// A kind whose budget is full again is no different from a new one.
void LogLimit::forgetKindsAtRest(Clock::time_point now) {
    if (forgotAt_ && now - *forgotAt_ < silence) {
        return;
    }
    forgotAt_ = now;
    std::erase_if(kinds_, [&](const auto& it) {
        return it.second.leftOut.lines == 0 && it.second.budget.full(now);
    });
}

LogLimit::Kind& LogLimit::remember(const LogKind& kind, Clock::time_point now) {
    if (kinds_.size() >= mostKinds) {
        forgetKindsAtRest(now);
    }
    if (kinds_.size() >= mostKinds) {
        return otherKinds_;
    }
    Kind& added = kinds_[kind.name];
    added.namesLabel = kind.namesLabel;
    return added;
}

void LogLimit::leaveOut(LeftOut& leftOut, const LogLine& line, bool showIt, Clock::time_point now) {
    if (leftOut.lines++ == 0) {
        leftOut.level = line.level;
        leftOut.like = showIt ? line.text.substr(0, longestExample) : "";
    }
    dueAt_ = dueAt_.value_or(now + silence);
}

LogLimit::Verdict LogLimit::take(const LogLine& line, Clock::time_point now) {
    const LogKind named = logKindOf(line.level, line.text);
    Kind* kind = find(named);
    const bool spent = kind != nullptr && !kind->budget.has(now);
    // A label that has used up its own budget does not use the common budget of all labels. New
    // kinds are not stored while the common budget is used up, to save memory.
    if (!spent && named.namesLabel && !labelLines_.has(now)) {
        leaveOut(labelLinesLeftOut_, line, false, now);
        return {};
    }
    if (kind == nullptr) {
        kind = &remember(named, now);
    }
    kind->lastSeen = now;
    if (!kind->budget.has(now)) {
        leaveOut(kind->leftOut, line, true, now);
        return {};
    }
    kind->budget.spend(now);
    if (named.namesLabel) {
        labelLines_.spend(now);
    }
    return {true, mayTell(*kind, now) ? takeFrom(kind->leftOut) : std::nullopt};
}

/// The count of a label is itself a line with a label, so it uses the common budget.
bool LogLimit::mayTell(const Kind& kind, Clock::time_point now) {
    if (kind.leftOut.lines == 0 || !kind.namesLabel) {
        return true;
    }
    const bool may = labelLines_.has(now);
    if (may) {
        labelLines_.spend(now);
    }
    return may;
}

std::vector<LeftOut> LogLimit::dueCounts(Clock::time_point now) {
    std::vector<LeftOut> due;
    if (!dueAt_ || now < *dueAt_) {
        return due;
    }
    bool waiting = false;
    const auto tell = [&](Kind& kind) {
        if (kind.leftOut.lines == 0) {
            return;
        }
        if (now - kind.lastSeen >= silence && mayTell(kind, now)) {
            due.push_back(*takeFrom(kind.leftOut));
        } else {
            waiting = true;
        }
    };
    for (auto& [name, kind] : kinds_) {
        tell(kind);
    }
    tell(otherKinds_);
    // These come from many labels, so no example is shown.
    if (std::optional<LeftOut> leftOut = takeFrom(labelLinesLeftOut_)) {
        due.push_back(std::move(*leftOut));
    }
    dueAt_ = waiting ? std::optional(now + silence) : std::nullopt;
    return due;
}

std::vector<LeftOut> LogLimit::allCounts() {
    std::vector<LeftOut> all;
    const auto tell = [&](LeftOut& leftOut) {
        if (std::optional<LeftOut> count = takeFrom(leftOut)) {
            all.push_back(std::move(*count));
        }
    };
    for (auto& [name, kind] : kinds_) {
        tell(kind.leftOut);
    }
    tell(otherKinds_.leftOut);
    tell(labelLinesLeftOut_);
    dueAt_.reset();
    return all;
}

}  // namespace vesk::controller
