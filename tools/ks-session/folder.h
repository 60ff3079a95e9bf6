// folder.h: the folder in which a session keeps everything: socket, state, history, configuration, vault, cache, log.
#ifndef TOOLS_KS_SESSION_FOLDER_H
#define TOOLS_KS_SESSION_FOLDER_H

#include <cstdint>
#include <string>

namespace ks_session {

class Folder {
 public:
  // An empty `keep` makes a fresh folder that goes with the object. Otherwise `keep` is made when absent, and stays.
  // Throws std::runtime_error with what is wrong and what to do.
  explicit Folder(const std::string &keep);
  ~Folder();
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;

  const std::string &path() const { return path_; }
  std::string file(const char *name) const { return path_ + '/' + name; }

  // write_config writes a configuration with this user in `vdc` and the user's cache in the folder.
  void write_config(uint16_t vdc) const;

 private:
  void make_fresh();
  void use(const std::string &keep);
  void check_length() const;

  std::string path_;
  bool keep_;
};

}  // namespace ks_session

#endif
