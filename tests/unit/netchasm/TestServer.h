#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

/// A TCP server on a loopback address whose every connection is handled as the test says, each on a thread of
/// its own. The handler gets a blocking socket that the server closes afterwards.
class TestServer {
 public:
   using Handler = std::function< void( int fd ) >;

   explicit TestServer( Handler handler, const std::string & address = "127.0.0.1" );
   ~TestServer();

   std::uint16_t port() const { return port_; }
   int connections() const { return connections_; }
   int ended() const { return ended_; } ///< handlers that have returned

 private:
   void accept();

   Handler handler_;
   int listener_;
   std::uint16_t port_;
   std::atomic< int > connections_ = 0, ended_ = 0;
   std::atomic< bool > stop_ = false;
   std::mutex mutex_;
   std::list< int > open_;
   std::list< std::thread > threads_;
   std::thread acceptor_;
};

/// A port of this address where nothing listens.
std::uint16_t unusedPort();
/// A listening socket that nobody accepts from; the kernel completes handshakes. The caller closes it.
int listenOn( const std::string & address, std::uint16_t & port, int backlog );

/// Reads up to the end of a request's header block; empty when the peer went away first.
std::string readRequest( int fd );
/// False: the peer went away.
bool writeAll( int fd, std::string_view bytes );
/// Until the peer ends the connection.
void waitForEnd( int fd );
/// Makes the close that follows a reset.
void resetOnClose( int fd );

/// Reads the request, answers with these bytes, closes.
TestServer::Handler answering( std::string bytes );
std::string okReply( std::string_view body = "ok" );
