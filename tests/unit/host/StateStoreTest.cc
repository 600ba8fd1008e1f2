#include "host/SqliteStore.h"

#include "host/StateKeeper.h"
#include "tests/unit/host/TestState.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <sqlite3.h>

namespace host {

using namespace platform;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

/// One run of a host, as far as its state goes.
struct HostRun : State {
   Refusal begin( const Ptr<StateStore> & store ) {
      StateKeeper::Services services;
      services.mainLoop = loop;
      services.scheduler = scheduler;
      services.entityManager = manager;
      services.report = [this]( const std::string & line ) { reported.push_back( line ); };
      services.changeEnded = []( const ChangeOutcome & ) {};
      services.refusals = [this]( std::uint64_t count ) { refusals += count; };
      keeper = new StateKeeper( services, storedRoots( *manager, *schema ), store );
      return keeper->restore();
   }
   Refusal begin( const std::string & file ) { return begin( new SqliteStore( file, loop ) ); }
   void end() {
      keeper->finish();
      keeper = nullptr;
   }
   void publish( const char * group, const char * server, bool up ) const {
      const auto entry = serverStatus()->nhgProbeStatusIs( group )->serverProbeStatusIs( ip( server ) );
      entry->operStateIs( up ? HmState::ServerOperState::up : HmState::ServerOperState::down );
      entry->sinceIs( 1'790'000'000'123 );
      entry->lastChangeIs( "old state: \"x\", new state: é" );
      entry->weightIs( 7 );
   }
   /// All of it, as `hmctl get` prints it.
   std::string text() const {
      std::string all;
      for ( const auto & root : storedRoots( *manager, *schema ) ) {
         all += written( root.path );
      }
      return all;
   }

   Ptr<StateKeeper> keeper;
   std::vector<std::string> reported;
   std::uint64_t refusals = 0;
};

} // namespace

const std::string everything = R"(
healthMonitor/config/probeConfig:
  monitoringEnabled: true
  probeInterval: 0.5
  niceValue: -3
  pingDisabledVip: [ 10.0.0.9, "2001:db8::9" ]
  encapDstMac: "02:00:00:00:00:01"
  responsePayloadRule: { pattern: "say \"no\"\\n.*", action: 1 }
  nhgProbeConfig: { "a/b%": { httpUrl: "http://10.0.0.1/", timeout: 2 }, web: { disabled: true } }
healthMonitor/config/serverConfig:
  nhgConfig: { "a/b%": { serverIp: [ 10.0.0.1, 10.0.0.2 ] }, web: {} }
ip6/status: { intf: { Lo0: { addr: [ "2001:db8::1/128" ] } } }
mgmt/security/ssl/status: { profileStatus: { corp: { state: valid, caFilePath: /etc/ca.pem } } }
)";

class Sqlite : public ::testing::Test {
 protected:
   Sqlite() {
      char name[] = "/tmp/hm-store-XXXXXX";
      directory = mkdtemp( name );
      file = directory + "/state.db";
   }
   ~Sqlite() override { std::filesystem::remove_all( directory ); }

   /// A whole run on the file. Gives what it leaves.
   std::string runWith( const std::function<void( HostRun & )> & change ) {
      HostRun run;
      EXPECT_EQ( run.begin( file ), std::nullopt );
      found = run.text();
      reported = run.reported;
      change( run );
      run.end();
      return run.text();
   }
   std::string runWithEverything() {
      return runWith( []( HostRun & run ) { run.apply( everything ); } );
   }
   void expectFound( const std::string & text, const std::string & when ) {
      runWith( []( HostRun & ) {} );
      EXPECT_EQ( found, text ) << when;
      EXPECT_THAT( reported, IsEmpty() ) << when;
   }
   void statements( const std::string & sql ) const {
      sqlite3 * db = nullptr;
      ASSERT_EQ( sqlite3_open( file.c_str(), &db ), SQLITE_OK );
      EXPECT_EQ( sqlite3_exec( db, sql.c_str(), nullptr, nullptr, nullptr ), SQLITE_OK )
            << sqlite3_errmsg( db );
      sqlite3_close( db );
   }

   std::string directory, file;
   std::string found;                 // by the last run
   std::vector<std::string> reported; // at its start
};

