// The one way the daemon starts a thread of its own.
#pragma once

#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "common/status.h"

namespace zibd {

// Runs body on a new thread held in thread (which must not hold one). Fails
// with the errno of a thread the system cannot make; name says whose it was.
template <typename Body>
Status startThread(std::thread& thread, Body&& body, const char* name) {
  try {
    thread = std::thread(std::forward<Body>(body));
  } catch (const std::system_error& e) {
    return Status::error(e.code().value(), std::string("start the ") + name + " thread");
  }
  return Status();
}

}  // namespace zibd
