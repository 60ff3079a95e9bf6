// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// reply: arbitrary replies of a false service to every operation that waits for one, through the host platform.
//
//   input     operation | greeting or not | length asked for | replies: kind, and payload with its length in front
//   property  nothing is written behind a caller's buffer or read behind a reply, a buffer stays untouched unless the
//             operation succeeds, what is handed out is as long as is said, and no call waits for more than comes
//
// The service runs in the same thread: whenever the client has sent something, it takes its turn.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdarg>
#include <deque>
#include <filesystem>
#include <functional>
#include <string>

#include "host_wire.h"
#include "ks_api.h"
#include "support/fuzz.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

// ---- The service.

enum Kind : uint8_t { kWell, kOtherOpcode, kOtherToken, kOtherSize, kHeaderless, kHangUp, kKinds };

struct Answer {
  uint8_t kind;
  std::vector<uint8_t> payload;
};

class FalseService {
 public:
  FalseService() {
    char folder[] = "/tmp/ks-fuzz-XXXXXX";
    require(mkdtemp(folder) != nullptr, "there is a folder");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_cast<void>(snprintf(address.sun_path, sizeof address.sun_path, "%s/s", folder));
    listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    require(bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "the service listens");
    require(listen(listener_, 64) == 0, "the service listens");
    setenv("KS_SOCKET", address.sun_path, 1);
    folder_ = folder;
  }
  FalseService(const FalseService &) = delete;
  FalseService &operator=(const FalseService &) = delete;
  ~FalseService() { std::filesystem::remove_all(folder_); }  // with what the client has put beside the socket

  std::deque<Answer> answers;  // to what isn't a greeting, in turn; then it hangs up

  // turn answers what has come in.
  void turn() {
    for (int socket; (socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
      sockets_.push_back(socket);
    }
    for (size_t i = 0; i < sockets_.size();) {
      if (serve(sockets_[i])) {
        ++i;
      } else {
        close(sockets_[i]);
        sockets_.erase(sockets_.begin() + static_cast<ptrdiff_t>(i));
      }
    }
  }

 private:
  // serve gives false when the connection is at its end.
  bool serve(int socket) {
    uint8_t datagram[16 * 1024];
    const ssize_t size = recv(socket, datagram, sizeof datagram, 0);
    if (size < 0) return errno == EAGAIN;
    if (size < static_cast<ssize_t>(sizeof(HostWireHeader))) return false;
    HostWireHeader header;
    memcpy(&header, datagram, sizeof header);
    header.descriptor_size = 0;
    if (header.opcode == HOST_OP_HELLO) return greet(socket, header);
    if (answers.empty()) return false;
    const Answer answer = answers.front();
    answers.pop_front();
    return send_answer(socket, header, answer);
  }

  static bool greet(int socket, const HostWireHeader &header) {
    HostHelloReply hello = {};
    hello.result = KS_SUCCESS;
    hello.vdc_id = 7;
    return send_answer(socket, header, {kWell, fuzz::own({reinterpret_cast<const uint8_t *>(&hello), sizeof hello})});
  }

  static bool send_answer(int socket, HostWireHeader header, const Answer &answer) {
    header.payload_size = static_cast<uint32_t>(answer.payload.size());
    if (answer.kind == kOtherOpcode) header.opcode++;
    if (answer.kind == kOtherToken) header.token--;
    if (answer.kind == kOtherSize) header.payload_size++;
    std::vector<uint8_t> datagram;
    if (answer.kind != kHeaderless) datagram = fuzz::own({reinterpret_cast<const uint8_t *>(&header), sizeof header});
    datagram.insert(datagram.end(), answer.payload.begin(), answer.payload.end());
    if (answer.kind != kHangUp) send(socket, datagram.data(), datagram.size(), MSG_NOSIGNAL);
    return answer.kind == kWell;  // whoever is not content with that is not to wait for more
  }

  int listener_ = -1;
  std::vector<int> sockets_;
  std::string folder_;
};

FalseService *service;

}  // namespace

// Some blocks of the library stay allocated by promise.
extern "C" int __lsan_is_turned_off() {
  return 1;
}

// The host libraries send by this call.
extern "C" long fuzz_syscall(long number, ...) {
  va_list arguments;
  va_start(arguments, number);
  long words[6];
  for (long &word : words) word = va_arg(arguments, long);
  va_end(arguments);
  const long result = syscall(number, words[0], words[1], words[2], words[3], words[4], words[5]);
  if (number == SYS_sendto && result >= 0) service->turn();
  return result;
}