TEST_F( Sqlite, WhatOneRunLeavesTheNextOneHas ) {
   const std::pair<const char *, std::function<void( HostRun & )>> runs[] = {
         { "all",
               []( HostRun & run ) {
                  run.apply( everything );
                  run.publish( "a/b%", "10.0.0.1", true );
                  run.publish( "web", "10.0.0.2", true );
               } },
         { "values", []( HostRun & run ) { run.probeConfig()->probeIntervalIs( Seconds{ 7 } ); } },
         { "an entry comes and goes",
               []( HostRun & run ) {
                  run.publish( "db", "::1", true );
                  run.serverStatus()->nhgProbeStatusDel( "db" );
               } },
         { "an entry goes and comes back with less",
               []( HostRun & run ) {
                  run.publish( "web", "10.0.0.3", false );
                  run.serverStatus()->nhgProbeStatusDel( "web" );
                  run.publish( "web", "10.0.0.4", false );
               } },
         { "members",
               []( HostRun & run ) {
                  run.apply( servers + "/nhgConfig/web: { serverIp: [ 10.0.0.7 ] }\n" + probe +
                             "/pingDisabledVip: [ 10.0.0.8 ]\n" );
               } },
         { "nearly all goes", []( HostRun & run ) { run.apply( probe + ": {}\n" + servers + ": {}\n" ); } } };
   for ( const auto & [name, change] : runs ) {
      expectFound( runWith( change ), name );
   }
}

TEST_F( Sqlite, OneWriterAtATime ) {
   HostRun first, second, other;
   ASSERT_EQ( first.begin( file ), std::nullopt );
   EXPECT_THAT( second.begin( file ).value_or( "" ),
         HasSubstr( "another host writes it (process " + std::to_string( getpid() ) + ")" ) );
   std::filesystem::create_symlink( file, directory + "/other" );
   EXPECT_THAT( other.begin( directory + "/other" ).value_or( "" ), HasSubstr( "another host writes it" ) );
   first.end();
   runWithEverything();
}

TEST_F( Sqlite, FilesThatAreNotOurs ) {
   const auto sql = [this]( const char * text ) { return [this, text] { statements( text ); }; };
   const struct {
      const char * name;
      std::function<void()> damage;
      const char * refusal = nullptr; // null: set aside
   } rows[] = { { "text", [this] { std::ofstream( file ) << std::string( 8192, 'x' ); } },
         { "cut off", [this] { std::filesystem::resize_file( file, 5000 ); } },
         { "tables that are missing", sql( "DROP TABLE member" ) },
         { "values that are none", sql( "UPDATE entity SET attributes = '[1]'" ) },
         { "a value without end", sql( "UPDATE entity SET attributes = zeroblob( 5000000 )" ) },
         { "of something else",
               [this] {
                  std::filesystem::remove( file );
                  statements( "CREATE TABLE people( name )" );
               },
               "is a database of something else" },
         { "of another version", sql( "PRAGMA user_version = 2" ), "was written by another version" } };
   for ( const auto & row : rows ) {
      std::filesystem::remove_all( directory );
      std::filesystem::create_directory( directory );
      runWithEverything();
      row.damage();
      if ( row.refusal ) {
         HostRun run;
         EXPECT_THAT( run.begin( file ).value_or( "" ), HasSubstr( row.refusal ) ) << row.name;
         continue;
      }
      const auto left = runWithEverything(); // with a new one
      EXPECT_THAT( reported, ElementsAre( HasSubstr( "set aside as " + file + ".damaged-2" ) ) ) << row.name;
      std::vector<std::string> files;
      for ( const auto & each : std::filesystem::directory_iterator( directory ) ) {
         files.push_back( each.path() );
      }
      EXPECT_THAT( files, Contains( StartsWith( file + ".damaged-2" ) ) ) << row.name;
      expectFound( left, row.name );
   }
}

TEST_F( Sqlite, AGroupThatCannotStandCostsNoOther ) {
   runWithEverything();
   const auto members = servers + "/nhgConfig/web/serverIp";
   statements( fmt::format( "INSERT INTO member VALUES( '{0}', '::1' ), ( '{0}', '10.0.0.5' )", members ) );
   const auto left = runWith( []( HostRun & run ) {
      EXPECT_EQ( run.refusals, 1u );
      ASSERT_EQ( run.serverConfig()->nhgConfigCount(), 1u );
      EXPECT_EQ( run.serverConfig()->nhgConfig( "a/b%" )->serverIpCount(), 2u );
      EXPECT_EQ( run.probeConfig()->probeInterval(), Seconds{ 0.5 } );
      EXPECT_TRUE( run.probeConfig()->nhgProbeConfigHas( "web" ) );
   } );
   EXPECT_THAT( reported, ElementsAre( HasSubstr( "nhgConfig/web: serverIp: " ), HasSubstr( "left out" ) ) );
   expectFound( left, "the store says what is in force" );
}

