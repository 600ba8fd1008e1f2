#include "hmctl/Interrupts.h"
#include "hmctl/Pager.h"
#include "hmctl/Terminal.h"

#include <clocale>

#include <gmock/gmock.h>

namespace hmctl {

TEST( TerminalText, NothingMovesTheCursor ) {
   EXPECT_EQ( terminalText( "a\tb\n\x1b[2J\r\x7f\x01" ), "a\tb\n\\x1b[2J\\x0d\\x7f\\x01" );
   EXPECT_EQ( terminalText( "\xc2\x9b"
                            "1m \xc2\xa0 é" ),
         "\\x9b1m \xc2\xa0 é" ); // C1 goes, other text stays
}

TEST( TerminalText, IsMeasuredAndCutInColumns ) {
   ASSERT_TRUE( std::setlocale( LC_CTYPE, "C.UTF-8" ) );
   EXPECT_EQ( displayColumns( "aé中\tb\xff" ), 10u );
   EXPECT_EQ( displayCut( "aé中b", 3 ), "aé" );
   EXPECT_EQ( displayCut( "aé中b", 4 ), "aé中" );
}

class Collected final : public Output {
 public:
   void write( std::string_view more ) override { text += more; }
   void redraw( const std::string & whole ) override { text = whole; }
   std::string text;
};

TEST( Match, PassesWholeLinesHoweverTheyCome ) {
   Collected out;
   MatchOutput match( "^(web|db) .*up$", out );
   for ( const auto * piece : { "we", "b 1 up\nweb 2 do", "wn\n", "db 3 up\nxdb 4 up\ndb 5 ", "up" } ) {
      match.write( piece );
   }
   EXPECT_EQ( out.text, "web 1 up\ndb 3 up\n" );
   match.end();
   EXPECT_EQ( out.text, "web 1 up\ndb 3 up\ndb 5 up\n" );
   EXPECT_THROW( MatchOutput( "(", out ), std::invalid_argument );
}

class Pages : public ::testing::Test {
 protected:
   /// Shows `text` on a terminal of 5 rows and 10 columns to somebody who presses `keys`.
   std::string shown( const std::string & text, std::string keys ) {
      std::string seen;
      Pager pager( { [] {
                       return TerminalSize{ 5, 10 };
                    },
            [&]( std::string_view part ) { seen += part.starts_with( "\r" ) ? "" : part; },
            [&]( std::string_view ) {
               seen += "?";
               if ( keys.empty() ) {
                  throw Interrupted();
               }
               const char key = keys.front();
               keys.erase( 0, 1 );
               return key;
            },
            []( const std::string & ) {} } );
      try {
         for ( const char c : text ) {
            pager.write( std::string( 1, c ) );
         }
         pager.end();
      } catch ( const Interrupted & ) {
         seen += "!";
      }
      return seen;
   }
};

TEST_F( Pages, StopAfterEachScreen ) {
   EXPECT_EQ( shown( "1\n2\n3\n4\n", "" ), "1\n2\n3\n4\n" );
   EXPECT_EQ( shown( "1\n2\n3\n4\n5\n6\n7\n8\n9\n", "x " ), "1\n2\n3\n4\n??5\n6\n7\n8\n?!" );
   EXPECT_EQ( shown( "1\n2\n3\n4\n5\n6\n7\n8\n9\n", "G" ), "1\n2\n3\n4\n?5\n6\n7\n8\n9\n" );
}

TEST_F( Pages, CountRowsOfLinesThatWrap ) {
   const std::string ten = "0123456789", eleven = ten + "x", endless( 100, 'e' );
   EXPECT_EQ( shown( ten + "\n2\n3\n4\n", "" ), ten + "\n2\n3\n4\n" );
   EXPECT_EQ( shown( eleven + "\n2\n3\n4\n", "" ), eleven + "\n2\n3\n?!" );
   EXPECT_EQ( shown( endless + "\n2\n", " " ), endless + "\n?2\n" );
   EXPECT_EQ( shown( "1\n2\n" + endless + "\n2\n", "\n\n" ), "1\n2\n?" + endless + "\n?2\n" );
}

} // namespace hmctl
