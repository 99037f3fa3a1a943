#include "dictionary/MemoryStream.h"

namespace lexkit_private {

MemoryStreamBuf::MemoryStreamBuf(const void* bytes, size_t size) {
    // The get area is read-only in use; streambuf only wants a non-const pointer.
    char* begin = const_cast<char*>(static_cast<const char*>(bytes));
    setg(begin, begin, begin + size);
}

MemoryStreamBuf::pos_type MemoryStreamBuf::seekoff(off_type offset, std::ios_base::seekdir dir,
                                                   std::ios_base::openmode which) {
    if (!(which & std::ios_base::in)) return pos_type(off_type(-1));
    off_type origin = 0;
    if (dir == std::ios_base::cur) origin = gptr() - eback();
    if (dir == std::ios_base::end) origin = egptr() - eback();
    const off_type target = origin + offset;
    if (target < 0 || target > egptr() - eback()) return pos_type(off_type(-1));
    setg(eback(), eback() + target, egptr());
    return pos_type(target);
}

MemoryStreamBuf::pos_type MemoryStreamBuf::seekpos(pos_type position,
                                                   std::ios_base::openmode which) {
    return seekoff(off_type(position), std::ios_base::beg, which);
}

}  // namespace lexkit_private