namespace {

// ---- The operations.

fuzz::Guarded output;

// computed runs an operation with an output of `size` bytes.
template <typename Operation>
void computed(size_t size, Operation operation) {
  uint8_t *at = output.fresh(size);
  if (operation(at) != KS_SUCCESS) require(output.is_untouched(size), "an operation that fails writes nothing");
}

// handed_out takes over a block, whose `length` bytes must be there.
void handed_out(KsResult result, void *block, size_t length) {
  if (result == KS_SUCCESS && length != 0) output.copy({static_cast<const uint8_t *>(block), length});
  free(block);
}

constexpr uint8_t kData[1024] = {};
constexpr uint8_t kAid[] = {'a', 'i', 'd'};
constexpr uint32_t kAidLen = sizeof kAid;

template <typename Operation>
void read_tlv(Operation operation) {
  uint8_t *block = nullptr;
  uint32_t length = 0;
  const KsResult result = operation(kAid, kAidLen, &block, &length);
  handed_out(result, block, length);
}

using Operation = void (*)(uint8_t asked);

constexpr Operation kOperations[] = {
    [](uint8_t n) { computed(n, [&](uint8_t *out) { return ks_generate_random_number(out, n, 0); }); },
    [](uint8_t) {
      uint16_t version;
      uint32_t status;
      ks_return_fw_version_and_status(&version, &status);
    },
    [](uint8_t) { ks_compact_fw_memory(); },
    [](uint8_t n) { ks_store_secret_and_metadata("a", "b", kData, n, kData, n); },
    [](uint8_t n) { ks_add_metadata("a", kData, n); },
    [](uint8_t) {
      uint8_t *metadata = nullptr;
      uint16_t length = 0;
      const KsResult result = ks_return_metadata("a", &metadata, &length);
      handed_out(result, metadata, length);
    },
    [](uint8_t) {
      uint16_t index = 0;
      char *name = nullptr;
      const KsResult result = ks_return_secret_handle_by_index(&index, &name);
      handed_out(result, name, result == KS_SUCCESS ? strlen(name) : 0);
    },
    [](uint8_t) {
      uint32_t exists;
      ks_secret_exists("a", &exists);
    },
    [](uint8_t) { ks_clear_secret("a"); },
    [](uint8_t) { ks_rename_secret("a", "b", nullptr); },
    [](uint8_t n) { ks_store_pac(kAid, kAidLen, kData, n, kData, n, kData, n); },
    [](uint8_t) { read_tlv(ks_return_pac_opaque); },
    [](uint8_t) { read_tlv(ks_return_pac_info); },
    [](uint8_t) { ks_get_pac_expiration(kAid, kAidLen); },
    [](uint8_t) {
      uint16_t index = 0;
      uint8_t *aid = nullptr;
      uint16_t length = 0;
      const KsResult result = ks_return_aid_by_index(&index, &aid, &length);
      handed_out(result, aid, result == KS_SUCCESS ? length + size_t{1} : 0);
    },
    [](uint8_t) { ks_clear_pac(kAid, kAidLen); },
    [](uint8_t n) {
      computed(n, [&](uint8_t *out) { return ks_pac_key_t_prf(kAid, kAidLen, kData, 8, kData, 8, out, n); });
    },
    [](uint8_t) { ks_clear_old_pacs("user"); },
    [](uint8_t) { ks_clear_all_pacs(); },
    [](uint8_t n) {
      computed(n & 0xf8, [&](uint8_t *out) { return ks_des_ecb_encrypt("a", kData, n & 0xf8, out, n & 0xf8); });
    },
    [](uint8_t n) {
      computed(n & 0xf8, [&](uint8_t *out) { return ks_3des_ecb_decrypt("a", kData, n & 0xf8, out, n & 0xf8); });
    },
    [](uint8_t n) { computed(n & 0xf0, [&](uint8_t *out) { return ks_aes_encrypt("a", kData, out, n & 0xf0); }); },
    [](uint8_t n) {
      computed((n & 0xf0) + 16, [&](uint8_t *iv) { return ks_aes_cbc_encrypt("a", iv, kData, n & 0xf0, iv + 16); });
    },
    [](uint8_t n) {
      computed((n & 0xf0) + 16, [&](uint8_t *iv) { return ks_aes_cbc_decrypt("a", iv, kData, n & 0xf0, iv + 16); });
    },
    [](uint8_t n) { computed(16, [&](uint8_t *out) { return ks_md5_hash("a", kData, n, kData, 1, out); }); },
    [](uint8_t n) { computed(20, [&](uint8_t *out) { return ks_sha1_hash("a", kData, n, kData, 1, out); }); },
    [](uint8_t n) { computed(16, [&](uint8_t *out) { return ks_hmac_md5("a", kData, n, out); }); },
    [](uint8_t n) { computed(20, [&](uint8_t *out) { return ks_hmac_sha1_for_pac(kAid, kAidLen, kData, n, out); }); },
    [](uint8_t) { computed(24, [](uint8_t *out) { return ks_GenerateNTResponse("a", kData, kData, "u", out); }); },
    [](uint8_t) {
      computed(42, [](uint8_t *out) { return ks_GenerateAuthenticatorResponse("a", kData, kData, kData, "u", out); });
    },
    [](uint8_t n) {
      computed(516, [&](uint8_t *out) { return ks_NewPasswordEncryptedWithOldNtPasswordHash("a", kData, n, out); });
    },
    [](uint8_t) {
      computed(16, [](uint8_t *out) { return ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash("a", "b", out); });
    },
    [](uint8_t) { computed(16, [](uint8_t *out) { return ks_GetMasterKey("a", kData, out); }); },
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (service == nullptr) {
    static FalseService only;
    service = &only;
    stderr = fopen("/dev/null", "w");  // two operations print to it by promise
    require(ks_init(0, 1, 0) == KS_SUCCESS, "the library starts");
  }
  fuzz::Input input(data, size);
  const Operation operation = kOperations[input.byte() % std::size(kOperations)];
  const uint8_t asked = input.byte();
  service->answers.clear();
  while (!input.empty()) {
    const auto kind = static_cast<uint8_t>(input.byte() % kKinds);
    service->answers.push_back({kind, fuzz::own(input.bytes(input.word()))});
  }
  operation(asked);
  return 0;
}
