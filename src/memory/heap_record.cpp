#include "memory/heap_record.hpp"

#include <cstring>

namespace kx::memory {
namespace {

std::uint32_t read_u32(const char* p) {
  const auto* b = reinterpret_cast<const unsigned char*>(p);
  return static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8) |
         (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
}

char* write_u32(char* p, std::uint32_t v) {
  p[0] = static_cast<char>(v & 0xff);
  p[1] = static_cast<char>((v >> 8) & 0xff);
  p[2] = static_cast<char>((v >> 16) & 0xff);
  p[3] = static_cast<char>((v >> 24) & 0xff);
  return p + 4;
}

char* write_string(char* p, std::string_view s) {
  p = write_u32(p, static_cast<std::uint32_t>(s.size()));
  if (!s.empty()) std::memcpy(p, s.data(), s.size());
  return p + s.size();
}

// A bounds-checked cursor: every read fails once the bytes run out.
struct Cursor {
  std::string_view bytes;
  std::size_t pos = 0;

  bool u32(std::uint32_t& v) {
    if (bytes.size() - pos < 4) return false;
    v = read_u32(bytes.data() + pos);
    pos += 4;
    return true;
  }
  bool take(std::size_t n, std::string_view& out) {
    if (bytes.size() - pos < n) return false;
    out = bytes.substr(pos, n);
    pos += n;
    return true;
  }
  bool string(std::string_view& out) {
    std::uint32_t n = 0;
    return u32(n) && take(n, out);
  }
};

bool parse_body(Cursor& in, RecordView& out) {
  std::uint32_t count = 0;
  if (!in.string(out.content) || !in.string(out.topic) || !in.u32(count)) return false;
  out.keywords.clear();
  for (std::uint32_t i = 0; i < count; ++i) {
    std::string_view keyword;
    if (!in.string(keyword)) return false;
    out.keywords.push_back(keyword);
  }
  return true;
}

}  // namespace

Embedding RecordView::vector() const {
  Embedding out(vector_bytes.size() / 4);
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = read_u32(vector_bytes.data() + 4 * i);
  return out;
}

bool parse_record(std::string_view bytes, RecordView& out) {
  Cursor in{bytes};
  if (!in.u32(out.flags) || !parse_body(in, out)) return false;
  out.vector_bytes = {};
  if (static_cast<std::int32_t>(out.flags) < 0) {
    std::uint32_t count = 0;
    if (!in.u32(count)) return false;
    if (static_cast<std::uint64_t>(count) * 4 > bytes.size() - in.pos) return false;
    in.take(static_cast<std::size_t>(count) * 4, out.vector_bytes);
  }
  out.size = in.pos;
  return true;
}

bool parse_old_record(std::string_view bytes, RecordView& out) {
  Cursor in{bytes};
  out.flags = 0;
  out.vector_bytes = {};
  if (!parse_body(in, out)) return false;
  out.size = in.pos;
  return true;
}

std::size_t encoded_record_size(std::string_view content, std::string_view topic,
                                const std::vector<std::string>& keywords, const Embedding& vector) {
  std::size_t size = 4 + 4 + content.size() + 4 + topic.size() + 4;
  for (const std::string& keyword : keywords) size += 4 + keyword.size();
  if (!vector.empty()) size += 4 + 4 * vector.size();
  return size;
}

void encode_record(char* out, std::uint32_t flags, std::string_view content, std::string_view topic,
                   const std::vector<std::string>& keywords, const Embedding& vector) {
  flags = vector.empty() ? (flags & ~kVectorBit) : (flags | kVectorBit);
  out = write_u32(out, flags);
  out = write_string(out, content);
  out = write_string(out, topic);
  out = write_u32(out, static_cast<std::uint32_t>(keywords.size()));
  for (const std::string& keyword : keywords) out = write_string(out, keyword);
  if (!vector.empty()) {
    out = write_u32(out, static_cast<std::uint32_t>(vector.size()));
    for (std::uint32_t value : vector) out = write_u32(out, value);
  }
}

}  // namespace kx::memory
