#include "hmctl/Completion.h"
#include "hmctl/Commands.h"

#include <map>

#include <gmock/gmock.h>

namespace hmctl {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using Json = nlohmann::json;

const std::string config = "healthMonitor/config/serverConfig/";

/// A small state database, as the host tells of it.
class KnownPaths final : public Lookup {
 public:
   Json complete( const std::string & path, const std::string & begin, bool configurationOnly ) override {
      asked = path + "|" + begin;
      if ( path.empty() ) {
         return { { "kind", "beginning" },
               { "keys", configurationOnly ? Json{ "healthMonitor" } : Json{ "healthMonitor", "host" } } };
      }
      const auto found = answers.find( path + "/" );
      return found == answers.end() ? throw std::runtime_error( "no such path" ) : found->second;
   }
   std::vector<std::string> facilities() override { return { "Host", "NetCHASM" }; }
   std::string asked; // last

 private:
   static Json attribute( const char * name, const char * kind, const char * type ) {
      return { { "name", name }, { "kind", kind }, { "type", type } };
   }
   const std::map<std::string, Json> answers{
         { config,
               { { "kind", "entity" }, { "attributes", { attribute( "nhgConfig", "collection", "text" ),
                                                             attribute( "enabled", "scalar", "boolean" ),
                                                             attribute( "mode", "scalar", "fast | slow" ),
                                                             attribute( "extra", "child", "Extra" ) } } } },
         { config + "nhgConfig/",
               { { "kind", "collection" }, { "keys", { "a b", "web", "x/y" } }, { "more", true } } },
         { config + "nhgConfig/web/",
               { { "kind", "entity" }, { "attributes", { attribute( "serverIp", "set", "IP address" ) } } } },
         { config + "nhgConfig/web/serverIp/", { { "kind", "set" }, { "keys", { "10.1.1.1", "::1" } } } } };
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
};

TEST_F( Complete, WordsPathsAndValues ) {
   const auto groups = config + "nhgConfig/";
   const std::pair<std::string, std::vector<std::string>> lines[] = {
         // Words of commands, abbreviated or not
         { "s", { "set", "status", "show" } },
         { "sh ", { "hm" } },
         { "sh h s", { "summary" } },
         { "sh hm delay i", { "interval" } },
         { "x y", {} },
         { "s x", {} },
         { "trace N", { "NetCHASM" } },
         { "help wa", {} },
         { "get | m", { "match" } },
         { "get --c", { "--config" } },
         { "get --config --c", {} },
         // Paths component by component
         { "get h", { "healthMonitor/", "host/" } },
         { "set h", { "healthMonitor/" } },
         { "get " + config, { groups, config + "enabled", config + "mode", config + "extra/" } },
         { "set " + config, { groups, config + "extra/" } },
         { "get " + groups + "x%2", { groups + "x%2Fy/" } },
         { "set " + groups + "web/", {} },
         { "del " + groups + "web/", { groups + "web/serverIp" } },
         { "get " + groups + "web/serverIp/", {} }, // members are no paths
         { "get '" + groups + "a ", { groups + "a b/" } },
         // Attributes, values, groups and servers
         { "set " + config + " ", { "nhgConfig", "enabled", "mode" } },
         { "set " + config + " enabled t", { "true" } },
         { "set " + config + " mode ", { "fast", "slow" } },
         { "del " + config + "nhgConfig x", { "x/y" } },
         { "probe ", { "a b", "web", "x/y" } },
         { "probe web :", { "::1" } },
   };
   for ( const auto & [line, choices] : lines ) {
      EXPECT_EQ( words( line ), choices ) << line;
   }
}

TEST_F( Complete, TheHostIsAskedForKeysAsTheyAre ) {
   words( "get 'healthMonitor/config/serverConfig/nhgConfig/x%2" );
   EXPECT_EQ( lookup.asked, config + "nhgConfig|x" );
   EXPECT_TRUE( last.more );
   EXPECT_TRUE( last.choices.front().goesOn );
   EXPECT_EQ( last.begin, 4u );
   EXPECT_ANY_THROW( words( "probe x/y " ) );
   EXPECT_EQ( lookup.asked, config + "nhgConfig/x%2Fy/serverIp|" );
}

TEST_F( Complete, HelpListsOptionsAndTheEnd ) {
   EXPECT_THAT( shown( "get " ), HasSubstr( "--config" ) );
   EXPECT_THAT( words( "get " ), Not( Contains( "--config" ) ) );
   EXPECT_THAT( shown( "set " + config + " nhgConfig " ), HasSubstr( "VALUE  collection of text" ) );
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
