#include "netchasm/HttpResponse.h"
#include <algorithm>

namespace netchasm {

const http_parser_settings HttpResponse::callbacks = [] {
   http_parser_settings settings;
   http_parser_settings_init( &settings );
   settings.on_headers_complete = onHeadersComplete;
   settings.on_body = onBody;
   settings.on_message_complete = onMessageComplete;
   return settings;
}();

void HttpResponse::reset() {
   http_parser_init( &parser_, HTTP_RESPONSE );
   parser_.data = this;
   state_ = State::incomplete;
   inBody_ = false;
   statusCode_ = 0;
   bytes_ = bodyBytes_ = headerBytes_ = 0;
   body_.clear();
}

HttpResponse::State HttpResponse::feed( std::string_view bytes ) {
   // The header block is handed over in pieces that end at its limit, so that what lies beyond is never
   // parsed.
   while ( state_ == State::incomplete && !bytes.empty() ) {
      std::size_t piece = bytes.size();
      if ( !inBody_ )
         piece = std::min( piece, HM_MAX_HEADER_BYTES - headerBytes_ );
      const bool before = !inBody_;
      const std::size_t used = http_parser_execute( &parser_, &callbacks, bytes.data(), piece );
      bytes_ += used;
      if ( state_ != State::incomplete )
         break;
      if ( used < piece || HTTP_PARSER_ERRNO( &parser_ ) != HPE_OK ) {
         // The parser has bounds of its own for what surrounds chunks.
         state_ = HTTP_PARSER_ERRNO( &parser_ ) == HPE_HEADER_OVERFLOW ? State::tooLarge : State::malformed;
         break;
      }
      bytes.remove_prefix( used );
      if ( before )
         headerBytes_ = std::min( bytes_ - bodyBytes_, HM_MAX_HEADER_BYTES );
      if ( ( !inBody_ && headerBytes_ == HM_MAX_HEADER_BYTES ) ||
            bytes_ - bodyBytes_ > HM_MAX_HEADER_BYTES + maxFramingBytes )
         state_ = State::tooLarge;
   }
   return state_;
}

HttpResponse::State HttpResponse::endOfStream() {
   if ( state_ == State::incomplete && inBody_ )
      http_parser_execute( &parser_, &callbacks, nullptr, 0 );
   return state_;
}

int HttpResponse::onHeadersComplete( http_parser * parser ) {
   auto & self = *static_cast< HttpResponse * >( parser->data );
   self.statusCode_ = parser->status_code;
   // 101 would leave HTTP for a protocol that was never asked for.
   if ( parser->http_major != 1 || parser->status_code == 101 || parser->status_code < 100 ) {
      self.state_ = State::malformed;
      return -1;
   }
   self.inBody_ = parser->status_code >= 200;
   // 1: no body follows, whatever the header fields say.
   return !self.inBody_ || parser->status_code == 204 || parser->status_code == 304 ? 1 : 0;
}

int HttpResponse::onBody( http_parser * parser, const char * at, std::size_t length ) {
   auto & self = *static_cast< HttpResponse * >( parser->data );
   self.bodyBytes_ += length;
   self.body_.append( at, std::min( length, HM_MAX_BODY_BYTES - self.body_.size() ) );
   if ( self.body_.size() == HM_MAX_BODY_BYTES ) {
      self.state_ = State::complete;
      return 1;
   }
   return 0;
}

int HttpResponse::onMessageComplete( http_parser * parser ) {
   auto & self = *static_cast< HttpResponse * >( parser->data );
   if ( !self.inBody_ )
      return 0; // 1xx: the parser goes on with the next status line
   self.state_ = State::complete;
   return 1;
}

} // namespace netchasm
