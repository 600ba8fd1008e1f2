#include "EngineFixture.h"
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <thread>

bool Results::storeHostCheckResult( HMCheckData & data ) {
   {
      const std::lock_guard lock{ mutex_ };
      results_.push_back( data );
   }
   came_.notify_all();
   return true;
}

HMCheckData Results::next( const std::function< bool( const HMCheckData & ) > & fits ) {
   std::unique_lock lock{ mutex_ };
   const auto deadline = std::chrono::steady_clock::now() + patience;
   while ( true ) {
      while ( looked_ < results_.size() ) {
         if ( const HMCheckData & data = results_[looked_++]; fits( data ) )
            return data;
      }
      if ( came_.wait_until( lock, deadline ) == std::cv_status::timeout ) {
         ADD_FAILURE() << "no such result among " << results_.size();
         return {};
      }
   }
}

HMCheckData Results::next( const std::string & host ) {
   return next( [&]( const HMCheckData & data ) { return data.m_hostName == host; } );
}

void Results::await( const Hosts & hosts, std::size_t wanted ) {
   std::unique_lock lock{ mutex_ };
   for ( const std::string & host : hosts ) {
      const auto enough = [&] {
         return std::cmp_greater_equal(
               std::ranges::count( results_, host, &HMCheckData::m_hostName ), wanted );
      };
      if ( !came_.wait_for( lock, patience, enough ) )
         ADD_FAILURE() << "fewer than " << wanted << " results for " << host;
   }
}

void Results::awaitMore( const Hosts & hosts, std::size_t more ) {
   std::map< std::string, std::size_t > wanted;
   for ( const std::string & host : hosts )
      wanted[host] = count( host ) + more;
   for ( const auto & [host, number] : wanted )
      await( { host }, number );
}

std::vector< HMCheckData > Results::all() {
   const std::lock_guard lock{ mutex_ };
   return results_;
}

std::vector< HMCheckData > Results::of( const std::string & host ) {
   std::vector< HMCheckData > found = all();
   std::erase_if( found, [&]( const HMCheckData & data ) { return data.m_hostName != host; } );
   return found;
}

void LogLines::writeLog( LogEntry * entry ) {
   const std::lock_guard lock{ mutex_ };
   lines_.emplace_back( entry->m_text );
}

std::size_t LogLines::count( const std::string & part ) {
   const std::lock_guard lock{ mutex_ };
   return static_cast< std::size_t >( std::count_if( lines_.begin(), lines_.end(),
         [&]( const std::string & line ) { return line.find( part ) != std::string::npos; } ) );
}

std::string LogLines::all() {
   const std::lock_guard lock{ mutex_ };
   return fmt::format( "{}", fmt::join( lines_, "\n" ) );
}

TestGroup & TestGroup::numberedHosts( int count ) {
   for ( int i = 1; i <= count; ++i )
      host( std::to_string( i ) );
   return *this;
}

std::string TestGroup::yaml() const {
   std::string text =
         fmt::format( "- name: {}\n  ttl: {}\n  timeout: {}\n  check-retry-delay: {}\n  check-retries: {}\n"
                      "  check-type: {}\n  dns-type: static\n  check-info: /health\n  check-port: {}\n{}",
               name, ttl, timeoutMs, retryDelayMs, checkRetries, checkType, checkPort, more );
   if ( !hosts.empty() )
      text += fmt::format( "  host:\n    - {}\n", fmt::join( hosts, "\n    - " ) );
   return text;
}

EngineFixture::EngineFixture() {
   char name[] = "/tmp/netchasm-test-XXXXXX";
   directory = ::mkdtemp( name );
   engine->logIs( log );
   engine->observerIs( results );
}

EngineFixture::~EngineFixture() {
   engine.reset();
   std::filesystem::remove_all( directory );
}

std::string EngineFixture::file( const std::string & name, const std::string & content ) {
   std::ofstream( directory / name ) << content;
   return directory / name;
}

std::string EngineFixture::files( const std::vector< TestGroup > & groups, const std::string & masterLines ) {
   std::string text;
   for ( const TestGroup & group : groups )
      text += group.yaml();
   const std::string hostFile = file( "hosts.yaml", text );
   return file( "master.yaml",
         fmt::format( "threads.max: {}\nconfig.load-file: {}\n"
                      "db.type: notifier\nlog.type: registered\nsocket.path: /tmp/netchasm\n{}",
               threads, hostFile, masterLines ) );
}

void EngineFixture::start( const std::vector< TestGroup > & groups, const std::string & masterLines ) {
   ASSERT_TRUE( engine->start( files( groups, masterLines ), 9, true ) ) << log->all();
}

void EngineFixture::run( const std::vector< TestGroup > & groups, const std::string & masterLines ) {
   start( groups, masterLines );
   for ( const TestGroup & group : groups ) {
      for ( const std::string & host : group.hosts )
         address( host );
   }
}

HMCheckData EngineFixture::check( TestGroup group ) {
   run( { group.host( "h" ) } );
   return results->next( "h" );
}

bool EngineFixture::reload( const std::vector< TestGroup > & groups ) {
   return engine->reload( files( groups ) );
}

HMIPAddress EngineFixture::ip( const std::string & text ) {
   HMIPAddress address;
   EXPECT_TRUE( address.set( text ) ) << text;
   return address;
}

void EngineFixture::address( const std::string & host, const std::string & text ) {
   EXPECT_TRUE( engine->addAddresses( host, { ip( text ) } ) );
}

std::future< HMProbeReport > EngineFixture::ask( const std::string & group ) {
   const auto promise = std::make_shared< std::promise< HMProbeReport > >();
   EXPECT_TRUE( engine->probe(
         group, "h", [promise]( const HMProbeReport & report ) { promise->set_value( report ); } ) );
   return promise->get_future();
}

HMProbeReport EngineFixture::awaited( std::future< HMProbeReport > report ) {
   if ( report.wait_for( patience ) == std::future_status::ready )
      return report.get();
   ADD_FAILURE() << "no report";
   return {};
}

bool EngineFixture::becomes( int wanted, const std::function< int() > & value ) {
   const auto deadline = std::chrono::steady_clock::now() + patience;
   while ( value() < wanted && std::chrono::steady_clock::now() < deadline )
      std::this_thread::yield();
   return value() == wanted;
}
