#pragma once

#include "host/ControlServer.h"

#include <memory>
#include <optional>
#include <string>

struct event;

namespace host {

/// The answer to one request, made in pieces as the client takes them.
class Answer {
 public:
   virtual ~Answer() = default;
   virtual bool ready() const { return true; } // something can be produced now
   /// Appends whole lines, a few KiB at most; false with the last one.
   virtual bool produce( std::string & out ) = 0;
   /// Has no end of its own, and ends with the client's input.
   virtual bool endless() const { return false; }
};

/// One connection to the control socket. It reads a request, answers it, and only then turns to the next;
/// what it holds of either direction is bounded. Main thread only; lives as long as the server lists it or
/// somebody holds it, and does nothing any more once it is closed.
class ControlClient : public platform::RefCounted {
 public:
   ControlClient( ControlServer & server, int fd );
   ~ControlClient() override;

   void start();
   void close();
   bool closed() const { return fd_ < 0; }
   /// The other side has closed its end, and not only its output. Asks the kernel.
   bool peerGone() const;

   ControlServer & server() const { return *server_; }
   /// What an answer that was not ready calls when it is.
   void wake();
   /// Ends the connection once `text` has been sent.
   void refuseAndClose( const std::string & text );

 private:
   friend class ControlServer;

   bool hasWork() const;
   void turn(); // does a small piece of it
   void readable();
   void writable();
   void eventsUpdate();
   void requestBegin();
   void documentGrow();
   /// A request that is being read in or answered, or an answer that is not sent yet.
   bool requestUnderWay() const;
   /// The rest of a document, or an answer to be taken: it is the client's move.
   bool awaited() const { return documentRequest_ || closing_ || out_.size() > outSent_; }
   bool lineWaits() const { return in_.find( '\n' ) != in_.npos; }
   bool outputFull() const { return out_.size() - outSent_ >= outputHighWater; }

   static constexpr std::size_t outputHighWater = 64 * 1024;

   ControlServer * server_; // may be gone once this is closed
   int fd_;
   event * readEvent_;
   event * writeEvent_;
   bool reading_ = false;
   bool writing_ = false;
   bool turnWaits_ = false; // in the server's list of turns
   bool inputEnded_ = false;
   bool closing_ = false;                // once the output is sent
   platform::Clock::TimePoint activeAt_; // the last byte of either direction

   std::string in_;
   std::string out_;
   std::size_t outSent_ = 0; // of out_, below outputHighWater

   // A request whose document is still coming in.
   std::optional<ChangeRequest> documentRequest_;
   std::size_t documentMissing_ = 0;
   std::shared_ptr<void> documentShare_; // of the server's budget, given back by whoever holds it last
   std::shared_ptr<std::size_t> documentReserved_;

   std::unique_ptr<Answer> answer_;
};

/// What a request line asks for. `document`: bytes to come before `change` is complete.
struct ControlRequest {
   std::unique_ptr<Answer> answer;
   std::optional<ChangeRequest> change;
   std::size_t documentBytes = 0;
   bool fatal = false; // what follows the line cannot be told from requests
};

/// Reads one request line of `client`. Never fails: what is wrong becomes the answer.
ControlRequest controlRequest( ControlClient & client, std::string_view line );
/// Submits a change; the answer waits for its outcome. `share` is held until then.
std::unique_ptr<Answer> changeAnswer(
      ControlClient & client, ChangeRequest request, std::shared_ptr<void> share );
std::unique_ptr<Answer> watchAnswer( ControlClient & client, const std::string & path, bool initial );

std::unique_ptr<Answer> refusedAnswer( const std::string & reason );
std::string refusedLine( const std::vector<std::string> & reasons );

} // namespace host
