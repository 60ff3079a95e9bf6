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
    // DIFFERS(store-secret-silent-receive): a store is the one operation that keeps a failed receive to itself.
    {"mts_send failed :%d \n", nullptr},
    {"mts_send failed. Error :%d \n", "mts_recv failed. Error :%d \n"},
    {"mts_send failed Error :%d \n", "mts_recv failed Error :%d \n"},
};

const FailureTexts &texts_of(const Message &message) {
  return kFailureTexts[static_cast<size_t>(message.wording)];
}

}  // namespace

KsResult Exchange::run(const void *descriptor, const SectionList &list) {
  KsSendOptions options = {};
  options.select = 1;
  options.sections = list.data();
  options.section_count = list.count();
  return run(descriptor, &options);
}

KsResult Exchange::run(const void *descriptor, const KsSendOptions *options) {
  const uint32_t sent = mts_send(ks_mts_q, KS_SERVICE_NODE, KS_SERVICE_SAP, message_.op, descriptor,
                                 message_.descriptor_size, &sent_message_, 0, options);
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

void Exchange::drop() {
  if (sent_live_) mts_drop(ks_mts_q, &sent_message_);
  if (received_live_) mts_drop(ks_mts_q, &received_message_);
  sent_live_ = received_live_ = false;
}

KsResult copy_reply_data(const void *payload, uint8_t **out, uint16_t *out_len) {
  const uint16_t len = reply_len(payload);
  *out = static_cast<uint8_t *>(calloc(1, len));
  if (*out == nullptr) return KS_NO_MEMORY;
  memcpy(*out, reply_data(payload), len);
  *out_len = len;
  return KS_SUCCESS;
}

KsResult read_exactly(const void *payload, void *output, uint16_t expected_len) {
  if (const KsResult result = reply_result(payload); result != KS_SUCCESS) return result;
  const uint16_t len = reply_len(payload);
  if (len != expected_len) {
    KS_TRACE(KS_SUBTYPE_NORMAL, "Invalid buffer len :%d output data len :%d \n", expected_len, len);
    return KS_FAILURE;
  }
  memcpy(output, reply_data(payload), len);
  return KS_SUCCESS;
}

}  // namespace ks
