#pragma once

#include <cstddef>

namespace orv {

// A buffer for bulk transfers, mapped from the system for its own use and given back whole
// when it is destroyed. (From the allocator, a block this large would stay in the arena of the
// thread that freed it, and a server that has run many transfers at once would keep their
// memory for good.) When even a small mapping fails, size() is 0.
class TransferBuffer {
  public:
    explicit TransferBuffer(size_t size);
    ~TransferBuffer();
    TransferBuffer(const TransferBuffer&) = delete;
    TransferBuffer& operator=(const TransferBuffer&) = delete;

    char* data() const { return data_; }
    size_t size() const { return size_; }

  private:
    char* data_ = nullptr;
    size_t size_ = 0;
};

} // namespace orv
