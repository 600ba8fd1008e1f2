#pragma once

#include "netchasm/HMIPAddress.h"
#include "netchasm/Schedule.h"
#include "netchasm/SocketCalls.h"
#include "netchasm/TlsContext.h"
#include <cstddef>
#include <cstdint>
#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <string_view>

namespace netchasm {

/// A host's TLS session, by which its next checks save most of the handshake. Only ever used against the same
/// context and address, and for `maxAge` after the full handshake that it comes from, so that an expired or
/// changed certificate is seen.
struct TlsTicket {
   static constexpr std::chrono::minutes maxAge{ 3 };

   struct Free {
      void operator()( SSL_SESSION * session ) const { SSL_SESSION_free( session ); }
   };
   std::unique_ptr< SSL_SESSION, Free > session;
   std::shared_ptr< const TlsContext > context;
   HMIPAddress address;
   TimePoint fullHandshake;

   bool fits(
         const std::shared_ptr< const TlsContext > & wanted, const HMIPAddress & peer, TimePoint now ) const;
};

/// The TLS side of one connection over a non-blocking socket. What is to be sent is gathered and leaves in
/// one piece, so the end of the handshake travels with the request. Used by one worker.
class TlsConnection {
 public:
   /// From the wire for one check. OpenSSL skips over some records by itself, as long as there are any: a
   /// peer that sends nothing else must not keep the worker.
   static constexpr std::size_t maxReceivedBytes = 512 * 1024;

   enum class Step : std::uint8_t {
      done,      ///< made as asked
      wait,      ///< go on at the socket's next event
      closed,    ///< the peer ended the connection
      reset,     ///< the peer, or the network, broke it off
      noBuffer,  ///< this machine has none for what is to be sent
      untrusted, ///< the peer's certificate was refused
      failed,    ///< anything else: error() tells
   };

   explicit TlsConnection( SocketCalls & calls );
   ~TlsConnection();
   TlsConnection( const TlsConnection & ) = delete;
   TlsConnection & operator=( const TlsConnection & ) = delete;

   /// Prepares a connection over the connected socket `fd` to `peer`. `ticket` takes part when it fits,
   /// and is replaced by what the server gives for the next time; it must live until end(). False: no memory.
   [[nodiscard]] bool begin( const std::shared_ptr< const TlsContext > & context, int fd,
         const HMIPAddress & peer, TlsTicket & ticket, TimePoint now );
   /// The handshake's last flight stays here until send().
   Step handshake();
   Step send( std::string_view bytes );
   /// Sends what the socket did not take before.
   Step flush();
   /// Up to `size` bytes of the peer; `got` is 0 unless done.
   Step receive( char * bytes, std::size_t size, std::size_t & got );
   /// Forgets the connection; nothing is sent. With `sound` false the session is not to be used again.
   void end( bool sound );

   const std::string & error() const { return error_; }

   static int onNewSession( SSL * ssl, SSL_SESSION * session );
   static int bioRead( BIO * bio, char * bytes, std::size_t size, std::size_t * got );
   static long bioControl( BIO * bio, int command, long number, void * pointer );
   static int bioWrite( BIO * bio, const char * bytes, std::size_t size, std::size_t * written );

 private:
   Step failure( int result );

   SocketCalls & calls_;
   SSL * ssl_ = nullptr;
   int fd_ = -1;
   bool ended_ = false; ///< the peer's end was read
   std::string out_;
   std::size_t sent_ = 0; ///< of out_
   std::size_t received_ = 0;
   TlsTicket * ticket_ = nullptr;
   std::shared_ptr< const TlsContext > context_;
   HMIPAddress peer_;
   TimePoint began_;
   std::string error_;
};

} // namespace netchasm
