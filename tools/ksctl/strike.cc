// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "strike.h"

#include <algorithm>
#include <cstring>

namespace ksctl {
namespace {

constexpr uint8_t kSecretTag = 0x30;
constexpr uint8_t kPacTag = 0x31;
constexpr size_t kMostAsked = 1024;  // requests of one connection that wait for their replies

std::optional<HostWireHeader> header_of(ksd::Bytes datagram) {
  HostWireHeader header;
  if (datagram.size() < sizeof header) return std::nullopt;
  std::memcpy(&header, datagram.data(), sizeof header);
  if (header.magic != HOST_WIRE_MAGIC || header.version != HOST_WIRE_VERSION) return std::nullopt;
  return header;
}

// StruckOut is a datagram of which nothing is to be seen but what is shown.
class StruckOut {
 public:
  explicit StruckOut(ksd::Bytes datagram) : whole_(datagram), shown_(datagram.size(), kStruckOut) {}

  void show(size_t at, size_t size) {
    if (at > whole_.size() || size > whole_.size() - at) return;
    std::copy_n(whole_.begin() + static_cast<ptrdiff_t>(at), size, shown_.begin() + static_cast<ptrdiff_t>(at));
  }
  void strike(size_t at, size_t size) {
    if (at > whole_.size()) return;
    std::fill_n(shown_.begin() + static_cast<ptrdiff_t>(at), std::min(size, whole_.size() - at), kStruckOut);
  }
  uint64_t number(size_t at, size_t width) const {
    uint64_t value = 0;
    if (at <= whole_.size() && width <= whole_.size() - at) std::memcpy(&value, whole_.data() + at, width);
    return value;
  }
  size_t size() const { return whole_.size(); }

  // is_name tells whether a wire name stands there: a tag, a zero, a VDC and the name; or of a linked one the tag
  // alone.
  bool is_name(size_t at, size_t size) const {
    if (at > whole_.size() || size > whole_.size() - at || size == 0) return false;
    const bool tagged = whole_[at] == kSecretTag || whole_[at] == kPacTag;
    const bool whole = size > KS_NAME_HEADER_SIZE && size <= sizeof(KsWireName) && whole_[at + 1] == 0;
    return tagged && (size == 1 || whole);
  }

  Datagram take() { return std::move(shown_); }

 private:
  ksd::Bytes whole_;
  Datagram shown_;
};

struct Span {
  size_t at;
  size_t size;
};

Span place_of(const StruckOut &page, const Section &section) {
  constexpr size_t kDescriptor = sizeof(HostWireHeader);
  const auto size = static_cast<size_t>(page.number(kDescriptor + section.length.at, section.length.width));
  const auto offset = static_cast<size_t>(page.number(kDescriptor + section.offset.at, section.offset.width));
  return {kDescriptor + offset, size};
}

bool is_shown(const StruckOut &page, Shown shown, const Span &place, bool of_secret) {
  switch (shown) {
    case Shown::kAlways:
      return true;
    case Shown::kName:
      return page.is_name(place.at, place.size);
    case Shown::kMetadata:
      return of_secret;
    default:
      return false;
  }
}

// show_sections shows what may be shown, and then strikes out again what must not be: a request may have them overlap.
bool show_sections(StruckOut &page, const Message &message) {
  const size_t behind = sizeof(HostWireHeader) + message.descriptor_size;
  const bool of_secret = !message.sections.empty() && place_of(page, message.sections[0]).at < page.size() &&
                         page.number(place_of(page, message.sections[0]).at, 1) == kSecretTag;
  for (const Section &section : message.sections) {
    const Span place = place_of(page, section);
    if (place.at >= behind && is_shown(page, section.shown, place, of_secret)) page.show(place.at, place.size);
  }
  for (const Section &section : message.sections) {
    const Span place = place_of(page, section);
    if (!is_shown(page, section.shown, place, of_secret)) page.strike(std::max(place.at, behind), place.size);
  }
  return of_secret;
}

}  // namespace

Datagram Striker::request(ksd::Bytes datagram) {
  StruckOut page(datagram);
  const std::optional<HostWireHeader> header = header_of(datagram);
  if (!header) return page.take();
  page.show(0, sizeof *header);
  const Message *message = message_of(header->opcode);
  if (message == nullptr) return page.take();
  bool of_secret = false;
  const size_t descriptor = message->descriptor_size;
  if (header->descriptor_size == descriptor && datagram.size() >= sizeof *header + descriptor) {
    const auto show = [&](const Field &field) { page.show(sizeof *header + field.at, field.width); };
    for (const Field &field : message->numbers) show(field);
    for (const Section &section : message->sections) {
      show(section.length);
      show(section.offset);
    }
    of_secret = show_sections(page, *message);
  }
  if (asked_.size() >= kMostAsked) asked_.clear();
  asked_[header->token] = {message, of_secret};
  return page.take();
}

Datagram Striker::reply(ksd::Bytes datagram) {
  StruckOut page(datagram);
  const std::optional<HostWireHeader> header = header_of(datagram);
  if (!header) return page.take();
  page.show(0, sizeof *header);
  const auto asked = asked_.find(header->token);
  if (asked == asked_.end() || asked->second.message->opcode != header->opcode) return page.take();
  const auto [message, of_secret] = asked->second;
  asked_.erase(asked);

  constexpr size_t kResult = sizeof(HostWireHeader);
  constexpr size_t kLength = kResult + sizeof(KsResult);
  page.show(kResult, sizeof(KsResult));
  if (page.number(kResult, sizeof(KsResult)) != KS_SUCCESS) return page.take();
  Span data{kLength, page.size() - std::min(page.size(), kLength)};
  if (message->has_length) {
    page.show(kLength, sizeof(uint16_t));
    data = {kLength + sizeof(uint16_t), static_cast<size_t>(page.number(kLength, sizeof(uint16_t)))};
  }
  if (is_shown(page, message->reply, data, of_secret)) page.show(data.at, data.size);
  return page.take();
}

}  // namespace ksctl
