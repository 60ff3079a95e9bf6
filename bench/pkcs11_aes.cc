// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "pkcs11_aes.h"

#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <stdexcept>

namespace bench {
namespace {

constexpr char kPin[] = "1234";
constexpr char kLabel[] = "ks-bench";

std::string first_that_exists(std::initializer_list<const char *> paths) {
  for (const char *path : paths) {
    if (std::filesystem::exists(path)) return path;
  }
  return {};
}

void check(CK_RV result, const char *what) {
  if (result == CKR_OK) return;
  throw std::runtime_error(std::string(what) + " failed with " + std::to_string(result));
}

unsigned char *pin() {
  return reinterpret_cast<unsigned char *>(const_cast<char *>(kPin));
}

// Module is a PKCS #11 library, loaded and initialised. Loading one twice gives the same library.
class Module {
 public:
  explicit Module(const std::string &path) : library_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (!library_) throw std::runtime_error(dlerror());
    const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library_, "C_GetFunctionList"));
    if (!get) throw std::runtime_error(path + " is no PKCS #11 module");
    check(get(&functions_), "C_GetFunctionList");
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.flags = CKF_OS_LOCKING_OK;
    check(functions_->C_Initialize(&arguments), "C_Initialize");
  }
  ~Module() {
    functions_->C_Finalize(nullptr);
    dlclose(library_);
  }
  Module(const Module &) = delete;
  Module &operator=(const Module &) = delete;

  CK_FUNCTION_LIST *operator->() const { return functions_; }

  // slot is the one with our token, or with any when there is none yet.
  CK_SLOT_ID slot() const {
    std::array<CK_SLOT_ID, 16> slots{};
    CK_ULONG count = slots.size();
    check(functions_->C_GetSlotList(CK_TRUE, slots.data(), &count), "C_GetSlotList");
    if (count == 0) throw std::runtime_error("the module has no slot");
    for (CK_ULONG i = 0; i < count; ++i) {
      CK_TOKEN_INFO token;
      check(functions_->C_GetTokenInfo(slots[i], &token), "C_GetTokenInfo");
      if (std::memcmp(token.label, kLabel, sizeof kLabel - 1) == 0) return slots[i];
    }
    return slots[0];
  }

  CK_SESSION_HANDLE open_session() const {
    CK_SESSION_HANDLE session = 0;
    check(functions_->C_OpenSession(slot(), CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
          "C_OpenSession");
    return session;
  }

 private:
  void *library_;
  CK_FUNCTION_LIST *functions_ = nullptr;
};

void make_token_with_key(const std::string &path) {
  const Module module(path);
  std::array<unsigned char, 32> label;
  label.fill(' ');
  std::memcpy(label.data(), kLabel, sizeof kLabel - 1);
  check(module->C_InitToken(module.slot(), pin(), sizeof kPin - 1, label.data()), "C_InitToken");
  const CK_SESSION_HANDLE session = module.open_session();
  check(module->C_Login(session, CKU_SO, pin(), sizeof kPin - 1), "C_Login");
  check(module->C_InitPIN(session, pin(), sizeof kPin - 1), "C_InitPIN");
  check(module->C_Logout(session), "C_Logout");
  check(module->C_Login(session, CKU_USER, pin(), sizeof kPin - 1), "C_Login");
  CK_MECHANISM generate{CKM_AES_KEY_GEN, nullptr, 0};
  CK_BBOOL yes = CK_TRUE;
  CK_ULONG key_size = 32;
  std::array attributes{CK_ATTRIBUTE{CKA_TOKEN, &yes, sizeof yes}, CK_ATTRIBUTE{CKA_ENCRYPT, &yes, sizeof yes},
                        CK_ATTRIBUTE{CKA_VALUE_LEN, &key_size, sizeof key_size}};
  CK_OBJECT_HANDLE key = 0;
  check(module->C_GenerateKey(session, &generate, attributes.data(), attributes.size(), &key), "C_GenerateKey");
}

// shell_value gives what a line of shell commands assigns to `name`, without quotes.
std::string shell_value(const std::string &line, const std::string &name) {
  const size_t at = line.find(name + "=");
  if (at == std::string::npos) return {};
  const size_t from = line.find_first_not_of("'\"", at + name.size() + 1);
  return from == std::string::npos ? std::string() : line.substr(from, line.find_first_of("'\";\n", from) - from);
}

}  // namespace

