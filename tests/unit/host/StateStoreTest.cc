#include "host/SqliteStore.h"

#include "host/StateKeeper.h"
#include "host/StateWriter.h"
#include "tests/unit/host/TestState.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <sqlite3.h>

namespace host {

using namespace platform;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

/// One run of a host, as far as its state goes.
class HostRun : public StateTest {
 public:
   void TestBody() override {}

   Refusal begin( const Ptr<StateStore> & store ) {
      StateKeeper::Services services;
      services.mainLoop = loop;
      services.scheduler = scheduler;
      services.entityManager = manager;
      services.report = [this]( const std::string & line ) { reported.push_back( line ); };
      services.changeEnded = [this]( const ChangeOutcome & outcome ) { outcomes.push_back( outcome ); };
      services.refusals = [this]( std::uint64_t count ) { refusals += count; };
      keeper = new StateKeeper( services, storedRoots( *manager, *schema ), store );
      return keeper->restore();
   }
   Refusal begin( const std::string & file ) { return begin( new SqliteStore( file, loop ) ); }
   void queueStart() {
      queue = new ConfigQueue( loop, manager, scheduler, schema );
      keeper->agentStarted( queue, {} );
   }
   void apply( const std::string & text ) {
      Applier applier( manager, checked( text ) );
      while ( applier.step() ) {}
   }
   void end() {
      keeper->finish();
      keeper = nullptr;
   }
   /// All of it, as `hmctl get` prints it.
   std::string text() const {
      std::vector<StateWriter::Section> sections;
      for ( const auto & root : storedRoots( *manager, *schema ) ) {
         SchemaPlace place{ root.path };
         place.type = root.type;
         sections.push_back( { place, manager->entity( root.path ) } );
      }
      StateWriter writer( StateWriter::Format::yaml, sections );
      std::string all;
      while ( writer.write( all ) ) {}
      return all;
   }
   Ptr<HmState::ServerStatus> status() const {
      return root<HmState::ServerStatus>( "healthMonitor/status/serverStatus" );
   }
   using StateTest::loop;
   using StateTest::manager;
   using StateTest::probeConfig;
   using StateTest::scheduler;
   using StateTest::schema;
   using StateTest::serverConfig;
   using StateTest::turnUntil;

   Ptr<StateKeeper> keeper;
   Ptr<ConfigQueue> queue;
   std::vector<std::string> reported;
   std::vector<ChangeOutcome> outcomes;
   std::uint64_t refusals = 0;
};

} // namespace

class Sqlite : public ::testing::Test {
 protected:
   Sqlite() {
      char name[] = "/tmp/hm-store-XXXXXX";
      directory = mkdtemp( name );
      file = directory + "/state.db";
   }
   ~Sqlite() override { std::filesystem::remove_all( directory ); }

   // A database with something in it, by whatever statements.
   void statements( const std::string & sql ) const {
      sqlite3 * db = nullptr;
      ASSERT_EQ( sqlite3_open( file.c_str(), &db ), SQLITE_OK );
      EXPECT_EQ( sqlite3_exec( db, sql.c_str(), nullptr, nullptr, nullptr ), SQLITE_OK )
            << sqlite3_errmsg( db );
      sqlite3_close( db );
   }
   std::vector<std::string> files() const {
      std::vector<std::string> names;
      for ( const auto & each : std::filesystem::directory_iterator( directory ) ) {
         names.push_back( each.path().filename() );
      }
      return names;
   }
   std::string directory, file;
};

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

void publish( const Ptr<HmState::ServerStatus> & status, const char * group, const char * server, bool up ) {
   const auto entry =
         status->nhgProbeStatusIs( group )->serverProbeStatusIs( *IpGenAddr::fromText( server ) );
   entry->operStateIs( up ? HmState::ServerOperState::up : HmState::ServerOperState::down );
   entry->sinceIs( 1'790'000'000'123 );
   entry->lastChangeIs( "old state: \"x\", new state: é" );
   entry->weightIs( 7 );
}

