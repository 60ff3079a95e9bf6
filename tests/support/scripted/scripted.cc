#include "scripted.h"

#include <stdarg.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

namespace scripted {

Platform &platform() {
  static Platform instance;
  return instance;
}

static void note(std::string event) {
  platform().log.push_back(std::move(event));
}

// --- bytes

Bytes bytes(const std::string &hex) {
  Bytes out;
  std::string digits;
  for (char c : hex) {
    if (c == ' ' || c == '\n') continue;
    digits += c;
    if (digits.size() == 2) {
      out.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
      digits.clear();
    }
  }
  EXPECT_TRUE(digits.empty()) << "half a byte in: " << hex;
  return out;
}

Bytes bytes_of(const std::string &text) {
  return Bytes(text.begin(), text.end());
}

Bytes operator+(Bytes left, const Bytes &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

template <typename T>
static Bytes raw(T value) {
  Bytes out(sizeof value);
  std::memcpy(out.data(), &value, sizeof value);
  return out;
}

Bytes result_only(KsResult result) {
  return raw(result);
}
Bytes reply(const Bytes &data, KsResult result) {
  return reply_with_len(static_cast<uint16_t>(data.size()), data, result);
}
Bytes reply_with_len(uint16_t len, const Bytes &data, KsResult result) {
  return raw(result) + raw(len) + data;
}

// --- guarded memory

Guarded::Guarded(const Bytes &content) : size_(content.size()) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t room = (size_ + page - 1) / page * page + page;  // at least one page, so that data() is never null
  map_size_ = room + page;
  void *map = mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) abort();
  map_ = static_cast<uint8_t *>(map);
  if (mprotect(map_ + room, page, PROT_NONE) != 0) abort();
  data_ = map_ + room - size_;
  if (size_ != 0) std::memcpy(data_, content.data(), size_);
}

Guarded::~Guarded() {
  munmap(map_, map_size_);
}

void Guarded::forbid() {
  if (mprotect(map_, map_size_, PROT_NONE) != 0) abort();
}

// --- heap

void *Heap::allocate(size_t size, bool zeroed, const std::string &event) {
  note(event);
  if (failing_ > 0 && --failing_ == 0) {
    if (failing_on_) failing_ = 1;
    return nullptr;
  }
  // Not zeroed means that the library must not rely on what is there.
  const size_t padding = padded_ > 0 && --padded_ == 0 ? padding_ : 0;
  auto memory = std::make_unique<Guarded>(Bytes(size + padding, zeroed ? 0 : 0xa5));
  void *block = memory->data();
  const std::string label = event.substr(event.find(' ') + 1);
  blocks_[block] = {std::move(memory), size, label, next_order_++};
  return block;
}

void *Heap::adopt(const Bytes &content) {
  auto memory = std::make_unique<Guarded>(content);
  void *block = memory->data();
  blocks_[block] = {std::move(memory), content.size(), std::to_string(content.size()), next_order_++};
  return block;
}

void Heap::free(void *block) {
  if (block == nullptr) return;
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "free of what is not an allocated block: " << block;
    return;
  }
  note("free " + found->second.label);
  release(block);
}

void Heap::release(const void *block) {
  if (block == nullptr) return;
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "release of what is not an allocated block: " << block;
    return;
  }
  found->second.memory->forbid();
  freed_.push_back(std::move(found->second.memory));
  blocks_.erase(found);
  constexpr size_t kKept = 1024;
  if (freed_.size() > kKept) freed_.pop_front();
}

std::vector<size_t> Heap::live() const {
  std::map<uint64_t, size_t> ordered;
  for (const auto &[address, block] : blocks_) ordered[block.order] = block.size;
  std::vector<size_t> sizes;
  for (const auto &[order, size] : ordered) sizes.push_back(size);
  return sizes;
}

Bytes Heap::content(const void *block, size_t size) const {
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) {
    ADD_FAILURE() << "not an allocated block: " << block;
    return {};
  }
  EXPECT_EQ(found->second.size, size) << "size of the block handed out";
  const auto *at = static_cast<const uint8_t *>(block);
  return Bytes(at, at + std::min(size, found->second.size));
}

void Heap::reset() {
  blocks_.clear();
  freed_.clear();
  failing_ = 0;
  failing_on_ = false;
  padded_ = 0;
}

// --- messages

Bytes Request::message() const {
  Bytes all = descriptor;
  for (const Section &section : sections) all = all + section.content;
  return all;
}

