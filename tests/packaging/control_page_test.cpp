// The manual page for authors of a controlling service names every command and every attribute of
// the forwarder.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "control/command_dispatch.h"
#include "flow/flow_attributes.h"

namespace vesk {
namespace {

using ::testing::HasSubstr;

std::string page() {
    std::ifstream file(VESK_CONTROL_PAGE);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A name as the page's source contains it: in bold, with escaped underscores.
std::string marked(std::string_view name) {
    std::string text = "*";
    for (const char character : name) {
        text += character == '_' ? "\\_" : std::string(1, character);
    }
    return text + '*';
}

TEST(ControlPage, NamesEveryCommand) {
    const std::string text = page();
    ASSERT_FALSE(commandTable().empty());
    for (const auto& [name, handler] : commandTable()) {
        // Each command has its own entry.
        EXPECT_THAT(text, HasSubstr("\n" + marked(name)));
    }
}

TEST(ControlPage, NamesEveryAttribute) {
    const std::string text = page();
    ASSERT_FALSE(flowAttributeTable().empty());
    for (const auto& [name, attribute] : flowAttributeTable()) {
        EXPECT_THAT(text, HasSubstr(marked(name)));
    }
}

TEST(ControlPage, NamesBothHalvesOfEveryAddress) {
    const std::string text = page();
    for (const auto& [name, attribute] : flowAttributeTable()) {
        constexpr std::string_view ending = "_addrinfo";
        if (!name.ends_with(ending)) {
            continue;
        }
        const std::string side(name.substr(0, name.size() - ending.size()));
        EXPECT_THAT(text, HasSubstr(marked(side + "_ip")));
        EXPECT_THAT(text, HasSubstr(marked(side + "_port")));
    }
}

}  // namespace
}  // namespace vesk
