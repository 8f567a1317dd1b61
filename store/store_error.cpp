#include "store/store_error.h"

namespace zxblk {

const char* errorKindName(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::NotFound: return "not found";
        case ErrorKind::Corruption: return "corruption";
        case ErrorKind::IO: return "I/O error";
        case ErrorKind::Busy: return "busy";
        case ErrorKind::InvalidArgument: return "invalid argument";
        case ErrorKind::Unavailable: return "unavailable";
    }
    return "error";
}

}  // namespace zxblk
