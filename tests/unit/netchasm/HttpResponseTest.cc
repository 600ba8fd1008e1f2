#include "netchasm/HttpResponse.h"
#include <gtest/gtest.h>
#include <random>

using netchasm::HttpResponse;
using State = HttpResponse::State;

namespace {

struct Reply {
   const char * name;
   std::string bytes;
   State state;
   std::uint32_t code = 0; ///< and the body: of complete ones
   std::string body = {};
};

const std::string big( 20'000, 'b' ), capped( HM_MAX_BODY_BYTES, 'b' );
const std::string http = "HTTP/1.1 ", ok = http + "200 OK\r\n",
                  chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";

std::string endless1xx() {
   std::string text;
   for ( int i = 0; i < 1000; ++i )
      text += http + "100 Continue\r\n\r\n";
   return text;
}

const Reply replies[] = {
      { "any code", http + "503 Busy\r\nContent-Length: 2\r\n\r\nno", State::complete, 503, "no" },
      { "no reason phrase", http + "404\r\nContent-Length: 0\r\n\r\n", State::complete, 404 },
      { "until close, still open", "HTTP/1.0 200 OK\r\n\r\nall of it", State::incomplete },
      { "chunked", chunked + "3\r\nabc\r\n2;x=y\r\nde\r\n0\r\nA: b\r\n\r\n", State::complete, 200, "abcde" },
      { "204 has no body", http + "204 None\r\nContent-Length: 3\r\n\r\n", State::complete, 204 },
      { "304 has no body", http + "304 Same\r\nContent-Length: 3\r\n\r\n", State::complete, 304 },
      { "1xx skipped",
            http + "100 Continue\r\n\r\n" + http + "103 Hints\r\nLink: x\r\n\r\n" + ok +
                  "Content-Length: 2\r\n\r\nok",
            State::complete, 200, "ok" },
      { "101 was not asked for", http + "101 Switch\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n",
            State::malformed },
      { "body beyond the cap", ok + "Content-Length: 20000\r\n\r\n" + big, State::complete, 200, capped },
      { "chunk beyond the cap", chunked + "FFFFFF\r\n" + big, State::complete, 200, capped },
      { "endless headers", ok + "A: " + big, State::tooLarge },
      { "endless 1xx", endless1xx(), State::tooLarge },
      { "endless chunk extension", chunked + "1;" + std::string( 200'000, 'x' ), State::tooLarge },
      { "garbage", "\x16\x03\x01 garbage", State::malformed },
      { "a request", "GET / HTTP/1.1\r\n\r\n", State::malformed },
      { "a version that is none", "HTTP/9.1 200 OK\r\nContent-Length: 0\r\n\r\n", State::malformed },
      { "code out of range", http + "0999999 OK\r\n\r\n", State::malformed },
      { "length that is no number", ok + "Content-Length: 1x\r\n\r\n", State::malformed },
      { "length beyond 64 bits", ok + "Content-Length: 99999999999999999999999\r\n\r\n", State::malformed },
      { "chunk size beyond 64 bits", chunked + "FFFFFFFFFFFFFFFFF\r\n", State::malformed },
};

/// These are judged when the peer ends the stream.
const Reply ended[] = {
      { "until close", "HTTP/1.0 200 OK\r\n\r\nall of it", State::complete, 200, "all of it" },
      { "only 1xx", http + "100 Continue\r\n\r\n", State::incomplete },
      { "cut off in the body", ok + "Content-Length: 9\r\n\r\nabc", State::incomplete },
      { "cut off in a chunk", chunked + "9\r\nabc", State::incomplete },
      { "cut off in the headers", ok + "Content-", State::incomplete },
};

void judgedAtEverySplit( HttpResponse & response, const Reply & reply, bool end ) {
   SCOPED_TRACE( reply.name );
   const std::string_view bytes = reply.bytes;
   const std::size_t step = bytes.size() < 1000 ? 1 : 997;
   for ( std::size_t split = 0; split < bytes.size(); split += step ) {
      response.reset();
      response.feed( bytes.substr( 0, split ) );
      response.feed( bytes.substr( split ) );
      if ( end )
         response.endOfStream();
      ASSERT_EQ( response.state(), reply.state ) << "split at " << split;
      if ( reply.state == State::complete ) {
         ASSERT_EQ( response.statusCode(), reply.code );
         ASSERT_EQ( response.body(), reply.body );
      }
   }
}

} // namespace

TEST( HttpResponse, JudgesRepliesInOnePieceAndSplitAtEveryByte ) {
   HttpResponse response; // one for all, as a check uses it again and again
   for ( const Reply & reply : replies )
      judgedAtEverySplit( response, reply, false );
   for ( const Reply & reply : ended )
      judgedAtEverySplit( response, reply, true );
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