const Request &Mts::request(size_t index) const {
  static const Request none;
  if (index < requests.size()) return requests[index];
  ADD_FAILURE() << "request " << index << " was never sent";
  return none;
}

int Mts::undropped() const {
  int count = 0;
  for (const auto &[id, drops] : live) count += drops;
  return count;
}

// A message's 25 bytes hold its number, odd for sent and even for received, and a pattern to recognise it by.
static void fill_message(KsMtsMessage *message, uint32_t id) {
  std::memset(message->bytes, 0xc7, sizeof message->bytes);
  std::memcpy(message->bytes, &id, sizeof id);
}

static uint32_t message_id(const KsMtsMessage *message) {
  uint32_t id;
  std::memcpy(&id, message->bytes, sizeof id);
  return id;
}

static const char *kind_of(uint32_t id) {
  return id % 2 == 1 ? "sent" : "received";
}

// The options must be zero but for the words that are set.
template <typename Options>
static void expect_zero_but(Options options, const std::function<void(Options &)> &clear) {
  clear(options);
  Options zero = {};
  EXPECT_EQ(std::memcmp(&options, &zero, sizeof zero), 0) << "a reserved word of the options is not 0";
}

// --- the log's text

// The line number of "name(123)" at a text's beginning is not promised.
static std::string normalised(const std::string &text) {
  const auto end_of = [&text](size_t at, auto belongs) {
    while (at < text.size() && belongs(static_cast<unsigned char>(text[at]))) ++at;
    return at;
  };
  const size_t open = end_of(0, [](int c) { return isalnum(c) || c == '_'; });
  if (open == 0 || open == text.size() || text[open] != '(') return text;
  const size_t close = end_of(open + 1, [](int c) { return isdigit(c); });
  if (close == open + 1 || close == text.size() || text[close] != ')') return text;
  return text.substr(0, open + 1) + "#" + text.substr(close);
}

// --- fixture

Test::Test() {
  platform().heap.reset();
  platform().log.clear();
  platform().mts = Mts();
  platform().trace = Trace();
  platform().sysmgr = Sysmgr();
  platform().sdb = Sdb();
  platform().clock = Clock();
  ks_mts_q = 5;
  vdc_id = 7;
  app_uuid = 0x11223344;
  ks_cache_present = 0;
  std::memset(ks_cache_uri, 0, sizeof ks_cache_uri);
}

void Test::TearDown() {
  EXPECT_EQ(heap.live(), leaked_) << "blocks left allocated";
  EXPECT_EQ(mts.undropped(), undropped_) << "messages left undropped";
  EXPECT_TRUE(mts.script.empty()) << mts.script.size() << " scripted answers were never asked for";
}

std::vector<std::string> Test::traces(bool with_subtype) const {
  std::vector<std::string> out;
  for (const Report &report : trace.reports) {
    out.push_back(with_subtype ? std::to_string(report.subtype) + ":" + report.text : report.text);
  }
  return out;
}

std::vector<std::string> Test::events(const std::vector<std::string> &words) const {
  std::vector<std::string> out;
  for (const std::string &event : platform().log) {
    const std::string word = event.substr(0, event.find(' '));
    if (std::find(words.begin(), words.end(), word) != words.end()) out.push_back(event);
  }
  return out;
}

std::vector<std::string> Test::flow() const {
  return events({"malloc", "calloc", "free", "send", "recv", "drop"});
}

}  // namespace scripted

using namespace scripted;

// --- libc as the library sees it

KS_EXTERN_C void *scripted_malloc(size_t size) {
  return platform().heap.allocate(size, false, "malloc " + std::to_string(size));
}

KS_EXTERN_C void *scripted_calloc(size_t count, size_t size) {
  const bool list = size == sizeof(KsSection);
  const std::string what = list ? "list[" + std::to_string(count) + "]" : std::to_string(count * size);
  return platform().heap.allocate(count * size, true, "calloc " + what);
}

KS_EXTERN_C void scripted_free(void *block) {
  platform().heap.free(block);
}

KS_EXTERN_C int scripted_usleep(useconds_t microseconds) {
  note("usleep " + std::to_string(microseconds));
  platform().clock.pauses.push_back(microseconds);
  return 0;
}

KS_EXTERN_C time_t scripted_time(time_t *out) {
  EXPECT_EQ(out, nullptr);
  return static_cast<time_t>(platform().clock.now);
}

