#include "memory/embedding_client.hpp"

#include <bit>
#include <cmath>
#include <nlohmann/json.hpp>

namespace kx::memory {

namespace {
constexpr int kTimeoutMs = 5000;
}

HttpPost default_http_post() {
  return [](const std::string& url, const std::string& body) {
    return platform::http_post(url, "application/json", body, kTimeoutMs);
  };
}

EmbedResult embed_text(const HttpPost& post, const std::string& url, const std::string& model,
                       std::string_view text) {
  EmbedResult result;
  nlohmann::json request = {{"model", model}, {"prompt", std::string(text)}};
  const platform::HttpResponse response =
      post(url, request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  if (!response.ok) {
    result.error = response.error;
    return result;
  }
  if (response.status != 200) {
    result.error = "HTTP " + std::to_string(response.status);
    return result;
  }
  const auto answer = nlohmann::json::parse(response.body, nullptr, false);
  if (answer.is_discarded() || !answer.is_object() || !answer.contains("embedding") ||
      !answer["embedding"].is_array() || answer["embedding"].empty()) {
    result.error = "no embedding in the answer";
    return result;
  }
  for (const auto& value : answer["embedding"]) {
    if (!value.is_number()) {
      result.error = "non-numeric embedding value";
      result.vector.clear();
      return result;
    }
    result.vector.push_back(std::bit_cast<std::uint32_t>(value.get<float>()));
  }
  result.ok = true;
  return result;
}

double cosine_similarity(const Embedding& a, const Embedding& b) {
  if (a.size() != b.size() || a.empty()) return 0;
  double dot = 0, na = 0, nb = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const double x = std::bit_cast<float>(a[i]);
    const double y = std::bit_cast<float>(b[i]);
    dot += x * y;
    na += x * x;
    nb += y * y;
  }
  return na == 0 || nb == 0 ? 0 : dot / (std::sqrt(na) * std::sqrt(nb));
}

}  // namespace kx::memory
