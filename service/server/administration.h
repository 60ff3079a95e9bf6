// administration.h: the messages for administrators: what the daemon tells about itself, and what it does on request.
#ifndef SERVICE_SERVER_ADMINISTRATION_H
#define SERVICE_SERVER_ADMINISTRATION_H

#include <ctime>

#include "handlers/reply.h"
#include "handlers/request.h"
#include "handlers/service.h"
#include "server/current_config.h"

namespace ksd::server {

// Places are how many connections and users there are.
struct Places {
  uint32_t connections = 0;
  uint32_t users = 0;
};

// Crowd tells who is connected.
class Crowd {
 public:
  virtual ~Crowd() = default;
  virtual Places places() = 0;
};

class Administration {
 public:
  // All of them outlive it.
  Administration(handlers::Service &service, const CurrentConfig &current_config, Crowd &crowd)
      : service_(service), current_config_(current_config), crowd_(crowd) {}

  // answer leaves a reply to an administration message of an administrator, and gives false for all others: to those
  // who aren't administrators there are no such messages.
  bool answer(const handlers::Request &request, handlers::Reply &reply);

 private:
  struct Row;
  static const Row kRows[];

  void status(const handlers::Request &request, handlers::Reply &reply);

  handlers::Service &service_;
  const CurrentConfig &current_config_;
  Crowd &crowd_;
  const std::time_t started_at_ = std::time(nullptr);
};

}  // namespace ksd::server

#endif