// --- libmts

uint32_t mts_bind(uint32_t mode, uint32_t first, const KsBindTemplate *bind, uint32_t third) {
  note("mts_bind");
  platform().mts.binds.push_back(
      {mode, first, bind->word0, bind->word1, bind->word2, bind->app_uuid, bind->word4, bind->word5, third});
  if (platform().mts.bind_errno) {
    platform().mts.last_errno = *platform().mts.bind_errno;
    return MTS_FAILED;
  }
  return platform().mts.bind_result;
}

uint32_t mts_send(uint32_t queue, uint32_t node, uint32_t sap, uint32_t opcode, const void *descriptor,
                  uint32_t descriptor_size, KsMtsMessage *sent, uint32_t flags, const KsSendOptions *options) {
  Mts &mts = platform().mts;
  note("send");
  EXPECT_EQ(node, 0xfe000000u);
  EXPECT_EQ(sap, 11u);
  EXPECT_EQ(flags, 0u);

  Request request{.queue = queue, .op = opcode, .has_descriptor = descriptor != nullptr};
  if (descriptor != nullptr) {
    request.descriptor.resize(descriptor_size);
    std::memcpy(request.descriptor.data(), descriptor, descriptor_size);
  } else {
    EXPECT_EQ(descriptor_size, 0u);
  }
  if (options != nullptr) {
    request.has_options = true;
    EXPECT_EQ(options->select, 1u);
    expect_zero_but<KsSendOptions>(*options, [](KsSendOptions &o) {
      o.select = 0;
      o.sections = nullptr;
      o.section_count = 0;
    });
    for (uint32_t i = 0; i < options->section_count; ++i) {
      const KsSection &section = options->sections[i];
      const auto *at = static_cast<const uint8_t *>(section.data);
      request.sections.push_back(
          {section.data, section.length, at == nullptr ? Bytes() : Bytes(at, at + section.length)});
    }
  }
  mts.requests.push_back(std::move(request));

  if (mts.script.empty() && mts.answer) mts.script.push_back(mts.answer(mts.requests.back()));
  if (mts.script.empty()) {
    ADD_FAILURE() << "a request that the script doesn't expect";
    return MTS_FAILED;
  }
  if (mts.script.front().send_errno || queue == MTS_FAILED) {
    mts.last_errno = mts.script.front().send_errno.value_or(EBADF);
    mts.script.pop_front();
    return MTS_FAILED;
  }
  const uint32_t id = static_cast<uint32_t>(mts.requests.size()) * 2 - 1;
  fill_message(sent, id);
  mts.live[id] = 1;
  return 0;
}

uint32_t mts_rr_token_get(const KsMtsMessage *sent) {
  EXPECT_EQ(message_id(sent), platform().mts.requests.size() * 2 - 1) << "token of what was not just sent";
  return message_id(sent) + 0x70000;
}

uint32_t mts_recv(uint32_t queue, KsMtsMessage *received, const KsRecvOptions *options) {
  Mts &mts = platform().mts;
  note("recv");
  const uint32_t sent_id = static_cast<uint32_t>(mts.requests.size()) * 2 - 1;
  EXPECT_EQ(queue, ks_mts_q);
  EXPECT_EQ(options->select, 1u);
  EXPECT_EQ(options->token, sent_id + 0x70000) << "not the token of the request";
  expect_zero_but<KsRecvOptions>(*options, [](KsRecvOptions &o) { o.select = o.token = 0; });

  const Answer answer = mts.script.front();
  mts.script.pop_front();
  if (answer.recv_errno) {
    mts.last_errno = *answer.recv_errno;
    return MTS_FAILED;
  }
  const uint32_t id = sent_id + 1;
  fill_message(received, id);
  mts.live[id] = 1;
  mts.payloads[id] = std::make_unique<Guarded>(answer.payload);
  mts.sizes[id] = answer.size.value_or(static_cast<uint32_t>(answer.payload.size()));
  return 0;
}

const void *mts_payload_get(const KsMtsMessage *received) {
  return platform().mts.payloads.at(message_id(received))->data();
}

uint32_t mts_payload_size(const KsMtsMessage *received) {
  note("size");
  ++platform().mts.size_calls;
  return platform().mts.sizes.at(message_id(received));
}

