#pragma once

#include <regex.h>
#include <string>
#include <string_view>

namespace hmctl {

/// Where the text of a command goes. Everything may throw Refused when it can go nowhere, and Interrupted
/// when the operator has seen enough.
class Output {
 public:
   Output() = default;
   Output( const Output & ) = delete;
   Output & operator=( const Output & ) = delete;
   virtual ~Output() = default;

   virtual void write( std::string_view text ) = 0;
   /// What follows comes as it happens and has no end: it is not held back.
   virtual void live() {}
   /// Shows `text` in place of what stood on the terminal; elsewhere writes it.
   virtual void redraw( const std::string & text ) = 0;
   /// Nothing follows.
   virtual void end() {}
};

/// Standard output; made safe where it is a terminal, and never held back.
class StandardOutput : public Output {
 public:
   StandardOutput();
   void write( std::string_view text ) override;
   void redraw( const std::string & text ) override;
   static void bytesWrite( std::string_view bytes ); // as they are

 private:
   const bool terminal_;
   bool drawn_ = false;
};

/// Passes on the lines that a POSIX extended regular expression matches.
class MatchOutput final : public Output {
 public:
   /// Throws std::invalid_argument. `next` outlives this.
   MatchOutput( const std::string & pattern, Output & next );
   ~MatchOutput() override;
   void write( std::string_view text ) override;
   void live() override { next_.live(); }
   void redraw( const std::string & text ) override;
   void end() override;

 private:
   std::string matching( std::string_view text );

   regex_t expression_;
   Output & next_;
   std::string line_; // without its end so far
};

} // namespace hmctl
