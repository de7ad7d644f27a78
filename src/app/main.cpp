// The entry point of the process.
#include <cstddef>
#include <span>

#include "app/forwarder_process.h"

int main(int argumentCount, char** argumentTexts) {
    const std::span<const char* const> arguments(argumentTexts,
                                                 static_cast<std::size_t>(argumentCount));
    return vesk::runForwarder(arguments.empty() ? arguments : arguments.subspan(1));
}
