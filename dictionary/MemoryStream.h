// A seekable std::istream over bytes that the caller keeps alive for the stream's life.
#pragma once

#include <cstddef>
#include <istream>
#include <streambuf>

namespace lexkit_private {

class MemoryStreamBuf : public std::streambuf {
  public:
    MemoryStreamBuf(const void* bytes, size_t size);

  protected:
    pos_type seekoff(off_type offset, std::ios_base::seekdir dir,
                     std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;
};

class MemoryStream : public std::istream {
  public:
    MemoryStream(const void* bytes, size_t size) : std::istream(nullptr), buf_(bytes, size) {
        rdbuf(&buf_);
    }

  private:
    MemoryStreamBuf buf_;
};

}  // namespace lexkit_private
