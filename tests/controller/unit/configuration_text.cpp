#include "configuration_text.h"

#include <gtest/gtest.h>

#include "config/configuration_reader.h"

namespace vesk::controller {

namespace {

ConfigurationReading parse(std::string_view text) {
    return parseConfiguration(text, "vesk.toml", false, ReadingRules{});
}

}  // namespace

Configuration configurationOf(std::string_view text) {
    const ConfigurationReading reading = parse(text);
    EXPECT_EQ(problemsOf(text), "");
    return reading.configuration.value_or(Configuration{});
}

Configuration listeningWith(std::string_view text) {
    return configurationOf(std::string(text) + "\n" + std::string(listening));
}

std::string problemsOf(std::string_view text) {
    std::string result;
    for (const Problem& problem : parse(text).problems) {
        result += std::to_string(problem.line) + ": " + problem.text + "\n";
    }
    return result;
}

std::string problemsBesides(std::string_view text) {
    return problemsOf(std::string(text) + "\n" + std::string(listening));
}

}  // namespace vesk::controller
