#include "hmctl/Completion.h"
#include "hmctl/Commands.h"

#include <gmock/gmock.h>

namespace hmctl {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using Json = nlohmann::json;

/// A small state database, as the host tells of it.
class KnownPaths final : public Lookup {
 public:
   Json complete( const std::string & path, const std::string & begin, bool configurationOnly ) override {
      asked.push_back( path + "|" + begin );
      auto attribute = []( const char * name, const char * kind, const char * type ) {
         return Json{ { "name", name }, { "kind", kind }, { "type", type } };
      };
      const std::string config = "healthMonitor/config/serverConfig";
      if ( path.empty() ) {
         return { { "kind", "beginning" },
               { "keys", configurationOnly ? Json{ "healthMonitor" } : Json{ "healthMonitor", "host" } } };
      }
      if ( path == config ) {
         return { { "kind", "entity" }, { "attributes", { attribute( "nhgConfig", "collection", "text" ),
                                                              attribute( "enabled", "scalar", "boolean" ),
                                                              attribute( "mode", "scalar", "fast | slow" ),
                                                              attribute( "extra", "child", "Extra" ) } } };
      }
      if ( path == config + "/nhgConfig" ) {
         return { { "kind", "collection" }, { "keys", { "a b", "web", "x/y" } }, { "more", true } };
      }
      if ( path == config + "/nhgConfig/web" ) {
         return { { "kind", "entity" }, { "attributes", { attribute( "serverIp", "set", "IP address" ) } } };
      }
      if ( path == config + "/nhgConfig/web/serverIp" ) {
         return { { "kind", "set" }, { "keys", { "10.1.1.1", "::1" } } };
      }
      throw std::runtime_error( "no such path" );
   }
   std::vector<std::string> facilities() override { return { "Host", "NetCHASM" }; }
   std::vector<std::string> asked;
};

class Complete : public ::testing::Test {
 protected:
   Complete() {
      commands.push_back( hostCommand( { "show", "hm", "delay" }, "delays", "[interval SECONDS]" ) );
      commands.push_back( hostCommand( { "show", "hm", "summary" }, "in short", "" ) );
   }
   std::vector<std::string> words( const std::string & line ) {
      last = completions( line, commands, lookup );
      std::vector<std::string> texts;
      for ( const auto * choice : last.insertable() ) {
         texts.push_back( choice->text );
      }
      return texts;
   }
   std::string shown( const std::string & line ) {
      words( line );
      return choiceList( last, 100 );
   }
   std::vector<Command> commands = ownCommands( true );
   KnownPaths lookup;
   Completions last;
   const std::string config = "healthMonitor/config/serverConfig/";
};

TEST_F( Complete, WordsOfCommandsAbbreviatedOrNot ) {
   EXPECT_THAT( words( "s" ), ElementsAre( "set", "status", "show" ) );
   EXPECT_THAT( words( "sh " ), ElementsAre( "hm" ) );
   EXPECT_THAT( words( "sh h s" ), ElementsAre( "summary" ) );
   EXPECT_THAT( words( "sh hm delay i" ), ElementsAre( "interval" ) );
   EXPECT_THAT( words( "x y" ), IsEmpty() );
   EXPECT_THAT( words( "s x" ), IsEmpty() );
   EXPECT_THAT( words( "trace N" ), ElementsAre( "NetCHASM" ) );
   EXPECT_THAT( words( "help wa" ), IsEmpty() );
   EXPECT_THAT( words( "get | m" ), ElementsAre( "match" ) );
   EXPECT_TRUE( lookup.asked.empty() );
}

TEST_F( Complete, PathsComponentByComponent ) {
   EXPECT_THAT( words( "get h" ), ElementsAre( "healthMonitor/", "host/" ) );
   EXPECT_TRUE( last.choices.front().goesOn );
   EXPECT_THAT( words( "set h" ), ElementsAre( "healthMonitor/" ) );
   EXPECT_THAT( words( "get " + config ),
         ElementsAre( config + "nhgConfig/", config + "enabled", config + "mode", config + "extra/" ) );
   EXPECT_THAT( words( "set " + config ), ElementsAre( config + "nhgConfig/", config + "extra/" ) );
   EXPECT_THAT( words( "get " + config + "nhgConfig/x%2" ), ElementsAre( config + "nhgConfig/x%2Fy/" ) );
   EXPECT_THAT( lookup.asked.back(), "healthMonitor/config/serverConfig/nhgConfig|x" );
   EXPECT_TRUE( last.more );
   EXPECT_THAT( words( "set " + config + "nhgConfig/web/" ), IsEmpty() );
   EXPECT_THAT(
         words( "del " + config + "nhgConfig/web/" ), ElementsAre( config + "nhgConfig/web/serverIp" ) );
   EXPECT_THAT( words( "get " + config + "nhgConfig/web/serverIp/" ), IsEmpty() ); // members are no paths
   EXPECT_THAT( words( "get 'healthMonitor/config/serverConfig/nhgConfig/a " ),
         ElementsAre( config + "nhgConfig/a b/" ) );
   EXPECT_EQ( last.begin, 4u );
}

TEST_F( Complete, AttributesValuesGroupsAndServers ) {
   EXPECT_THAT( words( "set " + config + " " ), ElementsAre( "nhgConfig", "enabled", "mode" ) );
   EXPECT_THAT( words( "set " + config + " enabled t" ), ElementsAre( "true" ) );
   EXPECT_THAT( words( "set " + config + " mode " ), ElementsAre( "fast", "slow" ) );
   EXPECT_THAT( shown( "set " + config + " nhgConfig " ), HasSubstr( "VALUE  collection of text" ) );
   EXPECT_THAT( words( "del " + config + "nhgConfig x" ), ElementsAre( "x/y" ) );
   EXPECT_THAT( words( "probe " ), ElementsAre( "a b", "web", "x/y" ) );
   EXPECT_THAT( words( "probe web :" ), ElementsAre( "::1" ) );
   EXPECT_ANY_THROW( words( "probe x/y " ) );
   EXPECT_EQ( lookup.asked.back(), config + "nhgConfig/x%2Fy/serverIp|" );
}

TEST_F( Complete, HelpListsOptionsAndTheEnd ) {
   EXPECT_THAT( shown( "get " ), HasSubstr( "--config" ) );
   EXPECT_THAT( words( "get " ), Not( Contains( "--config" ) ) );
   EXPECT_THAT( words( "get --c" ), ElementsAre( "--config" ) );
   EXPECT_THAT( words( "get --config --c" ), IsEmpty() );
   EXPECT_THAT( shown( "get " ), HasSubstr( "<Enter>" ) );
   EXPECT_THAT( shown( "probe web " ), Not( HasSubstr( "<Enter>" ) ) );
   EXPECT_THAT( shown( "trace Host " ), Not( HasSubstr( "<Enter>" ) ) );
   EXPECT_THAT( shown( "trace Host 0-4 " ), HasSubstr( "<Enter>" ) );
   // A question mark belongs to the text where any text does.
   for ( const auto & [line, free] : std::vector<std::pair<std::string, bool>>{ { "get", false },
               { "set " + config + " nhgConfig http://x/", true }, { "set " + config + " nhgConfig ", false },
               { "get 'a", true }, { "get | match ab", true } } ) {
      words( line );
      EXPECT_EQ( last.freeText(), free ) << line;
   }
}

TEST_F( Complete, ListsAreCut ) {
   words( "" );
   const auto all = last.choices.size();
   const auto text = choiceList( last, 4 );
   EXPECT_EQ( std::ranges::count( text, '\n' ), 4 );
   EXPECT_THAT( text, HasSubstr( "… and " + std::to_string( all - 3 ) + " more" ) );
}

} // namespace hmctl
