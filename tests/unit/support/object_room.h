// Memory that is looked at after the object in it has gone.
#pragma once

#include <algorithm>
#include <new>

#include "support/bytes.h"

namespace vesk {

/// Room for one object, to be looked at after the object has gone.
template <typename Object>
class Room {
 public:
    template <typename... Arguments>
    Object& make(const Arguments&... arguments) {
        return *new (bytes_) Object(arguments...);
    }

    Bytes contents() const {
        // Not by the compiler's own knowledge of what a destructor leaves.
        const volatile unsigned char* const bytes = bytes_;
        return {bytes, bytes + sizeof(bytes_)};
    }

    bool holds(const Bytes& secret) const {
        const Bytes all = contents();
        return std::ranges::search(all, secret).begin() != all.end();
    }

 private:
    alignas(Object) unsigned char bytes_[sizeof(Object)]{};
};

}  // namespace vesk
