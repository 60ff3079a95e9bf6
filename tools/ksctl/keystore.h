// keystore.h: what libks tells about the caller's entries, in the types of C++. Everything here throws Failure.
#ifndef TOOLS_KSCTL_KEYSTORE_H
#define TOOLS_KSCTL_KEYSTORE_H

#include <ks_api.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ksctl {

using Bytes = std::vector<uint8_t>;

// Block owns what the library hands out.
template <typename Content>
struct Block {
  ~Block() { free(content); }
  Content *content = nullptr;
};

// secret_names walks over the caller's secrets. An entry that comes or goes meanwhile may be missed.
std::vector<std::string> secret_names();

bool secret_exists(const std::string &name);

// secret_metadata gives nothing for a secret that isn't there.
std::optional<Bytes> secret_metadata(const std::string &name);

std::string hex(std::span<const uint8_t> bytes);
std::string text(std::span<const uint8_t> bytes);
std::span<const uint8_t> bytes_of(const std::string &text);

}  // namespace ksctl

#endif
