// The test vectors of vectors/ as text. The build makes the definition (make_vector_table.py);
// support/vectors reads it.
#pragma once

#include <span>
#include <string_view>

namespace vesk {

/// One line for each vector: its kind and its fields as "name=value", separated by blanks.
std::span<const std::string_view> vectorLines();

}  // namespace vesk
