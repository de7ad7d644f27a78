#include "support/vectors.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "support/vector_lines.h"

namespace vesk {

namespace {

/// One line of the table.
class VectorLine {
 public:
    explicit VectorLine(std::string_view line) : line_(line) {}

    /// Empty if the vector has no such field.
    std::string_view text(std::string_view name) const {
        std::string_view rest = line_;
        while (!rest.empty()) {
            const std::string_view pair = rest.substr(0, rest.find(' '));
            rest.remove_prefix(std::min(rest.size(), pair.size() + 1));
            if (pair.substr(0, pair.find('=')) == name) {
                return pair.substr(name.size() + 1);
            }
        }
        return {};
    }

    Bytes bytes(std::string_view name) const { return fromHex(text(name)); }

    template <typename Number>
    Number number(std::string_view name) const {
        const std::string_view digits = text(name);
        Number value = 0;
        if (std::from_chars(digits.data(), digits.data() + digits.size(), value).ec !=
            std::errc()) {
            throw std::runtime_error("no number: " + std::string(name));
        }
        return value;
    }

    TestKey key(std::string_view digest, std::string_view secret) const {
        return {std::string(text(digest)), bytes(secret)};
    }

    int version() const { return text("framing") == "udpv1" ? 1 : 2; }

 private:
    std::string_view line_;
};

std::vector<VectorLine> linesOfKind(std::string_view kind) {
    std::vector<VectorLine> found;
    for (const std::string_view text : vectorLines()) {
        const VectorLine line(text);
        if (line.text("kind") == kind) {
            found.push_back(line);
        }
    }
    if (found.empty()) {
        throw std::runtime_error("there are no vectors of the kind " + std::string(kind));
    }
    return found;
}

template <typename Vector>
void addChanged(std::vector<Vector>& copies, const Vector& vector, auto field) {
    const std::size_t size = field(vector).size();
    for (const std::size_t place : std::set<std::size_t>{0, size / 2, size - 1}) {
        if (place < size) {
            Vector copy = vector;
            field(copy)[place] ^= 1U;
            copies.push_back(std::move(copy));
        }
    }
}

}  // namespace

std::vector<DatagramVector> datagramVectors() {
    std::vector<DatagramVector> vectors;
    for (const VectorLine& line : linesOfKind("datagrams")) {
        vectors.push_back({.id = std::string(line.text("id")),
                           .version = line.version(),
                           .key = line.key("digest", "key"),
                           .label = line.number<std::uint32_t>("label"),
                           .further = line.bytes("further"),
                           .payload = line.bytes("payload"),
                           .headerLength = line.number<std::size_t>("header_length"),
                           .hmac = line.bytes("hmac"),
                           .datagram = line.bytes("datagram")});
    }
    return vectors;
}

std::vector<RelabelVector> relabelVectors() {
    std::vector<RelabelVector> vectors;
    for (const VectorLine& line : linesOfKind("relabel")) {
        vectors.push_back({.id = std::string(line.text("id")),
                           .version = line.version(),
                           .from = line.key("from_digest", "from_key"),
                           .in = line.bytes("in_datagram"),
                           .to = line.key("to_digest", "to_key"),
                           .label = line.number<std::uint32_t>("to_label"),
                           .out = line.bytes("out_datagram")});
    }
    return vectors;
}

std::vector<LateralVector> lateralVectors() {
    std::vector<LateralVector> vectors;
    for (const VectorLine& line : linesOfKind("lateral")) {
        vectors.push_back({.id = std::string(line.text("id")),
                           .type = line.number<std::uint8_t>("type"),
                           .host = std::string(line.text("host")),
                           .port = line.number<std::uint16_t>("port"),
                           .address = line.bytes("address"),
                           .key = {"sha256", line.bytes("lateral_key")},
                           .returnInformation = line.bytes("return_information"),
                           .framed = line.bytes("framed"),
                           .datagram = line.bytes("datagram")});
    }
    return vectors;
}

std::vector<Refusal> refusals(std::string_view operation) {
    std::vector<Refusal> found;
    for (const VectorLine& line : linesOfKind("refusals")) {
        if (line.text("operation") == operation) {
            // A lateral key has no digest field.
            const std::string_view digest = line.text("digest");
            found.push_back(
                {.id = std::string(line.text("id")),
                 .reason = std::string(line.text("reason")),
                 .version = line.version(),
                 .key = {std::string(digest.empty() ? "sha256" : digest), line.bytes("key")},
                 .datagram = line.bytes("datagram")});
        }
    }
    return found;
}

std::vector<DatagramVector> changedCopies(const DatagramVector& vector) {
    std::vector<DatagramVector> copies;
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.key.bytes; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.further; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.payload; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.hmac; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.datagram; });
    copies.push_back(vector);
    copies.back().label ^= 1U;
    copies.push_back(vector);
    copies.back().headerLength ^= 1U;
    return copies;
}

std::vector<RelabelVector> changedCopies(const RelabelVector& vector) {
    std::vector<RelabelVector> copies;
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.from.bytes; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.in; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.to.bytes; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.out; });
    copies.push_back(vector);
    copies.back().label ^= 1U;
    return copies;
}

std::vector<LateralVector> changedCopies(const LateralVector& vector) {
    std::vector<LateralVector> copies;
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.address; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.key.bytes; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.returnInformation; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.framed; });
    addChanged(
        copies, vector, [](auto& it) -> auto& { return it.datagram; });
    return copies;
}

}  // namespace vesk
