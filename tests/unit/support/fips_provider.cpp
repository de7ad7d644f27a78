#include "support/fips_provider.h"

#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/provider.h>

#include <array>
#include <map>
#include <vector>

namespace vesk {

namespace {

/// What the provider offers for each operation; the last one has no name.
std::map<int, std::vector<OSSL_ALGORITHM>> approved;

const OSSL_ALGORITHM* offer(void* /*provider*/, int operation, int* noCache) {
    *noCache = 0;
    const auto found = approved.find(operation);
    return found == approved.end() ? nullptr : found->second.data();
}

int initFipsProvider(const OSSL_CORE_HANDLE*, const OSSL_DISPATCH*, const OSSL_DISPATCH** out,
                     void** context) {
    static const std::array<OSSL_DISPATCH, 2> functions{
        {{OSSL_FUNC_PROVIDER_QUERY_OPERATION, reinterpret_cast<void (*)()>(offer)}, {0, nullptr}}};
    *out = functions.data();
    *context = nullptr;
    return 1;
}

std::vector<OSSL_ALGORITHM> approvedOfDefault(int operation) {
    std::vector<OSSL_ALGORITHM> found;
    int noCache = 0;
    const OSSL_ALGORITHM* algorithm =
        OSSL_PROVIDER_query_operation(OSSL_PROVIDER_load(nullptr, "default"), operation, &noCache);
    for (; algorithm->algorithm_names != nullptr; ++algorithm) {
        found.push_back({algorithm->algorithm_names, "provider=fips,fips=yes",
                         algorithm->implementation, nullptr});
    }
    found.push_back({});
    return found;
}

}  // namespace

void addFipsProvider(std::initializer_list<int> operations) {
    for (const int operation : operations) {
        approved[operation] = approvedOfDefault(operation);
    }
    OSSL_PROVIDER_add_builtin(nullptr, "fips", initFipsProvider);
}

}  // namespace vesk
