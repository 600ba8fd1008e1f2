#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <openssl/ssl.h>
#include <string>
#include <tuple>

namespace netchasm {

struct HostGroup;

/// What the HTTPS checks of host groups with the same files share: trusted certificates, client certificate,
/// settings. Immutable once made; used by all workers at once.
class TlsContext {
 public:
   /// Reads what it needs. Never fails: with a file that cannot be used the context says so in error().
   TlsContext( const std::string & caFile, const std::string & certFile, bool verifyPeer );

   /// Empty when usable, else the file and the reason.
   const std::string & error() const { return error_; }
   SSL_CTX * get() const { return context_.get(); }
   bool verifyPeer() const { return verifyPeer_; }
   /// Whether the files still hold what this context was made of.
   bool current( const std::string & caFile, const std::string & certFile ) const;

 private:
   struct Free {
      void operator()( SSL_CTX * context ) const { SSL_CTX_free( context ); }
   };

   std::string load( const std::string & caFile, const std::string & certFile );
   std::string loadTrusted( const std::string & caFile );
   std::string loadClientCertificate( const std::string & certFile );

   std::string error_;
   bool verifyPeer_;
   std::unique_ptr< SSL_CTX, Free > context_;
   std::string caBytes_;
   std::string certBytes_;
};

/// Contexts by their files, so that groups share them, and reloads keep those whose files did not change.
/// Used by the thread that calls the engine.
class TlsContexts {
 public:
   /// The context for an HTTPS group, made anew when a file changed.
   std::shared_ptr< const TlsContext > forGroup( const HostGroup & group );
   /// Starts a reload: every context is compared with its files once, when it is next asked for.
   void beginReload() { ++reload_; }
   /// Drops the contexts that this reload did not ask for.
   void endReload();

 private:
   struct Entry {
      std::shared_ptr< const TlsContext > context;
      std::uint64_t reload;
   };
   std::uint64_t reload_ = 0;
   std::map< std::tuple< std::string, std::string, bool >, Entry > entries_;
};

/// The text of the calling thread's newest OpenSSL error; clears them all.
std::string tlsErrorText();

} // namespace netchasm
