#pragma once

#include "host/StateStore.h"

#include <deque>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace host {

/// State in an SQLite database file, which other programs may read while it is written (journal mode WAL):
///
///     entity( path, attributes )   one row an entity; attributes as a JSON object of texts
///     member( path, key )          one row a key of a set or a collection
///
/// A batch is a transaction. A process that is killed leaves the last whole one behind; a machine that loses
/// its power may lose the last few, whole as well (synchronous is NORMAL).
///
/// A disk that is full already at the start keeps nobody from what the file holds: it is read alone, with the
/// log's index in memory. A file that could not be read then is set aside once it is written again.
///
/// `FILE.lock` belongs to the process that writes: a second one is refused. A file that SQLite finds damaged
/// is renamed to FILE.damaged-YYYYMMDDTHHMMSSZ and begun anew. When the disk is full (or anything else keeps
/// a transaction from being written) it is tried again every second, and one line says so, another when it is
/// over.
class SqliteStore final : public StateStore {
 public:
   SqliteStore( std::string file, const platform::Ptr<platform::EventLoop> & mainLoop );
   ~SqliteStore() override;

   [[nodiscard]] platform::Refusal open( StoredState & state, std::vector<std::string> & notes ) override;
   bool holdsState() const override { return holdsState_; }

 private:
   enum class Attached { yes, damaged, notNow, refused };
   enum class Mode { shared, alone }; // alone: nothing is written beside the file
   using Statement = std::unique_ptr<sqlite3_stmt, int ( * )( sqlite3_stmt * )>;

   platform::Refusal lock();
   Attached attach( std::string & why, Mode mode = Mode::shared ); // opens and checks the file
   Attached attachAndRead( std::string & why, Mode mode, StoredState & state );
   void detach();
   platform::Refusal setAside( std::string & where );
   bool attachAnew(
         std::string & why ); // after damage, `why` tells more then; false: the old one is in the way
   int read( StoredState & state );
   int execute( const char * sql );
   int number( const char * sql, std::int64_t & value );
   int prepare( const char * sql, Statement & statement );
   int bound( sqlite3_stmt * statement, std::initializer_list<std::string_view> texts );
   std::string complaint( int code ) const;

   void doInitSm() override;
   void doDelSm() override;
   void handle( const platform::Ptr<platform::QueueElement> & request ) override;
   bool idle() override { return pending_.empty() || failing_; }
   void attempt();
   int write( const StoreBatch & batch );
   int change( const StoreChange & change );
   int removeBelow( const std::string & path );

   const std::string file_;
   int lockFd_ = -1;
   bool holdsState_ = false;
   // The main thread until open() returns, then the store's.
   sqlite3 * db_ = nullptr;
   Statement fields_, insert_, remove_, removeEntities_, removeMembers_;
   std::deque<platform::Ptr<StoreBatch>> pending_; // one, but for the end
   bool failing_ = false;
   bool unread_ = false; // what the file held at the start
   platform::Ptr<platform::LoopTimer> retry_;
};

} // namespace host
