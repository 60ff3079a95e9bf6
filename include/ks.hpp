// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// ks.hpp: what programs do around the operations of libks, for C++17 and later: results that can't be overlooked, bytes
// that free themselves, PAC metadata, wire names, the PAC cache kept true, and times instead of numbers.
//
// Header only, over ks_api.h: a program links libks and nothing else. It throws nothing and needs neither exceptions
// nor RTTI. C programs have the same steps in ks_helpers.h, a library that is compiled from this header. What holds for
// the operations themselves (docs/conventions.md) holds here too; docs/helpers.md has examples.
#ifndef KS_HPP
#define KS_HPP

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "ks_api.h"

// The namespace within keeps these names apart from those within a libks.a in the same program.
namespace ks {
inline namespace v1 {

using TimePoint = std::chrono::system_clock::time_point;

namespace detail {

// The library's own variables, by names that no program has: a program may hide those of ks_api.h (KS_HIDE_GLOBALS) and
// have others of the same names.
extern "C" {
extern uint16_t ks_hpp_vdc_id __asm__("vdc_id");
extern uint32_t ks_hpp_app_uuid __asm__("app_uuid");
}

template <typename Element>
inline constexpr bool kIsByte =
    std::is_same_v<Element, uint8_t> || std::is_same_v<Element, char> || std::is_same_v<Element, std::byte>;

template <typename Container>
using ElementOf = std::remove_cv_t<std::remove_pointer_t<decltype(std::declval<const Container &>().data())>>;

}  // namespace detail

// --- Results

// Failure is how a function of this header returns a code other than KS_SUCCESS.
struct Failure {
  KsResult code;
};

// Outcome is what every Result tells.
class Outcome {
 public:
  [[nodiscard]] constexpr KsResult code() const { return code_; }
  [[nodiscard]] constexpr bool ok() const { return code_ == KS_SUCCESS; }
  // text gives the code in words, as kserr2str does.
  [[nodiscard]] const char *text() const { return kserr2str(code_); }

 protected:
  constexpr explicit Outcome(KsResult code) : code_(code) {}

 private:
  KsResult code_;
};

// Result is a value, or the code that tells why there is none; a failure's value is an empty one. Unlike a KsResult, it
// may be tested for truth: it is true on success. A Result<bool> may not, since it would be taken for its value.
template <typename Value = void>
class [[nodiscard]] Result : public Outcome {
 public:
  constexpr Result(Value value) : Outcome(KS_SUCCESS), value_(std::move(value)) {}
  constexpr Result(Failure failure) : Outcome(failure.code) {}

  template <typename Tested = Value, std::enable_if_t<!std::is_same_v<Tested, bool>, int> = 0>
  constexpr explicit operator bool() const {
    return ok();
  }
  [[nodiscard]] constexpr Value &value() & { return value_; }
  [[nodiscard]] constexpr const Value &value() const & { return value_; }
  [[nodiscard]] constexpr Value value() && { return std::move(value_); }
  [[nodiscard]] constexpr Value &operator*() & { return value_; }
  [[nodiscard]] constexpr const Value &operator*() const & { return value_; }
  [[nodiscard]] constexpr Value operator*() && { return std::move(value_); }
  [[nodiscard]] constexpr Value *operator->() { return &value_; }
  [[nodiscard]] constexpr const Value *operator->() const { return &value_; }

 private:
  Value value_{};
};

template <>
class [[nodiscard]] Result<void> : public Outcome {
 public:
  constexpr Result(KsResult code) : Outcome(code) {}
  constexpr Result(Failure failure) : Outcome(failure.code) {}
  constexpr explicit operator bool() const { return ok(); }
};

// start starts the library, as ks_init does.
inline Result<> start(uint32_t app_uuid_of_program) {
  return ks_init(0, app_uuid_of_program, 0);
}

// --- Bytes

// Bytes looks at bytes that belong to somebody else: a container of uint8_t, char or std::byte, an array of uint8_t, or
// a text up to its NUL. It holds as long as they do.
class Bytes {
 public:
  constexpr Bytes() = default;
  Bytes(const void *data, size_t size) : data_(static_cast<const uint8_t *>(data)), size_(size) {}
  Bytes(const char *text) : Bytes(text, text == nullptr ? 0 : std::strlen(text)) {}
  template <size_t kSize>
  constexpr Bytes(const uint8_t (&array)[kSize]) : data_(array), size_(kSize) {}
  template <typename Container, std::enable_if_t<detail::kIsByte<detail::ElementOf<Container>>, int> = 0>
  Bytes(const Container &container) : Bytes(static_cast<const void *>(container.data()), container.size()) {}

  [[nodiscard]] constexpr const uint8_t *data() const { return data_; }
  [[nodiscard]] constexpr size_t size() const { return size_; }
  [[nodiscard]] constexpr bool empty() const { return size_ == 0; }
  [[nodiscard]] constexpr const uint8_t *begin() const { return data_; }
  [[nodiscard]] constexpr const uint8_t *end() const { return data_ + size_; }
  [[nodiscard]] constexpr uint8_t operator[](size_t index) const { return data_[index]; }
  // There are as many bytes as are asked for.
  [[nodiscard]] Bytes first(size_t size) const { return {data_, size}; }
  [[nodiscard]] Bytes from(size_t offset) const { return {data_ + offset, size_ - offset}; }
  [[nodiscard]] std::string_view text() const { return {reinterpret_cast<const char *>(data_), size_}; }

  // is_given is false for a null pointer with a size.
  [[nodiscard]] constexpr bool is_given() const { return data_ != nullptr || size_ == 0; }

 private:
  const uint8_t *data_ = nullptr;
  size_t size_ = 0;
};

inline bool operator==(Bytes left, Bytes right) {
  return left.size() == right.size() && (left.empty() || std::memcmp(left.data(), right.data(), left.size()) == 0);
}
inline bool operator!=(Bytes left, Bytes right) {
  return !(left == right);
}

// Buffer owns a block that libks, or a function here, has handed out, and frees it.
class Buffer {
 public:
  Buffer() = default;
  Buffer(uint8_t *block, size_t size) : block_(block), size_(size) {}
  Buffer(Buffer &&other) noexcept : block_(other.block_), size_(other.size_) { static_cast<void>(other.release()); }
  Buffer &operator=(Buffer &&other) noexcept {
    std::swap(block_, other.block_);
    std::swap(size_, other.size_);
    return *this;
  }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  ~Buffer() { std::free(block_); }

  // joined gives a block of both contents, one behind the other.
  static Result<Buffer> joined(Bytes left, Bytes right) {
    if (!left.is_given() || !right.is_given()) return Failure{KS_INVALID_ARGS};
    if (right.size() > SIZE_MAX - left.size()) return Failure{KS_NO_MEMORY};
    const size_t size = left.size() + right.size();
    auto *const block = static_cast<uint8_t *>(std::malloc(size));
    if (block == nullptr) return Failure{KS_NO_MEMORY};
    if (!left.empty()) std::memcpy(block, left.data(), left.size());
    if (!right.empty()) std::memcpy(block + left.size(), right.data(), right.size());
    return Buffer(block, size);
  }

  [[nodiscard]] uint8_t *data() { return block_; }
  [[nodiscard]] const uint8_t *data() const { return block_; }
  [[nodiscard]] size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] const uint8_t *begin() const { return block_; }
  [[nodiscard]] const uint8_t *end() const { return block_ + size_; }

  // release hands the block over to the caller, who frees it.
  [[nodiscard]] uint8_t *release() {
    size_ = 0;
    return std::exchange(block_, nullptr);
  }

 private:
  uint8_t *block_ = nullptr;
  size_t size_ = 0;
};

// --- PAC metadata: TLVs whose numbers are big-endian

// Tlv is one TLV within bytes that belong to somebody else.
struct Tlv {
  uint16_t type = 0;  // with the mandatory bit
  Bytes value;
  Bytes whole;  // header and value

