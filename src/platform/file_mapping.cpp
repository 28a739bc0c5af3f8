#include "platform/file_mapping.hpp"

namespace kx::platform {

FileMapping& FileMapping::operator=(FileMapping&& other) noexcept {
  if (this != &other) {
    unmap();
    data_ = other.data_;
    size_ = other.size_;
    other.data_ = nullptr;
    other.size_ = 0;
  }
  return *this;
}

}  // namespace kx::platform
