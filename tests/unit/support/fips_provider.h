// A provider of libcrypto with the name of the FIPS provider, which hosts need not have. For tests
// of FIPS mode, each in a process of its own.
#pragma once

#include <initializer_list>

namespace vesk {

/// Makes a provider "fips" known to libcrypto, which offers the default provider's implementations
/// of these operations, such as OSSL_OP_DIGEST. Loads the default provider if there are any.
void addFipsProvider(std::initializer_list<int> operations);

}  // namespace vesk
