#pragma once
// The embedding lane's client: asks a local embedding service for the vector of a
// text. Request: POST <url> {"model":"<model>","prompt":"<text>"}; answer:
// {"embedding":[<numbers>]}. Vectors are stored as the bit patterns of 32-bit floats.
#include <functional>
#include <string>
#include <string_view>

#include "memory/heap_record.hpp"
#include "platform/http_client.hpp"

namespace kx::memory {

// The transport; tests substitute their own.
using HttpPost =
    std::function<platform::HttpResponse(const std::string& url, const std::string& json_body)>;

// platform::http_post with a JSON content type and a short time-out.
HttpPost default_http_post();

struct EmbedResult {
  bool ok = false;
  Embedding vector;
  std::string error;  // why the service could not be used
};

EmbedResult embed_text(const HttpPost& post, const std::string& url, const std::string& model,
                       std::string_view text);

// Cosine similarity of two stored vectors (0 when sizes differ or either is zero).
double cosine_similarity(const Embedding& a, const Embedding& b);

}  // namespace kx::memory