TEST_F( Sqlite, WhatOneRunLeavesTheNextOneHas ) {
   std::string left;
   {
      HostRun first;
      ASSERT_EQ( first.begin( file ), std::nullopt );
      first.apply( everything );
      publish( first.status(), "a/b%", "10.0.0.1", true );
      publish( first.status(), "web", "10.0.0.2", true );
      first.end();
      left = first.text();
   }
   struct Step {
      const char * name;
      std::function<void( HostRun & )> change;
   };
   const Step steps[] = { { "nothing", []( HostRun & ) {} },
         { "values", []( HostRun & run ) { run.probeConfig()->probeIntervalIs( Seconds{ 7 } ); } },
         { "an entry comes and goes",
               []( HostRun & run ) {
                  publish( run.status(), "db", "::1", true );
                  run.status()->nhgProbeStatusDel( "db" );
               } },
         { "an entry goes and comes back with less",
               []( HostRun & run ) {
                  publish( run.status(), "web", "10.0.0.3", false );
                  run.status()->nhgProbeStatusDel( "web" );
                  publish( run.status(), "web", "10.0.0.4", false );
               } },
         { "members",
               []( HostRun & run ) {
                  run.apply( "healthMonitor/config/serverConfig/nhgConfig/web: { serverIp: [ 10.0.0.7 ] }\n"
                             "healthMonitor/config/probeConfig/pingDisabledVip: [ 10.0.0.8 ]\n" );
               } },
         { "nearly all goes", []( HostRun & run ) {
             run.apply( "healthMonitor/config/probeConfig: {}\nhealthMonitor/config/serverConfig: {}\n" );
          } } };
   for ( const auto & step : steps ) {
      HostRun run;
      ASSERT_EQ( run.begin( file ), std::nullopt ) << step.name;
      EXPECT_EQ( run.text(), left ) << "before: " << step.name;
      EXPECT_THAT( run.reported, IsEmpty() ) << step.name;
      step.change( run );
      run.end();
      left = run.text();
   }
}

TEST_F( Sqlite, ChangesAreThereWithoutAnEnd ) {
   HostRun run;
   ASSERT_EQ( run.begin( file ), std::nullopt );
   run.apply( everything );
   publish( run.status(), "web", "10.0.0.1", true );
   const auto stored = [&] {
      sqlite3 * db = nullptr;
      sqlite3_open_v2( file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr );
      sqlite3_stmt * statement = nullptr;
      int count = 0;
      if ( sqlite3_prepare_v2( db, "SELECT count(*) FROM entity WHERE attributes ->> 'operState' = 'up'", -1,
                 &statement, nullptr ) == SQLITE_OK &&
            sqlite3_step( statement ) == SQLITE_ROW ) {
         count = sqlite3_column_int( statement, 0 );
      }
      sqlite3_finalize( statement );
      sqlite3_close( db );
      return count == 1;
   };
   EXPECT_TRUE( run.turnUntil( stored ) );
   run.end();
}

TEST_F( Sqlite, OneWriterAtATime ) {
   HostRun first, second, other;
   ASSERT_EQ( first.begin( file ), std::nullopt );
   EXPECT_THAT( second.begin( file ).value_or( "" ),
         HasSubstr( "another host writes it (process " + std::to_string( getpid() ) + ")" ) );
   std::filesystem::create_symlink( file, directory + "/other" );
   EXPECT_THAT( other.begin( directory + "/other" ).value_or( "" ), HasSubstr( "another host writes it" ) );
   first.end();
   HostRun third;
   EXPECT_EQ( third.begin( file ), std::nullopt );
   third.end();
}

