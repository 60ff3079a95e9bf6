// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// event.h: what the service may have to tell of that somebody should act on. Each has an id of its own, by which the
// journal finds all lines of its kind (`journalctl MESSAGE_ID=...`) and the text that explains it (`journalctl -x`):
// service/systemd/ksd.catalog has an entry for each. An id never changes its meaning.
#ifndef SERVICE_BASE_EVENT_H
#define SERVICE_BASE_EVENT_H

#include <spdlog/common.h>

namespace ksd {

struct LogEvent {
  const char *id;
  spdlog::level::level_enum level;
};

namespace event {
inline constexpr LogEvent kConfigRefused{"eef284f3facd485abfc90e2aa7cb5fb0", spdlog::level::err};
inline constexpr LogEvent kReloadRefused{"2138ae5dd94f4f2c90a0d1233abafd4f", spdlog::level::err};
inline constexpr LogEvent kNeedsRestart{"833e0df7a38e413792fcda4d131d555b", spdlog::level::warn};
inline constexpr LogEvent kStartFailed{"61ba061d11624febb79aa677e7ba9eea", spdlog::level::critical};
inline constexpr LogEvent kAlgorithmFailed{"dbaeb01d58c14cf89632cd192c9a025a", spdlog::level::critical};
inline constexpr LogEvent kDiskFull{"4abaff6592be40ecad396480b407b083", spdlog::level::err};
inline constexpr LogEvent kChangesRefused{"b2cf2d47b454441787ec888eb884186b", spdlog::level::err};
inline constexpr LogEvent kWitnessNotWritten{"46a76d02febb4736ab1d088a86e86698", spdlog::level::err};
inline constexpr LogEvent kWitnessMadeAnew{"86a184c4f1064ea599ca2a14070547d7", spdlog::level::warn};
inline constexpr LogEvent kLossAccepted{"7a1dca1a90084047a94dd2c28c34e8aa", spdlog::level::warn};
inline constexpr LogEvent kRoomRunsOut{"bc44da97e3334545a32825abbde5ee0b", spdlog::level::warn};
inline constexpr LogEvent kVaultWasOpen{"b5d23c14f411448d911a581eb18a17c2", spdlog::level::warn};
inline constexpr LogEvent kLogNotWrittenBack{"e9ef2d91142d43a89e534ba2be4986d4", spdlog::level::err};
inline constexpr LogEvent kKeyNotChanged{"c55e0f2fe48b4e0f835839ba5d95e67e", spdlog::level::err};
inline constexpr LogEvent kMemoryNotLocked{"b0fffb2c0d9b40038dc14d92b850915c", spdlog::level::warn};
inline constexpr LogEvent kRepliesNotTaken{"a912216022674511bc2171ece806db3b", spdlog::level::warn};
inline constexpr LogEvent kSandboxIncomplete{"6942305404604f44a101c7a6116b920c", spdlog::level::info};
inline constexpr LogEvent kFleetStopped{"96172f8a10776482ef8d2791338996a7", spdlog::level::err};
inline constexpr LogEvent kFleetRestored{"4d65740fb0d64ae88c627db8136d30f3", spdlog::level::warn};
inline constexpr LogEvent kFleetTroubled{"0c09bdd70aa68bdd5639c1660e13d9f5", spdlog::level::warn};
inline constexpr LogEvent kEntriesTooOld{"edc29d02bc8a1b4172dca6eff1100dc6", spdlog::level::err};
inline constexpr LogEvent kMirrorNotWritten{"74b0a1ac994a461103a4dd4f82a8d908", spdlog::level::err};
// About clients, of which each user has a line a minute; the journal's field KSD_CLIENT_UID names the user.
inline constexpr LogEvent kConnectionRefused{"6777e7f87d5044f690e49eed3804569a", spdlog::level::warn};
inline constexpr LogEvent kNearLimit{"507f3ad413ef454c9baa54cb35bab182", spdlog::level::warn};
inline constexpr LogEvent kForeignName{"2ef025c730b2416889e74cb6106cdb46", spdlog::level::warn};
inline constexpr LogEvent kUnmapped{"d111f972e474487eafb9a14fe84d0d83", spdlog::level::warn};
inline constexpr LogEvent kStoreRefused{"402132210c5a4fe29699a94eb57e5d62", spdlog::level::warn};
inline constexpr LogEvent kAdministrationFailed{"b5f920341ec347089b15594208c41397", spdlog::level::warn};
inline constexpr LogEvent kBackupEnded{"9befcc8c528f4d35a1ce9960a74b9cad", spdlog::level::warn};
inline constexpr LogEvent kCantAccept{"7ff3f797684c4068887972b573c00037", spdlog::level::warn};
inline constexpr LogEvent kNoMemory{"fa6c0d3e8b114ef5af29e71294f11ecc", spdlog::level::warn};
inline constexpr LogEvent kClientMisbehaved{"2c01d4dd109442f6ad1c7443b3da317a", spdlog::level::warn};
}  // namespace event

}  // namespace ksd

#endif
