#include "netchasm/HttpResponse.h"
#include <gtest/gtest.h>
#include <random>

using netchasm::HttpResponse;
using State = HttpResponse::State;

namespace {

struct Reply {
   const char * name;
   std::string bytes;
   bool ends; ///< the peer ends the stream afterwards
   State state;
   std::uint32_t code = 0;
   std::string body = {};
};

const std::string big( 20'000, 'b' );

const Reply replies[] = {
      { "content length", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", false, State::complete, 200,
            "hello" },
      { "any code", "HTTP/1.1 503 Busy\r\nContent-Length: 2\r\n\r\nno", false, State::complete, 503, "no" },
      { "no reason phrase", "HTTP/1.1 404\r\nContent-Length: 0\r\n\r\n", false, State::complete, 404 },
      { "HTTP/1.0 until close", "HTTP/1.0 200 OK\r\n\r\nall of it", true, State::complete, 200, "all of it" },
      { "until close, still open", "HTTP/1.1 200 OK\r\n\r\nall of it", false, State::incomplete, 200,
            "all of it" },
      { "chunked",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nA: "
            "b\r\n\r\n",
            false, State::complete, 200, "abcde" },
      { "204 has no body", "HTTP/1.1 204 None\r\nContent-Length: 3\r\n\r\n", false, State::complete, 204 },
      { "304 has no body", "HTTP/1.1 304 Same\r\nContent-Length: 3\r\n\r\n", false, State::complete, 304 },
      { "1xx skipped",
            "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nLink: x\r\n\r\nHTTP/1.1 200 "
            "OK\r\nContent-Length: 2\r\n\r\nok",
            false, State::complete, 200, "ok" },
      { "only 1xx", "HTTP/1.1 100 Continue\r\n\r\n", true, State::incomplete, 100 },
      { "101 was not asked for", "HTTP/1.1 101 Switch\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n", false,
            State::malformed, 101 },
      { "cut off in the body", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", true, State::incomplete,
            200, "abc" },
      { "cut off in a chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\nabc", true,
            State::incomplete, 200, "abc" },
      { "cut off in the headers", "HTTP/1.1 200 OK\r\nContent-", true, State::incomplete },
      { "body beyond the cap", "HTTP/1.1 200 OK\r\nContent-Length: 20000\r\n\r\n" + big, false,
            State::complete, 200, big.substr( 0, HM_MAX_BODY_BYTES ) },
      { "chunk beyond the cap", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nFFFFFF\r\n" + big,
            false, State::complete, 200, big.substr( 0, HM_MAX_BODY_BYTES ) },
      { "endless headers", "HTTP/1.1 200 OK\r\nA: " + big, false, State::tooLarge },
      { "endless 1xx",
            [] {
               std::string text;
               for ( int i = 0; i < 1000; ++i )
                  text += "HTTP/1.1 100 Continue\r\n\r\n";
               return text;
            }(),
            false, State::tooLarge, 100 },
      { "endless chunk extension",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1;" + std::string( 200'000, 'x' ), false,
            State::tooLarge, 200 },
      { "garbage", "\x16\x03\x01 garbage", false, State::malformed },
      { "another protocol", "SSH-2.0-OpenSSH_9.2\r\n", false, State::malformed },
      { "a request", "GET / HTTP/1.1\r\n\r\n", false, State::malformed },
      { "a version that is none", "HTTP/9.1 200 OK\r\nContent-Length: 0\r\n\r\n", false, State::malformed,
            200 },
      { "code out of range", "HTTP/1.1 0999999 OK\r\n\r\n", false, State::malformed },
      { "length that is no number", "HTTP/1.1 200 OK\r\nContent-Length: 1x\r\n\r\n", false,
            State::malformed },
      { "length beyond 64 bits", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999999\r\n\r\n", false,
            State::malformed },
      { "chunk size beyond 64 bits",
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFFF\r\n", false,
            State::malformed, 200 },
};

} // namespace

TEST( HttpResponse, JudgesRepliesInOnePieceAndSplitAtEveryByte ) {
   HttpResponse response;
   for ( const Reply & reply : replies ) {
      SCOPED_TRACE( reply.name );
      const std::size_t step = reply.bytes.size() < 1000 ? 1 : 997;
      for ( std::size_t split = 0; split < reply.bytes.size(); split += step ) {
         response.reset();
         const std::string_view bytes = reply.bytes;
         response.feed( bytes.substr( 0, split ) );
         response.feed( bytes.substr( split ) );
         if ( reply.ends )
            response.endOfStream();
         ASSERT_EQ( response.state(), reply.state ) << "split at " << split;
         if ( reply.state == State::complete ) {
            ASSERT_EQ( response.statusCode(), reply.code );
            ASSERT_EQ( response.body(), reply.body );
         }
      }
   }
}

TEST( HttpResponse, StandsDamagedReplies ) {
   std::mt19937 random{ 4711 };
   HttpResponse response;
   for ( int round = 0; round < 20'000; ++round ) {
      const Reply & reply = replies[random() % std::size( replies )];
      std::string bytes = reply.bytes.substr( 0, 2000 );
      for ( int damage = 0; damage < 3 && !bytes.empty(); ++damage )
         bytes[random() % bytes.size()] = static_cast< char >( random() );
      bytes.resize( random() % ( bytes.size() + 1 ) );
      response.reset();
      for ( std::size_t at = 0; at < bytes.size(); ) {
         const std::size_t piece = std::min< std::size_t >( 1 + random() % 64, bytes.size() - at );
         response.feed( std::string_view{ bytes }.substr( at, piece ) );
         at += piece;
      }
      response.endOfStream();
      ASSERT_LE( response.body().size(), HM_MAX_BODY_BYTES );
   }
}