TEST_F( Sqlite, FilesThatAreNotOurs ) {
   struct Row {
      const char * name;
      std::function<void()> make;
      const char * refusal; // or null: set aside
   };
   const auto begun = [this] {
      HostRun run;
      ASSERT_EQ( run.begin( file ), std::nullopt );
      run.apply( everything );
      run.end();
   };
   const Row rows[] = { { "text", [this] { std::ofstream( file ) << std::string( 8192, 'x' ); }, nullptr },
         { "cut off",
               [&] {
                  begun();
                  std::filesystem::resize_file( file, 5000 );
               },
               nullptr },
         { "tables that are missing",
               [&] {
                  begun();
                  statements( "DROP TABLE member" );
               },
               nullptr },
         { "values that are none",
               [&] {
                  begun();
                  statements( "UPDATE entity SET attributes = '[1]'" );
               },
               nullptr },
         { "a value without end",
               [&] {
                  begun();
                  statements( "UPDATE entity SET attributes = zeroblob( 5000000 )" );
               },
               nullptr },
         { "of something else", [this] { statements( "CREATE TABLE people( name )" ); },
               "is a database of something else" },
         { "of another version",
               [&] {
                  begun();
                  statements( "PRAGMA user_version = 2" );
               },
               "was written by another version" } };
   for ( const auto & row : rows ) {
      std::filesystem::remove_all( directory );
      std::filesystem::create_directory( directory );
      row.make();
      HostRun run;
      const auto refusal = run.begin( file );
      if ( row.refusal ) {
         EXPECT_THAT( refusal.value_or( "" ), HasSubstr( row.refusal ) ) << row.name;
         continue;
      }
      ASSERT_EQ( refusal, std::nullopt ) << row.name;
      EXPECT_THAT( run.reported, ElementsAre( HasSubstr( "set aside as " + file + ".damaged-2" ) ) )
            << row.name;
      EXPECT_THAT( files(), ::testing::Contains( ::testing::StartsWith( "state.db.damaged-2" ) ) )
            << row.name;
      // It goes on with a new one.
      run.apply( everything );
      const auto left = run.text();
      run.end();
      HostRun next;
      ASSERT_EQ( next.begin( file ), std::nullopt ) << row.name;
      EXPECT_EQ( next.text(), left ) << row.name;
      next.end();
   }
}

TEST_F( Sqlite, AGroupThatCannotStandCostsNoOther ) {
   const auto begun = [this]( HostRun & run ) { ASSERT_EQ( run.begin( file ), std::nullopt ); };
   {
      HostRun run;
      begun( run );
      run.apply( everything );
      run.end();
   }
   statements(
         "INSERT INTO member VALUES( 'healthMonitor/config/serverConfig/nhgConfig/web/serverIp', '::1' ), "
         "( 'healthMonitor/config/serverConfig/nhgConfig/web/serverIp', '10.0.0.5' )" );
   HostRun run;
   begun( run );
   EXPECT_THAT(
         run.reported, ElementsAre( HasSubstr( "nhgConfig/web: serverIp: " ), HasSubstr( "left out" ) ) );
   EXPECT_EQ( run.refusals, 1u );
   ASSERT_EQ( run.serverConfig()->nhgConfigCount(), 1u );
   EXPECT_EQ( run.serverConfig()->nhgConfig( "a/b%" )->serverIpCount(), 2u );
   EXPECT_EQ( run.probeConfig()->probeInterval(), Seconds{ 0.5 } );
   EXPECT_TRUE( run.probeConfig()->nhgProbeConfigHas( "web" ) );
   run.end();
   HostRun next; // the store says what is in force
   begun( next );
   EXPECT_THAT( next.reported, IsEmpty() );
   EXPECT_EQ( next.text(), run.text() );
   next.end();
}