TEST( Stored, WhatStandsOtherwiseThanItIsWrittenIsUntidy ) {
   const State host;
   const auto members = servers + "/nhgConfig/web/serverIp";
   StoredState tidy;
   tidy.fields[probe] = { { "probeInterval", "3" } };
   tidy.keys[servers + "/nhgConfig"] = { "web" };
   tidy.keys[members] = { "2001:db8::1" };
   auto anotherForm = tidy, besideAllPaths = tidy, aSetAsValue = tidy;
   anotherForm.keys[members].push_back( "2001:DB8:0::1" );
   besideAllPaths.fields[servers + "/nhgConfig/gone"];
   aSetAsValue.fields[probe].emplace_back( "pingDisabledVip", "10.0.0.1" );
   for ( const auto * state : { &tidy, &anotherForm, &besideAllPaths, &aSetAsValue } ) {
      bool untidy = state == &tidy;
      const auto change = storedChange( storedRoots( *host.manager, *host.schema ), *state, "store", untidy );
      EXPECT_EQ( untidy, state != &tidy );
      EXPECT_EQ( change->errors.size(), state == &aSetAsValue ? 1u : 0u );
      host.apply( change ); // all the rest of it
      EXPECT_EQ( host.probeConfig()->probeInterval(), Seconds{ 3 } );
      EXPECT_EQ( host.serverConfig()->nhgConfig( "web" )->serverIpCount(), 1u );
   }
}

/// A store that notes what it is given and answers when the test says so.
class Notebook final : public StateStore {
 public:
   explicit Notebook( const Ptr<EventLoop> & loop ) : StateStore( "notebook", loop ) {}
   ~Notebook() override { stop(); }
   Refusal open( StoredState &, std::vector<std::string> & ) override {
      start();
      return std::nullopt;
   }
   bool holdsState() const override { return false; }
   bool isShared() const override { return true; }
   using StateStore::tell;

   /// What came since the last time but for beats, a line each.
   std::vector<std::string> taken() {
      const std::lock_guard lock( mutex_ );
      return std::exchange( lines_, {} );
   }
   bool got( std::size_t count ) {
      const std::lock_guard lock( mutex_ );
      return lines_.size() >= count;
   }

 private:
   void handle( const Ptr<QueueElement> & request ) override {
      const std::lock_guard lock( mutex_ );
      if ( const auto batch = dynamicPtrCast<StoreBatch>( request ) ) {
         std::string line = batch->whole.empty() ? "batch" : "whole batch";
         for ( const auto & change : batch->whole.empty() ? batch->changes : std::vector<StoreChange>{} ) {
            line += change.kind == StoreChange::Kind::insert ? " +" + change.key
                    : change.kind == StoreChange::Kind::remove
                          ? " -" + change.key
                          : change.path.substr( change.path.rfind( '/' ) );
            for ( const auto & [name, value] : change.fields ) {
               line += " " + name + "=" + value;
            }
         }
         lines_.push_back( line );
      } else if ( const auto read = dynamicPtrCast<StoreRead>( request ) ) {
         stamp = read->stamp;
         lines_.push_back( "read" );
      }
   }
   bool idle() override { return true; }

   std::mutex mutex_;
   std::vector<std::string> lines_;

 public:
   std::uint64_t stamp = 0;
};

class Keeping : public ::testing::Test {
 protected:
   Keeping() {
      EXPECT_EQ( run.begin( store ), std::nullopt );
      run.keeper->agentStarted( queue, {} );
   }
   ~Keeping() override { run.end(); }
   void written() { store->tell( StoreEvent::Kind::written ); }
   std::vector<std::string> next( std::size_t count = 1 ) {
      EXPECT_TRUE( run.turnUntil( [&] { return store->got( count ); } ) );
      return store->taken();
   }
   void foreign() {
      store->tell( StoreEvent::Kind::foreign );
      ASSERT_THAT( next(), ElementsAre( "read" ) );
   }
   void answer( const std::string & interval ) {
      StoredState state;
      state.fields[probe] = { { "probeInterval", interval } };
      const Ptr<StoreEvent> event = new StoreEvent( StoreEvent::Kind::content );
      event->stamp = store->stamp;
      event->change = storedChange(
            { { probe, &HmState::ProbeConfig::entityType(), true } }, state, "store", event->untidy );
      store->tell( event );
   }

   HostRun run;
   const Ptr<ConfigQueue> queue = new ConfigQueue( run.loop, run.manager, run.scheduler, run.schema );
   const Ptr<Notebook> store = new Notebook( run.loop );
};

