#pragma once

#include <optional>
#include <string>

namespace host {

/// The listening socket at a path of the file system, held by one process at a time: "PATH.lock" is locked
/// for as long as it lives, so a socket file found beside a free lock is a stale one and replaced.
class ControlSocket {
 public:
   ControlSocket() = default;
   ~ControlSocket(); // removes the socket file; the lock file stays, for removing it would race with the next
                     // host
   ControlSocket( const ControlSocket & ) = delete;
   ControlSocket & operator=( const ControlSocket & ) = delete;

   /// Makes the directory (mode 0755) when it is missing, and the socket with mode 0660. Returns why not.
   [[nodiscard]] std::optional<std::string> open( const std::string & path );
   /// The listening descriptor, handed over to the caller.
   int fdTake();

 private:
   std::string path_;
   int lockFd_ = -1;
   int fd_ = -1;
};

} // namespace host
