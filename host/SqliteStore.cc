#include "host/SqliteStore.h"

#include "host/Yaml.h"
#include "platform/Printable.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <unistd.h>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

namespace host {

using namespace platform;

namespace {

constexpr std::int64_t applicationId = 0x484d5354; // "HMST"
constexpr std::int64_t formatVersion = 1;
constexpr int maxValueBytes = 1024 * 1024; // of a row; the longest of ours have some 10 KiB
constexpr auto tryAgainAfter = std::chrono::seconds( 1 );

constexpr const char * createTables = R"(
   CREATE TABLE entity( path TEXT PRIMARY KEY, attributes TEXT NOT NULL ) WITHOUT ROWID;
   CREATE TABLE member( path TEXT, key TEXT, PRIMARY KEY( path, key ) ) WITHOUT ROWID;
)";

// Without symbolic links: whoever takes another way to the same file is to find the same lock.
std::string fileItself( std::string file ) {
   std::error_code error;
   const auto itself = std::filesystem::weakly_canonical( file, error );
   return error ? file : itself.string();
}

bool isDamage( int code ) {
   return ( code & 0xff ) == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_TOOBIG;
}

std::string fieldsJson( const StoredFields & fields ) {
   std::string json = "{";
   for ( const auto & [name, value] : fields ) {
      json += ( json.size() > 1 ? "," : "" ) + jsonString( name ) + ":" + jsonString( value );
   }
   return json + "}";
}

bool fieldsRead( std::string_view text, StoredFields & fields ) {
   const auto json = nlohmann::json::parse( text, nullptr, false );
   if ( !json.is_object() ) {
      return false;
   }
   for ( const auto & [name, value] : json.items() ) {
      if ( !value.is_string() ) {
         return false;
      }
      fields.emplace_back( name, value.get<std::string>() );
   }
   return true;
}

std::string_view columnText( sqlite3_stmt * statement, int column ) {
   const auto * text = reinterpret_cast<const char *>( sqlite3_column_text( statement, column ) );
   return { text ? text : "", static_cast<std::size_t>( sqlite3_column_bytes( statement, column ) ) };
}

} // namespace

SqliteStore::SqliteStore( std::string file, const Ptr<EventLoop> & mainLoop )
      : StateStore( "hm-sqlite", mainLoop ),
        file_( fileItself( std::move( file ) ) ),
        fields_( nullptr, sqlite3_finalize ),
        insert_( nullptr, sqlite3_finalize ),
        remove_( nullptr, sqlite3_finalize ),
        removeEntities_( nullptr, sqlite3_finalize ),
        removeMembers_( nullptr, sqlite3_finalize ) {}

SqliteStore::~SqliteStore() {
   stop();
   detach();
   if ( lockFd_ >= 0 ) {
      ::close( lockFd_ );
   }
}

Refusal SqliteStore::open( StoredState & state, std::vector<std::string> & notes ) {
   if ( auto refusal = lock() ) {
      return refusal;
   }
   std::string why, ignored;
   switch ( attachAndRead( why, Mode::shared, state ) ) {
   case Attached::refused:
      return why;
   case Attached::damaged:
      state = {};
      failing_ = !attachAnew( why );
      notes.push_back( why + ( failing_ ? "; the state is not stored until that is over" : "" ) );
      break;
   case Attached::notNow: {
      const bool readAlone = attachAndRead( ignored, Mode::alone, state ) == Attached::yes;
      detach(); // others may read the file again
      if ( !readAlone ) {
         state = {};
         std::error_code none;
         unread_ = std::filesystem::exists( file_, none ) && std::filesystem::file_size( file_, none ) != 0;
      }
      holdsState_ = !state.empty();
      failing_ = true; // of which this is the one line
      notes.push_back( why + "; the state is not stored until that is over" +
                       ( readAlone ? "" : ", and what it held is not known" ) );
      break;
   }
   case Attached::yes:
      holdsState_ = !state.empty();
      break;
   }
   if ( db_ && !holdsState_ ) {
      tell( StoreEvent::Kind::empty );
   }
   start();
   return std::nullopt;
}