  [[nodiscard]] constexpr uint16_t type_alone() const {
    return type & static_cast<uint16_t>(~static_cast<unsigned>(KS_PAC_TLV_MANDATORY));
  }
};

namespace detail {

inline uint16_t be16(const uint8_t *at) {
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

inline uint32_t be32(const uint8_t *at) {
  return static_cast<uint32_t>(be16(at)) << 16 | be16(at + 2);
}

inline uint8_t *put16(uint8_t *at, size_t number) {
  at[0] = static_cast<uint8_t>(number >> 8);
  at[1] = static_cast<uint8_t>(number);
  return at + 2;
}

inline uint8_t *put_header(uint8_t *at, uint16_t type, size_t size) {
  return put16(put16(at, type), size);
}

}  // namespace detail

// TlvReader goes through TLVs that follow each other without gaps.
class TlvReader {
 public:
  explicit TlvReader(Bytes tlvs) : rest_(tlvs) {}

  // next gives the next TLV. KS_NO_MORE_ENTRIES: all were given. KS_FAILURE: what is left is no whole TLV.
  Result<Tlv> next() {
    if (rest_.empty()) return Failure{KS_NO_MORE_ENTRIES};
    if (!rest_.is_given() || rest_.size() < sizeof(KsPacTlv)) return Failure{KS_FAILURE};
    const size_t length = detail::be16(rest_.data() + offsetof(KsPacTlv, length));
    if (length > rest_.size() - sizeof(KsPacTlv)) return Failure{KS_FAILURE};
    Tlv tlv;
    tlv.type = detail::be16(rest_.data());
    tlv.whole = rest_.first(sizeof(KsPacTlv) + length);
    tlv.value = tlv.whole.from(sizeof(KsPacTlv));
    rest_ = rest_.from(tlv.whole.size());
    return tlv;
  }
  [[nodiscard]] Bytes rest() const { return rest_; }

