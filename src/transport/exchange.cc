// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

#include "transport/exchange.h"

#include "transport/trace.h"

namespace ks {

namespace {

struct FailureTexts {
  const char *send;
  const char *recv;  // null: a failed receive is silent
};

// In the order of Wording.
constexpr FailureTexts kFailureTexts[] = {
    {"mts_send failed : %d\n", "mts_recv failed : %d\n"},
    {"mts_send failed. Error:%d\n", "mts_recv failed. Error:%d\n"},
    {"mts_send failed.Error:%d \n", "mts_recv failed. Error:%d \n"},
    {"mts_send failed. Errno :%d \n", "mts_recv failed. Errno :%d \n"},
    // DIFFERS(store-secret-silent-receive): every other operation reports a failed receive. Levelled, a store's would
    // show in the history and the debug output, with a call of mts_errno_get for each.
    {"mts_send failed :%d \n", nullptr},
    {"mts_send failed. Error :%d \n", "mts_recv failed. Error :%d \n"},
    {"mts_send failed Error :%d \n", "mts_recv failed Error :%d \n"},
};

const FailureTexts &texts_of(const MessageValues &message) {
  return kFailureTexts[static_cast<size_t>(message.wording)];
}

}  // namespace

KsResult AnyExchange::run(const void *descriptor, uint16_t descriptor_size, const SectionList *list) {
  KsSendOptions options = {};
  options.select = 1;
  if (list != nullptr) {
    options.sections = list->data();
    options.section_count = list->count();
  }
  const uint32_t sent = mts_send(ks_mts_q, KS_SERVICE_NODE, KS_SERVICE_SAP, message_.op, descriptor, descriptor_size,
                                 &sent_message_, 0, list != nullptr ? &options : nullptr);
  static_cast<void>(sdwrap_hist_mts_event(SDWRAP_MTS_SENT, &sent_message_, sent, 0));
  if (sent == MTS_FAILED) {
    KS_TRACE(KS_SUBTYPE_NORMAL, texts_of(message_).send, mts_errno_get(ks_mts_q));
    return message_.send_failure;
  }
  sent_ = sent_live_ = true;

  KsRecvOptions recv_options = {};
  recv_options.select = 1;
  recv_options.token = mts_rr_token_get(&sent_message_);
  const uint32_t received = mts_recv(ks_mts_q, &received_message_, &recv_options);
  static_cast<void>(sdwrap_hist_mts_event(SDWRAP_MTS_RECEIVED, &received_message_, received, 0));
  if (received == MTS_FAILED) {
    if (const char *text = texts_of(message_).recv; text != nullptr) {
      KS_TRACE(KS_SUBTYPE_NORMAL, text, mts_errno_get(ks_mts_q));
    }
    if (!message_.drops_after_release) drop();
    return message_.recv_failure;
  }
  received_live_ = true;

  payload_ = static_cast<const uint8_t *>(mts_payload_get(&received_message_));
  if (message_.asks_size) size_ = low16(mts_payload_size(&received_message_));
  return KS_SUCCESS;
}

void AnyExchange::drop() {
  if (sent_live_) mts_drop(ks_mts_q, &sent_message_);
  if (received_live_) mts_drop(ks_mts_q, &received_message_);
  sent_live_ = received_live_ = false;
}

}  // namespace ks
