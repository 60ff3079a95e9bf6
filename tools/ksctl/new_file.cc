#include "new_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fd.h"
#include "failure.h"

namespace ksctl {
namespace {

bool write_all(int file, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(file, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    content.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

Failure not_written(const std::string &path, int why) {
  return {why == EACCES ? Exit::kNotAllowed : Exit::kFailed,
          fmt::format("{}: can't be written: {}; make room or name another file", path, std::strerror(why))};
}

}  // namespace

void write_new_file(const std::string &path, std::string_view content) {
  std::string draft = path + ".XXXXXX";
  const ksd::UniqueFd file(mkostemp(draft.data(), O_CLOEXEC));  // of mode 0600
  if (!file) throw not_written(path, errno);
  if (write_all(file.get(), content) && fsync(file.get()) == 0 && rename(draft.c_str(), path.c_str()) == 0) return;
  const int why = errno;
  unlink(draft.c_str());
  throw not_written(path, why);
}

}  // namespace ksctl