 private:
  Bytes rest_;
};

// with_tlv gives a block of the bytes `before` and a TLV behind them: an info is made of its attributes this way, and
// metadata of its TLVs. KS_RPC_TOO_LARGE: the value has more than 65,535 bytes.
inline Result<Buffer> with_tlv(Bytes before, uint16_t type, Bytes value) {
  if (!before.is_given() || !value.is_given()) return Failure{KS_INVALID_ARGS};
  if (value.size() > UINT16_MAX) return Failure{KS_RPC_TOO_LARGE};
  uint8_t header[sizeof(KsPacTlv)];
  detail::put_header(header, type, value.size());
  Result<Buffer> with_header = Buffer::joined(before, header);
  if (!with_header) return with_header;
  return Buffer::joined(*with_header, value);
}

// PacInfo is what the info of a PAC tells (RFC 5422, section 4.2.4). What isn't there is empty, and a time or type of 0
// counts as none, as the library has it.
struct PacInfo {
  std::optional<TimePoint> expires;
  Bytes identity;     // I-ID: whom the PAC is for; without a NUL at its end
  Bytes a_id;         // A-ID: who issued it
  Bytes issuer;       // A-ID-Info: the issuer's name for people
  uint16_t type = 0;  // EAP_FAST_PAC_TYPE_TUNNEL and the like
};

// PacParts are the two TLVs of a PAC's metadata.
struct PacParts {
  Tlv opaque;
  Tlv info;
};

namespace detail {

// Attribute is a TLV of an info that is about to be made.
struct Attribute {
  uint16_t type;
  Bytes value;
};

inline std::optional<TimePoint> time_of(uint32_t seconds) {
  if (seconds == 0) return std::nullopt;
  return TimePoint(std::chrono::seconds(seconds));
}

inline int64_t seconds_of(TimePoint time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

inline Bytes without_nul(Bytes text) {
  return !text.empty() && text[text.size() - 1] == 0 ? text.first(text.size() - 1) : text;
}

}  // namespace detail

// make_pac_metadata makes the metadata of a PAC: an opaque TLV of the value `opaque`, and an info TLV.
//
// KS_INVALID_ARGS: `opaque` is empty, or the time is no number of seconds since 1970 that has 32 bits.
// KS_RPC_TOO_LARGE: the metadata would have more than 65,535 bytes.
inline Result<Buffer> make_pac_metadata(Bytes opaque, const PacInfo &info) {
  uint8_t lifetime[sizeof(uint32_t)];
  uint8_t type[sizeof(uint16_t)];
  detail::put16(type, info.type);
  const int64_t seconds = info.expires ? detail::seconds_of(*info.expires) : 0;
  if (info.expires && (seconds < 1 || seconds > int64_t{UINT32_MAX})) return Failure{KS_INVALID_ARGS};
  detail::put16(detail::put16(lifetime, static_cast<size_t>(seconds >> 16)), static_cast<size_t>(seconds & 0xffff));
  const detail::Attribute attributes[] = {
      {EAP_FAST_PAC_LIFETIME, info.expires ? Bytes(lifetime) : Bytes()},
      {EAP_FAST_PAC_A_ID, info.a_id},
      {EAP_FAST_PAC_I_ID, info.identity},
      {EAP_FAST_PAC_A_ID_INFO, info.issuer},
      {EAP_FAST_PAC_TYPE, info.type != 0 ? Bytes(type) : Bytes()},
  };

  if (opaque.empty() || !opaque.is_given()) return Failure{KS_INVALID_ARGS};
  Result<Buffer> inner = Buffer();
  for (const detail::Attribute &attribute : attributes) {
    if (attribute.value.empty()) continue;
    inner = with_tlv(*inner, attribute.type, attribute.value);
    if (!inner) return inner;
  }
  Result<Buffer> metadata = with_tlv({}, EAP_FAST_PAC_OPAQUE, opaque);
  if (metadata) metadata = with_tlv(*metadata, EAP_FAST_PAC_INFO, *inner);
  if (metadata && metadata->size() > UINT16_MAX) return Failure{KS_RPC_TOO_LARGE};
  return metadata;
}

// parse_pac_metadata takes metadata apart. Both TLVs must be there, once each and in either order, and nothing else.
// KS_FAILURE: they aren't.
inline Result<PacParts> parse_pac_metadata(Bytes metadata) {
  PacParts parts;
  TlvReader reader(metadata);
  while (true) {
    const Result<Tlv> tlv = reader.next();
    if (tlv.code() == KS_NO_MORE_ENTRIES) break;
    if (!tlv) return Failure{KS_FAILURE};
    if (tlv->type != EAP_FAST_PAC_OPAQUE && tlv->type != EAP_FAST_PAC_INFO) return Failure{KS_FAILURE};
    Tlv &part = tlv->type == EAP_FAST_PAC_OPAQUE ? parts.opaque : parts.info;
    if (!part.whole.empty()) return Failure{KS_FAILURE};
    part = *tlv;
  }
  if (parts.opaque.whole.empty() || parts.info.whole.empty()) return Failure{KS_FAILURE};
  return parts;
}

// parse_pac_info reads an info TLV, header included. Of attributes of one type the first counts. KS_FAILURE: it isn't
// exactly one such TLV, an attribute reaches behind its end, or a time or type is of a wrong size.
inline Result<PacInfo> parse_pac_info(Bytes info_tlv) {
  TlvReader outer(info_tlv);
  const Result<Tlv> whole = outer.next();
  if (!whole || whole->type != EAP_FAST_PAC_INFO || !outer.rest().empty()) return Failure{KS_FAILURE};

  Tlv lifetime;
  Tlv a_id;
  Tlv identity;
  Tlv issuer;
  Tlv type;
  TlvReader inner(whole->value);
  while (true) {
    const Result<Tlv> tlv = inner.next();
    if (tlv.code() == KS_NO_MORE_ENTRIES) break;
    if (!tlv) return Failure{KS_FAILURE};
    Tlv unknown;
    Tlv &place = tlv->type_alone() == EAP_FAST_PAC_LIFETIME    ? lifetime
                 : tlv->type_alone() == EAP_FAST_PAC_A_ID      ? a_id
                 : tlv->type_alone() == EAP_FAST_PAC_I_ID      ? identity
                 : tlv->type_alone() == EAP_FAST_PAC_A_ID_INFO ? issuer
                 : tlv->type_alone() == EAP_FAST_PAC_TYPE      ? type
                                                               : unknown;
    if (place.whole.empty()) place = *tlv;
  }

  PacInfo info;
  if (!lifetime.whole.empty()) {
    if (lifetime.value.size() != sizeof(uint32_t)) return Failure{KS_FAILURE};
    info.expires = detail::time_of(detail::be32(lifetime.value.data()));
  }
  if (!type.whole.empty()) {
    if (type.value.size() != sizeof(uint16_t)) return Failure{KS_FAILURE};
    info.type = detail::be16(type.value.data());
  }
  info.a_id = a_id.value;
  info.identity = detail::without_nul(identity.value);
  info.issuer = detail::without_nul(issuer.value);
  return info;
}

// --- Names

// WireName is a name as it travels, by which the cache knows a PAC. It holds the caller's VDC id: make it after start.
class WireName {
 public:
  WireName() = default;

