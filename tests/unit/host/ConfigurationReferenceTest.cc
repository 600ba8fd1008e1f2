#include "host/Document.h"
#include "host/StoredState.h"
#include "platform/state/Profile.h"
#include "tests/unit/host/TestState.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>

#include <gmock/gmock.h>

namespace host {

using namespace platform;

/// docs/configuration.md against the descriptions of the entities, and the examples against the checker.
class Reference : public StateTest {
 protected:
   struct Row {
      std::string type, range, initial;
   };
   Reference() {
      std::ifstream file( HM_SOURCE_DIR "/docs/configuration.md" );
      std::vector<std::string> paths;
      const std::regex row( R"(\| `(\w+)` \| (.*) \| ?(\S*) \| `(.*)` \| .+ \|)" );
      for ( std::string line; std::getline( file, line ); ) {
         std::smatch match;
         if ( line.starts_with( "### " ) ) {
            paths.clear();
            for ( std::size_t at = line.find( '`' ); at != line.npos;
                  at = line.find( '`', line.find( '`', at + 1 ) + 1 ) ) {
               paths.push_back( line.substr( at + 1, line.find( '`', at + 1 ) - at - 1 ) );
            }
         } else if ( std::regex_match( line, match, row ) ) {
            for ( const auto & path : paths ) {
               documented[path + "/" + match.str( 1 )] = {
                     std::regex_replace( match.str( 2 ), std::regex( R"(\\\|)" ), "|" ), match.str( 3 ),
                     match.str( 4 ) == R"("")" ? "" : match.str( 4 ) };
            }
         }
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
         const auto row = documented[name];
         documented.erase( name );
         if ( const auto * child = attribute->child() ) {
            EXPECT_EQ( row.type, "entity" ) << name;
            compare( child->childType(), name );
         } else if ( const auto * collection = attribute->collection() ) {
            EXPECT_EQ( row.type, "collection by " + collection->keyTypeName() ) << name;
            compare( collection->entryType(), name + keyWord( *collection ) );
         } else if ( const auto * set = attribute->set() ) {
            EXPECT_EQ( row.type, "set of " + set->keyTypeName() ) << name;
         } else {
            const auto & scalar = *attribute->scalar();
            EXPECT_EQ( row.type, scalar.typeName() ) << name;
            EXPECT_EQ( row.initial, scalar.defaultText() ) << name;
            compareRange( scalar, row.range, name );
         }
      }
   }
   // The ends of the range are accepted, and what is just outside is not.
   static void compareRange(
         const ScalarInfo & scalar, const std::string & range, const std::string & name ) {
      const auto dots = range.find( ".." );
      const auto integer = scalar.typeName().starts_with( "integer " );
      if ( dots == range.npos ) {
         const auto all = scalar.typeName().substr( integer ? 8 : 0 );
         if ( integer ) {
            EXPECT_FALSE( scalar.check( all.substr( 0, all.find( ".." ) ) ) ) << name << " has a range";
            EXPECT_FALSE( scalar.check( all.substr( all.find( ".." ) + 2 ) ) ) << name << " has a range";
         }
         return;
      }
      const auto lowest = std::stod( range.substr( 0, dots ) ),
                 highest = std::stod( range.substr( dots + 2 ) );
      const auto step = integer ? 1 : 0.01;
      const auto text = []( double value ) { return fmt::format( "{}", value ); };
      EXPECT_FALSE( scalar.check( text( lowest ) ) ) << name;
      EXPECT_FALSE( scalar.check( text( highest ) ) ) << name;
      EXPECT_TRUE( scalar.check( text( lowest - step ) ) ) << name;
      EXPECT_TRUE( scalar.check( text( highest + step ) ) ) << name;
   }

   std::map<std::string, Row> documented;
};

TEST_F( Reference, SaysWhatTheEntitiesSay ) {
   for ( const auto & root : schema->roots() ) {
      compare( *root.type, root.path );
   }
   for ( const auto & [name, row] : documented ) {
      ADD_FAILURE() << name << " is in the reference and is no attribute";
   }
}

/// docs/state.md: the keys of a store that others read, against the same descriptions.
TEST_F( Reference, SaysWhichKeysThereAre ) {
   std::ifstream file( HM_SOURCE_DIR "/docs/state.md" );
   std::map<std::string, std::string> keys;
   const std::regex row( R"(\| `([\w/]+)` \| (hash|set) \| .+ \|)" );
   for ( std::string line; std::getline( file, line ); ) {
      std::smatch match;
      if ( std::regex_match( line, match, row ) ) {
         EXPECT_TRUE( keys.emplace( match.str( 1 ), match.str( 2 ) ).second ) << line;
      }
   }
   std::map<std::string, std::string> described;
   const std::function<void( const EntityType &, const std::string & )> walk = [&]( const auto & type,
                                                                                     const auto & path ) {
      for ( const auto * attribute : type.attributes() ) {
         const auto below = path + "/" + attribute->name();
         if ( attribute->scalar() ) {
            described[path] = "hash";
         } else if ( const auto * child = attribute->child() ) {
            walk( child->childType(), below );
         } else {
            described[below] = "set";
         }
         if ( const auto * collection = attribute->collection() ) {
            walk( collection->entryType(), below + keyWord( *collection ) );
         }
      }
   };
   for ( const auto & root : storedRoots( *manager, *schema ) ) {
      walk( *root.type, root.path );
   }
   EXPECT_EQ( keys, described );
}

TEST_F( Reference, ExamplesAreAccepted ) {
   int count = 0;
   for ( const auto & file : std::filesystem::directory_iterator( HM_SOURCE_DIR "/examples" ) ) {
      if ( file.path().extension() == ".yaml" ) {
         std::ifstream stream( file.path() );
         ChangeRequest request;
         request.source = file.path().filename();
         request.text.assign( std::istreambuf_iterator<char>( stream ), {} );
         EXPECT_THAT( checkChange( *schema, request )->errors, ::testing::IsEmpty() );
         ++count;
      }
   }
   EXPECT_GT( count, 0 );
}

} // namespace host
