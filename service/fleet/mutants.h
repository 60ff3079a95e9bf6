// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// mutants.h: faults that the simulator puts into the protocol, to see that its checker finds them. Only the simulator's
// own copy of this room has them; everywhere else they are nothing.
#ifndef SERVICE_FLEET_MUTANTS_H
#define SERVICE_FLEET_MUTANTS_H

namespace ksd::fleet {

enum class Mutant {
  kNone,
  kNoCompare,             // a commit lets the engine put it whatever the header is
  kSuccessWhenUnknown,    // a change whose outcome isn't known is answered with success
  kDishonestAge,          // the age counts from the answer to a read, not from its sending
  kAgeOfUnreached,        // a header that memory hasn't reached makes it young
  kApplyBeforeTheAnswer,  // a change is applied and answered when it is sent
  kAnswerBeforeApplying,  // a change is answered before reads see it
  kRefuseUnconfirmed,     // "no such entry" is answered by memory alone
  kRetryAfterUnknown,     // a change whose outcome isn't known is decided again at the next header
  kDigestUnchecked,       // rows are taken without a look at the digest
  kRollBackAccepted,      // an older header is taken for a good one
  kTamperingForgotten,    // after a finding, it goes on
  kLateAnswer,            // nothing watches the time that a change may take
  kRefusedWritten,        // a change that was given up is sent all the same
  kSelfish,               // nobody pauses for a machine that waits
  kNeverCounts,           // rows are looked at when they are loaded or change, and not again
  kMixesFolders,          // rows of a restore that isn't the header's are taken for the table's
  kRestoreUnasked,        // a restored fleet is followed by who wasn't told of it
  kRestoreUnguarded,      // a restore goes on when another one has begun
  kMovesTooEarly,         // rows are sealed under the next key before all machines hold it
  kKeyNotKept,            // a machine says that it holds the next key, which is nowhere but in memory
  kOutIgnored,            // a machine that was taken out goes on
};

#ifdef KSD_FLEET_MUTANTS
extern thread_local Mutant mutant_in_force;
inline bool is(Mutant mutant) {
  return mutant_in_force == mutant;
}
#else
constexpr bool is(Mutant /*mutant*/) {
  return false;
}
#endif

}  // namespace ksd::fleet

#endif
