#pragma once

#include "netchasm/Host.h"
#include "netchasm/HttpResponse.h"
#include "netchasm/SocketCalls.h"
#include "netchasm/TlsConnection.h"
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace netchasm {

/// How an attempt ended.
struct Outcome {
   HM_RESPONSE response;
   HM_REASON reason;
   int systemError = 0;    ///< errno, where there is one
   const char * call = ""; ///< the system call that failed, for faults of this machine
};

/// What the checks of one worker share: the way to the network and the buffers of the step that is running.
struct CheckContext {
   static constexpr std::size_t receiveBytes = 16 * 1024;

   SocketCalls & calls;
   int epoll;
   std::string scratch;
   Duration lost{}; ///< by the worker's own lateness, since it began
   std::unique_ptr< char[] > received = std::make_unique< char[] >( receiveBytes );
};

/// One descriptor, registered once with the worker's epoll (edge-triggered), and the check that runs over it,
/// if any. Between checks the descriptor stays open, unconnected. The state machine of a check:
///
///    idle        no check; events mean nothing
///    connecting  until the socket is writable (connect time limit)
///    handshaking TLS, until done (check time limit, as the rest)
///    sending     the request
///    receiving   until the reply is complete
///
/// Steps that end the check return its outcome; the owner then calls release(). Used by one worker.
class Check {
 public:
   /// A longer body gives its storage back: thousands of checks may be idle.
   static constexpr std::size_t keptBodyBytes = 1024;

   enum class State : std::uint8_t { idle, connecting, handshaking, sending, receiving };

   /// `home`: where it waits between checks.
   Check( CheckContext & context, ConnectionPool & home ) : context_{ context }, home_{ home } {}
   ~Check();
   Check( const Check & ) = delete;
   Check & operator=( const Check & ) = delete;

   /// Begins a check of the host, which must outlive it or be told by release().
   std::optional< Outcome > start( Host & host, TimePoint now );
   /// `events` as epoll reports them; they may be stale.
   std::optional< Outcome > onEvents( std::uint32_t events );
   /// The outcome of a check whose time is up.
   Outcome timedOut() const;
   /// What the outcome says about the server: nothing when it got no connection or reply and the source
   /// address has left this machine meanwhile. The descriptor, whose bind may be out of date, is then
   /// renewed.
   Outcome blamed( const Outcome & outcome );
   /// Ends the connection with a reset and forgets the host. False: the descriptor is of no more use.
   [[nodiscard]] bool release( bool answered );

   ConnectionPool & home() const { return home_; }
   Host * host() const { return host_; }
   TimePoint started() const { return started_; }
   /// The time limit that applies in this state; later when the worker came late.
   TimePoint deadline() const;
   const HttpResponse & response() const { return response_; }
   /// More about a failed TLS handshake; else empty.
   std::string detail() const { return tls_ ? tls_->error() : std::string{}; }

 private:
   std::optional< Outcome > openSocket();
   Duration lost() const { return context_.lost - lostBefore_; }
   std::optional< Outcome > connected( std::uint32_t events );
   std::optional< Outcome > handshake( std::uint32_t events );
   std::optional< Outcome > sendRequest( std::uint32_t events );
   std::optional< Outcome > resumeSending( std::uint32_t events );
   std::optional< Outcome > sentTls( TlsConnection::Step step, std::uint32_t events );
   std::optional< Outcome > receive( std::uint32_t events );
   std::optional< Outcome > receivePlain( std::uint32_t events );
   std::optional< Outcome > receiveTls();
   std::optional< Outcome > judge();
   Outcome endOfReply();
   void reached( TimePoint Probe::*phase );
   std::string_view request();
   bool overTls() const { return group_->protocol == Protocol::https; }

   CheckContext & context_;
   ConnectionPool & home_;
   int fd_ = -1;
   std::uint32_t mark_ = 0; ///< set on the descriptor

   State state_ = State::idle;
   Host * host_ = nullptr;
   std::shared_ptr< const HostGroup > group_; ///< as it was at the start
   TimePoint started_;
   Duration lostBefore_{}; ///< by the worker until the start
   std::string authority_; ///< as it was at the start
   std::size_t sent_ = 0;
   HttpResponse response_;
   std::unique_ptr< TlsConnection > tls_;
};

/// The idle checks of one worker for one address family and source address, which their descriptors are bound
/// to.
struct ConnectionPool {
   std::vector< std::unique_ptr< Check > > idle;
   std::size_t leastIdle = 0; ///< since the pool was last trimmed
};

} // namespace netchasm