void mts_drop(uint32_t queue, KsMtsMessage *message) {
  Mts &mts = platform().mts;
  const uint32_t id = message_id(message);
  note(std::string("drop ") + kind_of(id));
  EXPECT_EQ(queue, ks_mts_q);
  EXPECT_EQ(mts.live[id], 1) << "drop of a message that doesn't exist";
  --mts.live[id];
  if (const auto payload = mts.payloads.find(id); payload != mts.payloads.end()) payload->second->forbid();
}

uint32_t mts_errno_get(uint32_t queue) {
  note("errno");
  EXPECT_EQ(queue, ks_mts_q);
  ++platform().mts.errno_calls;
  return platform().mts.last_errno;
}

// --- libsdwrap

char sdwrap_dbg_modname[] = "ks";

int sdwrap_hist_event_subtype_check(uint32_t event, uint32_t subtype) {
  EXPECT_EQ(event, 0x730000u);
  ++platform().trace.history_checks;
  return platform().trace.history_open[subtype] ? 0 : 1;
}

int sdwrap_hist_event(uint32_t event, uint32_t length, const void *record) {
  EXPECT_EQ(event, 0x730000u);
  KsHistRecord copy = {};
  std::memcpy(&copy, record, length);
  EXPECT_EQ(copy.text[length - 5], '\0') << "the text is not terminated at its length";
  platform().trace.lengths.push_back(length);
  platform().trace.reports.push_back({copy.subtype, normalised(copy.text)});
  note("report " + platform().trace.reports.back().text);
  return -1;  // ignored
}

int sdwrap_chk_int(uint32_t flag, uint32_t zero1, uint32_t zero2, uint32_t one) {
  EXPECT_EQ(zero1, 0u);
  EXPECT_EQ(zero2, 0u);
  EXPECT_EQ(one, 1u);
  ++platform().trace.debug_checks;
  return platform().trace.debug_open[flag] ? 4 : 0;
}

int buginf(uint32_t one, const void *modname, uint32_t zero, const char *format, ...) {
  EXPECT_EQ(one, 1u);
  EXPECT_EQ(modname, static_cast<const void *>(&sdwrap_dbg_modname));
  EXPECT_EQ(zero, 0u);
  va_list arguments;
  va_start(arguments, format);
  char *line = nullptr;
  EXPECT_GE(vasprintf(&line, format, arguments), 0);
  va_end(arguments);
  platform().trace.debug_lines.push_back(normalised(line));
  note("debug " + platform().trace.debug_lines.back());
  ::free(line);
  return -1;  // ignored
}

int sdwrap_hist_mts_event(uint32_t direction, const KsMtsMessage *message, uint32_t result, uint32_t zero) {
  EXPECT_EQ(zero, 0u);
  EXPECT_TRUE(direction == 3 || direction == 4);
  const bool sent = direction == 4;
  if (result != MTS_FAILED) {
    EXPECT_STREQ(kind_of(message_id(message)), sent ? "sent" : "received");
  }
  note(std::string(sent ? "hist sent" : "hist received") + (result == MTS_FAILED ? " failed" : ""));
  return -1;  // ignored
}

// --- libsysmgr

uint32_t sysmgr_vdc_get(void) {
  note("sysmgr_vdc_get");
  return platform().sysmgr.vdc;
}

uint32_t sysmgr_supstate_get(void) {
  note("supstate");
  return platform().sysmgr.supstate;
}

const char *sysmgr_running_cfg_uri_get(void) {
  return platform().sysmgr.running_uri.c_str();
}

const char *sysmgr_uri_complete(const char *base, const char *prefix, const char *name) {
  Sysmgr &sysmgr = platform().sysmgr;
  EXPECT_EQ(base, sysmgr.running_uri.c_str());
  sysmgr.completed = sysmgr.completed_uri.value_or(std::string(base) + "/" + prefix + name);
  return sysmgr.completed.c_str();
}

// --- libsdb

static Bytes copy_of(const KsSdbDatum *datum) {
  const auto *at = static_cast<const uint8_t *>(datum->data);
  return Bytes(at, at + datum->size);
}

uint32_t sdb_open(const char *uri, uint32_t flags, uint32_t uuid, uint32_t zero1, uint32_t zero2) {
  Sdb &sdb = platform().sdb;
  note("sdb_open " + std::to_string(uuid));
  EXPECT_EQ(uri, ks_cache_uri);
  EXPECT_EQ(flags, 1u);
  EXPECT_EQ(zero1, 0u);
  EXPECT_EQ(zero2, 0u);
  if (sdb.open_codes.empty()) return 0;
  const uint32_t code = sdb.open_codes.front();
  sdb.open_codes.pop_front();
  return code;
}

