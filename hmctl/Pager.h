#pragma once

#include "hmctl/Output.h"
#include "hmctl/Terminal.h"

#include <functional>

namespace hmctl {

/// Shows long output a screen at a time: a space brings the next one, Enter a line, G everything, q no more.
/// What was not asked for yet is not fetched from the host either.
class Pager final : public Output {
 public:
   struct Screen {
      std::function<TerminalSize()> size;
      std::function<void( std::string_view )> write; // text that is safe for a terminal
      /// Shows the question and waits for a key, which is not shown; may throw Interrupted.
      std::function<char( std::string_view question )> key;
      std::function<void( const std::string & )> redraw;
   };
   explicit Pager( Screen screen ) : screen_( std::move( screen ) ) {}

   void write( std::string_view text ) override;
   void live() override { paging_ = false; }
   void redraw( const std::string & text ) override { screen_.redraw( text ); }
   void end() override;

 private:
   void show( std::string_view line ); // with or without the newline at its end
   void ask( std::size_t rows );

   const Screen screen_;
   bool paging_ = true;
   std::size_t rowsShown_ = 0; // since the last question
   std::string line_;          // without its end so far
};

/// Standard output and input, both of which must be terminals.
Pager::Screen terminalScreen( StandardOutput & output );

} // namespace hmctl