// Held by the kernel for this process and its end, however that comes.
Refusal SqliteStore::lock() {
   std::error_code ignored;
   std::filesystem::create_directories( std::filesystem::path( file_ ).parent_path(), ignored );
   const auto name = file_ + ".lock";
   lockFd_ = ::open( name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640 );
   if ( lockFd_ < 0 ) {
      return fmt::format( "state database {}: {}", printable( name ), std::strerror( errno ) );
   }
   if ( flock( lockFd_, LOCK_EX | LOCK_NB ) != 0 ) {
      char pid[16] = {};
      const auto size = pread( lockFd_, pid, sizeof pid - 1, 0 );
      return fmt::format( "state database {}: another host writes it (process {})", printable( file_ ),
            size > 0 ? printable( std::string_view( pid, static_cast<std::size_t>( size ) ) ) : "unknown" );
   }
   const auto pid = std::to_string( getpid() );
   // For the message above alone: on a full disk the lock holds without it.
   if ( ftruncate( lockFd_, 0 ) != 0 || pwrite( lockFd_, pid.data(), pid.size(), 0 ) < 0 ) {
      errno = 0;
   }
   return std::nullopt;
}

SqliteStore::Attached SqliteStore::attachAndRead( std::string & why, Mode mode, StoredState & state ) {
   const auto attached = attach( why, mode );
   int code = SQLITE_OK;
   if ( attached == Attached::yes && ( code = read( state ) ) != SQLITE_OK ) {
      why = complaint( code );
      return isDamage( code ) ? Attached::damaged : Attached::notNow;
   }
   return attached;
}

SqliteStore::Attached SqliteStore::attach( std::string & why, Mode mode ) {
   const auto failed = [&]( int code ) {
      why = complaint( code );
      const bool damage = isDamage( code );
      const bool notNow = ( code & 0xff ) == SQLITE_FULL || ( code & 0xff ) == SQLITE_IOERR ||
                          ( code & 0xff ) == SQLITE_BUSY;
      detach();
      return damage ? Attached::damaged : notNow ? Attached::notNow : Attached::refused;
   };
   const auto refused = [&]( const char * what ) {
      why = fmt::format( "state database {}: {}", printable( file_ ), what );
      detach();
      return Attached::refused;
   };
   int code = sqlite3_open_v2( file_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr );
   if ( code != SQLITE_OK ) {
      return failed( code );
   }
   sqlite3_extended_result_codes( db_, 1 );
   sqlite3_busy_timeout( db_, 1000 );
   sqlite3_limit( db_, SQLITE_LIMIT_LENGTH, maxValueBytes );
   if ( mode == Mode::alone && ( code = execute( "PRAGMA locking_mode = EXCLUSIVE" ) ) != SQLITE_OK ) {
      return failed( code );
   }
   std::int64_t tables = 0, application = 0, version = 0;
   for ( const auto step : { number( "SELECT count(*) FROM sqlite_master", tables ),
               number( "PRAGMA application_id", application ), number( "PRAGMA user_version", version ) } ) {
      if ( step != SQLITE_OK ) {
         return failed( step );
      }
   }
   if ( tables != 0 && application != applicationId ) {
      return refused( "is a database of something else" );
   }
   if ( tables != 0 && version != formatVersion ) {
      return refused( "was written by another version" );
   }
   std::int64_t sound = 0;
   code = number( "SELECT count(*) FROM pragma_quick_check( 1 ) WHERE quick_check = 'ok'", sound );
   if ( code == SQLITE_OK && sound != 1 ) {
      code = SQLITE_CORRUPT;
   }
   if ( code == SQLITE_OK ) {
      code = execute( "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;" );
   }
   if ( code == SQLITE_OK && tables == 0 ) {
      code = execute( fmt::format( "BEGIN; PRAGMA application_id = {}; PRAGMA user_version = {}; {} COMMIT;",
            applicationId, formatVersion, createTables )
                            .c_str() );
   }
   const std::pair<const char *, Statement &> statements[] = {
         { "INSERT INTO entity VALUES( ?1, ?2 ) ON CONFLICT( path ) DO UPDATE SET attributes = "
           "json_patch( attributes, excluded.attributes )",
               fields_ },
         { "INSERT OR IGNORE INTO member VALUES( ?1, ?2 )", insert_ },
         { "DELETE FROM member WHERE path = ?1 AND key = ?2", remove_ },
         { "DELETE FROM entity WHERE path = ?1 OR ( path > ?2 AND path < ?3 )", removeEntities_ },
         { "DELETE FROM member WHERE path > ?2 AND path < ?3", removeMembers_ } };
   for ( const auto & [sql, statement] : statements ) {
      if ( code == SQLITE_OK ) {
         code = prepare( sql, statement );
      }
   }
   return code == SQLITE_OK ? Attached::yes : failed( code == SQLITE_ERROR ? SQLITE_CORRUPT : code );
}