  // KS_INVALID_ARGS: the name isn't of 1 to 31 bytes.
  static Result<WireName> of_pac(Bytes aid) { return of(KS_NAME_TAG_PAC, aid); }
  static Result<WireName> of_secret(Bytes name) { return of(KS_NAME_TAG_SECRET, name); }

  [[nodiscard]] const KsWireName *data() const { return &wire_; }
  [[nodiscard]] uint32_t size() const { return size_; }

 private:
  static Result<WireName> of(uint8_t tag, Bytes name) {
    if (name.empty() || name.size() > KS_NAME_MAX || !name.is_given()) return Failure{KS_INVALID_ARGS};
    WireName made;
    made.wire_.tag = tag;
    detail::put16(made.wire_.vdc_id, detail::ks_hpp_vdc_id);
    std::memcpy(made.wire_.name, name.data(), name.size());
    made.size_ = static_cast<uint32_t>(name.size() + KS_NAME_HEADER_SIZE);
    return made;
  }

  KsWireName wire_ = {};  // zeros behind the name
  uint32_t size_ = 0;
};

// --- The PAC cache. Like the reads of PACs, these try to open a cache that is closed.

namespace detail {

inline bool opens_cache() {
  return is_cache_present() == 1 || ks_sdb_init(ks_hpp_app_uuid) == KS_SUCCESS;
}

inline bool is_cached(const WireName &name) {
  return ks_cache_read_pac(name.data(), name.size(), nullptr, nullptr) != KS_NOT_FOUND;
}

}  // namespace detail

// cache_clear removes the cached copy of the PAC `aid`, if there is one. Where this process can't open the cache
// nothing is removed, and its own reads go to the keystore, too.
//
// KS_FAILURE: the cache refused, and may still have the copy.
inline Result<> cache_clear(Bytes aid) {
  const Result<WireName> name = WireName::of_pac(aid);
  if (!name) return name.code();
  if (!detail::opens_cache() || !detail::is_cached(*name)) return KS_SUCCESS;
  const KsResult cleared = ks_cache_pac_clear(name->data(), name->size());
  // Another process may have removed it first, for which a database may have a word of its own.
  return cleared != KS_SUCCESS && !detail::is_cached(*name) ? KS_SUCCESS : cleared;
}

// cache_put puts metadata that the caller has at hand into the cache, in place of what is there for the PAC `aid`. It
// must be what the keystore has.
//
// KS_INVALID_ARGS: a bad A-ID, or the metadata aren't an opaque and an info TLV. KS_FAILURE: the cache can't be opened,
// or refused.
inline Result<> cache_put(Bytes aid, Bytes metadata) {
  const Result<WireName> name = WireName::of_pac(aid);
  if (!name || metadata.size() > UINT16_MAX || !parse_pac_metadata(metadata)) return KS_INVALID_ARGS;
  if (!detail::opens_cache()) return KS_FAILURE;
  return ks_cache_pac_write(name->data(), name->size(), metadata.data(), static_cast<uint16_t>(metadata.size()));
}

// --- PACs

// Pac is a PAC's metadata, owned. Its key stays in the keystore.
class Pac {
 public:
  Pac() = default;

