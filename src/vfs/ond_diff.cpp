#include "vfs/ond_diff.hpp"

#include <algorithm>
#include <optional>

namespace kst {
namespace {

using Ids = std::span<const std::uint32_t>;

struct Point {
  std::size_t x, y;
};

struct Box {
  std::size_t left, top, right, bottom;
  std::ptrdiff_t width() const { return static_cast<std::ptrdiff_t>(right - left); }
  std::ptrdiff_t height() const { return static_cast<std::ptrdiff_t>(bottom - top); }
};

class Ond {
 public:
  Ond(Ids a, std::uint32_t a_base, Ids b, std::uint32_t b_base, std::vector<ScriptLine>& out,
      std::size_t max_depth)
      : a_(a), b_(b), a_base_(a_base), b_base_(b_base), out_(out), max_depth_(max_depth) {}

  void solve(Box box) {
    while (box.left < box.right && box.top < box.bottom && a_[box.left] == b_[box.top]) {
      same(box.left);
      ++box.left;
      ++box.top;
    }
    std::size_t suffix = 0;
    while (box.right - suffix > box.left && box.bottom - suffix > box.top &&
           a_[box.right - 1 - suffix] == b_[box.bottom - 1 - suffix])
      ++suffix;
    box.right -= suffix;
    box.bottom -= suffix;
    if (box.left == box.right) {
      for (std::size_t y = box.top; y < box.bottom; ++y) added(y);
    } else if (box.top == box.bottom) {
      for (std::size_t x = box.left; x < box.right; ++x) removed(x);
    } else if (auto snake = middle_snake(box);
               !snake || (snake->first.x == box.left && snake->first.y == box.top &&
                          snake->second.x == box.right && snake->second.y == box.bottom)) {
      // Over the search bound: the part is shown whole on both sides.
      approximated = true;
      for (std::size_t x = box.left; x < box.right; ++x) removed(x);
      for (std::size_t y = box.top; y < box.bottom; ++y) added(y);
    } else {
      const auto [start, finish] = *snake;
      solve({box.left, box.top, start.x, start.y});
      walk(start, finish);
      solve({finish.x, finish.y, box.right, box.bottom});
    }
    for (std::size_t k = suffix; k > 0; --k) same(box.right + suffix - k);
  }

  bool approximated = false;

 private:
  void same(std::size_t x) {
    out_.push_back({LineTag::same, a_base_ + static_cast<std::uint32_t>(x)});
  }
  void removed(std::size_t x) {
    out_.push_back({LineTag::removed, a_base_ + static_cast<std::uint32_t>(x)});
  }
  void added(std::size_t y) {
    out_.push_back({LineTag::added, b_base_ + static_cast<std::uint32_t>(y)});
  }

  // A snake: at most one edit step and the diagonal around it.
  void walk(Point from, Point to) {
    std::size_t x = from.x, y = from.y;
    while (x < to.x && y < to.y && a_[x] == b_[y]) same(x++), ++y;
    if (to.x - x < to.y - y)
      added(y++);
    else if (to.x - x > to.y - y)
      removed(x++);
    while (x < to.x && y < to.y) same(x++), ++y;
  }

  // The middle snake of a shortest path through `box`, searched from both ends at once;
  // nothing when it lies deeper than the bound.
  std::optional<std::pair<Point, Point>> middle_snake(const Box& box) {
    const std::ptrdiff_t n = box.width(), m = box.height();
    const std::ptrdiff_t delta = n - m;
    const std::ptrdiff_t max =
        std::min<std::ptrdiff_t>((n + m + 1) / 2, static_cast<std::ptrdiff_t>(max_depth_));
    const std::ptrdiff_t offset = max + 1;
    forward_.assign(static_cast<std::size_t>(2 * max + 3), 0);
    backward_.assign(static_cast<std::size_t>(2 * max + 3), 0);
    auto vf = [&](std::ptrdiff_t k) -> std::ptrdiff_t& {
      return forward_[static_cast<std::size_t>(k + offset)];
    };
    auto vb = [&](std::ptrdiff_t c) -> std::ptrdiff_t& {
      return backward_[static_cast<std::size_t>(c + offset)];
    };
    const auto left = static_cast<std::ptrdiff_t>(box.left);
    const auto top = static_cast<std::ptrdiff_t>(box.top);
    const auto right = static_cast<std::ptrdiff_t>(box.right);
    const auto bottom = static_cast<std::ptrdiff_t>(box.bottom);
    vf(1) = left;
    vb(1) = bottom;
    auto point = [](std::ptrdiff_t x, std::ptrdiff_t y) {
      return Point{static_cast<std::size_t>(x), static_cast<std::size_t>(y)};
    };
    for (std::ptrdiff_t d = 0; d <= max; ++d) {
      // Forward: x on diagonal k = x - y (relative to the box's corner).
      for (std::ptrdiff_t k = d; k >= -d; k -= 2) {
        const std::ptrdiff_t c = k - delta;
        std::ptrdiff_t x, px;
        if (k == -d || (k != d && vf(k - 1) < vf(k + 1))) {
          px = x = vf(k + 1);
        } else {
          px = vf(k - 1);
          x = px + 1;
        }
        std::ptrdiff_t y = top + (x - left) - k;
        const std::ptrdiff_t py = (d == 0 || x != px) ? y : y - 1;
        while (x < right && y < bottom &&
               a_[static_cast<std::size_t>(x)] == b_[static_cast<std::size_t>(y)])
          ++x, ++y;
        vf(k) = x;
        if ((delta & 1) != 0 && c >= -(d - 1) && c <= d - 1 && y >= vb(c))
          return std::pair{point(px, py), point(x, y)};
      }
      // Backward: y on diagonal c = k - delta, walking up from the far corner.
      for (std::ptrdiff_t c = d; c >= -d; c -= 2) {
        const std::ptrdiff_t k = c + delta;
        std::ptrdiff_t y, py;
        if (c == -d || (c != d && vb(c - 1) > vb(c + 1))) {
          py = y = vb(c + 1);
        } else {
          py = vb(c - 1);
          y = py - 1;
        }
        std::ptrdiff_t x = left + (y - top) + k;
        const std::ptrdiff_t px = (d == 0 || y != py) ? x : x + 1;
        while (x > left && y > top &&
               a_[static_cast<std::size_t>(x - 1)] == b_[static_cast<std::size_t>(y - 1)])
          --x, --y;
        vb(c) = y;
        if ((delta & 1) == 0 && k >= -d && k <= d && x <= vf(k))
          return std::pair{point(x, y), point(px, py)};
      }
    }
    return std::nullopt;
  }

  Ids a_, b_;
  std::uint32_t a_base_, b_base_;
  std::vector<ScriptLine>& out_;
  std::size_t max_depth_;
  std::vector<std::ptrdiff_t> forward_, backward_;
};

}  // namespace

OndResult ond_diff(Ids a, std::uint32_t a_base, Ids b, std::uint32_t b_base,
                   std::vector<ScriptLine>& out, std::size_t max_depth) {
  Ond ond(a, a_base, b, b_base, out, max_depth);
  ond.solve({0, 0, a.size(), b.size()});
  return {ond.approximated};
}

}  // namespace kst
