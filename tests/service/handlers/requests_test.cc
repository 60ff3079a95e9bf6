// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// What all messages that compute have in common: whose names they take, and what damaged requests get.
#include <map>

#include "keystore.h"

namespace ksd::handlers {
namespace {

// Field is a length and offset pair of a descriptor, told again here from the layouts of the messages.
struct Field {
  size_t length_at, length_width, offset_at, offset_width;
};

struct Shape {
  const char *name;
  Asked asked;
  std::vector<Field> fields;
  std::vector<size_t> reserved;
  bool takes_pac = false;
};

std::vector<Shape> shapes() {
  const ByteString key = secret_name("key");
  const ByteString pac = pac_name("pac");
  const ByteString block(16, 3);
  const ByteString response(24, 4);
  const std::vector<Field> name_and_data{{0, 1, 1, 1}, {2, 2, 4, 2}};
  const std::vector<Field> aes_fields{{0, 1, 1, 1}, {2, 2, 4, 4}};
  const std::vector<Field> cbc_fields{{0, 1, 1, 1}, {2, 1, 4, 2}, {6, 2, 8, 4}};
  const std::vector<Field> hash_fields{{0, 1, 1, 1}, {2, 2, 4, 2}, {6, 2, 8, 2}};
  return {
      {"DES encrypt", des(KS_OP_DES_ENCRYPT, secret_name("key8"), block), name_and_data, {}},
      {"DES decrypt", des(KS_OP_DES_DECRYPT, secret_name("key8"), block), name_and_data, {}},
      {"3DES encrypt", des(KS_OP_3DES_ENCRYPT, key, block), name_and_data, {}},
      {"3DES decrypt", des(KS_OP_3DES_DECRYPT, key, block), name_and_data, {}},
      {"AES encrypt", aes(KS_OP_AES_ENCRYPT, key, block), aes_fields, {}},
      {"AES decrypt", aes(KS_OP_AES_DECRYPT, key, block), aes_fields, {}},
      {"CBC encrypt", aes_cbc(KS_OP_AES_CBC_ENCRYPT, key, block, block), cbc_fields, {3}},
      {"CBC decrypt", aes_cbc(KS_OP_AES_CBC_DECRYPT, key, block, block), cbc_fields, {3}},
      {"HMAC-MD5", hmac(KS_OP_HMAC_MD5, key, block), name_and_data, {}, true},
      {"HMAC-SHA1", hmac(KS_OP_HMAC_SHA1, key, block), name_and_data, {}, true},
      {"MD5", hash(KS_OP_MD5, key, block, block), hash_fields, {}},
      {"SHA-1", hash(KS_OP_SHA1, key, block, block), hash_fields, {}},
      {"NT response",
       nt_response(key, block, block, text("user")),
       {{2, 1, 3, 1}, {4, 1, 8, 4}, {12, 1, 16, 4}, {20, 1, 24, 4}},
       {5, 6, 7, 13, 14, 15, 21, 22, 23}},
      {"authenticator response",
       authenticator_response(key, response, block, block, text("user")),
       {{2, 1, 3, 1}, {4, 1, 8, 4}, {12, 1, 16, 4}, {20, 1, 24, 4}, {28, 1, 32, 4}},
       {5, 6, 7, 13, 14, 15, 21, 22, 23, 29, 30, 31}},
      {"new password", new_password(key, text("new")), {{0, 1, 1, 1}, {2, 1, 4, 4}}, {3}},
      {"old hash", old_hash(key, key), {{0, 1, 1, 1}, {2, 1, 4, 4}}, {3}},
      {"master key", master_key(key, response), {{0, 1, 1, 1}, {2, 1, 4, 2}}, {3}},
      {"store PAC", store_pac(pac, block, block), {{0, 1, 1, 1}, {4, 4, 8, 4}, {12, 4, 16, 4}}, {2, 3}, true},
      {"PAC exists", pac_exists(pac), {{0, 1, 1, 1}}, {}, true},
      {"T-PRF",
       t_prf(pac, text("label"), block, 40),
       {{2, 1, 3, 1}, {4, 2, 8, 4}, {12, 2, 16, 4}},
       {6, 7, 14, 15},
       true},
  };
}

struct Requests : testing::Test {
  Keystore keystore;

  Requests() {
    keystore.keep_secret("key", text("0123456789abcdef"));
    keystore.keep_secret("key8", text("01234567"));
    keystore.keep_pac("pac", text("0123456789abcdef"));
    keystore.keep_pac("key", text("0123456789abcdef"));
  }

