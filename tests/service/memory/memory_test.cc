// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Where a running service has its keys: in memory that no core has, and nowhere else once a request is answered.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>

#include "random_input.h"
#include "service/library_suite.h"

namespace {

using ks_test::LibrarySuite;

// Mapping is a mapping of a process, as its smaps tell.
struct Mapping {
  std::string line;
  uint64_t first = 0;
  uint64_t last = 0;
  bool in_cores = true;
};

std::vector<Mapping> mappings_of(pid_t pid) {
  std::vector<Mapping> found;
  std::ifstream smaps("/proc/" + std::to_string(pid) + "/smaps");
  for (std::string line; std::getline(smaps, line);) {
    unsigned long long first = 0;
    unsigned long long last = 0;
    if (sscanf(line.c_str(), "%llx-%llx ", &first, &last) == 2) found.push_back({line, first, last});
    if (line.starts_with("VmFlags:") && line.find(" dd") != std::string::npos) found.back().in_cores = false;
  }
  return found;
}

// Reader reads what is there of a process's memory. Most of a thread's stack isn't.
class Reader {
 public:
  explicit Reader(pid_t pid) : memory_(open_file(pid, "mem")), pages_(open_file(pid, "pagemap")) {}
  ~Reader() {
    close(memory_);
    close(pages_);
  }
  Reader(const Reader &) = delete;
  Reader &operator=(const Reader &) = delete;

  explicit operator bool() const { return memory_ >= 0 && pages_ >= 0; }

  // content gives the pages of a mapping that are there; where some between them aren't, a zero stands for them.
  std::string content(const Mapping &mapping) const {
    constexpr uint64_t kPage = 4096;
    constexpr uint64_t kThere = uint64_t{3} << 62;  // in memory, or swapped out
    std::vector<uint64_t> pages((mapping.last - mapping.first) / kPage);
    const ssize_t got = pread64(pages_, pages.data(), pages.size() * sizeof pages[0],
                                static_cast<off64_t>(mapping.first / kPage * sizeof pages[0]));
    pages.resize(got > 0 ? static_cast<size_t>(got) / sizeof pages[0] : 0);
    std::string content;
    for (size_t page = 0; page < pages.size(); ++page) {
      if ((pages[page] & kThere) == 0) {
        if (!content.empty() && content.back() != '\0') content += '\0';
        continue;
      }
      std::array<char, kPage> bytes{};
      if (pread64(memory_, bytes.data(), kPage, static_cast<off64_t>(mapping.first + page * kPage)) > 0) {
        content.append(bytes.data(), kPage);
      }
    }
    return content;
  }

 private:
  static int open_file(pid_t pid, const char *name) {
    return open(("/proc/" + std::to_string(pid) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC);
  }

  int memory_;
  int pages_;
};

std::string in_utf16(const std::string &ascii) {
  std::string text;
  for (const char c : ascii) text += {c, '\0'};
  return text;
}

std::string combined(std::string text, char with) {
  for (char &c : text) c = static_cast<char>(c ^ with);
  return text;
}

std::string with_words_swapped(std::string text) {
  for (size_t at = 0; at + 4 <= text.size(); at += 4)
    std::reverse(text.begin() + static_cast<ptrdiff_t>(at), text.begin() + static_cast<ptrdiff_t>(at) + 4);
  return text;
}

class Memory : public LibrarySuite {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a sanitizer keeps copies of its own";
#endif
    reader_ = std::make_unique<Reader>(service->pid());
    if (!*reader_) GTEST_SKIP() << "this user may not read the service's memory";
  }

  // drawn_secret stores printable text that nobody has seen before. It needn't be repeated: any will do.
  static std::string drawn_secret(const char *name, size_t size) {
    static std::mt19937 input = ks_test::random_input();
    std::string secret;
    std::generate_n(std::back_inserter(secret), size, [] { return static_cast<char>('!' + input() % 94); });
    EXPECT_EQ(ks_store_secret_and_metadata(name, nullptr, reinterpret_cast<const uint8_t *>(secret.data()),
                                           static_cast<uint16_t>(size), nullptr, 0),
              KS_SUCCESS);
    return secret;
  }

