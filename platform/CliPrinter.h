#pragma once

#include "platform/CliSocket.h"

#include <concepts>
#include <cstdarg>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

namespace platform {

enum class CliFormat : unsigned { text = 0, json = 1 };

/// The value of an attribute in JSON. Text may hold any bytes; what is not UTF-8 (RFC 3629) becomes U+FFFD.
/// Numbers are written in full, floating ones as short as reads back the same, and as null when they are
/// none. Keeps no copy of a text.
class CliValue {
 public:
   CliValue( bool value ) : value_( value ) {}
   template<std::signed_integral T>
   CliValue( T value ) : value_( std::int64_t{ value } ) {}
   template<std::unsigned_integral T>
   CliValue( T value ) : value_( std::uint64_t{ value } ) {}
   CliValue( float value ) : value_( value ) {}
   CliValue( double value ) : value_( value ) {}
   CliValue( const char * value ) : value_( std::string_view( value ) ) {}
   CliValue( const std::string & value ) : value_( std::string_view( value ) ) {}
   CliValue( std::string_view value ) : value_( value ) {}

   void appendJson( std::string & out ) const;

 private:
   std::variant<bool, std::int64_t, std::uint64_t, float, double, std::string_view> value_;
};

struct CliAttribute {
   std::string_view name;
   CliValue value;
};

/// Prints the answer to one command as text or as one JSON object (RFC 8259), both from one walk: what is for
/// the other format is passed over. Streams, and keeps no more of the document than which objects are open.
///
///     printer.start();
///     printer.dictStart( "servers" );
///     printer.frill( "%-15s Checks\n", "Server" );            // text only
///     printer.entryStart( address );
///     printer.row( { { "numChecks", checks } }, "%-15s %d\n", address, checks ); // a line or attributes
///     printer.entryEnd();
///     printer.dictEnd();
///     printer.end();
///     printer.flush();
///
/// Formats are printf's, widths in bytes. Text goes out as given: callers make names from outside
/// printable(). Output goes to the CliSocket of the descriptor and never blocks; every call may throw
/// CliInterrupt. Main thread only; may live over the slices of a request.
class CliPrinter {
 public:
   /// `format`: a CliFormat; any other value is text.
   CliPrinter( unsigned socket, unsigned format );

   bool json() const { return json_; }

   void start();
   void end();   // all that was opened has been closed
   void flush(); // offers everything to the socket

   // Each opens a nested object of JSON: a dictionary of entries by key, one of its entries, and a group of
   // attributes under a name. Nothing in text.
   void dictStart( std::string_view key ) { open( key ); }
   void dictEnd() { close(); }
   void entryStart( std::string_view key ) { open( key ); }
   void entryEnd() { close(); }
   void subModelStart( std::string_view name ) { open( name ); }
   void subModelEnd() { close(); }

   /// A line, or a piece of one, of text alone.
   [[gnu::format( printf, 2, 3 )]] void frill( const char * format, ... );
   /// A line of text; in JSON the attribute.
   [[gnu::format( printf, 4, 5 )]] void attribute(
         std::string_view name, const CliValue & value, const char * format, ... );
   /// A line of text; in JSON the attributes.
   [[gnu::format( printf, 3, 4 )]] void row(
         std::initializer_list<CliAttribute> attributes, const char * format, ... );
   /// An attribute of JSON alone.
   void attributeJson( std::string_view name, const CliValue & value );

   /// Bytes that the socket has not taken yet.
   std::size_t pending() const { return socket_->pending(); }

 private:
   void open( std::string_view key );
   void close();
   void member( std::string_view key ); // what stands before a value
   void text( const char * format, std::va_list arguments );

   const Ptr<CliSocket> socket_;
   const bool json_;
   std::size_t depth_ = 0; // open objects
   bool first_ = true;     // nothing stands yet in the innermost object
   std::string line_;      // what is being put together
};

} // namespace platform