  // of takes metadata apart and keeps it. KS_FAILURE: it is damaged.
  static Result<Pac> of(Buffer metadata) {
    const Result<PacParts> parts = parse_pac_metadata(metadata);
    if (!parts) return Failure{parts.code()};
    Pac pac;
    pac.metadata_ = std::move(metadata);
    pac.parts_ = *parts;
    return pac;
  }

  [[nodiscard]] const Buffer &metadata() const & { return metadata_; }
  [[nodiscard]] Buffer metadata() && { return std::move(metadata_); }

  // What these tell lies in the metadata and holds as long as this object, so a temporary one isn't asked.
  [[nodiscard]] const Tlv &opaque() const & { return parts_.opaque; }
  [[nodiscard]] const Tlv &info_tlv() const & { return parts_.info; }
  Result<PacInfo> info() const & { return parse_pac_info(parts_.info.whole); }
  const Tlv &opaque() && = delete;
  const Tlv &info_tlv() && = delete;
  Result<PacInfo> info() && = delete;

 private:
  Buffer metadata_;
  PacParts parts_;  // within metadata_
};

namespace detail {

// read_part runs ks_return_pac_opaque or ks_return_pac_info.
inline Result<Buffer> read_part(decltype(ks_return_pac_info) *read, Bytes aid) {
  if (aid.size() > KS_PAC_NAME_MAX) return Failure{KS_INVALID_ARGS};
  uint8_t *tlv = nullptr;
  uint32_t size = 0;
  const KsResult result = read(aid.data(), static_cast<uint32_t>(aid.size()), &tlv, &size);
  if (result != KS_SUCCESS) return Failure{result};
  return Buffer(tlv, size);
}

}  // namespace detail

// read_pac reads the metadata of the PAC `aid`: from the cache, with no message at all, or from the keystore with
// three. Opaque and info are read one by one. An opaque that is the same before and behind the info is of the same PAC.
//
// KS_NOT_FOUND: there is no such PAC. KS_FAILURE: its metadata is damaged, the exchange failed, or the PAC was replaced
// again and again meanwhile. KS_FW_COMM_ERROR: the request could not be sent.
inline Result<Pac> read_pac(Bytes aid) {
  constexpr int kAttempts = 3;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const Result<Buffer> opaque = detail::read_part(ks_return_pac_opaque, aid);
    if (!opaque) return Failure{opaque.code()};
    const Result<Buffer> info = detail::read_part(ks_return_pac_info, aid);
    if (!info) return Failure{info.code()};
    const Result<Buffer> again = detail::read_part(ks_return_pac_opaque, aid);
    if (!again) return Failure{again.code()};
    if (Bytes(*opaque) != Bytes(*again)) continue;
    Result<Buffer> metadata = Buffer::joined(*opaque, *info);
    if (!metadata) return Failure{metadata.code()};
    return Pac::of(*std::move(metadata));
  }
  return Failure{KS_FAILURE};
}

// cache_warm puts the PAC `aid`, as the keystore has it, into the cache. Results as in read_pac; and KS_FAILURE, too,
// where the cache can't be opened or refused.
//
// A process that replaces the PAC meanwhile may leave the older one in the cache: let one process do both.
inline Result<> cache_warm(Bytes aid) {
  if (const Result<> cleared = cache_clear(aid); !cleared) return cleared;
  const Result<Pac> pac = read_pac(aid);  // without a copy, from the keystore
  if (!pac) return pac.code();
  return cache_put(aid, pac->metadata());
}

// store_pac makes or replaces the PAC `aid`, of which no cached copy is left: the copy is removed before the PAC is
// stored, so that none outlives it wherever the process ends, and again behind that, for a reader that put it back.
// `metadata` is an opaque and an info TLV, as make_pac_metadata makes them; cache_put takes the same.
//
// KS_INVALID_ARGS: a bad A-ID, an empty key, or other metadata. KS_RPC_TOO_LARGE: key or metadata have more than 65,535
// bytes. KS_FAILURE: the exchange failed, or the cached copy could not be removed. After a failure it may be repeated.
inline Result<> store_pac(Bytes aid, Bytes key, Bytes metadata) {
  if (key.empty() || !key.is_given()) return KS_INVALID_ARGS;
  if (key.size() > UINT16_MAX || metadata.size() > UINT16_MAX) return KS_RPC_TOO_LARGE;
  const Result<PacParts> parts = parse_pac_metadata(metadata);
  if (!parts) return KS_INVALID_ARGS;
  if (const Result<> cleared = cache_clear(aid); !cleared) return cleared;
  const Bytes opaque = parts->opaque.whole;
  const Bytes info = parts->info.whole;
  const KsResult stored = ks_store_pac(
      aid.data(), static_cast<uint32_t>(aid.size()), key.data(), static_cast<uint32_t>(key.size()), opaque.data(),
      static_cast<uint32_t>(opaque.size()), info.data(), static_cast<uint32_t>(info.size()));
  const Result<> cleared = cache_clear(aid);
  return stored == KS_SUCCESS ? cleared : stored;
}

// clear_pac removes the PAC `aid` and its cached copy, in the same order. Results as in ks_clear_pac: KS_NOT_REGISTERED
// while the sup state holds every PAC, and KS_FAILURE, too, where the copy could not be removed.
inline Result<> clear_pac(Bytes aid) {
  if (const Result<> cleared = cache_clear(aid); !cleared) return cleared;
  const KsResult removed = ks_clear_pac(aid.data(), static_cast<uint32_t>(aid.size()));
  const Result<> cleared = cache_clear(aid);
  return removed == KS_SUCCESS ? cleared : removed;
}

// pac_exists tells whether there is a PAC `aid`, in the cache or in the keystore. It is what to call instead of
// ks_pac_exists, which ends the process where the cache is open and lacks the PAC.
//
// KS_FAILURE: the exchange failed, or the PAC is there and its metadata is damaged.
inline Result<bool> pac_exists(Bytes aid) {
  const Result<Buffer> info = detail::read_part(ks_return_pac_info, aid);
  if (info) return true;
  if (info.code() == KS_NOT_FOUND) return false;
  return Failure{info.code()};
}

// pac_expiry tells when the PAC `aid` expires: no time, where its info has none. Results as in read_pac, with one
// exchange at most.
inline Result<std::optional<TimePoint>> pac_expiry(Bytes aid) {
  const Result<Buffer> tlv = detail::read_part(ks_return_pac_info, aid);
  if (!tlv) return Failure{tlv.code()};
  const Result<PacInfo> info = parse_pac_info(*tlv);
  if (!info) return Failure{info.code()};
  return info->expires;
}

// has_expired tells whether a time is there and has passed.
inline bool has_expired(const std::optional<TimePoint> &expiry, TimePoint now = std::chrono::system_clock::now()) {
  return expiry.has_value() && *expiry <= now;
}

namespace detail {

// The time is in seconds, which any number is.
inline KsResult clear_expired_pacs(int64_t now, uint32_t &removed) {
  const auto is_expired = [&](Bytes aid) {
    const Result<std::optional<TimePoint>> expiry = pac_expiry(aid);
    return expiry.ok() && expiry->has_value() && seconds_of(**expiry) <= now;
  };
  uint16_t index = 0;
  while (true) {
    uint8_t *block = nullptr;
    uint16_t size = 0;
    const KsResult next = ks_return_aid_by_index(&index, &block, &size);
    if (next == KS_NO_MORE_ENTRIES) return KS_SUCCESS;
    if (next != KS_SUCCESS) return next;
    const Buffer aid(block, size);
    if (!is_expired(aid)) continue;
    // That may have been the copy of an older PAC. Without it the keystore's own time is read.
    if (const Result<> cleared = cache_clear(aid); !cleared) return cleared.code();
    if (!is_expired(aid)) continue;
    const Result<> gone = clear_pac(aid);
    if (gone.code() == KS_NOT_FOUND) continue;
    if (!gone) return gone.code();
    ++removed;
    --index;  // the table has closed up
  }
}

}  // namespace detail

// clear_expired_pacs removes the caller's PACs that have expired, with their cached copies, and tells how many. It is
// what to call instead of ks_clear_old_pacs, which removes live PACs on little-endian processors. A PAC without a time,
// or whose metadata is damaged, stays.
//
// KS_NOT_REGISTERED: the sup state holds every PAC. KS_FAILURE: an exchange failed.
inline Result<uint32_t> clear_expired_pacs(TimePoint now = std::chrono::system_clock::now()) {
  uint32_t removed = 0;
  const KsResult result = detail::clear_expired_pacs(detail::seconds_of(now), removed);
  if (result != KS_SUCCESS) return Failure{result};
  return removed;
}

// --- Digests and HMACs: the operations of ks_crypto.h, which count in 16 bits, over lengths that aren't cut.
// KS_RPC_TOO_LARGE: there are more than KS_DATA_MAX bytes.

using Md5Digest = std::array<uint8_t, KS_MD5_SIZE>;
using Sha1Digest = std::array<uint8_t, KS_SHA1_SIZE>;

namespace detail {

template <typename Digest>
Result<Digest> digest(decltype(ks_md5_hash) *run, const char *name, Bytes first, Bytes second) {
  if (!first.is_given() || !second.is_given()) return Failure{KS_INVALID_ARGS};
  if (first.size() > KS_DATA_MAX || second.size() > KS_DATA_MAX - first.size()) return Failure{KS_RPC_TOO_LARGE};
  Digest output{};
  const KsResult result = run(name, first.data(), static_cast<uint16_t>(first.size()), second.data(),
                              static_cast<uint16_t>(second.size()), output.data());
  if (result != KS_SUCCESS) return Failure{result};
  return output;
}

template <typename Digest>
Result<Digest> hmac(decltype(ks_hmac_md5) *run, const char *name, Bytes data) {
  if (data.size() > KS_DATA_MAX) return Failure{KS_RPC_TOO_LARGE};
  Digest output{};
  const KsResult result = run(name, data.data(), static_cast<uint16_t>(data.size()), output.data());
  if (result != KS_SUCCESS) return Failure{result};
  return output;
}

}  // namespace detail

// md5 digests the first piece, the secret `name` and the second piece.
inline Result<Md5Digest> md5(const char *name, Bytes first, Bytes second = {}) {
  return detail::digest<Md5Digest>(ks_md5_hash, name, first, second);
}
inline Result<Sha1Digest> sha1(const char *name, Bytes first, Bytes second = {}) {
  return detail::digest<Sha1Digest>(ks_sha1_hash, name, first, second);
}
inline Result<Md5Digest> hmac_md5(const char *name, Bytes data) {
  return detail::hmac<Md5Digest>(ks_hmac_md5, name, data);
}
inline Result<Sha1Digest> hmac_sha1(const char *name, Bytes data) {
  return detail::hmac<Sha1Digest>(ks_hmac_sha1, name, data);
}
inline Result<Sha1Digest> hmac_sha1_for_pac(Bytes aid, Bytes data) {
  if (aid.size() > KS_PAC_NAME_MAX) return Failure{KS_INVALID_ARGS};
  if (data.size() > KS_DATA_MAX) return Failure{KS_RPC_TOO_LARGE};
  Sha1Digest output{};
  const KsResult result = ks_hmac_sha1_for_pac(aid.data(), static_cast<uint8_t>(aid.size()), data.data(),
                                               static_cast<uint16_t>(data.size()), output.data());
  if (result != KS_SUCCESS) return Failure{result};
  return output;
}

}  // namespace v1
}  // namespace ks

#endif
