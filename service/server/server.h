// server.h: the connections that are open, who holds them, and the threads that serve them.
#ifndef SERVICE_SERVER_SERVER_H
#define SERVICE_SERVER_SERVER_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

#include "base/fd.h"
#include "handlers/dispatch.h"
#include "handlers/service.h"
#include "server/connection.h"

namespace ksd::server {

class Server {
 public:
  Server(handlers::Service &service, const CurrentConfig &current_config)
      : service_(service), current_config_(current_config) {}
  ~Server() { finish(); }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // admit gives a new connection a thread of its own, or closes it when its opener or all together have too many.
  void admit(UniqueFd socket);

  // finish lets every connection answer what it has received, then ends it, and returns when the last has ended.
  // Connections that aren't through within the configuration's stop_limit_ms are closed as they are.
  void finish();

 private:
  bool take_place(uid_t uid, int socket);
  void give_place_back(uid_t uid, int socket);
  void refuse(uid_t uid, const char *why);
  void note_use(uid_t uid, const char *whose, uint32_t used, uint32_t limit);
  void serve(UniqueFd socket, Peer peer);

  handlers::Service &service_;
  const CurrentConfig &current_config_;
  const handlers::Dispatcher dispatcher_;
  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<int> sockets_;
  std::map<uid_t, uint32_t> connections_of_;
  bool finishing_ = false;
};

}  // namespace ksd::server

#endif
