// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// scripted.h: the platform as a script. Fakes of the four platform libraries and of the heap record every call of the
// library in one ordered log, answer from a script, and fail on demand. Blocks and payloads lie against a guard page:
// reading one byte past them faults, and so does touching them after they are freed or dropped.
#ifndef TESTS_SUPPORT_SCRIPTED_H
#define TESTS_SUPPORT_SCRIPTED_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ks_api.h"
#include "mts.h"
#include "sdb.h"
#include "sdwrap.h"
#include "sysmgr.h"

namespace scripted {

using Bytes = std::vector<uint8_t>;

// bytes reads "0c 02  30 00": pairs of hexadecimal digits, blanks for the eye.
Bytes bytes(const std::string &hex);
Bytes bytes_of(const std::string &text);
Bytes operator+(Bytes left, const Bytes &right);

// Replies, spelt out: a result alone, and a result with a length and data.
Bytes result_only(KsResult result);
Bytes reply(const Bytes &data, KsResult result = KS_SUCCESS);
Bytes reply_with_len(uint16_t len, const Bytes &data, KsResult result = KS_SUCCESS);  // the length tells a lie

// Guarded is a copy of some bytes that ends at a guard page.
class Guarded {
 public:
  explicit Guarded(const Bytes &content);
  Guarded(const Guarded &) = delete;
  Guarded &operator=(const Guarded &) = delete;
  ~Guarded();
  uint8_t *data() { return data_; }
  size_t size() const { return size_; }
  void forbid();  // any touch faults from here on

 private:
  uint8_t *map_;
  size_t map_size_;
  uint8_t *data_;
  size_t size_;
};

// Section is an entry of a section list as it was sent.
struct Section {
  const void *data = nullptr;
  uint32_t length = 0;
  Bytes content;
};

// Request is one call of mts_send.
struct Request {
  uint32_t queue = 0;
  uint32_t op = 0;
  bool has_descriptor = false;
  Bytes descriptor = {};
  bool has_options = false;
  std::vector<Section> sections = {};
  Bytes message() const;  // descriptor and sections as they travel
};

// What mts_recv is to answer.
struct Answer {
  Bytes payload = {};
  std::optional<uint32_t> size = {};        // what mts_payload_size says, unless it is the payload's size
  std::optional<uint32_t> recv_errno = {};  // set: mts_recv fails
  std::optional<uint32_t> send_errno = {};  // set: mts_send fails
};

class Mts {
 public:
  // The script: answers to requests in their order. Running out of answers fails the test.
  void reply_with(const Bytes &payload) { script.push_back({.payload = payload}); }
  void reply_with(const Bytes &payload, uint32_t size) { script.push_back({.payload = payload, .size = size}); }
  void fail_send(uint32_t error = 32) { script.push_back({.send_errno = error}); }
  void fail_recv(uint32_t error = 110) { script.push_back({.recv_errno = error}); }
  std::deque<Answer> script;
  std::function<Answer(const Request &)> answer;  // asked when the script is empty, if set

  const Request &request(size_t index = 0) const;  // fails the test when there is none
  Bytes sent(size_t index = 0) const { return request(index).message(); }

  std::vector<Request> requests;
  uint32_t bind_result = 5;
  std::optional<uint32_t> bind_errno;
  std::vector<std::vector<uint32_t>> binds;  // mode, first, the six words, third
  uint32_t last_errno = 0;
  int errno_calls = 0;
  int size_calls = 0;
  int undropped() const;         // messages that exist and were not dropped
  std::map<uint32_t, int> live;  // message id to times it may still be dropped
  std::map<uint32_t, std::unique_ptr<Guarded>> payloads;
  std::map<uint32_t, uint32_t> sizes;
};

// Report is one history record.
struct Report {
  uint32_t subtype;
  std::string text;  // with the line number of "name(123)" replaced by "#"

  // The text alone for the subtype of nearly all reports, 103; any other stands in front: "100:text".
  std::string marked() const;
};

// alert is how a report of subtype 100 is marked, so that an expected plain text stands for subtype 103 alone.
std::string alert(const std::string &text);

class Trace {
 public:
  std::map<uint32_t, bool> history_open = {{100, true}, {103, true}};
  std::map<uint32_t, bool> debug_open = {{100, false}, {103, false}};
  std::vector<Report> reports;
  std::vector<uint32_t> lengths;         // as passed with each record
  std::vector<std::string> debug_lines;  // likewise normalised
  int history_checks = 0;
  int debug_checks = 0;
  uint32_t asked = 0;  // the subtype of the last history check, which the rest of the report has to keep to
  void close() { history_open = {}, debug_open = {}; }
  void open_both() { debug_open = {{100, true}, {103, true}}; }
};

class Sysmgr {
 public:
  uint32_t vdc = 7;
  uint32_t supstate = 0;
  std::string running_uri = "lmdb:///tmp";
  std::optional<std::string> completed_uri;  // instead of base/prefixname
  std::string completed;                     // the last answer, which the library may still read
};

class Sdb {
 public:
  std::map<Bytes, Bytes> entries;
  std::deque<uint32_t> open_codes;  // answers of sdb_open in order; 0 when used up
  // What a call answers instead of doing its work.
  std::optional<uint32_t> read_error;   // no value, this error word
  std::optional<uint32_t> value_error;  // the value, but with this error word
  std::optional<uint32_t> write_code, delete_code, done_code, iterator_code;
  bool null_value = false;              // a read that finds the key and gives no value
  std::optional<uint32_t> value_size;   // what a read says of the value's size, unless it is so
  uint32_t missing_delete_code = 0;     // what deleting an absent key says
  std::function<void()> before_delete;  // what another process does before a deletion
  int text_calls = 0;                   // of syserr2str
  std::deque<std::string> texts;        // keeps what syserr2str handed out

