// The host's check UUID: made once, kept in a small file, the same ever after.
#ifndef ORLITH_CHECK_UUID_H
#define ORLITH_CHECK_UUID_H

#include <string>
#include <string_view>

// Where it is kept unless the user says otherwise: orlith/check_uuid below $XDG_STATE_HOME, else below
// ~/.local/state. Empty when neither variable names an absolute folder.
std::string default_check_uuid_path();

struct CheckUuid {
  std::string text;      // 36 lower-case characters; empty on failure
  std::string error;     // what went wrong; names the file
  bool damaged = false;  // the file is there, but holds something else
};

// The UUID kept in `path`, which is created with a new one (and the folders above it) when it is not there.
// Processes that race to create it all get the same one.
CheckUuid load_or_make_check_uuid(const std::string &path);

// The UUID in lower case; empty when the text is none.
std::string normalized_uuid(std::string_view text);

#endif