void SqliteStore::detach() {
   for ( auto * statement : { &fields_, &insert_, &remove_, &removeEntities_, &removeMembers_ } ) {
      statement->reset();
   }
   sqlite3_close( db_ );
   db_ = nullptr;
}

Refusal SqliteStore::setAside( std::string & where ) {
   detach();
   const auto now = std::chrono::floor<std::chrono::seconds>( std::chrono::system_clock::now() );
   const auto base = fmt::format(
         "{}.damaged-{:%Y%m%dT%H%M%SZ}", file_, fmt::gmtime( std::chrono::system_clock::to_time_t( now ) ) );
   where = base;
   for ( int i = 2; std::filesystem::exists( where ); ++i ) {
      where = fmt::format( "{}-{}", base, i );
   }
   // The file itself last: a new one must never meet a log of the old one.
   for ( const char * part : { "-wal", "-shm", "" } ) {
      std::error_code error;
      std::filesystem::rename( file_ + part, where + part, error );
      if ( error && error != std::errc::no_such_file_or_directory ) {
         return fmt::format( "{}{}: {}", printable( file_ ), part, error.message() );
      }
   }
   return std::nullopt;
}

bool SqliteStore::attachAnew( std::string & why ) {
   std::string where, whyNot;
   if ( const auto refusal = setAside( where ) ) {
      why += fmt::format( "; it cannot be set aside ({})", *refusal );
      return false;
   }
   const bool anew = attach( whyNot ) == Attached::yes;
   why += fmt::format( "; set aside as {}; {}", printable( where ),
         anew ? "it begins anew" : "a new one cannot be made yet: " + whyNot );
   return true;
}

int SqliteStore::read( StoredState & state ) {
   Statement entities( nullptr, sqlite3_finalize ), members( nullptr, sqlite3_finalize );
   int code = prepare( "SELECT path, attributes FROM entity", entities );
   while ( code == SQLITE_OK && ( code = sqlite3_step( entities.get() ) ) == SQLITE_ROW ) {
      StoredFields fields;
      code = fieldsRead( columnText( entities.get(), 1 ), fields ) ? SQLITE_OK : SQLITE_CORRUPT;
      state.fields.emplace( columnText( entities.get(), 0 ), std::move( fields ) );
   }
   if ( code != SQLITE_DONE ) {
      return code;
   }
   code = prepare( "SELECT path, key FROM member", members );
   while ( code == SQLITE_OK && ( code = sqlite3_step( members.get() ) ) == SQLITE_ROW ) {
      state.keys[std::string( columnText( members.get(), 0 ) )].emplace_back(
            columnText( members.get(), 1 ) );
      code = SQLITE_OK;
   }
   return code == SQLITE_DONE ? SQLITE_OK : code;
}

int SqliteStore::execute( const char * sql ) {
   return sqlite3_exec( db_, sql, nullptr, nullptr, nullptr );
}

int SqliteStore::number( const char * sql, std::int64_t & value ) {
   Statement statement( nullptr, sqlite3_finalize );
   int code = prepare( sql, statement );
   if ( code == SQLITE_OK && ( code = sqlite3_step( statement.get() ) ) == SQLITE_ROW ) {
      value = sqlite3_column_int64( statement.get(), 0 );
      code = SQLITE_OK;
   }
   return code;
}

int SqliteStore::prepare( const char * sql, Statement & statement ) {
   sqlite3_stmt * made = nullptr;
   const int code = sqlite3_prepare_v3( db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr );
   statement.reset( made );
   return code;
}

