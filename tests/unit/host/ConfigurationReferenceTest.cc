#include "tests/unit/host/TestState.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include <gmock/gmock.h>

namespace host {

using namespace platform;

/// The documents against the descriptions of the entities, and the examples against the checker.
class Reference : public StateTest {
 protected:
   struct Row {
      std::string type, range, initial;
   };
   template<class Each>
   static void linesRead( const std::string & file, const Each & each ) {
      std::ifstream stream( HM_SOURCE_DIR "/docs/" + file );
      for ( std::string line; std::getline( stream, line ); ) {
         each( line );
      }
   }
   static std::string keyWord( const CollectionInfo & collection ) {
      const auto key = collection.keyTypeName();
      return key == "interface name" ? "/INTERFACE" : key == "IP address" ? "/ADDRESS" : "/NAME";
   }
   void compare( const EntityType & type, const std::string & path ) {
      for ( const auto * attribute : type.attributes() ) {
         const auto name = path + "/" + attribute->name();
         ASSERT_TRUE( documented.contains( name ) ) << name << " is not in the reference";
         const auto row = documented.extract( name ).mapped();
         if ( const auto * child = attribute->child() ) {
            EXPECT_EQ( row.type, "entity" ) << name;
            compare( child->childType(), name );
         } else if ( const auto * collection = attribute->collection() ) {
            stored[name] = "set";
            EXPECT_EQ( row.type, "collection by " + collection->keyTypeName() ) << name;
            compare( collection->entryType(), name + keyWord( *collection ) );
         } else if ( const auto * set = attribute->set() ) {
            stored[name] = "set";
            EXPECT_EQ( row.type, "set of " + set->keyTypeName() ) << name;
         } else {
            stored[path] = "hash";
            EXPECT_EQ( row.type, attribute->scalar()->typeName() ) << name;
            EXPECT_EQ( row.initial, attribute->scalar()->defaultText() ) << name;
            compareRange( *attribute->scalar(), row, name );
         }
      }
   }
   // The ends of the range are accepted, and what is just outside of one that is narrower than the type is
   // not.
   static void compareRange( const ScalarInfo & scalar, const Row & row, const std::string & name ) {
      const auto integer = row.type.starts_with( "integer " );
      const auto range = integer && row.range.empty() ? row.type.substr( 8 ) : row.range;
      const auto dots = range.find( ".." );
      if ( dots == range.npos ) {
         return;
      }
      const auto lowest = range.substr( 0, dots ), highest = range.substr( dots + 2 );
      EXPECT_FALSE( scalar.check( lowest ) || scalar.check( highest ) ) << name;
      if ( !row.range.empty() ) {
         const auto step = integer ? 1 : 0.01;
         EXPECT_TRUE( scalar.check( fmt::format( "{}", std::stod( lowest ) - step ) ) ) << name;
         EXPECT_TRUE( scalar.check( fmt::format( "{}", std::stod( highest ) + step ) ) ) << name;
      }
   }

   std::map<std::string, Row> documented;
   std::map<std::string, std::string> stored; // path: what of it a store holds
};

TEST_F( Reference, SaysWhatTheEntitiesSay ) {
   const std::regex heading( "`([^`]+)`" ), row( R"(\| `(\w+)` \| (.*) \| ?(\S*) \| `(.*)` \| .+ \|)" );
   std::vector<std::string> paths;
   linesRead( "configuration.md", [&]( const std::string & line ) {
      std::smatch match;
      if ( line.starts_with( "### " ) ) {
         paths.assign( std::sregex_token_iterator( line.begin(), line.end(), heading, 1 ), {} );
      } else if ( std::regex_match( line, match, row ) ) {
         for ( const auto & path : paths ) {
            documented[path + "/" + match.str( 1 )] = {
                  std::regex_replace( match.str( 2 ), std::regex( R"(\\\|)" ), "|" ), match.str( 3 ),
                  match.str( 4 ) == R"("")" ? "" : match.str( 4 ) };
         }
      }
   } );
   for ( const auto & root : schema->roots() ) {
      compare( *root.type, root.path );
   }
   for ( const auto & [name, unknown] : documented ) {
      ADD_FAILURE() << name << " is in the reference and is no attribute";
   }

   // The keys of a store that others read.
   std::map<std::string, std::string> keys;
   const std::regex keyRow( R"(\| `([\w/]+)` \| (hash|set) \| .+ \|)" );
   linesRead( "state.md", [&]( const std::string & line ) {
      std::smatch match;
      if ( std::regex_match( line, match, keyRow ) ) {
         EXPECT_TRUE( keys.emplace( match.str( 1 ), match.str( 2 ) ).second ) << line;
      }
   } );
   std::erase_if( stored, []( const auto & each ) { return each.first.starts_with( HostStatus::path ); } );
   EXPECT_EQ( keys, stored );
}

TEST_F( Reference, ExamplesAreAccepted ) {
   int count = 0;
   for ( const auto & file : std::filesystem::recursive_directory_iterator( HM_SOURCE_DIR "/examples" ) ) {
      if ( file.path().extension() == ".yaml" ) {
         SCOPED_TRACE( file.path() );
         std::ifstream stream( file.path() );
         checked( { std::istreambuf_iterator<char>( stream ), {} } );
         ++count;
      }
   }
   EXPECT_GT( count, 0 );
}

} // namespace host
