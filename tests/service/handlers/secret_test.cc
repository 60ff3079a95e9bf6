// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The messages about entries by name, byte by byte, and who may do what to whose entries.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "vault_files/vault_files.h"

namespace ksd::handlers {
namespace {

using testing::ElementsAre;
using vault::bytes_of;
using vault::metadata_in;
using vault::secret_in;
using vault::secret_name;

using Message = std::vector<uint8_t>;

// hex takes the bytes from a text like "06 02 30".
Message hex(const std::string &text) {
  Message bytes;
  std::istringstream words(text);
  for (std::string word; words >> word;) bytes.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
  return bytes;
}

std::string times(size_t count, const std::string &text) {
  std::string all;
  for (; count > 0; --count) all += text;
  return all;
}

const Message kSuccess = hex("01 00 00 00"), kInvalidArgs = hex("03 00 00 00"), kNotFound = hex("05 00 00 00"),
              kNoMoreEntries = hex("06 00 00 00");
const Message kCleared = hex("01 00 00 00 00 00"), kNotCleared = hex("05 00 00 00 00 00"),
              kClearRefused = hex("03 00 00 00 00 00");
const Message kExists = hex("01 00 00 00 01 00 01");

class Messages : public testing::Test {
 protected:
  Messages() {
    disk.skip_syncs();
    store().put(secret_name("mine"), secret_name("alias"), bytes_of("1"), bytes_of("meta"), 1000);
    store().put({KS_NAME_TAG_PAC, 7, std::string("p\0c", 3)}, std::nullopt, bytes_of("2"), bytes_of("pac"), 1000);
    store().put(secret_name("theirs", 8), secret_name("other", 8), bytes_of("3"), bytes_of("meta of 8"), 2000);
  }

  vault::Store &store() { return service.store(); }

  Message ask(const Caller &caller, uint32_t opcode, const std::string &descriptor, const std::string &sections = "") {
    Message message = hex(descriptor);
    const size_t descriptor_size = message.size();
    const Message rest = hex(sections);
    message.insert(message.end(), rest.begin(), rest.end());
    Reply reply;
    dispatcher.answer(service, {opcode, message, descriptor_size, caller}, reply);
    return {reply.payload().begin(), reply.payload().end()};
  }
  Message ask(uint32_t opcode, const std::string &descriptor, const std::string &sections = "") {
    return ask(own, opcode, descriptor, sections);
  }

  uint64_t refused_names() const { return service.counters.total(Event::kForeignName); }

  // all is the whole state of the table, to see that nothing changed.
  std::string all() {
    std::string text;
    for (size_t i = 0; i < store().count(); ++i) {
      const EntryName name = *store().at(static_cast<uint16_t>(i));
      text += name.name + ":" + std::to_string(name.vdc_id) + "=" + secret_in(store(), name) + "/" +
              metadata_in(store(), name) + " ";
    }
    return text;
  }

