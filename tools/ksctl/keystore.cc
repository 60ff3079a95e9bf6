#include "keystore.h"

#include <fmt/format.h>

#include "library.h"

namespace ksctl {

std::vector<std::string> secret_names() {
  std::vector<std::string> names;
  uint16_t index = 0;
  while (true) {
    Block<char> name;
    const KsResult result = ks_return_secret_handle_by_index(&index, &name.content);
    if (result == KS_NO_MORE_ENTRIES) return names;
    require(result, "the list of secrets");
    names.emplace_back(name.content);
  }
}

bool secret_exists(const std::string &name) {
  uint32_t exists = 0;
  require(ks_secret_exists(name.c_str(), &exists), name);
  return exists != 0;
}

std::optional<Bytes> secret_metadata(const std::string &name) {
  Block<uint8_t> metadata;
  uint16_t size = 0;
  const KsResult result = ks_return_metadata(name.c_str(), &metadata.content, &size);
  if (result == KS_NOT_FOUND) return std::nullopt;
  require(result, name);
  return Bytes(metadata.content, metadata.content + size);
}

std::string hex(std::span<const uint8_t> bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string text(std::span<const uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

std::span<const uint8_t> bytes_of(const std::string &text) {
  return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

}  // namespace ksctl
