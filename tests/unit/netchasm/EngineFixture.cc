#include "EngineFixture.h"
#include <fmt/format.h>
#include <fstream>

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

void Results::await( const std::string & host, std::size_t wanted ) {
   std::unique_lock lock{ mutex_ };
   const auto enough = [&] {
      return static_cast< std::size_t >( std::count_if( results_.begin(), results_.end(),
                   [&]( const auto & data ) { return data.m_hostName == host; } ) ) >= wanted;
   };
   if ( !came_.wait_for( lock, patience, enough ) )
      ADD_FAILURE() << "fewer than " << wanted << " results for " << host;
}

std::size_t Results::count( const std::string & host ) {
   const std::lock_guard lock{ mutex_ };
   return static_cast< std::size_t >( std::count_if(
         results_.begin(), results_.end(), [&]( const auto & data ) { return data.m_hostName == host; } ) );
}

std::vector< HMCheckData > Results::all() {
   const std::lock_guard lock{ mutex_ };
   return results_;
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

HMCheckData EngineFixture::check( const TestGroup & group, const std::string & hostAddress ) {
   TestGroup one = group;
   start( { one.host( "h" ) } );
   address( "h", hostAddress );
   return results->next( "h" );
}
