#pragma once

#include "netchasm/HMCheckData.h"
#include <cstddef>
#include <cstdint>
#include <http_parser.h>
#include <string>
#include <string_view>

namespace netchasm {

/// Reads one HTTP/1.x response (RFC 9112) to a GET as its bytes come in: skips 1xx, keeps at most
/// HM_MAX_BODY_BYTES of the body. No I/O; reused for the next response with reset(), which keeps the body's
/// storage.
class HttpResponse {
 public:
   enum class State : std::uint8_t {
      incomplete, ///< more bytes, or the end of the stream, are needed
      complete,   ///< status and body stand; more bytes are not wanted
      malformed,  ///< not an HTTP/1.x response, or switched to another protocol
      tooLarge,   ///< header block beyond HM_MAX_HEADER_BYTES, or framing beyond maxFramingBytes
   };

   /// Bytes of chunk sizes and trailers that are accepted: a body sent one byte a chunk stays within.
   static constexpr std::size_t maxFramingBytes = 8 * HM_MAX_BODY_BYTES;

   HttpResponse() { reset(); }

   void reset();
   /// After the state has left `incomplete`, further bytes are ignored.
   State feed( std::string_view bytes );
   /// The peer ended the stream: completes a body without length, otherwise the response stays incomplete.
   State endOfStream();

   State state() const { return state_; }
   /// Whether any byte of a reply has come in.
   bool started() const { return bytes_ > 0; }
   /// Of the last status line read; 0 before.
   std::uint32_t statusCode() const { return statusCode_; }
   const std::string & body() const { return body_; }
   void shrink() { std::string{}.swap( body_ ); }

 private:
   static int onHeadersComplete( http_parser * parser );
   static int onBody( http_parser * parser, const char * at, std::size_t length );
   static int onMessageComplete( http_parser * parser );
   static const http_parser_settings callbacks;

   http_parser parser_;
   State state_;
   bool inBody_;
   std::uint32_t statusCode_;
   std::size_t bytes_;       ///< of the reply so far
   std::size_t bodyBytes_;   ///< of them, bytes of the body
   std::size_t headerBytes_; ///< of them, bytes before the body, counted up to the last call
   std::string body_;
};

} // namespace netchasm