TEST( Stored, WhatTheDescriptionsRefuseIsLeftOutAndNamed ) {
   HostRun run;
   const std::string config = "healthMonitor/config/";
   struct Row {
      const char * name;
      std::function<void( StoredState & )> change;
      const char * error; // or empty
   };
   const Row rows[] = {
         { "value", [&]( auto & s ) { s.fields[config + "probeConfig"].emplace_back( "niceValue", "99" ); },
               "probeConfig: niceValue: \"99\"" },
         { "no attribute",
               [&]( auto & s ) { s.fields[config + "probeConfig"].emplace_back( "colour", "red" ); },
               "probeConfig: colour: is no single value" },
         { "a set as a value",
               [&]( auto & s ) {
                  s.fields[config + "probeConfig"].emplace_back( "pingDisabledVip", "10.0.0.1" );
               },
               "pingDisabledVip: is no single value" },
         { "key",
               [&]( auto & s ) {
                  s.keys[config + "serverConfig/nhgConfig/web/serverIp"].push_back( "10.0.0" );
               },
               "serverIp: \"10.0.0\"" },
         { "what the store keeps back",
               [&]( auto & s ) { s.refused.emplace_back( config + "probeConfig", "is a list" ); },
               "probeConfig: is a list" },
         { "another form",
               [&]( auto & s ) {
                  s.keys[config + "serverConfig/nhgConfig/web/serverIp"].push_back( "2001:DB8:0::1" );
               },
               "" },
         { "beside all paths", [&]( auto & s ) { s.fields[config + "serverConfig/nhgConfig/gone"]; }, "" } };
   for ( const auto & row : rows ) {
      StoredState state;
      state.fields[config + "probeConfig"] = { { "probeInterval", "3" } };
      state.keys[config + "serverConfig/nhgConfig"] = { "web" };
      state.keys[config + "serverConfig/nhgConfig/web/serverIp"] = { "2001:db8::1" };
      bool untidy = true;
      EXPECT_THAT( storedChange( storedRoots( *run.manager, *run.schema ), state, "store", untidy )->errors,
            IsEmpty() );
      EXPECT_FALSE( untidy );
      row.change( state );
      const auto change = storedChange( storedRoots( *run.manager, *run.schema ), state, "store", untidy );
      EXPECT_TRUE( untidy ) << row.name;
      if ( *row.error ) {
         EXPECT_THAT( change->errors, ElementsAre( HasSubstr( row.error ) ) ) << row.name;
      } else {
         EXPECT_THAT( change->errors, IsEmpty() ) << row.name;
      }
      // The rest of it stands.
      Applier applier( run.manager, change );
      while ( applier.step() ) {}
      EXPECT_EQ( run.probeConfig()->probeInterval(), Seconds{ 3 } ) << row.name;
      EXPECT_EQ( run.serverConfig()->nhgConfig( "web" )->serverIpCount(), 1u ) << row.name;
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
         for ( const auto & change : batch->changes ) {
            if ( !batch->whole.empty() ) {
               break;
            }
            line += change.kind == StoreChange::Kind::insert ? " +" + change.key
                    : change.kind == StoreChange::Kind::remove
                          ? " -" + change.key
                          : " " + change.path.substr( change.path.rfind( '/' ) + 1 );
            for ( const auto & [name, value] : change.fields ) {
               line += " " + name + "=" + value;
            }
         }
         lines_.push_back( line );
      } else if ( const auto read = dynamicPtrCast<StoreRead>( request ) ) {
         stamp = read->stamp;
         lines_.push_back( "read" );
      } else if ( const auto refusal = dynamicPtrCast<StoreRefusal>( request ) ) {
         lines_.push_back( "refused " + refusal->errors.front() );
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
      run.queueStart();
   }
   ~Keeping() override {
      run.end();
      run.queue = nullptr;
   }
   void written() { store->tell( StoreEvent::Kind::written ); }
   std::vector<std::string> next( std::size_t count = 1 ) {
      EXPECT_TRUE( run.turnUntil( [&] { return store->got( count ); } ) );
      return store->taken();
   }
   void foreign( const std::string & interval ) {
      store->tell( StoreEvent::Kind::foreign );
      ASSERT_THAT( next(), ElementsAre( "read" ) );
      answer( interval );
   }
   void answer( const std::string & interval ) {
      StoredState state;
      state.fields["healthMonitor/config/probeConfig"] = { { "probeInterval", interval } };
      const Ptr<StoreEvent> event = new StoreEvent( StoreEvent::Kind::content );
      event->stamp = store->stamp;
      event->change = storedChange(
            { { "healthMonitor/config/probeConfig", &HmState::ProbeConfig::entityType(), true } }, state,
            "store", event->untidy );
      store->tell( event );
   }

   HostRun run;
   const Ptr<Notebook> store = new Notebook( run.loop );
};