  vault::Disk disk;
  vault::Folder folder;
  Service service{folder.open(), {}};  // these messages compute nothing
  Dispatcher dispatcher;
  const Caller own{.uid = 1000, .pid = 1, .vdc_id = 7};
  const Caller other{.uid = 2000, .pid = 2, .vdc_id = 8};
  const Caller unmapped{.uid = 3000, .pid = 3, .vdc_id = std::nullopt};
  const Caller administrator{.uid = 0, .pid = 4, .vdc_id = std::nullopt, .administrator = true};
};

using StoreSecret = Messages;
using AddMetadata = Messages;
using ReturnMetadata = Messages;
using SecretExists = Messages;
using Clear = Messages;
using NameByIndex = Messages;
using Rename = Messages;

constexpr char kMine[] = "30 00 00 07 6d 69 6e 65 ", kAlias[] = "30 00 00 07 61 6c 69 61 73 ",
               kTheirs[] = "30 00 00 08 74 68 65 69 72 73 ", kAbsentTheirs[] = "30 00 00 08 61 62 73 65 6e 74 ",
               kNone[] = "30 00 00 07 6e 6f 6e 65 ", kPac[] = "31 00 00 07 70 00 63 ";

TEST_F(StoreSecret, MakesTheEntryWithAliasAndMetadata) {
  EXPECT_EQ(ask(KS_OP_STORE_SECRET, "06 0c 06 12 03 00 18 00 02 00 1b 00",
                "30 00 00 07 6b 31  30 00 00 07 6b 32  61 62 63  6d 64"),
            kSuccess);
  EXPECT_EQ(secret_in(store(), secret_name("k1")), "abc");
  EXPECT_EQ(secret_in(store(), secret_name("k2")), "abc");
  EXPECT_EQ(metadata_in(store(), secret_name("k1")), "md");
}

TEST_F(StoreSecret, TakesARequestWithoutAliasAndMetadata) {
  EXPECT_EQ(ask(KS_OP_STORE_SECRET, "06 0c 00 12 03 00 12 00 00 00 15 00", "30 00 00 07 6b 31  61 62 63"), kSuccess);
  EXPECT_EQ(secret_in(store(), secret_name("k1")), "abc");
  EXPECT_EQ(metadata_in(store(), secret_name("k1")), "");
}

TEST_F(StoreSecret, ReplacesAnEntryUnderItsNameOrAlias) {
  EXPECT_EQ(ask(KS_OP_STORE_SECRET, "09 0c 00 15 01 00 15 00 00 00 16 00", std::string(kAlias) + "78"), kSuccess);
  EXPECT_EQ(secret_in(store(), secret_name("mine")), "x");
  EXPECT_EQ(metadata_in(store(), secret_name("mine")), "");
  EXPECT_EQ(store().count(), 3u);
}

TEST_F(StoreSecret, RefusesNamesOfAnotherVdcAndCountsThem) {
  const std::string before = all();
  const auto store_as = [&](const Caller &caller, const char *name) {
    return ask(caller, KS_OP_STORE_SECRET, "0a 0c 00 16 01 00 16 00 00 00 17 00", std::string(name) + "78");
  };
  EXPECT_EQ(store_as(own, kTheirs), kInvalidArgs);
  EXPECT_EQ(store_as(own, kAbsentTheirs), kInvalidArgs);
  EXPECT_EQ(store_as(unmapped, kTheirs), kInvalidArgs);
  EXPECT_EQ(refused_names(), 3u);
  EXPECT_EQ(ask(KS_OP_STORE_SECRET, "08 0c 0a 14 01 00 1e 00 00 00 1f 00", std::string(kNone) + kAbsentTheirs + "78"),
            kInvalidArgs);
  EXPECT_EQ(refused_names(), 4u);
  EXPECT_EQ(all(), before);

  EXPECT_EQ(store_as(administrator, kTheirs), kSuccess);
  EXPECT_EQ(secret_in(store(), secret_name("theirs", 8)), "x");
  EXPECT_EQ(refused_names(), 4u);
}

// It would let the callers of one VDC at an entry of the other.
TEST_F(StoreSecret, RefusesEvenAnAdministratorAnAliasInAnotherVdc) {
  EXPECT_EQ(ask(administrator, KS_OP_STORE_SECRET, "08 0c 0a 14 01 00 1e 00 00 00 1f 00",
                std::string(kNone) + kAbsentTheirs + "78"),
            kInvalidArgs);
}

TEST_F(StoreSecret, RefusesWhatIsMalformed) {
  const std::string before = all();
  const std::string name = "30 00 00 07 6b 31 ";
  for (const auto &[descriptor, sections] : std::vector<std::pair<std::string, std::string>>{
           {"", ""},
           {"06 0c 00 12 03 00 12 00 00 00 15", name + "61 62 63"},                     // a short descriptor
           {"06 0c 00 12 00 00 12 00 00 00 12 00", name},                               // no secret
           {"06 0c 00 12 04 00 12 00 00 00 15 00", name + "61 62 63"},                  // a secret past the end
           {"06 0c 00 12 03 00 ff ff 00 00 15 00", name + "61 62 63"},                  // an offset past the end
           {"06 0c 00 12 ff ff ff ff 00 00 15 00", name + "61 62 63"},                  // whose sum overflows 16 bits
           {"06 0c 00 12 03 00 0b 00 00 00 15 00", name + "61 62 63"},                  // a secret in the descriptor
           {"06 0c 00 12 03 00 12 00 01 00 15 00", name + "61 62 63"},                  // metadata past the end
           {"06 0c 00 12 03 00 12 00 00 00 16 00", name + "61 62 63"},                  // empty metadata past the end
           {"06 0b 00 12 03 00 12 00 00 00 15 00", name + "61 62 63"},                  // a name in the descriptor
           {"04 0c 00 12 03 00 12 00 00 00 15 00", name + "61 62 63"},                  // an empty name
           {"24 0c 00 30 01 00 30 00 00 00 31 00", "30 00 00 07 " + times(33, "61 ")},  // a name of 32 bytes

           {"ff 0c 00 12 03 00 12 00 00 00 15 00", name + "61 62 63"},
           {"06 0c 01 12 03 00 12 00 00 00 15 00", name + "61 62 63"},             // an alias of one byte
           {"06 0c ff 12 03 00 12 00 00 00 15 00", name + "61 62 63"},             // an alias past the end
           {"06 0c 00 12 03 00 12 00 00 00 15 00", "31 00 00 07 6b 31 61 62 63"},  // a PAC's name
           {"06 0c 00 12 03 00 12 00 00 00 15 00", "32 00 00 07 6b 31 61 62 63"},  // an unknown tag
           {"06 0c 00 12 03 00 12 00 00 00 15 00", "30 01 00 07 6b 31 61 62 63"},  // a second byte that isn't zero
       }) {
    EXPECT_EQ(ask(KS_OP_STORE_SECRET, descriptor, sections), kInvalidArgs) << descriptor;
  }
  EXPECT_EQ(all(), before);
}

TEST_F(AddMetadata, ReplacesTheBlockByNameOrAlias) {
  EXPECT_EQ(ask(KS_OP_ADD_METADATA, "08 06 02 00 0e 00", std::string(kMine) + "6e 6f"), kSuccess);
  EXPECT_EQ(metadata_in(store(), secret_name("mine")), "no");
  EXPECT_EQ(ask(KS_OP_ADD_METADATA, "09 06 00 00 0f 00", kAlias), kSuccess);
  EXPECT_EQ(metadata_in(store(), secret_name("mine")), "");
}

TEST_F(AddMetadata, AnswersAnothersEntryLikeAnAbsentOne) {
  const std::string before = all();
  EXPECT_EQ(ask(KS_OP_ADD_METADATA, "08 06 01 00 0e 00", std::string(kNone) + "78"), kNotFound);
  EXPECT_EQ(refused_names(), 0u);
  EXPECT_EQ(ask(KS_OP_ADD_METADATA, "0a 06 01 00 10 00", std::string(kTheirs) + "78"), kNotFound);
  EXPECT_EQ(ask(KS_OP_ADD_METADATA, "0a 06 01 00 10 00", std::string(kAbsentTheirs) + "78"), kNotFound);
  EXPECT_EQ(refused_names(), 2u);
  EXPECT_EQ(all(), before);
  EXPECT_EQ(ask(administrator, KS_OP_ADD_METADATA, "0a 06 01 00 10 00", std::string(kTheirs) + "78"), kSuccess);
}

TEST_F(AddMetadata, RefusesWhatIsMalformed) {
  for (const char *descriptor : {"08 06 03 00 0e 00", "08 06 02 00 0f 00", "08 06 ff ff ff ff", "08 06 02 00 05 00",
                                 "08 05 02 00 0e 00", "00 06 02 00 0e 00", "08 06 02 00 0e", "08 06"}) {
    EXPECT_EQ(ask(KS_OP_ADD_METADATA, descriptor, std::string(kMine) + "6e 6f"), kInvalidArgs) << descriptor;
  }
  EXPECT_EQ(ask(KS_OP_ADD_METADATA, "07 06 00 00 0d 00", kPac), kInvalidArgs);
}

TEST_F(ReturnMetadata, GivesTheBlockOfASecretItsAliasOrAPac) {
  EXPECT_EQ(ask(KS_OP_RETURN_METADATA, "08 02", kMine), hex("01 00 00 00 04 00 6d 65 74 61"));
  EXPECT_EQ(ask(KS_OP_RETURN_METADATA, "09 02", kAlias), hex("01 00 00 00 04 00 6d 65 74 61"));
  EXPECT_EQ(ask(KS_OP_RETURN_METADATA, "07 02", kPac), hex("01 00 00 00 03 00 70 61 63"));
  store().set_metadata(secret_name("mine"), {});
  EXPECT_EQ(ask(KS_OP_RETURN_METADATA, "08 02", kMine), hex("01 00 00 00 00 00"));
}

TEST_F(ReturnMetadata, AnswersAnothersEntryLikeAnAbsentOne) {
  EXPECT_EQ(ask(KS_OP_RETURN_METADATA, "08 02", kNone), kNotFound);
  EXPECT_EQ(ask(KS_OP_RETURN_METADATA, "0a 02", kTheirs), kNotFound);
  EXPECT_EQ(ask(unmapped, KS_OP_RETURN_METADATA, "08 02", kMine), kNotFound);
  EXPECT_EQ(refused_names(), 2u);
  EXPECT_EQ(ask(administrator, KS_OP_RETURN_METADATA, "08 02", kMine), hex("01 00 00 00 04 00 6d 65 74 61"));
}

TEST_F(SecretExists, FlagsASecretAndItsAlias) {
  EXPECT_EQ(ask(KS_OP_SECRET_EXISTS, "08 02", kMine), kExists);
  EXPECT_EQ(ask(KS_OP_SECRET_EXISTS, "09 02", kAlias), kExists);
  EXPECT_EQ(ask(KS_OP_SECRET_EXISTS, "08 02", kNone), kNotFound);
  EXPECT_EQ(ask(KS_OP_SECRET_EXISTS, "0a 02", kTheirs), kNotFound);
  EXPECT_EQ(ask(other, KS_OP_SECRET_EXISTS, "0a 02", kTheirs), kExists);
  EXPECT_EQ(ask(administrator, KS_OP_SECRET_EXISTS, "0a 02", kTheirs), kExists);
  EXPECT_EQ(refused_names(), 1u);
}

TEST_F(Clear, TakesSecretsAndPacsOutByNameOrAlias) {
  EXPECT_EQ(ask(KS_OP_CLEAR, "09 02", kAlias), kCleared);
  EXPECT_EQ(ask(KS_OP_CLEAR, "08 02", kMine), kNotCleared);
  EXPECT_EQ(ask(KS_OP_CLEAR, "07 02", "30 00 00 07 70 00 63"), kNotCleared) << "the tag is part of the name";
  EXPECT_EQ(ask(KS_OP_CLEAR, "07 02", kPac), kCleared);
  EXPECT_EQ(store().count(), 1u);
}

TEST_F(Clear, AnswersAnothersEntryLikeAnAbsentOne) {
  const std::string before = all();
  EXPECT_EQ(ask(KS_OP_CLEAR, "08 02", kNone), kNotCleared);
  EXPECT_EQ(ask(KS_OP_CLEAR, "0a 02", kTheirs), kNotCleared);
  EXPECT_EQ(ask(KS_OP_CLEAR, "0a 02", kAbsentTheirs), kNotCleared);
  EXPECT_EQ(ask(unmapped, KS_OP_CLEAR, "08 02", kMine), kNotCleared);
  EXPECT_EQ(refused_names(), 3u);
  EXPECT_EQ(all(), before);
  EXPECT_EQ(ask(administrator, KS_OP_CLEAR, "0a 02", kTheirs), kCleared);
}

TEST_F(Clear, RefusesWhatIsMalformed) {
  for (const char *descriptor : {"", "08", "08 02 00", "08 01", "09 02", "ff ff", "04 02", "00 00"}) {
    EXPECT_EQ(ask(KS_OP_CLEAR, descriptor, kMine), kClearRefused) << descriptor;
    EXPECT_EQ(ask(KS_OP_RETURN_METADATA, descriptor, kMine), kInvalidArgs) << descriptor;
    EXPECT_EQ(ask(KS_OP_SECRET_EXISTS, descriptor, kMine), kInvalidArgs) << descriptor;
  }
  EXPECT_EQ(ask(KS_OP_SECRET_EXISTS, "07 02", kPac), kInvalidArgs);
}

TEST_F(NameByIndex, ShowsOwnNamesAndOnlyThePlaceOfOthers) {
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "00 00"), hex("01 00 00 00 08 00 30 00 00 07 6d 69 6e 65"));
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "01 00"), hex("01 00 00 00 07 00 31 00 00 07 70 00 63"));
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "02 00"), hex("01 00 00 00 04 00 00 00 ff ff"));
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "03 00"), kNoMoreEntries);
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "ff ff"), kNoMoreEntries);

  EXPECT_EQ(ask(other, KS_OP_HANDLE_BY_INDEX, "00 00"), hex("01 00 00 00 04 00 00 00 ff ff"));
  EXPECT_EQ(ask(unmapped, KS_OP_HANDLE_BY_INDEX, "02 00"), hex("01 00 00 00 04 00 00 00 ff ff"));
  EXPECT_EQ(ask(administrator, KS_OP_HANDLE_BY_INDEX, "02 00"), hex("01 00 00 00 0a 00 30 00 00 08 74 68 65 69 72 73"));
  EXPECT_EQ(refused_names(), 0u) << "a walk names nobody";
}

