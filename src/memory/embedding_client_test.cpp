#include "memory/embedding_client.hpp"

#include <gtest/gtest.h>

#include <bit>

namespace kx::memory {
namespace {

HttpPost answering(int status, std::string body) {
  return [=](const std::string&, const std::string&) {
    platform::HttpResponse r;
    r.ok = true;
    r.status = status;
    r.body = body;
    return r;
  };
}

TEST(EmbeddingClient, StoresTheAnswerAsFloatBitPatterns) {
  const EmbedResult r = embed_text(answering(200, R"({"embedding":[0.5,-2]})"), "u", "m", "text");
  ASSERT_TRUE(r.ok) << r.error;
  ASSERT_EQ(r.vector.size(), 2u);
  EXPECT_EQ(std::bit_cast<float>(r.vector[0]), 0.5f);
  EXPECT_EQ(std::bit_cast<float>(r.vector[1]), -2.0f);
}

TEST(EmbeddingClient, SendsModelAndPromptAsJson) {
  std::string sent;
  HttpPost post = [&](const std::string&, const std::string& body) {
    sent = body;
    return platform::HttpResponse{};
  };
  embed_text(post, "u", "nomic-embed-text", "say \"hi\"\n");
  EXPECT_EQ(sent, R"({"model":"nomic-embed-text","prompt":"say \"hi\"\n"})");
}

TEST(EmbeddingClient, UnusableAnswersAreErrorsNotVectors) {
  for (const auto& [status, body] :
       std::vector<std::pair<int, std::string>>{{500, R"({"embedding":[1]})"},
                                                {200, "not json"},
                                                {200, R"({"embedding":[]})"},
                                                {200, R"({"embedding":["x"]})"},
                                                {200, R"({"other":1})"}}) {
    const EmbedResult r = embed_text(answering(status, body), "u", "m", "t");
    EXPECT_FALSE(r.ok) << body;
    EXPECT_TRUE(r.vector.empty()) << body;
    EXPECT_FALSE(r.error.empty()) << body;
  }
}

TEST(EmbeddingClient, CosineSimilarity) {
  auto v = [](std::initializer_list<float> xs) {
    Embedding out;
    for (float x : xs) out.push_back(std::bit_cast<std::uint32_t>(x));
    return out;
  };
  EXPECT_DOUBLE_EQ(cosine_similarity(v({1, 0}), v({2, 0})), 1.0);
  EXPECT_DOUBLE_EQ(cosine_similarity(v({1, 0}), v({0, 3})), 0.0);
  EXPECT_DOUBLE_EQ(cosine_similarity(v({1, 0}), v({1, 0, 0})), 0.0);  // sizes differ
  EXPECT_DOUBLE_EQ(cosine_similarity(v({0, 0}), v({1, 0})), 0.0);
}

}  // namespace
}  // namespace kx::memory