  std::function<void()> staged;
  std::unique_ptr<Guarded> value, key;  // the last ones handed out
  KsSdbDatum value_datum = {}, key_datum = {};
  std::optional<Bytes> position;
};

class Heap {
 public:
  // fail_nth makes the n-th allocation from now fail, 1 being the next.
  void fail_nth(int n) { failing_ = n; }
  // fail_from makes every allocation fail from the n-th on.
  void fail_from(int n) { failing_ = n, failing_on_ = true; }
  // pad_nth gives the n-th allocation from now room behind its end, for the one overrun that is promised.
  void pad_nth(int n, size_t room) { padded_ = n, padding_ = room; }
  void pad_next(size_t room) { pad_nth(1, room); }
  // adopt makes a block that the library is to free, outside the log.
  void *adopt(const Bytes &content);
  // release frees what the library handed out, outside the log.
  void release(const void *block);
  // Sizes of the blocks that are allocated now, in the order of their allocation.
  std::vector<size_t> live() const;
  // The same blocks as the log tells of them when they were made: "calloc 35", "malloc 7", "calloc list[2]".
  std::vector<std::string> left() const;
  Bytes content(const void *block, size_t size) const;  // checks that the block has exactly that size

  void *allocate(size_t size, bool zeroed, const std::string &event);
  void free(void *block);
  void reset();

 private:
  struct Block {
    std::unique_ptr<Guarded> memory;
    size_t size;
    std::string made;  // the log's event
    uint64_t order;
  };
  std::vector<const Block *> in_order() const;

  std::map<const void *, Block> blocks_;
  std::deque<std::unique_ptr<Guarded>> freed_;  // forbidden, and kept a while so that late touches fault
  int failing_ = 0;
  bool failing_on_ = false;
  int padded_ = 0;
  size_t padding_ = 0;
  uint64_t next_order_ = 0;
};

class Clock {
 public:
  int64_t now = 1'700'000'000;
  std::vector<uint32_t> pauses;
};

// Platform is everything together, and the one ordered log of all calls:
//   "calloc 35", "malloc 35", "calloc list[2]", "free 35", "free list[2]"   with the block's size
//   "send", "recv", "drop sent", "drop received", "hist sent", "hist received"
//   "report TEXT", "debug TEXT", "errno", "size"                            the text of an alert as alert() marks it
//   "sysmgr_vdc_get", "supstate", "sdb_open", "sdb_read", ..., "usleep 1000"
struct Platform {
  std::vector<std::string> log;
  Mts mts;
  Trace trace;
  Sysmgr sysmgr;
  Sdb sdb;
  Heap heap;
  Clock clock;
};

Platform &platform();

// For the fakes: note adds to the log; a message's number and whether it was "sent" or "received".
void note(std::string event);
uint32_t message_id(const KsMtsMessage *message);
const char *kind_of(uint32_t id);

// Test is the fixture of every scripted test: a fresh platform with a bound queue, VDC 7 and a closed cache; at the end
// nothing may be left over that the test didn't announce.
class Test : public testing::Test {
 protected:
  Test();
  void TearDown() override;

  // What the library reported, in order and marked by subtype; with_subtype puts "103:" in front, too.
  std::vector<std::string> traces(bool with_subtype = false) const;
  // The log's heap and message events: what is allocated, sent, freed, dropped, in order.
  std::vector<std::string> flow() const;
  // The log's events that begin with one of the words.
  std::vector<std::string> events(const std::vector<std::string> &words) const;

  void expect_leaked(const std::vector<size_t> &sizes) { leaked_ = sizes; }
  void expect_undropped(int messages) { undropped_ = messages; }

  Mts &mts = platform().mts;
  Trace &trace = platform().trace;
  Sysmgr &sysmgr = platform().sysmgr;
  Sdb &sdb = platform().sdb;
  Heap &heap = platform().heap;
  Clock &clock = platform().clock;

 private:
  std::vector<size_t> leaked_;
  int undropped_ = 0;
};

}  // namespace scripted

#endif
