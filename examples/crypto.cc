// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// Cryptography on keys that never leave the service, each result beside its published value.
#include <algorithm>
#include <cstring>

#include "example.h"

using example::Bytes;
using example::compare;
using example::from_hex;
using example::hex;
using example::of_text;
using example::require;

namespace {

// cbc runs AES-CBC over data of any multiple of 16 bytes in chained calls: the IV of one is the start of the next.
Bytes cbc(KsResult (*operation)(const char *, uint8_t *, const uint8_t *, uint16_t, uint8_t *), const char *name,
          Bytes iv, const Bytes &input, size_t piece) {
  Bytes output(input.size());
  for (size_t at = 0; at < input.size(); at += piece) {
    const auto len = static_cast<uint16_t>(std::min(piece, input.size() - at));
    require(operation(name, iv.data(), input.data() + at, len, output.data() + at), "AES-CBC");
  }
  return output;
}

void show_aes() {
  // NIST SP 800-38A, F.2.1.
  example::keep("aes-key", from_hex("2b7e151628aed2a6abf7158809cf4f3c"));
  const Bytes iv = from_hex("000102030405060708090a0b0c0d0e0f");
  const Bytes plaintext = from_hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
  compare("AES-128-CBC, two chained calls", hex(cbc(ks_aes_cbc_encrypt, "aes-key", iv, plaintext, 16)),
          "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2");

  Bytes file(200'000);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * i >> 3);
  const Bytes sealed = cbc(ks_aes_cbc_encrypt, "aes-key", iv, file, 64'000);
  const Bytes opened = cbc(ks_aes_cbc_decrypt, "aes-key", iv, sealed, 48'000);
  std::printf("  a file of %zu bytes, encrypted in pieces of 64000 and decrypted in pieces of 48000: %s\n", file.size(),
              opened == file ? "the same" : "DIFFERENT");
  if (opened != file) std::exit(1);
}

void show_hmac() {
  // RFC 2202, test case 2.
  example::keep("hmac-key", of_text("Jefe"));
  const Bytes data = of_text("what do ya want for nothing?");
  Bytes digest(20);
  require(ks_hmac_sha1("hmac-key", data.data(), static_cast<uint16_t>(data.size()), digest.data()), "HMAC-SHA1");
  compare("HMAC-SHA1", hex(digest), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
}

void show_radius() {
  // RFC 2865, section 7.1: MD5(code, id, length, request authenticator, attributes, secret) of an Access-Accept.
  example::keep("radius-shared", of_text("xyzzy5461"));
  const Bytes packet = from_hex(
      "02000026"
      "0f403f9473978057bd83d5cb98f4227a"
      "0606000000010f06000000000e06c0a80103");
  Bytes authenticator(16);
  require(ks_md5_hash("radius-shared", packet.data(), static_cast<uint16_t>(packet.size()), nullptr, 0,
                      authenticator.data()),
          "MD5");
  compare("RADIUS response authenticator", hex(authenticator), "86fe220e7624ba2a1005f6bf9b55e0b2");
}

void show_mschap() {
  // RFC 2759, section 9.2.
  example::keep("password", of_text("clientPass"));
  const Bytes authenticator_challenge = from_hex("5b5d7c7d7b3f2f3e3c2c602132262628");
  const Bytes peer_challenge = from_hex("21402324255e262a28295f2b3a337c7e");
  Bytes nt_response(24);
  require(ks_GenerateNTResponse("password", authenticator_challenge.data(), peer_challenge.data(), "User",
                                nt_response.data()),
          "GenerateNTResponse");
  compare("MS-CHAPv2 NT response", hex(nt_response), "82309ecd8d708b5ea08faa3981cd83544233114a3d85d6df");

  Bytes response(42);
  require(ks_GenerateAuthenticatorResponse("password", nt_response.data(), peer_challenge.data(),
                                           authenticator_challenge.data(), "User", response.data()),
          "GenerateAuthenticatorResponse");
  compare("MS-CHAPv2 authenticator response", std::string(response.begin(), response.end()),
          "S=407A5589115FD0D6209F510FE9C04566932CDA56");
}

}  // namespace

int main() {
  example::start();
  show_aes();
  show_hmac();
  show_radius();
  show_mschap();
}
