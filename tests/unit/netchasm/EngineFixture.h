#pragma once

#include "netchasm/Engine.h"
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

/// How long a test waits for what must come; only a failing test waits that long.
inline constexpr std::chrono::seconds patience{ 30 };

/// Collects the results.
class Results : public HMStorageObserver {
 public:
   using Hosts = std::vector< std::string >;

   bool storeHostCheckResult( HMCheckData & data ) override;
   /// The first result that fits, of those not looked at before by this function; fails the test when none
   /// comes.
   HMCheckData next( const std::function< bool( const HMCheckData & ) > & fits );
   HMCheckData next( const std::string & host );
   /// Wait until each of the hosts has this many results: in all, or more than it has now.
   void await( const Hosts & hosts, std::size_t count );
   void awaitMore( const Hosts & hosts, std::size_t more );
   std::vector< HMCheckData > all();
   std::vector< HMCheckData > of( const std::string & host );
   std::size_t count( const std::string & host ) { return of( host ).size(); }

 private:
   std::mutex mutex_;
   std::condition_variable came_;
   std::vector< HMCheckData > results_;
   std::size_t looked_ = 0;
};

inline bool answered( const HMCheckData & data ) {
   return data.m_response == HM_RESPONSE_ANSWERED;
}

class LogLines : public HMLogBase {
 public:
   void rotate() override {}
   bool openLog( std::string ) override { return !refuse; }
   void closeLog() override { ++closed; }
   void writeLog( LogEntry * entry ) override;
   std::size_t count( const std::string & part );
   std::string all();

   std::atomic< bool > refuse = false;
   std::atomic< int > closed = 0;

 private:
   std::mutex mutex_;
   std::vector< std::string > lines_;
};

/// A host group as the host configuration file has it. Checks come every 50 ms unless told otherwise.
struct TestGroup {
   explicit TestGroup( std::string groupName ) : name{ std::move( groupName ) } {}
   TestGroup & type( std::string value ) { return checkType = std::move( value ), *this; }
   TestGroup & port( unsigned value ) { return checkPort = value, *this; }
   TestGroup & interval( unsigned ms ) { return ttl = ms, *this; }
   TestGroup & timeout( unsigned ms ) { return timeoutMs = ms, *this; }
   TestGroup & retries( unsigned value ) { return checkRetries = value, *this; }
   TestGroup & retryDelay( unsigned ms ) { return retryDelayMs = ms, *this; }
   TestGroup & with( const std::string & line ) { return more += "  " + line + "\n", *this; }
   TestGroup & host( const std::string & value ) { return hosts.push_back( value ), *this; }
   TestGroup & numberedHosts( int count ); ///< "1", "2", …
   std::string yaml() const;

   std::string name, checkType = "http", more;
   unsigned checkPort = 80, ttl = 50, timeoutMs = 5000, checkRetries = 0, retryDelayMs = 0;
   std::vector< std::string > hosts;
};

class EngineFixture : public testing::Test {
 protected:
   EngineFixture();
   ~EngineFixture() override;

   std::string file( const std::string & name, const std::string & content );
   /// The two files; returns the master's path.
   std::string files( const std::vector< TestGroup > & groups, const std::string & masterLines = "" );

   /// Starts, without addresses.
   void start( const std::vector< TestGroup > & groups, const std::string & masterLines = "" );
   /// Starts, and every host has its address.
   void run( const std::vector< TestGroup > & groups, const std::string & masterLines = "" );
   /// Runs with one host "h" in one group and returns its first result.
   HMCheckData check( TestGroup group );
   [[nodiscard]] bool reload( const std::vector< TestGroup > & groups );
   void address( const std::string & host, const std::string & text = "127.0.0.1" );
   static HMIPAddress ip( const std::string & text );

   /// Asks for a check of "h", beside the schedule; the report, once it comes, is what the future gives.
   std::future< HMProbeReport > ask( const std::string & group );
   static HMProbeReport awaited( std::future< HMProbeReport > report );
   HMProbeReport probe( const std::string & group ) { return awaited( ask( group ) ); }

   /// Waits until it is as large as wanted; true when it is no larger.
   static bool becomes( int wanted, const std::function< int() > & value );

   std::filesystem::path directory;
   int threads = 2; ///< of the files written next
   std::shared_ptr< Results > results = std::make_shared< Results >();
   std::shared_ptr< LogLines > log = std::make_shared< LogLines >();
   std::unique_ptr< netchasm::Engine > engine = std::make_unique< netchasm::Engine >();
};
