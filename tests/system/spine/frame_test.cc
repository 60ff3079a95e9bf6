#include <gmock/gmock.h>

#include "service/raw_client.h"
#include "service/service_process.h"
using namespace ks_test;
TEST(Spine, Greets) {
  ServiceProcess service;
  RawClient client(service.socket());
  EXPECT_EQ(client.hello().vdc_id, 7u);
  EXPECT_EQ(service.stop(), 0);
}
