// The example datagrams of docs/wire-format.md, read from the page itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/bytes.h"

namespace vesk {

/// A hexadecimal dump from the page, with the fields named in its notes.
class DocumentedDatagram {
 public:
    /// One line of the dump. A field may span several lines; the first one has its name.
    struct Row {
        std::size_t offset;
        std::string note;
    };

    DocumentedDatagram(Bytes bytes, std::vector<Row> rows);

    const Bytes& bytes() const { return bytes_; }
    /// The offset of the row whose note begins with `name`. Throws if there is none.
    std::uint32_t startOf(std::string_view name) const;

 private:
    Bytes bytes_;
    std::vector<Row> rows_;
};

class WireFormatPage {
 public:
    /// Throws if the page cannot be read.
    WireFormatPage();

    /// The datagram whose description, the paragraph above its dump, begins with `description`.
    DocumentedDatagram datagram(std::string_view description) const;

    /// The letters and digits that follow `phrase` in the page.
    std::string wordAfter(std::string_view phrase) const;

 private:
    std::string text_;
};

}  // namespace vesk