  // with_name changes bytes of the name section, which is the first.
  static Asked with_name_byte(Asked asked, size_t at, uint8_t value) {
    asked.sections[at] = value;
    return asked;
  }
};

uint64_t field(const ByteString &descriptor, size_t at, size_t width) {
  uint64_t value = 0;
  for (size_t i = width; i-- > 0;) value = value << 8 | descriptor[at + i];
  return value;
}

void set_field(ByteString &descriptor, size_t at, size_t width, uint64_t value) {
  for (size_t i = 0; i < width; ++i) descriptor[at + i] = static_cast<uint8_t>(value >> 8 * i);
}

// is_within is the test's own idea of whether a section lies in the message behind the descriptor. Lengths of 0 and the
// special cases of single messages are left to their own tests.
bool is_within(const Asked &asked, const Field &pair) {
  const uint64_t length = field(asked.descriptor, pair.length_at, pair.length_width);
  const uint64_t offset = field(asked.descriptor, pair.offset_at, pair.offset_width);
  const uint64_t size = asked.descriptor.size() + asked.sections.size();
  return offset >= asked.descriptor.size() && offset + length <= size;
}

TEST_F(Requests, AreAnsweredWhenTheyAreWhole) {
  for (const Shape &shape : shapes()) EXPECT_EQ(shape.asked.of(keystore).result, KS_SUCCESS) << shape.name;
}

TEST_F(Requests, ReservedBytesMeanNothing) {
  for (const Shape &shape : shapes()) {
    if (shape.asked.opcode == KS_OP_NEW_PASSWORD_ENCRYPTED) continue;  // random by nature
    const Answer as_ever = shape.asked.of(keystore);
    for (const size_t at : shape.reserved) {
      for (const uint8_t value : std::initializer_list<uint8_t>{0, 1, 255}) {
        Asked asked = shape.asked;
        asked.descriptor[at] = value;
        EXPECT_EQ(asked.of(keystore), as_ever) << shape.name << ", byte " << at;
      }
    }
  }
}

TEST_F(Requests, AnOffsetOrLengthThatLeadsOutOfTheMessageIsRefused) {
  for (const Shape &shape : shapes()) {
    for (const Field &pair : shape.fields) {
      for (const auto &[at, width] :
           {std::pair(pair.length_at, pair.length_width), std::pair(pair.offset_at, pair.offset_width)}) {
        std::vector<uint64_t> values;
        for (uint64_t value = 0; value < 256; ++value) values.push_back(value);
        for (const uint64_t value : {uint64_t{256}, uint64_t{1024}, uint64_t{32767}, uint64_t{32768}, uint64_t{65520},
                                     uint64_t{65535}, uint64_t{65536}, uint64_t{0x7fffffff}, uint64_t{0x80000000},
                                     uint64_t{0xfffffff0}, uint64_t{0xffffffff}}) {
          if (width == 4 || (width == 2 && value <= 65535)) values.push_back(value);
        }
        for (const uint64_t value : values) {
          Asked asked = shape.asked;
          set_field(asked.descriptor, at, width, value);
          const Answer answer = asked.of(keystore);
          const bool told_256 = shape.asked.opcode == KS_OP_NEW_PASSWORD_ENCRYPTED && at == 2 && value == 0;
          const bool no_random = shape.asked.opcode == KS_OP_PAC_KEY_T_PRF && at == 12 && value == 0;
          if (!is_within(asked, pair) && !told_256 && !no_random) {
            ASSERT_EQ(answer, refusal(KS_INVALID_ARGS)) << shape.name << ", byte " << at << " is " << value;
          } else {
            // A name cut short may be another one, of a key of another size.
            ASSERT_THAT(answer.result, testing::AnyOf(KS_SUCCESS, KS_INVALID_ARGS, KS_NOT_FOUND, KS_BAD_KEY))
                << shape.name << ", byte " << at << " is " << value;
          }
        }
      }
    }
  }
}

TEST_F(Requests, CutShortAnywhereAreRefused) {
  for (const Shape &shape : shapes()) {
    for (size_t size = 0; size < shape.asked.sections.size(); ++size) {
      Asked asked = shape.asked;
      asked.sections.resize(size);
      ASSERT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS)) << shape.name << " of " << size;
    }
    for (size_t size = 0; size < shape.asked.descriptor.size(); ++size) {
      Asked asked = shape.asked;
      asked.descriptor.resize(size);
      ASSERT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS)) << shape.name << ", descriptor of " << size;
      asked.sections.clear();
      ASSERT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS)) << shape.name << ", nothing but a descriptor of " << size;
    }
    Asked asked = shape.asked;
    asked.descriptor.push_back(0);
    ASSERT_EQ(asked.of(keystore), refusal(KS_INVALID_ARGS)) << shape.name << ", descriptor too long";
  }
}

