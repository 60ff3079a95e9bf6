// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// pkcs11_aes.h: AES with a token's key through PKCS #11, as others offer it: SoftHSM in the caller's own process,
// and the same behind p11-kit's remoting in another one. Both are Debian's packages and looked for when the program
// runs.
#ifndef BENCH_PKCS11_AES_H
#define BENCH_PKCS11_AES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace bench {

// SoftHsmToken is a fresh token with one AES-256 key in a folder of its own; what it needs of the environment is set
// for this process and its children while it lives.
class SoftHsmToken {
 public:
  SoftHsmToken();
  ~SoftHsmToken();
  SoftHsmToken(const SoftHsmToken &) = delete;
  SoftHsmToken &operator=(const SoftHsmToken &) = delete;

  // absence tells what is missing, in words; empty when the token is there.
  const std::string &absence() const { return absence_; }
  const std::string &module() const { return module_; }

 private:
  std::string folder_, module_, absence_;
};

// RemoteModule is a p11-kit server in another process, over a module.
class RemoteModule {
 public:
  explicit RemoteModule(const SoftHsmToken &token);
  ~RemoteModule();
  RemoteModule(const RemoteModule &) = delete;
  RemoteModule &operator=(const RemoteModule &) = delete;

  const std::string &absence() const { return absence_; }
  const std::string &module() const { return module_; }  // the client's side
  int pid() const { return pid_; }

 private:
  std::string module_, absence_;
  int pid_ = -1;
};

// TokenKey is a session with the key of a token.
class TokenKey {
 public:
  explicit TokenKey(const std::string &module);
  ~TokenKey();
  TokenKey(const TokenKey &) = delete;
  TokenKey &operator=(const TokenKey &) = delete;

  // encrypt is ECB: Debian 12's remoting has no form for an IV and refuses every mode with one.
  bool encrypt(const uint8_t *in, size_t size, uint8_t *out);

 private:
  struct Session;
  std::unique_ptr<Session> session_;
};

}  // namespace bench

#endif