TEST_F(NameByIndex, RefusesAnotherDescriptor) {
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, ""), kInvalidArgs);
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "00"), kInvalidArgs);
  EXPECT_EQ(ask(KS_OP_HANDLE_BY_INDEX, "00 00 00"), kInvalidArgs);
}

TEST_F(Rename, KeepsSecretMetadataAndPosition) {
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 08 0e 00 00", std::string(kMine) + kNone), kSuccess);
  EXPECT_EQ(store().at(0)->name, "none");
  EXPECT_EQ(secret_in(store(), secret_name("none")), "1");
  EXPECT_EQ(metadata_in(store(), secret_name("none")), "meta");
  EXPECT_FALSE(store().exists(secret_name("mine")));
}

TEST_F(Rename, IgnoresTheOneByteOfAThirdName) {
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 08 0e 01 16", std::string(kMine) + kNone + "30"), kSuccess);
  EXPECT_EQ(secret_in(store(), secret_name("none")), "1");
  EXPECT_EQ(secret_in(store(), secret_name("alias")), "1") << "nor does it take the alias away";
}

// A client that ran out of memory sends a descriptor that it never wrote, and empty sections.
TEST_F(Rename, RefusesAnUnwrittenDescriptor) {
  const std::string before = all();
  for (const char *descriptor :
       {"00 00 00 00 00 00", "ff ff ff ff ff ff", "08 06 08 06 00 00", "00 06 00 06 00 06", "05 01 05 01 00 00"}) {
    EXPECT_EQ(ask(KS_OP_RENAME, descriptor), kInvalidArgs) << descriptor;
  }
  for (const char *descriptor : {"", "08 06 08 0e 00", "08 06 09 0e 00 00", "08 06 08 0f 00 00", "08 05 08 0e 00 00",
                                 "08 06 08 0e 01 17", "08 06 08 0e ff 16", "08 06 08 0e 01 05"}) {
    EXPECT_EQ(ask(KS_OP_RENAME, descriptor, std::string(kMine) + kNone), kInvalidArgs) << descriptor;
  }
  EXPECT_EQ(all(), before);
}

