// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The ageing's own walk, held to a model over all small inputs, and over random ones.
#include "pac_fixture.h"

namespace {

using pac::Bytes;
using pac::bytes;
using pac::operator+;
using scripted::bytes_of;

class StillValid : public pac::Test {
 protected:
  uint32_t valid(const Bytes &meta, const char *i_id = "bob") {
    scripted::Guarded guarded(meta);
    return ks_sw_pac_still_valid(guarded.data(), static_cast<uint16_t>(meta.size()), i_id);
  }
};

// info puts inner TLVs into an info.
Bytes info(const std::string &inner) {
  const Bytes value = bytes(inner);
  return Bytes{0, 9, 0, static_cast<uint8_t>(value.size())} + value;
}

const std::string kBob = "00 05 00 03 62 6f 62";
const std::string kAhead = "00 03 00 04 00 00 00 7f";   // reads 0x7f000000 as it stands
const std::string kPassed = "00 03 00 04 7f 00 00 00";  // reads 0x7f as it stands

TEST_F(StillValid, WantsTheIdentityAndNoLifetimeThatHasPassed) {
  EXPECT_EQ(valid(info(kBob + kAhead)), 1u);
  EXPECT_EQ(valid(info(kAhead + kBob)), 1u);
  EXPECT_EQ(valid(info(kBob + kPassed)), 0u);
  EXPECT_EQ(valid(info(kPassed + kBob)), 0u);
  EXPECT_EQ(valid(info(kBob)), 1u) << "without a lifetime a PAC never ages";
  EXPECT_EQ(valid(info(kAhead)), 0u);
  EXPECT_EQ(valid(info("")), 0u);
  EXPECT_EQ(valid(info("00 05 00 03 61 6c 66" + kBob)), 0u) << "another identity ends the walk";
}

// DIFFERS(still-valid-lifetime)
TEST_F(StillValid, ComparesTheLifetimeAsItStandsInMemorySigned) {
  const auto at = [this](int64_t now, const std::string &lifetime) {
    clock.now = now;
    return valid(info(kBob + "00 03 00 04 " + lifetime));
  };
  EXPECT_EQ(at(0x04030201, "01 02 03 04"), 1u) << "up to the very second";
  EXPECT_EQ(at(0x04030202, "01 02 03 04"), 0u);
  EXPECT_EQ(at(0x01020305, "01 02 03 04"), 1u) << "big-endian it has passed";
  EXPECT_EQ(at(1, "00 00 00 80"), 0u) << "a negative number has passed";
  EXPECT_EQ(at(0, "00 00 00 00"), 1u);
  EXPECT_EQ(at(0x180000000, "00 00 00 00"), 1u) << "of the time 32 bits count, signed";
}

TEST_F(StillValid, ComparesTheIdentityUpToItsEndOrANul) {
  EXPECT_EQ(valid(info("00 05 00 03 62 6f 62")), 1u);
  EXPECT_EQ(valid(info("00 05 00 04 62 6f 62 00")), 1u);
  EXPECT_EQ(valid(info("00 05 00 06 62 6f 62 00 ff 61")), 1u);
  EXPECT_EQ(valid(info("00 05 00 04 62 6f 62 62")), 0u);
  EXPECT_EQ(valid(info("00 05 00 02 62 6f")), 0u);
  EXPECT_EQ(valid(info("00 05 00 03 62 6f 63")), 0u);
  EXPECT_EQ(valid(info("00 05 00 03 62 6f 00")), 0u);
}

TEST_F(StillValid, TakesAnEmptyIdentityForAnEmptyValueAndForOneThatBeginsWithANul) {
  EXPECT_EQ(valid(info("00 05 00 00"), ""), 1u);
  EXPECT_EQ(valid(info("00 05 00 02 00 61"), ""), 1u);
  EXPECT_EQ(valid(info("00 05 00 02 61 00"), ""), 0u);
}

TEST_F(StillValid, IgnoresTheMandatoryBitInside) {
  EXPECT_EQ(valid(info("80 05 00 03 62 6f 62 80 03 00 04 00 00 00 7f")), 1u);
  EXPECT_EQ(valid(info("80 05 00 03 62 6f 62 80 03 00 04 7f 00 00 00")), 0u);
}

TEST_F(StillValid, SkipsALifetimeOfAnotherLength) {
  EXPECT_EQ(valid(info("00 03 00 08 00 00 00 00 00 00 00 00" + kBob)), 1u);
}

TEST_F(StillValid, KeepsAPassedLifetimeInMind) {
  EXPECT_EQ(valid(info(kPassed + kAhead + kBob)), 0u);
  EXPECT_EQ(valid(info(kAhead + kPassed + kBob)), 0u);
  EXPECT_EQ(valid(info(kAhead + kBob + kPassed)), 1u) << "the walk has ended before the second lifetime";
}

// DIFFERS(still-valid-walk)
TEST_F(StillValid, StopsAtTheFirstInfoAndTakesAnyOtherTlvInItsStride) {
  const Bytes good = info(kBob);
  EXPECT_EQ(valid(bytes("00 02 00 01 6f") + good), 1u);
  EXPECT_EQ(valid(bytes("00 04 00 01 6f 80 09 00 00 00 02 00 00 00 02 00 00") + good), 1u);
  EXPECT_EQ(valid(good + bytes("00 09 ff ff 00")), 1u) << "what follows the first info isn't looked at";
  EXPECT_EQ(valid(bytes("00 09 00 00") + good), 0u);
  EXPECT_EQ(valid(bytes("00 02 00 01 6f")), 0u);
}

TEST_F(StillValid, RefusesDamage) {
  EXPECT_EQ(ks_sw_pac_still_valid(nullptr, 5, "bob"), 0u);
  EXPECT_EQ(valid({}), 0u);
  for (size_t cut = 0; cut < 11; ++cut) {
    Bytes meta = info(kBob);
    meta.resize(cut);
    EXPECT_EQ(valid(meta), 0u) << cut;
  }
  EXPECT_EQ(valid(info(kBob + "00")), 0u) << "an inner header that is cut off";
  EXPECT_EQ(valid(info(kBob + "00 05 00 01")), 0u);
  EXPECT_EQ(valid(info("00 05 ff ff 62")), 0u);
  EXPECT_EQ(valid(bytes("00 02 ff fc 00 09")), 0u);
}

TEST_F(StillValid, FaultsOnANullIdentityAtTheFirstIdentityOnly) {
  EXPECT_EQ(valid(info(kAhead), nullptr), 0u);
  EXPECT_FAULT(valid(info(kBob), nullptr));
}

TEST_F(StillValid, ReportsNothing) {
  EXPECT_EQ(valid(info(kBob)), 1u);
  EXPECT_TRUE(scripted::platform().log.empty());
}

// Model is the walk in the words of its rules: offsets into a string, unbounded numbers, and marks.
bool modelled(const Bytes &meta, const std::string &i_id, int64_t now) {
  const auto number = [&meta](size_t at) { return meta[at] * size_t{256} + meta[at + 1]; };
  size_t at = 0, end = 0;
  while (true) {
    if (meta.size() - at < 4 || number(at + 2) + 4 > meta.size() - at) return false;
    if (number(at) == 9) break;
    at += number(at + 2) + 4;
  }
  end = at + 4 + number(at + 2);
  at += 4;
  bool lifetime = false, expired = false, identity = false;
  while (at < end) {
    if (end - at < 4 || number(at + 2) + 4 > end - at) return false;
    const size_t type = number(at) % 0x8000, length = number(at + 2);
    const Bytes value(meta.begin() + static_cast<long>(at) + 4, meta.begin() + static_cast<long>(at + 4 + length));
    if (type == 3 && length == 4) {
      int64_t expiry = value[0] + value[1] * 0x100LL + value[2] * 0x10000LL + value[3] * 0x1000000LL;
      if (expiry >= 0x80000000LL) expiry -= 0x100000000LL;
      lifetime = true;
      expired = expired || now > expiry;
    }
    if (type == 5) {
      const std::string text(value.begin(), value.end());
      const bool same = text == i_id || (text.size() > i_id.size() && text.compare(0, i_id.size(), i_id) == 0 &&
                                         text[i_id.size()] == '\0');
      if (!same) return false;
      identity = true;
    }
    if (lifetime && identity) break;
    at += 4 + length;
  }
  return identity && !expired;
}

TEST_F(StillValid, AgreesWithTheModelOnAllSmallInputs) {
  // What stands in front gives the small strings something to matter to: nothing, an info that holds them, and an info
  // whose lifetime and identity they follow.
  const std::vector<Bytes> fronts = {
      {}, bytes("00 09 00 08"), bytes("00 02 00 01 09 00 09 00 10 00 03 00 04 00 00 00 7f")};
  const Bytes alphabet = {0x00, 0x03, 0x05, 0x09, 0xff};
  clock.now = 0x03030303;
  int kept = 0;
  scripted::Guarded page{Bytes(64)};
  for (const Bytes &front : fronts) {
    for (size_t size = 0; size <= 8; ++size) {
      std::vector<size_t> digits(size, 0);
      Bytes meta = front + Bytes(size, alphabet[0]);
      if (!front.empty()) {  // the info ends with the string
        const size_t info_at = front.size() == 4 ? 0 : 5;
        meta[info_at + 3] = static_cast<uint8_t>(meta.size() - info_at - 4);
      }
      for (bool more = true; more;) {
        uint8_t *at = page.data() + page.size() - meta.size();
        if (!meta.empty()) std::memcpy(at, meta.data(), meta.size());
        const uint32_t told = ks_sw_pac_still_valid(at, static_cast<uint16_t>(meta.size()), "");
        ASSERT_EQ(told, modelled(meta, "", clock.now) ? 1u : 0u) << testing::PrintToString(meta);
        kept += told == 1;
        more = false;
        for (size_t i = 0; i < size && !more; ++i) {
          digits[i] = (digits[i] + 1) % alphabet.size();
          meta[front.size() + i] = alphabet[digits[i]];
          more = digits[i] != 0;
        }
      }
    }
  }
  EXPECT_GT(kept, 100);
}

TEST_F(StillValid, AgreesWithTheModelOnRandomInputs) {
  uint32_t seed = 7170;
  const auto random = [&seed](uint32_t below) { return (seed = seed * 1664525 + 1013904223) / 65536 % below; };
  const std::vector<Bytes> values = {bytes_of("bob"),
                                     bytes("62 6f 62 00"),
                                     bytes("62 6f 62 00 ff"),
                                     bytes_of("bobo"),
                                     bytes_of("bo"),
                                     bytes_of("alf"),
                                     {}};
  scripted::Guarded page{Bytes(4096)};
  int kept = 0;
  for (int round = 0; round < 60'000; ++round) {
    Bytes value;
    for (uint32_t inner = random(5); inner > 0; --inner) {
      const uint32_t type = random(8) == 0 ? random(16) : (random(2) == 0 ? 3 : 5);
      Bytes content = values[random(4) == 0 ? random(7) : random(3)];
      if (type == 3) {
        const auto high = static_cast<uint8_t>(random(3) == 0 ? random(256) : 0x7e);
        content = Bytes{static_cast<uint8_t>(random(256)), 0, 0, high};
        if (random(10) == 0) content.resize(random(10));
      }
      const size_t declared = random(30) == 0 ? random(0x10000) : content.size();
      value = value +
              Bytes{static_cast<uint8_t>(random(3) == 0 ? 0x80 : 0), static_cast<uint8_t>(type),
                    static_cast<uint8_t>(declared >> 8), static_cast<uint8_t>(declared)} +
              content;
    }
    Bytes meta;
    if (random(2) == 0) meta = meta + bytes("00 02 00 01 77");
    const size_t declared = random(30) == 0 ? random(0x10000) : value.size();
    meta = meta + Bytes{0, 9, static_cast<uint8_t>(declared >> 8), static_cast<uint8_t>(declared)} + value;
    if (random(10) == 0) meta.resize(random(static_cast<uint32_t>(meta.size()) + 1));

    clock.now = random(2) == 0 ? 0x7e000080 : 0x10000000;
    uint8_t *at = page.data() + page.size() - meta.size();
    if (!meta.empty()) std::memcpy(at, meta.data(), meta.size());
    const uint32_t told = ks_sw_pac_still_valid(at, static_cast<uint16_t>(meta.size()), "bob");
    ASSERT_EQ(told, modelled(meta, "bob", clock.now) ? 1u : 0u) << testing::PrintToString(meta);
    kept += told == 1;
  }
  EXPECT_GT(kept, 3'000);
}

}  // namespace
