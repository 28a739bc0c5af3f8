#pragma once
// One memo as it lies on a context's data heap (and, behind the magic, in its data
// file). The byte layout is documented with the file format in data_file.hpp.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kx::memory {

// Bit 31 of the flags word: a vector count and vector follow the keywords.
inline constexpr std::uint32_t kVectorBit = 0x80000000u;
// Bits 0..16: the memo properties. Every other bit but kVectorBit is zero in a sound record.
inline constexpr std::uint32_t kPropertyBits = 0x1ffffu;

using Embedding = std::vector<std::uint32_t>;  // raw 32-bit values (float bit patterns)

// A parsed record; the views point into the buffer it was parsed from.
struct RecordView {
  std::uint32_t flags = 0;
  std::string_view content;
  std::string_view topic;
  std::vector<std::string_view> keywords;
  std::string_view vector_bytes;  // 4 bytes per value, little-endian
  std::size_t size = 0;           // bytes of the whole record

  Embedding vector() const;
};

// Parses the current-format record at the start of `bytes`. Returns false when the
// record does not fit in `bytes` (truncated or corrupt); `out` is then unspecified.
// `out.keywords` is reused so a load pass does not allocate per record.
bool parse_record(std::string_view bytes, RecordView& out);

// Parses an old-format record (no flags, no vector); flags come back 0.
bool parse_old_record(std::string_view bytes, RecordView& out);

std::size_t encoded_record_size(std::string_view content, std::string_view topic,
                                const std::vector<std::string>& keywords, const Embedding& vector);

// Writes the record into `out`, which must hold encoded_record_size() bytes. Bit 31 of
// the flags is set exactly when `vector` is not empty.
void encode_record(char* out, std::uint32_t flags, std::string_view content, std::string_view topic,
                   const std::vector<std::string>& keywords, const Embedding& vector);

}  // namespace kx::memory
