// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// cache_record: arbitrary bytes as a PAC's value in the cache.
//
//   input     label, counted | random, counted | value
//   property  reads hand out what the value says, and never look behind its end; a T-PRF result
//             that is written is the one that is read, and the metadata stays
//
// That the regions lie where the header says is believed by promise: a database hands out only what was written. So a
// value whose header tells of more than there is isn't read; one without a whole header is.
#include <optional>

#include "ks_api.h"
#include "support/platform.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

constexpr KsWireName kName{.tag = 0x31, .zero = 0, .vdc_id = {0, 7}, .name = {'a'}};
constexpr uint32_t kNameLen = 5;
constexpr size_t kHead = 22;

KsCacheEntry head_of(Bytes value) {
  KsCacheEntry head = {};
  if (value.size() >= kHead) memcpy(&head, value.data(), kHead);
  return head;
}

std::optional<Bytes> region(Bytes value, uint32_t offset, uint16_t length) {
  const uint64_t end = kHead + uint64_t{offset} + length;
  if (value.size() < kHead || end > value.size()) return std::nullopt;
  return value.subspan(kHead + offset, length);
}

void check_metadata(Bytes value) {
  uint8_t *metadata = nullptr;
  uint16_t length = 0xffff;
  require(ks_cache_read_pac(&kName, kNameLen, &metadata, &length) == KS_SUCCESS, "a value that is there is read");
  const uint32_t expected = head_of(value).meta_len;
  require((metadata == nullptr) == (expected == 0), "metadata is handed out unless there is none");
  require(length == static_cast<uint16_t>(expected), "the length of the metadata is that of the header");
  if (expected != 0) require(memcmp(metadata, value.data() + kHead, expected) == 0, "metadata is handed out as it is");
}

bool matches(Bytes value, Bytes label, Bytes random) {
  const KsCacheEntry head = head_of(value);
  const auto cached_label = region(value, head.label_off, head.label_len);
  const auto cached_random = region(value, head.random_off, head.random_len);
  const auto cached_output = region(value, head.output_off, head.output_len);
  if (label.empty() || !cached_label || !cached_output || cached_output->empty()) return false;
  if (!fuzz::same(*cached_label, label) || head.random_len != random.size()) return false;
  return random.empty() || (cached_random && fuzz::same(*cached_random, random));
}

void check_tprf(Bytes value, Bytes label, Bytes random) {
  uint8_t *output = nullptr;
  uint16_t length = 0;
  const KsResult result = ks_cache_read_tprf(&kName, kNameLen, label.data(), static_cast<uint16_t>(label.size()),
                                             random.data(), static_cast<uint16_t>(random.size()), &output, &length);
  require((result == KS_SUCCESS) == matches(value, label, random), "a T-PRF result is found for its label and random");
  if (result == KS_SUCCESS) {
    const KsCacheEntry head = head_of(value);
    require(fuzz::same({output, length}, *region(value, head.output_off, head.output_len)),
            "a T-PRF result is handed out as it is");
  }
}

// What is written over the value is there afterwards.
void check_write(Bytes value, Bytes label, Bytes random) {
  constexpr uint8_t kOutput[] = {1, 2, 3};
  const KsResult result = ks_cache_pac_write_tprf(&kName, kNameLen, label.data(), static_cast<uint16_t>(label.size()),
                                                  random.data(), static_cast<uint16_t>(random.size()), kOutput, 3);
  const bool writable = !label.empty() && static_cast<uint16_t>(head_of(value).meta_len) != 0;
  require((result == KS_SUCCESS) == writable, "a T-PRF result is written beside metadata");
  if (!writable) return;
  const std::vector<uint8_t> written = *fuzz::cache_value();
  check_tprf(written, label, random);
  require(matches(written, label, random), "a T-PRF result that was written is found");
  const uint16_t kept = static_cast<uint16_t>(head_of(value).meta_len);
  require(fuzz::same(*region(written, 0, kept), *region(value, 0, kept)), "the metadata stays beside a T-PRF result");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const fuzz::Run run;
  fuzz::Input input(data, size);
  const std::vector<uint8_t> label = fuzz::own(input.counted());
  const std::vector<uint8_t> random = fuzz::own(input.counted());
  const Bytes value = input.bytes(size_t{128} * 1024);

  const KsCacheEntry head = head_of(value);
  if (value.size() >= kHead) {
    const bool whole = head.meta_len <= value.size() - kHead && region(value, head.label_off, head.label_len) &&
                       region(value, head.random_off, head.random_len) &&
                       region(value, head.output_off, head.output_len);
    if (!whole) return 0;
  }
  fuzz::cache_with(value);
  check_tprf(value, label, random);
  check_metadata(value);
  check_write(value, label, random);
  return 0;
}