TEST_F(Rename, RefusesATakenNameAndChangesNothing) {
  store().put(secret_name("none"), std::nullopt, bytes_of("x"), {}, 1000);
  const std::string before = all();
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 08 0e 00 00", std::string(kMine) + kNone), kInvalidArgs);
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 09 0e 00 00", std::string(kNone) + kAlias), kInvalidArgs);
  EXPECT_EQ(all(), before);
}

TEST_F(Rename, RefusesANewNameOfAnotherVdcAndDoesntFindAnOldOne) {
  const std::string before = all();
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 0a 0e 00 00", std::string(kMine) + kAbsentTheirs), kInvalidArgs);
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 0a 0e 00 00", std::string(kMine) + kTheirs), kInvalidArgs);
  EXPECT_EQ(ask(KS_OP_RENAME, "0a 06 08 10 00 00", std::string(kTheirs) + kNone), kNotFound);
  EXPECT_EQ(ask(KS_OP_RENAME, "0a 06 08 10 00 00", std::string(kAbsentTheirs) + kNone), kNotFound);
  EXPECT_EQ(refused_names(), 4u);
  EXPECT_EQ(ask(KS_OP_RENAME, "08 06 08 0e 00 00", std::string(kNone) + kMine), kNotFound);
  EXPECT_EQ(refused_names(), 4u);
  EXPECT_EQ(ask(administrator, KS_OP_RENAME, "0a 06 08 10 00 00", std::string(kTheirs) + kNone), kInvalidArgs)
      << "entries don't change their VDC";
  EXPECT_EQ(all(), before);
  EXPECT_EQ(ask(administrator, KS_OP_RENAME, "0a 06 0a 10 00 00", std::string(kTheirs) + kAbsentTheirs), kSuccess);
  EXPECT_EQ(secret_in(store(), secret_name("absent", 8)), "3");
}

}  // namespace
}  // namespace ksd::handlers
