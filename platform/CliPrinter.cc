#include "platform/CliPrinter.h"

#include "platform/Assert.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace platform {

namespace {

void appendJsonText( std::string & out, std::string_view text ) {
   const bool plain =
         std::ranges::all_of( text, []( char c ) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; } );
   if ( plain ) {
      out.append( 1, '"' ).append( text ).append( 1, '"' );
   } else {
      out += nlohmann::json( text ).dump( -1, ' ', false, nlohmann::json::error_handler_t::replace );
   }
}

struct AppendJson {
   std::string & out;

   void operator()( bool value ) const { out += value ? "true" : "false"; }
   void operator()( std::string_view value ) const { appendJsonText( out, value ); }
   template<std::integral T>
   void operator()( T value ) const {
      fmt::format_to( std::back_inserter( out ), "{}", value );
   }
   template<std::floating_point T>
   void operator()( T value ) const {
      if ( std::isfinite( value ) ) {
         fmt::format_to( std::back_inserter( out ), "{}", value );
      } else {
         out += "null";
      }
   }
};

} // namespace

void CliValue::appendJson( std::string & out ) const {
   std::visit( AppendJson{ out }, value_ );
}

CliPrinter::CliPrinter( unsigned socket, unsigned format )
      : socket_( CliSocket::find( socket ) ),
        json_( format == static_cast<unsigned>( CliFormat::json ) ) {}

void CliPrinter::start() {
   HM_ASSERT( depth_ == 0, "printer started twice" );
   depth_ = 1;
   first_ = true;
   if ( json_ ) {
      socket_->write( "{" );
   }
}

void CliPrinter::end() {
   HM_ASSERT( depth_ == 1, "printer ended with {} levels open", depth_ );
   close();
   if ( json_ ) {
      socket_->write( "\n" );
   }
}

void CliPrinter::flush() {
   if ( !socket_->drain() ) {
      socket_->write( "" ); // says why
   }
}

void CliPrinter::member( std::string_view key ) {
   constexpr std::size_t indent = 2;
   line_ = first_ ? "\n" : ",\n";
   first_ = false;
   line_.append( indent * depth_, ' ' );
   appendJsonText( line_, key );
   line_ += ": ";
}

void CliPrinter::open( std::string_view key ) {
   HM_ASSERT( depth_ > 0, "printer not started" );
   if ( json_ ) {
      member( key );
      line_ += '{';
      socket_->write( line_ );
      first_ = true;
   }
   ++depth_;
}

void CliPrinter::close() {
   HM_ASSERT( depth_ > 0, "printer closes more than it opened" );
   --depth_;
   if ( json_ ) {
      line_ = first_ ? "" : "\n" + std::string( 2 * depth_, ' ' );
      line_ += '}';
      socket_->write( line_ );
      first_ = false;
   }
}

void CliPrinter::text( const char * format, std::va_list arguments ) {
   std::array<char, 512> buffer;
   std::va_list again;
   va_copy( again, arguments );
   const int size = std::vsnprintf( buffer.data(), buffer.size(), format, arguments );
   const auto length = static_cast<std::size_t>( std::max( size, 0 ) );
   if ( length < buffer.size() ) {
      line_.assign( buffer.data(), length );
   } else {
      line_.resize( length );
      std::vsnprintf( line_.data(), length + 1, format, again );
   }
   va_end( again );
   socket_->write( line_ );
}

void CliPrinter::attributeJson( std::string_view name, const CliValue & value ) {
   if ( json_ ) {
      member( name );
      value.appendJson( line_ );
      socket_->write( line_ );
   }
}

void CliPrinter::frill( const char * format, ... ) {
   if ( !json_ ) {
      std::va_list arguments;
      va_start( arguments, format );
      text( format, arguments );
      va_end( arguments );
   }
}

void CliPrinter::attribute( std::string_view name, const CliValue & value, const char * format, ... ) {
   attributeJson( name, value );
   if ( !json_ ) {
      std::va_list arguments;
      va_start( arguments, format );
      text( format, arguments );
      va_end( arguments );
   }
}

void CliPrinter::row( std::initializer_list<CliAttribute> attributes, const char * format, ... ) {
   for ( const auto & attribute : attributes ) {
      attributeJson( attribute.name, attribute.value );
   }
   if ( !json_ ) {
      std::va_list arguments;
      va_start( arguments, format );
      text( format, arguments );
      va_end( arguments );
   }
}

} // namespace platform