SoftHsmToken::SoftHsmToken()
    : module_(
          first_that_exists({"/usr/lib/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so"})) {
  if (module_.empty()) {
    absence_ = "SoftHSM isn't installed (package softhsm2)";
    return;
  }
  std::string pattern = std::filesystem::temp_directory_path() / "ks-bench-token-XXXXXX";
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  folder_ = pattern;
  std::filesystem::create_directory(folder_ + "/tokens");
  std::ofstream(folder_ + "/softhsm2.conf") << "directories.tokendir = " << folder_ << "/tokens\nlog.level = ERROR\n";
  setenv("SOFTHSM2_CONF", (folder_ + "/softhsm2.conf").c_str(), 1);
  try {
    make_token_with_key(module_);
  } catch (const std::exception &error) {
    absence_ = std::string("SoftHSM doesn't make a token: ") + error.what();
  }
}

SoftHsmToken::~SoftHsmToken() {
  if (!folder_.empty()) std::filesystem::remove_all(folder_);
}

RemoteModule::RemoteModule(const SoftHsmToken &token)
    : module_(first_that_exists({"/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so"})) {
  if (!token.absence().empty()) {
    absence_ = token.absence();
  } else if (module_.empty() || first_that_exists({"/usr/libexec/p11-kit/p11-kit-server"}).empty()) {
    absence_ = "p11-kit's remoting isn't installed (packages p11-kit and p11-kit-modules)";
  }
  if (!absence_.empty()) return;
  const std::string name = std::filesystem::temp_directory_path() / ("ks-bench-p11-" + std::to_string(getpid()));
  const std::string command = "p11-kit server --sh --provider " + token.module() + " --name " + name +
                              " 'pkcs11:token=" + kLabel + "' 2>/dev/null";
  std::string address;
  std::string process;
  FILE *const pipe = popen(command.c_str(), "r");
  std::array<char, 512> line;
  while (pipe && std::fgets(line.data(), line.size(), pipe)) {
    if (address.empty()) address = shell_value(line.data(), "P11_KIT_SERVER_ADDRESS");
    if (process.empty()) process = shell_value(line.data(), "P11_KIT_SERVER_PID");
  }
  if (pipe) pclose(pipe);
  if (address.empty() || process.empty()) {
    absence_ = "p11-kit's server doesn't start";
    return;
  }
  pid_ = std::atoi(process.c_str());
  setenv("P11_KIT_SERVER_ADDRESS", address.c_str(), 1);
}

RemoteModule::~RemoteModule() {
  if (pid_ > 0) kill(pid_, SIGTERM);
}

struct TokenKey::Session {
  explicit Session(const std::string &path) : module(path), handle(module.open_session()) {
    check(module->C_Login(handle, CKU_USER, pin(), sizeof kPin - 1), "C_Login");
    CK_OBJECT_CLASS secret_key = CKO_SECRET_KEY;
    CK_ATTRIBUTE wanted{CKA_CLASS, &secret_key, sizeof secret_key};
    check(module->C_FindObjectsInit(handle, &wanted, 1), "C_FindObjectsInit");
    CK_ULONG count = 0;
    check(module->C_FindObjects(handle, &key, 1, &count), "C_FindObjects");
    module->C_FindObjectsFinal(handle);
    if (count != 1) throw std::runtime_error("the token's key isn't found");
  }

  Module module;
  CK_SESSION_HANDLE handle;
  CK_OBJECT_HANDLE key = 0;
};

TokenKey::TokenKey(const std::string &module) : session_(std::make_unique<Session>(module)) {}
TokenKey::~TokenKey() = default;

bool TokenKey::encrypt(const uint8_t *in, size_t size, uint8_t *out) {
  CK_MECHANISM ecb{CKM_AES_ECB, nullptr, 0};
  CK_ULONG written = size;
  return session_->module->C_EncryptInit(session_->handle, &ecb, session_->key) == CKR_OK &&
         session_->module->C_Encrypt(session_->handle, const_cast<uint8_t *>(in), size, out, &written) == CKR_OK;
}

}  // namespace bench
