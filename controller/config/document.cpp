#include "config/document.h"

#include <algorithm>
#include <string>

#include "config/syntax_error.h"

namespace vesk::controller {

namespace {

/// Whether the problem is that the string, in which a variable was not replaced, is not usable.
bool followsFrom(const StringProblem& cause, const Problem& problem) {
    return problem.line == cause.problem.line && problem.text.starts_with(cause.place + " ");
}

}  // namespace

std::optional<Document> parseDocument(std::string_view text, const std::filesystem::path& file,
                                      Problems& problems) {
    try {
        Document document{toml::parse(text, file.string()), {}};
        document.variables = replaceVariables(document.table);
        return document;
    } catch (const toml::parse_error& error) {
        problems.push_back(describeSyntaxError(text, error));
        return std::nullopt;
    }
}

void completeProblems(const Document& document, Problems& problems) {
    for (const StringProblem& cause : document.variables.problems) {
        std::erase_if(problems, [&](const Problem& it) { return followsFrom(cause, it); });
    }
    for (const StringProblem& cause : document.variables.problems) {
        problems.push_back(cause.problem);
    }
    std::ranges::stable_sort(problems, {}, &Problem::line);
}

}  // namespace vesk::controller
