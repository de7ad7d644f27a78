// Memory whose content a test reads after the object in it has been destroyed.
#pragma once

#include <algorithm>
#include <new>

#include "support/bytes.h"

namespace vesk {

/// Memory for one object that can be read after the object has been destroyed.
template <typename Object>
class Room {
 public:
    template <typename... Arguments>
    Object& make(const Arguments&... arguments) {
        return *new (bytes_) Object(arguments...);
    }

    Bytes contents() const {
        // Volatile, so that the compiler cannot assume what the destructor leaves.
        const volatile unsigned char* const bytes = bytes_;
        return {bytes, bytes + sizeof(bytes_)};
    }

    bool holds(const Bytes& secret) const {
        const Bytes all = contents();
        return std::search(all.begin(), all.end(), secret.begin(), secret.end()) != all.end();
    }

 private:
    alignas(Object) unsigned char bytes_[sizeof(Object)]{};
};

}  // namespace vesk