  // places tells in which mappings the service has a key, in the forms in which algorithms take it.
  std::vector<Mapping> places(const std::string &key) const {
    std::vector<std::string> forms;
    for (const std::string &form : {key, in_utf16(key), combined(key, 0x36), combined(key, 0x5c)}) {
      forms.insert(forms.end(), {form, with_words_swapped(form)});
    }
    std::vector<Mapping> found;
    for (const Mapping &mapping : mappings_of(service->pid())) {
      const std::string content = reader_->content(mapping);
      if (std::ranges::any_of(forms,
                              [&](const std::string &form) { return content.find(form) != std::string::npos; })) {
        found.push_back(mapping);
      }
    }
    return found;
  }

  void expect_guarded(const std::string &key, const char *after) const {
    const std::vector<Mapping> found = places(key);
    EXPECT_FALSE(found.empty()) << after;
    for (const Mapping &mapping : found) EXPECT_FALSE(mapping.in_cores) << after << ": " << mapping.line;
  }

 private:
  std::unique_ptr<Reader> reader_;
};

struct Operation {
  const char *name;
  size_t key_size;
  std::function<KsResult(const char *)> run;
};

TEST_F(Memory, HasAKeyNowhereElseAfterEachOperation) {
  static const std::array<uint8_t, 24> input{};
  static std::array<uint8_t, 1024> output;
  const uint8_t *const in = input.data();
  uint8_t *const out = output.data();
  const std::vector<Operation> operations = {
      {"md5", 24, [&](const char *key) { return ks_md5_hash(key, nullptr, 0, in, 16, out); }},
      {"sha1", 24, [&](const char *key) { return ks_sha1_hash(key, in, 0, in, 16, out); }},
      {"hmac-md5", 24, [&](const char *key) { return ks_hmac_md5(key, in, 16, out); }},
      {"hmac-sha1", 24, [&](const char *key) { return ks_hmac_sha1(key, in, 16, out); }},
      {"aes", 16, [&](const char *key) { return ks_aes_encrypt(key, in, out, 16); }},
      {"aes-decrypt", 16, [&](const char *key) { return ks_aes_decrypt(key, in, out, 16); }},
      {"aes-cbc", 32, [&](const char *key) { return ks_aes_cbc_encrypt(key, out + 512, in, 16, out); }},
      {"des", 8, [&](const char *key) { return ks_des_ecb_decrypt(key, in, 16, out, 16); }},
      {"3des", 24, [&](const char *key) { return ks_3des_ecb_encrypt(key, in, 16, out, 16); }},
      {"nt-response", 24, [&](const char *key) { return ks_GenerateNTResponse(key, in, in, "user", out); }},
      {"proof", 24, [&](const char *key) { return ks_GenerateAuthenticatorResponse(key, in, in, in, "user", out); }},
      {"master-key", 24, [&](const char *key) { return ks_GetMasterKey(key, in, out); }},
      {"new", 24, [&](const char *key) { return ks_NewPasswordEncryptedWithOldNtPasswordHash(key, in, 8, out); }},
      {"old", 24, [&](const char *key) { return ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(key, key, out); }},
  };
  for (const Operation &operation : operations) {
    const std::string key = drawn_secret(operation.name, operation.key_size);
    expect_guarded(key, "storing");
    ASSERT_EQ(operation.run(operation.name), KS_SUCCESS) << operation.name;
    expect_guarded(key, operation.name);
  }
}

TEST_F(Memory, HasAKeyNowhereAfterItIsCleared) {
  const std::string key = drawn_secret("cleared", 24);
  ASSERT_FALSE(places(key).empty());
  ASSERT_EQ(ks_clear_secret("cleared"), KS_SUCCESS);
  EXPECT_TRUE(places(key).empty());
}

}  // namespace
