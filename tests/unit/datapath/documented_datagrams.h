// The example datagrams of docs/wire-format.md, read from the page itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/bytes.h"

namespace vesk {

/// A hexadecimal dump of the page, with the fields that its notes name.
class DocumentedDatagram {
 public:
    /// One line of the dump. A field may take several; the first one bears its name.
    struct Row {
        std::size_t offset;
        std::string note;
    };

    DocumentedDatagram(Bytes bytes, std::vector<Row> rows);

    const Bytes& bytes() const { return bytes_; }
    /// The offset of the row whose note begins with `name`. Throws where there is none.
    std::uint32_t startOf(std::string_view name) const;

 private:
    Bytes bytes_;
    std::vector<Row> rows_;
};

class WireFormatPage {
 public:
    /// Throws where the page cannot be read.
    WireFormatPage();

    /// The datagram whose description, the paragraph above its dump, begins with `description`.
    DocumentedDatagram datagram(std::string_view description) const;

    /// What follows `phrase` in the page, as far as it is made of letters and digits.
    std::string wordAfter(std::string_view phrase) const;

 private:
    std::string text_;
};

}  // namespace vesk
