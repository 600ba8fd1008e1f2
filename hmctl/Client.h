#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace hmctl {

/// There is no host, or it went away in the middle of an answer.
struct NoHost : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// What the host refused, one reason a line.
struct Refused : std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// One connection of the client's side of the control protocol (docs/control-protocol.md). Blocks; one
/// request at a time. After anything but Refused was thrown it stands in the middle of an answer and is of no
/// more use.
class Client {
 public:
   /// Throws NoHost.
   explicit Client( const std::string & socketPath );
   ~Client();
   Client( const Client & ) = delete;
   Client & operator=( const Client & ) = delete;

   /// Sends a request, and `document` behind it, and calls `each` with every line of the answer but the last
   /// one, which it returns. Throws NoHost, Refused and Interrupted, std::invalid_argument for text that is
   /// not UTF-8, and what `each` throws.
   nlohmann::json request( const nlohmann::json & request, const std::string & document,
         const std::function<void( const nlohmann::json & line, const std::string & text )> & each );
   /// Between requests: the host has not closed it.
   bool alive() const;

 private:
   bool send( const std::string & bytes );
   std::string lineRead();

   const std::string socketPath_;
   int fd_ = -1;
   std::string input_;
   std::size_t scanned_ = 0; // of input_, without a newline
};

} // namespace hmctl