TEST_F( Keeping, OneBatchIsUnderWayAndPlacesGather ) {
   run.probeConfig()->probeIntervalIs( Seconds{ 1 } );
   run.serverConfig()->nhgConfigIs( "web" )->serverIpIs( *IpGenAddr::fromText( "10.0.0.1" ) );
   EXPECT_THAT( next(), ElementsAre( "batch probeConfig probeInterval=1 +web +10.0.0.1" ) );
   for ( int i = 2; i < 9; ++i ) {
      run.probeConfig()->probeIntervalIs( Seconds( i ) );
      run.loop->runOnce();
   }
   run.serverConfig()->nhgConfigDel( "web" );
   run.serverConfig()->nhgConfigIs( "web" );
   EXPECT_THAT( store->taken(), IsEmpty() );
   written();
   EXPECT_THAT( next(), ElementsAre( "batch probeConfig probeInterval=8 -web +web" ) );
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
   foreign( "3" );
   EXPECT_TRUE( run.turnUntil( [&] { return run.probeConfig()->probeInterval() == Seconds{ 3 }; } ) );
   EXPECT_THAT( next(), ElementsAre( "batch probeConfig probeInterval=3" ) );
   written();

   store->tell( StoreEvent::Kind::foreign );
   ASSERT_THAT( next(), ElementsAre( "read" ) );
   run.probeConfig()->probeIntervalIs( Seconds{ 4 } );
   answer( "5" );
   EXPECT_THAT( next(), ElementsAre( "batch probeConfig probeInterval=4" ) );
   written();
   EXPECT_THAT( next(), ElementsAre( "read" ) );
   EXPECT_EQ( run.probeConfig()->probeInterval(), Seconds{ 4 } );
}

TEST_F( Keeping, WhatIsRefusedIsToldAndPutBack ) {
   foreign( "soon" );
   EXPECT_THAT( next( 2 ),
         ElementsAre( HasSubstr( "refused store: healthMonitor/config/probeConfig: probeInterval: \"soon\"" ),
               "whole batch" ) );
   EXPECT_EQ( run.probeConfig()->probeInterval(), Seconds{ 5 } );
   EXPECT_EQ( run.refusals, 1u );
   EXPECT_THAT( run.outcomes.back().errors, ElementsAre( HasSubstr( "soon" ) ) );
}

TEST( StoreUrls, AreReadOrRefused ) {
   struct Row {
      const char * text;
      StoreUrl::Kind kind;
      const char *path, *host;
      unsigned port, database;
   };
   using Kind = StoreUrl::Kind;
   const Row rows[] = { { "memory:", Kind::memory, "", "", 6379, 0 },
         { "sqlite:/var/lib/x.db", Kind::sqlite, "/var/lib/x.db", "", 6379, 0 },
         { "redis://h", Kind::redis, "", "h", 6379, 0 },
         { "redis://10.0.0.1:7000/3", Kind::redis, "", "10.0.0.1", 7000, 3 },
         { "redis://[2001:db8::1]:7000/", Kind::redis, "", "2001:db8::1", 7000, 0 },
         { "redis+unix:/run/r.sock?db=2", Kind::redis, "/run/r.sock", "", 6379, 2 },
         { "redis+unix:///run/r.sock", Kind::redis, "/run/r.sock", "", 6379, 0 } };
   for ( const auto & row : rows ) {
      StoreUrl url;
      EXPECT_EQ( StoreUrl::fromText( row.text, url ), std::nullopt ) << row.text;
      EXPECT_EQ( std::tie( url.kind, url.path, url.host, url.database ),
            std::tuple( row.kind, row.path, row.host, row.database ) )
            << row.text;
      EXPECT_EQ( url.port, row.port ) << row.text;
   }
   for ( const char * text : { "", "memory", "sqlite:", "redis://", "redis://h:0", "redis://h:x/1",
               "redis://h/x", "redis://user:secret@h", "redis+unix:", "redis+unix:/s?db=x", "mysql://h" } ) {
      StoreUrl url;
      EXPECT_THAT( StoreUrl::fromText( text, url ).value_or( "" ), HasSubstr( "expected memory:" ) ) << text;
   }
}

} // namespace host
