#include "control/command_loop.h"

#include <openssl/crypto.h>
#include <sys/types.h>

#include <cstdlib>

#include "log/log.h"

namespace vesk {

namespace {

/// The buffer that getline(3) allocates and grows.
class LineBuffer {
 public:
    LineBuffer() = default;
    ~LineBuffer() { std::free(text_); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    /// False at end of input and after a read error. A line that an error cuts off is discarded,
    /// since half a command may have another meaning.
    bool read(std::FILE* input) {
        length_ = getline(&text_, &capacity_, input);
        return length_ >= 0 &&
               (line().size() < static_cast<std::size_t>(length_) || std::ferror(input) == 0);
    }

    std::string_view line() const {
        const std::string_view whole(text_, static_cast<std::size_t>(length_));
        return whole.ends_with('\n') ? whole.substr(0, whole.size() - 1) : whole;
    }

    /// Overwrites the line, since commands may contain keys.
    void wipe() { OPENSSL_cleanse(text_, static_cast<std::size_t>(length_)); }

 private:
    char* text_ = nullptr;
    std::size_t capacity_ = 0;
    ssize_t length_ = 0;
};

}  // namespace

int cltMessageLoop(const LineDispatcher& dispatch, std::FILE* input) {
    LineBuffer buffer;
    while (buffer.read(input)) {
        dispatch(buffer.line());
        buffer.wipe();
    }
    if (std::feof(input) != 0) {
        // Kept: the message itself ends in a newline, so an empty line follows.
        logInfo("cltMessageLoop: Got EOF, exiting...\n");
    }
    return 0;
}

}  // namespace vesk
