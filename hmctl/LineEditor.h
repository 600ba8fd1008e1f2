#pragma once

#include "hmctl/Completion.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace hmctl {

/// Reads command lines from a terminal, with editing, history and completion. One at a time in a process;
/// standard input and output are terminals, and an Interrupts lives for as long as this does.
class LineEditor {
 public:
   /// `complete` must not throw.
   explicit LineEditor( std::function<Completions( const std::string & line )> complete );
   ~LineEditor();
   LineEditor( const LineEditor & ) = delete;
   LineEditor & operator=( const LineEditor & ) = delete;

   /// The next line; empty after Ctrl-C, nothing at the end of the input.
   std::optional<std::string> line();

 private:
   struct Parts;
   const std::unique_ptr<Parts> parts_;
};

/// Where the history of lines is kept between shells; empty: nowhere.
std::string historyPath();

} // namespace hmctl