const KsSdbDatum *sdb_read(const char *uri, const KsSdbDatum *key, uint32_t *error) {
  Sdb &sdb = platform().sdb;
  note("sdb_read");
  EXPECT_EQ(uri, ks_cache_uri);
  *error = 0;
  if (sdb.read_error) {
    *error = *sdb.read_error;
    return nullptr;
  }
  if (sdb.null_value) return nullptr;
  const auto found = sdb.entries.find(copy_of(key));
  if (found == sdb.entries.end()) {
    *error = KS_SDB_ERR_NO_KEY;
    return nullptr;
  }
  if (sdb.value_error) *error = *sdb.value_error;
  sdb.value = std::make_unique<Guarded>(found->second);
  sdb.value_datum = {sdb.value->data(), sdb.value_size.value_or(static_cast<uint32_t>(sdb.value->size()))};
  return &sdb.value_datum;
}

uint32_t sdb_write(const char *uri, const KsSdbDatum *key, const KsSdbDatum *value) {
  Sdb &sdb = platform().sdb;
  note("sdb_write");
  EXPECT_EQ(uri, ks_cache_uri);
  if (sdb.write_code) return *sdb.write_code;
  sdb.staged = [&sdb, k = copy_of(key), v = copy_of(value)] { sdb.entries[k] = v; };
  return 0;
}

uint32_t sdb_delete(const char *uri, const KsSdbDatum *key) {
  Sdb &sdb = platform().sdb;
  note("sdb_delete");
  EXPECT_EQ(uri, ks_cache_uri);
  if (sdb.delete_code) return *sdb.delete_code;
  const Bytes wanted = copy_of(key);
  if (!sdb.entries.contains(wanted) && sdb.missing_delete_code != 0) return sdb.missing_delete_code;
  sdb.staged = [&sdb, wanted] { sdb.entries.erase(wanted); };
  return 0;
}

uint32_t sdb_write_done(const char *uri) {
  Sdb &sdb = platform().sdb;
  note("sdb_write_done");
  EXPECT_EQ(uri, ks_cache_uri);
  const auto staged = std::exchange(sdb.staged, nullptr);
  if (!staged) ADD_FAILURE() << "sdb_write_done with nothing staged";
  if (sdb.done_code) return *sdb.done_code;
  if (staged) staged();
  return 0;
}

uint32_t sdb_iterator_init(const char *uri, uint32_t flags) {
  Sdb &sdb = platform().sdb;
  note("sdb_iterator_init");
  EXPECT_EQ(uri, ks_cache_uri);
  EXPECT_EQ(flags, 1u);
  sdb.position.reset();
  return sdb.iterator_code.value_or(0);
}

static uint32_t hand_out(std::map<Bytes, Bytes>::const_iterator entry, const KsSdbDatum **key,
                         const KsSdbDatum **value) {
  Sdb &sdb = platform().sdb;
  if (entry == sdb.entries.end()) return KS_SDB_ERR_NO_KEY;
  sdb.position = entry->first;
  sdb.key = std::make_unique<Guarded>(entry->first);
  sdb.key_datum = {sdb.key->data(), static_cast<uint32_t>(sdb.key->size())};
  *key = &sdb.key_datum;
  *value = nullptr;
  return 0;
}

uint32_t sdb_getkey(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value) {
  note("sdb_getkey");
  EXPECT_EQ(uri, ks_cache_uri);
  EXPECT_EQ(*key, nullptr);
  EXPECT_EQ(*value, nullptr);
  return hand_out(platform().sdb.entries.begin(), key, value);
}

uint32_t sdb_getnext(const char *uri, const KsSdbDatum **key, const KsSdbDatum **value) {
  Sdb &sdb = platform().sdb;
  note(*key == nullptr ? "sdb_getnext cleared" : "sdb_getnext");
  EXPECT_EQ(uri, ks_cache_uri);
  if (!sdb.position) return KS_SDB_ERR_NO_KEY;
  return hand_out(sdb.entries.upper_bound(*sdb.position), key, value);
}

const char *syserr2str(uint32_t code) {
  Sdb &sdb = platform().sdb;
  ++sdb.text_calls;
  char text[32];
  snprintf(text, sizeof text, "text of 0x%x", code);
  sdb.texts.emplace_back(text);
  return sdb.texts.back().c_str();
}
