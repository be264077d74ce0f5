// Errors of the demo program. A UserError is something the person running
// the program can fix (a bad argument, a file that cannot be read); it is
// reported as one line. Any other failure of a library call is a bug and is
// reported with the call's name and status.
#pragma once

#include <stdexcept>
#include <string>

#include "velr.h"

namespace velr::demo {

class UserError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws when a library call returned an error status; warnings (positive
// statuses) are returned to the caller, who decides what they mean.
inline VelStatus check(VelStatus status, const char* call) {
  if (status < 0)
    throw std::runtime_error(std::string(call) + " failed with status " + std::to_string(status));
  return status;
}

}  // namespace velr::demo