TEST_F( Keeping, OneBatchIsUnderWayAndPlacesGather ) {
   run.probeConfig()->probeIntervalIs( Seconds{ 1 } );
   run.serverConfig()->nhgConfigIs( "web" )->serverIpIs( ip( "10.0.0.1" ) );
   EXPECT_THAT( next(), ElementsAre( "batch/probeConfig probeInterval=1 +web +10.0.0.1" ) );
   for ( int i = 2; i < 9; ++i ) {
      run.probeConfig()->probeIntervalIs( Seconds( i ) );
      run.loop->runOnce();
   }
   run.serverConfig()->nhgConfigDel( "web" );
   run.serverConfig()->nhgConfigIs( "web" );
   EXPECT_THAT( store->taken(), IsEmpty() );
   written();
   EXPECT_THAT( next(), ElementsAre( "batch/probeConfig probeInterval=8 -web +web" ) );
   written();
   store->tell( StoreEvent::Kind::empty );
   EXPECT_THAT( next(), ElementsAre( "whole batch" ) );
}

TEST_F( Keeping, WhoAsksIsToldOnceItIsStored ) {
   std::string told;
   const auto ask = [&]( char name ) { run.keeper->whenStored( [&told, name] { told += name; } ); };
   ask( 'a' );
   EXPECT_EQ( told, "a" ); // there is nothing to store
   run.probeConfig()->probeIntervalIs( Seconds{ 1 } );
   ask( 'b' );
   (void)next();
   run.probeConfig()->probeIntervalIs( Seconds{ 2 } );
   ask( 'c' );
   EXPECT_EQ( told, "a" );
   written();
   (void)next();
   EXPECT_EQ( told, "ab" );
   written();
   EXPECT_TRUE( run.turnUntil( [&] { return told == "abc"; } ) );
   // A store that takes nothing holds up nobody for long, and then nobody at all.
   run.probeConfig()->probeIntervalIs( Seconds{ 3 } );
   ask( 'd' );
   EXPECT_TRUE( run.turnUntil( [&] { return told == "abcd"; } ) );
   ask( 'e' );
   EXPECT_EQ( told, "abcde" );
}

TEST_F( Keeping, ForeignConfigurationIsAppliedUnlessOursIsNewer ) {
   foreign();
   answer( "3" );
   EXPECT_TRUE( run.turnUntil( [&] { return run.probeConfig()->probeInterval() == Seconds{ 3 }; } ) );
   EXPECT_THAT( next(), ElementsAre( "batch/probeConfig probeInterval=3" ) );
   written();

   foreign();
   run.probeConfig()->probeIntervalIs( Seconds{ 4 } );
   answer( "5" );
   EXPECT_THAT( next(), ElementsAre( "batch/probeConfig probeInterval=4" ) );
   written();
   EXPECT_THAT( next(), ElementsAre( "read" ) );
   EXPECT_EQ( run.probeConfig()->probeInterval(), Seconds{ 4 } );
}

TEST( StoreUrls, AreReadOrRefused ) {
   const auto read = []( const std::string & text ) {
      StoreUrl url;
      const auto refusal = StoreUrl::fromText( text, url );
      const char * kinds[] = { "memory", "sqlite", "redis" };
      return refusal.value_or( fmt::format( "{} path '{}' host '{}' port {} database {}",
            kinds[static_cast<int>( url.kind )], url.path, url.host, url.port, url.database ) );
   };
   const std::pair<const char *, const char *> rows[] = {
         { "memory:", "memory path '' host '' port 6379 database 0" },
         { "sqlite:/var/lib/x.db", "sqlite path '/var/lib/x.db' host '' port 6379 database 0" },
         { "redis://h", "redis path '' host 'h' port 6379 database 0" },
         { "redis://10.0.0.1:7000/3", "redis path '' host '10.0.0.1' port 7000 database 3" },
         { "redis://[2001:db8::1]:7000/", "redis path '' host '2001:db8::1' port 7000 database 0" },
         { "redis+unix:/run/r.sock?db=2", "redis path '/run/r.sock' host '' port 6379 database 2" },
         { "redis+unix:///run/r.sock", "redis path '/run/r.sock' host '' port 6379 database 0" },
   };
   for ( const auto & [text, parts] : rows ) {
      EXPECT_EQ( read( text ), parts );
   }
   for ( const char * text : { "", "memory", "sqlite:", "redis://", "redis://h:0", "redis://h:x/1",
               "redis://h/x", "redis://user:secret@h", "redis+unix:", "redis+unix:/s?db=x", "mysql://h" } ) {
      EXPECT_THAT( read( text ), HasSubstr( "expected memory:" ) ) << text;
   }
}

} // namespace host
