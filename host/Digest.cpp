#include "Digest.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <nettle/sha2.h>
#include <unistd.h>

#include <array>
#include <cstdint>

namespace host {

namespace {

constexpr std::size_t kChunk_bytes = 1u << 16;

std::string Hexadecimal(sha256_ctx& context) {
  std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest = {};
  sha256_digest(&context, digest.size(), digest.data());
  return fmt::format("{:02x}", fmt::join(digest, ""));
}

}  // namespace

std::optional<std::string> Sha256Of(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (file < 0) {
    return std::nullopt;
  }
  sha256_ctx context;
  sha256_init(&context);
  std::array<std::uint8_t, kChunk_bytes> bytes;
  ssize_t count = 0;
  while ((count = read(file, bytes.data(), bytes.size())) > 0) {
    sha256_update(&context, static_cast<std::size_t>(count), bytes.data());
  }
  close(file);
  return count == 0 ? std::make_optional(Hexadecimal(context)) : std::nullopt;
}

}  // namespace host