int SqliteStore::bound( sqlite3_stmt * statement, std::initializer_list<std::string_view> texts ) {
   sqlite3_reset( statement );
   int index = 0;
   for ( const auto text : texts ) {
      const auto code = sqlite3_bind_text(
            statement, ++index, text.data(), static_cast<int>( text.size() ), SQLITE_STATIC );
      if ( code != SQLITE_OK && code != SQLITE_RANGE ) {
         return code;
      }
   }
   const int code = sqlite3_step( statement );
   sqlite3_reset( statement ); // lets go of the texts
   return code == SQLITE_DONE ? SQLITE_OK : code;
}

std::string SqliteStore::complaint( int code ) const {
   return fmt::format( "state database {}: {}", printable( file_ ), sqlite3_errstr( code ) );
}

void SqliteStore::doInitSm() {
   retry_ = new LoopTimer( loop(), [this] { attempt(); } );
   StateStore::doInitSm();
}

void SqliteStore::doDelSm() {
   StateStore::doDelSm();
   retry_ = nullptr;
}

void SqliteStore::handle( const Ptr<QueueElement> & request ) {
   if ( const auto batch = dynamicPtrCast<StoreBatch>( request ) ) {
      pending_.push_back( batch );
      attempt();
   }
}

void SqliteStore::attempt() {
   std::string why;
   int code = SQLITE_OK;
   if ( !db_ ) {
      const auto attached = attach( why );
      if ( attached == Attached::yes && std::exchange( unread_, false ) ) {
         why = fmt::format( "state database {}: could not be read at the start", printable( file_ ) );
         code = SQLITE_CORRUPT;
      } else if ( attached == Attached::yes ) {
         tell( StoreEvent::Kind::empty ); // whatever it holds, it has missed something
      } else {
         code = attached == Attached::damaged ? SQLITE_CORRUPT : SQLITE_IOERR;
      }
   }
   while ( code == SQLITE_OK && !pending_.empty() ) {
      code = write( *pending_.front() );
      if ( code == SQLITE_OK ) {
         pending_.pop_front();
         tell( StoreEvent::Kind::written );
      } else {
         why = complaint( code );
         execute( "ROLLBACK" );
      }
   }
   if ( isDamage( code ) && attachAnew( why ) ) {
      say( why );
      tell( StoreEvent::Kind::empty );
      code = SQLITE_OK;
      for ( ; !pending_.empty(); pending_.pop_front() ) {
         tell( StoreEvent::Kind::written ); // with all the rest
      }
   }
   if ( code == SQLITE_OK ) {
      if ( db_ && std::exchange( failing_, false ) ) {
         say( fmt::format( "state database {}: is written again", printable( file_ ) ) );
      }
      return;
   }
   if ( !std::exchange( failing_, true ) ) {
      say( why + "; monitoring goes on, and what changes is stored once that is over" );
   }
   retry_->start( tryAgainAfter );
}

int SqliteStore::write( const StoreBatch & batch ) {
   int code = execute( "BEGIN IMMEDIATE" );
   for ( const auto & root : batch.whole ) {
      code = code == SQLITE_OK ? removeBelow( root ) : code;
   }
   for ( const auto & each : batch.changes ) {
      code = code == SQLITE_OK ? change( each ) : code;
   }
   return code == SQLITE_OK ? execute( "COMMIT" ) : code;
}

int SqliteStore::change( const StoreChange & change ) {
   switch ( change.kind ) {
   case StoreChange::Kind::fields:
      return bound( fields_.get(), { change.path, fieldsJson( change.fields ) } );
   case StoreChange::Kind::insert:
      return bound( insert_.get(), { change.path, change.key } );
   case StoreChange::Kind::remove:
      if ( const int code = bound( remove_.get(), { change.path, change.key } ); code != SQLITE_OK ) {
         return code;
      }
      return removeBelow( change.path + "/" + pathEscape( change.key ) );
   }
   return SQLITE_OK;
}

int SqliteStore::removeBelow( const std::string & path ) {
   const auto from = path + "/", to = path + "0"; // "0" follows "/"
   const int code = bound( removeEntities_.get(), { path, from, to } );
   return code == SQLITE_OK ? bound( removeMembers_.get(), { path, from, to } ) : code;
}

} // namespace host
