#include "platform/Trace.h"

#include "platform/Printable.h"

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <numeric>
#include <unistd.h>

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace platform {

namespace {

struct Registry {
   std::mutex mutex;
   std::map<std::string, Ptr<TraceFacility>, std::less<>> facilities;
};

// Never destroyed: facilities are used until the last thread has gone.
Registry & registry() {
   static auto * registry = new Registry;
   return *registry;
}

struct Output {
   spdlog::sinks::dist_sink_mt sinks;
   std::shared_ptr<spdlog::sinks::sink> file;
   std::shared_ptr<spdlog::sinks::sink> standardError;
   std::atomic<unsigned> maxLineBytes{ 512 };
   std::atomic<bool> flushEachLine{ true };

   Output() {
      sinks.set_formatter( std::make_unique<spdlog::pattern_formatter>( "%Y-%m-%d %H:%M:%S.%f %t %v" ) );
   }
};

Output & output() {
   static auto * output = new Output;
   return *output;
}

std::string_view baseName( std::string_view path ) {
   return path.substr( path.rfind( '/' ) + 1 );
}

std::optional<unsigned> levelFromText( std::string_view text ) {
   unsigned level = 0;
   const auto [end, error] = std::from_chars( text.data(), text.data() + text.size(), level );
   const bool read = error == std::errc{} && end == text.data() + text.size();
   return read && level <= TraceFacility::maxLevel ? std::optional( level ) : std::nullopt;
}

} // namespace

Ptr<TraceFacility> TraceFacility::find( std::string_view name ) {
   const std::scoped_lock lock( registry().mutex );
   auto & facilities = registry().facilities;
   if ( const auto found = facilities.find( name ); found != facilities.end() ) {
      return found->second;
   }
   return facilities.emplace( name, Ptr<TraceFacility>( new TraceFacility( name ) ) ).first->second;
}

std::vector<Ptr<TraceFacility>> TraceFacility::all() {
   const std::scoped_lock lock( registry().mutex );
   std::vector<Ptr<TraceFacility>> all;
   for ( const auto & [name, facility] : registry().facilities ) {
      all.push_back( facility );
   }
   return all;
}

void TraceFacility::levelsIs( std::uint16_t levels ) {
   if ( levels_.exchange( levels, std::memory_order_relaxed ) == levels ) {
      return;
   }
   std::erase_if( observers_, []( const auto & observer ) { return observer.expired(); } );
   const auto observers = observers_;
   for ( const auto & weak : observers ) {
      if ( const auto observer = weak.lock() ) {
         ( *observer )();
      }
   }
}

TraceFacility::Token TraceFacility::observe( std::function<void()> observer ) {
   auto token = std::make_shared<std::function<void()>>( std::move( observer ) );
   observers_.push_back( token );
   return token;
}

void TraceFacility::write( int level, const char * file, int line, std::string_view text ) {
   if ( !levelEnabled( level ) ) {
      return;
   }
   auto & out = output();
   std::string message = printable( text.substr( 0, 4096 ) );
   const unsigned longest = out.maxLineBytes.load( std::memory_order_relaxed );
   if ( message.size() > longest ) {
      message.resize( longest - 3 );
      message += "...";
   }
   const std::string payload = fmt::format( "{} {} {}:{} {}", name_, level, baseName( file ), line, message );
   try {
      out.sinks.log( spdlog::details::log_msg( name_, spdlog::level::info, payload ) );
      if ( out.flushEachLine.load( std::memory_order_relaxed ) ) {
         out.sinks.flush();
      }
   } catch ( const std::exception & ) {
      // A full disk or a broken pipe costs lines, never the process.
   }
}

std::optional<std::uint16_t> traceLevelsFromText( std::string_view text ) {
   if ( text == "none" ) {
      return std::uint16_t{ 0 };
   }
   std::uint16_t levels = 0;
   while ( true ) {
      const auto item = text.substr( 0, text.find( ',' ) );
      const auto dash = item.find( '-' );
      const auto first = levelFromText( item.substr( 0, dash ) );
      const auto last = dash == item.npos ? first : levelFromText( item.substr( dash + 1 ) );
      if ( !first || !last || *first > *last ) {
         return std::nullopt;
      }
      for ( unsigned level = *first; level <= *last; ++level ) {
         levels |= static_cast<std::uint16_t>( 1u << level );
      }
      if ( item.size() == text.size() ) {
         return levels;
      }
      text.remove_prefix( item.size() + 1 );
   }
}

std::string traceLevelsText( std::uint16_t levels ) {
   std::string text;
   for ( int level = 0; level < TraceFacility::levelCount; ++level ) {
      if ( !( levels >> level & 1 ) ) {
         continue;
      }
      int last = level;
      while ( levels >> ( last + 1 ) & 1 ) {
         ++last;
      }
      text += fmt::format( "{}{}", text.empty() ? "" : ",", level );
      if ( last > level ) {
         text += fmt::format( "-{}", last );
      }
      level = last;
   }
   return text.empty() ? "none" : text;
}

std::optional<std::string> traceSpecApply( std::string_view spec ) {
   // A list of levels has commas of its own, so an item without "=" goes on with the facility before it.
   std::vector<std::pair<std::string, std::uint16_t>> changes;
   while ( !spec.empty() ) {
      const auto item = spec.substr( 0, spec.find( ',' ) );
      spec.remove_prefix( std::min( item.size() + 1, spec.size() ) );
      const auto equals = item.find( '=' );
      const auto levels = traceLevelsFromText( equals == item.npos ? item : item.substr( equals + 1 ) );
      if ( !levels || equals == 0 || ( equals == item.npos && changes.empty() ) ) {
         return fmt::format(
               "\"{}\" is not FACILITY=LEVELS with levels 0 to 9, as in HealthMonitor=0-4", item );
      }
      if ( equals == item.npos ) {
         changes.back().second |= *levels;
      } else {
         changes.emplace_back( item.substr( 0, equals ), *levels );
      }
   }
   for ( const auto & [name, levels] : changes ) {
      TraceFacility::find( name )->levelsIs( levels );
   }
   return std::nullopt;
}

void traceToStderrIs( bool on ) {
   auto & out = output();
   if ( on && !out.standardError ) {
      out.standardError = std::make_shared<spdlog::sinks::stderr_sink_mt>();
      out.standardError->set_formatter(
            std::make_unique<spdlog::pattern_formatter>( "%Y-%m-%d %H:%M:%S.%f %t %v" ) );
      out.sinks.add_sink( out.standardError );
   } else if ( !on && out.standardError ) {
      out.sinks.remove_sink( out.standardError );
      out.standardError.reset();
   }
}

void traceFlush() {
   try {
      output().sinks.flush();
   } catch ( const std::exception & ) {
      // As for each line.
   }
}

std::string fastTraceInit( const FastTraceConfig & config, const char * directory ) {
   auto name = config.fileName;
   if ( const auto pid = name.find( "%d" ); pid != name.npos ) {
      name.replace( pid, 2, std::to_string( getpid() ) );
   }
   const auto totalKiB = std::accumulate( config.ringKiB.begin(), config.ringKiB.end(), 0u );
   const auto pieces = std::max( config.pieces, 1u );
   const std::vector<std::filesystem::path> candidates =
         directory ? std::vector<std::filesystem::path>{ directory }
                   : std::vector<std::filesystem::path>{ "/var/log/health-monitor", "/tmp" };
   for ( const auto & candidate : candidates ) {
      const auto path = ( candidate / name ).string();
      try {
         std::filesystem::create_directories( candidate );
         auto file = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
               path, std::size_t{ totalKiB } * 1024 / pieces, pieces - 1, !config.keepOld );
         file->set_formatter( std::make_unique<spdlog::pattern_formatter>( "%Y-%m-%d %H:%M:%S.%f %t %v" ) );
         fastTraceClose();
         auto & out = output();
         out.maxLineBytes = std::max( config.maxLineBytes, 64u );
         out.flushEachLine = config.bufferedLines == 0;
         out.file = file;
         out.sinks.add_sink( file );
         return path;
      } catch ( const std::exception & error ) {
         std::fprintf( stderr, "no trace file %s: %s\n", path.c_str(), error.what() );
      }
   }
   return {};
}

void fastTraceClose() {
   auto & out = output();
   if ( out.file ) {
      out.sinks.remove_sink( out.file );
      out.file.reset();
   }
}

} // namespace platform