TEST_F(Requests, DamagedAnywhereNeverAnswerOutOfOrder) {
  for (const Shape &shape : shapes()) {
    for (size_t at = 0; at < shape.asked.descriptor.size(); ++at) {
      for (unsigned value = 0; value < 256; ++value) {
        Asked asked = shape.asked;
        asked.descriptor[at] = static_cast<uint8_t>(value);
        const Answer answer = asked.of(keystore);
        ASSERT_TRUE(answer.result == KS_SUCCESS || answer.size == 4) << shape.name;
      }
    }
  }
}

TEST_F(Requests, NamesOfAnotherVdcAreAnsweredLikeAbsentOnesAndCounted) {
  for (const Shape &shape : shapes()) {
    keystore.caller.vdc_id = kVdc + 1;
    const uint64_t counted = keystore.service.counters.total(Event::kForeignName);
    const Answer foreign = shape.asked.of(keystore);
    EXPECT_EQ(keystore.service.counters.total(Event::kForeignName), counted + 1) << shape.name;
    keystore.caller.vdc_id.reset();
    const Answer of_nobody = shape.asked.of(keystore);
    keystore.caller.vdc_id = kVdc;
    if (shape.asked.opcode == KS_OP_STORE_PAC) {
      EXPECT_EQ(foreign, refusal(KS_INVALID_ARGS));
      EXPECT_EQ(of_nobody, refusal(KS_INVALID_ARGS));
      continue;
    }
    const Answer absent = with_name_byte(shape.asked, 4, 'X').of(keystore);
    EXPECT_EQ(absent, refusal(KS_NOT_FOUND)) << shape.name;
    EXPECT_EQ(foreign, absent) << shape.name;
    EXPECT_EQ(of_nobody, absent) << shape.name;
  }
}

TEST_F(Requests, AdministratorsMayNameAnyVdc) {
  keystore.caller.vdc_id.reset();
  keystore.caller.administrator = true;
  for (const Shape &shape : shapes()) EXPECT_EQ(shape.asked.of(keystore).result, KS_SUCCESS) << shape.name;
}

TEST_F(Requests, APacsNameIsNoKeysExceptForHmac) {
  for (const Shape &shape : shapes()) {
    if (shape.takes_pac) continue;
    EXPECT_EQ(with_name_byte(shape.asked, 0, 0x31).of(keystore), refusal(KS_NOT_FOUND)) << shape.name;
  }
}

TEST_F(Requests, ASecretsNameIsNoPacs) {
  keystore.keep_secret("pac", text("a secret"));
  EXPECT_EQ(pac_exists(secret_name("pac")).of(keystore), refusal(KS_NOT_FOUND));
  EXPECT_EQ(t_prf(secret_name("pac"), text("l"), {}, 20).of(keystore), refusal(KS_NOT_FOUND));
  EXPECT_EQ(store_pac(secret_name("pac"), text("k"), text("m")).of(keystore), refusal(KS_INVALID_ARGS));
}

TEST_F(Requests, NamesOfUnknownTagsOrWithoutANameAreRefused) {
  for (const Shape &shape : shapes()) {
    EXPECT_EQ(with_name_byte(shape.asked, 0, 0x32).of(keystore), refusal(KS_INVALID_ARGS)) << shape.name;
    EXPECT_EQ(with_name_byte(shape.asked, 1, 1).of(keystore), refusal(KS_INVALID_ARGS)) << shape.name;
  }
  EXPECT_EQ(aes(KS_OP_AES_ENCRYPT, secret_name(""), {}).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(aes(KS_OP_AES_ENCRYPT, secret_name(std::string(32, 'n')), {}).of(keystore), refusal(KS_INVALID_ARGS));
  EXPECT_EQ(aes(KS_OP_AES_ENCRYPT, secret_name(std::string(31, 'n')), {}).of(keystore), refusal(KS_NOT_FOUND));
}

}  // namespace
}  // namespace ksd::handlers
