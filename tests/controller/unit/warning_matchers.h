// Matchers for the lists of warnings that the tests of each kind of warning check.
#pragma once

#include <gmock/gmock.h>

namespace vesk::controller {

/// A list with one warning, which has all these texts in it.
template <class... Texts>
auto isOneWarningWith(const Texts&... texts) {
    return testing::ElementsAre(testing::AllOf(testing::HasSubstr(texts)...));
}

inline auto hasNoWarning() {
    return testing::IsEmpty();
}

/// A list in which no warning has this text in it.
template <class Text>
auto showsNowhere(const Text& text) {
    return testing::Each(testing::Not(testing::HasSubstr(text)));
}

}  // namespace vesk::controller
