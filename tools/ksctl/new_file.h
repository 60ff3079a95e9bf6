// new_file.h: a file that is there whole, or not at all.
#ifndef TOOLS_KSCTL_NEW_FILE_H
#define TOOLS_KSCTL_NEW_FILE_H

#include <string>
#include <string_view>

namespace ksctl {

// write_new_file writes a file of mode 0600 under another name and puts it in the place of `path` when it is whole.
// Throws Failure when it can't be; then what was at `path` is there still.
void write_new_file(const std::string &path, std::string_view content);

}  // namespace ksctl

#endif
