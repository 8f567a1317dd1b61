#pragma once
#include <stdexcept>
#include <string>

namespace zxblk {

// One line that names what failed, on which file or field, and why.
class StoreError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace zxblk
