// What reading a reply costs, against http_parser fed with callbacks that do nothing and against looking for
// the end of the header block only, which no correct reader can undercut.
#include "netchasm/HttpResponse.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <string>

namespace {

std::string reply( std::size_t headerBytes, std::size_t bodyBytes ) {
   std::string text = "HTTP/1.1 200 OK\r\nServer: nginx\r\nDate: Sat, 22 Nov 2025 22:20:00 GMT\r\n"
                      "Content-Type: text/plain\r\nContent-Length: " +
                      std::to_string( bodyBytes ) + "\r\nConnection: keep-alive\r\n";
   for ( int i = 0; text.size() < headerBytes; ++i ) {
      text += "X-Header-" + std::to_string( i ) + ": " + std::string( 40, 'v' ) + "\r\n";
   }
   return text + "\r\n" + std::string( bodyBytes, 'b' );
}

std::string chunkedReply( std::size_t chunks, std::size_t chunkBytes ) {
   std::string text = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
   for ( std::size_t i = 0; i < chunks; ++i ) {
      char size[32];
      std::snprintf( size, sizeof size, "%zx\r\n", chunkBytes );
      text += size + std::string( chunkBytes, 'b' ) + "\r\n";
   }
   return text + "0\r\n\r\n";
}

/// 0 to 3: the bench's own reply, one with 1 KiB of headers, one with a 16 KiB body, 16 KiB in chunks of 64.
const std::string & sample( std::int64_t which ) {
   static const std::string samples[] = {
         reply( 0, 3 ), reply( 1024, 512 ), reply( 0, 16 * 1024 - 1 ), chunkedReply( 255, 64 ) };
   return samples[which];
}

void engineReader( benchmark::State & state ) {
   const std::string & text = sample( state.range( 0 ) );
   netchasm::HttpResponse response;
   for ( auto _ : state ) {
      response.reset();
      if ( response.feed( text ) != netchasm::HttpResponse::State::complete ) {
         state.SkipWithError( "not complete" );
         break;
      }
      benchmark::DoNotOptimize( response.body().data() );
   }
   state.SetBytesProcessed( state.iterations() * static_cast< std::int64_t >( text.size() ) );
}
BENCHMARK( engineReader )->DenseRange( 0, 3 );

/// A reply that trickles in, as from a server that sends one byte a second.
void engineReaderByteByByte( benchmark::State & state ) {
   const std::string & text = sample( state.range( 0 ) );
   netchasm::HttpResponse response;
   for ( auto _ : state ) {
      response.reset();
      for ( const char & byte : text ) {
         response.feed( { &byte, 1 } );
      }
      if ( response.state() != netchasm::HttpResponse::State::complete ) {
         state.SkipWithError( "not complete" );
         break;
      }
   }
   state.SetBytesProcessed( state.iterations() * static_cast< std::int64_t >( text.size() ) );
}
BENCHMARK( engineReaderByteByByte )->DenseRange( 0, 1 );

void parserAlone( benchmark::State & state ) {
   const std::string & text = sample( state.range( 0 ) );
   http_parser_settings nothing;
   http_parser_settings_init( &nothing );
   for ( auto _ : state ) {
      http_parser parser;
      http_parser_init( &parser, HTTP_RESPONSE );
      benchmark::DoNotOptimize( http_parser_execute( &parser, &nothing, text.data(), text.size() ) );
   }
   state.SetBytesProcessed( state.iterations() * static_cast< std::int64_t >( text.size() ) );
}
BENCHMARK( parserAlone )->DenseRange( 0, 3 );

void findEndOfHeaders( benchmark::State & state ) {
   const std::string & text = sample( state.range( 0 ) );
   for ( auto _ : state ) {
      benchmark::DoNotOptimize( text.find( "\r\n\r\n" ) );
   }
}
BENCHMARK( findEndOfHeaders )->DenseRange( 0, 3 );

} // namespace
