#include "launcher/unit_source.hpp"

namespace kx::launcher {

std::optional<std::string> UnitSource::next() {
  if (put_back_) {
    std::optional<std::string> unit = std::move(put_back_);
    put_back_.reset();
    return unit;
  }
  for (;;) {
    if (auto unit = framer_.next()) return unit;
    if (ended_) return framer_.finish();
    if (chunk_.empty()) chunk_.resize(65536);
    std::size_t n = reader_(chunk_.data(), chunk_.size());
    if (n == 0)
      ended_ = true;
    else
      framer_.add(std::string_view(chunk_.data(), n));
  }
}

}  // namespace kx::launcher
