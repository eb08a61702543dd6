#include "platform/buffer.hpp"

#include <initializer_list>
#include <sys/mman.h>

namespace orv {

namespace {
constexpr size_t kSmallest = 64 * 1024;
}

TransferBuffer::TransferBuffer(size_t size) {
    for (size_t want : {size, kSmallest}) {
        void* p = ::mmap(nullptr, want, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) {
            data_ = static_cast<char*>(p);
            size_ = want;
            return;
        }
        if (want <= kSmallest)
            return;
    }
}

TransferBuffer::~TransferBuffer() {
    if (data_)
        ::munmap(data_, size_);
}

} // namespace orv
